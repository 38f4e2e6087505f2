// Turns return addresses into module, symbol and offsets for reports.
//
// Before each report the loaded objects are listed with dl_iterate_phdr and
// entered into the runtime's module table (their executable segments), so
// that a module is found by address there; the symbol comes from dladdr and
// is demangled. The module table has no lock: callers serialise (the
// reporter holds its own mutex).
#ifndef KYHEAP_SYMBOLIZER_H
#define KYHEAP_SYMBOLIZER_H

#include <cstdint>
#include <string>
#include <vector>

namespace kyheap {

struct FrameDescription {
  uintptr_t pc = 0;
  std::string module;         // path of the object, "" when unknown
  uint64_t moduleOffset = 0;  // pc less the object's load address
  std::string symbol;         // demangled, "" when unknown
  uint64_t symbolOffset = 0;
};

class Symbolizer {
 public:
  // Enters the objects loaded now into the module table, dropping the ones
  // entered last time.
  void refreshModules();

  FrameDescription describe(void* pc) const;

 private:
  std::vector<uint64_t> loadedLows_;
};

}  // namespace kyheap

#endif  // KYHEAP_SYMBOLIZER_H
