// The process-wide command channel: registration, the command service
// thread, shutdown and clean-up.
//
// Process-wide state:
//   g_commandHandler       the one handler, built at load by the library's
//                          static initialiser; its destructor (which removes
//                          nothing) is registered to run at exit;
//   g_serviceThreadHandle  filled by the thread-create hook; 0 = no service
//                          thread (never started, or stopped);
//   g_stopRequested        0 at load, 1 after the first shutdown and for the
//                          rest of the process: a handler that has been shut
//                          down does not come back;
//   g_channelSetupPending  1 while a registration is between starting its
//                          service thread and finishing the channel.
//
// The service thread is started before the channel exists (the thread first,
// then the channel). Left alone, a new thread usually reaches its first wait
// before the semaphore set is there, fails with EINVAL and ends, and the
// channel would never deliver anything. So the thread holds back its first
// wait until the registration has finished setting the channel up, whatever
// the outcome. The registration's result is unaffected. After a failed
// registration the thread still runs: with no semaphore set its first wait
// fails and it ends; with a set left behind (creation path C) it waits like
// any service thread, its heartbeats finding no area, until the shutdown.
// The setup flag is released after the handler's fields are written
// and acquired by the thread before it reads them, which also orders the
// callback and the area pointer for the thread.
#include <sys/sem.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include "collector/command_service.h"
#include "kyrt/command_handler.h"
#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"
#include "runtime/thread_hooks.h"

namespace {

using kyrt::LoadRelaxed;
using kyrt::StoreRelaxed;
using kyrt::StoreRelease;

// What the thread-wait hook is given to wait for the service thread.
constexpr uint32_t kServiceThreadWaitMilliseconds = 1000;
constexpr size_t kHostChosenStackSize = 0;
constexpr int32_t kHelperThreadExitCode = 0;

CollectorCommandHandler g_commandHandler;
uint64_t g_serviceThreadHandle = 0;
int32_t g_stopRequested = 0;
int32_t g_channelSetupPending = 0;

bool StopRequested() {
  return LoadRelaxed(&g_stopRequested) != 0;
}

void WaitForChannelSetup() {
  while (__atomic_load_n(&g_channelSetupPending, __ATOMIC_ACQUIRE) != 0) __KyYield();
}

// The heartbeat period travels as the thread's argument, widened with its
// sign; 0 means no time-out.
void* PeriodAsThreadArgument(int heartbeatSeconds) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(heartbeatSeconds));
}

int PeriodFromThreadArgument(void* argument) {
  return static_cast<int>(reinterpret_cast<intptr_t>(argument));
}

// Sleeps on the wake-up semaphore. After a wake-up it dispatches the pending
// commands; after a time-out it sends a heartbeat; both first look at the
// stop flag. Any other failure (the set was removed, a signal interrupted
// the wait, there is no set at all) ends the thread.
void ServiceThreadMain(void* argument) {
  const int heartbeatSeconds = PeriodFromThreadArgument(argument);
  WaitForChannelSetup();
  sembuf wakeUp{};
  wakeUp.sem_num = KYCMD_WAKE_UP_SEMAPHORE;
  wakeUp.sem_op = -1;
  wakeUp.sem_flg = 0;
  timespec period{};
  period.tv_sec = heartbeatSeconds;
  const timespec* timeout = heartbeatSeconds != 0 ? &period : nullptr;
  for (;;) {
    // The identifier is read afresh for every wait.
    if (semtimedop(g_commandHandler.semaphoreSetId(), &wakeUp, 1, timeout) == 0) {
      if (StopRequested()) break;
      g_commandHandler.processCommands();
    } else if (errno == EAGAIN) {
      if (StopRequested()) break;
      g_commandHandler.processHeartbeat();
    } else {
      break;
    }
  }
  KyThreadExitProc exitThread = kyrt::ThreadExitHook();
  if (exitThread != nullptr) exitThread(kHelperThreadExitCode);
}

void PostWakeUp() {
  sembuf post{};
  post.sem_num = KYCMD_WAKE_UP_SEMAPHORE;
  post.sem_op = 1;
  post.sem_flg = SEM_UNDO;
  semop(g_commandHandler.semaphoreSetId(), &post, 1);
}

void StopServiceThreadIfRunning() {
  if (LoadRelaxed(&g_serviceThreadHandle) == 0) return;
  StoreRelaxed(&g_stopRequested, 1);
  PostWakeUp();  // what actually wakes the thread to see the flag
  KyThreadWaitProc waitForThread = __KyGetThreadWaitProc();
  if (waitForThread != nullptr) {
    waitForThread(&g_serviceThreadHandle, kServiceThreadWaitMilliseconds, nullptr);
  }
  StoreRelaxed(&g_serviceThreadHandle, static_cast<uint64_t>(0));
}

// Registered through the add-fini hook, so that the thread is stopped when
// the application finishes.
void StopServiceThreadAtFini(int32_t /*exitCode*/, void* /*argument*/) {
  StopServiceThreadIfRunning();
}

}  // namespace

namespace kyrt::collector {

CollectorCommandHandler& ProcessCommandHandler() {
  return g_commandHandler;
}

uint64_t ServiceThreadHandle() {
  return LoadRelaxed(&g_serviceThreadHandle);
}

uint64_t* ServiceThreadHandleAddress() {
  return &g_serviceThreadHandle;
}

bool StopRequested() {
  return ::StopRequested();
}

}  // namespace kyrt::collector

extern "C" {

int __KyRegisterCommandHandlerWithHeartbeat(const char* directory, KyCommandCallback callback,
                                            void* context, int heartbeatSeconds) noexcept {
  if (!kyrt::HelperThreadHooksComplete()) return 0;
  StoreRelease(&g_channelSetupPending, 1);
  const KyThreadId started =
      __KyGetThreadCreateProc()(ServiceThreadMain, PeriodAsThreadArgument(heartbeatSeconds),
                                kHostChosenStackSize, &g_serviceThreadHandle);
  if (started == KY_INVALID_THREAD_ID) {
    StoreRelease(&g_channelSetupPending, 0);
    return 0;
  }
  kyrt::AddFiniHook()(StopServiceThreadAtFini, nullptr);
  const int initialized = g_commandHandler.initializeCommandHandler(directory, callback, context);
  StoreRelease(&g_channelSetupPending, 0);
  return initialized != 0 ? 1 : 0;
}

int __KyRegisterCommandHandler(const char* directory, KyCommandCallback callback,
                               void* context) noexcept {
  return __KyRegisterCommandHandlerWithHeartbeat(directory, callback, context, 0);
}

void __KyShutdownCommandHandler(void) noexcept {
  StopServiceThreadIfRunning();
}

void __KyUnregisterCommandHandler(_KYCMDHDLRCLEANEXTENT extent) noexcept {
  g_commandHandler.cleanupCommandHandler(extent);
}

}  // extern "C"
