// Command-line parsing on arbitrary argument vectors. The input is split at
// each newline into the tokens of an argument vector and parsed against a
// tool's realistic set of options of every type: booleans (one of them
// impossible to give), integers with and without a list of valid values,
// strings, append strings, a string with valid arguments, an enumeration
// and plain and append paths. Then every value is read back, the append
// options are iterated and the option log is written.
//
// Refusals are expected: a parse error returns 0, and a value outside an
// option's valid arguments is a fatal tool defect, whose exit handler jumps
// back here instead of ending the process. Every input runs against fresh
// tables, so that a finding reproduces from its input alone.
#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kyrt/log.h"
#include "kyrt/options.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "options/options_internal.h"

namespace {

std::jmp_buf g_afterDefect;

[[noreturn]] void ReturnFromDefect(int32_t) {
  std::longjmp(g_afterDefect, 1);
}

void StartRuntimeOnce() {
  static const bool started = [] {
    KyPosixHostInstall();
    __KyRtStartup();
    __KyCreateLogger("fuzz", "/dev/null", 0);  // the records are not the point
    __KySetExitHandler(ReturnFromDefect);
    return true;
  }();
  (void)started;
}

struct Tool {
  uint32_t parser;
  std::vector<uint32_t> options;
};

Tool RegisterTool() {
  Tool tool{__KyGetOptionParser("fuzztool"), {}};
  const uint32_t p = tool.parser;
  auto add = [&tool](uint32_t option) {
    tool.options.push_back(option);
    return option;
  };
  add(__KyRegisterBooleanOption(p, "-verbose", "talk more", 0, 0, 1));
  add(__KyRegisterBooleanOption(p, "-quiet", "talk less", 1, 0, 0));
  add(__KyRegisterBooleanOption(p, "-no-cache", "never reachable", 0, 0, 1));
  add(__KyRegisterBooleanOption(p, "--", "two dashes", 0, 0, 1));
  add(__KyRegisterIntegerOption(p, "-count", "how many", 5, 0, 1));
  const uint32_t level = add(__KyRegisterIntegerOption(p, "-level", "how deep", 1, 0, 1));
  for (int32_t value : {0, 1, 2, 8, 16}) __KySetValidIntegerOptionArgument(p, level, value);
  add(__KyRegisterStringOption(p, "-name", "a name", nullptr, 0, 0, 1));
  add(__KyRegisterStringOption(p, "-tag", "tags", "untagged", 0, 1, 1));
  const uint32_t color = add(__KyRegisterStringOption(p, "-color", "a colour", "red", 0, 0, 1));
  for (const char* value : {"red", "green", "blue", "greenish"}) {
    __KySetValidStringOptionArgument(p, color, value);
  }
  const uint32_t mode = add(__KyRegisterStringEnumOption(p, "-mode", "speed", "fast", 0, 1));
  __KySetValidStringOptionArgumentWithEnum(p, mode, "fast", 1);
  __KySetValidStringOptionArgumentWithEnum(p, mode, "slow", 2);
  __KySetValidStringOptionArgumentWithEnum(p, mode, "fastest", 3);
  add(__KyRegisterPathOption(p, "-out", "output folder", "out//dir", 0, 0, 1));
  add(__KyRegisterPathOption(p, "-include", "search paths", nullptr, 0, 1, 1));
  return tool;
}

int CountValue(const char* value, void* context) {
  *static_cast<size_t*>(context) += value != nullptr ? 1 : 0;
  return 0;
}

// Reads every value of the option back as its type allows.
void ReadBack(uint32_t parser, uint32_t option) {
  const kyrt::OptionRecord& record = *kyrt::OptionSlot(option);
  switch (record.type) {
    case KY_OPTION_TYPE_BOOLEAN:
      (void)__KyGetBooleanOptionValue(parser, option);
      return;
    case KY_OPTION_TYPE_INTEGER:
      (void)__KyGetIntegerOptionValue(parser, option);
      return;
    case KY_OPTION_TYPE_ENUM:
      (void)__KyGetStringOptionEnumValue(parser, option);
      break;
    default:
      break;
  }
  (void)__KyGetStringOptionValue(parser, option);
  const uint32_t count = __KyGetOptionNumberOfArguments(parser, option);
  for (uint32_t index = 1; index <= count && record.type != KY_OPTION_TYPE_ENUM; ++index) {
    const char* value = record.type == KY_OPTION_TYPE_PATH
                            ? __KyGetPathOptionArgumentValue(parser, option, index)
                            : __KyGetStringOptionArgumentValue(parser, option, index);
    if (value == nullptr) std::abort();  // every counted value exists
  }
  if (record.append != 0) {
    size_t seen = 0;
    __KyProcessAppendOptionValues(parser, option, CountValue, &seen);
    if (seen != count) std::abort();
  }
}

std::vector<std::string> SplitIntoTokens(const uint8_t* data, size_t size) {
  std::vector<std::string> tokens(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\n') {
      tokens.emplace_back();
    } else {
      tokens.back().push_back(static_cast<char>(data[i]));
    }
  }
  return tokens;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  StartRuntimeOnce();
  std::vector<std::string> tokens = SplitIntoTokens(data, size);
  std::vector<char*> arguments;
  for (std::string& token : tokens) arguments.push_back(token.data());

  const Tool tool = RegisterTool();
  if (setjmp(g_afterDefect) == 0) {
    __KyParseOptions2(tool.parser, static_cast<uint32_t>(arguments.size()), arguments.data());
    for (uint32_t option : tool.options) ReadBack(tool.parser, option);
    __KyLogToolOptionValues(tool.parser);
  }
  kyrt::ResetOptionRegistry();
  return 0;
}
