// The process-wide channel through its C entry points: registration and its
// failures, the hooks it uses, shutdown, the stop flag and clean-up. Every
// case is a process of its own, so each starts from the state at load.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "collector/command_channel_support.h"
#include "collector/command_service.h"
#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "support/test_files.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt::collector::ProcessCommandHandler;
using kyrt::collector::ServiceThreadHandle;
using kyrt::collector::ServiceThreadHandleAddress;
using kyrt::collector::StopRequested;
using kyrt_test::CallbackRecorder;
using kyrt_test::Eventually;
using kyrt_test::FileExists;
using kyrt_test::IpcObjectsGuard;
using kyrt_test::OperateOnSemaphore;
using kyrt_test::SemaphoreSetExists;
using kyrt_test::SemaphoreValue;
using kyrt_test::SharedMemoryExists;

constexpr const char* kLockFile = KYCMD_LOCK_FILE_NAME;
constexpr uint32_t kGenerousWaitMilliseconds = 20000;

// The POSIX host's helper-thread hooks, counted.
struct HookLog {
  std::atomic<int> creates{0};
  std::atomic<int> exits{0};
  std::atomic<int> waits{0};
  std::atomic<int> finis{0};
  std::atomic<bool> failCreate{false};
  bool signalsOpen = false;  // start the thread able to take SIGUSR1
  bool lockFileExistedAtCreate = true;
  size_t lastStackSize = 1;
  void* lastArgument = nullptr;
  uint64_t* lastWaitHandle = nullptr;
  uint32_t lastWaitMilliseconds = 0;
  int32_t* lastWaitExitCode = reinterpret_cast<int32_t*>(1);
  KyThreadId lastThreadId = 0;
  KyFiniFunction finiCallback = nullptr;
  void* finiArgument = reinterpret_cast<void*>(1);
};

HookLog g_hooks;

// The POSIX host starts helper threads with every signal blocked. To reach
// the runtime's handling of an interrupted wait, the thread function is
// wrapped in one that opens SIGUSR1 first.
struct OpenSignalsStart {
  KyThreadFunction function;
  void* argument;
};
OpenSignalsStart g_openSignalsStart;

void StartWithSignalsOpen(void*) {
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
  g_openSignalsStart.function(g_openSignalsStart.argument);
}

KyThreadId CountedCreate(KyThreadFunction function, void* argument, size_t stackSize,
                         uint64_t* handle) {
  ++g_hooks.creates;
  g_hooks.lastStackSize = stackSize;
  g_hooks.lastArgument = argument;
  g_hooks.lockFileExistedAtCreate = FileExists(kLockFile);
  if (g_hooks.failCreate) return KY_INVALID_THREAD_ID;
  if (g_hooks.signalsOpen) {
    g_openSignalsStart = {function, argument};
    function = StartWithSignalsOpen;
    argument = nullptr;
  }
  g_hooks.lastThreadId = KyPosixHostThreadCreate(function, argument, stackSize, handle);
  return g_hooks.lastThreadId;
}

void CountedExit(int32_t exitCode) {
  ++g_hooks.exits;
  KyPosixHostThreadExit(exitCode);
}

int CountedWait(uint64_t* handle, uint32_t milliseconds, int32_t* exitCode) {
  ++g_hooks.waits;
  g_hooks.lastWaitHandle = handle;
  g_hooks.lastWaitMilliseconds = milliseconds;
  g_hooks.lastWaitExitCode = exitCode;
  return KyPosixHostThreadWait(handle, milliseconds, exitCode);
}

// Kept, not passed on: the cases run the registered routine themselves.
void CountedAddFini(KyFiniFunction callback, void* argument) {
  ++g_hooks.finis;
  g_hooks.finiCallback = callback;
  g_hooks.finiArgument = argument;
}

// Waits for the service thread of a failed registration, which ends by
// itself, through the host's own wait.
bool ServiceThreadEnds() {
  return KyPosixHostThreadWait(ServiceThreadHandleAddress(), kGenerousWaitMilliseconds, nullptr) ==
         1;
}

class CommandRegistration : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    __KySetThreadProcs(CountedCreate, CountedExit, CountedWait, CountedAddFini);
  }

  void TearDown() override {
    guard_.addChannelOf(ProcessCommandHandler());
    __KyShutdownCommandHandler();
    __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  }

  int registerHere(const char* directory = "", int heartbeatSeconds = 0) {
    const int result = __KyRegisterCommandHandlerWithHeartbeat(
        directory, CallbackRecorder::Callback, &recorder_, heartbeatSeconds);
    guard_.addChannelOf(ProcessCommandHandler());
    return result;
  }

  IpcObjectsGuard guard_;
  CallbackRecorder recorder_;
};

TEST_F(CommandRegistration, NeedsAllFourHelperThreadHooks) {
  const KyThreadCreateProc create = CountedCreate;
  const KyThreadExitProc exit = CountedExit;
  const KyThreadWaitProc wait = CountedWait;
  const KyAddFiniProc addFini = CountedAddFini;
  __KySetThreadProcs(nullptr, exit, wait, addFini);
  EXPECT_EQ(registerHere(), 0);
  __KySetThreadProcs(create, nullptr, wait, addFini);
  EXPECT_EQ(registerHere(), 0);
  __KySetThreadProcs(create, exit, nullptr, addFini);
  EXPECT_EQ(registerHere(), 0);
  __KySetThreadProcs(create, exit, wait, nullptr);
  EXPECT_EQ(registerHere(), 0);
  EXPECT_EQ(g_hooks.creates, 0);
  EXPECT_EQ(g_hooks.finis, 0);
  EXPECT_EQ(ServiceThreadHandle(), 0u);
  EXPECT_FALSE(FileExists(kLockFile));
}

TEST_F(CommandRegistration, FailedThreadCreationFailsBeforeAnythingElse) {
  g_hooks.failCreate = true;
  EXPECT_EQ(registerHere(), 0);
  EXPECT_EQ(g_hooks.creates, 1);
  EXPECT_EQ(g_hooks.finis, 0);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(ProcessCommandHandler().sharedArea(), nullptr);
}

TEST_F(CommandRegistration, StartsTheThreadFirstWithThePeriodAsItsArgument) {
  ASSERT_EQ(registerHere("", -7), 1);
  EXPECT_EQ(g_hooks.creates, 1);
  EXPECT_FALSE(g_hooks.lockFileExistedAtCreate);  // started before the channel exists
  EXPECT_EQ(g_hooks.lastStackSize, 0u);
  // Widened with its sign.
  EXPECT_EQ(reinterpret_cast<intptr_t>(g_hooks.lastArgument), -7);
  EXPECT_NE(ServiceThreadHandle(), 0u);
  EXPECT_EQ(g_hooks.finis, 1);
  EXPECT_NE(g_hooks.finiCallback, nullptr);
  EXPECT_EQ(g_hooks.finiArgument, nullptr);
  EXPECT_TRUE(FileExists(kLockFile));
  EXPECT_NE(ProcessCommandHandler().sharedArea(), nullptr);
}

TEST_F(CommandRegistration, NullCallbackFailsButTheThreadAndFiniStay) {
  EXPECT_EQ(__KyRegisterCommandHandler("", nullptr, nullptr), 0);
  EXPECT_EQ(g_hooks.creates, 1);
  EXPECT_EQ(g_hooks.finis, 1);
  EXPECT_FALSE(FileExists(kLockFile));
  // The thread finds no semaphore set and ends by itself, through the exit
  // hook.
  EXPECT_TRUE(ServiceThreadEnds());
  EXPECT_EQ(g_hooks.exits, 1);
}

TEST_F(CommandRegistration, DirectoryOf4084CharactersFailsButTheThreadStays) {
  std::string directory;
  while (directory.size() < 4084) directory += "./";
  directory.resize(4084);
  EXPECT_EQ(registerHere(directory.c_str()), 0);
  EXPECT_EQ(g_hooks.creates, 1);
  EXPECT_EQ(g_hooks.finis, 1);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_TRUE(ServiceThreadEnds());
}

TEST_F(CommandRegistration, DirectoryOf4083CharactersIsAccepted) {
  std::string directory;
  while (directory.size() < 4083) directory += "./";
  directory.resize(4083);
  EXPECT_EQ(registerHere(directory.c_str()), 1);
  EXPECT_TRUE(FileExists(kLockFile));
}

TEST_F(CommandRegistration, ShutdownWithoutRegistrationDoesNothing) {
  __KyShutdownCommandHandler();
  EXPECT_EQ(g_hooks.waits, 0);
  EXPECT_FALSE(StopRequested());
}

TEST_F(CommandRegistration, ShutdownStopsTheThreadOnceAndKeepsTheChannel) {
  ASSERT_EQ(registerHere(), 1);
  CollectorCommandHandler& handler = ProcessCommandHandler();
  const int set = handler.semaphoreSetId();
  const int id = handler.sharedMemoryId();
  __KyShutdownCommandHandler();
  EXPECT_TRUE(StopRequested());
  EXPECT_EQ(g_hooks.waits, 1);
  EXPECT_EQ(g_hooks.lastWaitHandle, ServiceThreadHandleAddress());
  EXPECT_EQ(g_hooks.lastWaitMilliseconds, 1000u);
  EXPECT_EQ(g_hooks.lastWaitExitCode, nullptr);
  EXPECT_EQ(ServiceThreadHandle(), 0u);
  EXPECT_EQ(g_hooks.exits, 1);  // the thread ended through the exit hook
  __KyShutdownCommandHandler();
  EXPECT_EQ(g_hooks.waits, 1);
  EXPECT_TRUE(SemaphoreSetExists(set));
  EXPECT_TRUE(SharedMemoryExists(id));
  EXPECT_TRUE(FileExists(kLockFile));
}

TEST_F(CommandRegistration, FiniRoutineIsTheShutdown) {
  ASSERT_EQ(registerHere(), 1);
  ASSERT_NE(g_hooks.finiCallback, nullptr);
  g_hooks.finiCallback(0, g_hooks.finiArgument);
  EXPECT_TRUE(StopRequested());
  EXPECT_EQ(g_hooks.waits, 1);
  EXPECT_EQ(ServiceThreadHandle(), 0u);
  g_hooks.finiCallback(0, g_hooks.finiArgument);  // nothing left to stop
  EXPECT_EQ(g_hooks.waits, 1);
}

TEST_F(CommandRegistration, PartialUnregistrationLeavesTheFileAndTheSemaphoreSet) {
  ASSERT_EQ(registerHere(), 1);
  CollectorCommandHandler& handler = ProcessCommandHandler();
  const int set = handler.semaphoreSetId();
  const int id = handler.sharedMemoryId();
  __KyShutdownCommandHandler();
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_PARTIAL);
  EXPECT_FALSE(SharedMemoryExists(id));
  EXPECT_EQ(handler.lockFileDescriptor(), -1);
  EXPECT_TRUE(FileExists(kLockFile));
  EXPECT_TRUE(SemaphoreSetExists(set));
}

TEST_F(CommandRegistration, FullUnregistrationRemovesEverything) {
  ASSERT_EQ(registerHere(), 1);
  CollectorCommandHandler& handler = ProcessCommandHandler();
  const int set = handler.semaphoreSetId();
  const int id = handler.sharedMemoryId();
  __KyShutdownCommandHandler();
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  EXPECT_FALSE(SharedMemoryExists(id));
  EXPECT_FALSE(SemaphoreSetExists(set));
  EXPECT_FALSE(FileExists(kLockFile));
}

TEST_F(CommandRegistration, RegisteringAfterAShutdownGivesAThreadThatEndsAtItsFirstWakeUp) {
  ASSERT_EQ(registerHere(), 1);
  __KyShutdownCommandHandler();
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  ASSERT_EQ(registerHere(), 1);
  EXPECT_EQ(g_hooks.creates, 2);
  EXPECT_TRUE(StopRequested());  // never cleared
  CollectorCommandHandler& handler = ProcessCommandHandler();
  // A command is announced; the thread wakes, sees the flag and ends
  // without delivering it.
  handler.sharedArea()->pendingCount = 1;
  ASSERT_EQ(OperateOnSemaphore(handler.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE, 1), 0);
  EXPECT_TRUE(ServiceThreadEnds());
  EXPECT_EQ(recorder_.count(), 0u);
  EXPECT_EQ(handler.sharedArea()->pendingCount, 1);
}

void CatchSignal(int) {}

// True while thread (a native id of this process) sits in semtimedop.
bool WaitsInSemtimedop(KyThreadId thread) {
  const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
  return kyrt_test::ReadFile(path).rfind(std::to_string(SYS_semtimedop) + " ", 0) == 0;
}

TEST_F(CommandRegistration, SignalThatInterruptsTheWaitEndsTheServiceThread) {
  struct sigaction action {};
  action.sa_handler = CatchSignal;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  g_hooks.signalsOpen = true;
  ASSERT_EQ(registerHere(), 1);
  ASSERT_TRUE(Eventually([] { return WaitsInSemtimedop(g_hooks.lastThreadId); }));
  ASSERT_EQ(pthread_kill(static_cast<pthread_t>(ServiceThreadHandle()), SIGUSR1), 0);
  EXPECT_TRUE(ServiceThreadEnds());  // EINTR leaves the loop
  EXPECT_EQ(g_hooks.exits, 1);
  CollectorCommandHandler& handler = ProcessCommandHandler();
  handler.sharedArea()->pendingCount = 1;
  ASSERT_EQ(OperateOnSemaphore(handler.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE, 1), 0);
  EXPECT_EQ(SemaphoreValue(handler.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE), 1);
  EXPECT_EQ(recorder_.count(), 0u);
}

TEST_F(CommandRegistration, UnregistrationWithoutRegistrationDoesNothing) {
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_PARTIAL);
  EXPECT_EQ(ProcessCommandHandler().semaphoreSetId(), -1);
  EXPECT_EQ(ProcessCommandHandler().lockFileDescriptor(), -1);
}

}  // namespace
