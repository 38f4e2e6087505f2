// Parsing the command line: options with a value take it as the next
// argument or after "=" ("--base 0x1000", "--base=0x1000"); "--" ends the
// options; every other argument is a module.
#include "tools/kyrt-zca/cli_options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kyrt_zca {

const char kUsage[] =
    "usage: kyrt-zca [--definitions FILE] [--base ADDR] [--json] [--log FILE] MODULE...\n"
    "Prints the annotations of the .qzv_notify_tab sections of ELF modules.\n"
    "  --definitions FILE  also print the annotations FILE defines for each module\n"
    "                      (may be given more than once)\n"
    "  --base ADDR         the modules' load address (decimal, 0x hexadecimal or\n"
    "                      0 octal; default 0)\n"
    "  --json              print one JSON document instead of text\n"
    "  --log FILE          write the runtime's log records to FILE\n"
    "  --help, -h          print this text\n"
    "Exit status: 0 success; 1 an error (a module that cannot be read, is not ELF\n"
    "or has a damaged section, an unreadable definitions file); 2 a usage error;\n"
    "3 a module without a .qzv_notify_tab section, and no error.\n";

namespace {

constexpr int kAnyBase = 0;

// An address: the whole text is one unsigned number that fits 64 bits.
bool ParseAddress(const std::string& text, uint64_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long number = std::strtoull(text.c_str(), &end, kAnyBase);
  if (errno != 0 || *end != '\0') return false;
  *value = number;
  return true;
}

// Reads the cursor's option value: after "=" in the same argument, else the
// next argument.
class ArgumentCursor {
 public:
  ArgumentCursor(int argc, const char* const* argv) : argc_(argc), argv_(argv) {}

  bool done() const { return index_ >= argc_; }
  std::string next() { return argv_[index_++]; }

  bool value(const std::string& option, const std::string& inlineValue, bool hasInline,
             std::string* value, std::string* error) {
    if (hasInline) {
      *value = inlineValue;
      return true;
    }
    if (done()) {
      *error = "option " + option + " needs a value";
      return false;
    }
    *value = next();
    return true;
  }

 private:
  int argc_;
  const char* const* argv_;
  int index_ = 1;
};

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, Options* options, std::string* error) {
  ArgumentCursor cursor(argc, argv);
  bool optionsEnded = false;
  while (!cursor.done()) {
    const std::string argument = cursor.next();
    if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
      options->modules.push_back(argument);
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    const std::size_t equals = argument.find('=');
    const bool hasInline = equals != std::string::npos && argument.compare(0, 2, "--") == 0;
    const std::string option = hasInline ? argument.substr(0, equals) : argument;
    const std::string inlineValue = hasInline ? argument.substr(equals + 1) : std::string();
    std::string value;
    if (option == "--help" || option == "-h") {
      options->help = true;
    } else if (option == "--json" && !hasInline) {
      options->json = true;
    } else if (option == "--definitions") {
      if (!cursor.value(option, inlineValue, hasInline, &value, error)) return false;
      options->definitionFiles.push_back(value);
    } else if (option == "--log") {
      if (!cursor.value(option, inlineValue, hasInline, &value, error)) return false;
      options->logFile = value;
    } else if (option == "--base") {
      if (!cursor.value(option, inlineValue, hasInline, &value, error)) return false;
      if (!ParseAddress(value, &options->base)) {
        *error = "bad address for --base: '" + value + "'";
        return false;
      }
    } else {
      *error = "unknown option " + argument;
      return false;
    }
  }
  if (options->modules.empty() && !options->help) {
    *error = "no module given";
    return false;
  }
  return true;
}

}  // namespace kyrt_zca
