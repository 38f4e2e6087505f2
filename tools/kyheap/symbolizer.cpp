#include "symbolizer.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <unistd.h>

#include <cstdlib>

#include "kyrt/modules.h"

namespace kyheap {
namespace {

struct LoadedSegment {
  std::string name;
  uint64_t low;
  uint64_t high;
};

std::string MainProgramPath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "";
  return std::string(path, static_cast<std::size_t>(length));
}

int CollectExecutableSegments(struct dl_phdr_info* info, size_t, void* context) {
  auto* segments = static_cast<std::vector<LoadedSegment>*>(context);
  const std::string name =
      info->dlpi_name != nullptr && info->dlpi_name[0] != '\0' ? info->dlpi_name : "";
  for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0) continue;
    const uint64_t low = info->dlpi_addr + header.p_vaddr;
    segments->push_back(LoadedSegment{name, low, low + header.p_memsz});
  }
  return 0;
}

std::string Demangled(const char* symbol) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
  if (status != 0 || demangled == nullptr) return symbol;
  std::string text(demangled);
  std::free(demangled);
  return text;
}

}  // namespace

void Symbolizer::refreshModules() {
  for (uint64_t low : loadedLows_) __KyUnloadModule(low);
  loadedLows_.clear();
  std::vector<LoadedSegment> segments;
  dl_iterate_phdr(CollectExecutableSegments, &segments);
  const std::string mainProgram = MainProgramPath();
  for (const LoadedSegment& segment : segments) {
    const std::string& name = segment.name.empty() ? mainProgram : segment.name;
    // The table's lookup excludes a module's own low address; a return
    // address never equals a segment's first byte.
    if (__KyLoadModule(name.c_str(), segment.low, segment.high) != nullptr) {
      loadedLows_.push_back(segment.low);
    }
  }
}

FrameDescription Symbolizer::describe(void* pc) const {
  FrameDescription frame;
  frame.pc = reinterpret_cast<uintptr_t>(pc);
  if (const KyModule* module = __KyFindModuleByAddress(frame.pc)) frame.module = module->name;
  Dl_info info{};
  if (dladdr(pc, &info) == 0) return frame;
  if (info.dli_fbase != nullptr) {
    frame.moduleOffset = frame.pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
  }
  if (frame.module.empty() && info.dli_fname != nullptr) frame.module = info.dli_fname;
  if (info.dli_sname != nullptr && info.dli_saddr != nullptr) {
    frame.symbol = Demangled(info.dli_sname);
    frame.symbolOffset = frame.pc - reinterpret_cast<uintptr_t>(info.dli_saddr);
  }
  return frame;
}

}  // namespace kyheap
