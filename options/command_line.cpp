// Parsing a tool's argument vector into the options of one parser.
//
// The syntax is deliberately small. Every option is one token beginning
// with '-' and matched exactly against the registered names. A boolean takes
// no argument; written with "-no-" in place of its leading '-' it is turned
// off. Every other option takes exactly the next token as its value, which
// may not begin with '-' (so a value is never mistaken for a forgotten
// option, at the price of negative numbers). There is no end-of-options
// marker and no "name=value" form. The first error ends the parse; what was
// set before it stays set.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kyrt/log.h"
#include "kyrt/options.h"
#include "options/options_internal.h"

namespace {

using kyrt::OptionRecord;

// Characters of a negated boolean after its leading '-': "-no-verbose" turns
// off "-verbose", whose name starts at the second '-'.
constexpr const char* kNegation = "no-";
constexpr std::size_t kNegationLength = 3;

// Integer values must lie in 0 .. 2,147,483,647.
constexpr unsigned long kIntegerValueLimit = 0x80000000ul;

// The token at index, or null past the end or in a vector with holes.
const char* TokenAt(char* const* arguments, uint32_t count, uint32_t index) {
  if (arguments == nullptr || index >= count) return nullptr;
  return arguments[index];
}

bool BeginsWithDash(const char* token) {
  return token != nullptr && token[0] == '-';
}

// A token for a message: a missing one is shown as such.
const char* TokenText(const char* token) {
  return token != nullptr ? token : kyrt::kMissingText;
}

bool IsNegated(const char* token) {
  return std::strncmp(token + 1, kNegation, kNegationLength) == 0;
}

// The first option of parser, in id order, named exactly name;
// KY_OPTION_INVALID_ID when there is none.
uint32_t FindOption(uint32_t parser, const char* name) {
  const uint32_t slots = kyrt::OptionSlotsInUse();
  for (uint32_t id = 0; id < slots; ++id) {
    const OptionRecord& record = *kyrt::OptionSlot(id);
    if (kyrt::IsOwnedBy(record, parser) && std::strcmp(record.name, name) == 0) return id;
  }
  return KY_OPTION_INVALID_ID;
}

// The first record of an error report: the registered message with the
// offending option token as its "option" argument.
void LogBadToken(int32_t messageId, const char* optionToken) {
  __KyLogInternal(KY_LOG_ERROR, messageId, 0, KY_LOG_ARG_STRING, TokenText(optionToken),
                  KY_LOG_ARG_END);
}

void ReportBadOption(uint32_t parser, const char* token) {
  LogBadToken(KYLOG_MSG_BAD_OPTION, token);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                  "Bad command line option: %s used with tool: %s", TokenText(token),
                  kyrt::ParserNameText(parser));
}

void ReportInvalidOption(uint32_t parser, const char* token) {
  LogBadToken(KYLOG_MSG_BAD_OPTION, token);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                  "Invalid command line option: %s used with tool: %s", token,
                  kyrt::ParserNameText(parser));
}

void ReportInvalidNegation(uint32_t parser, const char* token) {
  LogBadToken(KYLOG_MSG_BAD_OPTION, token);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                  "Invalid negation for command line option: %s used with tool: %s", token,
                  kyrt::ParserNameText(parser));
}

void ReportMissingArgument(const char* optionToken) {
  LogBadToken(KYLOG_MSG_BAD_ARGUMENT, optionToken);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "No arguments for command line option: %s",
                  optionToken);
}

void ReportBadInteger(const char* optionToken, const char* valueToken) {
  LogBadToken(KYLOG_MSG_BAD_ARGUMENT, optionToken);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                  "Bad integer value: %s for command line option: %s", valueToken, optionToken);
}

// Reads an integer value: strtol in base 0, every character used, no
// range error, and the result in 0 .. 2,147,483,647 (a negative result,
// compared unsigned, is out of range too).
bool ReadIntegerValue(const char* text, int32_t* value) {
  errno = 0;
  char* end = nullptr;
  const long result = std::strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' ||
      static_cast<unsigned long>(result) >= kIntegerValueLimit) {
    return false;
  }
  *value = static_cast<int32_t>(result);
  return true;
}

// Sets option, of the given type, from valueToken. Returns the setter's
// result, or 0 after reporting a bad integer or for an unknown type.
int SetFromValue(uint32_t parser, uint32_t option, uint32_t type, const char* optionToken,
                 const char* valueToken) {
  switch (type) {
    case KY_OPTION_TYPE_STRING:
    case KY_OPTION_TYPE_ENUM:
      return __KySetStringOption(parser, option, valueToken);
    case KY_OPTION_TYPE_PATH:
      return __KySetPathOption(parser, option, valueToken);
    case KY_OPTION_TYPE_INTEGER: {
      int32_t value = 0;
      if (!ReadIntegerValue(valueToken, &value)) {
        ReportBadInteger(optionToken, valueToken);
        return 0;
      }
      return __KySetIntegerOption(parser, option, value);
    }
    default:
      return 0;
  }
}

int ParseArguments(uint32_t parser, uint32_t count, char* const* arguments) {
  uint32_t index = 0;
  while (index < count) {
    const char* token = TokenAt(arguments, count, index);
    if (!BeginsWithDash(token)) {
      ReportBadOption(parser, token);
      return 0;
    }
    const bool negated = IsNegated(token);
    const uint32_t option = FindOption(parser, negated ? token + kNegationLength : token);
    if (option == KY_OPTION_INVALID_ID) {
      ReportInvalidOption(parser, token);
      return 0;
    }
    const uint32_t type = kyrt::OptionSlot(option)->type;
    if (negated && type != KY_OPTION_TYPE_BOOLEAN) {
      ReportInvalidNegation(parser, token);
      return 0;
    }
    ++index;
    if (type == KY_OPTION_TYPE_BOOLEAN) {
      if (__KySetBooleanOption(parser, option, negated ? 0 : 1) == 0) return 0;
      continue;
    }
    const char* value = TokenAt(arguments, count, index);
    if (value == nullptr || BeginsWithDash(value)) {
      ReportMissingArgument(token);
      return 0;
    }
    if (SetFromValue(parser, option, type, token, value) == 0) return 0;
    ++index;
  }
  return 1;
}

}  // namespace

extern "C" {

int __KyParseOptions2(uint32_t parser, uint32_t count, char* const* arguments) noexcept {
  if (parser >= KY_OPTION_MAX_PARSERS) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, "Invalid parser ID passed: %u (max: %u)",
                    parser, KY_OPTION_MAX_PARSERS);
    return 0;
  }
  return ParseArguments(parser, count, arguments);
}

int __KyParseOptions(uint32_t parser, uint32_t count, char* const* arguments) noexcept {
  return __KyParseOptions2(parser, count, arguments);
}

}  // extern "C"
