// Allocation under memory pressure: reserves, out of memory, the swap rule
// and the host's pre-allocation protocol.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"
#include "memory/collector.h"
#include "memory/memory_test_support.h"
#include "memory/sub_allocator.h"
#include "memory/swap_rule.h"

namespace kyrt_test {
namespace {

using PressureTest = MemoryTest;

// A host size whose probe, 262,128 bytes, no slab of shift 0 asks for.
constexpr uint64_t kHostSize = 200000;
constexpr uint64_t kHostProbe = 262128;
constexpr uint64_t kLargeRequest = kLargeSize + 8;

std::atomic<int> g_hookCalls{0};

void CountingHook() {
  g_hookCalls.fetch_add(1);
}

const char kRetryText[] = "Memory collection 1 failed.  Retrying after a few seconds...";

// --- Reserves and out of memory --------------------------------------------

TEST_F(PressureTest, ReservesAreHandedBackOneAtATimeUntilTheRequestSucceeds) {
  __KyInitializeMemoryCollectorAndReserveMemory(3);
  FailRequestsFrom(kSlabRequest, 2);
  void* block = __KyMalloc(0, 100, 0);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(g_fake.failures.load(), 2u);
  EXPECT_EQ(g_fake.reserveReleases.load(), 2u);
  EXPECT_FALSE(kyrt::memory::ReleasingReserves());
  EXPECT_EQ(kyrt::memory::CollectLoggedLatch(), 0);

  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 2u);
  ExpectFreeingReservesRecord(records[0]);
  ExpectFreeingReservesRecord(records[1]);
  const std::string log = ReadFile(KY_LOG_DEFAULT_FILE);
  EXPECT_NE(log.find("' display='false' source='kyrt'>\n\t\t<type>FREEING_RESERVES</type>\n\t\t"
                     "<severity>WARNING</severity>\n\t\t<timestamp>"),
            std::string::npos);
  EXPECT_NE(log.find("</timestamp>\n\t\t<arg name='num_bytes'>33554416</arg>\n\t</msg>"),
            std::string::npos);

  // The third reserve is still there for the next emergency.
  FailRequestsFrom(kSlabRequest, 1);
  __KyFree(__KyMalloc(1, 100, 0));
  EXPECT_EQ(g_fake.reserveReleases.load(), 3u);
  __KyFree(block);
}

TEST_F(PressureTest, LargeRequestsUseTheReservesToo) {
  __KyInitializeMemoryCollectorAndReserveMemory(1);
  FailRequestsFrom(kLargeRequest, 1);
  void* block = __KyMalloc(0, kLargeSize, 0);
  EXPECT_EQ(*kyrt::memory::ChunkWordOf(block), 0xBEEFu);
  EXPECT_EQ(g_fake.reserveReleases.load(), 1u);
  EXPECT_EQ(CountRecords("FREEING_RESERVES"), 1u);
  __KyFree(block);
}

TEST_F(PressureTest, RequestsSucceedingAtOnceTouchNoReserve) {
  __KyInitializeMemoryCollectorAndReserveMemory(2);
  __KyFree(__KyMalloc(0, 100, 0));
  __KyFree(__KyMalloc(0, kLargeSize, 0));
  EXPECT_EQ(g_fake.reserveReleases.load(), 0u);
  EXPECT_TRUE(ReadLogRecords().empty());
}

void RunOutOfMemory(bool withStatistics) {
  if (withStatistics) __KyEnableMemoryStatisticsCollection();
  __KyRegisterMemoryCategory("starving");
  __KyInitializeMemoryCollectorAndReserveMemory(2);
  FailRequestsFrom(kSlabRequest, kFailForever);
  __KyMalloc(1, 100, 0);
}

void ExpectOutOfMemoryRecords(size_t statusLines) {
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 2 + statusLines + 2);
  ExpectFreeingReservesRecord(records[0]);
  ExpectFreeingReservesRecord(records[1]);
  for (size_t line = 0; line < statusLines; ++line) {
    EXPECT_EQ(records[2 + line].severity, "INFO");
  }
  if (statusLines == 2) {
    EXPECT_EQ(records[2].text, "Allocation status for KY_MISC                  :              0");
    EXPECT_EQ(records[3].text, "Allocation status for starving                 :              0");
  }
  EXPECT_EQ(records[2 + statusLines].type, "OUT_OF_MEMORY");
  EXPECT_EQ(records[2 + statusLines].severity, "ERROR");
  EXPECT_FALSE(records[2 + statusLines].hidden);
  EXPECT_EQ(records[3 + statusLines].type, "ABNORMAL_TERMINATE");
}

TEST_F(PressureTest, OutOfMemoryAfterTheLastReserveEndsTheProcess) {
  EXPECT_EXIT(RunOutOfMemory(false), ::testing::ExitedWithCode(255), "");
  ExpectOutOfMemoryRecords(0);
}

TEST_F(PressureTest, OutOfMemoryWithStatisticsListsTheCategoriesFirst) {
  EXPECT_EXIT(RunOutOfMemory(true), ::testing::ExitedWithCode(255), "");
  ExpectOutOfMemoryRecords(2);
}

TEST_F(PressureTest, OutOfMemoryWithoutReservesEndsTheProcessAtOnce) {
  EXPECT_EXIT(
      {
        FailRequestsFrom(kLargeRequest, kFailForever);
        __KyMalloc(0, kLargeSize, 0);
      },
      ::testing::ExitedWithCode(255), "");
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].type, "OUT_OF_MEMORY");
  EXPECT_EQ(records[1].type, "ABNORMAL_TERMINATE");
}

using PressureTestWithoutLog = MemoryTestWithoutLog;

// The out-of-memory record is the process's first: creating the log
// allocates, that fails too, and the report must still end the process
// rather than start over inside itself.
TEST_F(PressureTestWithoutLog, OutOfMemoryBeforeTheLogExistsStillEndsWithStatus255) {
  EXPECT_EXIT(
      {
        FailRequestsFrom(kSlabRequest, kFailForever);
        __KyMalloc(5, 100, 0);
      },
      ::testing::ExitedWithCode(255), "");
}

// --- Swap rule -------------------------------------------------------------

struct SwapSamples {
  std::vector<uint64_t> freeSwap;
  uint64_t totalSwap = 1600;  // a sixteenth is 100
  size_t next = 0;
  int queries = 0;
  bool readable = true;
};

SwapSamples g_swap;

bool FakeSwapQuery(kyrt::memory::SwapFigures* figures) {
  ++g_swap.queries;
  if (!g_swap.readable) return false;
  figures->freeSwap =
      g_swap.freeSwap[g_swap.next < g_swap.freeSwap.size() ? g_swap.next++ : g_swap.next - 1];
  figures->totalSwap = g_swap.totalSwap;
  return true;
}

class SwapRuleTest : public MemoryTest {
 protected:
  void SetUp() override {
    MemoryTest::SetUp();
    kyrt::memory::SetSwapQueryForTesting(FakeSwapQuery);
    __KyRegisterMemoryCollector(CountingHook);
  }
  void TearDown() override { kyrt::memory::SetSwapQueryForTesting(nullptr); }

  // One guarded request: one swap sample.
  static void Request() { __KyFree(__KyMalloc(0, kLargeSize, 0)); }
};

TEST_F(SwapRuleTest, NotAppliedBeforeTheCollectorIsInitialised) {
  g_swap.freeSwap = {1000, 0};
  Request();
  Request();
  EXPECT_EQ(g_swap.queries, 0);
  EXPECT_EQ(g_hookCalls.load(), 0);
}

TEST_F(SwapRuleTest, CollectsOnceFreeSwapFallsMoreThanASixteenthBelowItsHighWaterMark) {
  __KyInitializeMemoryCollector();
  g_swap.freeSwap = {1000, 900, 899, 899, 1000, 901, 950, 899};
  const int expectedCalls[] = {0, 0, 1, 1, 1, 1, 1, 2};
  for (size_t sample = 0; sample < g_swap.freeSwap.size(); ++sample) {
    Request();
    EXPECT_EQ(g_hookCalls.load(), expectedCalls[sample]) << "after sample " << sample;
  }
  EXPECT_EQ(g_swap.queries, 8);
  EXPECT_EQ(CountRecords("COLLECT_MEMORY"), 2u);
}

TEST_F(SwapRuleTest, ExactlyASixteenthBelowIsNotEnough) {
  __KyInitializeMemoryCollector();
  g_swap.freeSwap = {5000, 4900, 4900};
  Request();
  Request();
  Request();
  EXPECT_EQ(g_hookCalls.load(), 0);
}

TEST_F(SwapRuleTest, WithoutSwapFiguresNothingIsCollected) {
  __KyInitializeMemoryCollector();
  g_swap.readable = false;
  Request();
  Request();
  EXPECT_EQ(g_swap.queries, 2);
  EXPECT_EQ(g_hookCalls.load(), 0);
}

TEST_F(SwapRuleTest, NoSwapAtAllNeverCollects) {
  __KyInitializeMemoryCollector();
  g_swap.totalSwap = 0;
  g_swap.freeSwap = {0};
  for (int request = 0; request < 5; ++request) Request();
  EXPECT_EQ(g_hookCalls.load(), 0);
}

TEST(SwapRuleSystemTest, TheSystemQueryReadsTheSwapFigures) {
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  KyPosixHostInstall();
  __KyRtStartup();
  __KyInitializeMemoryCollector();
  // Whatever the machine's swap, one sample cannot trigger a collection.
  __KyRegisterMemoryCollector(CountingHook);
  __KyFree(__KyMalloc(0, kLargeSize, 0));
  EXPECT_EQ(g_hookCalls.load(), 0);
}

// --- Pre-allocation check and its companions --------------------------------

TEST_F(PressureTest, PreAllocationProbeIsTheSizePlus16RoundedTo64KiBLess16) {
  const std::pair<uint64_t, uint64_t> cases[] = {{0, 65520},       {1, 65520},
                                                 {65520, 65520},   {65521, 131056},
                                                 {131056, 131056}, {kHostSize, kHostProbe}};
  for (const auto& [size, probe] : cases) {
    const uint64_t requests = g_fake.requests.load();
    const uint64_t releases = g_fake.releases.load();
    __KyPreVirtualAllocCheck(size);
    EXPECT_EQ(g_fake.requests.load(), requests + 1) << size;
    EXPECT_EQ(g_fake.lastRequestSize.load(), probe) << size;
    EXPECT_EQ(g_fake.releases.load(), releases + 1) << "the probe goes straight back";
    EXPECT_EQ(g_fake.lastReleased.load(), g_fake.lastBlock.load());
  }
  EXPECT_TRUE(ReadLogRecords().empty());
}

TEST_F(PressureTest, PreAllocationCheckIsSkippedAfterMoreThanTenFailuresInARow) {
  for (int failure = 0; failure < 10; ++failure) __KyPostVirtualAllocCheck(0);
  uint64_t requests = g_fake.requests.load();
  __KyPreVirtualAllocCheck(kHostSize);
  EXPECT_EQ(g_fake.requests.load(), requests + 1) << "ten failures still probe";

  __KyPostVirtualAllocCheck(0);
  requests = g_fake.requests.load();
  __KyPreVirtualAllocCheck(kHostSize);
  __KyPreVirtualAllocCheck(1);
  EXPECT_EQ(g_fake.requests.load(), requests) << "eleven failures skip the check";

  __KyPostVirtualAllocCheck(7);  // any non-zero value is a success
  __KyPreVirtualAllocCheck(kHostSize);
  EXPECT_EQ(g_fake.requests.load(), requests + 1);
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&kyrt::memory::g_preAllocationLock), 0);
}

TEST_F(PressureTest, WaitingForThePreAllocationThreadReturnsAtOnceWhenNoneSleeps) {
  __KyWaitForPreVirtualAllocThread();
  const uint64_t requests = g_fake.requests.load();
  __KyPreVirtualAllocCheck(1);
  __KyWaitForPreVirtualAllocThread();
  EXPECT_EQ(g_fake.requests.load(), requests + 1) << "one probe, no retry";
}

// The latch seen by each probe request, and the host's notification sent
// from inside the first one.
std::vector<int32_t> g_latchAtProbe;
std::atomic<uint64_t> g_probes{0};

void ProbeObserver(size_t size) {
  if (size != kHostProbe) return;
  g_latchAtProbe.push_back(kyrt::memory::CollectLoggedLatch());
  if (g_probes.fetch_add(1) == 0) __KyAsynchronousCollectMemory(size);
}

// Watches a check from another thread: once the retry is announced, waits
// for the sleeping check and reports how many probes had been made by then.
class SleepWatcher {
 public:
  SleepWatcher()
      : thread_([this] {
          // A plain search: the record may still be half written.
          while (ReadFile(KY_LOG_DEFAULT_FILE).find(kRetryText) == std::string::npos) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
          // The flag is raised right after the announcement; the sleep that
          // follows lasts seconds.
          for (int pause = 0; pause < 1000; ++pause) std::this_thread::yield();
          __KyWaitForPreVirtualAllocThread();
          probesWhenAwake_ = g_probes.load();
        }) {}
  ~SleepWatcher() {
    if (thread_.joinable()) thread_.join();
  }
  uint64_t probesWhenAwake() {
    thread_.join();
    return probesWhenAwake_;
  }

 private:
  uint64_t probesWhenAwake_ = 0;  // before thread_, which writes it
  std::thread thread_;
};

TEST_F(PressureTest, AFailedFirstProbeIsRetriedOnceAfterASleep) {
  __KyInitializeMemoryCollector();
  __KyRegisterMemoryCollector(CountingHook);
  g_fake.onRequest.store(ProbeObserver);
  FailRequestsFrom(kHostProbe, 1);
  SleepWatcher watcher;
  const auto start = std::chrono::steady_clock::now();
  __KyPreVirtualAllocCheck(kHostSize);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  g_fake.onRequest.store(nullptr);
  std::printf("pre-allocation check with one retry took %.2f s\n", seconds);

  EXPECT_EQ(watcher.probesWhenAwake(), 2u) << "the waiter is released once the sleep ends";
  // The host's notification inside the first probe collected at once; the
  // second probe ran with the latch as the first one left it.
  EXPECT_EQ(g_hookCalls.load(), 1);
  EXPECT_EQ(g_latchAtProbe, (std::vector<int32_t>{0, 1}));
  EXPECT_EQ(g_fake.lastReleased.load(), g_fake.lastBlock.load()) << "the probe went back";
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].type, "COLLECT_MEMORY");
  EXPECT_EQ(records[1].type, "INTERNAL");
  EXPECT_EQ(records[1].severity, "INFO");
  EXPECT_EQ(records[1].text, kRetryText);
  __KyWaitForPreVirtualAllocThread();
}

TEST_F(PressureTest, AfterTwoFailedProbesReservesGoBackUntilTheProbeSucceeds) {
  __KyInitializeMemoryCollectorAndReserveMemory(3);
  FailRequestsFrom(kHostProbe, 3);  // both attempts and the retry after one reserve
  __KyPreVirtualAllocCheck(kHostSize);
  EXPECT_EQ(g_fake.reserveReleases.load(), 2u);
  EXPECT_EQ(g_fake.lastReleased.load(), g_fake.lastBlock.load()) << "the probe went back";
  EXPECT_FALSE(kyrt::memory::ReleasingReserves());
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].text, kRetryText);
  ExpectFreeingReservesRecord(records[1]);
  ExpectFreeingReservesRecord(records[2]);
  EXPECT_EQ(CountRecords("MEMORY_IS_TIGHT"), 0u);
}

TEST_F(PressureTest, WhenNothingHelpsMemoryIsReportedTightOnceAndTheCheckReturns) {
  __KyEnableMemoryStatisticsCollection();
  __KyInitializeMemoryCollectorAndReserveMemory(1);
  FailRequestsFrom(kHostProbe, kFailForever);
  __KyPreVirtualAllocCheck(kHostSize);
  EXPECT_EQ(g_fake.reserveReleases.load(), 1u);
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&kyrt::memory::g_memoryLock), 0);
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&kyrt::memory::g_preAllocationLock), 0);
  __KyWaitForPreVirtualAllocThread();  // the probe-waiting flag is down

  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].text, kRetryText);
  ExpectFreeingReservesRecord(records[1]);
  EXPECT_EQ(records[2].text, "Allocation status for KY_MISC                  :              0");
  EXPECT_EQ(records[3].type, "MEMORY_IS_TIGHT");
  EXPECT_EQ(records[3].severity, "WARNING");

  kyrt::memory::ReportMemoryIsTight();  // once per process
  EXPECT_EQ(CountRecords("MEMORY_IS_TIGHT"), 1u);
  StopFailing();
}

TEST_F(PressureTest, HostNotificationBeforeTheCollectorIsInitialisedDoesNothing) {
  __KyRegisterMemoryCollector(CountingHook);
  const uint64_t requests = g_fake.requests.load();
  __KyAsynchronousCollectMemory(100);
  EXPECT_EQ(g_fake.requests.load(), requests);
  EXPECT_EQ(g_hookCalls.load(), 0);
  EXPECT_TRUE(ReadLogRecords().empty());
}

TEST_F(PressureTest, HostNotificationOutsideARequestRunsACheckWithTheSizeCutTo32Bits) {
  __KyInitializeMemoryCollector();
  __KyRegisterMemoryCollector(CountingHook);
  const uint64_t requests = g_fake.requests.load();
  __KyAsynchronousCollectMemory((uint64_t{1} << 32) + 1);
  EXPECT_EQ(g_fake.requests.load(), requests + 1);
  EXPECT_EQ(g_fake.lastRequestSize.load(), 65520u);
  EXPECT_EQ(g_hookCalls.load(), 0) << "the probe succeeded: no collection";
}

std::vector<void*> g_collectable;

void FreeingHook() {
  for (void* block : g_collectable) __KyFree(block);
  g_collectable.clear();
}

void NotifyInsideLargeRequest(size_t size) {
  if (size == kLargeRequest) __KyAsynchronousCollectMemory(4096);
}

TEST_F(PressureTest, HostNotificationInsideARequestCollectsAtOnce) {
  __KyEnableMemoryStatisticsCollection();
  __KyInitializeMemoryCollector();
  const uint32_t id = __KyRegisterMemoryCategory("inside");
  void* a = __KyMalloc(id, kTwoChunkSize, 0);
  void* b = __KyMalloc(id, kTwoChunkSize, 0);
  void* c = __KyMalloc(id, kTwoChunkSize, 0);
  g_collectable = {a, b};  // the first slab goes back
  __KyRegisterMemoryCollector(FreeingHook);
  g_fake.onRequest.store(NotifyInsideLargeRequest);
  void* large = __KyMalloc(id, kLargeSize, 0);
  g_fake.onRequest.store(nullptr);

  EXPECT_EQ(__KyGetTotalTimesMemoryCollected(), 1u);
  const std::vector<LogRecord> texts = TextRecords();
  ASSERT_EQ(texts.size(), 1u + 3u + 3u + 1u);
  EXPECT_EQ(texts.front().text, "Trell requested at least 4096 bytes");
  EXPECT_EQ(texts[1].text, "Start collecting memory: __kyTotalMemoryAllocated=131072");
  EXPECT_EQ(texts[4].text, "Stop collecting memory: __kyTotalMemoryAllocated=65536");
  EXPECT_EQ(texts.back().text, "We freed 65536 bytes");
  EXPECT_EQ(CountRecords("COLLECT_MEMORY"), 1u);
  __KyFree(large);
  __KyFree(c);
}

TEST_F(PressureTest, HostNotificationInsideARequestWithoutStatisticsOnlyCollects) {
  __KyInitializeMemoryCollector();
  __KyRegisterMemoryCollector(CountingHook);
  g_fake.onRequest.store(NotifyInsideLargeRequest);
  __KyFree(__KyMalloc(0, kLargeSize, 0));
  g_fake.onRequest.store(nullptr);
  EXPECT_EQ(g_hookCalls.load(), 1);
  EXPECT_TRUE(TextRecords().empty());
  EXPECT_EQ(CountRecords("COLLECT_MEMORY"), 1u);
}

void NotifyWhileReleasingReserve(size_t size) {
  if (size == KY_RESERVE_BLOCK_SIZE) __KyAsynchronousCollectMemory(size);
}

TEST_F(PressureTest, HostNotificationWhileReservesGoBackIsIgnored) {
  __KyInitializeMemoryCollectorAndReserveMemory(1);
  __KyRegisterMemoryCollector(CountingHook);
  g_fake.onRelease.store(NotifyWhileReleasingReserve);
  FailRequestsFrom(kLargeRequest, 1);
  const uint64_t requests = g_fake.requests.load();
  __KyFree(__KyMalloc(0, kLargeSize, 0));
  g_fake.onRelease.store(nullptr);
  EXPECT_EQ(g_fake.reserveReleases.load(), 1u);
  EXPECT_EQ(g_hookCalls.load(), 0);
  EXPECT_EQ(g_fake.requests.load(), requests + 2) << "no probe was made";
}

}  // namespace
}  // namespace kyrt_test
