// The POSIX host adapter: every hook it installs, for a normal Linux program.
#include "kyrt/posix_host.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "gtest/gtest.h"
#include "kyrt/runtime.h"

namespace {

KyThreadId SystemThreadId() {
  return static_cast<KyThreadId>(syscall(SYS_gettid));
}

class PosixHost : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(KyPosixHostInstall(), 1); }
};

TEST_F(PosixHost, InstallSetsEveryHook) {
  EXPECT_NE(__kyGetCurrentThreadIdProc, nullptr);
  EXPECT_NE(__kyGetNativeThreadIdProc, nullptr);
  EXPECT_NE(__kyGetNativeParentThreadIdProc, nullptr);
  EXPECT_NE(__kyTlsAllocProc, nullptr);
  EXPECT_NE(__kyTlsFreeProc, nullptr);
  EXPECT_NE(__kyTlsGetValueProc, nullptr);
  EXPECT_NE(__kyTlsSetValueProc, nullptr);
  EXPECT_NE(__KyGetThreadCreateProc(), nullptr);
  EXPECT_NE(__KyGetThreadWaitProc(), nullptr);
  EXPECT_EQ(KyPosixHostInstall(), 1);  // idempotent
}

TEST_F(PosixHost, ThreadIdsAreTheSystemIds) {
  EXPECT_EQ(__KyGetNativeThreadId(), SystemThreadId());
  EXPECT_EQ(__KyGetCurrentThreadId(), SystemThreadId());
  KyThreadId other = 0;
  KyThreadId otherSystem = 0;
  std::thread([&] {
    other = __KyGetNativeThreadId();
    otherSystem = SystemThreadId();
  }).join();
  EXPECT_EQ(other, otherSystem);
  EXPECT_NE(other, __KyGetNativeThreadId());
}

TEST_F(PosixHost, MainThreadsParentIsTheParentProcess) {
  ASSERT_EQ(SystemThreadId(), static_cast<KyThreadId>(getpid()));
  EXPECT_EQ(__KyGetNativeParentThreadId(), static_cast<KyThreadId>(getppid()));
}

TEST_F(PosixHost, ThreadsStartedElsewhereHaveNoKnownParent) {
  KyThreadId parent = 1;
  std::thread([&] { parent = __KyGetNativeParentThreadId(); }).join();
  EXPECT_EQ(parent, 0u);
}

TEST_F(PosixHost, ProcessIdIsGetpid) {
  EXPECT_EQ(__KyGetPid(), getpid());
}

TEST_F(PosixHost, ThreadIdIsRenewedInAForkedChild) {
  const KyThreadId parentId = __KyGetNativeThreadId();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool renewed = __KyGetNativeThreadId() == SystemThreadId() &&
                         __KyGetNativeThreadId() != parentId && __KyGetPid() == getpid();
    _exit(renewed ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(PosixHost, TlsSlotsHoldOneValuePerThread) {
  const KyTlsIndex slot = __KyTlsAlloc();
  ASSERT_NE(slot, KY_TLS_INVALID_INDEX);
  int mine = 1;
  int theirs = 2;
  EXPECT_EQ(__KyTlsGetValue(slot), nullptr);
  EXPECT_EQ(__KyTlsSetValue(slot, &mine), 1);
  std::thread([&] {
    EXPECT_EQ(__KyTlsGetValue(slot), nullptr);
    EXPECT_EQ(__KyTlsSetValue(slot, &theirs), 1);
    EXPECT_EQ(__KyTlsGetValue(slot), &theirs);
  }).join();
  EXPECT_EQ(__KyTlsGetValue(slot), &mine);
  EXPECT_EQ(__KyTlsFree(slot), 1);
}

TEST_F(PosixHost, FreeingAnUnknownSlotFails) {
  EXPECT_EQ(__KyTlsFree(0xFFFFFFF0u), 0);
  EXPECT_EQ(__KyTlsSetValue(0xFFFFFFF0u, nullptr), 0);
}

struct HelperRecord {
  std::atomic<KyThreadId> id{0};
  std::atomic<KyThreadId> parent{0};
  std::atomic<bool> release{false};
  std::atomic<bool> afterExit{false};
};

void HelperBody(void* argument) {
  HelperRecord* record = static_cast<HelperRecord*>(argument);
  record->id = __KyGetNativeThreadId();
  record->parent = __KyGetNativeParentThreadId();
  while (!record->release) std::this_thread::yield();
  KyPosixHostThreadExit(7);
  record->afterExit = true;  // never reached
}

TEST_F(PosixHost, CreateStartsAThreadAndReturnsItsId) {
  HelperRecord record;
  uint64_t handle = 0;
  const KyThreadId id = __KyGetThreadCreateProc()(HelperBody, &record, 0, &handle);
  ASSERT_NE(id, KY_INVALID_THREAD_ID);
  EXPECT_NE(handle, 0u);
  while (record.id == 0) std::this_thread::yield();
  EXPECT_EQ(id, record.id.load());
  EXPECT_EQ(record.parent.load(), __KyGetNativeThreadId());
  record.release = true;
  int32_t exitCode = -1;
  EXPECT_EQ(__KyGetThreadWaitProc()(&handle, 5000, &exitCode), 1);
  EXPECT_EQ(exitCode, 7);
  EXPECT_FALSE(record.afterExit);
  EXPECT_EQ(handle, 0u);
}

TEST_F(PosixHost, WaitTimesOutOnARunningThreadAndSucceedsLater) {
  HelperRecord record;
  uint64_t handle = 0;
  ASSERT_NE(__KyGetThreadCreateProc()(HelperBody, &record, 0, &handle), KY_INVALID_THREAD_ID);
  EXPECT_EQ(__KyGetThreadWaitProc()(&handle, 10, nullptr), 0);
  EXPECT_NE(handle, 0u);
  record.release = true;
  EXPECT_EQ(__KyGetThreadWaitProc()(&handle, 5000, nullptr), 1);
}

void ReturningBody(void* argument) {
  *static_cast<std::atomic<int>*>(argument) = 1;
}

TEST_F(PosixHost, AThreadFunctionThatReturnsEndsWithCodeZero) {
  std::atomic<int> ran{0};
  uint64_t handle = 0;
  ASSERT_NE(KyPosixHostThreadCreate(ReturningBody, &ran, 0, &handle), KY_INVALID_THREAD_ID);
  int32_t exitCode = -1;
  EXPECT_EQ(KyPosixHostThreadWait(&handle, 5000, &exitCode), 1);
  EXPECT_EQ(exitCode, 0);
  EXPECT_EQ(ran.load(), 1);
}

TEST_F(PosixHost, CreateRefusesMissingArguments) {
  uint64_t handle = 0;
  EXPECT_EQ(KyPosixHostThreadCreate(nullptr, nullptr, 0, &handle), KY_INVALID_THREAD_ID);
  EXPECT_EQ(KyPosixHostThreadCreate(ReturningBody, nullptr, 0, nullptr), KY_INVALID_THREAD_ID);
}

TEST_F(PosixHost, WaitOnAnEmptyHandleFails) {
  uint64_t handle = 0;
  EXPECT_EQ(KyPosixHostThreadWait(&handle, 10, nullptr), 0);
  EXPECT_EQ(KyPosixHostThreadWait(nullptr, 10, nullptr), 0);
}

void WriteMark(int32_t, void* argument) {
  // Runs at exit; the death-test parent reads the marks from stderr.
  const char* mark = static_cast<const char*>(argument);
  ssize_t ignored = write(2, mark, 1);
  (void)ignored;
}

TEST_F(PosixHost, FiniCallbacksRunAtExitInReverseOrder) {
  EXPECT_EXIT(
      {
        KyPosixHostInstall();
        static char marks[] = "abc";
        KyAddFiniProc addFini = KyPosixHostAddFini;
        addFini(WriteMark, &marks[0]);
        addFini(WriteMark, &marks[1]);
        addFini(WriteMark, &marks[2]);
        addFini(nullptr, nullptr);  // ignored
        std::exit(3);
      },
      ::testing::ExitedWithCode(3), "^cba$");
}

void RecordSignalMask(void* argument) {
  pthread_sigmask(SIG_SETMASK, nullptr, static_cast<sigset_t*>(argument));
}

// Helper threads must not take the application's signals: one would
// interrupt their blocking waits. The creator's own mask stays as it was.
TEST_F(PosixHost, HelperThreadsStartWithEverySignalBlocked) {
  sigset_t helperMask;
  sigemptyset(&helperMask);
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  uint64_t handle = 0;
  ASSERT_NE(KyPosixHostThreadCreate(RecordSignalMask, &helperMask, 0, &handle),
            KY_INVALID_THREAD_ID);
  ASSERT_EQ(KyPosixHostThreadWait(&handle, 5000, nullptr), 1);
  for (int signal : {SIGCHLD, SIGINT, SIGTERM, SIGUSR1, SIGALRM, SIGPIPE}) {
    EXPECT_EQ(sigismember(&helperMask, signal), 1) << signal;
  }
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal < NSIG; ++signal) {
    EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
  }
}

// A callback belongs to the process that registered it: it tears down that
// process's helper threads and channels, which a forked child does not have.
TEST_F(PosixHost, FiniCallbacksOfTheParentDoNotRunInAForkedChild) {
  EXPECT_EXIT(
      {
        KyPosixHostInstall();
        static char marks[] = "pc";
        KyPosixHostAddFini(WriteMark, &marks[0]);
        const pid_t child = fork();
        if (child == 0) {
          KyPosixHostAddFini(WriteMark, &marks[1]);  // the child's own: runs
          std::exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        std::exit(WIFEXITED(status) ? 4 : 5);
      },
      ::testing::ExitedWithCode(4), "^cp$");
}

}  // namespace
