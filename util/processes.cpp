// Launching a child process with an empty environment.
//
// The child starts from nothing of the analysed program's environment: a
// tool launches helpers whose behaviour must not depend on variables the
// program (or the instrumentation framework) happened to set.
#include <unistd.h>

#include "kyrt/files.h"
#include "kyrt/log.h"

namespace {

// _exit(-1): the parent sees exit status 255.
constexpr int kLaunchFailedExitCode = -1;

char* const kEmptyEnvironment[] = {nullptr};

[[noreturn]] void ExecuteInChild(char* const argv[]) {
  execve(argv[0], argv, kEmptyEnvironment);
  __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, "failed to launch process %s ", argv[0]);
  _exit(kLaunchFailedExitCode);
}

}  // namespace

extern "C" {

int __KyCreateProcess(char* const argv[]) noexcept {
  const pid_t child = fork();
  if (child == 0) ExecuteInChild(argv);
  return child;  // the child's pid, or -1 when fork failed
}

}  // extern "C"
