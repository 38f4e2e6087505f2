// The section parser on arbitrary bytes: it must read nothing outside the
// section (AddressSanitizer watches the exact-size copy), never hang, and
// deliver only records whose name is a NUL-terminated string inside the
// section and whose expression starts inside it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz_runtime.h"
#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/zca.h"

namespace {

constexpr uint64_t kModuleBase = 0x7F0000000000;

struct Section {
  const uint8_t* begin;
  const uint8_t* end;
};

bool Inside(const Section& section, const void* pointer) {
  const auto* byte = static_cast<const uint8_t*>(pointer);
  return byte >= section.begin && byte < section.end;
}

int CheckRecord(KyZCARecord* record, void* user) {
  const Section& section = *static_cast<const Section*>(user);
  if (!Inside(section, record->name) || !Inside(section, record->expression)) std::abort();
  const auto* name = reinterpret_cast<const uint8_t*>(record->name);
  if (std::memchr(name, 0, static_cast<std::size_t>(section.end - name)) == nullptr) std::abort();
  if (record->argumentCount != 1) std::abort();
  const KyZCAArgument& argument = record->arguments[0];
  if (argument.isRegister > 1) std::abort();
  if (argument.isRegister == 0 && argument.value > 31) std::abort();
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  StartRuntimeWithDiscardedLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
  if (size != 0) std::memcpy(copy.get(), data, size);
  Section section{copy.get(), copy.get() + size};
  __KyZCAParseAndProcessRecords(kModuleBase, copy.get(), size, CheckRecord, &section);
  return 0;
}
