// The command line of kyrt-zca.
#ifndef KYRT_TOOLS_KYRT_ZCA_CLI_OPTIONS_H
#define KYRT_TOOLS_KYRT_ZCA_CLI_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kyrt_zca {

struct Options {
  std::vector<std::string> definitionFiles;  // --definitions, in order
  uint64_t base = 0;                         // --base: the modules' load address
  bool json = false;                         // --json
  std::string logFile;                       // --log; empty: the runtime logs nowhere
  bool help = false;                         // --help or -h
  std::vector<std::string> modules;
};

extern const char kUsage[];

// Parses argv[1 .. argc). Returns false with *error set on a usage error
// (an unknown option, a missing or bad value, no module without --help).
bool ParseCommandLine(int argc, const char* const* argv, Options* options, std::string* error);

}  // namespace kyrt_zca

#endif  // KYRT_TOOLS_KYRT_ZCA_CLI_OPTIONS_H
