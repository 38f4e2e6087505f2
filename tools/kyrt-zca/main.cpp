// kyrt-zca: prints the zero-cost annotations of ELF modules, as the runtime
// would deliver them to a tool inside the analysed process, and the external
// definitions that match each module. See docs/kyrt-zca.md.
#include <cstdio>
#include <string>
#include <vector>

#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/zca.h"
#include "tools/kyrt-zca/cli_options.h"
#include "tools/kyrt-zca/module_report.h"
#include "tools/kyrt-zca/report_printer.h"

namespace {

using kyrt_zca::ModuleReport;
using kyrt_zca::ModuleStatus;

constexpr int kExitSuccess = 0;
constexpr int kExitError = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoSection = 3;

// Where the runtime's own log records go without --log: the runtime would
// otherwise create "kylog.log" in the working directory.
constexpr const char* kDiscardedLog = "/dev/null";

bool StartRuntime(const std::string& logFile) {
  KyPosixHostInstall();
  __KyRtStartup();
  const char* path = logFile.empty() ? kDiscardedLog : logFile.c_str();
  if (__KyCreateLogger(KY_LOG_DEFAULT_SOURCE, path, 0) != 0) return true;
  std::fprintf(stderr, "kyrt-zca: %s: cannot create the log file\n", path);
  return false;
}

bool LoadDefinitions(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (__KyZCALoadExternalDefinitions(file.c_str()) == 0) {
      std::fprintf(stderr, "kyrt-zca: %s: cannot read the definitions file\n", file.c_str());
      return false;
    }
  }
  return true;
}

// An error in any module wins over a module without a section.
int ExitStatusOf(const std::vector<ModuleReport>& reports) {
  int status = kExitSuccess;
  for (const ModuleReport& report : reports) {
    if (report.status == ModuleStatus::kFailed) return kExitError;
    if (report.status == ModuleStatus::kNoSection) status = kExitNoSection;
  }
  return status;
}

int Run(const kyrt_zca::Options& options) {
  if (!StartRuntime(options.logFile)) return kExitError;
  const bool withDefinitions = !options.definitionFiles.empty();
  if (!LoadDefinitions(options.definitionFiles)) {
    __KyZCACleanupDefinitions();
    return kExitError;
  }
  std::vector<ModuleReport> reports;
  for (const std::string& module : options.modules) {
    reports.push_back(kyrt_zca::InspectModule(module, options.base, withDefinitions));
    kyrt_zca::PrintDiagnostic(reports.back(), stderr);
    if (!options.json) kyrt_zca::PrintText(reports.back(), stdout);
  }
  if (options.json) kyrt_zca::PrintJson(reports, stdout);
  __KyZCACleanupDefinitions();
  return ExitStatusOf(reports);
}

}  // namespace

int main(int argc, char** argv) {
  kyrt_zca::Options options;
  std::string error;
  if (!kyrt_zca::ParseCommandLine(argc, argv, &options, &error)) {
    std::fprintf(stderr, "kyrt-zca: %s\n%s", error.c_str(), kyrt_zca::kUsage);
    return kExitUsage;
  }
  if (options.help) {
    std::fputs(kyrt_zca::kUsage, stdout);
    return kExitSuccess;
  }
  const int status = Run(options);
  std::fflush(stdout);
  return std::ferror(stdout) ? kExitError : status;
}
