// The definition-line parser on arbitrary text, and the matching of the
// definition it yields: every string it stores is a NUL-terminated copy no
// longer than the line, the argument block exists exactly when the argument
// kind says so, and a definition with a module path and arguments matches
// its own path and nothing for an unrelated name.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_runtime.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/zca.h"
#include "zca/zca_definitions.h"

namespace {

constexpr uint64_t kModuleBase = 0x400000;
constexpr int32_t kKindWithArguments = 2;

int Count(KyZCARecord* record, void* user) {
  if (record->argumentCount != 2 || record->expression != nullptr) std::abort();
  ++*static_cast<int*>(user);
  return 0;
}

int Matches(const KyZCADefinition& definition, const char* moduleName) {
  int count = 0;
  kyrt::zca::DeliverMatchingDefinitions(&definition, moduleName, kModuleBase, Count, &count);
  return count;
}

void CheckDefinition(const KyZCADefinition& definition, int result, std::size_t lineLength) {
  if (result != 0 && result != 1) std::abort();
  if (definition.name != nullptr && std::strlen(definition.name) > lineLength) std::abort();
  if (definition.modulePath != nullptr && std::strlen(definition.modulePath) > lineLength) {
    std::abort();
  }
  const bool hasArguments = definition.arguments != nullptr;
  if (hasArguments != (definition.argumentKind == kKindWithArguments)) std::abort();
  if (result == 1 && (definition.name == nullptr || !hasArguments)) std::abort();
  if (definition.next != nullptr) std::abort();
  if (definition.modulePath != nullptr) {
    const int own = Matches(definition, definition.modulePath);
    if (own != (hasArguments ? 1 : 0)) std::abort();
  }
  // A name longer than the line is neither a path from it nor a base name.
  const std::string unrelated(lineLength + 1, 'u');
  if (Matches(definition, unrelated.c_str()) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  StartRuntimeWithDiscardedLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> line(data, data + size);
  line.push_back('\0');
  const std::size_t length = std::strlen(line.data());
  KyZCADefinition definition{};
  const int result = __KyZCAParseDefinition(line.data(), &definition);
  CheckDefinition(definition, result, length);
  __KyFree(definition.name);
  __KyFree(definition.modulePath);
  __KyFree(definition.arguments);
  return 0;
}
