// Start-up of the runtime and the processor count.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "kyrt/log.h"
#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"
#include "runtime/proc_paths.h"
#include "util/line_reader.h"

extern "C" {
KYRT_API int32_t __kyRtStarted = 0;
KYRT_API int32_t __kyNumberOfProcessors = 0;
}

namespace {

// Serialises start-up: 0 = free, 1 = held.
int32_t g_startupGuard = 0;

constexpr std::size_t kProcLineBufferSize = 1024;

bool StartsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// The leading "cpu" lines of /proc/stat: the summary line ("cpu  ...") is
// followed by one numbered line per processor ("cpu0 ...", "cpu1 ...").
int CountNumberedCpuLines(std::FILE* stat) {
  int count = 0;
  kyrt::ForEachLine<kProcLineBufferSize>(stat, [&count](const char* line) {
    if (!StartsWith(line, "cpu")) return false;
    if (std::isdigit(static_cast<unsigned char>(line[3]))) ++count;
    return true;
  });
  return count;
}

int CountProcessorLines(std::FILE* cpuinfo) {
  int count = 0;
  kyrt::ForEachLine<kProcLineBufferSize>(cpuinfo, [&count](const char* line) {
    if (StartsWith(line, "processor")) ++count;
    return true;
  });
  return count;
}

template <typename Counter>
bool CountFromFile(const char* path, Counter count, int* result) {
  std::FILE* file = std::fopen(path, "r");
  if (file == nullptr) return false;
  *result = count(file);
  std::fclose(file);
  return true;
}

void TakeStartupGuard() {
  while (__KyInterlockedCompareExchange(&g_startupGuard, 1, 0) != 0) __KyYield();
}

void ReleaseStartupGuard() {
  kyrt::StoreRelease(&g_startupGuard, 0);
}

}  // namespace

extern "C" {

int __KyGetNProcsInternal(void) noexcept {
  const kyrt::ProcPaths& paths = kyrt::CurrentProcPaths();
  int count = 0;
  // /proc/cpuinfo is consulted only when /proc/stat cannot be opened at all:
  // a /proc/stat without numbered cpu lines yields 0.
  if (CountFromFile(paths.stat, CountNumberedCpuLines, &count)) return count;
  if (CountFromFile(paths.cpuinfo, CountProcessorLines, &count)) return count;
  return 0;
}

uint32_t __KyRtStartup(void) noexcept {
  TakeStartupGuard();
  if (kyrt::LoadRelaxed(&__kyRtStarted) == 0) {
    kyrt::StoreRelaxed(&__kyNumberOfProcessors, __KyGetNProcsInternal());
    __KyRegisterInternalKYRTLogMessages();
    kyrt::StoreRelease(&__kyRtStarted, 1);
  }
  ReleaseStartupGuard();
  return KY_RT_STARTUP_RESULT;
}

void __KyRtShutdown(void) noexcept {}

int __KyGetStarted(void) noexcept {
  return __atomic_load_n(&__kyRtStarted, __ATOMIC_ACQUIRE);
}

int __KyGetNProcs(void) noexcept {
  return kyrt::LoadRelaxed(&__kyNumberOfProcessors);
}

}  // extern "C"
