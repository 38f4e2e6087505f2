// The range table: block geometry, creation, insert and lookup, destroy and
// remove, destroy span, remove first, scan and empty.
#include "kyrt/range_table.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "containers/hash_table_internal.h"
#include "containers/hash_table_test_support.h"
#include "containers/range_table_blocks.h"
#include "kyrt/memory.h"

namespace {

namespace rt = kyrt::range_table;
using kyrt_test::SlabOf;

using Block = std::pair<int32_t, uint64_t>;  // (level, block start)
using Blocks = std::vector<Block>;

Blocks Decompose(uint64_t start, uint64_t end, int32_t topLevel) {
  Blocks blocks;
  rt::DecomposeRange(start, end, topLevel, [&](int32_t level, uint64_t blockStart) {
    blocks.emplace_back(level, blockStart);
  });
  return blocks;
}

// An independent model of the decomposition: walking up from start, take
// the largest aligned block (64 bytes and up) that starts at the position
// and ends inside the range; where none fits, a 32-byte block (which alone
// may reach outside the range, at its two ends).
Blocks GreedyModel(uint64_t start, uint64_t end, int32_t topLevel) {
  Blocks blocks;
  uint64_t position = start & ~uint64_t{31};
  while (position < end) {
    int32_t level = rt::kBaseLevel;
    for (int32_t candidate = topLevel; candidate > rt::kBaseLevel; --candidate) {
      const uint64_t size = uint64_t{2} << candidate;
      if (position >= start && position % size == 0 && end - position >= size) {
        level = candidate;
        break;
      }
    }
    blocks.emplace_back(level, position);
    const uint64_t next = position + (uint64_t{2} << level);
    if (next < position) break;  // the block ends the address space
    position = next;
  }
  return blocks;
}

// ---------------------------------------------------------------------------
// Layout and geometry

TEST(RangeTableLayout, RecordsHaveTheirFixedSizesAndOffsets) {
  static_assert(sizeof(KyRangeTable) == 32);
  static_assert(offsetof(KyRangeTable, flags) == 0);
  static_assert(offsetof(KyRangeTable, baseLevel) == 4);
  static_assert(offsetof(KyRangeTable, topLevel) == 8);
  static_assert(offsetof(KyRangeTable, dataReleaseFunction) == 16);
  static_assert(offsetof(KyRangeTable, levelTables) == 24);
  static_assert(sizeof(KyRangeRecord) == 48);
  static_assert(offsetof(KyRangeRecord, marker) == 0);
  static_assert(offsetof(KyRangeRecord, start) == 8);
  static_assert(offsetof(KyRangeRecord, end) == 16);
  static_assert(offsetof(KyRangeRecord, table) == 24);
  static_assert(offsetof(KyRangeRecord, data) == 32);
  static_assert(offsetof(KyRangeRecord, blockCount) == 40);
  static_assert(sizeof(KyRangeLink) == 16);
  static_assert(offsetof(KyRangeLink, next) == 0);
  static_assert(offsetof(KyRangeLink, record) == 8);
  EXPECT_EQ(KY_RANGE_RECORD_MARKER, 0xFFFFFFFFFFFFFFFFull);
}

TEST(RangeTableGeometry, FixedTablesGiveEachLevelsBlockSizeAndLog) {
  ASSERT_EQ(rt::kBlockSizes.size(), 27u);
  ASSERT_EQ(rt::kBlockLogs.size(), 27u);
  for (int32_t level = 0; level < 27; ++level) {
    EXPECT_EQ(rt::kBlockSizes[level], uint64_t{1} << (level + 1));
    EXPECT_EQ(rt::kBlockLogs[level], static_cast<uint32_t>(level + 1));
  }
  EXPECT_EQ(rt::BlockSize(KY_RANGE_TABLE_BASE_LEVEL), 32u);
  EXPECT_EQ(rt::BlockSize(KY_RANGE_TABLE_MAX_TOP_LEVEL), 128u << 20);
}

TEST(RangeTableGeometry, TopLevelKeepsTheMaximumBlockBetween32BytesAnd128MiB) {
  EXPECT_EQ(rt::TopLevelFor(1), 4);
  EXPECT_EQ(rt::TopLevelFor(32), 4);
  EXPECT_EQ(rt::TopLevelFor(63), 4);
  EXPECT_EQ(rt::TopLevelFor(64), 5);
  EXPECT_EQ(rt::TopLevelFor(4096), 11);
  EXPECT_EQ(rt::TopLevelFor(8191), 11);
  EXPECT_EQ(rt::TopLevelFor(uint64_t{1} << 27), 26);
  EXPECT_EQ(rt::TopLevelFor((uint64_t{1} << 28) - 1), 26);
  EXPECT_EQ(rt::TopLevelFor(uint64_t{1} << 40), 26);
  EXPECT_EQ(rt::TopLevelFor(~uint64_t{0}), 26);
}

TEST(RangeTableGeometry, LargestFittingLevelFollowsTheSpanLength) {
  EXPECT_EQ(rt::LargestFittingLevel(0x1000, 0x1001, 11), 4);
  EXPECT_EQ(rt::LargestFittingLevel(0x1000, 0x1020, 11), 4);
  EXPECT_EQ(rt::LargestFittingLevel(0x1000, 0x103F, 11), 4);
  EXPECT_EQ(rt::LargestFittingLevel(0x1000, 0x1040, 11), 5);
  EXPECT_EQ(rt::LargestFittingLevel(0x1001, 0x2000, 11), 10);
  EXPECT_EQ(rt::LargestFittingLevel(0x1000, 0x2000, 11), 11);
  EXPECT_EQ(rt::LargestFittingLevel(0, uint64_t{1} << 30, 11), 11);
  EXPECT_EQ(rt::LargestFittingLevel(0, uint64_t{1} << 30, 4), 4);
  EXPECT_EQ(rt::LargestFittingLevel(0, ~uint64_t{0}, 26), 26);
}

TEST(RangeTableGeometry, AnAlignedSpanOfOneBlockIsThatBlock) {
  EXPECT_EQ(Decompose(0x1000, 0x1040, 11), (Blocks{{5, 0x1000}}));
  EXPECT_EQ(Decompose(0x1000, 0x2000, 11), (Blocks{{11, 0x1000}}));
  EXPECT_EQ(Decompose(0x1000, 0x1020, 11), (Blocks{{4, 0x1000}}));
}

TEST(RangeTableGeometry, OnlyTheEndsAreRoundedOutwardTo32Bytes) {
  EXPECT_EQ(Decompose(0x1010, 0x1018, 11), (Blocks{{4, 0x1000}}));
  EXPECT_EQ(Decompose(0x1008, 0x1100, 11),
            (Blocks{{4, 0x1000}, {4, 0x1020}, {5, 0x1040}, {6, 0x1080}}));
  EXPECT_EQ(Decompose(0x1000, 0x1050, 11), (Blocks{{5, 0x1000}, {4, 0x1040}}));
  EXPECT_EQ(Decompose(0x1020, 0x10A0, 11), (Blocks{{4, 0x1020}, {5, 0x1040}, {4, 0x1080}}));
  EXPECT_EQ(Decompose(0x101F, 0x1021, 11), (Blocks{{4, 0x1000}, {4, 0x1020}}));
}

TEST(RangeTableGeometry, SpansLongerThanTheTopBlockUseRunsOfTopBlocks) {
  const uint64_t top = uint64_t{1} << 27;
  EXPECT_EQ(Decompose(0, 3 * top + 32, 26),
            (Blocks{{26, 0}, {26, top}, {26, 2 * top}, {4, 3 * top}}));
  EXPECT_EQ(Decompose(0x1008, 0x1068, 4),
            (Blocks{{4, 0x1000}, {4, 0x1020}, {4, 0x1040}, {4, 0x1060}}));
}

TEST(RangeTableGeometry, EmptyRangesHaveNoBlocks) {
  EXPECT_TRUE(Decompose(0x1000, 0x1000, 11).empty());
  EXPECT_TRUE(Decompose(0x2000, 0x1000, 11).empty());
}

TEST(RangeTableGeometry, ASpanAtTheTopOfTheAddressSpaceEnds) {
  const uint64_t end = ~uint64_t{0};
  const Blocks blocks = Decompose(end - 0x100, end, 26);
  ASSERT_FALSE(blocks.empty());
  EXPECT_EQ(blocks.back(), (Block{4, end & ~uint64_t{31}}));
  EXPECT_EQ(blocks, GreedyModel(end - 0x100, end, 26));
}

TEST(RangeTableGeometry, DecompositionIsTheFewestAlignedBlocksForRandomRanges) {
  std::mt19937_64 random(0xB10C5);
  for (int32_t top : {4, 5, 11, 20, 26}) {
    for (int i = 0; i < 4000; ++i) {
      const uint64_t start = random() & 0xFFFFFFFFFull;
      // Up to 2048 of the largest blocks, of every magnitude.
      const uint64_t longest = uint64_t{2048} << (top + 1);
      const uint64_t length = 1 + (random() >> (random() % 64)) % longest;
      ASSERT_EQ(Decompose(start, start + length, top), GreedyModel(start, start + length, top))
          << std::hex << start << " +" << length << " top " << top;
    }
  }
}

// ---------------------------------------------------------------------------
// The table

std::vector<uint64_t> g_released;
KyRangeTable* g_table = nullptr;
std::vector<int32_t> g_entriesAtRelease;  // level-table entries left at each release

int32_t StoredBlocks(const KyRangeTable* table) {
  int32_t blocks = 0;
  for (int32_t level = table->baseLevel; level <= table->topLevel; ++level) {
    const KyHashTable* levelTable = table->levelTables[level - table->baseLevel];
    if (levelTable != nullptr) blocks += levelTable->count;
  }
  return blocks;
}

void RecordRelease(uint64_t data) {
  g_released.push_back(data);
  if (g_table != nullptr) g_entriesAtRelease.push_back(StoredBlocks(g_table));
}

class RangeTable : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_released.clear();
    g_entriesAtRelease.clear();
  }
  void TearDown() override {
    __KyScanAndEmptyRangeTable(table_);
    __KyDestroyRangeTable(table_);
    g_table = nullptr;
  }

  KyRangeTable* Create(uint64_t maximumBlock, uint32_t flags = 0) {
    table_ = __KyCreateRangeTable(maximumBlock, 0, 0, flags, RecordRelease);
    g_table = table_;
    return table_;
  }

  KyHashTable* Level(int32_t level) const { return table_->levelTables[level - 4]; }

  void* BlockItem(int32_t level, uint64_t blockStart) const {
    return Level(level) != nullptr ? __KyLookupHashTable(Level(level), blockStart) : nullptr;
  }

  uint64_t Lookup(uint64_t address) {
    return __KyLookupRangeTable(table_, address, nullptr, nullptr);
  }

  std::pair<uint64_t, uint64_t> LookupBounds(uint64_t address) {
    uint64_t start = 1, end = 1;
    __KyLookupRangeTable(table_, address, &start, &end);
    return {start, end};
  }

  KyRangeTable* table_ = nullptr;
};

using Bounds = std::pair<uint64_t, uint64_t>;

TEST_F(RangeTable, CreationComposesTheFlagsWordAndLevels) {
  const uint32_t category = __KyRegisterMemoryCategory("range table test");
  table_ = __KyCreateRangeTable(4096, category, 3, 0xFFFF, RecordRelease);
  g_table = table_;
  EXPECT_EQ(table_->flags, 0xFFu | (category << 8) | (3u << 16));
  EXPECT_EQ(table_->baseLevel, 4);
  EXPECT_EQ(table_->topLevel, 11);
  EXPECT_EQ(table_->dataReleaseFunction, &RecordRelease);
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(table_->levelTables[i], nullptr);
  EXPECT_EQ(SlabOf(table_).category, category);
  EXPECT_EQ(SlabOf(table_).slabShift, 0u);
  EXPECT_EQ(SlabOf(table_->levelTables).category, category);
  EXPECT_EQ(SlabOf(table_->levelTables).slabShift, 0u);
}

TEST_F(RangeTable, MaximumBlockSizeOneGivesOnlyThe32ByteLevel) {
  Create(1);
  EXPECT_EQ(table_->topLevel, 4);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 7);
  EXPECT_EQ(Level(4)->count, 8);
  EXPECT_EQ(Lookup(0x10FF), 7u);
  EXPECT_EQ(Lookup(0x1100), 0u);
}

TEST_F(RangeTable, MaximumBlockSizeAbove128MiBIsCutTo128MiB) {
  Create(uint64_t{1} << 40);
  EXPECT_EQ(table_->topLevel, 26);
  const uint64_t block = uint64_t{1} << 27;
  __KyInsertRangeTableEntry(table_, 0, 2 * block, 9);
  EXPECT_EQ(Level(26)->count, 2);
  EXPECT_EQ(StoredBlocks(table_), 2);
  EXPECT_EQ(Lookup(2 * block - 1), 9u);
}

TEST_F(RangeTable, ARangeOf64AlignedBytesIsOneBlockFoundUpToItsLastByte) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1040, 0xD1);
  ASSERT_NE(Level(5), nullptr);
  EXPECT_EQ(Level(5)->count, 1);
  EXPECT_EQ(StoredBlocks(table_), 1);
  for (int32_t level = 4; level <= 11; ++level) {
    if (level != 5) {
      EXPECT_EQ(Level(level), nullptr) << level;
    }
  }
  uint64_t start = 0, end = 0;
  EXPECT_EQ(__KyLookupRangeTable(table_, 0x103F, &start, &end), 0xD1u);
  EXPECT_EQ(start, 0x1000u);
  EXPECT_EQ(end, 0x1040u);
  EXPECT_EQ(Lookup(0x1000), 0xD1u);
  EXPECT_EQ(__KyLookupRangeTable(table_, 0x1040, &start, &end), 0u);
  EXPECT_EQ(start, 0u);
  EXPECT_EQ(end, 0u);
  EXPECT_EQ(Lookup(0xFFF), 0u);
}

TEST_F(RangeTable, LevelTablesAreUnlockedOneLevelShiftXorTablesOfTheRangeTable) {
  const uint32_t category = __KyRegisterMemoryCategory("range levels");
  table_ = __KyCreateRangeTable(4096, category, 2, 0, RecordRelease);
  g_table = table_;
  __KyInsertRangeTableEntry(table_, 0x1008, 0x1100, 1);  // levels 4, 5 and 6
  for (int32_t level = 4; level <= 6; ++level) {
    const KyHashTable* levelTable = Level(level);
    ASSERT_NE(levelTable, nullptr);
    EXPECT_EQ(levelTable->flags, 0x06u | (category << 8) | (2u << 16));
    EXPECT_EQ(levelTable->levelsBelow, 0);
    EXPECT_EQ(levelTable->bucketCount, 256);
    EXPECT_EQ(levelTable->hashFunctions[0], kyrt::ShiftXorHashFunction(level - 3));
    EXPECT_EQ(levelTable->compareFunction, nullptr);
    EXPECT_EQ(levelTable->keyReleaseFunction, nullptr);
    EXPECT_EQ(SlabOf(levelTable).category, category);
  }
  auto* record = static_cast<const KyRangeRecord*>(BlockItem(5, 0x1040));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(SlabOf(record).category, category);
  EXPECT_EQ(SlabOf(record).slabShift, 2u);
  EXPECT_EQ(SlabOf(BlockItem(4, 0x1000)).slabShift, 2u);  // a link
}

TEST_F(RangeTable, ARecordCountsItsBlocksAndChainsLinkToIt) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1008, 0x1100, 0x77);
  auto* record = static_cast<const KyRangeRecord*>(BlockItem(6, 0x1080));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->marker, KY_RANGE_RECORD_MARKER);
  EXPECT_EQ(record->start, 0x1008u);
  EXPECT_EQ(record->end, 0x1100u);
  EXPECT_EQ(record->table, table_);
  EXPECT_EQ(record->data, 0x77u);
  EXPECT_EQ(record->blockCount, 4u);
  EXPECT_EQ(BlockItem(5, 0x1040), record);
  for (uint64_t block : {0x1000, 0x1020}) {
    auto* link = static_cast<const KyRangeLink*>(BlockItem(4, block));
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->record, record);
    EXPECT_EQ(link->next, nullptr);
  }
  EXPECT_EQ(Lookup(0x1007), 0u);  // in the rounded first block, before the range
  EXPECT_EQ(Lookup(0x1008), 0x77u);
  EXPECT_EQ(Lookup(0x10FF), 0x77u);
}

TEST_F(RangeTable, TwoRangesSharingA32ByteBlockAreEachFound) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1010, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1010, 0x1020, 0xB);
  EXPECT_EQ(Level(4)->count, 1);
  auto* head = static_cast<const KyRangeLink*>(BlockItem(4, 0x1000));
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->record->data, 0xBu);  // newest first
  ASSERT_NE(head->next, nullptr);
  EXPECT_EQ(head->next->record->data, 0xAu);
  EXPECT_EQ(head->next->next, nullptr);
  EXPECT_EQ(Lookup(0x1000), 0xAu);
  EXPECT_EQ(Lookup(0x100F), 0xAu);
  EXPECT_EQ(Lookup(0x1010), 0xBu);
  EXPECT_EQ(Lookup(0x101F), 0xBu);
  EXPECT_EQ(LookupBounds(0x1010), (Bounds{0x1010, 0x1020}));
  EXPECT_EQ(Lookup(0x1020), 0u);
}

TEST_F(RangeTable, AChainWithoutARangeHoldingTheAddressAnswersZero) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1004, 0x1008, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1018, 0x101C, 0xB);
  EXPECT_EQ(Lookup(0x1003), 0u);
  EXPECT_EQ(Lookup(0x1010), 0u);
  EXPECT_EQ(LookupBounds(0x101C), (Bounds{0, 0}));
  EXPECT_EQ(Lookup(0x1018), 0xBu);
}

TEST_F(RangeTable, LookupWithNullOutputsStillReturnsTheData) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x2000, 0x3000, 0x55);
  EXPECT_EQ(__KyLookupRangeTable(table_, 0x2800, nullptr, nullptr), 0x55u);
  uint64_t start = 0;
  EXPECT_EQ(__KyLookupRangeTable(table_, 0x2800, &start, nullptr), 0x55u);
  EXPECT_EQ(start, 0x2000u);
  uint64_t end = 0;
  EXPECT_EQ(__KyLookupRangeTable(table_, 0x2800, nullptr, &end), 0x55u);
  EXPECT_EQ(end, 0x3000u);
}

TEST_F(RangeTable, LookupOfAnUnknownAddressClearsTheOutputs) {
  Create(4096);
  EXPECT_EQ(LookupBounds(0x5000), (Bounds{0, 0}));
  __KyInsertRangeTableEntry(table_, 0x2000, 0x3000, 0x55);
  EXPECT_EQ(LookupBounds(0x3000), (Bounds{0, 0}));
  EXPECT_EQ(LookupBounds(0x1FFF), (Bounds{0, 0}));
}

TEST_F(RangeTable, ABlockTwoRangesWouldShareStaysWithTheFirst) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);  // 256@0x1000
  __KyInsertRangeTableEntry(table_, 0x0F80, 0x1100, 0xB);  // 128@0xF80, 256@0x1000
  EXPECT_EQ(Lookup(0x1080), 0xAu);
  EXPECT_EQ(Lookup(0x0F80), 0xBu);
  EXPECT_EQ(static_cast<const KyRangeRecord*>(BlockItem(7, 0x1000))->data, 0xAu);
  auto* record = static_cast<const KyRangeRecord*>(BlockItem(6, 0x0F80));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->blockCount, 1u);  // the block it did not get does not count
  __KyDestroyRangeTableEntry(table_, 0x0F80, 0x1100);
  EXPECT_EQ(g_released, std::vector<uint64_t>{0xB});
  EXPECT_EQ(Lookup(0x1080), 0xAu);
  EXPECT_EQ(Lookup(0x0F80), 0u);
}

TEST_F(RangeTable, WithOneRangePerBlockTheFirstRangeKeepsASharedBlock) {
  Create(4096, KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1010, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1010, 0x1040, 0xB);  // 32@0x1000 refused, 32@0x1020
  auto* record = static_cast<const KyRangeRecord*>(BlockItem(4, 0x1000));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->marker, KY_RANGE_RECORD_MARKER);  // a record, not a chain
  EXPECT_EQ(record->data, 0xAu);
  EXPECT_EQ(Lookup(0x100F), 0xAu);
  EXPECT_EQ(Lookup(0x1018), 0xAu);  // the first range's block answers for it
  EXPECT_EQ(Lookup(0x1020), 0xBu);
  // A range none of whose blocks it could get is not stored at all.
  __KyInsertRangeTableEntry(table_, 0x1004, 0x1008, 0xC);
  EXPECT_EQ(Lookup(0x1004), 0xAu);
  __KyDestroyRangeTableEntry(table_, 0x1004, 0x1008);
  EXPECT_TRUE(g_released.empty());
}

TEST_F(RangeTable, InsertWithoutALevelArrayOrTableDoesNothing) {
  Create(4096);
  KyHashTable** levels = table_->levelTables;
  table_->levelTables = nullptr;
  __KyInsertRangeTableEntry(table_, 0x1000, 0x2000, 1);
  EXPECT_EQ(__KyLookupRangeTable(table_, 0x1000, nullptr, nullptr), 0u);
  table_->levelTables = levels;
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(levels[i], nullptr);
  __KyInsertRangeTableEntry(nullptr, 0x1000, 0x2000, 1);
  EXPECT_EQ(__KyLookupRangeTable(nullptr, 0x1000, nullptr, nullptr), 0u);
}

TEST_F(RangeTable, AnEmptyRangeIsNotStored) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1000, 1);
  __KyInsertRangeTableEntry(table_, 0x2000, 0x1000, 2);
  for (int32_t i = 0; i < 8; ++i) EXPECT_EQ(table_->levelTables[i], nullptr);
  EXPECT_EQ(Lookup(0x1000), 0u);
}

// ---------------------------------------------------------------------------
// Destroy and remove

TEST_F(RangeTable, DestroyReleasesTheDataOnceAfterTheLastBlockIsGone) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1008, 0x1100, 0x77);  // 4 blocks
  __KyInsertRangeTableEntry(table_, 0x3000, 0x3040, 0x88);  // 1 block
  __KyDestroyRangeTableEntry(table_, 0x1008, 0x1100);
  EXPECT_EQ(g_released, std::vector<uint64_t>{0x77});
  EXPECT_EQ(g_entriesAtRelease, std::vector<int32_t>{1});  // only the other range's block
  EXPECT_EQ(Lookup(0x1080), 0u);
  EXPECT_EQ(Lookup(0x1008), 0u);
  EXPECT_EQ(Lookup(0x3000), 0x88u);
  __KyDestroyRangeTableEntry(table_, 0x1008, 0x1100);  // no longer stored
  EXPECT_EQ(g_released.size(), 1u);
}

TEST_F(RangeTable, RemoveTakesTheRangeOutWithoutReleasingItsData) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1008, 0x1100, 0x77);
  __KyRemoveRangeTableEntry(table_, 0x1008, 0x1100);
  EXPECT_TRUE(g_released.empty());
  EXPECT_EQ(StoredBlocks(table_), 0);
  EXPECT_EQ(Lookup(0x1080), 0u);
  __KyRemoveRangeTableEntry(table_, 0x1008, 0x1100);
  __KyRemoveRangeTableEntry(nullptr, 0x1008, 0x1100);
  __KyDestroyRangeTableEntry(nullptr, 0x1008, 0x1100);
  EXPECT_TRUE(g_released.empty());
}

TEST_F(RangeTable, DestroyingAChainHeadReinstallsTheRestOfTheChain) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1008, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1008, 0x1010, 0xB);
  __KyInsertRangeTableEntry(table_, 0x1010, 0x1018, 0xC);  // chain C, B, A
  __KyDestroyRangeTableEntry(table_, 0x1010, 0x1018);
  auto* head = static_cast<const KyRangeLink*>(BlockItem(4, 0x1000));
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->record->data, 0xBu);
  EXPECT_EQ(Level(4)->count, 1);
  __KyDestroyRangeTableEntry(table_, 0x1000, 0x1008);  // the tail
  head = static_cast<const KyRangeLink*>(BlockItem(4, 0x1000));
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->record->data, 0xBu);
  EXPECT_EQ(head->next, nullptr);
  EXPECT_EQ(Lookup(0x1008), 0xBu);
  EXPECT_EQ(Lookup(0x1000), 0u);
  __KyDestroyRangeTableEntry(table_, 0x1008, 0x1010);
  EXPECT_EQ(Level(4)->count, 0);
  EXPECT_EQ(g_released, (std::vector<uint64_t>{0xC, 0xA, 0xB}));
}

TEST_F(RangeTable, DestroyOfARangeThatIsNotStoredLeavesItsNeighboursAlone) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1040, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1040, 0x1048, 0xB);
  __KyDestroyRangeTableEntry(table_, 0x1008, 0x1040);  // neither range starts there
  __KyDestroyRangeTableEntry(table_, 0x1044, 0x1048);
  EXPECT_EQ(Lookup(0x1000), 0xAu);
  EXPECT_EQ(Lookup(0x1040), 0xBu);
  EXPECT_TRUE(g_released.empty());
}

// ---------------------------------------------------------------------------
// Destroy span

class RangeTableSpan : public RangeTable {
 protected:
  void SetUp() override {
    RangeTable::SetUp();
    Create(4096);
  }
  Bounds DestroySpan(uint64_t start, uint64_t length) {
    uint64_t spanStart = 1, spanEnd = 1;
    __KyDestroyRangeTableSpan(table_, start, length, &spanStart, &spanEnd);
    return {spanStart, spanEnd};
  }
};

TEST_F(RangeTableSpan, DestroysEveryRangeMeetingTheSpanAndReportsTheUnion) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1200, 0x1300, 0xB);
  __KyInsertRangeTableEntry(table_, 0x1400, 0x1500, 0xC);
  __KyInsertRangeTableEntry(table_, 0x2000, 0x2100, 0xD);
  __KyInsertRangeTableEntry(table_, 0x0F00, 0x1000, 0xE);
  EXPECT_EQ(DestroySpan(0x1080, 0x400), (Bounds{0x1000, 0x1500}));
  EXPECT_EQ(g_released, (std::vector<uint64_t>{0xA, 0xC, 0xB}));
  EXPECT_EQ(Lookup(0x1000), 0u);
  EXPECT_EQ(Lookup(0x1250), 0u);
  EXPECT_EQ(Lookup(0x14FF), 0u);
  EXPECT_EQ(Lookup(0x0FFF), 0xEu);
  EXPECT_EQ(Lookup(0x2000), 0xDu);
}

TEST_F(RangeTableSpan, ARangeHoldingTheWholeSpanIsTheOnlyOneDestroyed) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x9000, 0xA);
  __KyInsertRangeTableEntry(table_, 0x9000, 0x9100, 0xB);
  EXPECT_EQ(DestroySpan(0x2000, 0x100), (Bounds{0x1000, 0x9000}));
  EXPECT_EQ(g_released, std::vector<uint64_t>{0xA});
  EXPECT_EQ(Lookup(0x9000), 0xBu);
}

TEST_F(RangeTableSpan, ASpanMatchingRangesExactlyReportsItself) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1100, 0x1200, 0xB);
  EXPECT_EQ(DestroySpan(0x1000, 0x200), (Bounds{0x1000, 0x1200}));
  EXPECT_EQ(g_released, (std::vector<uint64_t>{0xA, 0xB}));
  EXPECT_EQ(StoredBlocks(table_), 0);
}

TEST_F(RangeTableSpan, AnEmptyRegionReportsTheSpanAndDestroysNothing) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  EXPECT_EQ(DestroySpan(0x1100, 0x300), (Bounds{0x1100, 0x1400}));
  EXPECT_EQ(DestroySpan(0x0F00, 0x100), (Bounds{0x0F00, 0x1000}));
  EXPECT_TRUE(g_released.empty());
  EXPECT_EQ(Lookup(0x1000), 0xAu);
}

TEST_F(RangeTableSpan, ASpanEndingInsideARangeReportsThatRangesEnd) {
  __KyInsertRangeTableEntry(table_, 0x1800, 0x1900, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1A00, 0x2400, 0xB);
  EXPECT_EQ(DestroySpan(0x1000, 0x1000), (Bounds{0x1000, 0x2400}));
  EXPECT_EQ(g_released, (std::vector<uint64_t>{0xB, 0xA}));
}

TEST_F(RangeTableSpan, RangesSharingAnEdgeBlockButNotTheSpanSurvive) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1008, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1010, 0x1020, 0xB);
  __KyInsertRangeTableEntry(table_, 0x1020, 0x1028, 0xC);
  __KyInsertRangeTableEntry(table_, 0x1030, 0x1038, 0xD);
  EXPECT_EQ(DestroySpan(0x1009, 4), (Bounds{0x1009, 0x100D}));  // the gap
  EXPECT_TRUE(g_released.empty());
  EXPECT_EQ(DestroySpan(0x100C, 0x18), (Bounds{0x100C, 0x1028}));
  EXPECT_EQ(g_released, (std::vector<uint64_t>{0xC, 0xB}));
  EXPECT_EQ(Lookup(0x1000), 0xAu);
  EXPECT_EQ(Lookup(0x1030), 0xDu);
}

TEST_F(RangeTableSpan, ALengthOfZeroDestroysNothing) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  EXPECT_EQ(DestroySpan(0x1080, 0), (Bounds{0x1080, 0x1080}));
  EXPECT_EQ(DestroySpan(0x1100, 0), (Bounds{0x1100, 0x1100}));
  EXPECT_TRUE(g_released.empty());
}

TEST_F(RangeTableSpan, NullOutputsAndNullTablesAreAccepted) {
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  __KyDestroyRangeTableSpan(table_, 0x1000, 0x10, nullptr, nullptr);
  EXPECT_EQ(g_released, std::vector<uint64_t>{0xA});
  uint64_t start = 0, end = 0;
  __KyDestroyRangeTableSpan(nullptr, 0x1000, 0x10, &start, &end);
  EXPECT_EQ(start, 0x1000u);
  EXPECT_EQ(end, 0x1010u);
}

// ---------------------------------------------------------------------------
// Remove first

TEST_F(RangeTable, RemoveFirstTakesRangesInsideTheBoundsInAddressOrder) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x3000, 0x3100, 0xC);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  __KyInsertRangeTableEntry(table_, 0x2008, 0x2010, 0xB);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x3100), 0xAu);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x3100), 0xBu);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x3100), 0xCu);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x3100), 0u);
  EXPECT_TRUE(g_released.empty());
  EXPECT_EQ(StoredBlocks(table_), 0);
}

TEST_F(RangeTable, RemoveFirstLeavesRangesThatReachOutsideTheBounds) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x0000, 0x2000, 0xA);  // two 4 KiB blocks
  __KyInsertRangeTableEntry(table_, 0x2004, 0x2010, 0xB);  // a chain
  __KyInsertRangeTableEntry(table_, 0x2010, 0x2020, 0xC);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x0000, 0x1800), 0u);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x2000), 0u);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x2008, 0x2020), 0xCu);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x2000, 0x200F), 0u);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x2004, 0x2010), 0xBu);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x0000, 0x2000), 0xAu);
}

TEST_F(RangeTable, RemoveFirstTakesTheNewestOfRangesSharingABlock) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1008, 0xA);
  __KyInsertRangeTableEntry(table_, 0x1010, 0x1018, 0xB);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x1100), 0xBu);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x1100), 0xAu);
}

TEST_F(RangeTable, RemoveFirstWithNothingInsideAnswersZero) {
  Create(4096);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0, 0x100000), 0u);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1100, 0xA);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1100, 0x1000), 0u);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(table_, 0x1000, 0x1000), 0u);
  EXPECT_EQ(__KyRemoveFirstRangeTableEntry(nullptr, 0x1000, 0x1100), 0u);
  EXPECT_EQ(Lookup(0x1000), 0xAu);
}

// ---------------------------------------------------------------------------
// Scan and empty, destroy

TEST_F(RangeTable, ScanAndEmptyReleasesEveryRangeOnceAndKeepsTheLevelTables) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1008, 0x1100, 1);  // chains and records
  __KyInsertRangeTableEntry(table_, 0x1100, 0x1104, 2);
  __KyInsertRangeTableEntry(table_, 0x1104, 0x1120, 3);  // shares 0x1100 with 2
  __KyInsertRangeTableEntry(table_, 0x4000, 0x6000, 4);
  g_table = nullptr;
  __KyScanAndEmptyRangeTable(table_);
  std::vector<uint64_t> released = g_released;
  std::sort(released.begin(), released.end());
  EXPECT_EQ(released, (std::vector<uint64_t>{1, 2, 3, 4}));
  for (int32_t level = 4; level <= 11; ++level) {
    if (Level(level) != nullptr) {
      EXPECT_EQ(Level(level)->count, 0) << level;
    }
  }
  ASSERT_NE(Level(4), nullptr);
  EXPECT_EQ(Lookup(0x1100), 0u);
  __KyInsertRangeTableEntry(table_, 0x1100, 0x1104, 5);
  EXPECT_EQ(Lookup(0x1100), 5u);
}

TEST_F(RangeTable, DestroyingANullTableDoesNothing) {
  __KyDestroyRangeTable(nullptr);
  __KyScanAndEmptyRangeTable(nullptr);
  EXPECT_TRUE(g_released.empty());
}

TEST_F(RangeTable, DestroyLeavesStoredRangesUnreleased) {
  Create(4096);
  __KyInsertRangeTableEntry(table_, 0x1000, 0x1040, 1);
  __KyInsertRangeTableEntry(table_, 0x1040, 0x1048, 2);
  __KyDestroyRangeTable(table_);
  table_ = nullptr;
  EXPECT_TRUE(g_released.empty());
}

}  // namespace
