// Running a piece of a case in a child process of its own, in a directory
// of its own, and reading how it ended.
//
// The runtime is process-global and some faults end the process, so every
// faulted run happens in a forked child: the parent, which must not have
// touched the runtime, stays fresh for the next run. The child works in a
// subdirectory of the case's scratch directory, so that its "kylog.log"
// and other files are its own; the parent reads them and removes the
// subdirectory.
#ifndef KYRT_TESTS_SUPPORT_FAULT_CHILD_H
#define KYRT_TESTS_SUPPORT_FAULT_CHILD_H

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

namespace kyrt_test {

// The exit status a child's body reports when a check inside it failed.
inline constexpr int kChildCheckFailed = 3;
// The exit status of a child that could not even enter its directory.
inline constexpr int kChildSetUpFailed = 4;
// A child that hangs (a lock waiting for itself, say) is ended by SIGALRM
// after this long, so that the case fails instead of timing out.
inline constexpr unsigned kChildTimeLimitSeconds = 60;

// How a child ended.
struct ChildEnd {
  bool exited = false;  // false: killed by a signal (or not waited for)
  int status = -1;      // the exit status when exited
  int signal = 0;       // the signal when killed
};

inline ChildEnd EndOf(int waitStatus) {
  ChildEnd end;
  if (WIFEXITED(waitStatus)) {
    end.exited = true;
    end.status = WEXITSTATUS(waitStatus);
  } else if (WIFSIGNALED(waitStatus)) {
    end.signal = WTERMSIG(waitStatus);
  }
  return end;
}

inline std::string Describe(const ChildEnd& end) {
  if (end.exited) return "exit status " + std::to_string(end.status);
  return "signal " + std::to_string(end.signal);
}

// Forks; the child creates and enters directory, runs body() and ends with
// its result through _exit (no exit handlers of the parent's test framework
// run in the child), or by SIGALRM after kChildTimeLimitSeconds. The parent
// waits and returns how the child ended.
template <typename Body>
ChildEnd RunInChild(const std::string& directory, Body body) {
  std::fflush(nullptr);  // or the child, if it ends through exit, writes it again
  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildTimeLimitSeconds);
    if (mkdir(directory.c_str(), 0700) != 0 || chdir(directory.c_str()) != 0) {
      _exit(kChildSetUpFailed);
    }
    _exit(body());
  }
  ChildEnd end;
  if (child < 0) return end;
  int waitStatus = 0;
  if (waitpid(child, &waitStatus, 0) == child) end = EndOf(waitStatus);
  return end;
}

// A child that does something, says it is done, and then waits to be
// killed: it stands for a process that dies at that very point (a
// controller holding a lock, say). The child is killed when the object
// goes, if the case has not done so already.
class ChildKilledLater {
 public:
  // Runs body() in a child (in the current directory). body returns false
  // when it could not get where it should; the parent then sees the child
  // end instead of hearing that it is ready.
  template <typename Body>
  explicit ChildKilledLater(Body body) {
    int channel[2];
    if (pipe(channel) != 0) return;
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      close(channel[0]);
      alarm(kChildTimeLimitSeconds);
      const char ready = body() ? 'r' : 'f';
      if (write(channel[1], &ready, 1) != 1) _exit(kChildSetUpFailed);
      for (;;) pause();
    }
    close(channel[1]);
    char answer = 0;
    ready_ = pid_ > 0 && read(channel[0], &answer, 1) == 1 && answer == 'r';
    close(channel[0]);
  }
  ~ChildKilledLater() { killNow(); }
  ChildKilledLater(const ChildKilledLater&) = delete;
  ChildKilledLater& operator=(const ChildKilledLater&) = delete;

  bool ready() const { return ready_; }

  // SIGKILL, then waits; returns how the child ended.
  ChildEnd killNow() {
    ChildEnd end;
    if (pid_ <= 0) return end;
    kill(pid_, SIGKILL);
    int waitStatus = 0;
    if (waitpid(pid_, &waitStatus, 0) == pid_) end = EndOf(waitStatus);
    pid_ = -1;
    return end;
  }

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
};

// Removes a child's directory and everything in it when it goes out of
// scope, whatever the outcome of the checks in between.
class ChildDirectory {
 public:
  explicit ChildDirectory(std::string path) : path_(std::move(path)) {}
  ~ChildDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ChildDirectory(const ChildDirectory&) = delete;
  ChildDirectory& operator=(const ChildDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace kyrt_test

#endif  // KYRT_TESTS_SUPPORT_FAULT_CHILD_H
