// Concurrency tests of start-up and of the atomic operations.
//
// Start-up is raced from many threads at once: every caller must come back
// with the fixed result and find the runtime completely started (flag and
// processor count), never half-way. The atomic operations are hammered from
// many threads and their totals must be exact; increment and decrement
// results must also be unique, since each one names a distinct step of the
// counter. Everything is bounded by iteration counts, not by time.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "support/thread_harness.h"

namespace {

using kyrt_test::Peek;
using kyrt_test::RunConcurrently;

#if defined(__SANITIZE_THREAD__)
constexpr int kIterations = 50000;  // ThreadSanitizer runs 5-15 times slower
#else
constexpr int kIterations = 200000;
#endif

constexpr int kThreads = 8;

// Checks that `values` holds each of first, first+1, ..., first+count-1
// exactly once.
::testing::AssertionResult IsPermutationOfRange(std::vector<int64_t> values, int64_t first,
                                                int64_t count) {
  if (static_cast<int64_t>(values.size()) != count) {
    return ::testing::AssertionFailure() << values.size() << " values, expected " << count;
  }
  std::sort(values.begin(), values.end());
  for (int64_t i = 0; i < count; ++i) {
    if (values[static_cast<size_t>(i)] != first + i) {
      return ::testing::AssertionFailure()
             << "position " << i << " holds " << values[static_cast<size_t>(i)] << ", expected "
             << first + i;
    }
  }
  return ::testing::AssertionSuccess();
}

std::vector<int64_t> Concatenate(const std::vector<std::vector<int64_t>>& parts) {
  std::vector<int64_t> all;
  for (const std::vector<int64_t>& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Start-up is raced in the cases themselves, so this fixture only installs
// the hooks.
class RuntimeConcurrency : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(1, KyPosixHostInstall()); }
};

// Every thread that returns from start-up sees the runtime fully started:
// the flag set and the processor count in place, the same for everybody.
TEST_F(RuntimeConcurrency, StartupFromEightThreadsAtOnce) {
  std::vector<uint32_t> results(kThreads, 0);
  std::vector<int> startedSeen(kThreads, 0);
  std::vector<int> processorsSeen(kThreads, 0);
  RunConcurrently(kThreads, [&](int index) {
    const size_t slot = static_cast<size_t>(index);
    results[slot] = __KyRtStartup();
    startedSeen[slot] = __KyGetStarted();
    processorsSeen[slot] = __KyGetNProcs();
  });
  for (int i = 0; i < kThreads; ++i) {
    const size_t slot = static_cast<size_t>(i);
    EXPECT_EQ(KY_RT_STARTUP_RESULT, results[slot]) << "thread " << i;
    EXPECT_EQ(1, startedSeen[slot]) << "thread " << i;
    EXPECT_GT(processorsSeen[slot], 0) << "thread " << i;
    EXPECT_EQ(processorsSeen[0], processorsSeen[slot]) << "thread " << i;
  }
  EXPECT_EQ(1, __KyGetStarted());
  EXPECT_EQ(1, Peek(__kyRtStarted));
  EXPECT_EQ(processorsSeen[0], __KyGetNProcs());
  EXPECT_EQ(processorsSeen[0], Peek(__kyNumberOfProcessors));
  // The count taken at start-up is the one the system reports now.
  EXPECT_EQ(__KyGetNProcsInternal(), __KyGetNProcs());
}

// Repeated start-up calls racing with each other and with readers of the
// results: every call returns the fixed value and the count never changes.
TEST_F(RuntimeConcurrency, RepeatedStartupIsIdempotentUnderContention) {
  constexpr int kCallsPerThread = kIterations / 50;
  std::atomic<int> wrongResult{0};
  std::atomic<int> notStarted{0};
  std::atomic<int> countChanged{0};
  std::atomic<int> firstCount{0};
  RunConcurrently(kThreads, [&](int index) {
    for (int i = 0; i < kCallsPerThread; ++i) {
      if (index % 2 == 0 || i % 3 == 0) {
        if (__KyRtStartup() != KY_RT_STARTUP_RESULT) wrongResult.fetch_add(1);
        if (__KyGetStarted() != 1) notStarted.fetch_add(1);
      }
      if (__KyGetStarted() == 1) {
        // Started means counted: the count is published before the flag.
        const int count = __KyGetNProcs();
        int expected = 0;
        if (count <= 0 ||
            (!firstCount.compare_exchange_strong(expected, count) && expected != count)) {
          countChanged.fetch_add(1);
        }
      }
    }
  });
  EXPECT_EQ(0, wrongResult.load());
  EXPECT_EQ(0, notStarted.load());
  EXPECT_EQ(0, countChanged.load());
  EXPECT_GT(firstCount.load(), 0);
  EXPECT_EQ(firstCount.load(), __KyGetNProcs());
  EXPECT_EQ(1, __KyGetStarted());
}

// Each increment returns the new value, so the results of all threads
// together are exactly 1..total.
TEST_F(RuntimeConcurrency, InterlockedIncrementResultsAreUniqueAndTotalExact) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  volatile int32_t counter = 0;
  std::vector<std::vector<int64_t>> seen(kThreads);
  RunConcurrently(kThreads, [&](int index) {
    std::vector<int64_t>& mine = seen[static_cast<size_t>(index)];
    mine.reserve(kIterations);
    for (int i = 0; i < kIterations; ++i) {
      // Alternate between the public entry and the exported internal one.
      mine.push_back(i % 2 == 0 ? __KyInterlockedIncrement(&counter)
                                : __KyInterlockedIncrementInternal(&counter));
    }
  });
  const int64_t total = static_cast<int64_t>(kThreads) * kIterations;
  EXPECT_EQ(total, Peek(counter));
  EXPECT_TRUE(IsPermutationOfRange(Concatenate(seen), 1, total));
}

// Each decrement returns the new value: from total down, the results are
// exactly total-1..0, and the counter ends at 0.
TEST_F(RuntimeConcurrency, InterlockedDecrementResultsAreUniqueAndTotalExact) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  const int64_t total = static_cast<int64_t>(kThreads) * kIterations;
  volatile int32_t counter = static_cast<int32_t>(total);
  std::vector<std::vector<int64_t>> seen(kThreads);
  RunConcurrently(kThreads, [&](int index) {
    std::vector<int64_t>& mine = seen[static_cast<size_t>(index)];
    mine.reserve(kIterations);
    for (int i = 0; i < kIterations; ++i) {
      mine.push_back(i % 2 == 0 ? __KyInterlockedDecrement(&counter)
                                : __KyInterlockedDecrementInternal(&counter));
    }
  });
  EXPECT_EQ(0, Peek(counter));
  EXPECT_TRUE(IsPermutationOfRange(Concatenate(seen), 0, total));
}

// Increments and decrements racing on one word cancel out exactly, also
// across zero into negative values.
TEST_F(RuntimeConcurrency, MixedIncrementAndDecrementCancelOut) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  volatile int32_t counter = 0;
  RunConcurrently(kThreads, [&](int index) {
    for (int i = 0; i < kIterations; ++i) {
      if (index % 2 == 0) {
        __KyInterlockedIncrement(&counter);
      } else {
        __KyInterlockedDecrement(&counter);
      }
    }
  });
  EXPECT_EQ(0, Peek(counter));
}

// Adds of different sizes and signs from many threads sum exactly. The
// result of the call is documented as unreliable under contention, so only
// the total is checked.
TEST_F(RuntimeConcurrency, InterlockedExchangeAddTotalIsExact) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  volatile int32_t sum = 1000;
  int64_t expected = 1000;
  for (int index = 0; index < kThreads; ++index) {
    const int64_t addend = (index % 2 == 0) ? index + 1 : -(index / 2 + 1);
    expected += addend * kIterations;
  }
  RunConcurrently(kThreads, [&](int index) {
    const int32_t addend = (index % 2 == 0) ? index + 1 : -(index / 2 + 1);
    for (int i = 0; i < kIterations; ++i) {
      if (i % 2 == 0) {
        __KyInterlockedExchangeAdd(&sum, addend);
      } else {
        __KyInterlockedExchangeAddInternal(&sum, addend);
      }
    }
  });
  EXPECT_EQ(expected, Peek(sum));
}

// A counter built from compare-and-swap alone: read, try to swap in the
// successor, retry on failure. The swap returns the previous value, which
// equals the comparand exactly when it succeeded; every success claims a
// distinct value.
TEST_F(RuntimeConcurrency, CompareExchangeCounterLoop) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  constexpr int kClaims = kIterations / 4;
  volatile int32_t counter = 0;
  std::vector<std::vector<int64_t>> claimed(kThreads);
  std::atomic<int64_t> failures{0};
  RunConcurrently(kThreads, [&](int index) {
    std::vector<int64_t>& mine = claimed[static_cast<size_t>(index)];
    for (int i = 0; i < kClaims; ++i) {
      int32_t observed = Peek(counter);
      for (;;) {
        const int32_t previous = __KyInterlockedCompareExchange(&counter, observed + 1, observed);
        if (previous == observed) break;
        // On failure the result is what was there instead: the value to
        // try next.
        failures.fetch_add(1);
        observed = previous;
      }
      mine.push_back(observed);
    }
  });
  const int64_t total = static_cast<int64_t>(kThreads) * kClaims;
  EXPECT_EQ(total, Peek(counter));
  EXPECT_TRUE(IsPermutationOfRange(Concatenate(claimed), 0, total));
  RecordProperty("casFailures", std::to_string(failures.load()));
}

// The same on 64 bits, starting just below 2^32 so that the counter crosses
// the 32-bit boundary while the threads race: the full width is swapped.
TEST_F(RuntimeConcurrency, CompareExchange64CounterCrossesThe32BitBoundary) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  constexpr int kClaims = kIterations / 4;
  const int64_t start = (int64_t{1} << 32) - static_cast<int64_t>(kThreads) * kClaims / 2;
  volatile int64_t counter = start;
  std::vector<std::vector<int64_t>> claimed(kThreads);
  RunConcurrently(kThreads, [&](int index) {
    std::vector<int64_t>& mine = claimed[static_cast<size_t>(index)];
    for (int i = 0; i < kClaims; ++i) {
      int64_t observed = Peek(counter);
      for (;;) {
        const int64_t previous =
            (i % 2 == 0)
                ? __KyInterlockedCompareExchange64(&counter, observed + 1, observed)
                : __KyInterlockedCompareExchange64Internal(&counter, observed + 1, observed);
        if (previous == observed) break;
        observed = previous;
      }
      mine.push_back(observed);
    }
  });
  const int64_t total = static_cast<int64_t>(kThreads) * kClaims;
  EXPECT_EQ(start + total, Peek(counter));
  EXPECT_GT(Peek(counter), int64_t{0xFFFFFFFF});
  EXPECT_TRUE(IsPermutationOfRange(Concatenate(claimed), start, total));
}

// A lock made of one word and compare-and-swap (0 -> 1 to take, 1 -> 0 to
// give back) protecting plain data: the swaps must be full barriers, so the
// plain counter is exact and ThreadSanitizer sees the accesses ordered.
TEST_F(RuntimeConcurrency, CompareExchangeOrdersPlainDataLikeALock) {
  ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
  volatile int32_t word = 0;
  int64_t plain = 0;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> badRelease{0};
  RunConcurrently(kThreads / 2, [&](int) {
    for (int i = 0; i < kIterations / 4; ++i) {
      while (__KyInterlockedCompareExchange(&word, 1, 0) != 0) __KyYield();
      if (inside.exchange(1) != 0) overlaps.fetch_add(1);
      ++plain;
      inside.store(0);
      if (__KyInterlockedCompareExchange(&word, 0, 1) != 1) badRelease.fetch_add(1);
    }
  });
  EXPECT_EQ(static_cast<int64_t>(kThreads / 2) * (kIterations / 4), plain);
  EXPECT_EQ(0, Peek(word));
  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(0, badRelease.load());
}

}  // namespace
