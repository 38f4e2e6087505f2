// Collector hooks, collections, the initialiser with its reserve blocks and
// the shortage reports.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"
#include "memory/categories.h"
#include "memory/collector.h"
#include "memory/memory_test_support.h"
#include "memory/sub_allocator.h"

namespace kyrt_test {
namespace {

using CollectorTest = MemoryTest;

// Collections are run the way the allocator runs them: under the memory
// lock.
uint64_t CollectUnderMemoryLock() {
  __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
  const uint64_t freed = kyrt::memory::CollectMemory();
  __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
  return freed;
}

std::atomic<int> g_hookCalls{0};
std::vector<int> g_callOrder;

template <int Tag>
void RecordingHook() {
  g_hookCalls.fetch_add(1);
  g_callOrder.push_back(Tag);
}

TEST_F(CollectorTest, SixteenHooksAreAcceptedAndTheSeventeenthRefusedSilently) {
  for (int hook = 0; hook < 16; ++hook) {
    ASSERT_EQ(__KyRegisterMemoryCollector(RecordingHook<0>), 0) << "hook " << hook;
  }
  EXPECT_EQ(__KyRegisterMemoryCollector(RecordingHook<0>), -1);
  EXPECT_EQ(__KyRegisterMemoryCollector(RecordingHook<0>), -1);
  EXPECT_TRUE(TextRecords().empty());
  CollectUnderMemoryLock();
  EXPECT_EQ(g_hookCalls.load(), 16);
}

TEST_F(CollectorTest, NullHookIsLoggedAsAnErrorAndRefused) {
  EXPECT_EQ(__KyRegisterMemoryCollector(nullptr), -1);
  const std::vector<LogRecord> texts = TextRecords();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].severity, "ERROR");
  EXPECT_EQ(texts[0].text,
            "A valid memory collector hook must be specified to register it with KYRT");
  // The refusal did not take a slot.
  for (int hook = 0; hook < 16; ++hook) EXPECT_EQ(__KyRegisterMemoryCollector(RecordingHook<0>), 0);
}

TEST_F(CollectorTest, WithoutStatisticsEveryHookIsCalledInOrderAndNothingIsCounted) {
  __KyRegisterMemoryCollector(RecordingHook<1>);
  __KyRegisterMemoryCollector(RecordingHook<2>);
  __KyRegisterMemoryCollector(RecordingHook<3>);
  EXPECT_EQ(CollectUnderMemoryLock(), 0u);
  EXPECT_EQ(g_callOrder, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(__KyGetTotalTimesMemoryCollected(), 0u);
  EXPECT_EQ(TextRecords().size(), 0u) << "no start and stop lines without statistics";
  EXPECT_EQ(CountRecords("COLLECT_MEMORY"), 1u);
}

void RegisteringHook() {
  g_callOrder.push_back(10);
  if (g_callOrder.size() == 1) __KyRegisterMemoryCollector(RecordingHook<11>);
}

TEST_F(CollectorTest, AHookRegisteredDuringTheRunIsCalledInTheSameRun) {
  __KyRegisterMemoryCollector(RegisteringHook);
  CollectUnderMemoryLock();
  EXPECT_EQ(g_callOrder, (std::vector<int>{10, 11}));
}

TEST_F(CollectorTest, CollectMemoryIsLoggedOnceUntilARequestClearsTheLatch) {
  CollectUnderMemoryLock();
  CollectUnderMemoryLock();
  EXPECT_EQ(CountRecords("COLLECT_MEMORY"), 1u);
  EXPECT_EQ(kyrt::memory::CollectLoggedLatch(), 1);

  __KyFree(__KyMalloc(0, kLargeSize, 0));  // a guarded request clears the latch
  EXPECT_EQ(kyrt::memory::CollectLoggedLatch(), 0);
  CollectUnderMemoryLock();
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(CountRecords("COLLECT_MEMORY"), 2u);
  const LogRecord& record = records.back();
  EXPECT_EQ(record.type, "COLLECT_MEMORY");
  EXPECT_EQ(record.severity, "WARNING");
  EXPECT_FALSE(record.hidden);
  EXPECT_TRUE(record.arguments.empty());
}

TEST_F(CollectorTest, CollectionSetsTheLatchEvenWhenNothingIsFreed) {
  kyrt::memory::SetCollectLoggedLatch(0);
  EXPECT_EQ(CollectUnderMemoryLock(), 0u);
  EXPECT_EQ(kyrt::memory::CollectLoggedLatch(), 1);
}

// Blocks that the freeing hook gives back.
std::vector<void*> g_blocksToFree;

void FreeingHook() {
  for (void* block : g_blocksToFree) __KyFree(block);
  g_blocksToFree.clear();
}

TEST_F(CollectorTest, WithStatisticsTheCollectionCountsItselfAndReportsWhatTheHooksFreed) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("collected");
  void* kept = __KyMalloc(id, kTwoChunkSize, 0);
  g_blocksToFree = {__KyMalloc(id, kTwoChunkSize, 0), __KyMalloc(id, kTwoChunkSize, 0)};
  // The first two blocks share the first slab, which is full and off the
  // list; the third opened a second slab. Freeing the first slab's blocks
  // gives that slab back.
  std::swap(kept, g_blocksToFree[1]);
  __KyRegisterMemoryCollector(FreeingHook);
  ASSERT_EQ(__kyTotalMemoryAllocated, 131072u);

  EXPECT_EQ(CollectUnderMemoryLock(), 65536u);
  EXPECT_EQ(__KyGetTotalTimesMemoryCollected(), 1u);
  EXPECT_EQ(__kyTotalMemoryAllocated, 65536u);

  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 7u);
  EXPECT_EQ(records[0].type, "COLLECT_MEMORY");
  const char* expected[] = {
      "Start collecting memory: __kyTotalMemoryAllocated=131072",
      "MemoryAllocated by KY_MISC                  :              0",
      "MemoryAllocated by collected                :         131072",
      "Stop collecting memory: __kyTotalMemoryAllocated=65536",
      "MemoryAllocated by KY_MISC                  :              0",
      "MemoryAllocated by collected                :          65536",
  };
  for (size_t line = 0; line < 6; ++line) {
    EXPECT_EQ(records[line + 1].type, "INTERNAL");
    EXPECT_EQ(records[line + 1].severity, "INFO");
    EXPECT_EQ(records[line + 1].text, expected[line]);
  }
  EXPECT_EQ(CollectUnderMemoryLock(), 0u);
  EXPECT_EQ(__KyGetTotalTimesMemoryCollected(), 2u);
  __KyFree(kept);
}

TEST_F(CollectorTest, StatusLinesPrintNegativeFiguresAsSigned) {
  const uint32_t id = __KyRegisterMemoryCategory("negative");
  void* blocks[3];
  for (void*& block : blocks) block = __KyMalloc(id, kTwoChunkSize, 0);
  __KyEnableMemoryStatisticsCollection();
  __KyFree(blocks[0]);
  __KyFree(blocks[1]);
  CollectUnderMemoryLock();
  EXPECT_EQ(CountTextRecords("MemoryAllocated by negative                 :         -65536"), 2u);
  __KyFree(blocks[2]);
}

TEST_F(CollectorTest, InitialiserSetsAsideTheReserveBlocksAndIsIdempotent) {
  EXPECT_FALSE(kyrt::memory::CollectorInitialised());
  __KyInitializeMemoryCollectorAndReserveMemory(3);
  EXPECT_TRUE(kyrt::memory::CollectorInitialised());
  EXPECT_EQ(g_fake.reserveRequests.load(), 3u);
  __KyInitializeMemoryCollectorAndReserveMemory(5);
  __KyInitializeMemoryCollector();
  EXPECT_EQ(g_fake.reserveRequests.load(), 3u);
  EXPECT_EQ(g_fake.reserveReleases.load(), 0u);
}

TEST_F(CollectorTest, ReserveBlocksAreListedThroughTheirFirstWord) {
  __KyInitializeMemoryCollectorAndReserveMemory(2);
  __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
  void* first = kyrt::memory::PopReserveBlock();
  void* second = kyrt::memory::PopReserveBlock();
  void* none = kyrt::memory::PopReserveBlock();
  __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(first, g_fake.lastBlock.load()) << "the last block obtained is at the front";
  EXPECT_EQ(*static_cast<void**>(first), second) << "the first word links to the next block";
  EXPECT_EQ(*static_cast<void**>(second), nullptr);
  FakeRelease(first);
  FakeRelease(second);
}

TEST_F(CollectorTest, ARefusedReserveBlockEndsTheReservationQuietly) {
  // The third reserve request fails.
  static std::atomic<int> reserveRequests{0};
  g_fake.onRequest.store([](size_t size) {
    if (size == KY_RESERVE_BLOCK_SIZE && reserveRequests.fetch_add(1) == 2) {
      FailRequestsFrom(KY_RESERVE_BLOCK_SIZE, 1);
    }
  });
  __KyInitializeMemoryCollectorAndReserveMemory(5);
  g_fake.onRequest.store(nullptr);
  EXPECT_EQ(g_fake.reserveRequests.load(), 3u);
  EXPECT_TRUE(kyrt::memory::CollectorInitialised());
  EXPECT_TRUE(ReadLogRecords().empty());
  __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
  int listed = 0;
  while (void* block = kyrt::memory::PopReserveBlock()) {
    ++listed;
    FakeRelease(block);
  }
  __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
  EXPECT_EQ(listed, 2);
}

TEST_F(CollectorTest, InitialiserZeroesTheStatisticsOnceOnly) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("reset");
  void* block = __KyMalloc(id, 1, 0);
  CollectUnderMemoryLock();
  ASSERT_EQ(__kyTotalMemoryAllocated, 65536u);
  ASSERT_EQ(__KyGetTotalTimesMemoryCollected(), 1u);

  __KyInitializeMemoryCollector();
  EXPECT_EQ(__kyTotalMemoryAllocated, 0u);
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 0u);
  EXPECT_EQ(__KyGetTotalTimesMemoryCollected(), 0u);
  EXPECT_EQ(CategoryInfo(id).allocated, 0);
  EXPECT_EQ(CategoryInfo(id).allocatedAtPeak, 0);

  void* more = __KyMalloc(id, 100, 0);
  __KyInitializeMemoryCollector();
  EXPECT_EQ(CategoryInfo(id).allocated, 65536);
  __KyFree(block);
  __KyFree(more);
}

TEST_F(CollectorTest, MemoryIsTightIsReportedOncePerProcess) {
  kyrt::memory::ReportMemoryIsTight();
  kyrt::memory::ReportMemoryIsTight();
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].type, "MEMORY_IS_TIGHT");
  EXPECT_EQ(records[0].severity, "WARNING");
  EXPECT_TRUE(records[0].arguments.empty());
}

TEST_F(CollectorTest, MemoryIsTightWithStatisticsListsEveryCategoryFirst) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("tight");
  void* block = __KyMalloc(id, 1, 0);
  kyrt::memory::ReportMemoryIsTight();
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].text, "Allocation status for KY_MISC                  :              0");
  EXPECT_EQ(records[1].text, "Allocation status for tight                    :          65536");
  EXPECT_EQ(records[2].type, "MEMORY_IS_TIGHT");
  __KyFree(block);
}

void ExpectOutOfMemoryEnding(const std::vector<LogRecord>& records, size_t statusLines) {
  ASSERT_EQ(records.size(), statusLines + 2);
  for (size_t line = 0; line < statusLines; ++line) {
    EXPECT_EQ(records[line].type, "INTERNAL");
    EXPECT_EQ(records[line].severity, "INFO");
    EXPECT_EQ(records[line].text.rfind("Allocation status for ", 0), 0u) << records[line].text;
  }
  EXPECT_EQ(records[statusLines].type, "OUT_OF_MEMORY");
  EXPECT_EQ(records[statusLines].severity, "ERROR");
  EXPECT_EQ(records[statusLines + 1].type, "ABNORMAL_TERMINATE");
  EXPECT_EQ(records[statusLines + 1].severity, "ERROR");
}

TEST_F(CollectorTest, OutOfMemoryIsAlwaysFatal) {
  EXPECT_EXIT(kyrt::memory::ReportOutOfMemory(), ::testing::ExitedWithCode(255), "");
  ExpectOutOfMemoryEnding(ReadLogRecords(), 0);
}

void AnnounceExitCode(int32_t code) {
  std::fprintf(stderr, "exit handler called with %d\n", code);
}

TEST_F(CollectorTest, OutOfMemoryWithStatisticsListsEveryCategoryAndRunsTheExitHandler) {
  EXPECT_EXIT(
      {
        __KyEnableMemoryStatisticsCollection();
        __KyRegisterMemoryCategory("dying");
        __KySetExitHandler(AnnounceExitCode);
        kyrt::memory::ReportOutOfMemory();
      },
      ::testing::ExitedWithCode(255), "exit handler called with -1");
  ExpectOutOfMemoryEnding(ReadLogRecords(), 2);
}

using CollectorTestWithoutLog = MemoryTestWithoutLog;

TEST_F(CollectorTestWithoutLog, CollectionWithoutALogWritesNothingButSetsTheLatch) {
  __KyEnableMemoryStatisticsCollection();
  __KyRegisterMemoryCollector(RecordingHook<1>);
  CollectUnderMemoryLock();
  EXPECT_EQ(g_hookCalls.load(), 1);
  EXPECT_EQ(kyrt::memory::CollectLoggedLatch(), 1);
  EXPECT_EQ(__KyGetTotalTimesMemoryCollected(), 1u);
  EXPECT_EQ(__KyIsLoggerInitialized(), 0);
  EXPECT_NE(access(KY_LOG_DEFAULT_FILE, F_OK), 0);
}

// Before start-up the initialiser works without the memory lock.
TEST(CollectorBeforeStartupTest, InitialiserMayPrecedeTheRuntimeStart) {
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  __KyInitializeMemoryCollectorAndReserveMemory(1);
  EXPECT_TRUE(kyrt::memory::CollectorInitialised());
  EXPECT_EQ(g_fake.reserveRequests.load(), 1u);
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&kyrt::memory::g_memoryLock), 0);
  KyPosixHostInstall();
  __KyRtStartup();
  __KyInitializeMemoryCollectorAndReserveMemory(1);
  EXPECT_EQ(g_fake.reserveRequests.load(), 1u);
}

}  // namespace
}  // namespace kyrt_test
