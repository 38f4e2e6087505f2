// Paged counter vectors: layout, element access, the merge, duplicate and
// copy rules (partial handling of the last page and of pages the source
// lacks included), the categories pages come from, and a differential run
// against a model of those rules over a plain array of values.
#include <algorithm>
#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/vectors.h"
#include "sync/lock_test_support.h"

namespace kyrt_test {
namespace {

constexpr uint32_t kPageElements = KY_VECTOR_PAGE_ELEMENTS;
constexpr uint64_t kPageBytes = kPageElements * sizeof(uint64_t);
// The allocator's default slab: what a category's figure grows by when its
// first block of a size class is allocated.
constexpr int64_t kSlabBytes = int64_t{1} << 16;
constexpr uint64_t kSeedPattern = 0x5A5A5A5A5A5A5A5Aull;

uint32_t SizeOf(const KyVector& vector) {
  return vector.sizeAndCategory & KY_VECTOR_SIZE_MASK;
}

uint32_t CategoryOf(const KyVector& vector) {
  return vector.sizeAndCategory >> KY_VECTOR_CATEGORY_SHIFT;
}

int64_t AllocatedIn(uint32_t category) {
  MemoryCategoryInfo info{};
  EXPECT_EQ(__KyGetMemoryInfoByCategory(category, &info), 1);
  return info.allocated;
}

// Frees a page-sized chunk of category filled with kSeedPattern: the
// allocator hands the most recently freed chunk of a bin out first, so the
// next page allocated in category is this chunk, with this content.
const uint64_t* SeedFreedPage(uint32_t category) {
  auto* chunk = static_cast<uint64_t*>(__KyMalloc(category, kPageBytes, 0));
  std::fill_n(chunk, kPageElements, kSeedPattern);
  __KyFree(chunk);
  return chunk;
}

// A vector in the test's own storage. __KyDestroyVector() would free the
// storage itself, so the pages are freed here when the test ends.
class StoredVector {
 public:
  explicit StoredVector(uint32_t category) : storage_(std::make_unique<KyVector>()) {
    __KyInitializeVector(storage_.get(), category);
  }
  ~StoredVector() {
    for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) __KyFree(storage_->pages[page]);
  }
  StoredVector(const StoredVector&) = delete;
  StoredVector& operator=(const StoredVector&) = delete;

  KyVector* get() { return storage_.get(); }
  KyVector* operator->() { return storage_.get(); }

 private:
  std::unique_ptr<KyVector> storage_;
};

class VectorTest : public RuntimeTest {};

// ---------------------------------------------------------------------------
// Layout and constants

TEST_F(VectorTest, RecordLayoutIsPageTableThenInlinePageThenWord) {
  EXPECT_EQ(sizeof(KyVector), 6152u);
  EXPECT_EQ(alignof(KyVector), 8u);
  EXPECT_EQ(offsetof(KyVector, pages), 0u);
  EXPECT_EQ(offsetof(KyVector, inlinePage), 4096u);
  EXPECT_EQ(offsetof(KyVector, sizeAndCategory), 6144u);
  EXPECT_EQ(KY_VECTOR_PAGE_ELEMENTS, 256u);
  EXPECT_EQ(KY_VECTOR_PAGE_COUNT, 512u);
  EXPECT_EQ(KY_VECTOR_CAPACITY, 131072u);
  EXPECT_EQ(KY_VECTOR_MAX_INDEX, 0x1FFFFu);
}

// ---------------------------------------------------------------------------
// Initialise, create, destroy

TEST_F(VectorTest, InitializeZeroesTheInlinePageAndClearsEveryOtherPage) {
  auto storage = std::make_unique<KyVector>();
  std::fill_n(reinterpret_cast<unsigned char*>(storage.get()), sizeof(KyVector), 0xAB);
  EXPECT_EQ(__KyInitializeVector(storage.get(), 5), storage.get());
  EXPECT_EQ(storage->pages[0], storage->inlinePage);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    ASSERT_EQ(storage->pages[page], nullptr) << "page " << page;
  }
  for (uint32_t slot = 0; slot < kPageElements; ++slot) ASSERT_EQ(storage->inlinePage[slot], 0u);
  EXPECT_EQ(storage->sizeAndCategory, 0x05000000u);
}

TEST_F(VectorTest, InitializeKeepsTheCategorysLowByteOnly) {
  auto storage = std::make_unique<KyVector>();
  __KyInitializeVector(storage.get(), 0x1FF);
  EXPECT_EQ(storage->sizeAndCategory, 0xFF000000u);
}

TEST_F(VectorTest, InitializeAllocatesNothingAndAcceptsNull) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t category = __KyRegisterMemoryCategory("vector");
  auto storage = std::make_unique<KyVector>();
  __KyInitializeVector(storage.get(), category);
  EXPECT_EQ(AllocatedIn(category), 0);
  EXPECT_EQ(__KyInitializeVector(nullptr, category), nullptr);
}

TEST_F(VectorTest, CreateTakesTheRecordFromTheCategoryAndInitialisesIt) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t category = __KyRegisterMemoryCategory("vector");
  KyVector* vector = __KyCreateVector(category);
  EXPECT_EQ(AllocatedIn(category), kSlabBytes);
  EXPECT_EQ(vector->pages[0], vector->inlinePage);
  EXPECT_EQ(vector->sizeAndCategory, category << KY_VECTOR_CATEGORY_SHIFT);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    ASSERT_EQ(vector->pages[page], nullptr);
  }
  for (uint32_t slot = 0; slot < kPageElements; ++slot) ASSERT_EQ(vector->inlinePage[slot], 0u);
  __KyDestroyVector(vector);
}

TEST_F(VectorTest, DestroyFreesEveryPageThenTheRecord) {
  const uint32_t category = __KyRegisterMemoryCategory("vector");
  KyVector* vector = __KyCreateVector(category);
  __KySetVectorElement(vector, 300, 1);
  __KySetVectorElement(vector, 1000, 1);
  const uint64_t* page1 = vector->pages[1];
  const uint64_t* page3 = vector->pages[3];
  __KyDestroyVector(vector);
  // Freed chunks come back most recent first: page 3 was freed after page 1.
  void* again3 = __KyMalloc(category, kPageBytes, 0);
  void* again1 = __KyMalloc(category, kPageBytes, 0);
  void* record = __KyMalloc(category, sizeof(KyVector), 0);
  EXPECT_EQ(again3, page3);
  EXPECT_EQ(again1, page1);
  EXPECT_EQ(record, vector);
  __KyFree(record);
  __KyFree(again1);
  __KyFree(again3);
}

TEST_F(VectorTest, NullVectorsMakeEveryCallDoNothing) {
  __KyDestroyVector(nullptr);
  EXPECT_EQ(__KyGetVectorElement(nullptr, 1), 0u);
  EXPECT_EQ(__KySetVectorElement(nullptr, 1, 9), 0u);
  EXPECT_EQ(__KyIncrementVectorElement(nullptr, 1), 0u);
  EXPECT_EQ(__KyDuplicateVector(nullptr, 0), nullptr);
  StoredVector vector(0);
  __KySetVectorElement(vector.get(), 3, 4);
  __KyMaxVector(vector.get(), nullptr);
  __KyMaxVector(nullptr, vector.get());
  __KyCopyVector(vector.get(), nullptr);
  __KyCopyVector(nullptr, vector.get());
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 3), 4u);
  EXPECT_EQ(SizeOf(*vector.get()), 4u);
}

// ---------------------------------------------------------------------------
// Get, set, increment

TEST_F(VectorTest, AnEmptyVectorReadsZeroEverywhere) {
  StoredVector vector(0);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 0), 0u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 255), 0u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), KY_VECTOR_MAX_INDEX), 0u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 0x20000), 0u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 0xFFFFFFFF), 0u);
}

TEST_F(VectorTest, SetReturnsThePreviousValue) {
  StoredVector vector(0);
  EXPECT_EQ(__KySetVectorElement(vector.get(), 5, 10), 0u);
  EXPECT_EQ(__KySetVectorElement(vector.get(), 5, 20), 10u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 5), 20u);
  EXPECT_EQ(__KySetVectorElement(vector.get(), 5, UINT64_MAX), 20u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 5), UINT64_MAX);
}

TEST_F(VectorTest, SetPastTheLastIndexReturnsZeroAndChangesNothing) {
  StoredVector vector(3);
  __KySetVectorElement(vector.get(), 7, 1);
  EXPECT_EQ(__KySetVectorElement(vector.get(), 0x20000, 5), 0u);
  EXPECT_EQ(__KySetVectorElement(vector.get(), 0x20000, 6), 0u);
  EXPECT_EQ(__KySetVectorElement(vector.get(), 0xFFFFFFFF, 5), 0u);
  EXPECT_EQ(vector->sizeAndCategory, 0x03000008u);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page)
    ASSERT_EQ(vector->pages[page], nullptr);
}

TEST_F(VectorTest, SetAtTheLastIndexFillsTheCapacityAndKeepsTheCategory) {
  StoredVector vector(0x2A);
  EXPECT_EQ(__KySetVectorElement(vector.get(), KY_VECTOR_MAX_INDEX, 9), 0u);
  EXPECT_EQ(vector->sizeAndCategory, 0x2A020000u);
  EXPECT_NE(vector->pages[511], nullptr);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), KY_VECTOR_MAX_INDEX), 9u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), KY_VECTOR_MAX_INDEX - 1), 0u);
}

TEST_F(VectorTest, SettingIndex300AllocatesPageOneOnlyAndMakesTheSize301) {
  StoredVector vector(0);
  __KySetVectorElement(vector.get(), 300, 7);
  EXPECT_EQ(SizeOf(*vector.get()), 301u);
  EXPECT_NE(vector->pages[1], nullptr);
  for (uint32_t page = 2; page < KY_VECTOR_PAGE_COUNT; ++page)
    ASSERT_EQ(vector->pages[page], nullptr);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 299), 0u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 300), 7u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 301), 0u);
}

TEST_F(VectorTest, TheSizeIsOneMoreThanTheHighestIndexEverWritten) {
  StoredVector vector(0);
  __KySetVectorElement(vector.get(), 10, 1);
  __KySetVectorElement(vector.get(), 4, 1);
  EXPECT_EQ(SizeOf(*vector.get()), 11u);
  __KySetVectorElement(vector.get(), 10, 0);
  EXPECT_EQ(SizeOf(*vector.get()), 11u) << "storing 0 still counts as storing";
  __KyIncrementVectorElement(vector.get(), 255);
  EXPECT_EQ(SizeOf(*vector.get()), 256u);
}

TEST_F(VectorTest, ReadsPastTheSizeAreZeroEvenWhereAPageHoldsAValue) {
  StoredVector vector(0);
  __KySetVectorElement(vector.get(), 3, 1);
  vector->inlinePage[200] = 42;  // a value the size does not cover
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 200), 0u);
}

TEST_F(VectorTest, TheInlinePageNeverAllocates) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t category = __KyRegisterMemoryCategory("vector");
  StoredVector vector(category);
  for (uint32_t index = 0; index < kPageElements; ++index) {
    __KySetVectorElement(vector.get(), index, index);
    __KyIncrementVectorElement(vector.get(), index);
  }
  EXPECT_EQ(AllocatedIn(category), 0);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 255), 256u);
}

TEST_F(VectorTest, ANewPageComesFromTheVectorsCategoryZeroed) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t category = __KyRegisterMemoryCategory("vector");
  StoredVector vector(category);
  const uint64_t* seeded = SeedFreedPage(category);
  const int64_t before = AllocatedIn(category);
  __KySetVectorElement(vector.get(), 300, 7);
  ASSERT_EQ(vector->pages[1], seeded) << "premise: the freed chunk is reused";
  for (uint32_t slot = 0; slot < kPageElements; ++slot) {
    ASSERT_EQ(vector->pages[1][slot], slot == 44 ? 7u : 0u) << "slot " << slot;
  }
  EXPECT_EQ(AllocatedIn(category), before);
  __KySetVectorElement(vector.get(), 5000, 7);
  EXPECT_GT(AllocatedIn(category), 0);
}

TEST_F(VectorTest, IncrementReturnsTheOldValueAndWrapsAtTwoToThe64) {
  StoredVector vector(0);
  EXPECT_EQ(__KyIncrementVectorElement(vector.get(), 1000), 0u);
  EXPECT_EQ(__KyIncrementVectorElement(vector.get(), 1000), 1u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 1000), 2u);
  EXPECT_EQ(SizeOf(*vector.get()), 1001u);
  __KySetVectorElement(vector.get(), 7, UINT64_MAX);
  EXPECT_EQ(__KyIncrementVectorElement(vector.get(), 7), UINT64_MAX);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 7), 0u);
}

TEST_F(VectorTest, IncrementPastTheLastIndexReturnsZeroAndChangesNothing) {
  StoredVector vector(0);
  EXPECT_EQ(__KyIncrementVectorElement(vector.get(), 0x20000), 0u);
  EXPECT_EQ(__KyIncrementVectorElement(vector.get(), 0x20000), 0u);
  EXPECT_EQ(SizeOf(*vector.get()), 0u);
  EXPECT_EQ(__KyIncrementVectorElement(vector.get(), KY_VECTOR_MAX_INDEX), 0u);
  EXPECT_EQ(SizeOf(*vector.get()), KY_VECTOR_CAPACITY);
}

// ---------------------------------------------------------------------------
// Max

TEST_F(VectorTest, MaxOfAnEmptyDestinationTakesTheSourcesSizeAndValues) {
  StoredVector destination(0);
  StoredVector source(0);
  for (uint32_t index = 0; index < 10; ++index) {
    __KySetVectorElement(source.get(), index, 100 + index);
  }
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), 10u);
  for (uint32_t index = 0; index < 10; ++index) {
    EXPECT_EQ(__KyGetVectorElement(destination.get(), index), 100 + index);
  }
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 10), 0u);
}

TEST_F(VectorTest, MaxKeepsTheLargerOfEachPairUnsigned) {
  StoredVector destination(0);
  StoredVector source(0);
  __KySetVectorElement(destination.get(), 1, 5);
  __KySetVectorElement(destination.get(), 2, 0x8000000000000000ull);
  __KySetVectorElement(destination.get(), 400, 3);
  __KySetVectorElement(source.get(), 1, 4);
  __KySetVectorElement(source.get(), 2, 0x7FFFFFFFFFFFFFFFull);
  __KySetVectorElement(source.get(), 3, UINT64_MAX);
  __KySetVectorElement(source.get(), 300, 8);
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), 401u) << "the destination keeps its larger size";
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 1), 5u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 2), 0x8000000000000000ull);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 3), UINT64_MAX);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 300), 8u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 400), 3u);
  EXPECT_EQ(SizeOf(*source.get()), 301u) << "the source is not changed";
  EXPECT_EQ(__KyGetVectorElement(source.get(), 1), 4u);
}

TEST_F(VectorTest, MaxCopiesAFullSourcePageWholeIntoANewPageOfTheDestinationsCategory) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t destinationCategory = __KyRegisterMemoryCategory("destination");
  const uint32_t sourceCategory = __KyRegisterMemoryCategory("source");
  StoredVector destination(destinationCategory);
  StoredVector source(sourceCategory);
  __KySetVectorElement(source.get(), 300, 5);
  __KySetVectorElement(source.get(), 511, 9);
  const int64_t sourceBytes = AllocatedIn(sourceCategory);
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), 512u);
  ASSERT_NE(destination->pages[1], nullptr);
  EXPECT_NE(destination->pages[1], source->pages[1]);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 300), 5u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 511), 9u);
  EXPECT_EQ(AllocatedIn(destinationCategory), kSlabBytes);
  EXPECT_EQ(AllocatedIn(sourceCategory), sourceBytes);
  EXPECT_EQ(CategoryOf(*destination.get()), destinationCategory);
}

TEST_F(VectorTest, MaxMergesFullPagesWholeEvenPastTheSourcesSize) {
  // The source's page 1 holds 77 at index 400 beyond the source's size of
  // 10 (a copy from a vector without page 1 left it there).
  StoredVector source(0);
  StoredVector small(0);
  __KySetVectorElement(source.get(), 400, 77);
  __KySetVectorElement(small.get(), 9, 1);
  __KyCopyVector(source.get(), small.get());
  ASSERT_EQ(SizeOf(*source.get()), 10u);
  ASSERT_EQ(source->pages[1][144], 77u);

  StoredVector destination(0);
  __KySetVectorElement(destination.get(), 511, 1);  // size 512: page 1 is full
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 400), 77u);
}

TEST_F(VectorTest, MaxMergesOnlyTheElementsInUseOfTheLastPage) {
  StoredVector source(0);
  StoredVector small(0);
  __KySetVectorElement(source.get(), 400, 77);
  __KySetVectorElement(small.get(), 9, 1);
  __KyCopyVector(source.get(), small.get());

  StoredVector destination(0);
  __KySetVectorElement(destination.get(), 300, 1);  // size 301: 45 elements of page 1 in use
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), 301u);
  EXPECT_EQ(destination->pages[1][144], 0u) << "slot 144 of page 1 is past the 45 in use";
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 300), 1u);
}

TEST_F(VectorTest, MaxCopiesOnlyTheElementsInUseIntoANewLastPageAndLeavesTheRestAsAllocated) {
  const uint32_t destinationCategory = __KyRegisterMemoryCategory("destination");
  const uint32_t sourceCategory = __KyRegisterMemoryCategory("source");
  StoredVector destination(destinationCategory);
  StoredVector source(sourceCategory);
  for (uint32_t index = 256; index < 300; ++index) {
    __KySetVectorElement(source.get(), index, index);
  }
  const uint64_t* seeded = SeedFreedPage(destinationCategory);
  __KyMaxVector(destination.get(), source.get());
  ASSERT_EQ(destination->pages[1], seeded) << "premise: the freed chunk is reused";
  const uint32_t inUse = 300 % kPageElements;
  for (uint32_t slot = 0; slot < kPageElements; ++slot) {
    const uint64_t expected = slot < inUse ? kPageElements + slot : kSeedPattern;
    ASSERT_EQ(destination->pages[1][slot], expected) << "slot " << slot;
  }
  // Growing the size over the untouched slots makes them readable.
  __KySetVectorElement(destination.get(), 301, 1);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 300), kSeedPattern);
}

TEST_F(VectorTest, MaxAllocatesAMissingLastPageEvenWithNoElementInUse) {
  // The source has page 2 but a size of 512, so page 2 is the "last page"
  // with no element in use.
  StoredVector source(0);
  StoredVector sized(0);
  __KySetVectorElement(source.get(), 600, 3);
  __KySetVectorElement(sized.get(), 511, 4);
  __KyCopyVector(source.get(), sized.get());
  ASSERT_EQ(SizeOf(*source.get()), 512u);
  ASSERT_NE(source->pages[2], nullptr);

  const uint32_t category = __KyRegisterMemoryCategory("destination");
  StoredVector destination(category);
  __KySetVectorElement(destination.get(), 256, 1);  // page 1 exists: page 2 is the only new one
  const uint64_t* seeded = SeedFreedPage(category);
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), 512u);
  ASSERT_NE(destination->pages[2], nullptr);
  ASSERT_EQ(destination->pages[2], seeded) << "premise: the freed chunk is reused";
  EXPECT_EQ(destination->pages[2][0], kSeedPattern) << "nothing is copied into it";
  EXPECT_EQ(destination->pages[3], nullptr);
}

TEST_F(VectorTest, MaxLeavesPagesTheSourceLacksAlone) {
  StoredVector destination(0);
  StoredVector source(0);
  __KySetVectorElement(destination.get(), 700, 6);
  __KySetVectorElement(source.get(), 1500, 2);
  const uint64_t* page2 = destination->pages[2];
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), 1501u);
  EXPECT_EQ(destination->pages[2], page2);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 700), 6u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 1500), 2u);
  for (uint32_t page = 3; page < 5; ++page) EXPECT_EQ(destination->pages[page], nullptr);
}

TEST_F(VectorTest, MaxOfAFullSourceMergesEveryPageAndStopsAtTheTable) {
  StoredVector destination(0);
  StoredVector source(0);
  // Element 0 holds a value that is no page address: a merge that looked
  // past the last page entry would take it for one.
  __KySetVectorElement(source.get(), 0, 0x1234);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    __KySetVectorElement(source.get(), page * kPageElements + page % 255, page);
  }
  __KySetVectorElement(source.get(), KY_VECTOR_MAX_INDEX, 99);
  __KyMaxVector(destination.get(), source.get());
  EXPECT_EQ(SizeOf(*destination.get()), KY_VECTOR_CAPACITY);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 0), 0x1234u);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    ASSERT_EQ(__KyGetVectorElement(destination.get(), page * kPageElements + page % 255), page);
  }
  EXPECT_EQ(__KyGetVectorElement(destination.get(), KY_VECTOR_MAX_INDEX), 99u);
}

TEST_F(VectorTest, MaxWithItselfChangesNothing) {
  StoredVector vector(0);
  __KySetVectorElement(vector.get(), 300, 3);
  __KySetVectorElement(vector.get(), 2, 4);
  __KyMaxVector(vector.get(), vector.get());
  EXPECT_EQ(SizeOf(*vector.get()), 301u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 300), 3u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 2), 4u);
}

// ---------------------------------------------------------------------------
// Duplicate

TEST_F(VectorTest, DuplicateCopiesValuesSizeAndPagesIntoNewStorage) {
  StoredVector source(3);
  __KySetVectorElement(source.get(), 7, 70);
  __KySetVectorElement(source.get(), 1000, 10);
  KyVector* copy = __KyDuplicateVector(source.get(), 4);
  EXPECT_EQ(copy->pages[0], copy->inlinePage);
  EXPECT_EQ(copy->sizeAndCategory, 0x040003E9u);
  EXPECT_EQ(__KyGetVectorElement(copy, 7), 70u);
  EXPECT_EQ(__KyGetVectorElement(copy, 1000), 10u);
  ASSERT_NE(copy->pages[3], nullptr);
  EXPECT_NE(copy->pages[3], source->pages[3]);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    if (page != 3) {
      ASSERT_EQ(copy->pages[page], nullptr) << "page " << page;
    }
  }
  __KySetVectorElement(copy, 1000, 11);
  EXPECT_EQ(__KyGetVectorElement(source.get(), 1000), 10u) << "the pages are not shared";
  __KyDestroyVector(copy);
}

TEST_F(VectorTest, DuplicateCopiesPagesIntoTheSourcesCategoryAndTheRecordIntoTheNewOne) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t sourceCategory = __KyRegisterMemoryCategory("source");
  const uint32_t copyCategory = __KyRegisterMemoryCategory("copy");
  StoredVector source(sourceCategory);
  __KySetVectorElement(source.get(), 300, 1);
  __KySetVectorElement(source.get(), 1000, 2);
  KyVector* copy = __KyDuplicateVector(source.get(), copyCategory);
  EXPECT_EQ(AllocatedIn(copyCategory), kSlabBytes) << "the record's slab only";
  EXPECT_EQ(CategoryOf(*copy), copyCategory);
  // Pages the copy allocates later come from its own category.
  __KySetVectorElement(copy, 5000, 3);
  EXPECT_EQ(AllocatedIn(copyCategory), 2 * kSlabBytes);
  __KyDestroyVector(copy);
}

TEST_F(VectorTest, DuplicateCopiesWholePagesIncludingValuesPastTheSize) {
  StoredVector source(0);
  StoredVector small(0);
  __KySetVectorElement(source.get(), 400, 77);
  __KySetVectorElement(small.get(), 9, 1);
  __KyCopyVector(source.get(), small.get());
  KyVector* copy = __KyDuplicateVector(source.get(), 0);
  EXPECT_EQ(SizeOf(*copy), 10u);
  ASSERT_NE(copy->pages[1], nullptr);
  EXPECT_EQ(copy->pages[1][144], 77u);
  __KyDestroyVector(copy);
}

// ---------------------------------------------------------------------------
// Copy

TEST_F(VectorTest, CopyCopiesTheInlinePageAndEveryPageTheSourceHas) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t destinationCategory = __KyRegisterMemoryCategory("destination");
  StoredVector destination(destinationCategory);
  StoredVector source(0);
  __KySetVectorElement(destination.get(), 3, 30);
  __KySetVectorElement(source.get(), 4, 40);
  __KySetVectorElement(source.get(), 2000, 20);
  __KyCopyVector(destination.get(), source.get());
  EXPECT_EQ(destination->sizeAndCategory,
            (destinationCategory << KY_VECTOR_CATEGORY_SHIFT) | 2001u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 3), 0u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 4), 40u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 2000), 20u);
  ASSERT_NE(destination->pages[7], nullptr);
  EXPECT_NE(destination->pages[7], source->pages[7]);
  EXPECT_EQ(AllocatedIn(destinationCategory), kSlabBytes);
}

TEST_F(VectorTest, CopyReusesThePagesTheDestinationHas) {
  StoredVector destination(0);
  StoredVector source(0);
  __KySetVectorElement(destination.get(), 300, 1);
  __KySetVectorElement(source.get(), 310, 2);
  const uint64_t* page1 = destination->pages[1];
  __KyCopyVector(destination.get(), source.get());
  EXPECT_EQ(destination->pages[1], page1);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 300), 0u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 310), 2u);
}

TEST_F(VectorTest, CopyClearsOnlyTheFirstElementOfAPageTheSourceLacks) {
  StoredVector destination(0);
  StoredVector source(0);
  __KySetVectorElement(destination.get(), 256, 5);
  __KySetVectorElement(destination.get(), 257, 6);
  __KySetVectorElement(destination.get(), 511, 7);
  __KySetVectorElement(source.get(), 1000, 1);  // size 1001, covering page 1
  const uint64_t* page1 = destination->pages[1];
  __KyCopyVector(destination.get(), source.get());
  EXPECT_EQ(destination->pages[1], page1) << "the page is not freed";
  EXPECT_EQ(SizeOf(*destination.get()), 1001u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 256), 0u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 257), 6u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 511), 7u);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 1000), 1u);
}

TEST_F(VectorTest, CopyTakesASmallerSizeAndKeepsTheCategory) {
  StoredVector destination(9);
  StoredVector source(1);
  __KySetVectorElement(destination.get(), 200, 1);
  __KySetVectorElement(source.get(), 9, 2);
  __KyCopyVector(destination.get(), source.get());
  EXPECT_EQ(destination->sizeAndCategory, 0x0900000Au);
  EXPECT_EQ(__KyGetVectorElement(destination.get(), 200), 0u);
  EXPECT_EQ(destination->inlinePage[200], 0u) << "the inline page is copied whole";
}

TEST_F(VectorTest, CopyOntoItselfChangesNothing) {
  StoredVector vector(0);
  __KySetVectorElement(vector.get(), 300, 3);
  __KyCopyVector(vector.get(), vector.get());
  EXPECT_EQ(SizeOf(*vector.get()), 301u);
  EXPECT_EQ(__KyGetVectorElement(vector.get(), 300), 3u);
}

// ---------------------------------------------------------------------------
// Differential run against a model of the rules
//
// The model keeps each vector as a plain array of values per page plus the
// set of slots whose value the rules determine (a page that the merge
// allocates without filling has unknown slots). After every operation the
// vector must hold exactly the model's pages, size and category, every
// known slot must match, and every read must give the model's value.

struct ModelPage {
  std::array<uint64_t, KY_VECTOR_PAGE_ELEMENTS> values{};
  std::bitset<KY_VECTOR_PAGE_ELEMENTS> known;
};

// How often a run met the cases the rules single out.
struct RuleCoverage {
  int partialPagesAllocated = 0;  // merge: a new last page filled in part
  int firstElementsCleared = 0;   // copy: a page the source lacks
};

struct ModelVector {
  std::array<std::optional<ModelPage>, KY_VECTOR_PAGE_COUNT> pages;
  uint32_t size = 0;
  uint32_t category = 0;
  RuleCoverage* coverage = nullptr;

  explicit ModelVector(uint32_t categoryOfVector) : category(categoryOfVector) {
    pages[0] = ModelPage{};
    pages[0]->known.set();
  }

  static ModelPage ZeroedPage() {
    ModelPage page;
    page.known.set();
    return page;
  }

  uint64_t Write(uint32_t index, uint64_t value) {
    if (index > KY_VECTOR_MAX_INDEX) return 0;
    std::optional<ModelPage>& page = pages[index / KY_VECTOR_PAGE_ELEMENTS];
    if (!page) page = ZeroedPage();
    const uint32_t slot = index % KY_VECTOR_PAGE_ELEMENTS;
    const uint64_t previous = page->values[slot];
    page->values[slot] = value;
    page->known.set(slot);
    size = std::max(size, index + 1);
    return previous;
  }

  // A page new to the destination receives the slots in use and knows
  // nothing of the others; an existing page keeps the larger values, known
  // only where both were.
  void MergePage(uint32_t number, const ModelPage& from, uint32_t inUse) {
    std::optional<ModelPage>& page = pages[number];
    if (!page) {
      page = ModelPage{};
      if (coverage != nullptr && inUse < KY_VECTOR_PAGE_ELEMENTS) ++coverage->partialPagesAllocated;
      for (uint32_t slot = 0; slot < inUse; ++slot) {
        page->values[slot] = from.values[slot];
        page->known[slot] = from.known[slot];
      }
      return;
    }
    for (uint32_t slot = 0; slot < inUse; ++slot) {
      page->values[slot] = std::max(page->values[slot], from.values[slot]);
      page->known[slot] = page->known[slot] && from.known[slot];
    }
  }

  // A slot whose value the rules leave open takes the value the vector
  // actually holds, before an operation that reads it.
  void LearnSlot(const KyVector* vector, uint32_t index) {
    if (index > KY_VECTOR_MAX_INDEX) return;
    const uint32_t number = index / KY_VECTOR_PAGE_ELEMENTS;
    const uint32_t slot = index % KY_VECTOR_PAGE_ELEMENTS;
    if (!pages[number] || pages[number]->known[slot]) return;
    pages[number]->values[slot] = vector->pages[number][slot];
    pages[number]->known.set(slot);
  }

  uint64_t ValueAt(uint32_t index) const {
    if (index > KY_VECTOR_MAX_INDEX) return 0;
    const std::optional<ModelPage>& page = pages[index / KY_VECTOR_PAGE_ELEMENTS];
    return page ? page->values[index % KY_VECTOR_PAGE_ELEMENTS] : 0;
  }

  void Max(const ModelVector& source) {
    size = std::max(size, source.size);
    const uint32_t fullPages = size / KY_VECTOR_PAGE_ELEMENTS;
    for (uint32_t page = 0; page < fullPages; ++page) {
      if (source.pages[page]) MergePage(page, *source.pages[page], KY_VECTOR_PAGE_ELEMENTS);
    }
    if (fullPages < KY_VECTOR_PAGE_COUNT && source.pages[fullPages]) {
      MergePage(fullPages, *source.pages[fullPages], size % KY_VECTOR_PAGE_ELEMENTS);
    }
  }

  void Copy(const ModelVector& source) {
    pages[0] = source.pages[0];
    for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
      if (source.pages[page]) {
        pages[page] = source.pages[page];
      } else if (pages[page]) {
        if (coverage != nullptr) ++coverage->firstElementsCleared;
        pages[page]->values[0] = 0;
        pages[page]->known.set(0);
      }
    }
    size = source.size;
  }
};

// Checks vector against model, with fatal failures.
void ExpectMatchesModel(const KyVector* vector, const ModelVector& model, int step) {
  ASSERT_EQ(vector->pages[0], vector->inlinePage) << "step " << step;
  ASSERT_EQ(vector->sizeAndCategory, (model.category << KY_VECTOR_CATEGORY_SHIFT) | model.size)
      << "step " << step;
  for (uint32_t page = 0; page < KY_VECTOR_PAGE_COUNT; ++page) {
    ASSERT_EQ(vector->pages[page] != nullptr, model.pages[page].has_value())
        << "step " << step << " page " << page;
    if (!model.pages[page]) continue;
    for (uint32_t slot = 0; slot < KY_VECTOR_PAGE_ELEMENTS; ++slot) {
      if (!model.pages[page]->known[slot]) continue;
      ASSERT_EQ(vector->pages[page][slot], model.pages[page]->values[slot])
          << "step " << step << " page " << page << " slot " << slot;
      const uint32_t index = page * KY_VECTOR_PAGE_ELEMENTS + slot;
      ASSERT_EQ(__KyGetVectorElement(vector, index),
                index < model.size ? model.pages[page]->values[slot] : 0u)
          << "step " << step << " index " << index;
    }
  }
  ASSERT_EQ(__KyGetVectorElement(vector, model.size), 0u) << "step " << step;
}

// Indexes cluster on a few pages so that pages are shared, merged and
// copied often; the edges of the range come up now and then.
uint32_t DrawIndex(std::mt19937& random) {
  static constexpr uint32_t kEdges[] = {0, 255, 256, 511, 512, KY_VECTOR_MAX_INDEX, 0x20000};
  const uint32_t kind = random() % 10;
  if (kind == 0) return kEdges[random() % std::size(kEdges)];
  const uint32_t page = random() % 6;
  return page * KY_VECTOR_PAGE_ELEMENTS + random() % KY_VECTOR_PAGE_ELEMENTS;
}

TEST_F(VectorTest, RandomOperationsFollowTheRulesOfAPlainArrayModel) {
  constexpr int kVectors = 4;
  constexpr int kSteps = 3000;
  std::mt19937 random(20240611);
  std::vector<KyVector*> vectors;
  std::vector<ModelVector> models;
  RuleCoverage coverage;
  for (uint32_t v = 0; v < kVectors; ++v) {
    vectors.push_back(__KyCreateVector(v % 2));
    models.emplace_back(v % 2);
    models.back().coverage = &coverage;
  }
  for (int step = 0; step < kSteps; ++step) {
    const int target = static_cast<int>(random() % kVectors);
    const int other = static_cast<int>(random() % kVectors);
    const uint32_t index = DrawIndex(random);
    models[target].LearnSlot(vectors[target], index);
    switch (random() % 10) {
      case 0:
      case 1:
      case 2: {
        const uint64_t value = random() % 4 == 0 ? UINT64_MAX - random() % 3 : random() % 1000;
        ASSERT_EQ(__KySetVectorElement(vectors[target], index, value),
                  models[target].Write(index, value))
            << "step " << step;
        break;
      }
      case 3:
      case 4: {
        const uint64_t expected = models[target].Write(index, models[target].ValueAt(index) + 1);
        ASSERT_EQ(__KyIncrementVectorElement(vectors[target], index), expected) << "step " << step;
        break;
      }
      case 5:
      case 6:
        __KyMaxVector(vectors[target], vectors[other]);
        models[target].Max(models[other]);
        break;
      case 7:
        __KyCopyVector(vectors[target], vectors[other]);
        if (target != other) models[target].Copy(models[other]);
        break;
      case 8: {
        KyVector* copy = __KyDuplicateVector(vectors[other], models[target].category);
        ModelVector model(models[target].category);
        model.coverage = &coverage;
        model.pages = models[other].pages;
        model.size = models[other].size;
        __KyDestroyVector(vectors[target]);
        vectors[target] = copy;
        models[target] = model;
        break;
      }
      case 9: {
        // A fresh vector now and then, so that sizes and page sets keep
        // differing between the vectors.
        __KyDestroyVector(vectors[target]);
        vectors[target] = __KyCreateVector(models[target].category);
        ModelVector model(models[target].category);
        model.coverage = &coverage;
        models[target] = model;
        break;
      }
    }
    for (int v = 0; v < kVectors; ++v) {
      ExpectMatchesModel(vectors[v], models[v], step);
      if (HasFatalFailure()) return;
    }
  }
  for (KyVector* vector : vectors) __KyDestroyVector(vector);
  EXPECT_GT(coverage.partialPagesAllocated, 20);
  EXPECT_GT(coverage.firstElementsCleared, 20);
}

// Where no stale value can surface (every vector written only through set
// and increment, then combined once), the rules agree with plain arrays.
TEST_F(VectorTest, FreshVectorsCombineLikePlainArrays) {
  std::mt19937 random(7);
  for (int round = 0; round < 40; ++round) {
    std::vector<uint64_t> left(KY_VECTOR_CAPACITY), right(KY_VECTOR_CAPACITY);
    KyVector* a = __KyCreateVector(0);
    KyVector* b = __KyCreateVector(0);
    uint32_t sizeA = 0, sizeB = 0;
    for (int write = 0; write < 200; ++write) {
      const uint32_t indexA = random() % (random() % 2 ? 2048 : KY_VECTOR_CAPACITY);
      const uint32_t indexB = random() % (random() % 2 ? 2048 : KY_VECTOR_CAPACITY);
      left[indexA] = random();
      right[indexB] = random();
      __KySetVectorElement(a, indexA, left[indexA]);
      __KySetVectorElement(b, indexB, right[indexB]);
      sizeA = std::max(sizeA, indexA + 1);
      sizeB = std::max(sizeB, indexB + 1);
    }
    KyVector* copyOfA = __KyDuplicateVector(a, 0);
    KyVector* fresh = __KyCreateVector(0);
    __KyCopyVector(fresh, b);
    __KyMaxVector(a, b);
    ASSERT_EQ(SizeOf(*a), std::max(sizeA, sizeB));
    ASSERT_EQ(SizeOf(*copyOfA), sizeA);
    ASSERT_EQ(SizeOf(*fresh), sizeB);
    for (uint32_t index = 0; index < KY_VECTOR_CAPACITY; ++index) {
      ASSERT_EQ(__KyGetVectorElement(a, index), std::max(left[index], right[index]))
          << "round " << round << " index " << index;
      ASSERT_EQ(__KyGetVectorElement(copyOfA, index), left[index]);
      ASSERT_EQ(__KyGetVectorElement(fresh, index), right[index]);
    }
    for (KyVector* vector : {a, b, copyOfA, fresh}) __KyDestroyVector(vector);
  }
}

}  // namespace
}  // namespace kyrt_test
