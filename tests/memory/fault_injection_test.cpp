// Fault injection under the allocator: an underlying allocator that refuses
// the Nth request, swept over every N of whole workloads of the containers
// and of the log.
//
// Each point of a sweep runs the workload from a fresh process (a forked
// child that installs the faulty allocator as its first memory call). Only
// two outcomes are acceptable:
//   - the workload completes, its structures validate, and every reserve
//     the refusals used up was handed back with its FREEING_RESERVES record;
//   - the process ends with status 255 after every reserve was handed back,
//     and once the log exists its last records are OUT_OF_MEMORY and
//     ABNORMAL_TERMINATE.
// A signal, any other status, a failed validation or a malformed log fails
// the case.
//
// Two scenarios: a single refusal with one reserve block (the reserve must
// absorb it), and refusals from N on with two reserve blocks and statistics
// on (the reserves go one by one, then the process ends).
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/hash_table.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/posix_host.h"
#include "kyrt/queue.h"
#include "kyrt/range_table.h"
#include "kyrt/red_black_tree.h"
#include "kyrt/runtime.h"
#include "kyrt/sets.h"
#include "kyrt/vectors.h"
#include "memory/memory_test_support.h"
#include "support/fault_allocator.h"
#include "support/fault_child.h"
#include "support/test_files.h"

namespace kyrt_test {
namespace {

constexpr const char* kCountersFile = "counters";
constexpr int kOutOfMemoryStatus = 255;
constexpr uint32_t kCategoryNone = 0;

using Clock = std::chrono::steady_clock;

// ---------------------------------------------------------------------------
// Workloads: each runs one container (or the log) through a realistic life,
// checks every answer against a reference kept with the C library's
// allocator, validates the structure where it can, and releases it.

uint64_t Scramble(uint64_t i) {
  return (i * 0x9E3779B97F4A7C15ull) >> 20;
}

void* ItemFor(uint64_t key) {
  return reinterpret_cast<void*>(key * 2 + 1);
}

uint32_t MatchEverything(void*, void*) {
  return 1;
}

bool HashTableWorkload(uint32_t category) {
  constexpr uint64_t kEntries = 20000;
  KyHashTable* table = __KyCreateHashTable(0, nullptr, 2, nullptr, nullptr, category, 0);
  std::set<uint64_t> present;
  for (uint64_t i = 0; i < kEntries; ++i) {
    const uint64_t key = Scramble(i);
    if (present.insert(key).second) __KyInsertHashTableEntry(table, key, ItemFor(key));
  }
  bool valid = true;
  for (uint64_t i = 0; i < kEntries; i += 3) {
    const uint64_t key = Scramble(i);
    if (present.erase(key) != 0) valid &= __KyRemoveHashTableEntry(table, key) == ItemFor(key);
  }
  for (uint64_t i = 0; i < kEntries; ++i) {
    const uint64_t key = Scramble(i);
    const void* expected = present.count(key) != 0 ? ItemFor(key) : nullptr;
    valid &= __KyLookupHashTable(table, key) == expected;
  }
  uint32_t entries = 0;
  valid &= __KyScanHashTable(table, MatchEverything, nullptr, 0, nullptr, &entries) == 0;
  valid &= entries == present.size();
  __KyDestroyHashTable(table, nullptr);
  return valid;
}

bool RangeTableWorkload(uint32_t category) {
  constexpr uint64_t kRanges = 4000;
  constexpr uint64_t kStride = 0x1000;
  KyRangeTable* table = __KyCreateRangeTable(0x10000, category, 0, 0, nullptr);
  // Range i covers [i * stride, i * stride + length), lengths varied so
  // that ranges span from one to many blocks of several levels.
  auto lengthOf = [](uint64_t i) { return 16 + (Scramble(i) % (kStride - 16)); };
  for (uint64_t i = 0; i < kRanges; ++i) {
    __KyInsertRangeTableEntry(table, i * kStride, i * kStride + lengthOf(i), i + 1);
  }
  for (uint64_t i = 0; i < kRanges; i += 2) {
    __KyRemoveRangeTableEntry(table, i * kStride, i * kStride + lengthOf(i));
  }
  bool valid = true;
  for (uint64_t i = 0; i < kRanges; ++i) {
    uint64_t start = 0;
    uint64_t end = 0;
    const uint64_t data = __KyLookupRangeTable(table, i * kStride + lengthOf(i) / 2, &start, &end);
    const bool kept = i % 2 == 1;
    valid &= data == (kept ? i + 1 : 0);
    if (kept) valid &= start == i * kStride && end == i * kStride + lengthOf(i);
  }
  __KyScanAndEmptyRangeTable(table);
  valid &= __KyLookupRangeTable(table, kStride + 1, nullptr, nullptr) == 0;
  __KyDestroyRangeTable(table);
  return valid;
}

bool RedBlackTreeWorkload(uint32_t category) {
  constexpr uint64_t kNodes = 20000;
  KyRedBlackTree* tree = __KyCreateRedBlackTree(category, nullptr, nullptr, nullptr);
  std::multiset<uint64_t> keys;
  std::vector<KyRedBlackNode*> nodes;
  for (uint64_t i = 0; i < kNodes; ++i) {
    const uint64_t key = Scramble(i) % 5000;  // duplicates on purpose
    nodes.push_back(__KyInsertRedBlackEntry(tree, key, i));
    keys.insert(key);
  }
  bool valid = __KyValidateRedBlack(tree) == 1;
  for (uint64_t i = 0; i < kNodes; i += 2) {
    uint64_t key = 0;
    valid &= __KyGetRedBlackKey(nodes[i], &key) == 1;
    keys.erase(keys.find(key));
    __KyRemoveRedBlackEntry(nodes[i]);
  }
  valid &= __KyValidateRedBlack(tree) == 1 && tree->count == keys.size();
  auto expected = keys.begin();
  for (KyRedBlackNode* node = __KyGetRedBlackRangeStart(tree, 0, UINT64_MAX); node != nullptr;
       node = __KyGetRedBlackRangeNext(node, UINT64_MAX), ++expected) {
    valid &= expected != keys.end() && node->key == *expected;
    if (!valid) break;
  }
  valid &= expected == keys.end();
  __KyDestroyRedBlackRange(tree, 1000, 2499);
  valid &= __KyValidateRedBlack(tree) == 1;
  __KyDestroyRedBlackTree(tree);
  return valid;
}

bool QueueWorkload(uint32_t category) {
  constexpr uintptr_t kValues = 100000;
  KyQueue* queue = __KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, category);
  bool valid = true;
  uintptr_t next = 1;
  for (uintptr_t value = 1; value <= kValues; ++value) {
    __KyEnqueue(queue, reinterpret_cast<void*>(value));
    if (value % 3 == 0) valid &= __KyDequeue(queue) == reinterpret_cast<void*>(next++);
  }
  while (void* value = __KyDequeue(queue)) valid &= value == reinterpret_cast<void*>(next++);
  valid &= next == kValues + 1 && __KyIsQueueEmpty(queue) == 1;
  for (uintptr_t value = 1; value <= 100; ++value)
    __KyEnqueue(queue, reinterpret_cast<void*>(value));
  __KyDestroyQueue(queue);
  __KyFree(queue);
  return valid;
}

bool VectorWorkload(uint32_t category) {
  constexpr uint32_t kTouched = 3000;
  KyVector* vector = __KyCreateVector(category);
  std::map<uint32_t, uint64_t> reference;
  for (uint32_t i = 0; i < kTouched; ++i) {
    const auto index = static_cast<uint32_t>(Scramble(i) % KY_VECTOR_CAPACITY);
    __KySetVectorElement(vector, index, i);
    __KyIncrementVectorElement(vector, index);
    reference[index] = i + 1;
  }
  KyVector* copy = __KyDuplicateVector(vector, category);
  KyVector* merged = __KyCreateVector(category);
  __KySetVectorElement(merged, KY_VECTOR_MAX_INDEX, 7);
  __KyMaxVector(merged, vector);
  bool valid = true;
  for (const auto& [index, value] : reference) {
    valid &= __KyGetVectorElement(vector, index) == value;
    valid &= __KyGetVectorElement(copy, index) == value;
    valid &= __KyGetVectorElement(merged, index) == value;
  }
  __KyCopyVector(copy, merged);
  valid &= __KyGetVectorElement(copy, KY_VECTOR_MAX_INDEX) == 7;
  __KyDestroyVector(merged);
  __KyDestroyVector(copy);
  __KyDestroyVector(vector);
  return valid;
}

void CollectElement(uint32_t element, void* context) {
  static_cast<std::vector<uint32_t>*>(context)->push_back(element);
}

// Sets keep their blocks in a sorted list: sizes stay moderate so that the
// workload is not quadratic in time.
bool SetWorkload(uint32_t category) {
  constexpr uint32_t kElements = 8000;
  KySet odd = KY_SET_HEADER_INITIALIZER(category);
  KySet all = KY_SET_HEADER_INITIALIZER(category);
  KyMultiSet counted = KY_SET_HEADER_INITIALIZER(category);
  std::set<uint32_t> reference;
  for (uint32_t i = 0; i < kElements; ++i) {
    const auto element = static_cast<uint32_t>(Scramble(i) % 400000);
    __KyAddAnElementToSet(&all, element);
    if (element % 2 == 1) __KyAddAnElementToSet(&odd, element);
    __KyAddAnElementToMultiSet(&counted, element % 512);
    reference.insert(element);
  }
  KySet copy = KY_SET_HEADER_INITIALIZER(category);
  __KyConstructSet(&copy, &all);
  __KyDifferenceSet(&copy, &odd);
  bool valid = __KyIsASubsetOfSet(&odd, &all) == 1 && __KyAreSetsDisjoint(&copy, &odd) == 1;
  __KyUnionSet(&copy, &odd);
  valid &= __KyAreSetsEqual(&copy, &all) == 1;
  std::vector<uint32_t> scanned;
  __KyScanSet(&all, CollectElement, &scanned);
  valid &= std::equal(scanned.begin(), scanned.end(), reference.begin(), reference.end());
  valid &= __KyGetElementMultiplicity(&counted, Scramble(0) % 400000 % 512) >= 1;
  __KyDestroySet(&copy);
  __KyDestroySet(&odd);
  __KyDestroySet(&all);
  __KyDestroyMultiSet(&counted);
  return valid;
}

// The log: typed, text and comment records, a tool's own message, call
// stacks and a closing root, with a check of what the log answers.
bool LogWorkload(uint32_t) {
  constexpr int kRecords = 300;
  static const char* const kArguments[] = {"count", "name", nullptr};
  const KyLogMessageDefinition typed{"FAULT_TYPED", kArguments, 0, 0};
  const KyLogMessageDefinition text{"FAULT_TEXT", nullptr, KY_LOG_MSG_FLAG_TEXT, 0};
  const int32_t typedId = __KyRegisterLogMessage2(&typed);
  const int32_t textId = __KyRegisterLogMessage2(&text);
  bool valid = typedId != KY_LOG_MSG_INVALID && textId != KY_LOG_MSG_INVALID;
  for (int i = 0; i < kRecords; ++i) {
    __KyLogInternal(KY_LOG_INFO, typedId, 0, KY_LOG_ARG_INT, i, KY_LOG_ARG_STRING, "a<b&c",
                    KY_LOG_ARG_END);
    __KyLogInternal(KY_LOG_WARNING, textId, 0, "text record %d", i);
    __KyLogCommentInternal("comment %d", i);
  }
  __KyLogCurrentCallstack();
  valid &= __KyIsLoggerInitialized() == 1;
  return valid;
}

using Workload = bool (*)(uint32_t category);

// ---------------------------------------------------------------------------
// One point of a sweep, in the child

struct Scenario {
  const char* name;
  FaultMode mode;
  int32_t reserves;
  bool statistics;
};

constexpr Scenario kSingleRefusal{"once", FaultMode::kOnce, 1, false};
constexpr Scenario kRefusalsFromThenOn{"persistent", FaultMode::kFromThenOn, 2, true};
constexpr Scenario kNoRefusal{"none", FaultMode::kNever, 2, true};

void WriteCountersOnExit(int32_t) {
  WriteFaultCounters(kCountersFile, CurrentFaultCounters());
}

int RunWorkloadInThisProcess(Workload workload, const Scenario& scenario, uint64_t failAt) {
  // The exit handler first: even the allocator's very first request (the
  // bin table) may be the refused one, and that ends the process.
  __KySetExitHandler(WriteCountersOnExit);
  InstallFaultyAllocator(scenario.mode, failAt);
  KyPosixHostInstall();
  __KyRtStartup();
  if (scenario.statistics) __KyEnableMemoryStatisticsCollection();
  __KyLogCommentInternal("fault injection at request %llu",
                         static_cast<unsigned long long>(failAt));
  MarkFaultCounters();  // from here on the log exists
  const uint32_t category = __KyRegisterMemoryCategory("faulted");
  __KyInitializeMemoryCollectorAndReserveMemory(scenario.reserves);
  const bool valid = workload(category == KY_INVALID_MEMORY_CATEGORY ? kCategoryNone : category);
  WriteFaultCounters(kCountersFile, CurrentFaultCounters());
  return valid ? 0 : kChildCheckFailed;
}

// ---------------------------------------------------------------------------
// The parent's view of one point

struct PointResult {
  ChildEnd end;
  bool haveCounters = false;
  FaultCounters counters;
  std::vector<LogRecord> records;
};

std::vector<LogRecord> RecordsOf(const std::string& path) {
  const std::string log = ReadFile(path);
  std::vector<LogRecord> records;
  LogRecordReader reader(log);
  for (LogRecord record; reader.next(&record);) records.push_back(record);
  return records;
}

size_t CountOf(const std::vector<LogRecord>& records, const std::string& type) {
  return static_cast<size_t>(std::count_if(records.begin(), records.end(),
                                           [&](const LogRecord& r) { return r.type == type; }));
}

PointResult RunPoint(const std::string& name, Workload workload, const Scenario& scenario,
                     uint64_t failAt) {
  ChildDirectory directory(name + "-" + scenario.name + "-" + std::to_string(failAt));
  PointResult result;
  result.end = RunInChild(directory.path(),
                          [&] { return RunWorkloadInThisProcess(workload, scenario, failAt); });
  result.haveCounters = ReadFaultCounters(directory.file(kCountersFile), &result.counters);
  result.records = RecordsOf(directory.file(KY_LOG_DEFAULT_FILE));
  return result;
}

void ExpectReservesLoggedInOrder(const PointResult& point) {
  const std::vector<LogRecord>& records = point.records;
  EXPECT_EQ(CountOf(records, "FREEING_RESERVES"), point.counters.reservesReleased);
  for (const LogRecord& record : records) {
    if (record.type == "FREEING_RESERVES") ExpectFreeingReservesRecord(record);
  }
}

void ExpectCompleted(const PointResult& point, const Scenario& scenario) {
  EXPECT_EQ(CountOf(point.records, "OUT_OF_MEMORY"), 0u);
  EXPECT_LE(point.counters.reservesReleased, point.counters.refusals);
  if (scenario.mode == FaultMode::kOnce) {
    // A refused reserve request leaves one reserve fewer; any other refusal
    // is absorbed by exactly one reserve.
    const uint64_t reservesMissing = scenario.reserves - point.counters.reservesGranted;
    EXPECT_EQ(point.counters.reservesReleased, point.counters.refusals - reservesMissing);
  }
  ExpectReservesLoggedInOrder(point);
}

void ExpectOutOfMemoryExit(const PointResult& point, const Scenario& scenario) {
  // A single refusal ends the process only when no reserve was there to
  // take it.
  if (scenario.mode == FaultMode::kOnce) {
    EXPECT_EQ(point.counters.reservesGranted, 0u);
  }
  EXPECT_EQ(point.counters.reservesReleased, point.counters.reservesGranted);
  const bool logExisted = point.counters.mark != 0;
  if (!logExisted && point.records.empty()) return;
  ExpectReservesLoggedInOrder(point);
  ASSERT_GE(point.records.size(), 2u);
  EXPECT_EQ(point.records[point.records.size() - 2].type, "OUT_OF_MEMORY");
  EXPECT_EQ(point.records.back().type, "ABNORMAL_TERMINATE");
}

void CheckPoint(const PointResult& point, const Scenario& scenario) {
  ASSERT_TRUE(point.end.exited) << Describe(point.end);
  ASSERT_TRUE(point.haveCounters) << "the child wrote no counters; " << Describe(point.end);
  if (point.end.status == 0) {
    ExpectCompleted(point, scenario);
  } else {
    ASSERT_EQ(point.end.status, kOutOfMemoryStatus) << Describe(point.end);
    ExpectOutOfMemoryExit(point, scenario);
  }
}

// How long one sweep may take, roughly: far below the suite's time limit
// per case. Under a sanitizer or on a loaded machine a child may take
// seconds instead of milliseconds; the sweep then visits every stride-th
// request number instead of all (the first few and the last one always).
constexpr std::chrono::seconds kSweepBudget{30};
constexpr uint64_t kAlwaysVisitedFirst = 8;

uint64_t StrideFor(uint64_t points, Clock::duration oneRun) {
  const auto runs = static_cast<uint64_t>(kSweepBudget / std::max(oneRun, Clock::duration(1)));
  const uint64_t affordable = std::max<uint64_t>(runs / 2, kAlwaysVisitedFirst * 2);  // 2 scenarios
  return std::max<uint64_t>(1, points / affordable);
}

bool Visited(uint64_t failAt, uint64_t points, uint64_t stride) {
  return failAt <= kAlwaysVisitedFirst || failAt == points || failAt % stride == 0;
}

// Runs the workload once without refusals to learn how many requests it
// makes, then once for every request number up to one past the last (or
// every stride-th, see kSweepBudget).
void Sweep(const std::string& name, Workload workload) {
  const Clock::time_point start = Clock::now();
  const PointResult clean = RunPoint(name, workload, kNoRefusal, 0);
  const Clock::duration oneRun = Clock::now() - start;
  ASSERT_TRUE(clean.end.exited && clean.end.status == 0) << Describe(clean.end);
  ASSERT_TRUE(clean.haveCounters);
  const uint64_t requests = clean.counters.requests;
  ASSERT_GT(requests, 3u);
  const uint64_t points = requests + 1;
  const uint64_t stride = StrideFor(points, oneRun);
  for (const Scenario& scenario : {kSingleRefusal, kRefusalsFromThenOn}) {
    size_t completed = 0;
    size_t outOfMemory = 0;
    for (uint64_t failAt = 1; failAt <= points; ++failAt) {
      if (!Visited(failAt, points, stride)) continue;
      SCOPED_TRACE(name + " " + scenario.name + ": refusal at request " + std::to_string(failAt));
      const PointResult point = RunPoint(name, workload, scenario, failAt);
      CheckPoint(point, scenario);
      if (::testing::Test::HasFailure()) return;  // the first broken point says it all
      (point.end.status == 0 ? completed : outOfMemory)++;
    }
    // Past the last request nothing is refused: the run completes.
    EXPECT_GE(completed, 1u);
    EXPECT_GE(outOfMemory, 1u);  // the bin table's request at least
    std::printf(
        "sweep %s/%s: %llu request numbers, stride %llu, %zu completed, %zu out of "
        "memory\n",
        name.c_str(), scenario.name, static_cast<unsigned long long>(points),
        static_cast<unsigned long long>(stride), completed, outOfMemory);
  }
}

// Found by the sweep: the log file's own allocation ran out of memory, and
// the out-of-memory report asked for the log from inside its creation and
// waited for itself forever. The report must end the process instead.
TEST(FaultInjectionRegression, OutOfMemoryWhileCreatingTheLogEndsWithStatus255) {
  ChildDirectory directory("log-creation-out-of-memory");
  const ChildEnd end = RunInChild(directory.path(), [] {
    __KySetExitHandler(WriteCountersOnExit);
    InstallFaultyAllocator(FaultMode::kFromThenOn, 2);  // all but the bin table
    KyPosixHostInstall();
    __KyRtStartup();
    __KyLogCommentInternal("the first record creates the log");
    return 0;
  });
  ASSERT_TRUE(end.exited) << Describe(end);
  EXPECT_EQ(end.status, kOutOfMemoryStatus);
  FaultCounters counters;
  ASSERT_TRUE(ReadFaultCounters(directory.file(kCountersFile), &counters));
  EXPECT_EQ(counters.refusals, 1u);
  EXPECT_TRUE(RecordsOf(directory.file(KY_LOG_DEFAULT_FILE)).empty());
}

TEST(FaultInjectionSweep, HashTable) {
  Sweep("hash_table", HashTableWorkload);
}

TEST(FaultInjectionSweep, RangeTable) {
  Sweep("range_table", RangeTableWorkload);
}

TEST(FaultInjectionSweep, RedBlackTree) {
  Sweep("red_black_tree", RedBlackTreeWorkload);
}

TEST(FaultInjectionSweep, Queue) {
  Sweep("queue", QueueWorkload);
}

TEST(FaultInjectionSweep, Vectors) {
  Sweep("vectors", VectorWorkload);
}

TEST(FaultInjectionSweep, Sets) {
  Sweep("sets", SetWorkload);
}

TEST(FaultInjectionSweep, Log) {
  Sweep("log", LogWorkload);
}

}  // namespace
}  // namespace kyrt_test
