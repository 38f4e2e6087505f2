#include "heap_options.h"

#include <algorithm>

#include "environment.h"
#include "kyrt/options.h"

namespace kyheap {
namespace {

constexpr const char* kParserName = "kyheap";
constexpr uint32_t kNoFlags = 0;
constexpr int32_t kListed = 1;
constexpr int32_t kSingleValue = 0;

int Clamp(int value, int low, int high) {
  return std::min(std::max(value, low), high);
}

std::string StringValue(const char* value) {
  return value != nullptr ? value : "";
}

}  // namespace

OptionSet::OptionSet() : parser_(__KyGetOptionParser(kParserName)) {
  out_ = __KyRegisterPathOption(parser_, "-out",
                                "report file; other processes of the run add their pid",
                                kDefaultReportPath, kNoFlags, kSingleValue, kListed);
  stacks_ = __KyRegisterIntegerOption(parser_, "-stacks", "frames kept per call site (1 to 24)",
                                      kDefaultStackFrames, kNoFlags, kListed);
  top_ = __KyRegisterIntegerOption(parser_, "-top", "call sites listed in a report (0: all)",
                                   kDefaultTopSites, kNoFlags, kListed);
  leaks_ =
      __KyRegisterIntegerOption(parser_, "-leaks", "leaking call sites listed at exit (0: all)",
                                kDefaultLeakSites, kNoFlags, kListed);
  heartbeat_ = __KyRegisterIntegerOption(parser_, "-heartbeat",
                                         "seconds between progress records in kylog.log (0: none)",
                                         0, kNoFlags, kListed);
  dbg_ = __KyRegisterStringOption(parser_, "-dbg",
                                  "debug channels: alloc,free,site,command,report,all or 0xMASK",
                                  "", kNoFlags, kSingleValue, kListed);
  commandDirectory_ = __KyRegisterPathOption(
      parser_, "-cmddir", "directory of the command channel's lock file (default: the current one)",
      "", kNoFlags, kSingleValue, kListed);
  commands_ = __KyRegisterBooleanOption(parser_, "-commands",
                                        "open the command channel (-no-commands: do not)", 1,
                                        kNoFlags, kListed);
  help_ = __KyRegisterBooleanOption(parser_, "-help", "print this help", 0, kNoFlags, kListed);
}

bool OptionSet::parse(const std::vector<std::string>& tokens) {
  std::vector<char*> arguments;
  arguments.reserve(tokens.size());
  for (const std::string& token : tokens) arguments.push_back(const_cast<char*>(token.c_str()));
  return __KyParseOptions2(parser_, static_cast<uint32_t>(arguments.size()), arguments.data()) == 1;
}

HeapOptions OptionSet::values() const {
  HeapOptions options;
  options.reportPath = StringValue(__KyGetPathOptionValue(parser_, out_));
  if (options.reportPath.empty()) options.reportPath = kDefaultReportPath;
  options.stackFrames = Clamp(__KyGetIntegerOptionValue(parser_, stacks_), 1, kMaxStackFrames);
  options.topSites = std::max(__KyGetIntegerOptionValue(parser_, top_), 0);
  options.leakSites = std::max(__KyGetIntegerOptionValue(parser_, leaks_), 0);
  options.heartbeatSeconds = std::max(__KyGetIntegerOptionValue(parser_, heartbeat_), 0);
  options.debugChannels = StringValue(__KyGetStringOptionValue(parser_, dbg_));
  options.commandDirectory = StringValue(__KyGetPathOptionValue(parser_, commandDirectory_));
  options.commands = __KyGetBooleanOptionValue(parser_, commands_) != 0;
  options.help = __KyGetBooleanOptionValue(parser_, help_) != 0;
  return options;
}

void OptionSet::printHelp() const {
  __KyPrintHelp(parser_, 0);
}

std::vector<std::string> SplitOptionText(const char* text) {
  std::vector<std::string> tokens;
  if (text == nullptr || *text == '\0') return tokens;
  std::string current;
  for (const char* cursor = text; *cursor != '\0'; ++cursor) {
    if (*cursor == kOptionSeparator) {
      tokens.push_back(current);
      current.clear();
    } else {
      current.push_back(*cursor);
    }
  }
  tokens.push_back(current);
  return tokens;
}

std::string JoinOptionText(const std::vector<std::string>& tokens) {
  std::string text;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    if (i != 0) text.push_back(kOptionSeparator);
    text += tokens[i];
  }
  return text;
}

}  // namespace kyheap
