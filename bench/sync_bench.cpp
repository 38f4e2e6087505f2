// The lock families against the platform's locks.
//
//   spin_uncontended       acquire + release of a free spin lock, by one thread
//   spin_contended_2t      two threads taking one lock around a shared counter
//   shared_uncontended     shared acquire + release of a free reader-writer lock
//   exclusive_uncontended  exclusive acquire + release of the same
//   readers_2t             two threads taking one reader-writer lock shared
//   readers_4t             the same with four threads
//
// Roles: "ours" calls the entry that asks the host for the thread id,
// "ours_tid" the Tid entry with an id looked up once beforehand; the peers
// are the POSIX locks and their standard C++ counterparts.
//
// Every lock is reached through an adapter with the same three calls, so
// that each role pays exactly the same loop and call overhead around the
// lock itself. The thread id is handed to every adapter; only the Tid roles
// use it.
#include <pthread.h>

#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/runtime.h"
#include "kyrt/shared_exclusive_lock.h"
#include "kyrt/spin_lock.h"

namespace {

using kyrt::bench::AtMost;
using kyrt::bench::Below;

const kyrt::bench::TargetTable kTargets{
    {"spin_uncontended", "pthread_spin", AtMost(1.30)},
    {"spin_uncontended", "std_mutex", Below(1.00)},
    {"shared_uncontended", "std_shared_mutex", AtMost(1.00)},
    {"exclusive_uncontended", "std_shared_mutex", AtMost(1.00)},
};

// ---------------------------------------------------------------------------
// Adapters

struct SpinOurs {
  using Lock = KySpinLock;
  static void Init(Lock& lock) { __KyInitializeSpinLock(&lock); }
  static void Acquire(Lock& lock, KyThreadId) { __KyAcquireSpinLock(&lock); }
  static void Release(Lock& lock, KyThreadId) { __KyReleaseSpinLock(&lock); }
};

struct SpinOursTid {
  using Lock = KySpinLock;
  static void Init(Lock& lock) { __KyInitializeSpinLock(&lock); }
  static void Acquire(Lock& lock, KyThreadId tid) { __KyAcquireSpinLockTid(&lock, tid); }
  static void Release(Lock& lock, KyThreadId) { __KyReleaseSpinLock(&lock); }
};

struct PthreadSpin {
  using Lock = pthread_spinlock_t;
  static void Init(Lock& lock) { pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE); }
  static void Acquire(Lock& lock, KyThreadId) { pthread_spin_lock(&lock); }
  static void Release(Lock& lock, KyThreadId) { pthread_spin_unlock(&lock); }
};

struct StdMutex {
  using Lock = std::mutex;
  static void Init(Lock&) {}
  static void Acquire(Lock& lock, KyThreadId) { lock.lock(); }
  static void Release(Lock& lock, KyThreadId) { lock.unlock(); }
};

struct SharedOurs {
  using Lock = KySharedExclusiveLock;
  static void Init(Lock& lock) { __KyInitializeSharedExclusiveLock(&lock); }
  static void Acquire(Lock& lock, KyThreadId) { __KyAcquireSharedLock(&lock); }
  static void Release(Lock& lock, KyThreadId) { __KyReleaseSharedLock(&lock); }
};

struct SharedOursTid {
  using Lock = KySharedExclusiveLock;
  static void Init(Lock& lock) { __KyInitializeSharedExclusiveLock(&lock); }
  static void Acquire(Lock& lock, KyThreadId tid) { __KyAcquireSharedLockTid(&lock, tid); }
  static void Release(Lock& lock, KyThreadId tid) { __KyReleaseSharedLockTid(&lock, tid); }
};

struct SharedStd {
  using Lock = std::shared_mutex;
  static void Init(Lock&) {}
  static void Acquire(Lock& lock, KyThreadId) { lock.lock_shared(); }
  static void Release(Lock& lock, KyThreadId) { lock.unlock_shared(); }
};

struct SharedPthread {
  using Lock = pthread_rwlock_t;
  static void Init(Lock& lock) { pthread_rwlock_init(&lock, nullptr); }
  static void Acquire(Lock& lock, KyThreadId) { pthread_rwlock_rdlock(&lock); }
  static void Release(Lock& lock, KyThreadId) { pthread_rwlock_unlock(&lock); }
};

struct ExclusiveOurs {
  using Lock = KySharedExclusiveLock;
  static void Init(Lock& lock) { __KyInitializeSharedExclusiveLock(&lock); }
  static void Acquire(Lock& lock, KyThreadId) { __KyAcquireExclusiveLock(&lock); }
  static void Release(Lock& lock, KyThreadId) { __KyReleaseExclusiveLock(&lock); }
};

struct ExclusiveOursTid {
  using Lock = KySharedExclusiveLock;
  static void Init(Lock& lock) { __KyInitializeSharedExclusiveLock(&lock); }
  static void Acquire(Lock& lock, KyThreadId tid) { __KyAcquireExclusiveLockTid(&lock, tid); }
  static void Release(Lock& lock, KyThreadId) { __KyReleaseExclusiveLock(&lock); }
};

struct ExclusiveStd {
  using Lock = std::shared_mutex;
  static void Init(Lock&) {}
  static void Acquire(Lock& lock, KyThreadId) { lock.lock(); }
  static void Release(Lock& lock, KyThreadId) { lock.unlock(); }
};

struct ExclusivePthread {
  using Lock = pthread_rwlock_t;
  static void Init(Lock& lock) { pthread_rwlock_init(&lock, nullptr); }
  static void Acquire(Lock& lock, KyThreadId) { pthread_rwlock_wrlock(&lock); }
  static void Release(Lock& lock, KyThreadId) { pthread_rwlock_unlock(&lock); }
};

// ---------------------------------------------------------------------------
// Single-thread acquire + release of a free lock

template <typename Adapter>
void Uncontended(benchmark::State& state) {
  typename Adapter::Lock lock;
  Adapter::Init(lock);
  const KyThreadId tid = __KyGetNativeThreadId();
  for (auto _ : state) {
    Adapter::Acquire(lock, tid);
    Adapter::Release(lock, tid);
  }
}

// ---------------------------------------------------------------------------
// Several threads on one lock

// A lock and the data it guards, on a cache line of their own, as a lock
// embedded in a small structure usually is.
template <typename Adapter>
struct alignas(64) Guarded {
  Guarded() { Adapter::Init(lock); }
  typename Adapter::Lock lock;
  uint64_t counter = 0;
  // Contended runs only: the thread index of the last holder, and how often
  // the lock passed to a different thread than the one that held it last.
  int lastHolder = -1;
  uint64_t handoffs = 0;
};

// One instance per adapter, built on first use. Registration touches it
// during static initialisation, so it exists before any benchmark thread
// starts, and every thread of every run shares it.
template <typename Adapter>
Guarded<Adapter>& SharedInstance() {
  static Guarded<Adapter> instance;
  return instance;
}

// Each thread loops acquire, increment the shared counter, release. Thread 0
// then checks that no increment was lost: the benchmark library holds every
// thread at a barrier before the loop until all have arrived, and again
// after it until all are done, so the counter read before the loop and after
// it brackets exactly this run's increments.
//
// The critical section also counts hand-offs, reported per million
// acquisitions: how often the lock went to another thread than its last
// holder. A lock that lets its last holder take it again and again runs
// close to its uncontended speed while the other thread waits; this column
// tells such throughput apart from throughput with the threads taking turns.
template <typename Adapter>
void Contended(benchmark::State& state) {
  Guarded<Adapter>& shared = SharedInstance<Adapter>();
  const KyThreadId tid = __KyGetNativeThreadId();
  const int self = state.thread_index();
  const uint64_t counterBefore = self == 0 ? shared.counter : 0;
  const uint64_t handoffsBefore = self == 0 ? shared.handoffs : 0;
  for (auto _ : state) {
    Adapter::Acquire(shared.lock, tid);
    ++shared.counter;
    if (shared.lastHolder != self) {
      shared.lastHolder = self;
      ++shared.handoffs;
    }
    Adapter::Release(shared.lock, tid);
  }
  if (self != 0) return;
  const uint64_t operations = static_cast<uint64_t>(state.iterations()) * state.threads();
  if (shared.counter - counterBefore != operations) {
    state.SkipWithError("lost increments: the lock let two threads in at once");
    return;
  }
  state.counters["handoffs_per_Mop"] =
      1e6 * static_cast<double>(shared.handoffs - handoffsBefore) / static_cast<double>(operations);
}

// Each thread loops acquire shared, read the guarded counter, release.
template <typename Adapter>
void Readers(benchmark::State& state) {
  Guarded<Adapter>& shared = SharedInstance<Adapter>();
  const KyThreadId tid = __KyGetNativeThreadId();
  for (auto _ : state) {
    Adapter::Acquire(shared.lock, tid);
    benchmark::DoNotOptimize(shared.counter);
    Adapter::Release(shared.lock, tid);
  }
}

// ---------------------------------------------------------------------------
// Registration

template <typename Adapter>
void RegisterUncontended(const char* name) {
  benchmark::RegisterBenchmark(name, Uncontended<Adapter>);
}

// Threaded runs are timed on the wall clock (their real time per operation
// is the throughput of all threads together) and run longer than the
// suite's default: how the two processors' caches pass the lock's line back
// and forth varies far more from run to run than a single thread's timing.
constexpr double kThreadedMinTimeSeconds = 0.3;

template <typename Adapter>
void RegisterThreaded(const char* name, void (*function)(benchmark::State&), int threads) {
  SharedInstance<Adapter>();
  benchmark::RegisterBenchmark(name, function)
      ->Threads(threads)
      ->UseRealTime()
      ->MinTime(kThreadedMinTimeSeconds);
}

const bool kRegistered = [] {
  RegisterUncontended<SpinOurs>("spin_uncontended/ours");
  RegisterUncontended<SpinOursTid>("spin_uncontended/ours_tid");
  RegisterUncontended<PthreadSpin>("spin_uncontended/pthread_spin");
  RegisterUncontended<StdMutex>("spin_uncontended/std_mutex");

  RegisterThreaded<SpinOurs>("spin_contended_2t/ours", Contended<SpinOurs>, 2);
  RegisterThreaded<SpinOursTid>("spin_contended_2t/ours_tid", Contended<SpinOursTid>, 2);
  RegisterThreaded<PthreadSpin>("spin_contended_2t/pthread_spin", Contended<PthreadSpin>, 2);
  RegisterThreaded<StdMutex>("spin_contended_2t/std_mutex", Contended<StdMutex>, 2);

  RegisterUncontended<SharedOurs>("shared_uncontended/ours");
  RegisterUncontended<SharedOursTid>("shared_uncontended/ours_tid");
  RegisterUncontended<SharedStd>("shared_uncontended/std_shared_mutex");
  RegisterUncontended<SharedPthread>("shared_uncontended/pthread_rwlock");

  RegisterUncontended<ExclusiveOurs>("exclusive_uncontended/ours");
  RegisterUncontended<ExclusiveOursTid>("exclusive_uncontended/ours_tid");
  RegisterUncontended<ExclusiveStd>("exclusive_uncontended/std_shared_mutex");
  RegisterUncontended<ExclusivePthread>("exclusive_uncontended/pthread_rwlock");

  RegisterThreaded<SharedOurs>("readers_2t/ours", Readers<SharedOurs>, 2);
  RegisterThreaded<SharedOursTid>("readers_2t/ours_tid", Readers<SharedOursTid>, 2);
  RegisterThreaded<SharedStd>("readers_2t/std_shared_mutex", Readers<SharedStd>, 2);
  RegisterThreaded<SharedPthread>("readers_2t/pthread_rwlock", Readers<SharedPthread>, 2);

  RegisterThreaded<SharedOurs>("readers_4t/ours", Readers<SharedOurs>, 4);
  RegisterThreaded<SharedStd>("readers_4t/std_shared_mutex", Readers<SharedStd>, 4);
  RegisterThreaded<SharedPthread>("readers_4t/pthread_rwlock", Readers<SharedPthread>, 4);
  return true;
}();

}  // namespace
