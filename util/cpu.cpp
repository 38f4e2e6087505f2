// Processor queries: cpuid itself and the size of the XSAVE area.
#include "util/cpu.h"

#include <cpuid.h>

#include "kyrt/strings.h"
#include "runtime/atomic_ops.h"

namespace {

enum CpuidRegister { kEax = 0, kEbx = 1, kEcx = 2, kEdx = 3 };

constexpr uint32_t kMaximumLeafQuery = 0;
// Leaf 13, subleaf 0: ECX is the size an XSAVE area needs for every feature
// the processor supports.
constexpr uint32_t kXsaveLeaf = 13;
constexpr uint32_t kXsaveSizesSubleaf = 0;
// The legacy FXSAVE area, for processors that do not say.
constexpr uint32_t kLegacyFxsaveAreaSize = 512;

void ExecuteCpuid(uint32_t leaf, uint32_t subleaf, uint32_t out[4]) {
  __cpuid_count(leaf, subleaf, out[kEax], out[kEbx], out[kEcx], out[kEdx]);
}

kyrt::CpuidFunction g_cpuid = ExecuteCpuid;

uint32_t g_xsaveAreaMaxSize = 0;  // 0 until first computed

// The size leaf 13 reports, or 0 when the processor has no leaf 13 or
// reports nothing there.
uint32_t QueryXsaveAreaMaxSize() {
  uint32_t registers[4];
  g_cpuid(kMaximumLeafQuery, 0, registers);
  if (registers[kEax] < kXsaveLeaf) return 0;
  g_cpuid(kXsaveLeaf, kXsaveSizesSubleaf, registers);
  return registers[kEcx];
}

}  // namespace

namespace kyrt {

void SetCpuidForTesting(CpuidFunction cpuid) {
  g_cpuid = cpuid != nullptr ? cpuid : ExecuteCpuid;
}

}  // namespace kyrt

extern "C" {

void __KyCpuidEx(uint32_t leaf, uint32_t subleaf, uint32_t out[4]) noexcept {
  ExecuteCpuid(leaf, subleaf, out);
}

uint32_t __KyGetXsaveAreaMaxSize(void) noexcept {
  const uint32_t cached = kyrt::LoadRelaxed(&g_xsaveAreaMaxSize);
  if (cached != 0) return cached;
  const uint32_t reported = QueryXsaveAreaMaxSize();
  const uint32_t size = reported != 0 ? reported : kLegacyFxsaveAreaSize;
  // Every thread computes the same value; the first to store it wins and
  // later stores change nothing.
  kyrt::CompareExchange(&g_xsaveAreaMaxSize, size, 0u);
  return size;
}

}  // extern "C"
