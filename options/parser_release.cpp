// Releasing a parser with every option registered under it.
//
// Ids stay taken: the parser's slot keeps no name and its options' slots
// return to the unregistered state, owned by no parser, so that no later
// call matches them and no registration reuses them.
#include <cstring>

#include "kyrt/options.h"
#include "options/options_internal.h"

namespace {

// Whether the stored name is a prefix of the name the caller gives.
bool NameMatches(const char* stored, const char* given) {
  return stored != nullptr && given != nullptr &&
         std::strncmp(stored, given, std::strlen(stored)) == 0;
}

}  // namespace

extern "C" {

int __KyReleaseOptionParserHandle(uint32_t parser, const char* name) noexcept {
  if (parser >= kyrt::ParserCount() || !NameMatches(kyrt::ParserName(parser), name)) return 0;
  kyrt::ForgetParserName(parser);
  kyrt::ForEachOptionOf(
      parser, [](uint32_t, kyrt::OptionRecord& record) { kyrt::ClearOptionRecord(record); });
  return 1;
}

}  // extern "C"
