// Helpers for the concurrency tests: start threads together, wait for a
// condition, and look at fields that other threads change.
#ifndef KYRT_TESTS_SUPPORT_THREAD_HARNESS_H
#define KYRT_TESTS_SUPPORT_THREAD_HARNESS_H

#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace kyrt_test {

// Reads a field the way the runtime writes it (a relaxed atomic access), so
// that looking at a structure another thread uses is not itself a data race.
template <typename T>
T Peek(const T& field) {
  return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename Predicate>
void YieldUntil(Predicate done) {
  while (!done()) std::this_thread::yield();
}

// Starts `threads` threads running body(index), releases them together once
// all are running, and joins them.
template <typename Body>
void RunConcurrently(int threads, Body body) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> pool;
  pool.reserve(static_cast<std::size_t>(threads));
  for (int index = 0; index < threads; ++index) {
    pool.emplace_back([&ready, &go, &body, index] {
      ready.fetch_add(1);
      while (!go.load()) std::this_thread::yield();
      body(index);
    });
  }
  while (ready.load() != threads) std::this_thread::yield();
  go.store(true);
  for (std::thread& thread : pool) thread.join();
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_SUPPORT_THREAD_HARNESS_H
