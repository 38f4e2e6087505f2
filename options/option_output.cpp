// The help text on standard output and the option values in the log.
//
// Both list a parser's options in id order, one line each, with the name
// padded to a column of its own. Help shows defaults; the log shows current
// values. Neither fails: an option of an unknown type is reported in the log
// and skipped.
#include <cstdio>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/options.h"
#include "options/options_internal.h"

namespace {

using kyrt::OptionRecord;
using kyrt::OptionValueNode;

// The values of an append option are written into a buffer of this size,
// so that the log line holds at most this many characters less one.
constexpr std::size_t kAppendValuesBufferSize = 2048;

const char* BooleanText(uint32_t value) {
  return value != 0 ? "true" : "false";
}

const char* StringText(const char* string) {
  return string != nullptr ? string : kyrt::kMissingText;
}

// Prints the option's default after its name and description.
void PrintDefault(const OptionRecord& record) {
  const OptionValueNode& value = record.defaultNode;
  switch (record.type) {
    case KY_OPTION_TYPE_INTEGER:
      std::printf("%i\n", static_cast<int32_t>(value.value));
      break;
    case KY_OPTION_TYPE_BOOLEAN:
      std::printf("%s\n", BooleanText(value.value));
      break;
    case KY_OPTION_TYPE_STRING:
    case KY_OPTION_TYPE_ENUM:
    case KY_OPTION_TYPE_PATH:
      std::printf("%s\n", value.string != nullptr ? value.string : "none");
      break;
    default:
      __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, "UNKNOWN OPTION TYPE %s", record.name);
      break;
  }
}

void LogOptionLine(const OptionRecord& record, const char* valueText) {
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "%-33s  %s", record.name, valueText);
}

// Every value from the current node on, each followed by ", ", written into
// buffer and cut to its size less one.
void FormatAppendValues(const OptionRecord& record, char (&buffer)[kAppendValuesBufferSize]) {
  std::size_t used = 0;
  buffer[0] = '\0';
  for (const OptionValueNode* node = record.current; node != nullptr; node = node->next) {
    const int written =
        __KySnprintf(buffer + used, sizeof buffer - used, "%s, ", StringText(node->string));
    if (written < 0) break;
    used += static_cast<std::size_t>(written);
    if (used >= sizeof buffer - 1) break;  // full: the text was cut at the end of the buffer
  }
}

void LogOptionValue(const OptionRecord& record) {
  const OptionValueNode& value = *record.current;
  switch (record.type) {
    case KY_OPTION_TYPE_INTEGER:
      __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "%-33s  %i", record.name,
                      static_cast<int32_t>(value.value));
      return;
    case KY_OPTION_TYPE_BOOLEAN:
      LogOptionLine(record, BooleanText(value.value));
      return;
    case KY_OPTION_TYPE_STRING:
    case KY_OPTION_TYPE_ENUM:
    case KY_OPTION_TYPE_PATH:
      if (record.append != 0) {
        char buffer[kAppendValuesBufferSize];
        FormatAppendValues(record, buffer);
        LogOptionLine(record, buffer);
      } else {
        LogOptionLine(record, StringText(value.string));
      }
      return;
    default:
      __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, "UNKNOWN OPTION TYPE for option %s",
                      record.name);
      return;
  }
}

}  // namespace

extern "C" {

void __KyPrintHelp(uint32_t parser, int32_t all) noexcept {
  if (parser < kyrt::ParserCount()) {
    std::printf("\n%s tool options are the following:\n", kyrt::ParserNameText(parser));
  }
  kyrt::ForEachOptionOf(parser, [all](uint32_t, const OptionRecord& record) {
    if (record.listedInHelp == 0 && all == 0) return;
    std::printf("   %-33s  %s default: ", record.name, record.description);
    PrintDefault(record);
  });
  std::fflush(stdout);
}

void __KyPrintHelpAll(int32_t all) noexcept {
  const uint32_t parsers = kyrt::ParserCount();
  for (uint32_t parser = 0; parser < parsers; ++parser) __KyPrintHelp(parser, all);
}

void __KyLogToolOptionValues(uint32_t parser) noexcept {
  if (parser < kyrt::ParserCount()) {
    __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                    "%s's options are the following: ", kyrt::ParserNameText(parser));
  }
  kyrt::ForEachOptionOf(parser,
                        [](uint32_t, const OptionRecord& record) { LogOptionValue(record); });
  std::fflush(stdout);
}

}  // extern "C"
