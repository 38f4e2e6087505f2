// kyrtctl's command line: what to do, on which channel, with which commands.
#ifndef KYRT_TOOLS_KYRTCTL_COMMAND_LINE_H
#define KYRT_TOOLS_KYRTCTL_COMMAND_LINE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kyrtctl {

enum class Action { kHelp, kSend, kStatus, kHold };

// Where a command's payload comes from.
enum class PayloadSource { kNone, kText, kFile };

// One command of a send, as written on the command line.
struct CommandRequest {
  int32_t code = 0;
  int32_t arguments[4] = {0, 0, 0, 0};
  int numbersGiven = 0;  // the code and the arguments seen so far
  PayloadSource payloadSource = PayloadSource::kNone;
  std::string payload;  // the text, or the file's path
};

constexpr int kDefaultTimeoutMilliseconds = 5000;

struct Invocation {
  Action action = Action::kHelp;
  std::string directory;  // empty: the current directory
  int timeoutMilliseconds = kDefaultTimeoutMilliseconds;
  std::vector<CommandRequest> commands;  // send
  int holdSeconds = 0;                   // hold
};

// Parses argv. On failure returns false with a one-line reason in *error.
bool ParseCommandLine(int argc, const char* const* argv, Invocation* invocation,
                      std::string* error);

// The manual page printed by --help.
const char* UsageText();

}  // namespace kyrtctl

#endif  // KYRT_TOOLS_KYRTCTL_COMMAND_LINE_H
