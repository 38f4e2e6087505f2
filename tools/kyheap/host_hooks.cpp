#include "host_hooks.h"

#include <pthread.h>
#include <unistd.h>

#include "kyrt/posix_host.h"
#include "libc_allocator.h"
#include "reentry_guard.h"

namespace kyheap {
namespace {

constexpr int kMaxExitCallbacks = 16;

struct GuardedStart {
  KyThreadFunction function;
  void* argument;
};

struct ExitCallback {
  KyFiniFunction callback;
  void* argument;
};

ExitCallback g_exitCallbacks[kMaxExitCallbacks];
int g_exitCallbackCount = 0;
pid_t g_exitCallbackOwner = 0;
pthread_mutex_t g_exitCallbackMutex = PTHREAD_MUTEX_INITIALIZER;

void GuardedThreadMain(void* raw) {
  ++t_toolDepth;  // for the life of the thread
  const GuardedStart start = *static_cast<GuardedStart*>(raw);
  __libc_free(raw);
  start.function(start.argument);
}

KyThreadId CreateGuardedThread(KyThreadFunction function, void* argument, size_t stackSize,
                               uint64_t* handle) {
  auto* start = static_cast<GuardedStart*>(__libc_malloc(sizeof(GuardedStart)));
  if (start == nullptr) return KY_INVALID_THREAD_ID;
  *start = GuardedStart{function, argument};
  const KyThreadId id = KyPosixHostThreadCreate(GuardedThreadMain, start, stackSize, handle);
  if (id == KY_INVALID_THREAD_ID) __libc_free(start);
  return id;
}

void AddOwnExitCallback(KyFiniFunction callback, void* argument) {
  if (callback == nullptr) return;
  pthread_mutex_lock(&g_exitCallbackMutex);
  if (g_exitCallbackCount < kMaxExitCallbacks) {
    g_exitCallbacks[g_exitCallbackCount++] = ExitCallback{callback, argument};
    g_exitCallbackOwner = getpid();
  }
  pthread_mutex_unlock(&g_exitCallbackMutex);
}

}  // namespace

void InstallHostHooks() {
  KyPosixHostInstall();
  __KySetThreadProcs(CreateGuardedThread, KyPosixHostThreadExit, KyPosixHostThreadWait,
                     AddOwnExitCallback);
}

void RunOwnExitCallbacks() {
  pthread_mutex_lock(&g_exitCallbackMutex);
  const int count = g_exitCallbackOwner == getpid() ? g_exitCallbackCount : 0;
  g_exitCallbackCount = 0;
  pthread_mutex_unlock(&g_exitCallbackMutex);
  for (int i = count - 1; i >= 0; --i) g_exitCallbacks[i].callback(0, g_exitCallbacks[i].argument);
}

}  // namespace kyheap
