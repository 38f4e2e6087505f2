// The hash table: creation, hash functions, insert, lookup, removal,
// growth, levels, object keys and destruction.
#include "kyrt/hash_table.h"

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "containers/hash_table_internal.h"
#include "containers/hash_table_test_support.h"
#include "kyrt/memory.h"

namespace {

using kyrt_test::BucketIndex;
using kyrt_test::ChainKeys;
using kyrt_test::Item;
using kyrt_test::ItemNumber;
using kyrt_test::LockState;
using kyrt_test::SlabOf;
using kyrt_test::SubTableAt;

constexpr uint32_t kLockFree = 0;

// ---------------------------------------------------------------------------
// Object keys: a key is the address of a KeyObject; equal values are equal
// keys. The release function records what it is given.

struct KeyObject {
  uint64_t value;
};

std::vector<std::string> g_events;  // release calls, in order

int CompareKeyObjects(uint64_t storedKey, uint64_t probeKey) {
  return reinterpret_cast<const KeyObject*>(storedKey)->value ==
         reinterpret_cast<const KeyObject*>(probeKey)->value;
}

std::vector<uint64_t> g_releasedKeys;  // the keys themselves (addresses)

void RecordKeyRelease(uint64_t storedKey) {
  g_releasedKeys.push_back(storedKey);
  g_events.push_back("key " + std::to_string(reinterpret_cast<const KeyObject*>(storedKey)->value));
}

void RecordPlainKeyRelease(uint64_t storedKey) {
  g_events.push_back("plain key " + std::to_string(storedKey));
}

void RecordDataRelease(void* item) {
  g_events.push_back("data " + std::to_string(ItemNumber(item)));
}

uint64_t KeyOf(const KeyObject& object) {
  return reinterpret_cast<uint64_t>(&object);
}

class HashTable : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_events.clear();
    g_releasedKeys.clear();
  }
  void TearDown() override { __KyDestroyHashTable(table_, nullptr); }

  KyHashTable* Create(uint32_t flags, int32_t levels = 1,
                      const KyHashFunction* functions = nullptr) {
    table_ = __KyCreateHashTable(flags, functions, levels, nullptr, nullptr, 0, 0);
    return table_;
  }

  KyHashTable* CreateWithObjectKeys(uint32_t flags, int32_t levels = 1) {
    table_ = __KyCreateHashTable(flags | KY_HASH_TABLE_OBJECT_KEYS, nullptr, levels,
                                 CompareKeyObjects, RecordKeyRelease, 0, 0);
    return table_;
  }

  void InsertNumbered(uint64_t firstKey, uint64_t count) {
    for (uint64_t key = firstKey; key < firstKey + count; ++key) {
      ASSERT_EQ(__KyInsertHashTableEntry(table_, key, Item(key + 1)), Item(key + 1));
    }
  }

  KyHashTable* table_ = nullptr;
};

// ---------------------------------------------------------------------------
// Layout and creation

TEST(HashTableLayout, RecordsHaveTheirFixedSizesAndOffsets) {
  static_assert(sizeof(KyHashEntry) == 56);
  static_assert(offsetof(KyHashEntry, next) == 0);
  static_assert(offsetof(KyHashEntry, key) == 8);
  static_assert(offsetof(KyHashEntry, dataItem) == 16);
  static_assert(offsetof(KyHashEntry, lock) == 24);
  static_assert(sizeof(KyHashBucket) == 40);
  static_assert(offsetof(KyHashBucket, lock) == 0);
  static_assert(offsetof(KyHashBucket, contents) == 32);
  static_assert(sizeof(KyHashTable) == 104);
  static_assert(offsetof(KyHashTable, lock) == 0);
  static_assert(offsetof(KyHashTable, hashFunctions) == 32);
  static_assert(offsetof(KyHashTable, compareFunction) == 56);
  static_assert(offsetof(KyHashTable, keyReleaseFunction) == 64);
  static_assert(offsetof(KyHashTable, buckets) == 72);
  static_assert(offsetof(KyHashTable, bucketCount) == 80);
  static_assert(offsetof(KyHashTable, bucketBits) == 84);
  static_assert(offsetof(KyHashTable, count) == 88);
  static_assert(offsetof(KyHashTable, levelsBelow) == 92);
  static_assert(offsetof(KyHashTable, flags) == 96);
  EXPECT_EQ(KY_HASH_TABLE_SUBTABLE_BEING_CREATED, reinterpret_cast<void*>(1));
}

TEST_F(HashTable, FlagsZeroGive256BucketsAndAnEmptyBottomTable) {
  Create(0);
  EXPECT_EQ(table_->bucketCount, 256);
  EXPECT_EQ(table_->bucketBits, 8u);
  EXPECT_EQ(table_->count, 0);
  EXPECT_EQ(table_->levelsBelow, 0);
  for (int32_t i = 0; i < table_->bucketCount; ++i) {
    EXPECT_EQ(table_->buckets[i].contents, nullptr);
    EXPECT_EQ(table_->buckets[i].lock.state, kLockFree);
    EXPECT_EQ(table_->buckets[i].lock.spinCount, 0u);
  }
  EXPECT_EQ(table_->lock.state, kLockFree);
  EXPECT_EQ(table_->lock.readerCount, 0u);
  EXPECT_EQ(table_->lock.ownerThreadId, 0u);
}

TEST_F(HashTable, Flag0x08Gives512Buckets) {
  Create(KY_HASH_TABLE_512_BUCKETS);
  EXPECT_EQ(table_->bucketCount, 512);
  EXPECT_EQ(table_->bucketBits, 9u);
}

TEST_F(HashTable, Flag0x10Gives1024Buckets) {
  Create(KY_HASH_TABLE_1024_BUCKETS);
  EXPECT_EQ(table_->bucketCount, 1024);
  EXPECT_EQ(table_->bucketBits, 10u);
}

TEST_F(HashTable, Flag0x08TakesPrecedenceOver0x10) {
  Create(KY_HASH_TABLE_512_BUCKETS | KY_HASH_TABLE_1024_BUCKETS);
  EXPECT_EQ(table_->bucketCount, 512);
  EXPECT_EQ(table_->bucketBits, 9u);
}

TEST_F(HashTable, FlagsWordKeepsCreationBitsAndAddsCategoryAndAllocationOption) {
  table_ = __KyCreateHashTable(0xFFFFFFFFu, nullptr, 1, CompareKeyObjects, RecordKeyRelease, 5, 3);
  EXPECT_EQ(table_->flags, 0xFFF305FFu);
  EXPECT_EQ(table_->compareFunction, &CompareKeyObjects);
  EXPECT_EQ(table_->keyReleaseFunction, &RecordKeyRelease);
  __KyDestroyHashTable(table_, nullptr);
  table_ = __KyCreateHashTable(0x00000104u, nullptr, 1, nullptr, nullptr, 0x100, 0x12);
  EXPECT_EQ(table_->flags, 0x00020004u);  // category and option cut to 8 and 4 bits
}

TEST_F(HashTable, LevelsBelowIsLevelsMinusOne) {
  for (int32_t levels = 1; levels <= 3; ++levels) {
    KyHashTable* table = __KyCreateHashTable(0, nullptr, levels, nullptr, nullptr, 0, 0);
    EXPECT_EQ(table->levelsBelow, levels - 1);
    EXPECT_EQ(table->count, 0);
    __KyDestroyHashTable(table, nullptr);
  }
}

TEST_F(HashTable, LevelsOutsideOneToThreeAreTakenAsTheNearest) {
  KyHashTable* low = __KyCreateHashTable(0, nullptr, 0, nullptr, nullptr, 0, 0);
  KyHashTable* high = __KyCreateHashTable(0, nullptr, 9, nullptr, nullptr, 0, 0);
  EXPECT_EQ(low->levelsBelow, 0);
  EXPECT_EQ(high->levelsBelow, 2);
  __KyDestroyHashTable(low, nullptr);
  __KyDestroyHashTable(high, nullptr);
}

uint64_t HashSeven(KyHashTable*, uint64_t) {
  return 7;
}
uint64_t HashEleven(KyHashTable*, uint64_t) {
  return 11;
}
uint64_t HashThirteen(KyHashTable*, uint64_t) {
  return 13;
}

TEST_F(HashTable, DefaultHashFunctionsAreInstalledForEveryLevel) {
  Create(0, 1);
  for (int level = 0; level < KY_HASH_TABLE_MAX_LEVELS; ++level) {
    EXPECT_EQ(table_->hashFunctions[level], kyrt::kDefaultHashFunctions[level]) << level;
  }
}

TEST_F(HashTable, GivenFunctionsReplaceTheDefaultsExceptWhereNull) {
  const KyHashFunction functions[3] = {HashSeven, nullptr, HashThirteen};
  Create(0, 3, functions);
  EXPECT_EQ(table_->hashFunctions[0], &HashSeven);
  EXPECT_EQ(table_->hashFunctions[1], kyrt::kDefaultHashFunctions[1]);
  EXPECT_EQ(table_->hashFunctions[2], &HashThirteen);
}

TEST_F(HashTable, OnlyTheFirstLevelsGivenFunctionsAreCopied) {
  const KyHashFunction functions[3] = {HashSeven, HashEleven, HashThirteen};
  Create(0, 1, functions);
  EXPECT_EQ(table_->hashFunctions[0], &HashSeven);
  EXPECT_EQ(table_->hashFunctions[1], kyrt::kDefaultHashFunctions[1]);
  EXPECT_EQ(table_->hashFunctions[2], kyrt::kDefaultHashFunctions[2]);
  __KyDestroyHashTable(table_, nullptr);
  Create(0, 2, functions);
  EXPECT_EQ(table_->hashFunctions[1], &HashEleven);
  EXPECT_EQ(table_->hashFunctions[2], kyrt::kDefaultHashFunctions[2]);
}

TEST_F(HashTable, TableAndBucketsUseOptionZeroAndEntriesTheTableOption) {
  const uint32_t category = __KyRegisterMemoryCategory("hash table test");
  ASSERT_NE(category, KY_INVALID_MEMORY_CATEGORY);
  table_ = __KyCreateHashTable(0, nullptr, 1, nullptr, nullptr, category, 2);
  EXPECT_EQ(SlabOf(table_).category, category);
  EXPECT_EQ(SlabOf(table_).slabShift, 0u);
  EXPECT_EQ(SlabOf(table_->buckets).category, category);
  EXPECT_EQ(SlabOf(table_->buckets).slabShift, 0u);
  __KyInsertHashTableEntry(table_, 9, Item(1));
  const void* entry = table_->buckets[9].contents;
  EXPECT_EQ(SlabOf(entry).category, category);
  EXPECT_EQ(SlabOf(entry).slabShift, 2u);
}

// ---------------------------------------------------------------------------
// Hash functions

TEST_F(HashTable, LevelZeroDefaultIsTheKeyItself) {
  Create(0);
  EXPECT_EQ(kyrt::kDefaultHashFunctions[0](table_, 0xFEDCBA9876543210ull), 0xFEDCBA9876543210ull);
}

TEST_F(HashTable, LevelOneDefaultShiftsByTheBucketBits) {
  Create(0);
  EXPECT_EQ(kyrt::kDefaultHashFunctions[1](table_, 0xFEDCBA9876543210ull), 0xFEDCBA98765432ull);
  KyHashTable* wide =
      __KyCreateHashTable(KY_HASH_TABLE_1024_BUCKETS, nullptr, 1, nullptr, nullptr, 0, 0);
  EXPECT_EQ(kyrt::kDefaultHashFunctions[1](wide, 0xFFFFFFFFFFFFFFFFull), 0x3FFFFFFFFFFFFFull);
  __KyDestroyHashTable(wide, nullptr);
}

TEST_F(HashTable, LevelTwoDefaultShiftsByThreeTimesTheBucketBits) {
  Create(0);
  EXPECT_EQ(kyrt::kDefaultHashFunctions[2](table_, 0xFEDCBA9876543210ull), 0xFEDCBA9876ull);
  KyHashTable* wide =
      __KyCreateHashTable(KY_HASH_TABLE_1024_BUCKETS, nullptr, 1, nullptr, nullptr, 0, 0);
  EXPECT_EQ(kyrt::kDefaultHashFunctions[2](wide, 0xFFFFFFFFFFFFFFFFull), 0x3FFFFFFFFull);
  __KyDestroyHashTable(wide, nullptr);
}

uint64_t ShiftXorReference(uint64_t key, unsigned s) {
  const uint64_t x = static_cast<uint64_t>(static_cast<int64_t>(key) >> s);
  return x ^ (x >> s);
}

TEST_F(HashTable, ShiftXorFamilyHolds27FunctionsInOrder) {
  ASSERT_EQ(kyrt::kShiftXorHashFunctionCount, 27u);
  const uint64_t keys[] = {0,
                           1,
                           0x20,
                           0x1000,
                           0x7FFFFFFFFFFFFFFFull,
                           0x8000000000000000ull,
                           0xFFFFFFFFFFFFFFFFull,
                           0x00007F12345678E0ull,
                           0xDEADBEEFCAFEF00Dull};
  for (unsigned s = 1; s <= 27; ++s) {
    ASSERT_EQ(kyrt::ShiftXorHashFunction(s), kyrt::kShiftXorHashFunctions[s - 1]);
    for (uint64_t key : keys) {
      EXPECT_EQ(kyrt::ShiftXorHashFunction(s)(nullptr, key), ShiftXorReference(key, s))
          << "s=" << s << " key=" << key;
    }
  }
}

TEST_F(HashTable, ShiftXorShiftsArithmeticallyThenLogically) {
  const KyHashFunction one = kyrt::ShiftXorHashFunction(1);
  EXPECT_EQ(one(nullptr, 0x20), 0x18u);  // x = 0x10, x ^ 0x8
  // x = 0xC000000000000000 (sign propagated); x >> 1 = 0x6000000000000000.
  EXPECT_EQ(one(nullptr, 0x8000000000000000ull), 0xA000000000000000ull);
  const KyHashFunction twentySeven = kyrt::ShiftXorHashFunction(27);
  // x = all ones; x >> 27 logically keeps 37 ones.
  EXPECT_EQ(twentySeven(nullptr, 0xFFFFFFFFFFFFFFFFull), 0xFFFFFFE000000000ull);
  EXPECT_EQ(twentySeven(nullptr, uint64_t{1} << 27), 1u);
}

// ---------------------------------------------------------------------------
// Insert, lookup, remove

TEST_F(HashTable, LookupInAnEmptyTableIsNull) {
  Create(0);
  EXPECT_EQ(__KyLookupHashTable(table_, 0), nullptr);
  EXPECT_EQ(__KyLookupHashTable(table_, 12345), nullptr);
}

TEST_F(HashTable, InsertStoresTheItemAndLookupFindsIt) {
  Create(0);
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 42, Item(100)), Item(100));
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(__KyLookupHashTable(table_, 42), Item(100));
  EXPECT_EQ(__KyLookupHashTable(table_, 43), nullptr);
  EXPECT_EQ(__KyLookupHashTable(table_, 42 + 256), nullptr);  // same bucket, other key
}

TEST_F(HashTable, KeysZeroAndAllOnesAreOrdinaryKeys) {
  Create(0);
  __KyInsertHashTableEntry(table_, 0, Item(1));
  __KyInsertHashTableEntry(table_, ~uint64_t{0}, Item(2));
  EXPECT_EQ(__KyLookupHashTable(table_, 0), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, ~uint64_t{0}), Item(2));
  EXPECT_EQ(ChainKeys(table_->buckets[255]), std::vector<uint64_t>{~uint64_t{0}});
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 0), Item(1));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, ~uint64_t{0}), Item(2));
  EXPECT_EQ(table_->count, 0);
}

TEST_F(HashTable, InsertingAPresentKeyReturnsTheStoredItemAndChangesNothing) {
  Create(0);
  __KyInsertHashTableEntry(table_, 7, Item(1));
  __KyInsertHashTableEntry(table_, 7 + 256, Item(2));
  const auto chainBefore = ChainKeys(table_->buckets[7]);
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 7, Item(3)), Item(1));
  EXPECT_EQ(__KyInsertHashTableEntry(table_, 7 + 256, Item(4)), Item(2));
  EXPECT_EQ(table_->count, 2);
  EXPECT_EQ(ChainKeys(table_->buckets[7]), chainBefore);
  EXPECT_EQ(__KyLookupHashTable(table_, 7), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, 7 + 256), Item(2));
}

TEST_F(HashTable, NewEntriesGoToTheHeadOfTheirBucketChain) {
  Create(0);
  __KyInsertHashTableEntry(table_, 5, Item(1));
  __KyInsertHashTableEntry(table_, 5 + 256, Item(2));
  __KyInsertHashTableEntry(table_, 5 + 512, Item(3));
  EXPECT_EQ(ChainKeys(table_->buckets[5]), (std::vector<uint64_t>{5 + 512, 5 + 256, 5}));
  const auto* head = static_cast<const KyHashEntry*>(table_->buckets[5].contents);
  EXPECT_EQ(head->dataItem, Item(3));
  EXPECT_EQ(head->lock.state, kLockFree);
}

TEST_F(HashTable, The257thEntryDoubles256BucketsTo512) {
  Create(0);
  InsertNumbered(0, 256);
  EXPECT_EQ(table_->bucketCount, 256);
  EXPECT_EQ(table_->bucketBits, 8u);
  EXPECT_EQ(table_->count, 256);
  InsertNumbered(256, 1);
  EXPECT_EQ(table_->bucketCount, 512);
  EXPECT_EQ(table_->bucketBits, 9u);
  EXPECT_EQ(table_->count, 257);
  for (uint64_t key = 0; key < 257; ++key) {
    EXPECT_EQ(__KyLookupHashTable(table_, key), Item(key + 1)) << key;
    EXPECT_EQ(ChainKeys(table_->buckets[key]), std::vector<uint64_t>{key});
  }
  for (int32_t i = 0; i < table_->bucketCount; ++i) {
    EXPECT_EQ(table_->buckets[i].lock.state, kLockFree);
  }
}

TEST_F(HashTable, TablesKeepDoublingAndNeverShrink) {
  Create(KY_HASH_TABLE_512_BUCKETS);
  InsertNumbered(1000, 512);
  EXPECT_EQ(table_->bucketCount, 512);
  InsertNumbered(2000, 1);
  EXPECT_EQ(table_->bucketCount, 1024);
  InsertNumbered(3000, 512);
  EXPECT_EQ(table_->bucketCount, 2048);
  EXPECT_EQ(table_->bucketBits, 11u);
  for (uint64_t key = 3000; key < 3512; ++key) __KyRemoveHashTableEntry(table_, key);
  for (uint64_t key = 1000; key < 1512; ++key) __KyRemoveHashTableEntry(table_, key);
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(table_->bucketCount, 2048);
  EXPECT_EQ(__KyLookupHashTable(table_, 2000), Item(2001));
}

// A level-0 function that reads the table's bucket bits, so that growth
// changes every key's hash and not only its mask.
uint64_t KeyAboveBucketBits(KyHashTable* table, uint64_t key) {
  return key >> table->bucketBits;
}

TEST_F(HashTable, GrowthMovesEntriesInOldBucketOrderToTheHeadsOfTheirNewChains) {
  const KyHashFunction functions[1] = {KeyAboveBucketBits};
  Create(0, 1, functions);
  // Key i << 8 hashes to i in 256 buckets and to i / 2 in 512.
  for (uint64_t i = 0; i < 256; ++i) __KyInsertHashTableEntry(table_, i << 8, Item(i + 1));
  EXPECT_EQ(ChainKeys(table_->buckets[1]), std::vector<uint64_t>{0x100});
  __KyInsertHashTableEntry(table_, uint64_t{256} << 8, Item(257));
  ASSERT_EQ(table_->bucketCount, 512);
  // Old bucket 0 (key 0x000) moved first, old bucket 1 (key 0x100) second,
  // each to the head: the later one leads.
  EXPECT_EQ(ChainKeys(table_->buckets[0]), (std::vector<uint64_t>{0x100, 0x000}));
  EXPECT_EQ(ChainKeys(table_->buckets[127]), (std::vector<uint64_t>{0xFF00, 0xFE00}));
  EXPECT_EQ(ChainKeys(table_->buckets[128]), std::vector<uint64_t>{0x10000});
  for (uint64_t i = 0; i <= 256; ++i) EXPECT_EQ(__KyLookupHashTable(table_, i << 8), Item(i + 1));
}

TEST_F(HashTable, GrowthInitialisesBucketLocksEvenWithoutLocking) {
  Create(KY_HASH_TABLE_NO_LOCKING);
  InsertNumbered(0, 257);
  ASSERT_EQ(table_->bucketCount, 512);
  for (int32_t i = 0; i < table_->bucketCount; ++i) {
    const KySharedExclusiveLock& lock = table_->buckets[i].lock;
    EXPECT_EQ(lock.state, kLockFree);
    EXPECT_EQ(lock.readerCount, 0u);
    EXPECT_EQ(lock.ownerThreadId, 0u);
    EXPECT_EQ(lock.spinCount, 0u);
  }
}

TEST_F(HashTable, RemoveReturnsTheItemAndLowersTheCount) {
  Create(0);
  __KyInsertHashTableEntry(table_, 3, Item(30));
  __KyInsertHashTableEntry(table_, 3 + 256, Item(31));
  __KyInsertHashTableEntry(table_, 3 + 512, Item(32));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 3 + 256), Item(31));  // middle of the chain
  EXPECT_EQ(table_->count, 2);
  EXPECT_EQ(ChainKeys(table_->buckets[3]), (std::vector<uint64_t>{3 + 512, 3}));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 3 + 512), Item(32));  // head
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 3), Item(30));        // last
  EXPECT_EQ(table_->count, 0);
  EXPECT_EQ(table_->buckets[3].contents, nullptr);
  EXPECT_EQ(__KyLookupHashTable(table_, 3), nullptr);
}

TEST_F(HashTable, RemovingAnAbsentKeyReturnsNullAndChangesNothing) {
  Create(0);
  __KyInsertHashTableEntry(table_, 3, Item(30));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 3 + 256), nullptr);
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 4), nullptr);
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(__KyLookupHashTable(table_, 3), Item(30));
}

TEST_F(HashTable, RemovingAnEntryWithNullDataFreesItReturnsNullAndLeavesTheCountOneTooHigh) {
  CreateWithObjectKeys(0);
  KeyObject key{77};
  EXPECT_EQ(__KyInsertHashTableEntry(table_, KeyOf(key), nullptr), nullptr);
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, KeyOf(key)), nullptr);
  EXPECT_EQ(g_events, std::vector<std::string>{"key 77"});  // the entry went
  EXPECT_EQ(table_->buckets[KeyOf(key) & 255].contents, nullptr);
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, KeyOf(key)), nullptr);
  EXPECT_EQ(table_->count, 1);
}

// ---------------------------------------------------------------------------
// Lookup and acquire

uint32_t g_acquireCalls = 0;
void* g_acquiredItem = nullptr;
KyThreadId g_acquiredTid = 0;
uint32_t g_tableStateInAcquire = 99;
uint32_t g_bucketStateInAcquire = 99;
KyHashTable* g_observedTable = nullptr;
uint64_t g_observedKey = 0;

void ObserveLocks() {
  KyHashTable* table = g_observedTable;
  g_tableStateInAcquire = LockState(table->lock);
  g_bucketStateInAcquire = LockState(table->buckets[BucketIndex(table, g_observedKey)].lock);
}

uint32_t AcquireReturning55(void* item) {
  ++g_acquireCalls;
  g_acquiredItem = item;
  ObserveLocks();
  return 55;
}

uint32_t AcquireTidReturning66(void* item, KyThreadId tid) {
  ++g_acquireCalls;
  g_acquiredItem = item;
  g_acquiredTid = tid;
  ObserveLocks();
  return 66;
}

class HashTableAcquire : public HashTable {
 protected:
  void SetUp() override {
    HashTable::SetUp();
    g_acquireCalls = 0;
    g_acquiredItem = nullptr;
    g_acquiredTid = 0;
    g_tableStateInAcquire = g_bucketStateInAcquire = 99;
  }
};

TEST_F(HashTableAcquire, AnAbsentKeyGivesOneAndStoresNull) {
  Create(0);
  void* out = Item(5);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(table_, 9, AcquireReturning55, &out), 1u);
  EXPECT_EQ(out, nullptr);
  __KyInsertHashTableEntry(table_, 9 + 256, Item(1));
  out = Item(5);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(table_, 9, AcquireReturning55, &out), 1u);
  EXPECT_EQ(out, nullptr);
  out = Item(5);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItemTid(table_, 9, AcquireTidReturning66, &out, 77),
            1u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(g_acquireCalls, 0u);
}

TEST_F(HashTableAcquire, APresentKeyGivesTheAcquireResultWithBothLocksHeldShared) {
  Create(0);
  __KyInsertHashTableEntry(table_, 9, Item(90));
  g_observedTable = table_;
  g_observedKey = 9;
  void* out = nullptr;
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(table_, 9, AcquireReturning55, &out), 55u);
  EXPECT_EQ(out, Item(90));
  EXPECT_EQ(g_acquiredItem, Item(90));
  EXPECT_EQ(g_acquireCalls, 1u);
  EXPECT_EQ(g_tableStateInAcquire, 1u);  // shared
  EXPECT_EQ(g_bucketStateInAcquire, 1u);
  EXPECT_EQ(LockState(table_->lock), kLockFree);
  EXPECT_EQ(LockState(table_->buckets[9].lock), kLockFree);
}

TEST_F(HashTableAcquire, TheTidVariantPassesTheIdToTheAcquireFunction) {
  Create(0);
  __KyInsertHashTableEntry(table_, 9, Item(90));
  g_observedTable = table_;
  g_observedKey = 9;
  void* out = nullptr;
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItemTid(table_, 9, AcquireTidReturning66, &out, 4321),
            66u);
  EXPECT_EQ(out, Item(90));
  EXPECT_EQ(g_acquiredTid, 4321u);
  EXPECT_EQ(g_tableStateInAcquire, 1u);
  EXPECT_EQ(g_bucketStateInAcquire, 1u);
  EXPECT_EQ(LockState(table_->lock), kLockFree);
}

TEST_F(HashTableAcquire, TheTidVariantTakesTheLocksAsTheGivenThread) {
  Create(0);
  __KyInsertHashTableEntry(table_, 9, Item(90));
  g_observedTable = table_;
  g_observedKey = 9;
  // The caller holds the table exclusive: asking as itself, its shared
  // requests are no-ops; asking as another id would wait for ever.
  __KyAcquireExclusiveLock(&table_->lock);
  void* out = nullptr;
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItemTid(table_, 9, AcquireTidReturning66, &out,
                                                     __KyGetNativeThreadId()),
            66u);
  EXPECT_EQ(g_tableStateInAcquire, 2u);  // still the caller's exclusive hold
  __KyReleaseExclusiveLock(&table_->lock);
  EXPECT_EQ(out, Item(90));
}

TEST_F(HashTableAcquire, AMissingOrUnfinishedSubTableMeansAbsent) {
  Create(0, 2);
  void* out = Item(5);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(table_, 0x1234, AcquireReturning55, &out), 1u);
  EXPECT_EQ(out, nullptr);
  table_->buckets[0x12].contents = KY_HASH_TABLE_SUBTABLE_BEING_CREATED;
  out = Item(5);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(table_, 0x1234, AcquireReturning55, &out), 1u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(__KyLookupHashTable(table_, 0x1234), nullptr);
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 0x1234), nullptr);
  table_->buckets[0x12].contents = nullptr;
  EXPECT_EQ(g_acquireCalls, 0u);
}

// ---------------------------------------------------------------------------
// Levels

TEST_F(HashTable, ATwoLevelTableSpreadsByTheKeyAboveTheBucketBitsThenByTheKey) {
  Create(0, 2);
  const uint64_t keys[] = {0x0105, 0x0205, 0x0106, 0xAB0105};
  for (uint64_t key : keys) __KyInsertHashTableEntry(table_, key, Item(key));
  EXPECT_EQ(table_->count, 2);  // sub-tables 0x01 and 0x02
  KyHashTable* sub01 = SubTableAt(table_, 0x01);
  KyHashTable* sub02 = SubTableAt(table_, 0x02);
  ASSERT_NE(sub01, nullptr);
  ASSERT_NE(sub02, nullptr);
  for (uint64_t i = 0; i < 256; ++i) {
    if (i != 0x01 && i != 0x02) {
      EXPECT_EQ(table_->buckets[i].contents, nullptr) << i;
    }
  }
  EXPECT_EQ(sub01->levelsBelow, 0);
  EXPECT_EQ(sub01->count, 3);
  EXPECT_EQ(ChainKeys(sub01->buckets[0x05]), (std::vector<uint64_t>{0xAB0105, 0x0105}));
  EXPECT_EQ(ChainKeys(sub01->buckets[0x06]), std::vector<uint64_t>{0x0106});
  EXPECT_EQ(ChainKeys(sub02->buckets[0x05]), std::vector<uint64_t>{0x0205});
  for (uint64_t key : keys) EXPECT_EQ(__KyLookupHashTable(table_, key), Item(key));
  EXPECT_EQ(__KyLookupHashTable(table_, 0x0305), nullptr);  // no sub-table 0x03
}

TEST_F(HashTable, AThreeLevelTableSpreadsItsTopByTheKeyShiftedThreeTimes) {
  Create(0, 3);
  const uint64_t key = 0xAABBCCDDull;
  __KyInsertHashTableEntry(table_, key, Item(1));
  // Top: key >> 24 = 0xAA; middle: key >> 8 = 0xAABBCC, bucket 0xCC; bottom:
  // the key, bucket 0xDD.
  KyHashTable* middle = SubTableAt(table_, 0xAA);
  ASSERT_NE(middle, nullptr);
  EXPECT_EQ(middle->levelsBelow, 1);
  KyHashTable* bottom = SubTableAt(middle, 0xCC);
  ASSERT_NE(bottom, nullptr);
  EXPECT_EQ(bottom->levelsBelow, 0);
  EXPECT_EQ(ChainKeys(bottom->buckets[0xDD]), std::vector<uint64_t>{key});
  // Bits 16-23 reach no level: keys differing only there share every table.
  const uint64_t sibling = key ^ 0xFF0000;
  __KyInsertHashTableEntry(table_, sibling, Item(2));
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(middle->count, 1);
  EXPECT_EQ(ChainKeys(bottom->buckets[0xDD]), (std::vector<uint64_t>{sibling, key}));
  EXPECT_EQ(__KyLookupHashTable(table_, key), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, sibling), Item(2));
}

TEST_F(HashTable, SubTablesInheritFlagsFunctionsAndCategory) {
  const uint32_t category = __KyRegisterMemoryCategory("hash sub-tables");
  const KyHashFunction functions[3] = {nullptr, HashSeven, nullptr};
  table_ = __KyCreateHashTable(KY_HASH_TABLE_512_BUCKETS | 0x100000u, functions, 2, nullptr,
                               nullptr, category, 1);
  __KyInsertHashTableEntry(table_, 0xABC, Item(1));
  KyHashTable* sub = SubTableAt(table_, 7);
  ASSERT_NE(sub, nullptr);
  EXPECT_EQ(sub->flags, table_->flags);
  EXPECT_EQ(sub->bucketCount, 512);
  EXPECT_EQ(sub->hashFunctions[0], kyrt::kDefaultHashFunctions[0]);
  // One level below: only the function of level 0 is copied from the top
  // table's array, as creation copies the first `levels` entries.
  EXPECT_EQ(sub->hashFunctions[1], kyrt::kDefaultHashFunctions[1]);
  EXPECT_EQ(sub->hashFunctions[2], kyrt::kDefaultHashFunctions[2]);
  EXPECT_EQ(table_->hashFunctions[1], &HashSeven);
  EXPECT_EQ(SlabOf(sub).category, category);
  EXPECT_EQ(SlabOf(sub).slabShift, 0u);
  const void* entry = sub->buckets[0xABC & 511].contents;
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(SlabOf(entry).slabShift, 1u);
  EXPECT_EQ(__KyLookupHashTable(table_, 0xABC), Item(1));
}

TEST_F(HashTable, UpperTablesNeverGrow) {
  Create(0, 2);
  for (uint64_t i = 0; i < 300; ++i) __KyInsertHashTableEntry(table_, i << 8, Item(i + 1));
  EXPECT_EQ(table_->bucketCount, 256);
  EXPECT_EQ(table_->count, 256);  // every top bucket has its sub-table
  for (uint64_t i = 0; i < 300; ++i) EXPECT_EQ(__KyLookupHashTable(table_, i << 8), Item(i + 1));
}

TEST_F(HashTable, InsertWaitsWhileTheSubTableIsBeingCreated) {
  Create(0, 2);
  table_->buckets[0x34].contents = KY_HASH_TABLE_SUBTABLE_BEING_CREATED;
  std::atomic<bool> inserted{false};
  std::thread inserter([&] {
    __KyInsertHashTableEntry(table_, 0x3456, Item(1));
    inserted = true;
  });
  EXPECT_TRUE(kyrt_test::StaysFalse(inserted));
  // Finish the "creation" as the creator would: the sub-table, then the
  // count.
  KyHashTable* sub = __KyCreateHashTable(0, nullptr, 1, nullptr, nullptr, 0, 0);
  __atomic_store_n(&table_->buckets[0x34].contents, sub, __ATOMIC_RELEASE);
  inserter.join();
  EXPECT_TRUE(inserted);
  EXPECT_EQ(table_->count, 0);  // the waiter created nothing
  EXPECT_EQ(ChainKeys(sub->buckets[0x56]), std::vector<uint64_t>{0x3456});
}

TEST_F(HashTable, ATableWithoutLockingCreatesSubTablesDirectly) {
  Create(KY_HASH_TABLE_NO_LOCKING, 3);
  __KyInsertHashTableEntry(table_, 0x0102030405ull, Item(1));
  __KyInsertHashTableEntry(table_, 0x0103030405ull, Item(2));
  EXPECT_EQ(table_->count, 2);
  EXPECT_EQ(__KyLookupHashTable(table_, 0x0102030405ull), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, 0x0103030405ull), Item(2));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, 0x0102030405ull), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, 0x0102030405ull), nullptr);
}

// ---------------------------------------------------------------------------
// Object keys

uint64_t HashKeyObjectValue(KyHashTable*, uint64_t key) {
  return reinterpret_cast<const KeyObject*>(key)->value;
}

TEST_F(HashTable, ObjectKeysAreComparedWithTheCompareFunction) {
  const KyHashFunction functions[1] = {HashKeyObjectValue};
  table_ = __KyCreateHashTable(KY_HASH_TABLE_OBJECT_KEYS, functions, 1, CompareKeyObjects,
                               RecordKeyRelease, 0, 0);
  KeyObject stored{0x1234};
  KeyObject probe{0x1234};        // another object of equal value
  KeyObject other{0x1234 + 256};  // the same bucket, another value
  __KyInsertHashTableEntry(table_, KeyOf(stored), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, KeyOf(probe)), Item(1));
  EXPECT_EQ(__KyLookupHashTable(table_, KeyOf(other)), nullptr);
  // A refused insert leaves the caller its key: nothing is released.
  EXPECT_EQ(__KyInsertHashTableEntry(table_, KeyOf(probe), Item(2)), Item(1));
  EXPECT_TRUE(g_events.empty());
  EXPECT_EQ(table_->count, 1);
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, KeyOf(probe)), Item(1));
  EXPECT_EQ(g_events, std::vector<std::string>{"key 4660"});
  EXPECT_EQ(g_releasedKeys, std::vector<uint64_t>{KeyOf(stored)});  // the stored key, not the probe
}

TEST_F(HashTable, ObjectKeysAreReleasedWhenTheirEntryGoes) {
  CreateWithObjectKeys(0);
  KeyObject a{1}, b{2};
  __KyInsertHashTableEntry(table_, KeyOf(a), Item(10));
  __KyInsertHashTableEntry(table_, KeyOf(b), Item(20));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, KeyOf(a)), Item(10));
  EXPECT_EQ(g_events, std::vector<std::string>{"key 1"});
  __KyDestroyHashTable(table_, RecordDataRelease);
  table_ = nullptr;
  EXPECT_EQ(g_events, (std::vector<std::string>{"key 1", "data 20", "key 2"}));
}

TEST_F(HashTable, ObjectKeysWithoutAReleaseFunctionAreLeftAlone) {
  table_ =
      __KyCreateHashTable(KY_HASH_TABLE_OBJECT_KEYS, nullptr, 1, CompareKeyObjects, nullptr, 0, 0);
  KeyObject a{1};
  __KyInsertHashTableEntry(table_, KeyOf(a), Item(10));
  EXPECT_EQ(__KyRemoveHashTableEntry(table_, KeyOf(a)), Item(10));
  EXPECT_EQ(table_->count, 0);
}

TEST_F(HashTable, PlainKeysAreNeverReleased) {
  table_ = __KyCreateHashTable(0, nullptr, 1, CompareKeyObjects, RecordPlainKeyRelease, 0, 0);
  __KyInsertHashTableEntry(table_, 1, Item(10));
  __KyInsertHashTableEntry(table_, 2, Item(20));
  __KyRemoveHashTableEntry(table_, 1);
  __KyDestroyHashTable(table_, nullptr);
  table_ = nullptr;
  EXPECT_TRUE(g_events.empty());
}

// ---------------------------------------------------------------------------
// Destroy and null tables

TEST_F(HashTable, DestroyReleasesEachDataItemThenItsKeyInBucketAndChainOrder) {
  CreateWithObjectKeys(KY_HASH_TABLE_NO_LOCKING);
  std::vector<KeyObject> keys{{1}, {2}, {3}};
  for (KeyObject& key : keys) __KyInsertHashTableEntry(table_, KeyOf(key), Item(key.value * 10));
  __KyDestroyHashTable(table_, RecordDataRelease);
  table_ = nullptr;
  ASSERT_EQ(g_events.size(), 6u);
  for (size_t i = 0; i < 6; i += 2) {
    const std::string value = g_events[i].substr(5);
    EXPECT_EQ(g_events[i], "data " + value);
    EXPECT_EQ(g_events[i + 1], "key " + std::to_string(std::stoul(value) / 10));
  }
}

TEST_F(HashTable, DestroyReachesEverySubTable) {
  Create(0, 3);
  for (uint64_t i = 1; i <= 40; ++i) __KyInsertHashTableEntry(table_, i * 0x0101010101ull, Item(i));
  __KyDestroyHashTable(table_, RecordDataRelease);
  table_ = nullptr;
  EXPECT_EQ(g_events.size(), 40u);
}

TEST_F(HashTable, NullTablesAreIgnored) {
  __KyDestroyHashTable(nullptr, RecordDataRelease);
  EXPECT_EQ(__KyLookupHashTable(nullptr, 1), nullptr);
  EXPECT_EQ(__KyInsertHashTableEntry(nullptr, 1, Item(1)), nullptr);
  EXPECT_EQ(__KyRemoveHashTableEntry(nullptr, 1), nullptr);
  void* out = Item(1);
  EXPECT_EQ(__KyLookupAndAcquireHashTableDataItem(nullptr, 1, AcquireReturning55, &out), 1u);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(g_events.empty());
}

}  // namespace
