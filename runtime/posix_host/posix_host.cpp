// The POSIX host adapter: the runtime's hooks for a normal Linux program.
//
// Thread ids are cached per thread so that lock operations, which ask for
// the caller's id on every acquire, make no system call. The cache of the
// forking thread is renewed in the child, where that thread has a new id.
#include "kyrt/posix_host.h"

#include <pthread.h>
#include <semaphore.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr int64_t kNanosecondsPerMillisecond = 1000000;
constexpr int64_t kNanosecondsPerSecond = 1000000000;

thread_local KyThreadId t_threadId = 0;
// The creating thread's id, for helper threads started through
// KyPosixHostThreadCreate; 0 for other threads.
thread_local KyThreadId t_parentThreadId = 0;
// Where KyPosixHostThreadExit returns to in a helper thread's trampoline;
// null in threads the adapter did not start.
thread_local jmp_buf* t_exitPoint = nullptr;
thread_local int32_t t_exitCode = 0;

KyThreadId SystemThreadId() {
  return static_cast<KyThreadId>(syscall(SYS_gettid));
}

// The first query of a thread asks the kernel; kept apart so that the
// cached path stays a load and a return.
__attribute__((noinline)) KyThreadId CacheThreadId() {
  t_threadId = SystemThreadId();
  return t_threadId;
}

void ForgetThreadIdAfterFork() {
  t_threadId = 0;
}

// A callback belongs to the process that registered it: it stops that
// process's helper threads and removes its channels. A forked child inherits
// the table (and the atexit registration) but not those threads, so at its
// exit it runs only the callbacks it registered itself.
struct FiniEntry {
  KyFiniFunction callback;
  void* argument;
  pid_t owner;
};

FiniEntry g_finiEntries[KY_POSIX_HOST_MAX_FINI_CALLBACKS];
int g_finiCount = 0;  // entries claimed; may exceed the table while refusing
pthread_mutex_t g_finiMutex = PTHREAD_MUTEX_INITIALIZER;
bool g_finiRunnerRegistered = false;

void RunFiniCallbacks() {
  pthread_mutex_lock(&g_finiMutex);
  int count = g_finiCount;
  g_finiCount = 0;
  pthread_mutex_unlock(&g_finiMutex);
  const pid_t self = getpid();
  for (int i = count - 1; i >= 0; --i) {
    if (g_finiEntries[i].owner == self) g_finiEntries[i].callback(0, g_finiEntries[i].argument);
  }
}

// Start block of a helper thread; lives on the creator's stack until the new
// thread has read it and posted `started`.
struct StartBlock {
  KyThreadFunction function;
  void* argument;
  KyThreadId parent;
  KyThreadId child;
  sem_t started;
};

void* HelperThreadMain(void* raw) {
  StartBlock* block = static_cast<StartBlock*>(raw);
  KyThreadFunction function = block->function;
  void* argument = block->argument;
  t_parentThreadId = block->parent;
  block->child = KyPosixHostGetThreadId();
  sem_post(&block->started);  // block is gone after this

  jmp_buf exitPoint;
  if (setjmp(exitPoint) == 0) {
    t_exitPoint = &exitPoint;
    function(argument);
    t_exitCode = 0;
  }
  t_exitPoint = nullptr;
  return reinterpret_cast<void*>(static_cast<intptr_t>(t_exitCode));
}

timespec DeadlineAfter(uint32_t milliseconds) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  int64_t nanoseconds =
      now.tv_nsec + static_cast<int64_t>(milliseconds) * kNanosecondsPerMillisecond;
  now.tv_sec += static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
  now.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsPerSecond);
  return now;
}

}  // namespace

extern "C" {

KyThreadId KyPosixHostGetThreadId(void) {
  const KyThreadId id = t_threadId;
  return id != 0 ? id : CacheThreadId();
}

KyThreadId KyPosixHostGetParentThreadId(void) {
  if (t_parentThreadId != 0) return t_parentThreadId;
  if (KyPosixHostGetThreadId() == static_cast<KyThreadId>(getpid())) {
    return static_cast<KyThreadId>(getppid());
  }
  return 0;
}

KyTlsIndex KyPosixHostTlsAlloc(void) {
  pthread_key_t key;
  if (pthread_key_create(&key, nullptr) != 0) return KY_TLS_INVALID_INDEX;
  return static_cast<KyTlsIndex>(key);
}

int KyPosixHostTlsFree(KyTlsIndex index) {
  return pthread_key_delete(static_cast<pthread_key_t>(index)) == 0;
}

void* KyPosixHostTlsGetValue(KyTlsIndex index) {
  return pthread_getspecific(static_cast<pthread_key_t>(index));
}

int KyPosixHostTlsSetValue(KyTlsIndex index, void* value) {
  return pthread_setspecific(static_cast<pthread_key_t>(index), value) == 0;
}

int32_t KyPosixHostGetPid(void) {
  return static_cast<int32_t>(getpid());
}

// A helper thread takes none of the application's signals, as in a host
// framework: a signal delivered to it would interrupt its blocking calls
// (the command service thread's semaphore wait ends on EINTR) and would run
// the application's handlers on a thread the application does not know.
// The new thread inherits the creator's mask, so block everything around
// pthread_create and restore the creator's mask at once.
static int CreateWithSignalsBlocked(pthread_t* thread, const pthread_attr_t* attributes,
                                    StartBlock* block) {
  sigset_t everything;
  sigset_t previous;
  sigfillset(&everything);
  pthread_sigmask(SIG_SETMASK, &everything, &previous);
  const int error = pthread_create(thread, attributes, HelperThreadMain, block);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return error;
}

KyThreadId KyPosixHostThreadCreate(KyThreadFunction function, void* argument, size_t stackSize,
                                   uint64_t* handle) {
  if (function == nullptr || handle == nullptr) return KY_INVALID_THREAD_ID;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stackSize != 0 && pthread_attr_setstacksize(&attributes, stackSize) != 0) {
    pthread_attr_destroy(&attributes);
    return KY_INVALID_THREAD_ID;
  }
  StartBlock block{function, argument, KyPosixHostGetThreadId(), 0, {}};
  sem_init(&block.started, 0, 0);
  pthread_t thread;
  const int error = CreateWithSignalsBlocked(&thread, &attributes, &block);
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    sem_destroy(&block.started);
    return KY_INVALID_THREAD_ID;
  }
  while (sem_wait(&block.started) != 0 && errno == EINTR) {
  }
  sem_destroy(&block.started);
  *handle = static_cast<uint64_t>(thread);
  return block.child;
}

void KyPosixHostThreadExit(int32_t exitCode) {
  if (t_exitPoint != nullptr) {
    // A helper thread ends by returning from its trampoline: no unwinding
    // runs through the runtime's frames (they are noexcept).
    t_exitCode = exitCode;
    longjmp(*t_exitPoint, 1);
  }
  pthread_exit(reinterpret_cast<void*>(static_cast<intptr_t>(exitCode)));
}

int KyPosixHostThreadWait(uint64_t* handle, uint32_t timeoutMilliseconds, int32_t* exitCode) {
  if (handle == nullptr || *handle == 0) return 0;
  const timespec deadline = DeadlineAfter(timeoutMilliseconds);
  void* result = nullptr;
  if (pthread_timedjoin_np(static_cast<pthread_t>(*handle), &result, &deadline) != 0) return 0;
  *handle = 0;  // joined: the handle must not be joined twice
  if (exitCode != nullptr) *exitCode = static_cast<int32_t>(reinterpret_cast<intptr_t>(result));
  return 1;
}

void KyPosixHostAddFini(KyFiniFunction callback, void* argument) {
  if (callback == nullptr) return;
  pthread_mutex_lock(&g_finiMutex);
  if (!g_finiRunnerRegistered) g_finiRunnerRegistered = (std::atexit(RunFiniCallbacks) == 0);
  if (g_finiCount < KY_POSIX_HOST_MAX_FINI_CALLBACKS) {
    g_finiEntries[g_finiCount++] = FiniEntry{callback, argument, getpid()};
  }
  pthread_mutex_unlock(&g_finiMutex);
}

int KyPosixHostInstall(void) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, ForgetThreadIdAfterFork); });
  __KySetGetCurrentThreadIdProc(KyPosixHostGetThreadId);
  __KySetGetNativeThreadIdProc(KyPosixHostGetThreadId);
  __KySetGetNativeParentThreadIdProc(KyPosixHostGetParentThreadId);
  __KySetTlsAllocProc(KyPosixHostTlsAlloc);
  __KySetTlsFreeProc(KyPosixHostTlsFree);
  __KySetTlsGetValueProc(KyPosixHostTlsGetValue);
  __KySetTlsSetValueProc(KyPosixHostTlsSetValue);
  __KySetGetPidProc(KyPosixHostGetPid);
  __KySetThreadProcs(KyPosixHostThreadCreate, KyPosixHostThreadExit, KyPosixHostThreadWait,
                     KyPosixHostAddFini);
  return 1;
}

}  // extern "C"
