// kyrtctl's command line.
//
//   kyrtctl send   [--dir D] [--timeout MS] COMMAND [--then COMMAND]...
//     COMMAND := CODE [ARG1 [ARG2 [ARG3 [ARG4]]]] [--payload TEXT | --payload-file F]
//   kyrtctl status [--dir D]
//   kyrtctl hold   [--dir D] [--timeout MS] SECONDS
//   kyrtctl help | --help | -h
//
// Options may come anywhere after the action, as "--name value" or
// "--name=value". A word that starts with "-" and a digit is a number, not
// an option. Numbers are C integers (decimal, 0x hexadecimal, 0 octal) from
// -2^31 to 2^32 - 1; values above 2^31 - 1 are taken as their 32-bit two's
// complement, so that codes can be written as unsigned hexadecimal.
#include "command_line.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace kyrtctl {
namespace {

constexpr int kMostNumbersPerCommand = 5;  // the code and four arguments

const char kUsage[] =
    R"(NAME
       kyrtctl - send commands to a tool through its KYRT command channel

SYNOPSIS
       kyrtctl send [--dir D] [--timeout MS] COMMAND [--then COMMAND]...
       kyrtctl status [--dir D]
       kyrtctl hold [--dir D] [--timeout MS] SECONDS
       kyrtctl --help

       COMMAND is CODE [ARG1 [ARG2 [ARG3 [ARG4]]]]
                  [--payload TEXT | --payload-file F]

DESCRIPTION
       A tool built on the KYRT runtime that registered a command handler
       keeps a lock file, tsqcmds.dat, in an agreed directory, with a System V
       semaphore set and a shared command area behind it. kyrtctl finds the
       lock file in D (default: the current directory) and talks to the tool
       through them. The tool's callback receives each command as its code,
       four integer arguments and a 4352-byte payload.

COMMANDS
       send   Writes the commands into the next free slots of the command
              area, raises the pending count and wakes the tool. Commands
              joined with --then are written together and delivered in one
              pass, in order; when the five slots are full, kyrtctl waits for
              the tool to take them and goes on. Missing arguments are 0.

       status Shows whether a channel is there and ready, its identifiers,
              the number of pending commands and the semaphore values.

       hold   Takes the area lock and keeps it for SECONDS seconds (or until
              kyrtctl is killed, when the kernel gives it back). The tool's
              deliveries wait meanwhile. Meant for testing a tool against a
              busy controller.

OPTIONS
       --dir D
              The directory holding the tool's tsqcmds.dat.
       --timeout MS
              How long send and hold wait, in milliseconds, for the area
              lock, for the area to become ready and for free slots
              (default 5000; 0 tries once).
       --payload TEXT
              The command's payload: the bytes of TEXT, then zeros.
       --payload-file F
              The command's payload: the bytes of file F, then zeros.
       --then Starts the next command of the same send.
       --help, -h
              Shows this text.

       Numbers are decimal, hexadecimal (0x...) or octal (0...), from
       -2147483648 to 4294967295; values above 2147483647 are taken as
       their 32-bit two's complement (0x80000000 is -2147483648).

EXIT STATUS
       0      Success; for status, the channel is ready.
       1      Bad command line, or a payload file that cannot be read.
       2      No lock file in the directory: no tool registered there.
       3      Stale lock file: its shared memory segment or semaphore set is
              gone (the tool unregistered or ended).
       4      Permission denied on the lock file, the segment or the
              semaphore set.
       5      A payload is longer than 4352 bytes; nothing was sent.
       6      Timed out waiting for the area lock or for a free slot.
       7      Another system error.
       8      status only: a channel is there but not ready (not set up
              yet, or abandoned by a tool that ended without cleaning up).

EXAMPLES
       kyrtctl send 0x100 1 2 --payload "collect heap"
       kyrtctl send --dir /tmp/run 7 --then 8 --payload-file args.bin
       kyrtctl status --dir /tmp/run
)";

bool Fail(std::string* error, const std::string& reason) {
  *error = reason;
  return false;
}

bool IsNumberWord(const char* word) {
  const char* digits = (word[0] == '-' || word[0] == '+') ? word + 1 : word;
  return std::isdigit(static_cast<unsigned char>(digits[0])) != 0;
}

bool ParseWord32(const char* text, int32_t* value) {
  errno = 0;
  char* end = nullptr;
  const long long parsed = std::strtoll(text, &end, 0);
  if (end == text || *end != '\0' || errno == ERANGE) return false;
  if (parsed < INT32_MIN || parsed > static_cast<long long>(UINT32_MAX)) return false;
  *value = static_cast<int32_t>(static_cast<uint32_t>(parsed));
  return true;
}

bool ParseNonNegative(const char* text, int* value) {
  int32_t parsed = 0;
  if (!IsNumberWord(text) || text[0] == '-' || !ParseWord32(text, &parsed) || parsed < 0) {
    return false;
  }
  *value = parsed;
  return true;
}

class Parser {
 public:
  Parser(int argc, const char* const* argv, Invocation* invocation, std::string* error)
      : argc_(argc), argv_(argv), invocation_(invocation), error_(error) {}

  bool run() {
    if (argc_ < 2) return Fail(error_, "no action given (send, status or hold)");
    if (!parseAction(argv_[1])) return false;
    if (invocation_->action == Action::kHelp) return true;
    for (next_ = 2; next_ < argc_;) {
      const char* word = argv_[next_++];
      if (IsHelp(word)) {
        invocation_->action = Action::kHelp;
        return true;
      }
      const bool ok =
          (word[0] == '-' && !IsNumberWord(word)) ? parseOption(word) : parsePositional(word);
      if (!ok) return false;
    }
    return finish();
  }

 private:
  static bool IsHelp(const char* word) {
    return std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0;
  }

  bool parseAction(const char* word) {
    if (IsHelp(word) || std::strcmp(word, "help") == 0) {
      invocation_->action = Action::kHelp;
    } else if (std::strcmp(word, "send") == 0) {
      invocation_->action = Action::kSend;
      invocation_->commands.emplace_back();
    } else if (std::strcmp(word, "status") == 0) {
      invocation_->action = Action::kStatus;
    } else if (std::strcmp(word, "hold") == 0) {
      invocation_->action = Action::kHold;
    } else {
      return Fail(error_, std::string("unknown action '") + word + "'");
    }
    return true;
  }

  // Splits "--name=value"; a value-taking option without "=" takes the
  // next word.
  bool parseOption(const char* word) {
    std::string name = word;
    std::string value;
    bool hasValue = false;
    const std::string::size_type equals = name.find('=');
    if (equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.erase(equals);
      hasValue = true;
    }
    if (name == "--then") {
      if (hasValue) return Fail(error_, "--then takes no value");
      return startNextCommand();
    }
    if (name != "--dir" && name != "--timeout" && name != "--payload" && name != "--payload-file") {
      return Fail(error_, "unknown option '" + name + "'");
    }
    if (!hasValue) {
      if (next_ >= argc_) return Fail(error_, name + " needs a value");
      value = argv_[next_++];
    }
    return applyOption(name, value);
  }

  bool applyOption(const std::string& name, const std::string& value) {
    const Action action = invocation_->action;
    if (name == "--dir") {
      invocation_->directory = value;
      return true;
    }
    if (name == "--timeout") {
      if (action == Action::kStatus) return Fail(error_, "--timeout does not apply to status");
      if (!ParseNonNegative(value.c_str(), &invocation_->timeoutMilliseconds)) {
        return Fail(error_,
                    "--timeout needs milliseconds from 0 to 2147483647, not '" + value + "'");
      }
      return true;
    }
    if (action != Action::kSend) return Fail(error_, name + " applies to send only");
    CommandRequest& command = invocation_->commands.back();
    if (command.payloadSource != PayloadSource::kNone) {
      return Fail(error_, "a command takes one payload (--payload or --payload-file)");
    }
    command.payloadSource = name == "--payload" ? PayloadSource::kText : PayloadSource::kFile;
    command.payload = value;
    return true;
  }

  bool startNextCommand() {
    if (invocation_->action != Action::kSend) return Fail(error_, "--then applies to send only");
    if (invocation_->commands.back().numbersGiven == 0) {
      return Fail(error_, "--then must follow a command code");
    }
    invocation_->commands.emplace_back();
    return true;
  }

  bool parsePositional(const char* word) {
    switch (invocation_->action) {
      case Action::kSend:
        return addNumber(word);
      case Action::kHold:
        if (holdSecondsGiven_) return Fail(error_, "hold takes one number of seconds");
        if (!ParseNonNegative(word, &invocation_->holdSeconds)) {
          return Fail(error_,
                      std::string("hold needs seconds from 0 to 2147483647, not '") + word + "'");
        }
        holdSecondsGiven_ = true;
        return true;
      default:
        return Fail(error_, std::string("unexpected word '") + word + "'");
    }
  }

  bool addNumber(const char* word) {
    CommandRequest& command = invocation_->commands.back();
    if (command.numbersGiven == kMostNumbersPerCommand) {
      return Fail(error_, std::string("too many numbers at '") + word +
                              "': a command is a code and at most four arguments");
    }
    int32_t value = 0;
    if (!ParseWord32(word, &value)) {
      return Fail(error_, std::string("'") + word + "' is not a 32-bit number");
    }
    if (command.numbersGiven == 0) {
      command.code = value;
    } else {
      command.arguments[command.numbersGiven - 1] = value;
    }
    ++command.numbersGiven;
    return true;
  }

  bool finish() {
    if (invocation_->action == Action::kSend && invocation_->commands.back().numbersGiven == 0) {
      return Fail(error_, "send needs a command code");
    }
    if (invocation_->action == Action::kHold && !holdSecondsGiven_) {
      return Fail(error_, "hold needs a number of seconds");
    }
    return true;
  }

  const int argc_;
  const char* const* argv_;
  Invocation* invocation_;
  std::string* error_;
  int next_ = 2;
  bool holdSecondsGiven_ = false;
};

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, Invocation* invocation,
                      std::string* error) {
  *invocation = Invocation{};
  return Parser(argc, argv, invocation, error).run();
}

const char* UsageText() {
  return kUsage;
}

}  // namespace kyrtctl
