// kyheap: runs a program under the heap profiler, or summarises a report.
//
//   kyheap [OPTIONS] -- PROGRAM [ARGS...]
//   kyheap report FILE
//   kyheap -help
//
// The launcher checks the options with the runtime's option registry, turns
// the report path and the command directory into absolute paths (the
// program and its children may change directory), puts libkyheap.so in
// front of LD_PRELOAD, hands the options on in KYHEAP_OPTIONS and then
// becomes the program (exec), so that its exit status and signals are the
// program's own.
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "environment.h"
#include "heap_options.h"
#include "heap_report.h"
#include "kyrt/posix_host.h"
#include "report_paths.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitCannotRun = 127;
constexpr const char* kLibraryName = "libkyheap.so";

#ifndef KYHEAP_LIBRARY_DIRECTORY_FROM_BINARY
#define KYHEAP_LIBRARY_DIRECTORY_FROM_BINARY "../lib"
#endif

void PrintUsage(std::FILE* out) {
  std::fprintf(out,
               "usage: kyheap [OPTIONS] -- PROGRAM [ARGS...]\n"
               "       kyheap report FILE\n"
               "       kyheap -help\n");
}

std::string CurrentDirectory() {
  char path[PATH_MAX];
  return getcwd(path, sizeof path) != nullptr ? std::string(path) : std::string(".");
}

std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  return CurrentDirectory() + "/" + path;
}

std::string OwnDirectory() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return ".";
  return kyheap::DirectoryOf(std::string(path, static_cast<std::size_t>(length)));
}

bool IsReadable(const std::string& path) {
  return access(path.c_str(), R_OK) == 0;
}

// KYHEAP_LIBRARY, else next to the launcher (a build tree), else in the
// installed library directory.
std::string FindToolLibrary() {
  if (const char* chosen = std::getenv(kyheap::kLibraryVariable); chosen != nullptr && *chosen) {
    return Absolute(chosen);
  }
  const std::string directory = OwnDirectory();
  const std::string beside = directory + "/" + kLibraryName;
  if (IsReadable(beside)) return beside;
  return directory + "/" + KYHEAP_LIBRARY_DIRECTORY_FROM_BINARY + "/" + kLibraryName;
}

// The tokens the tool parses: every option explicitly, paths absolute.
std::vector<std::string> ToolTokens(const kyheap::HeapOptions& options) {
  std::vector<std::string> tokens = {
      "-out",       Absolute(options.reportPath),
      "-stacks",    std::to_string(options.stackFrames),
      "-top",       std::to_string(options.topSites),
      "-leaks",     std::to_string(options.leakSites),
      "-heartbeat", std::to_string(options.heartbeatSeconds),
      "-cmddir",    Absolute(options.commandDirectory.empty() ? "." : options.commandDirectory),
  };
  if (!options.debugChannels.empty()) {
    tokens.push_back("-dbg");
    tokens.push_back(options.debugChannels);
  }
  if (!options.commands) tokens.push_back("-no-commands");
  return tokens;
}

int SummariseReport(int argc, char** argv) {
  if (argc != 3) {
    PrintUsage(stderr);
    return kExitUsage;
  }
  kyheap::HeapReport report;
  std::string error;
  if (!kyheap::ReadHeapReport(argv[2], &report, &error)) {
    std::fprintf(stderr, "kyheap: %s: %s\n", argv[2], error.c_str());
    return 1;
  }
  kyheap::PrintReportSummary(report, stdout, kyheap::SummaryLimits{});
  return 0;
}

int RunProgram(const kyheap::HeapOptions& options, char** program) {
  const std::string library = FindToolLibrary();
  if (!IsReadable(library)) {
    std::fprintf(stderr, "kyheap: cannot find %s (set %s)\n", library.c_str(),
                 kyheap::kLibraryVariable);
    return kExitCannotRun;
  }
  std::string preload = library;
  if (const char* existing = std::getenv(kyheap::kPreloadVariable); existing && *existing) {
    preload += std::string(":") + existing;
  }
  setenv(kyheap::kPreloadVariable, preload.c_str(), 1);
  setenv(kyheap::kOptionsVariable, kyheap::JoinOptionText(ToolTokens(options)).c_str(), 1);
  setenv(kyheap::kMainPidVariable, std::to_string(getpid()).c_str(), 1);
  execvp(program[0], program);
  std::fprintf(stderr, "kyheap: cannot run %s: %s\n", program[0], std::strerror(errno));
  return kExitCannotRun;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "report") == 0) return SummariseReport(argc, argv);

  KyPosixHostInstall();
  int programIndex = 1;
  std::vector<std::string> optionTokens;
  for (; programIndex < argc; ++programIndex) {
    if (std::strcmp(argv[programIndex], "--") == 0) {
      ++programIndex;
      break;
    }
    optionTokens.push_back(argv[programIndex]);
  }
  // Without "--", a command line that does not start with an option is the
  // program itself.
  if (programIndex == argc && !optionTokens.empty() && optionTokens.front()[0] != '-') {
    programIndex = 1;
    optionTokens.clear();
  }

  kyheap::OptionSet optionSet;
  if (!optionSet.parse(optionTokens)) {
    std::fprintf(stderr, "kyheap: the options were not understood (kyheap -help lists them)\n");
    return kExitUsage;
  }
  const kyheap::HeapOptions options = optionSet.values();
  if (options.help) {
    PrintUsage(stdout);
    std::fflush(stdout);
    optionSet.printHelp();
    return 0;
  }
  if (programIndex >= argc) {
    PrintUsage(stderr);
    return kExitUsage;
  }
  return RunProgram(options, argv + programIndex);
}
