// kyheap's options, registered in the runtime's option registry. The
// launcher and the preloaded tool register the same set: the launcher to
// check a command line and print help, the tool to read the tokens the
// launcher passed on.
#ifndef KYHEAP_HEAP_OPTIONS_H
#define KYHEAP_HEAP_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kyheap {

constexpr int kDefaultStackFrames = 8;
constexpr int kMaxStackFrames = 24;
constexpr int kDefaultTopSites = 20;
constexpr int kDefaultLeakSites = 20;
constexpr const char* kDefaultReportPath = "kyheap.xml";

// The values a run works with, read out of the registry.
struct HeapOptions {
  std::string reportPath = kDefaultReportPath;
  int stackFrames = kDefaultStackFrames;
  int topSites = kDefaultTopSites;
  int leakSites = kDefaultLeakSites;
  int heartbeatSeconds = 0;
  std::string debugChannels;
  std::string commandDirectory;
  bool commands = true;
  bool help = false;
};

// The registered options of one parser.
class OptionSet {
 public:
  // Creates a parser named "kyheap" and registers every option in it.
  OptionSet();

  // Parses tokens (options only, no program name). Returns false at the
  // first token the registry refuses.
  bool parse(const std::vector<std::string>& tokens);

  // The current values, with numbers clamped to their valid ranges.
  HeapOptions values() const;

  // Prints the registry's help text for kyheap's options.
  void printHelp() const;

  uint32_t parser() const { return parser_; }

 private:
  uint32_t parser_;
  uint32_t out_;
  uint32_t stacks_;
  uint32_t top_;
  uint32_t leaks_;
  uint32_t heartbeat_;
  uint32_t dbg_;
  uint32_t commandDirectory_;
  uint32_t commands_;
  uint32_t help_;
};

// Splits the launcher's option text (tokens joined by kOptionSeparator).
std::vector<std::string> SplitOptionText(const char* text);

// Joins tokens for the environment.
std::string JoinOptionText(const std::vector<std::string>& tokens);

}  // namespace kyheap

#endif  // KYHEAP_HEAP_OPTIONS_H
