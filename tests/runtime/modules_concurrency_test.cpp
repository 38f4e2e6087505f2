// Concurrent memory-map scans. The scan guard must keep a second scan out
// while one is under way (checked with a map that is a FIFO, so that the
// first scan stays inside until the test feeds it), and scans hammered from
// many threads must all see the process's mappings whole. Bounded by
// iteration counts, not by time.
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/modules.h"
#include "runtime/modules_test_support.h"
#include "support/thread_harness.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt_test::RunConcurrently;

using kyrt_test::AddressOf;

#if defined(__SANITIZE_THREAD__)
constexpr int kIterations = 100;  // ThreadSanitizer runs 5-15 times slower
#else
constexpr int kIterations = 400;
#endif

constexpr int kThreads = 8;

struct Range {
  uint64_t start = 0;
  uint64_t end = 0;
};

Range RangeOf(uint64_t address) {
  Range range;
  range.start = __KyGetModuleAddressRange(address, &range.end);
  return range;
}

class MemoryMapConcurrencyTest : public ::testing::Test {
 protected:
  void TearDown() override { kyrt_test::UseRealMaps(); }
};

TEST_F(MemoryMapConcurrencyTest, ASecondScanWaitsUntilTheFirstHasFinished) {
  ASSERT_TRUE(kyrt_test::UseMapsFifo());
  Range first;
  Range second;
  std::atomic<bool> secondDone{false};
  std::thread firstScan([&first] { first = RangeOf(0x1800); });
  // The write end opens once the first scan has the map open, that is once
  // it holds the guard.
  const int firstWriter = kyrt_test::OpenFifoWriterOnceReaderWaits(kyrt_test::kMapsPath);
  ASSERT_GE(firstWriter, 0);
  std::thread secondScan([&second, &secondDone] {
    second = RangeOf(0x1800);
    secondDone = true;
  });
  EXPECT_TRUE(kyrt_test::StaysFalse(secondDone));
  ASSERT_TRUE(kyrt_test::FeedFifoAndClose(firstWriter, "1000-2000 r--p 0 0:0 0\n"));
  firstScan.join();
  // Only now may the second scan open the map: a scan that had opened it
  // alongside the first would have met the end of the file already.
  const int secondWriter = kyrt_test::OpenFifoWriterOnceReaderWaits(kyrt_test::kMapsPath);
  const bool fed =
      secondWriter >= 0 && kyrt_test::FeedFifoAndClose(secondWriter, "1000-3000 rw-p 0 0:0 0\n");
  secondScan.join();
  EXPECT_TRUE(fed) << "the second scan never opened the map after the first had finished";
  EXPECT_EQ(first.start, 0x1000u);
  EXPECT_EQ(first.end, 0x2000u);
  EXPECT_EQ(second.start, 0x1000u);
  EXPECT_EQ(second.end, 0x3000u);
}

int g_staticData = 1;

TEST_F(MemoryMapConcurrencyTest, ConcurrentScansAllSeeTheirMappingsWhole) {
  const Range staticRange = RangeOf(AddressOf(&g_staticData));
  ASSERT_NE(staticRange.end, 0u);
  std::atomic<int> mismatches{0};
  RunConcurrently(kThreads, [&](int /*index*/) {
    int onTheStack = 0;
    const uint64_t stackAddress = AddressOf(&onTheStack);
    uint64_t firstBase = 0;
    const uint64_t firstSize = __KyGetThreadStackBaseAndSize(stackAddress, &firstBase);
    if (firstSize == 0 || firstBase - firstSize > stackAddress || firstBase < stackAddress) {
      mismatches.fetch_add(1);
    }
    for (int i = 0; i < kIterations; ++i) {
      const Range range = RangeOf(AddressOf(&g_staticData));
      if (range.start != staticRange.start || range.end != staticRange.end) mismatches.fetch_add(1);
      uint64_t base = 0;
      const uint64_t size = __KyGetThreadStackBaseAndSize(stackAddress, &base);
      if (base != firstBase || size != firstSize) mismatches.fetch_add(1);
    }
  });
  EXPECT_EQ(mismatches.load(), 0);
}

// Captures from depth nested calls of itself: the trace starts with the pc
// after the capture call and goes on with one return into this function per
// level.
__attribute__((noinline)) uint16_t CaptureAtDepth(int depth, void** frames) {
  const uint16_t count =
      depth == 0 ? __KyCaptureCurrentStackBackTrace(frames) : CaptureAtDepth(depth - 1, frames);
  asm volatile("" ::: "memory");  // no tail call: each level keeps its frame
  return count;
}

TEST_F(MemoryMapConcurrencyTest, ConcurrentCapturesEachWalkTheirOwnStack) {
  constexpr int kDepth = 3;
  std::atomic<int> wrongTraces{0};
  RunConcurrently(kThreads, [&](int /*index*/) {
    for (int i = 0; i < kIterations; ++i) {
      void* frames[KY_MAX_BACKTRACE_FRAMES];
      const uint16_t count = CaptureAtDepth(kDepth, frames);
      bool right = count > kDepth && count <= KY_MAX_BACKTRACE_FRAMES;
      for (int level = 2; right && level <= kDepth; ++level) right = frames[level] == frames[1];
      if (!right) wrongTraces.fetch_add(1);
    }
  });
  EXPECT_EQ(wrongTraces.load(), 0);
}

}  // namespace
