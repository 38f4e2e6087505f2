// A small tool-shaped program: starts the runtime with the POSIX host
// adapter, then contends the spin lock and the shared-exclusive lock from
// helper threads started through the runtime's thread-create hook, and
// prints what happened.
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "kyrt/kyrt.h"
#include "kyrt/posix_host.h"

namespace {

constexpr int kWorkers = 4;
constexpr int kIterations = 200000;

struct Shared {
  KySpinLock spin;
  KySharedExclusiveLock rw;
  long spinCounter = 0;  // guarded by spin
  long first = 0;        // first == second, guarded by rw
  long second = 0;
  volatile int32_t busyTries = 0;  // try-acquires that found the spin lock held
  volatile int32_t tornReads = 0;  // readers that saw first != second (must stay 0)
  volatile int32_t writes = 0;
  volatile int32_t ready = 0;  // start gate: workers begin together
  volatile int32_t reads = 0;
};

struct Worker {
  Shared* shared;
  int index;
  KyThreadId id;
  uint64_t handle;
};

void Work(void* argument) {
  Worker* worker = static_cast<Worker*>(argument);
  Shared* s = worker->shared;
  __KyInterlockedIncrement(&s->ready);
  while (__KyInterlockedCompareExchange(&s->ready, kWorkers, kWorkers) != kWorkers) __KyYield();
  for (int i = 0; i < kIterations; ++i) {
    if (!__KyTryToAcquireSpinLock(&s->spin, 0)) {
      __KyInterlockedIncrement(&s->busyTries);
      __KyAcquireSpinLock(&s->spin);
    }
    ++s->spinCounter;
    __KyReleaseSpinLock(&s->spin);

    if (i % 8 == worker->index) {  // one pass in eight writes, the rest read
      __KyAcquireExclusiveLock(&s->rw);
      ++s->first;
      ++s->second;
      __KyReleaseExclusiveLock(&s->rw);
      __KyInterlockedIncrement(&s->writes);
    } else {
      __KyAcquireSharedLock(&s->rw);
      if (s->first != s->second) __KyInterlockedIncrement(&s->tornReads);
      __KyReleaseSharedLock(&s->rw);
      __KyInterlockedIncrement(&s->reads);
    }
  }
}

}  // namespace

int main() {
  KyPosixHostInstall();
  const uint32_t started = __KyRtStartup();
  std::printf("runtime started (0x%08" PRIX32 "): %d processors, main thread %" PRIu32 "\n",
              started, __KyGetNProcs(), __KyGetNativeThreadId());

  kyrt::SystemInformation system;
  std::printf("memory: %lu kB total, %lu kB free, page size %ld bytes\n", system.totalMemory(),
              system.freeMemory(), system.pageSize());

  Shared shared;
  __KyInitializeSpinLockAndSpinCount(&shared.spin, 100);
  __KyInitializeSharedExclusiveLockAndSpinCount(&shared.rw, 100);

  std::vector<Worker> workers(kWorkers);
  KyThreadCreateProc create = __KyGetThreadCreateProc();
  KyThreadWaitProc wait = __KyGetThreadWaitProc();
  for (int i = 0; i < kWorkers; ++i) {
    workers[i] = Worker{&shared, i, 0, 0};
    workers[i].id = create(Work, &workers[i], 0, &workers[i].handle);
    if (workers[i].id == KY_INVALID_THREAD_ID) {
      std::fprintf(stderr, "could not start worker %d\n", i);
      return 1;
    }
  }
  std::printf("%d helper threads started:", kWorkers);
  for (const Worker& worker : workers) std::printf(" %" PRIu32, worker.id);
  std::printf("\n");
  for (Worker& worker : workers) {
    while (!wait(&worker.handle, 1000, nullptr)) {
    }
  }

  const long expected = static_cast<long>(kWorkers) * kIterations;
  std::printf("spin lock: counter %ld of %ld expected; %d try-acquires found it busy\n",
              shared.spinCounter, expected, shared.busyTries);
  std::printf("shared-exclusive lock: %d exclusive writes, %d shared reads, %d torn reads\n",
              shared.writes, shared.reads, shared.tornReads);
  std::printf("final pair: %ld / %ld; both locks free: %s\n", shared.first, shared.second,
              !__KyIsSpinLockInAcquiredState(&shared.spin) && shared.rw.state == 0 ? "yes" : "no");

  const bool ok = shared.spinCounter == expected && shared.tornReads == 0 &&
                  shared.first == shared.writes && shared.first == shared.second;
  std::printf("%s\n", ok ? "demo ok" : "demo FAILED");
  __KyRtShutdown();
  return ok ? 0 : 1;
}
