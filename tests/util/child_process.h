// Running a piece of a test in a forked child, for the cases that change
// process-wide state the test process must keep (closed standard
// descriptors, resource limits, user ids) or that need a second process.
#ifndef KYRT_TESTS_UTIL_CHILD_PROCESS_H
#define KYRT_TESTS_UTIL_CHILD_PROCESS_H

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace kyrt_test {

// The status a waited-for child ended with: its exit status, or 128 plus
// the signal that killed it, or -1 when it cannot be waited for.
inline int WaitForExitStatus(pid_t child) {
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Runs body() in a forked child that ends with _exit(body()), and returns
// the child's exit status. Streams are flushed first so that the child
// cannot write the parent's buffered output a second time.
template <typename Body>
int ExitStatusOfChild(Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return WaitForExitStatus(child);
}

// True when descriptor fd is not open in the calling process.
inline bool IsClosed(int fd) {
  return fcntl(fd, F_GETFD) == -1;
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_UTIL_CHILD_PROCESS_H
