// Memory categories, statistics, the peak snapshot and the periodic dump.
#include <cstring>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "memory/categories.h"
#include "memory/memory_test_support.h"

namespace kyrt_test {
namespace {

using CategoryTest = MemoryTest;

// A block of `units` units (the chunk word included).
uint64_t SizeOfUnits(uint32_t units) {
  return uint64_t{units} * 16 - 8;
}

TEST_F(CategoryTest, AtLoadOnlyKyMiscExistsWithZeroFigures) {
  EXPECT_EQ(__KyGetNumMemoryCategories(), 1u);
  MemoryCategoryInfo info;
  std::memset(&info, 0x5A, sizeof info);
  ASSERT_EQ(__KyGetMemoryInfoByCategory(0, &info), 1);
  EXPECT_STREQ(info.name, "KY_MISC");
  EXPECT_EQ(info.allocated, 0);
  EXPECT_EQ(info.allocatedAtPeak, 0);
}

TEST_F(CategoryTest, IdsAreHandedOutDenselyFromOneTo63ThenRefusedSilently) {
  for (uint32_t expected = 1; expected <= 63; ++expected) {
    ASSERT_EQ(__KyRegisterMemoryCategory(("category " + std::to_string(expected)).c_str()),
              expected);
  }
  EXPECT_EQ(__KyGetNumMemoryCategories(), 64u);
  EXPECT_EQ(__KyRegisterMemoryCategory("one too many"), KY_INVALID_MEMORY_CATEGORY);
  EXPECT_EQ(__KyGetNumMemoryCategories(), 64u);
  EXPECT_EQ(__KyRegisterMemoryCategory("and another"), KY_INVALID_MEMORY_CATEGORY);
  EXPECT_EQ(__KyGetNumMemoryCategories(), 64u);
  EXPECT_STREQ(CategoryInfo(63).name, "category 63");
  EXPECT_TRUE(TextRecords().empty()) << "a full table is refused without a message";
}

TEST_F(CategoryTest, NameOf40CharactersIsStoredAsItsFirst31) {
  const std::string name = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
  ASSERT_EQ(name.size(), 40u);
  const uint32_t id = __KyRegisterMemoryCategory(name.c_str());
  EXPECT_EQ(CategoryInfo(id).name, name.substr(0, 31));
}

TEST_F(CategoryTest, NamesOf31And32CharactersKeep31) {
  const std::string exact(31, 'x');
  const std::string over = exact + "y";
  EXPECT_EQ(CategoryInfo(__KyRegisterMemoryCategory(exact.c_str())).name, exact);
  EXPECT_EQ(CategoryInfo(__KyRegisterMemoryCategory(over.c_str())).name, exact);
}

TEST_F(CategoryTest, TwoCategoriesMayShareAName) {
  const uint32_t first = __KyRegisterMemoryCategory("twin");
  const uint32_t second = __KyRegisterMemoryCategory("twin");
  EXPECT_EQ(first, 1u);
  EXPECT_EQ(second, 2u);
  EXPECT_STREQ(CategoryInfo(second).name, "twin");
}

TEST_F(CategoryTest, NullNameIsLoggedAsAnErrorAndRefused) {
  EXPECT_EQ(__KyRegisterMemoryCategory(nullptr), KY_INVALID_MEMORY_CATEGORY);
  EXPECT_EQ(__KyGetNumMemoryCategories(), 1u);
  const std::vector<LogRecord> texts = TextRecords();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].severity, "ERROR");
  EXPECT_EQ(texts[0].text, "A name must be specified when registering memory categories");
  EXPECT_FALSE(texts[0].hidden);
}

TEST_F(CategoryTest, InfoFailsForNullRecordAndUnregisteredIdsLeavingTheRecordAlone) {
  const uint32_t id = __KyRegisterMemoryCategory("only");
  MemoryCategoryInfo info;
  std::memset(&info, 0x5A, sizeof info);
  MemoryCategoryInfo untouched = info;
  EXPECT_EQ(__KyGetMemoryInfoByCategory(id, nullptr), 0);
  EXPECT_EQ(__KyGetMemoryInfoByCategory(id + 1, &info), 0);
  EXPECT_EQ(__KyGetMemoryInfoByCategory(KY_MAX_MEMORY_CATEGORIES, &info), 0);
  EXPECT_EQ(__KyGetMemoryInfoByCategory(0xFFFFFFFFu, &info), 0);
  EXPECT_EQ(std::memcmp(&info, &untouched, sizeof info), 0);
  EXPECT_EQ(__KyGetMemoryInfoByCategory(id, &info), 1);
  EXPECT_STREQ(info.name, "only");
}

TEST_F(CategoryTest, InfoOfTheLastIdOfAFullTable) {
  while (__KyRegisterMemoryCategory("filler") != KY_INVALID_MEMORY_CATEGORY) {
  }
  MemoryCategoryInfo info;
  EXPECT_EQ(__KyGetMemoryInfoByCategory(63, &info), 1);
  EXPECT_EQ(__KyGetMemoryInfoByCategory(64, &info), 0);
}

TEST_F(CategoryTest, PeakIsTheCurrentTotalWhileNoPeakHasBeenRecorded) {
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 0u);
  __kyTotalMemoryAllocated = 12345;  // no slab counted, so no peak yet
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 12345u);
}

TEST_F(CategoryTest, WithoutStatisticsNothingIsCounted) {
  const uint32_t id = __KyRegisterMemoryCategory("uncounted");
  void* block = __KyMalloc(id, 100, 0);
  EXPECT_EQ(CategoryInfo(id).allocated, 0);
  EXPECT_EQ(__kyTotalMemoryAllocated, 0u);
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 0u);
  __KyFree(block);
}

TEST_F(CategoryTest, ASlabIsCountedAtItsFullSizeAndLargeBlocksAreNot) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("counted");
  void* small = __KyMalloc(id, 1, 0);
  EXPECT_EQ(CategoryInfo(id).allocated, 65536);
  EXPECT_EQ(CategoryInfo(id).allocatedAtPeak, 65536);
  EXPECT_EQ(__kyTotalMemoryAllocated, 65536u);
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 65536u);

  void* sameSlab = __KyMalloc(id, 1, 0);
  void* large = __KyMalloc(id, kLargeSize, 0);
  EXPECT_EQ(CategoryInfo(id).allocated, 65536);

  void* biggerSlab = __KyMalloc(id, 100, 2);  // 2^18 bytes
  EXPECT_EQ(CategoryInfo(id).allocated, 65536 + 262144);
  EXPECT_EQ(__kyTotalMemoryAllocated, 65536u + 262144u);
  for (void* block : {small, sameSlab, large, biggerSlab}) __KyFree(block);
  // Every slab is its bin's only one, so each is kept and still counted.
  EXPECT_EQ(CategoryInfo(id).allocated, 65536 + 262144);
}

TEST_F(CategoryTest, EnablingTwiceKeepsCounting) {
  __KyEnableMemoryStatisticsCollection();
  void* block = __KyMalloc(0, 1000, 0);
  __KyEnableMemoryStatisticsCollection();
  void* other = __KyMalloc(0, 2000, 0);
  EXPECT_EQ(__kyTotalMemoryAllocated, 2 * kSlabBytes);
  __KyFree(block);
  __KyFree(other);
}

// Three blocks of the two-chunk size class make two slabs; freeing the first
// two empties the first slab while another is on the list: it goes back.
struct TwoSlabBin {
  void* blocks[3];
  explicit TwoSlabBin(uint32_t category) {
    for (void*& block : blocks) block = __KyMalloc(category, kTwoChunkSize, 0);
  }
  void EmptyFirstSlab() {
    __KyFree(blocks[0]);
    __KyFree(blocks[1]);
  }
};

TEST_F(CategoryTest, PeakFiguresAreASnapshotOfTheTableAtTheHighestTotal) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t a = __KyRegisterMemoryCategory("A");
  const uint32_t b = __KyRegisterMemoryCategory("B");
  TwoSlabBin bin(a);
  EXPECT_EQ(CategoryInfo(a).allocatedAtPeak, 131072);
  bin.EmptyFirstSlab();
  EXPECT_EQ(CategoryInfo(a).allocated, 65536);
  EXPECT_EQ(CategoryInfo(a).allocatedAtPeak, 131072) << "giving back leaves the peak alone";
  EXPECT_EQ(__kyTotalMemoryAllocated, 65536u);

  void* first = __KyMalloc(b, 1, 0);  // total back at 131072: not a new peak
  EXPECT_EQ(CategoryInfo(a).allocatedAtPeak, 131072);
  EXPECT_EQ(CategoryInfo(b).allocatedAtPeak, 0);
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 131072u);

  void* second = __KyMalloc(b, 100, 0);  // 196608: a new peak
  EXPECT_EQ(CategoryInfo(a).allocatedAtPeak, 65536);
  EXPECT_EQ(CategoryInfo(b).allocatedAtPeak, 131072);
  EXPECT_EQ(CategoryInfo(0).allocatedAtPeak, 0);
  EXPECT_EQ(__KyGetPeakTotalMemoryAllocated(), 196608u);
  __KyFree(first);
  __KyFree(second);
}

TEST_F(CategoryTest, SlabObtainedBeforeEnablingDrivesTheCategoryBelowZero) {
  const uint32_t id = __KyRegisterMemoryCategory("early");
  TwoSlabBin bin(id);
  __KyEnableMemoryStatisticsCollection();
  bin.EmptyFirstSlab();
  EXPECT_EQ(CategoryInfo(id).allocated, -65536);
  EXPECT_EQ(__kyTotalMemoryAllocated, uint64_t{0} - 65536);
}

TEST_F(CategoryTest, SlabCountedGoesBackOutOfItsCategoryAndTheTotal) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("released");
  TwoSlabBin bin(id);
  EXPECT_EQ(CategoryInfo(id).allocated, 131072);
  bin.EmptyFirstSlab();
  EXPECT_EQ(CategoryInfo(id).allocated, 65536);
  EXPECT_EQ(__kyTotalMemoryAllocated, 65536u);
}

// The periodic dump: its heading and one status line per category.
size_t CountPeriodicDumps() {
  return CountTextRecords("Periodic allocation status dump");
}

TEST_F(CategoryTest, PeriodicDumpComesWithThe100thSlabCountedNotThe100thCall) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("dumped");
  std::vector<void*> blocks;
  for (int call = 0; call < 150; ++call) blocks.push_back(__KyMalloc(id, 1, 0));  // one slab
  EXPECT_EQ(CountPeriodicDumps(), 0u);
  for (uint32_t units = 2; units <= 99; ++units)
    blocks.push_back(__KyMalloc(id, SizeOfUnits(units), 0));
  EXPECT_EQ(CategoryInfo(id).allocated, 99 * 65536);
  EXPECT_EQ(CountPeriodicDumps(), 0u);

  blocks.push_back(__KyMalloc(id, SizeOfUnits(100), 0));
  ASSERT_EQ(CountPeriodicDumps(), 1u);
  const std::vector<LogRecord> texts = TextRecords();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0].severity, "INFO");
  EXPECT_EQ(texts[1].text, StatusLine("Allocation status for %-25s:%15ld", "KY_MISC", 0));
  EXPECT_EQ(texts[1].text, "Allocation status for KY_MISC                  :              0");
  EXPECT_EQ(texts[2].text, "Allocation status for dumped                   :        6553600");
  EXPECT_EQ(texts[2].severity, "INFO");

  for (uint32_t units = 101; units <= 199; ++units)
    blocks.push_back(__KyMalloc(id, SizeOfUnits(units), 0));
  EXPECT_EQ(CountPeriodicDumps(), 1u);
  blocks.push_back(__KyMalloc(id, SizeOfUnits(200), 0));
  EXPECT_EQ(CountPeriodicDumps(), 2u);
  EXPECT_EQ(CountTextRecords("Allocation status for dumped                   :       13107200"),
            1u);
  for (void* block : blocks) __KyFree(block);
}

TEST_F(CategoryTest, PeriodicDumpListsEveryCategory) {
  __KyEnableMemoryStatisticsCollection();
  while (__KyRegisterMemoryCategory("many") != KY_INVALID_MEMORY_CATEGORY) {
  }
  for (uint32_t units = 1; units <= 100; ++units) __KyMalloc(units % 64, SizeOfUnits(units), 0);
  ASSERT_EQ(CountPeriodicDumps(), 1u);
  EXPECT_EQ(TextRecords().size(), 1u + 64u);
  // Categories 1 to 36 hold two slabs, 37 to 63 one, and 0 one (units 64).
  EXPECT_EQ(CountTextRecords(StatusLine(kyrt::memory::kAllocationStatusLine, "many", 131072)), 36u);
  EXPECT_EQ(CountTextRecords(StatusLine(kyrt::memory::kAllocationStatusLine, "many", 65536)), 27u);
}

}  // namespace
}  // namespace kyrt_test
