// The multi-level hash table.
//
// Structure. A table with levels below L >= 1 is an upper table: bucket i
// holds the sub-table for the keys whose level-L hash selects i. A table with
// levels below 0 is a bottom table: bucket i holds a chain of entries, newest
// first. The descent from the top table to a key's bottom table takes no
// lock: a bucket of an upper table goes from null to the placeholder
// KY_HASH_TABLE_SUBTABLE_BEING_CREATED to its sub-table, by compare-and-swap,
// and never changes again while the table lives, so a reader that sees a
// sub-table can use it for good.
//
// Invariants of a bottom table T:
//   - T->bucketCount == 1 << T->bucketBits, and every entry sits in the chain
//     of bucket (hash of its key) & (bucketCount - 1);
//   - the bucket array (and so the bucket of any key) changes only under T's
//     exclusive lock, when the table grows; holding T in either mode pins it;
//   - a chain changes under T exclusive (insert, growth, scans) or under T
//     shared plus its bucket exclusive (removal), so T shared plus the bucket
//     shared is enough to read it;
//   - T->count is the number of entries, except that removing an entry whose
//     data item is null leaves it one too high (the removal then reports
//     nothing, as for an absent key, and does not take T exclusive for it).
//     It changes under T exclusive only; scans read it before they lock.
#include "kyrt/hash_table.h"

#include <cstddef>

#include "containers/hash_table_internal.h"
#include "kyrt/memory.h"
#include "runtime/atomic_ops.h"
#include "sync/lock_common.h"

static_assert(sizeof(KyHashEntry) == 56, "KyHashEntry layout");
static_assert(offsetof(KyHashEntry, next) == 0 && offsetof(KyHashEntry, key) == 8 &&
                  offsetof(KyHashEntry, dataItem) == 16 && offsetof(KyHashEntry, lock) == 24,
              "KyHashEntry fields");
static_assert(sizeof(KyHashBucket) == 40, "KyHashBucket layout");
static_assert(offsetof(KyHashBucket, lock) == 0 && offsetof(KyHashBucket, contents) == 32,
              "KyHashBucket fields");
static_assert(sizeof(KyHashTable) == 104, "KyHashTable layout");
static_assert(offsetof(KyHashTable, lock) == 0 && offsetof(KyHashTable, hashFunctions) == 32 &&
                  offsetof(KyHashTable, compareFunction) == 56 &&
                  offsetof(KyHashTable, keyReleaseFunction) == 64 &&
                  offsetof(KyHashTable, buckets) == 72 &&
                  offsetof(KyHashTable, bucketCount) == 80 &&
                  offsetof(KyHashTable, bucketBits) == 84 && offsetof(KyHashTable, count) == 88 &&
                  offsetof(KyHashTable, levelsBelow) == 92 && offsetof(KyHashTable, flags) == 96,
              "KyHashTable fields");
static_assert(sizeof(void*) == sizeof(int64_t), "bucket contents are swapped as 64-bit words");

namespace {

// Bucket bits of a new table, by creation flag.
constexpr uint32_t kDefaultBucketBits = 8;  // 256 buckets
constexpr uint32_t k512BucketBits = 9;
constexpr uint32_t k1024BucketBits = 10;

// The flags word keeps bits 0-7 and 20-31 of the creation flags as passed.
constexpr uint32_t kKeptCreationBits =
    ~(KY_HASH_TABLE_CATEGORY_MASK | KY_HASH_TABLE_ALLOCATION_OPTION_MASK);

// Bucket arrays and table records are allocated with this allocation option,
// whatever the table's own (which applies to entries only).
constexpr uint32_t kStructureAllocationOption = 0;

// A thread that finds a sub-table being created polls this many times between
// two yields. Fixed, and independent of any lock's spin count: the creator
// holds no lock whose spin count could stand for it.
constexpr uint32_t kSubTableCreationPollsPerYield = 500;

constexpr int64_t kNoSubTable = 0;
const int64_t kSubTableBeingCreated =
    static_cast<int64_t>(reinterpret_cast<intptr_t>(KY_HASH_TABLE_SUBTABLE_BEING_CREATED));

bool IsLocking(const KyHashTable* table) {
  return (table->flags & KY_HASH_TABLE_NO_LOCKING) == 0;
}

bool IsUpperTable(const KyHashTable* table) {
  return table->levelsBelow >= 1;
}

uint32_t CategoryOf(const KyHashTable* table) {
  return kyrt::CategoryOfFlagsWord(table->flags);
}

uint32_t InitialBucketBits(uint32_t flagsWord) {
  if ((flagsWord & KY_HASH_TABLE_512_BUCKETS) != 0) return k512BucketBits;
  if ((flagsWord & KY_HASH_TABLE_1024_BUCKETS) != 0) return k1024BucketBits;
  return kDefaultBucketBits;
}

int32_t ClampLevels(int32_t levels) {
  if (levels < 1) return 1;
  return levels > KY_HASH_TABLE_MAX_LEVELS ? KY_HASH_TABLE_MAX_LEVELS : levels;
}

// ---------------------------------------------------------------------------
// Locks

// Who takes a reader's shared locks: the calling thread (the lock finds the
// id itself and asks the hook only when it must), or a thread id the caller
// supplied.
struct CallingThread {
  void acquireShared(KySharedExclusiveLock* lock) const { __KyAcquireSharedLock(lock); }
  void releaseShared(KySharedExclusiveLock* lock) const { __KyReleaseSharedLock(lock); }
};

struct GivenThread {
  KyThreadId tid;
  void acquireShared(KySharedExclusiveLock* lock) const { __KyAcquireSharedLockTid(lock, tid); }
  void releaseShared(KySharedExclusiveLock* lock) const { __KyReleaseSharedLockTid(lock, tid); }
};

// The lock calls of one operation on one table: every call is a no-op in a
// table created without locking. Exclusive locks are always taken for the
// calling thread.
template <typename Reader = CallingThread>
class TableLocking {
 public:
  explicit TableLocking(const KyHashTable* table, Reader reader = Reader())
      : enabled_(IsLocking(table)), reader_(reader) {}

  bool enabled() const { return enabled_; }

  void acquireShared(KySharedExclusiveLock* lock) const {
    if (enabled_) reader_.acquireShared(lock);
  }
  void releaseShared(KySharedExclusiveLock* lock) const {
    if (enabled_) reader_.releaseShared(lock);
  }
  void acquireExclusive(KySharedExclusiveLock* lock) const {
    if (enabled_) __KyAcquireExclusiveLock(lock);
  }
  void releaseExclusive(KySharedExclusiveLock* lock) const {
    if (enabled_) __KyReleaseExclusiveLock(lock);
  }
  // One compare-and-swap, no waiting.
  bool tryAcquireExclusive(KySharedExclusiveLock* lock) const {
    return !enabled_ || __KyTryToAcquireExclusiveLock(lock, 0) != 0;
  }

 private:
  bool enabled_;
  Reader reader_;
};

// ---------------------------------------------------------------------------
// Buckets and chains

using kyrt::BucketOf;
using kyrt::FindEntry;
using kyrt::KeysEqual;

// The bucket's contents viewed as the head link of an entry chain.
KyHashEntry** HeadLink(KyHashBucket* bucket) {
  return reinterpret_cast<KyHashEntry**>(&bucket->contents);
}

volatile int64_t* ContentsWord(KyHashBucket* bucket) {
  return reinterpret_cast<volatile int64_t*>(&bucket->contents);
}

// The link (bucket head or previous entry's next field) that points to key's
// entry, or null when key is not in the chain.
KyHashEntry** FindLink(KyHashTable* table, KyHashBucket* bucket, uint64_t key) {
  for (KyHashEntry** link = HeadLink(bucket); *link != nullptr; link = &(*link)->next) {
    if (KeysEqual(table, (*link)->key, key)) return link;
  }
  return nullptr;
}

void PushEntry(KyHashBucket* bucket, KyHashEntry* entry) {
  KyHashEntry** head = HeadLink(bucket);
  entry->next = *head;
  *head = entry;
}

void ReleaseKey(const KyHashTable* table, uint64_t key) {
  if (kyrt::HasObjectKeys(table) && table->keyReleaseFunction != nullptr) {
    table->keyReleaseFunction(key);
  }
}

void AddToCount(KyHashTable* table, int32_t change) {
  kyrt::StoreRelaxed(&table->count, kyrt::LoadRelaxed(&table->count) + change);
}

// ---------------------------------------------------------------------------
// Creation and growth

KyHashBucket* NewBucketArray(uint32_t category, uint32_t bucketBits, bool initialiseLocks) {
  const size_t bucketCount = size_t{1} << bucketBits;
  auto* buckets = static_cast<KyHashBucket*>(
      __KyMalloc(category, bucketCount * sizeof(KyHashBucket), kStructureAllocationOption));
  for (size_t i = 0; i < bucketCount; ++i) {
    if (initialiseLocks) __KyInitializeSharedExclusiveLock(&buckets[i].lock);
    buckets[i].contents = nullptr;
  }
  return buckets;
}

// Defaults for every level, then the first `levels` given functions over
// them (null entries keep the default).
void InstallHashFunctions(KyHashTable* table, const KyHashFunction* hashFunctions, int32_t levels) {
  for (int32_t level = 0; level < KY_HASH_TABLE_MAX_LEVELS; ++level) {
    table->hashFunctions[level] = kyrt::kDefaultHashFunctions[level];
  }
  if (hashFunctions == nullptr) return;
  for (int32_t level = 0; level < levels; ++level) {
    if (hashFunctions[level] != nullptr) table->hashFunctions[level] = hashFunctions[level];
  }
}

KyHashTable* NewTable(uint32_t flagsWord, const KyHashFunction* hashFunctions, int32_t levels,
                      KyHashKeyCompareFunction compareFunction,
                      KyHashKeyReleaseFunction keyReleaseFunction) {
  const uint32_t category = kyrt::CategoryOfFlagsWord(flagsWord);
  auto* table = static_cast<KyHashTable*>(
      __KyMalloc(category, sizeof(KyHashTable), kStructureAllocationOption));
  table->compareFunction = compareFunction;
  table->keyReleaseFunction = keyReleaseFunction;
  table->flags = flagsWord;
  table->bucketBits = InitialBucketBits(flagsWord);
  table->bucketCount = int32_t{1} << table->bucketBits;
  InstallHashFunctions(table, hashFunctions, levels);
  if (IsLocking(table)) __KyInitializeSharedExclusiveLock(&table->lock);
  table->levelsBelow = levels - 1;
  table->count = 0;
  table->buckets = NewBucketArray(category, table->bucketBits, IsLocking(table));
  return table;
}

// A sub-table for one bucket of upper: its flags, functions and one level
// fewer.
KyHashTable* NewSubTable(const KyHashTable* upper) {
  return NewTable(upper->flags, upper->hashFunctions, upper->levelsBelow, upper->compareFunction,
                  upper->keyReleaseFunction);
}

// Doubles a bottom table's bucket array, under its exclusive lock. Entries
// move in old-bucket order, each to the head of its new chain. The new locks
// are initialised whether or not the table locks: growth is rare, and the
// array is then ready whatever its use.
void Grow(KyHashTable* table) {
  KyHashBucket* oldBuckets = table->buckets;
  const uint32_t oldBucketCount = static_cast<uint32_t>(table->bucketCount);
  table->bucketBits += 1;
  table->bucketCount = int32_t{1} << table->bucketBits;
  table->buckets = NewBucketArray(CategoryOf(table), table->bucketBits, /*initialiseLocks=*/true);
  for (uint32_t i = 0; i < oldBucketCount; ++i) {
    KyHashEntry* entry = *HeadLink(&oldBuckets[i]);
    while (entry != nullptr) {
      KyHashEntry* next = entry->next;
      PushEntry(BucketOf(table, entry->key), entry);
      entry = next;
    }
  }
  __KyFree(oldBuckets);
}

// Growth happens when the new entry would make the entries outnumber the
// buckets: the 257th entry of a 256-bucket table finds 512 buckets.
bool NeedsGrowthForOneMore(const KyHashTable* table) {
  return kyrt::LoadRelaxed(&table->count) >= table->bucketCount;
}

KyHashEntry* NewEntry(const KyHashTable* table, uint64_t key, void* dataItem) {
  auto* entry = static_cast<KyHashEntry*>(__KyMalloc(
      CategoryOf(table), sizeof(KyHashEntry), kyrt::AllocationOptionOfFlagsWord(table->flags)));
  if (IsLocking(table)) __KyInitializeSharedExclusiveLock(&entry->lock);
  entry->key = key;
  entry->dataItem = dataItem;
  entry->next = nullptr;
  return entry;
}

// ---------------------------------------------------------------------------
// Descent

void* LoadContents(const KyHashBucket* bucket) {
  return __atomic_load_n(&bucket->contents, __ATOMIC_ACQUIRE);
}

// The bucket's sub-table, or null while there is none to use (absent, or
// still being created).
KyHashTable* UsableSubTable(const KyHashBucket* bucket) {
  void* contents = LoadContents(bucket);
  return contents == KY_HASH_TABLE_SUBTABLE_BEING_CREATED ? nullptr
                                                          : static_cast<KyHashTable*>(contents);
}

void CountSubTable(KyHashTable* upper) {
  kyrt::AddAndFetch(&upper->count, 1);
}

void WaitWhileSubTableIsBeingCreated(const KyHashBucket* bucket) {
  kyrt::PollBackoff(kSubTableCreationPollsPerYield).waitWhile([bucket] {
    return LoadContents(bucket) == KY_HASH_TABLE_SUBTABLE_BEING_CREATED;
  });
}

// The bucket's sub-table, created if missing. In a locking table the thread
// that swaps the placeholder in creates it; the others wait for it.
KyHashTable* SubTableCreatingIfMissing(KyHashTable* upper, KyHashBucket* bucket) {
  if (!IsLocking(upper)) {
    if (bucket->contents == nullptr) {
      bucket->contents = NewSubTable(upper);
      CountSubTable(upper);
    }
    return static_cast<KyHashTable*>(bucket->contents);
  }
  for (;;) {
    void* contents = LoadContents(bucket);
    if (contents == KY_HASH_TABLE_SUBTABLE_BEING_CREATED) {
      WaitWhileSubTableIsBeingCreated(bucket);
    } else if (contents != nullptr) {
      return static_cast<KyHashTable*>(contents);
    } else if (kyrt::CompareExchange(ContentsWord(bucket), kSubTableBeingCreated, kNoSubTable) ==
               kNoSubTable) {
      KyHashTable* subTable = NewSubTable(upper);
      kyrt::CompareExchange(ContentsWord(bucket),
                            static_cast<int64_t>(reinterpret_cast<intptr_t>(subTable)),
                            kSubTableBeingCreated);
      CountSubTable(upper);
      return subTable;
    }
  }
}

// Key's bottom table, or null when a sub-table on the way is not there yet.
KyHashTable* FindBottomTable(KyHashTable* table, uint64_t key) {
  while (table != nullptr && IsUpperTable(table)) table = UsableSubTable(BucketOf(table, key));
  return table;
}

KyHashTable* FindOrCreateBottomTable(KyHashTable* table, uint64_t key) {
  while (IsUpperTable(table)) table = SubTableCreatingIfMissing(table, BucketOf(table, key));
  return table;
}

// ---------------------------------------------------------------------------
// Operations

// Looks key up with its bottom table and bucket held shared by reader and,
// when it is present, calls found(dataItem) before either lock is released.
// Returns whether key was found.
template <typename Reader, typename Found>
bool VisitUnderSharedLocks(KyHashTable* table, uint64_t key, Reader reader, Found found) {
  KyHashTable* bottom = FindBottomTable(table, key);
  if (bottom == nullptr) return false;
  const TableLocking<Reader> locking(bottom, reader);
  locking.acquireShared(&bottom->lock);
  bool present = false;
  if (kyrt::LoadRelaxed(&bottom->count) >= 1) {
    KyHashBucket* bucket = BucketOf(bottom, key);
    locking.acquireShared(&bucket->lock);
    if (KyHashEntry* entry = FindEntry(bottom, bucket, key)) {
      found(entry->dataItem);
      present = true;
    }
    locking.releaseShared(&bucket->lock);
  }
  locking.releaseShared(&bottom->lock);
  return present;
}

template <typename Reader, typename Acquire>
uint32_t LookUpAndAcquire(KyHashTable* table, uint64_t key, Reader reader, Acquire acquire,
                          void** dataItem) {
  constexpr uint32_t kAbsentResult = 1;
  uint32_t result = kAbsentResult;
  void* found = nullptr;
  VisitUnderSharedLocks(table, key, reader, [&](void* item) {
    found = item;
    result = acquire(item);
  });
  *dataItem = found;
  return result;
}

// The insert's first pass: the table shared and the bucket exclusive, enough
// to find a present key without stopping readers of other buckets.
KyHashEntry* FindBeforeInsert(KyHashTable* bottom, uint64_t key, void** storedItem) {
  const TableLocking<> locking(bottom);
  locking.acquireShared(&bottom->lock);
  KyHashBucket* bucket = BucketOf(bottom, key);
  locking.acquireExclusive(&bucket->lock);
  KyHashEntry* present = FindEntry(bottom, bucket, key);
  if (present != nullptr) *storedItem = present->dataItem;
  locking.releaseExclusive(&bucket->lock);
  locking.releaseShared(&bottom->lock);
  return present;
}

void* Insert(KyHashTable* table, uint64_t key, void* dataItem) {
  KyHashTable* bottom = FindOrCreateBottomTable(table, key);
  void* storedItem = nullptr;
  if (FindBeforeInsert(bottom, key, &storedItem) != nullptr) return storedItem;

  // Second pass under the table exclusive: another thread may have inserted
  // key between the passes.
  const TableLocking<> locking(bottom);
  locking.acquireExclusive(&bottom->lock);
  KyHashBucket* bucket = BucketOf(bottom, key);
  if (KyHashEntry* present = FindEntry(bottom, bucket, key)) {
    storedItem = present->dataItem;
    locking.releaseExclusive(&bottom->lock);
    return storedItem;
  }
  if (NeedsGrowthForOneMore(bottom)) {
    Grow(bottom);
    bucket = BucketOf(bottom, key);
  }
  PushEntry(bucket, NewEntry(bottom, key, dataItem));
  AddToCount(bottom, 1);
  locking.releaseExclusive(&bottom->lock);
  return dataItem;
}

void* Remove(KyHashTable* table, uint64_t key) {
  KyHashTable* bottom = FindBottomTable(table, key);
  if (bottom == nullptr) return nullptr;
  const TableLocking<> locking(bottom);
  locking.acquireShared(&bottom->lock);
  KyHashBucket* bucket = BucketOf(bottom, key);
  locking.acquireExclusive(&bucket->lock);
  void* dataItem = nullptr;
  if (KyHashEntry** link = FindLink(bottom, bucket, key)) {
    KyHashEntry* entry = *link;
    *link = entry->next;
    dataItem = entry->dataItem;
    ReleaseKey(bottom, entry->key);
    __KyFree(entry);
  }
  locking.releaseExclusive(&bucket->lock);
  locking.releaseShared(&bottom->lock);
  // An entry with a null data item leaves the count as it was (see the
  // invariants above): its removal looks like a miss to the caller.
  if (dataItem != nullptr) {
    locking.acquireExclusive(&bottom->lock);
    AddToCount(bottom, -1);
    locking.releaseExclusive(&bottom->lock);
  }
  return dataItem;
}

// ---------------------------------------------------------------------------
// Scans

struct ScanTotals {
  uint32_t removed = 0;
  uint32_t entries = 0;
};

// Frees an entry its caller has unlinked and counts it out of the table.
void DiscardEntry(KyHashTable* table, KyHashEntry* entry) {
  AddToCount(table, -1);
  __KyFree(entry);
}

// Scans one bottom table unless it is busy. decide(table, link, entry) runs
// with the table and the entry held exclusive; it either unlinks and
// discards the entry (returns true) or leaves it linked at *link (returns
// false; its lock is then released here).
template <typename Decide>
void ScanBottomTable(KyHashTable* table, Decide& decide, ScanTotals& totals) {
  totals.entries += static_cast<uint32_t>(kyrt::LoadRelaxed(&table->count));
  const TableLocking<> locking(table);
  if (locking.enabled() && (__KyIsExclusiveLockAcquiredByCallingThread(&table->lock) ||
                            !locking.tryAcquireExclusive(&table->lock))) {
    return;
  }
  const uint32_t bucketCount = static_cast<uint32_t>(table->bucketCount);
  for (uint32_t i = 0; i < bucketCount; ++i) {
    KyHashEntry** link = HeadLink(&table->buckets[i]);
    while (KyHashEntry* entry = *link) {
      if (!locking.tryAcquireExclusive(&entry->lock)) {
        link = &entry->next;
      } else if (decide(table, link, entry)) {
        ++totals.removed;
      } else {
        locking.releaseExclusive(&entry->lock);
        link = &entry->next;
      }
    }
  }
  locking.releaseExclusive(&table->lock);
}

template <typename Decide>
void ScanTable(KyHashTable* table, Decide& decide, ScanTotals& totals) {
  if (!IsUpperTable(table)) {
    ScanBottomTable(table, decide, totals);
    return;
  }
  const uint32_t bucketCount = static_cast<uint32_t>(table->bucketCount);
  for (uint32_t i = 0; i < bucketCount; ++i) {
    if (KyHashTable* subTable = UsableSubTable(&table->buckets[i])) {
      ScanTable(subTable, decide, totals);
    }
  }
}

template <typename Decide>
uint32_t RunScan(KyHashTable* table, Decide decide, uint32_t* entryCount) {
  ScanTotals totals;
  if (table != nullptr) ScanTable(table, decide, totals);
  if (entryCount != nullptr) *entryCount = totals.entries;
  return totals.removed;
}

// ---------------------------------------------------------------------------
// Destruction

void DestroyChain(const KyHashTable* table, KyHashEntry* entry,
                  KyHashDataReleaseFunction dataReleaseFunction) {
  while (entry != nullptr) {
    KyHashEntry* next = entry->next;
    if (dataReleaseFunction != nullptr) dataReleaseFunction(entry->dataItem);
    ReleaseKey(table, entry->key);
    __KyFree(entry);
    entry = next;
  }
}

void DestroyTable(KyHashTable* table, KyHashDataReleaseFunction dataReleaseFunction) {
  const uint32_t bucketCount = static_cast<uint32_t>(table->bucketCount);
  for (uint32_t i = 0; i < bucketCount; ++i) {
    KyHashBucket* bucket = &table->buckets[i];
    if (!IsUpperTable(table)) {
      DestroyChain(table, *HeadLink(bucket), dataReleaseFunction);
    } else if (KyHashTable* subTable = UsableSubTable(bucket)) {
      DestroyTable(subTable, dataReleaseFunction);
    }
  }
  __KyFree(table->buckets);
  __KyFree(table);
}

}  // namespace

extern "C" {

KyHashTable* __KyCreateHashTable(uint32_t flags, const KyHashFunction* hashFunctions,
                                 int32_t levels, KyHashKeyCompareFunction compareFunction,
                                 KyHashKeyReleaseFunction keyReleaseFunction, uint32_t category,
                                 uint32_t allocationOption) noexcept {
  const uint32_t flagsWord =
      kyrt::ComposeFlagsWord(flags & kKeptCreationBits, category, allocationOption);
  return NewTable(flagsWord, hashFunctions, ClampLevels(levels), compareFunction,
                  keyReleaseFunction);
}

void __KyDestroyHashTable(KyHashTable* table,
                          KyHashDataReleaseFunction dataReleaseFunction) noexcept {
  if (table != nullptr) DestroyTable(table, dataReleaseFunction);
}

void* __KyLookupHashTable(KyHashTable* table, uint64_t key) noexcept {
  void* found = nullptr;
  VisitUnderSharedLocks(table, key, CallingThread(), [&found](void* item) { found = item; });
  return found;
}

uint32_t __KyLookupAndAcquireHashTableDataItem(KyHashTable* table, uint64_t key,
                                               KyHashAcquireFunction acquireFunction,
                                               void** dataItem) noexcept {
  return LookUpAndAcquire(
      table, key, CallingThread(), [acquireFunction](void* item) { return acquireFunction(item); },
      dataItem);
}

uint32_t __KyLookupAndAcquireHashTableDataItemTid(KyHashTable* table, uint64_t key,
                                                  KyHashAcquireTidFunction acquireFunction,
                                                  void** dataItem, KyThreadId tid) noexcept {
  return LookUpAndAcquire(
      table, key, GivenThread{tid},
      [acquireFunction, tid](void* item) { return acquireFunction(item, tid); }, dataItem);
}

void* __KyInsertHashTableEntry(KyHashTable* table, uint64_t key, void* dataItem) noexcept {
  return table != nullptr ? Insert(table, key, dataItem) : nullptr;
}

void* __KyRemoveHashTableEntry(KyHashTable* table, uint64_t key) noexcept {
  return Remove(table, key);
}

uint32_t __KyScanHashTable(KyHashTable* table, KyHashMatchFunction matchFunction, void* context,
                           uint32_t remove, KyHashDisposeFunction disposeFunction,
                           uint32_t* entryCount) noexcept {
  // The key is released before the dispose function is asked, so an entry
  // the dispose function keeps stays linked with a key already released.
  auto decide = [=](KyHashTable* bottom, KyHashEntry** link, KyHashEntry* entry) {
    if (matchFunction(entry->dataItem, context) == 0 || remove == 0) return false;
    *link = entry->next;
    ReleaseKey(bottom, entry->key);
    if (disposeFunction != nullptr && disposeFunction(entry->dataItem) == 0) {
      *link = entry;
      return false;
    }
    DiscardEntry(bottom, entry);
    return true;
  };
  return RunScan(table, decide, entryCount);
}

uint32_t __KyScanAndEmptyHashTable(KyHashTable* table, KyHashDisposeFunction disposeFunction,
                                   uint32_t* entryCount) noexcept {
  auto decide = [=](KyHashTable* bottom, KyHashEntry** link, KyHashEntry* entry) {
    if (disposeFunction != nullptr && disposeFunction(entry->dataItem) == 0) return false;
    ReleaseKey(bottom, entry->key);
    *link = entry->next;
    DiscardEntry(bottom, entry);
    return true;
  };
  return RunScan(table, decide, entryCount);
}

}  // extern "C"
