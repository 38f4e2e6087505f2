// The two-lock queue against a std::deque under a std::mutex and against
// tbb::concurrent_queue.
//
//   queue_pair_1t  one thread enqueues a value and dequeues it again
//   queue_2p2c     two producer threads enqueue and two consumer threads
//                  dequeue; each thread moves one value per iteration, a
//                  consumer yielding while it finds the queue empty
//
// Roles: "ours" is a thread-safe queue of the runtime, "std_mutex_deque" and
// "tbb_concurrent_queue" the peers. Every queue is reached through an
// adapter with the same calls, so each role pays the same loop around it.
// There are no targets: the table is for information.
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>
#include <tbb/concurrent_queue.h>

#include "bench_ratio.h"
#include "kyrt/memory.h"
#include "kyrt/queue.h"

namespace {

constexpr int kProducerThreads = 2;
constexpr int kConsumerThreads = 2;

// Threaded runs are timed on the wall clock and run longer than the suite's
// default: how two processors pass the queue's lines back and forth varies
// a lot from run to run.
constexpr double kThreadedMinTimeSeconds = 0.3;

// ---------------------------------------------------------------------------
// Adapters

class Ours {
 public:
  Ours() : queue_(__KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, KY_MEMORY_CATEGORY_MISC)) {}
  ~Ours() {
    __KyDestroyQueue(queue_);
    __KyFree(queue_);
  }
  Ours(const Ours&) = delete;
  Ours& operator=(const Ours&) = delete;

  void push(uintptr_t value) { __KyEnqueue(queue_, reinterpret_cast<void*>(value)); }

  // Values are never 0, so a null result means an empty queue.
  bool tryPop(uintptr_t& value) {
    value = reinterpret_cast<uintptr_t>(__KyDequeue(queue_));
    return value != 0;
  }

  bool empty() { return __KyIsQueueEmpty(queue_) != 0; }

 private:
  KyQueue* queue_;
};

class StdMutexDeque {
 public:
  void push(uintptr_t value) {
    std::lock_guard<std::mutex> hold(mutex_);
    values_.push_back(value);
  }

  bool tryPop(uintptr_t& value) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (values_.empty()) return false;
    value = values_.front();
    values_.pop_front();
    return true;
  }

  bool empty() {
    std::lock_guard<std::mutex> hold(mutex_);
    return values_.empty();
  }

 private:
  std::mutex mutex_;
  std::deque<uintptr_t> values_;
};

class TbbConcurrentQueue {
 public:
  void push(uintptr_t value) { values_.push(value); }
  bool tryPop(uintptr_t& value) { return values_.try_pop(value); }
  bool empty() { return values_.empty(); }

 private:
  tbb::concurrent_queue<uintptr_t> values_;
};

// One queue per adapter, built on first use (the threads of a run agree on
// it through the thread-safe initialisation of a local static) and never
// destroyed, so that nothing of the runtime runs during exit. Every run
// leaves it empty.
template <typename Queue>
Queue& SharedQueue() {
  static Queue* queue = new Queue;
  return *queue;
}

// ---------------------------------------------------------------------------
// Benchmarks

template <typename Queue>
void PairOneThread(benchmark::State& state) {
  Queue& queue = SharedQueue<Queue>();
  uintptr_t value = 0;
  for (auto _ : state) {
    queue.push(1);
    queue.tryPop(value);
    benchmark::DoNotOptimize(value);
  }
}

// Every thread runs the same number of iterations, so the consumers take
// exactly what the producers put in; thread 0 checks that nothing is left.
template <typename Queue>
void ProducersAndConsumers(benchmark::State& state) {
  Queue& queue = SharedQueue<Queue>();
  const bool producer = state.thread_index() < kProducerThreads;
  uintptr_t next = 1;
  uint64_t checksum = 0;
  for (auto _ : state) {
    if (producer) {
      queue.push(next++);
      continue;
    }
    uintptr_t value = 0;
    while (!queue.tryPop(value)) std::this_thread::yield();
    checksum += value;
  }
  benchmark::DoNotOptimize(checksum);
  if (state.thread_index() == 0 && !queue.empty()) {
    state.SkipWithError("values left in the queue");
  }
}

template <typename Queue>
void Register(const char* pairName, const char* threadedName) {
  benchmark::RegisterBenchmark(pairName, PairOneThread<Queue>);
  benchmark::RegisterBenchmark(threadedName, ProducersAndConsumers<Queue>)
      ->Threads(kProducerThreads + kConsumerThreads)
      ->UseRealTime()
      ->MinTime(kThreadedMinTimeSeconds);
}

const bool kRegistered = [] {
  Register<Ours>("queue_pair_1t/ours", "queue_2p2c/ours");
  Register<StdMutexDeque>("queue_pair_1t/std_mutex_deque", "queue_2p2c/std_mutex_deque");
  Register<TbbConcurrentQueue>("queue_pair_1t/tbb_concurrent_queue",
                               "queue_2p2c/tbb_concurrent_queue");
  return true;
}();

}  // namespace
