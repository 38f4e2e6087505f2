// The range table: ranges stored as aligned power-of-two blocks in one
// hash table per block size.
//
// Storage. The hash table of level i (block size 2^(i + 1)) maps a block's
// start address to
//   - at the base level without KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK: the head
//     of a chain of KyRangeLink, newest first, one link per range that has
//     bytes in the 32-byte block;
//   - everywhere else: the KyRangeRecord of the one range the block belongs
//     to.
// A record's blockCount is the number of blocks that refer to it (a chain
// refers to it through its link). The record is freed when the count drops
// to 0, which happens when the last of its blocks is taken out.
//
// The hash tables hold links and records as non-null data items, so a
// removal always lowers a table's count. A chain's head is the data item of
// its hash entry; a new head is installed by removing the entry and
// inserting it again.
#include "kyrt/range_table.h"

#include <cstddef>

#include "containers/hash_table_internal.h"
#include "containers/range_table_blocks.h"
#include "kyrt/memory.h"

static_assert(sizeof(KyRangeTable) == 32, "KyRangeTable layout");
static_assert(offsetof(KyRangeTable, flags) == 0 && offsetof(KyRangeTable, baseLevel) == 4 &&
                  offsetof(KyRangeTable, topLevel) == 8 &&
                  offsetof(KyRangeTable, dataReleaseFunction) == 16 &&
                  offsetof(KyRangeTable, levelTables) == 24,
              "KyRangeTable fields");
static_assert(sizeof(KyRangeRecord) == 48, "KyRangeRecord layout");
static_assert(offsetof(KyRangeRecord, marker) == 0 && offsetof(KyRangeRecord, start) == 8 &&
                  offsetof(KyRangeRecord, end) == 16 && offsetof(KyRangeRecord, table) == 24 &&
                  offsetof(KyRangeRecord, data) == 32 && offsetof(KyRangeRecord, blockCount) == 40,
              "KyRangeRecord fields");
static_assert(sizeof(KyRangeLink) == 16, "KyRangeLink layout");
static_assert(offsetof(KyRangeLink, next) == 0 && offsetof(KyRangeLink, record) == 8,
              "KyRangeLink fields");

namespace {

namespace rt = kyrt::range_table;

constexpr uint32_t kKeptCreationBits = 0xFF;

// The table record and the level array use allocation option 0; records and
// links the table's own.
constexpr uint32_t kStructureAllocationOption = 0;

// The level hash tables: flags 0x06, that is no locking (callers serialise)
// and bit 0x04, which the hash table keeps in its flags word without
// examining it; 256 buckets, one level, plain keys.
constexpr uint32_t kLevelHashTableFlags = KY_HASH_TABLE_NO_LOCKING | 0x04u;
constexpr int32_t kLevelHashTableLevels = 1;

// Level i hashes with shift-xor function i - 3: function 1 at 32 bytes.
constexpr int32_t kShiftXorNumberBelowLevel = 3;

// What becomes of a range's data when the range goes.
enum class DataFate { kRelease, kKeep };

uint32_t CategoryOf(const KyRangeTable* table) {
  return kyrt::CategoryOfFlagsWord(table->flags);
}

uint32_t AllocationOptionOf(const KyRangeTable* table) {
  return kyrt::AllocationOptionOfFlagsWord(table->flags);
}

int32_t LevelCount(const KyRangeTable* table) {
  return table->topLevel - table->baseLevel + 1;
}

bool HoldsChains(const KyRangeTable* table, int32_t level) {
  return level == table->baseLevel && (table->flags & KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK) == 0;
}

bool IsRecord(const void* item) {
  return *static_cast<const uint64_t*>(item) == KY_RANGE_RECORD_MARKER;
}

bool Holds(const KyRangeRecord* record, uint64_t address) {
  return record->start <= address && address < record->end;
}

bool Meets(const KyRangeRecord* record, uint64_t spanStart, uint64_t spanEnd) {
  return record->start < spanEnd && spanStart < record->end;
}

bool LiesInside(const KyRangeRecord* record, uint64_t low, uint64_t high) {
  return record->start >= low && record->end <= high;
}

KyHashTable*& LevelTable(KyRangeTable* table, int32_t level) {
  return table->levelTables[level - table->baseLevel];
}

KyHashTable* LevelTableCreatingIfMissing(KyRangeTable* table, int32_t level) {
  KyHashTable*& levelTable = LevelTable(table, level);
  if (levelTable == nullptr) {
    const KyHashFunction hash =
        kyrt::ShiftXorHashFunction(static_cast<uint32_t>(level - kShiftXorNumberBelowLevel));
    levelTable = __KyCreateHashTable(kLevelHashTableFlags, &hash, kLevelHashTableLevels, nullptr,
                                     nullptr, CategoryOf(table), AllocationOptionOf(table));
  }
  return levelTable;
}

// Makes item the data of the block's hash entry; a null item removes the
// entry.
void ReplaceBlockItem(KyHashTable* levelTable, uint64_t blockStart, void* item) {
  __KyRemoveHashTableEntry(levelTable, blockStart);
  if (item != nullptr) __KyInsertHashTableEntry(levelTable, blockStart, item);
}

// ---------------------------------------------------------------------------
// Records and links

KyRangeRecord* NewRecord(KyRangeTable* table, uint64_t start, uint64_t end, uint64_t data) {
  auto* record = static_cast<KyRangeRecord*>(
      __KyMalloc(CategoryOf(table), sizeof(KyRangeRecord), AllocationOptionOf(table)));
  record->marker = KY_RANGE_RECORD_MARKER;
  record->start = start;
  record->end = end;
  record->table = table;
  record->data = data;
  record->blockCount = 0;
  return record;
}

KyRangeLink* NewLink(const KyRangeTable* table, KyRangeRecord* record, KyRangeLink* next) {
  auto* link = static_cast<KyRangeLink*>(
      __KyMalloc(CategoryOf(table), sizeof(KyRangeLink), AllocationOptionOf(table)));
  link->next = next;
  link->record = record;
  return link;
}

// One block no longer refers to record; the last one frees it, releasing its
// data first when fate says so.
void DropBlockReference(KyRangeRecord* record, DataFate fate) {
  record->blockCount -= 1;
  if (record->blockCount != 0) return;
  const KyRangeDataReleaseFunction release = record->table->dataReleaseFunction;
  if (fate == DataFate::kRelease && release != nullptr) release(record->data);
  __KyFree(record);
}

// The record of the first link of chain (newest first) that accepts, or
// null.
template <typename Accepts>
KyRangeRecord* FirstLinkedRecord(KyRangeLink* chain, Accepts accepts) {
  for (KyRangeLink* link = chain; link != nullptr; link = link->next) {
    if (accepts(link->record)) return link->record;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// Insert

void AddLinkToChain(KyRangeTable* table, KyHashTable* levelTable, uint64_t blockStart,
                    KyRangeRecord* record) {
  auto* head = static_cast<KyRangeLink*>(__KyLookupHashTable(levelTable, blockStart));
  KyRangeLink* link = NewLink(table, record, head);
  if (head != nullptr) {
    ReplaceBlockItem(levelTable, blockStart, link);
  } else {
    __KyInsertHashTableEntry(levelTable, blockStart, link);
  }
}

// Stores one block of record's range. A block already held by another
// record stays with it (the first range wins) and does not count.
void StoreBlock(KyRangeTable* table, KyRangeRecord* record, int32_t level, uint64_t blockStart) {
  KyHashTable* levelTable = LevelTableCreatingIfMissing(table, level);
  if (HoldsChains(table, level)) {
    AddLinkToChain(table, levelTable, blockStart, record);
  } else if (__KyInsertHashTableEntry(levelTable, blockStart, record) != record) {
    return;
  }
  record->blockCount += 1;
}

void InsertRange(KyRangeTable* table, uint64_t start, uint64_t end, uint64_t data) {
  KyRangeRecord* record = NewRecord(table, start, end, data);
  rt::DecomposeRange(start, end, table->topLevel, [&](int32_t level, uint64_t blockStart) {
    StoreBlock(table, record, level, blockStart);
  });
  // Nothing refers to a record whose every block was taken (or that had no
  // block at all): it was never stored.
  if (record->blockCount == 0) __KyFree(record);
}

// ---------------------------------------------------------------------------
// Lookups

struct BlockHit {
  int32_t level;
  uint64_t blockStart;
  void* item;  // a record, or the head of a chain when the level holds chains
};

// One level's part of a probe: the block holding the address at that level,
// and where the walk of its bucket's chain has got to.
struct LevelProbe {
  int32_t level;
  uint64_t blockStart;
  const KyHashTable* levelTable;
  const KyHashEntry* entry;  // the next entry to compare; null once the chain is done
  bool found;                // entry holds the block
};

// Advances one level's chain walk by one entry, unless it has its answer.
void StepProbe(LevelProbe& probe) {
  if (probe.entry == nullptr || probe.found) return;
  if (kyrt::KeysEqual(probe.levelTable, probe.entry->key, probe.blockStart)) {
    probe.found = true;
    return;
  }
  probe.entry = probe.entry->next;
  __builtin_prefetch(probe.entry);
}

// Probes the block holding address at each level from fromLevel down to the
// base level; the first block found, if any.
//
// Each level is the hash table's lookup, done inline (the level tables have
// no locking). The levels are independent until one answers, and a lookup
// is a chain of cache misses per level, so the levels are walked in lock
// step: every level's bucket is fetched, then every chain's first entry,
// then every second entry, and so on, and the misses of the levels overlap
// instead of following one another. The answer is still the topmost level
// that holds the block: a lower level's hit waits until every level above
// has finished its chain.
bool ProbeDownFrom(KyRangeTable* table, int32_t fromLevel, uint64_t address, BlockHit* hit) {
  LevelProbe probes[rt::kLevelCount];
  const KyHashBucket* buckets[rt::kLevelCount];
  int32_t probeCount = 0;
  for (int32_t level = fromLevel; level >= table->baseLevel; --level) {
    KyHashTable* levelTable = LevelTable(table, level);
    if (levelTable == nullptr || levelTable->count < 1) continue;
    const uint64_t blockStart = rt::BlockStart(address, level);
    buckets[probeCount] = kyrt::BucketOf(levelTable, blockStart);
    __builtin_prefetch(buckets[probeCount]);
    probes[probeCount++] = LevelProbe{level, blockStart, levelTable, nullptr, false};
  }
  for (int32_t i = 0; i < probeCount; ++i) {
    probes[i].entry = static_cast<const KyHashEntry*>(buckets[i]->contents);
    __builtin_prefetch(probes[i].entry);
  }
  int32_t settled = 0;  // probes[0, settled) have finished without finding the block
  while (settled < probeCount) {
    for (int32_t i = settled; i < probeCount; ++i) StepProbe(probes[i]);
    while (settled < probeCount && probes[settled].entry == nullptr) ++settled;
    if (settled < probeCount && probes[settled].found) {
      const LevelProbe& probe = probes[settled];
      *hit = BlockHit{probe.level, probe.blockStart, probe.entry->dataItem};
      return true;
    }
  }
  return false;
}

uint64_t BlockEnd(const BlockHit& hit) {
  return hit.blockStart + rt::BlockSize(hit.level);
}

// The range holding address as the lookup sees it: the first block found
// from the top level down decides. A chain gives its first range that holds
// the address; any other block its record, whose block lies in the range.
KyRangeRecord* RecordFor(KyRangeTable* table, uint64_t address) {
  BlockHit hit;
  if (!ProbeDownFrom(table, table->topLevel, address, &hit)) return nullptr;
  if (HoldsChains(table, hit.level)) {
    return FirstLinkedRecord(
        static_cast<KyRangeLink*>(hit.item),
        [address](const KyRangeRecord* record) { return Holds(record, address); });
  }
  return static_cast<KyRangeRecord*>(hit.item);
}

// ---------------------------------------------------------------------------
// Taking ranges out

// Unlinks the link of the range starting at start from a chain; returns its
// record, or null when the chain has no such range.
KyRangeRecord* UnlinkFromChain(KyHashTable* levelTable, uint64_t blockStart, uint64_t start) {
  auto* head = static_cast<KyRangeLink*>(__KyLookupHashTable(levelTable, blockStart));
  KyRangeLink* previous = nullptr;
  for (KyRangeLink* link = head; link != nullptr; previous = link, link = link->next) {
    if (link->record->start != start) continue;
    if (previous != nullptr) {
      previous->next = link->next;
    } else {
      ReplaceBlockItem(levelTable, blockStart, link->next);
    }
    KyRangeRecord* record = link->record;
    __KyFree(link);
    return record;
  }
  return nullptr;
}

// Removes a block that holds the record of the range starting at start;
// returns the record, or null when the block holds another range or none.
KyRangeRecord* TakeRecordBlock(KyHashTable* levelTable, uint64_t blockStart, uint64_t start) {
  auto* record = static_cast<KyRangeRecord*>(__KyLookupHashTable(levelTable, blockStart));
  if (record == nullptr || record->start != start) return nullptr;
  __KyRemoveHashTableEntry(levelTable, blockStart);
  return record;
}

// Takes every block of [start, end) out, block by block; the record goes
// with its last block.
void TakeOutRange(KyRangeTable* table, uint64_t start, uint64_t end, DataFate fate) {
  rt::DecomposeRange(start, end, table->topLevel, [&](int32_t level, uint64_t blockStart) {
    KyHashTable* levelTable = LevelTable(table, level);
    if (levelTable == nullptr) return;
    KyRangeRecord* record = HoldsChains(table, level)
                                ? UnlinkFromChain(levelTable, blockStart, start)
                                : TakeRecordBlock(levelTable, blockStart, start);
    if (record != nullptr) DropBlockReference(record, fate);
  });
}

struct Bounds {
  uint64_t start;
  uint64_t end;
};

Bounds TakeOutRecordRange(KyRangeTable* table, const KyRangeRecord* record, DataFate fate) {
  const Bounds bounds{record->start, record->end};  // the record may go on the way
  TakeOutRange(table, bounds.start, bounds.end, fate);
  return bounds;
}

// Moves a walk on to next, unless next is not above the position (the walk
// wrapped past the top of the address space) or has reached the limit.
bool AdvanceWalk(uint64_t* position, uint64_t next, uint64_t limit) {
  if (next <= *position || next >= limit) return false;
  *position = next;
  return true;
}

// ---------------------------------------------------------------------------
// Destroy span

// The reported span: [start, end) widened by every range destroyed.
struct ReportedSpan {
  uint64_t start;
  uint64_t end;

  void include(const Bounds& destroyed) {
    if (destroyed.start < start) start = destroyed.start;
    if (destroyed.end > end) end = destroyed.end;
  }
};

// Destroys the ranges of one block found by the interior walk that meet the
// span: a record whole, a chain range by range (the chain changes under the
// walk, so it is looked up afresh for each range).
void DestroyBlockRangesMeeting(KyRangeTable* table, const BlockHit& hit, uint64_t spanStart,
                               uint64_t spanEnd) {
  if (!HoldsChains(table, hit.level)) {
    auto* record = static_cast<KyRangeRecord*>(hit.item);
    if (Meets(record, spanStart, spanEnd)) {
      TakeOutRecordRange(table, record, DataFate::kRelease);
    }
    return;
  }
  KyHashTable* levelTable = LevelTable(table, hit.level);
  auto meetsSpan = [spanStart, spanEnd](const KyRangeRecord* record) {
    return Meets(record, spanStart, spanEnd);
  };
  while (
      KyRangeRecord* record = FirstLinkedRecord(
          static_cast<KyRangeLink*>(__KyLookupHashTable(levelTable, hit.blockStart)), meetsSpan)) {
    TakeOutRecordRange(table, record, DataFate::kRelease);
  }
}

// Walks from `from` up to limit in the span [spanStart, spanEnd), probing
// at each position from the largest level that fits what is left, and
// destroys what it finds.
void DestroyInterior(KyRangeTable* table, uint64_t from, uint64_t limit, uint64_t spanStart,
                     uint64_t spanEnd) {
  if (from >= limit) return;
  uint64_t position = from;
  for (;;) {
    BlockHit hit;
    uint64_t next = position + rt::kSmallestBlockSize;
    if (ProbeDownFrom(table, rt::LargestFittingLevel(position, limit, table->topLevel), position,
                      &hit)) {
      DestroyBlockRangesMeeting(table, hit, spanStart, spanEnd);
      next = BlockEnd(hit);
    }
    if (!AdvanceWalk(&position, next, limit)) return;
  }
}

// Destroys the range that holds address (with KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK
// the lookup may answer with a range that only shares address's 32-byte
// block: that one is left to the interior walk, which destroys it if it
// meets the span).
bool DestroyRangeHolding(KyRangeTable* table, uint64_t address, Bounds* destroyed) {
  KyRangeRecord* record = RecordFor(table, address);
  if (record == nullptr || !Holds(record, address)) return false;
  *destroyed = TakeOutRecordRange(table, record, DataFate::kRelease);
  return true;
}

ReportedSpan DestroySpan(KyRangeTable* table, uint64_t start, uint64_t length) {
  const uint64_t end = start + length;
  ReportedSpan reported{start, end};
  if (length == 0) return reported;
  Bounds destroyed;
  if (DestroyRangeHolding(table, start, &destroyed)) {
    reported.include(destroyed);
    if (destroyed.end > end) return reported;
  }
  uint64_t interiorLimit = end;
  if (DestroyRangeHolding(table, end - 1, &destroyed)) {
    reported.include(destroyed);
    interiorLimit = destroyed.start;
  }
  DestroyInterior(table, rt::BlockStart(start, rt::kBaseLevel), interiorLimit, start, end);
  return reported;
}

// ---------------------------------------------------------------------------
// Remove first

// The range of a block found by the walk that lies inside [low, high]: the
// record itself, or a chain's first such range.
KyRangeRecord* RangeInside(KyRangeTable* table, const BlockHit& hit, uint64_t low, uint64_t high) {
  if (HoldsChains(table, hit.level)) {
    return FirstLinkedRecord(
        static_cast<KyRangeLink*>(hit.item),
        [low, high](const KyRangeRecord* record) { return LiesInside(record, low, high); });
  }
  auto* record = static_cast<KyRangeRecord*>(hit.item);
  return LiesInside(record, low, high) ? record : nullptr;
}

uint64_t RemoveFirst(KyRangeTable* table, uint64_t low, uint64_t high) {
  uint64_t position = rt::BlockStart(low, rt::kBaseLevel);
  if (position >= high) return 0;
  for (;;) {
    BlockHit hit;
    uint64_t next = position + rt::kSmallestBlockSize;
    if (ProbeDownFrom(table, rt::LargestFittingLevel(position, high, table->topLevel), position,
                      &hit)) {
      if (KyRangeRecord* record = RangeInside(table, hit, low, high)) {
        const uint64_t data = record->data;
        TakeOutRecordRange(table, record, DataFate::kKeep);
        return data;
      }
      next = BlockEnd(hit);
    }
    if (!AdvanceWalk(&position, next, high)) return 0;
  }
}

// ---------------------------------------------------------------------------
// Scan and empty

// The dispose function of the level tables' scan-and-empty: every item goes.
// A record loses one block reference; a chain loses each of its links, and
// each link's record one reference.
uint32_t DisposeBlockItem(void* item) {
  constexpr uint32_t kLetItGo = 1;
  if (IsRecord(item)) {
    DropBlockReference(static_cast<KyRangeRecord*>(item), DataFate::kRelease);
    return kLetItGo;
  }
  auto* link = static_cast<KyRangeLink*>(item);
  while (link != nullptr) {
    KyRangeLink* next = link->next;
    DropBlockReference(link->record, DataFate::kRelease);
    __KyFree(link);
    link = next;
  }
  return kLetItGo;
}

}  // namespace

extern "C" {

KyRangeTable* __KyCreateRangeTable(uint64_t maximumBlockSize, uint32_t category,
                                   uint32_t allocationOption, uint32_t flags,
                                   KyRangeDataReleaseFunction dataReleaseFunction) noexcept {
  auto* table = static_cast<KyRangeTable*>(
      __KyMalloc(category, sizeof(KyRangeTable), kStructureAllocationOption));
  table->flags = kyrt::ComposeFlagsWord(flags & kKeptCreationBits, category, allocationOption);
  table->baseLevel = rt::kBaseLevel;
  table->topLevel = rt::TopLevelFor(maximumBlockSize);
  table->dataReleaseFunction = dataReleaseFunction;
  const int32_t levelCount = LevelCount(table);
  table->levelTables = static_cast<KyHashTable**>(
      __KyMalloc(category, sizeof(KyHashTable*) * static_cast<size_t>(levelCount),
                 kStructureAllocationOption));
  for (int32_t i = 0; i < levelCount; ++i) table->levelTables[i] = nullptr;
  return table;
}

void __KyDestroyRangeTable(KyRangeTable* table) noexcept {
  if (table == nullptr) return;
  if (table->levelTables != nullptr) {
    for (int32_t i = 0; i < LevelCount(table); ++i) {
      __KyDestroyHashTable(table->levelTables[i], nullptr);
    }
    __KyFree(table->levelTables);
  }
  __KyFree(table);
}

void __KyInsertRangeTableEntry(KyRangeTable* table, uint64_t start, uint64_t end,
                               uint64_t data) noexcept {
  if (table == nullptr || table->levelTables == nullptr) return;
  InsertRange(table, start, end, data);
}

uint64_t __KyLookupRangeTable(KyRangeTable* table, uint64_t address, uint64_t* start,
                              uint64_t* end) noexcept {
  if (start != nullptr) *start = 0;
  if (end != nullptr) *end = 0;
  if (table == nullptr || table->levelTables == nullptr) return 0;
  const KyRangeRecord* record = RecordFor(table, address);
  if (record == nullptr) return 0;
  if (start != nullptr) *start = record->start;
  if (end != nullptr) *end = record->end;
  return record->data;
}

void __KyDestroyRangeTableEntry(KyRangeTable* table, uint64_t start, uint64_t end) noexcept {
  if (table == nullptr || table->levelTables == nullptr) return;
  TakeOutRange(table, start, end, DataFate::kRelease);
}

void __KyRemoveRangeTableEntry(KyRangeTable* table, uint64_t start, uint64_t end) noexcept {
  if (table == nullptr || table->levelTables == nullptr) return;
  TakeOutRange(table, start, end, DataFate::kKeep);
}

void __KyDestroyRangeTableSpan(KyRangeTable* table, uint64_t start, uint64_t length,
                               uint64_t* spanStart, uint64_t* spanEnd) noexcept {
  ReportedSpan reported{start, start + length};
  if (table != nullptr && table->levelTables != nullptr) {
    reported = DestroySpan(table, start, length);
  }
  if (spanStart != nullptr) *spanStart = reported.start;
  if (spanEnd != nullptr) *spanEnd = reported.end;
}

uint64_t __KyRemoveFirstRangeTableEntry(KyRangeTable* table, uint64_t low, uint64_t high) noexcept {
  if (table == nullptr || table->levelTables == nullptr) return 0;
  return RemoveFirst(table, low, high);
}

void __KyScanAndEmptyRangeTable(KyRangeTable* table) noexcept {
  if (table == nullptr || table->levelTables == nullptr) return;
  for (int32_t i = 0; i < LevelCount(table); ++i) {
    __KyScanAndEmptyHashTable(table->levelTables[i], DisposeBlockItem, nullptr);
  }
}

}  // extern "C"
