// The hash table's scans, and which locks every operation holds while it
// works.
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "containers/hash_table_test_support.h"
#include "kyrt/hash_table.h"

namespace {

using kyrt_test::BucketIndex;
using kyrt_test::ChainKeys;
using kyrt_test::Item;
using kyrt_test::ItemNumber;
using kyrt_test::LockState;
using kyrt_test::SubTableAt;
using kyrt_test::WaitUntil;

constexpr uint32_t kFree = 0;
constexpr uint32_t kShared = 1;
constexpr uint32_t kExclusive = 2;

// An id no live thread has: a lock "held" under it is busy for everyone.
constexpr KyThreadId kStrangerId = 0x7FFFFFF0u;

std::vector<uintptr_t> g_matched;                         // items given to the match function
std::vector<uintptr_t> g_disposed;                        // items given to the dispose function
std::vector<uint64_t> g_released;                         // keys given to the key release function
uintptr_t g_refusedItem = 0;                              // the dispose function keeps this item
KyHashTable* g_table = nullptr;                           // the table the hooks look at
std::vector<std::pair<uint32_t, uint32_t>> g_lockStates;  // (table, bucket) per call

uint32_t MatchAll(void* item, void*) {
  g_matched.push_back(ItemNumber(item));
  return 1;
}

uint32_t MatchEven(void* item, void* context) {
  g_matched.push_back(ItemNumber(item));
  EXPECT_EQ(context, Item(0xC0));
  return ItemNumber(item) % 2 == 0;
}

uint32_t DisposeAllButTheRefused(void* item) {
  g_disposed.push_back(ItemNumber(item));
  return ItemNumber(item) != g_refusedItem;
}

void ReleaseKey(uint64_t key) {
  g_released.push_back(key);
}

int ComparePlainValues(uint64_t storedKey, uint64_t probeKey) {
  return storedKey == probeKey;
}

class HashTableScan : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_matched.clear();
    g_disposed.clear();
    g_released.clear();
    g_lockStates.clear();
    g_refusedItem = 0;
  }
  void TearDown() override {
    __KyDestroyHashTable(table_, nullptr);
    g_table = nullptr;
  }

  // Object keys compared by value, so the keys are plain numbers and the
  // release function sees them.
  void CreateWithReleasedKeys(uint32_t flags = 0, int32_t levels = 1) {
    table_ = __KyCreateHashTable(flags | KY_HASH_TABLE_OBJECT_KEYS, nullptr, levels,
                                 ComparePlainValues, ReleaseKey, 0, 0);
    g_table = table_;
  }

  // Inserts each key with the item of the same number.
  void InsertKeys(std::initializer_list<uint64_t> keys) {
    for (uint64_t key : keys) __KyInsertHashTableEntry(table_, key, Item(key));
  }

  KyHashTable* table_ = nullptr;
};

// ---------------------------------------------------------------------------
// Scan

TEST_F(HashTableScan, VisitsEntriesInBucketOrderThenChainOrder) {
  CreateWithReleasedKeys();
  InsertKeys({3, 3 + 256, 1, 2 + 256});
  uint32_t entries = 99;
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 0, nullptr, &entries), 0u);
  EXPECT_EQ(g_matched, (std::vector<uintptr_t>{1, 2 + 256, 3 + 256, 3}));
  EXPECT_EQ(entries, 4u);
  EXPECT_EQ(table_->count, 4);
  EXPECT_TRUE(g_released.empty());
}

TEST_F(HashTableScan, RemovesMatchesAndReportsTheCountItFound) {
  CreateWithReleasedKeys();
  InsertKeys({1, 2, 3, 4, 4 + 256});
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchEven, Item(0xC0), 1, nullptr, &entries), 3u);
  EXPECT_EQ(entries, 5u);
  EXPECT_EQ(table_->count, 2);
  EXPECT_EQ(g_released, (std::vector<uint64_t>{2, 4 + 256, 4}));
  EXPECT_EQ(__KyLookupHashTable(table_, 1), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, 3), Item(3));
  EXPECT_EQ(__KyLookupHashTable(table_, 4), nullptr);
  EXPECT_EQ(table_->buckets[4].contents, nullptr);
}

TEST_F(HashTableScan, WithoutRemoveNothingGoesEvenWhenEverythingMatches) {
  CreateWithReleasedKeys();
  InsertKeys({1, 2});
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 0, DisposeAllButTheRefused, nullptr), 0u);
  EXPECT_EQ(g_matched.size(), 2u);
  EXPECT_TRUE(g_disposed.empty());
  EXPECT_EQ(table_->count, 2);
}

TEST_F(HashTableScan, ADisposeRefusalLeavesTheEntryInPlaceWithItsKeyAlreadyReleased) {
  CreateWithReleasedKeys();
  InsertKeys({7, 7 + 256, 7 + 512});
  g_refusedItem = 7 + 256;  // the middle of the chain
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 1, DisposeAllButTheRefused, &entries), 2u);
  EXPECT_EQ(entries, 3u);
  EXPECT_EQ(g_disposed, (std::vector<uintptr_t>{7 + 512, 7 + 256, 7}));
  EXPECT_EQ(g_released, (std::vector<uint64_t>{7 + 512, 7 + 256, 7}));
  EXPECT_EQ(ChainKeys(table_->buckets[7]), std::vector<uint64_t>{7 + 256});
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(__KyLookupHashTable(table_, 7 + 256), Item(7 + 256));
  const auto* kept = static_cast<const KyHashEntry*>(table_->buckets[7].contents);
  EXPECT_EQ(LockState(kept->lock), kFree);
}

TEST_F(HashTableScan, ARefusedHeadStaysTheHead) {
  CreateWithReleasedKeys();
  InsertKeys({7, 7 + 256});
  g_refusedItem = 7 + 256;  // the head
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 1, DisposeAllButTheRefused, nullptr), 1u);
  EXPECT_EQ(g_matched, (std::vector<uintptr_t>{7 + 256, 7}));
  EXPECT_EQ(ChainKeys(table_->buckets[7]), std::vector<uint64_t>{7 + 256});
  EXPECT_EQ(table_->count, 1);
}

TEST_F(HashTableScan, AScanByTheTablesExclusiveHolderRemovesNothingAndReportsTheCount) {
  CreateWithReleasedKeys();
  InsertKeys({1, 2, 3});
  __KyAcquireExclusiveLock(&table_->lock);
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 1, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 3u);
  entries = 0;
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 3u);
  EXPECT_EQ(table_->lock.recursionCount, 1u);  // not re-entered
  __KyReleaseExclusiveLock(&table_->lock);
  EXPECT_TRUE(g_matched.empty());
  EXPECT_EQ(table_->count, 3);
}

TEST_F(HashTableScan, ATableThatOneTryCannotTakeIsSkipped) {
  CreateWithReleasedKeys();
  InsertKeys({1, 2});
  __KyAcquireSharedLock(&table_->lock);
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 1, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 2u);
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, nullptr), 0u);
  __KyReleaseSharedLock(&table_->lock);
  EXPECT_TRUE(g_matched.empty());
  EXPECT_EQ(LockState(table_->lock), kFree);
  EXPECT_EQ(table_->count, 2);
}

TEST_F(HashTableScan, ABusyEntryIsSkippedAndTheRestRemoved) {
  CreateWithReleasedKeys();
  InsertKeys({5, 5 + 256, 5 + 512});
  auto* middle = static_cast<KyHashEntry*>(table_->buckets[5].contents)->next;
  ASSERT_EQ(middle->key, 5u + 256);
  __KyAcquireExclusiveLockTid(&middle->lock, kStrangerId);
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchAll, nullptr, 1, nullptr, &entries), 2u);
  EXPECT_EQ(entries, 3u);
  EXPECT_EQ(g_matched, (std::vector<uintptr_t>{5 + 512, 5}));
  EXPECT_EQ(ChainKeys(table_->buckets[5]), std::vector<uint64_t>{5 + 256});
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 1u);
  __KyReleaseExclusiveLock(&middle->lock);
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 1u);
  EXPECT_EQ(table_->count, 0);
}

uint32_t MatchObservingLocks(void* item, void*) {
  KyHashBucket& bucket = g_table->buckets[BucketIndex(g_table, ItemNumber(item))];
  const auto* entry = static_cast<const KyHashEntry*>(bucket.contents);
  while (entry->dataItem != item) entry = entry->next;
  g_lockStates.emplace_back(LockState(g_table->lock), LockState(entry->lock));
  EXPECT_EQ(entry->lock.ownerThreadId, __KyGetNativeThreadId());
  return 0;
}

TEST_F(HashTableScan, TheMatchFunctionRunsWithTableAndEntryHeldExclusive) {
  CreateWithReleasedKeys();
  InsertKeys({1, 2});
  __KyScanHashTable(table_, MatchObservingLocks, nullptr, 1, nullptr, nullptr);
  EXPECT_EQ(g_lockStates, (std::vector<std::pair<uint32_t, uint32_t>>{{kExclusive, kExclusive},
                                                                      {kExclusive, kExclusive}}));
  EXPECT_EQ(LockState(table_->lock), kFree);
  for (uint64_t key : {1, 2}) {
    EXPECT_EQ(LockState(static_cast<KyHashEntry*>(table_->buckets[key].contents)->lock), kFree);
  }
}

TEST_F(HashTableScan, UpperTablesRecurseIntoSubTablesAndSkipPlaceholders) {
  CreateWithReleasedKeys(0, 2);
  InsertKeys({0x0101, 0x0102, 0x0201, 0x0302});
  table_->buckets[0x05].contents = KY_HASH_TABLE_SUBTABLE_BEING_CREATED;
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchEven, Item(0xC0), 1, nullptr, &entries), 2u);
  EXPECT_EQ(entries, 4u);
  EXPECT_EQ(g_matched, (std::vector<uintptr_t>{0x0101, 0x0102, 0x0201, 0x0302}));
  EXPECT_EQ(SubTableAt(table_, 0x01)->count, 1);
  EXPECT_EQ(SubTableAt(table_, 0x03)->count, 0);
  EXPECT_EQ(table_->count, 3);  // sub-tables stay
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 2u);
  EXPECT_EQ(entries, 2u);
  table_->buckets[0x05].contents = nullptr;
}

TEST_F(HashTableScan, ScanAndEmptyRemovesEveryEntryAndReleasesEveryKey) {
  CreateWithReleasedKeys();
  InsertKeys({1, 2, 2 + 256});
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 3u);
  EXPECT_EQ(entries, 3u);
  EXPECT_EQ(g_released, (std::vector<uint64_t>{1, 2 + 256, 2}));
  EXPECT_EQ(table_->count, 0);
  for (int32_t i = 0; i < table_->bucketCount; ++i) EXPECT_EQ(table_->buckets[i].contents, nullptr);
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 0u);
}

TEST_F(HashTableScan, ScanAndEmptyAsksTheDisposeFunctionBeforeReleasingTheKey) {
  CreateWithReleasedKeys();
  InsertKeys({4, 4 + 256, 9});
  g_refusedItem = 4;
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, DisposeAllButTheRefused, &entries), 2u);
  EXPECT_EQ(entries, 3u);
  EXPECT_EQ(g_disposed, (std::vector<uintptr_t>{4 + 256, 4, 9}));
  EXPECT_EQ(g_released, (std::vector<uint64_t>{4 + 256, 9}));  // the kept key is not released
  EXPECT_EQ(ChainKeys(table_->buckets[4]), std::vector<uint64_t>{4});
  EXPECT_EQ(table_->count, 1);
}

TEST_F(HashTableScan, NullTablesScanNothing) {
  uint32_t entries = 7;
  EXPECT_EQ(__KyScanHashTable(nullptr, MatchAll, nullptr, 1, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 0u);
  entries = 7;
  EXPECT_EQ(__KyScanAndEmptyHashTable(nullptr, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 0u);
  EXPECT_TRUE(g_matched.empty());
}

// ---------------------------------------------------------------------------
// Locks held by each operation

int CompareObservingLocks(uint64_t storedKey, uint64_t probeKey) {
  g_lockStates.emplace_back(LockState(g_table->lock),
                            LockState(g_table->buckets[BucketIndex(g_table, probeKey)].lock));
  return storedKey == probeKey;
}

void ReleaseKeyObservingLocks(uint64_t key) {
  g_lockStates.emplace_back(LockState(g_table->lock),
                            LockState(g_table->buckets[BucketIndex(g_table, key)].lock));
}

class HashTableLocks : public HashTableScan {
 protected:
  void CreateObserved(uint32_t flags = 0) {
    table_ = __KyCreateHashTable(flags | KY_HASH_TABLE_OBJECT_KEYS, nullptr, 1,
                                 CompareObservingLocks, ReleaseKeyObservingLocks, 0, 0);
    g_table = table_;
  }
  using States = std::vector<std::pair<uint32_t, uint32_t>>;
};

TEST_F(HashTableLocks, LookupHoldsTableAndBucketShared) {
  CreateObserved();
  __KyInsertHashTableEntry(table_, 6, Item(6));
  g_lockStates.clear();
  EXPECT_EQ(__KyLookupHashTable(table_, 6), Item(6));
  EXPECT_EQ(g_lockStates, (States{{kShared, kShared}}));
  EXPECT_EQ(LockState(table_->lock), kFree);
  EXPECT_EQ(LockState(table_->buckets[6].lock), kFree);
}

TEST_F(HashTableLocks, InsertOfAPresentKeyHoldsTableSharedAndBucketExclusive) {
  CreateObserved();
  __KyInsertHashTableEntry(table_, 6, Item(6));
  g_lockStates.clear();
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 6, Item(7)), Item(6));
  EXPECT_EQ(g_lockStates, (States{{kShared, kExclusive}}));
}

TEST_F(HashTableLocks, InsertOfANewKeySearchesAgainUnderTheTableExclusive) {
  CreateObserved();
  __KyInsertHashTableEntry(table_, 6, Item(6));
  g_lockStates.clear();
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 6 + 256, Item(7)), Item(7));
  EXPECT_EQ(g_lockStates, (States{{kShared, kExclusive}, {kExclusive, kFree}}));
  EXPECT_EQ(LockState(table_->lock), kFree);
  EXPECT_EQ(LockState(table_->buckets[6].lock), kFree);
}

TEST_F(HashTableLocks, RemoveUnlinksUnderTableSharedAndBucketExclusive) {
  CreateObserved();
  __KyInsertHashTableEntry(table_, 6, Item(6));
  g_lockStates.clear();
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 6), Item(6));
  // One comparison, then the key release, both in the first phase.
  EXPECT_EQ(g_lockStates, (States{{kShared, kExclusive}, {kShared, kExclusive}}));
  EXPECT_EQ(LockState(table_->lock), kFree);
  EXPECT_EQ(table_->count, 0);
}

TEST_F(HashTableLocks, ALookupInAnEmptyTableNeverWaitsForTheBucket) {
  CreateObserved();
  __KyAcquireExclusiveLockTid(&table_->buckets[6].lock, kStrangerId);
  EXPECT_EQ(__KyLookupHashTable(table_, 6), nullptr);
  void* out = Item(1);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(
                table_, 6, [](void*) -> uint32_t { return 0; }, &out),
            1u);
  EXPECT_EQ(out, nullptr);
  __KyReleaseExclusiveLock(&table_->buckets[6].lock);
}

TEST_F(HashTableLocks, ALookupWaitsWhileAWriterHoldsTheBucket) {
  CreateObserved();
  __KyInsertHashTableEntry(table_, 6, Item(6));
  __KyAcquireExclusiveLockTid(&table_->buckets[6].lock, kStrangerId);
  std::atomic<bool> done{false};
  std::thread reader([&] {
    EXPECT_EQ(__KyLookupHashTable(table_, 6), Item(6));
    done = true;
  });
  EXPECT_TRUE(kyrt_test::StaysFalse(done));
  __KyReleaseExclusiveLock(&table_->buckets[6].lock);
  reader.join();
  EXPECT_TRUE(done);
}

// Marks a lock as held exclusive by a thread that does not exist.
void Poison(KySharedExclusiveLock* lock) {
  lock->state = kExclusive;
  lock->readerCount = 0;
  lock->ownerThreadId = kStrangerId;
  lock->writerWaiting = 0;
  lock->recursionCount = 1;
  lock->spinCount = 0;
}

bool IsPoisoned(const KySharedExclusiveLock& lock) {
  return lock.state == kExclusive && lock.ownerThreadId == kStrangerId &&
         lock.recursionCount == 1 && lock.readerCount == 0;
}

TEST_F(HashTableLocks, ATableWithoutLockingTouchesNoLock) {
  table_ = __KyCreateHashTable(KY_HASH_TABLE_NO_LOCKING, nullptr, 2, nullptr, nullptr, 0, 0);
  InsertKeys({0x0101, 0x0102});
  KyHashTable* sub = SubTableAt(table_, 0x01);
  Poison(&table_->lock);
  Poison(&sub->lock);
  for (int32_t i = 0; i < sub->bucketCount; ++i) Poison(&sub->buckets[i].lock);
  for (uint64_t key : {0x01, 0x02}) {
    Poison(&static_cast<KyHashEntry*>(sub->buckets[key].contents)->lock);
  }
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 0x0103, Item(3)), Item(3));
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 0x0101, Item(9)), Item(0x0101));
  EXPECT_EQ(__KyLookupHashTable(table_, 0x0102), Item(0x0102));
  void* out = nullptr;
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItemTid(
                table_, 0x0102, [](void*, KyThreadId) -> uint32_t { return 8; }, &out, 5),
            8u);
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 0x0103), Item(3));
  uint32_t entries = 0;
  EXPECT_EQ(__KyScanHashTable(table_, MatchEven, Item(0xC0), 1, nullptr, &entries), 1u);
  EXPECT_EQ(entries, 2u);
  EXPECT_EQ(__KyScanAndEmptyHashTable(table_, nullptr, &entries), 1u);
  EXPECT_TRUE(IsPoisoned(table_->lock));
  EXPECT_TRUE(IsPoisoned(sub->lock));
  for (int32_t i = 0; i < sub->bucketCount; ++i) EXPECT_TRUE(IsPoisoned(sub->buckets[i].lock));
  EXPECT_EQ(sub->count, 0);
}

}  // namespace
