// Launching child processes with an empty environment.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "support/test_files.h"
#include "sync/lock_test_support.h"
#include "util/child_process.h"

namespace {

using kyrt_test::ReadFile;
using kyrt_test::WaitForExitStatus;

constexpr int kLaunchFailedStatus = 255;

using Processes = kyrt_test::RuntimeTest;

// Runs argv through __KyCreateProcess with the child's standard output sent
// to the file output, and returns the child's exit status.
int RunWithOutputTo(const char* output, char* const argv[]) {
  std::fflush(stdout);
  const int saved = dup(1);
  const int file = open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (saved < 0 || file < 0 || dup2(file, 1) != 1) return -1;
  close(file);
  const int child = __KyCreateProcess(argv);
  dup2(saved, 1);
  close(saved);
  return WaitForExitStatus(child);
}

TEST_F(Processes, ReturnsTheChildsPidAndTheChildRuns) {
  char* const argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"),
                        const_cast<char*>("exit 3"), nullptr};
  const int child = __KyCreateProcess(argv);
  ASSERT_GT(child, 0);
  EXPECT_NE(child, getpid());
  EXPECT_EQ(WaitForExitStatus(child), 3);
}

TEST_F(Processes, TheChildGetsTheArguments) {
  char* const argv[] = {const_cast<char*>("/bin/sh"),
                        const_cast<char*>("-c"),
                        const_cast<char*>("printf '%s|%s' \"$0\" \"$1\""),
                        const_cast<char*>("zero"),
                        const_cast<char*>("one two"),
                        nullptr};
  EXPECT_EQ(RunWithOutputTo("arguments.txt", argv), 0);
  EXPECT_EQ(ReadFile("arguments.txt"), "zero|one two");
}

TEST_F(Processes, TheChildGetsNoEnvironment) {
  ASSERT_EQ(setenv("KYRT_PROCESS_TEST_MARK", "inherited", 1), 0);
  char* const argv[] = {const_cast<char*>("/usr/bin/env"), nullptr};
  EXPECT_EQ(RunWithOutputTo("environment.txt", argv), 0);
  EXPECT_EQ(ReadFile("environment.txt"), "");
}

TEST_F(Processes, AMissingProgramMakesTheChildLogAndExitWith255) {
  char* const argv[] = {const_cast<char*>("/nonexistent/kyrt-program"), nullptr};
  const int child = __KyCreateProcess(argv);
  ASSERT_GT(child, 0);
  EXPECT_EQ(WaitForExitStatus(child), kLaunchFailedStatus);
  EXPECT_NE(ReadFile("kylog.log").find("failed to launch process /nonexistent/kyrt-program "),
            std::string::npos);
}

TEST_F(Processes, TheProgramIsNotLookedUpInThePath) {
  // execve takes argv[0] as a path: "sh" names a file in the working
  // directory, and there is none.
  char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>("exit 0"), nullptr};
  EXPECT_EQ(WaitForExitStatus(__KyCreateProcess(argv)), kLaunchFailedStatus);
}

TEST_F(Processes, AFileThatIsNotExecutableCannotBeLaunched) {
  kyrt_test::WriteFile("not-a-program", "plain text\n");
  char* const argv[] = {const_cast<char*>("./not-a-program"), nullptr};
  EXPECT_EQ(WaitForExitStatus(__KyCreateProcess(argv)), kLaunchFailedStatus);
}

TEST_F(Processes, AFailedForkReturnsMinusOne) {
  // An ordinary user allowed no processes at all cannot fork.
  const int status = kyrt_test::ExitStatusOfChild([] {
    constexpr uid_t kUnprivilegedId = 65534;
    if (geteuid() == 0 && (setgid(kUnprivilegedId) != 0 || setuid(kUnprivilegedId) != 0)) {
      return 1;
    }
    const struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0) return 2;
    char* const argv[] = {const_cast<char*>("/bin/true"), nullptr};
    return __KyCreateProcess(argv) == -1 ? 0 : 3;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
