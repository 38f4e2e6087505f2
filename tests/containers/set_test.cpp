// Sets and multisets: layouts, element operations, life cycle, comparisons,
// the set algebra with the results its rules give as they stand (the count
// after a difference, disjointness of a set with itself), and differential
// runs against std::set / std::map and against a model of the block rules.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/sets.h"
#include "sync/lock_test_support.h"

namespace kyrt_test {
namespace {

// The allocator's default slab: what a category's figure grows by when its
// first block of a size class is allocated.
constexpr int64_t kSlabBytes = int64_t{1} << 16;
constexpr uint32_t kTopBlockIndex = 0x3FFFFFF;

using Elements = std::vector<uint32_t>;
using Multiplicities = std::map<uint32_t, uint32_t>;

// ---------------------------------------------------------------------------
// Reading headers and blocks

template <typename Header>
uint32_t CountOf(const Header& header) {
  return header.countAndCategory & KY_SET_COUNT_MASK;
}

template <typename Header>
uint32_t CategoryOf(const Header& header) {
  return header.countAndCategory >> KY_SET_CATEGORY_SHIFT;
}

template <typename Header>
std::vector<uint32_t> BlockIndexesOf(const Header& header) {
  std::vector<uint32_t> indexes;
  for (auto* block = header.firstBlock; block != nullptr; block = block->next) {
    indexes.push_back(block->blockIndex);
  }
  return indexes;
}

template <typename Header>
std::vector<const void*> BlockAddressesOf(const Header& header) {
  std::vector<const void*> addresses;
  for (auto* block = header.firstBlock; block != nullptr; block = block->next) {
    addresses.push_back(block);
  }
  return addresses;
}

void CollectElement(uint32_t element, void* context) {
  static_cast<Elements*>(context)->push_back(element);
}

Elements ElementsOf(const KySet& set) {
  Elements elements;
  __KyScanSet(&set, CollectElement, &elements);
  return elements;
}

Multiplicities MultiplicitiesOf(const KyMultiSet& set) {
  Multiplicities contents;
  for (const KyMultiSetBlock* block = set.firstBlock; block != nullptr; block = block->next) {
    for (uint32_t slot = 0; slot < KY_SET_BLOCK_ELEMENTS; ++slot) {
      const bool present = (block->bits[slot / 32] >> (slot % 32)) & 1;
      EXPECT_EQ(present, block->multiplicity[slot] != 0)
          << "block " << block->blockIndex << " slot " << slot;
      if (present)
        contents[block->blockIndex * KY_SET_BLOCK_ELEMENTS + slot] = block->multiplicity[slot];
    }
  }
  return contents;
}

// Blocks sorted by strictly increasing index, none empty.
template <typename Header>
void ExpectWellFormed(const Header& header) {
  uint64_t previous = 0;
  bool first = true;
  for (auto* block = header.firstBlock; block != nullptr; block = block->next) {
    if (!first) {
      EXPECT_GT(block->blockIndex, previous);
    }
    EXPECT_NE(block->bits[0] | block->bits[1], 0u) << "empty block " << block->blockIndex;
    previous = block->blockIndex;
    first = false;
  }
}

int64_t AllocatedIn(uint32_t category) {
  MemoryCategoryInfo info{};
  EXPECT_EQ(__KyGetMemoryInfoByCategory(category, &info), 1);
  return info.allocated;
}

// Frees a chunk of `size` bytes of category filled with 0xFF: the allocator
// hands the most recently freed chunk of a bin out first, so the next block
// of that size in category is this chunk, with this content.
const void* SeedFreedChunk(uint32_t category, uint64_t size) {
  void* chunk = __KyMalloc(category, size, 0);
  std::memset(chunk, 0xFF, size);
  __KyFree(chunk);
  return chunk;
}

// The chunk the allocator hands out next for a block of `size` bytes:
// after a block was freed, that block.
const void* NextChunk(uint32_t category, uint64_t size) {
  void* chunk = __KyMalloc(category, size, 0);
  __KyFree(chunk);
  return chunk;
}

// ---------------------------------------------------------------------------
// Headers owned by a test

class SetHolder {
 public:
  explicit SetHolder(uint32_t category, std::initializer_list<uint32_t> elements = {})
      : header_(KySet KY_SET_HEADER_INITIALIZER(category)) {
    for (uint32_t element : elements) __KyAddAnElementToSet(&header_, element);
  }
  ~SetHolder() { __KyDestroySet(&header_); }
  SetHolder(const SetHolder&) = delete;
  SetHolder& operator=(const SetHolder&) = delete;

  KySet* get() { return &header_; }
  KySet* operator->() { return &header_; }
  const KySet& operator*() const { return header_; }

 private:
  KySet header_;
};

class MultiSetHolder {
 public:
  explicit MultiSetHolder(uint32_t category, const Multiplicities& contents = {})
      : header_(KyMultiSet KY_SET_HEADER_INITIALIZER(category)) {
    for (const auto& [element, multiplicity] : contents) {
      for (uint32_t i = 0; i < multiplicity; ++i) __KyAddAnElementToMultiSet(&header_, element);
    }
  }
  ~MultiSetHolder() { __KyDestroyMultiSet(&header_); }
  MultiSetHolder(const MultiSetHolder&) = delete;
  MultiSetHolder& operator=(const MultiSetHolder&) = delete;

  KyMultiSet* get() { return &header_; }
  KyMultiSet* operator->() { return &header_; }
  const KyMultiSet& operator*() const { return header_; }

 private:
  KyMultiSet header_;
};

class SetTest : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    category_ = __KyRegisterMemoryCategory("sets");
    other_ = __KyRegisterMemoryCategory("other sets");
  }

  uint32_t category_ = 0;
  uint32_t other_ = 0;
};

// {1, 100} minus {}: both elements in place, count 0.
void MakeCountZeroWithTwoElements(KySet* set) {
  const KySet empty KY_SET_HEADER_INITIALIZER(0);
  __KyAddAnElementToSet(set, 1);
  __KyAddAnElementToSet(set, 100);
  __KyDifferenceSet(set, &empty);
}

// ---------------------------------------------------------------------------
// Layouts

TEST_F(SetTest, HeaderAndBlockLayouts) {
  EXPECT_EQ(sizeof(KySet), 16u);
  EXPECT_EQ(offsetof(KySet, countAndCategory), 0u);
  EXPECT_EQ(offsetof(KySet, firstBlock), 8u);
  EXPECT_EQ(sizeof(KyMultiSet), 16u);
  EXPECT_EQ(offsetof(KyMultiSet, countAndCategory), 0u);
  EXPECT_EQ(offsetof(KyMultiSet, firstBlock), 8u);
  EXPECT_EQ(sizeof(KySetBlock), 24u);
  EXPECT_EQ(offsetof(KySetBlock, next), 0u);
  EXPECT_EQ(offsetof(KySetBlock, blockIndex), 8u);
  EXPECT_EQ(offsetof(KySetBlock, bits), 12u);
  EXPECT_EQ(sizeof(KyMultiSetBlock), 280u);
  EXPECT_EQ(offsetof(KyMultiSetBlock, next), 0u);
  EXPECT_EQ(offsetof(KyMultiSetBlock, blockIndex), 8u);
  EXPECT_EQ(offsetof(KyMultiSetBlock, bits), 12u);
  EXPECT_EQ(offsetof(KyMultiSetBlock, multiplicity), 20u);
  EXPECT_EQ(KY_SET_COUNT_MASK, 0x00FFFFFFu);
  EXPECT_EQ(KY_SET_CATEGORY_SHIFT, 24u);
}

TEST_F(SetTest, TheHeaderInitializerSetsTheCategoryByteAndNothingElse) {
  const KySet set KY_SET_HEADER_INITIALIZER(0x2A);
  EXPECT_EQ(set.countAndCategory, 0x2A000000u);
  EXPECT_EQ(set.firstBlock, nullptr);
  EXPECT_EQ(KY_SET_HEADER_WORD(7), 0x07000000u);
}

// ---------------------------------------------------------------------------
// Set elements

TEST_F(SetTest, AddingFiveTwiceToASetCountsOnce) {
  SetHolder set(category_);
  EXPECT_NE(__KyAddAnElementToSet(set.get(), 5), 0);
  EXPECT_NE(__KyAddAnElementToSet(set.get(), 5), 0);
  EXPECT_EQ(CountOf(*set), 1u);
  EXPECT_EQ(ElementsOf(*set), Elements({5}));
}

TEST_F(SetTest, AddingZero63And64MakesBlocksZeroAndOneAndAScanVisitsThemInOrder) {
  SetHolder set(category_, {64, 0, 63});
  EXPECT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({0, 1}));
  const KySetBlock* first = set->firstBlock;
  EXPECT_EQ(first->bits[0], 0x00000001u);
  EXPECT_EQ(first->bits[1], 0x80000000u);
  EXPECT_EQ(first->next->bits[0], 0x00000001u);
  EXPECT_EQ(first->next->bits[1], 0u);
  EXPECT_EQ(ElementsOf(*set), Elements({0, 63, 64}));
  EXPECT_EQ(CountOf(*set), 3u);
}

TEST_F(SetTest, TheTopOfTheRangeLivesInBlock0x3FFFFFF) {
  SetHolder set(category_, {0xFFFFFFFF, 0xFFFFFFC0});
  ASSERT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({kTopBlockIndex}));
  EXPECT_EQ(set->firstBlock->bits[0], 0x00000001u);
  EXPECT_EQ(set->firstBlock->bits[1], 0x80000000u);
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 0xFFFFFFFF), 0x80000000u);
  EXPECT_EQ(ElementsOf(*set), Elements({0xFFFFFFC0, 0xFFFFFFFF}));
}

TEST_F(SetTest, MembershipReturnsTheElementsOwnBit) {
  SetHolder set(category_, {37, 2, 64});
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 37), 1u << 5);
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 2), 1u << 2);
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 64), 1u);
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 38), 0u) << "absent from a present block";
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 1000), 0u) << "past the last block";
  EXPECT_EQ(__KyIsAnElementOfSet(set.get(), 100), 0u) << "in the last block, absent";
}

TEST_F(SetTest, BlocksStaySortedWhateverTheOrderOfAdding) {
  SetHolder set(category_, {200, 5, 100, 0xFFFFFFFF, 64, 199});
  EXPECT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({0, 1, 3, kTopBlockIndex}));
  EXPECT_EQ(ElementsOf(*set), Elements({5, 64, 100, 199, 200, 0xFFFFFFFF}));
  EXPECT_EQ(CountOf(*set), 6u);
}

TEST_F(SetTest, ANewBlockComesFromTheHeadersCategoryWithAnEmptyBitmap) {
  __KyEnableMemoryStatisticsCollection();
  SetHolder set(category_);
  const void* seeded = SeedFreedChunk(category_, sizeof(KySetBlock));
  const int64_t before = AllocatedIn(category_);
  __KyAddAnElementToSet(set.get(), 5);
  ASSERT_EQ(static_cast<const void*>(set->firstBlock), seeded)
      << "premise: the freed chunk is reused";
  EXPECT_EQ(set->firstBlock->bits[0], 1u << 5);
  EXPECT_EQ(set->firstBlock->bits[1], 0u);
  EXPECT_EQ(set->firstBlock->blockIndex, 0u);
  EXPECT_EQ(set->firstBlock->next, nullptr);
  EXPECT_EQ(AllocatedIn(category_), before);
  EXPECT_EQ(AllocatedIn(other_), 0);
  SetHolder another(other_, {1});
  EXPECT_EQ(AllocatedIn(other_), kSlabBytes);
}

TEST_F(SetTest, DeletingAnAbsentElementChangesNothing) {
  SetHolder set(category_, {1, 100});
  const std::vector<const void*> blocks = BlockAddressesOf(*set);
  __KyDeleteAnElementFromSet(set.get(), 2);     // present block, absent bit
  __KyDeleteAnElementFromSet(set.get(), 1000);  // no block
  __KyDeleteAnElementFromSet(set.get(), 70);    // between blocks
  EXPECT_EQ(CountOf(*set), 2u);
  EXPECT_EQ(BlockAddressesOf(*set), blocks);
  EXPECT_EQ(ElementsOf(*set), Elements({1, 100}));
}

TEST_F(SetTest, DeletingTheLastElementOfABlockUnlinksAndFreesIt) {
  SetHolder set(category_, {0, 64, 65, 128});
  const KySetBlock* middle = set->firstBlock->next;
  __KyDeleteAnElementFromSet(set.get(), 64);
  EXPECT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({0, 1, 2}));
  __KyDeleteAnElementFromSet(set.get(), 65);
  EXPECT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({0, 2}));
  EXPECT_EQ(NextChunk(category_, sizeof(KySetBlock)), static_cast<const void*>(middle));
  EXPECT_EQ(CountOf(*set), 2u);
  __KyDeleteAnElementFromSet(set.get(), 0);
  __KyDeleteAnElementFromSet(set.get(), 128);
  EXPECT_EQ(set->firstBlock, nullptr);
  EXPECT_EQ(CountOf(*set), 0u);
}

TEST_F(SetTest, EveryCallKeepsTheCategoryByte) {
  SetHolder set(category_, {1, 2, 300});
  SetHolder other(other_, {2, 3, 700});
  const uint32_t word = KY_SET_HEADER_WORD(category_);
  __KyDeleteAnElementFromSet(set.get(), 1);
  EXPECT_EQ(set->countAndCategory, word | 2);
  __KyUnionSet(set.get(), other.get());
  EXPECT_EQ(set->countAndCategory, word | 4);
  __KyIntersectSet(set.get(), set.get(), other.get());
  EXPECT_EQ(set->countAndCategory, word | 3);
  __KyDifferenceSet(set.get(), other.get());
  EXPECT_EQ(set->countAndCategory, word);
  __KyConstructSet(set.get(), other.get());
  EXPECT_EQ(set->countAndCategory, word | 3);
  __KyConstructSetAndDestroy(set.get(), other.get());
  EXPECT_EQ(set->countAndCategory, word | 3);
  EXPECT_EQ(other->countAndCategory, KY_SET_HEADER_WORD(other_));
  __KyEmptySet(set.get());
  EXPECT_EQ(set->countAndCategory, word);
}

TEST_F(SetTest, TheCountWrapsModulo2To24AndKeepsTheCategory) {
  constexpr uint32_t kElements = uint32_t{1} << 24;
  SetHolder set(category_);
  // Descending, so that every new block is linked in first.
  for (uint32_t element = kElements; element-- > 0;) __KyAddAnElementToSet(set.get(), element);
  EXPECT_EQ(set->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_NE(__KyIsAnElementOfSet(set.get(), kElements - 1), 0u);
  __KyDeleteAnElementFromSet(set.get(), 0);
  EXPECT_EQ(set->countAndCategory, KY_SET_HEADER_WORD(category_) | KY_SET_COUNT_MASK);
}

TEST_F(SetTest, ScanPassesTheContextAndVisitsNothingForAnEmptySet) {
  SetHolder empty(category_);
  EXPECT_TRUE(ElementsOf(*empty).empty());
  SetHolder set(category_, {31, 32, 33, 0x12345678});
  EXPECT_EQ(ElementsOf(*set), Elements({31, 32, 33, 0x12345678}));
  __KyScanSet(set.get(), nullptr, nullptr);  // a null visitor is ignored
  EXPECT_EQ(CountOf(*set), 4u);
}

// ---------------------------------------------------------------------------
// Multiset elements

TEST_F(SetTest, AddingFiveTwiceToAMultisetCountsOnceAndTwoDeletesFreeItsBlock) {
  MultiSetHolder set(category_);
  EXPECT_NE(__KyAddAnElementToMultiSet(set.get(), 5), 0);
  EXPECT_NE(__KyAddAnElementToMultiSet(set.get(), 5), 0);
  EXPECT_EQ(CountOf(*set), 1u);
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 5), 2u);
  const KyMultiSetBlock* block = set->firstBlock;
  __KyDeleteAnElementFromMultiSet(set.get(), 5);
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 5), 1u);
  EXPECT_EQ(CountOf(*set), 1u);
  EXPECT_EQ(set->firstBlock->bits[0], 1u << 5);
  __KyDeleteAnElementFromMultiSet(set.get(), 5);
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 5), 0u);
  EXPECT_EQ(CountOf(*set), 0u);
  EXPECT_EQ(set->firstBlock, nullptr);
  EXPECT_EQ(NextChunk(category_, sizeof(KyMultiSetBlock)), static_cast<const void*>(block));
}

TEST_F(SetTest, TheMultiplicityOfAnAbsentElementIsZero) {
  MultiSetHolder set(category_, {{5, 3}, {0xFFFFFFFF, 2}});
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 6), 0u);
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 64), 0u);
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 5), 3u);
  EXPECT_EQ(__KyGetElementMultiplicity(set.get(), 0xFFFFFFFF), 2u);
  EXPECT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({0, kTopBlockIndex}));
}

TEST_F(SetTest, DeletingAllInstancesRemovesTheElementWhateverItsMultiplicity) {
  MultiSetHolder set(category_, {{5, 3}, {6, 1}, {70, 2}});
  __KyDeleteAllInstancesOfAnElementFromMultiSet(set.get(), 5);
  EXPECT_EQ(MultiplicitiesOf(*set), Multiplicities({{6, 1}, {70, 2}}));
  EXPECT_EQ(CountOf(*set), 2u);
  __KyDeleteAllInstancesOfAnElementFromMultiSet(set.get(), 70);
  EXPECT_EQ(BlockIndexesOf(*set), std::vector<uint32_t>({0}));
  EXPECT_EQ(CountOf(*set), 1u);
}

TEST_F(SetTest, DeletingAnAbsentElementFromAMultisetChangesNothing) {
  MultiSetHolder set(category_, {{5, 2}});
  __KyDeleteAnElementFromMultiSet(set.get(), 6);
  __KyDeleteAnElementFromMultiSet(set.get(), 600);
  __KyDeleteAllInstancesOfAnElementFromMultiSet(set.get(), 7);
  __KyDeleteAllInstancesOfAnElementFromMultiSet(set.get(), 700);
  EXPECT_EQ(MultiplicitiesOf(*set), Multiplicities({{5, 2}}));
  EXPECT_EQ(CountOf(*set), 1u);
}

TEST_F(SetTest, AMultisetIsEmptyWhenItsCountIsZero) {
  MultiSetHolder set(category_);
  EXPECT_EQ(__KyIsMultiSetEmpty(set.get()), 1);
  __KyAddAnElementToMultiSet(set.get(), 9);
  EXPECT_EQ(__KyIsMultiSetEmpty(set.get()), 0);
  __KyDeleteAnElementFromMultiSet(set.get(), 9);
  EXPECT_EQ(__KyIsMultiSetEmpty(set.get()), 1);
}

TEST_F(SetTest, ANewMultisetBlockHasZeroMultiplicities) {
  MultiSetHolder set(category_);
  const void* seeded = SeedFreedChunk(category_, sizeof(KyMultiSetBlock));
  __KyAddAnElementToMultiSet(set.get(), 70);
  ASSERT_EQ(static_cast<const void*>(set->firstBlock), seeded)
      << "premise: the freed chunk is reused";
  for (uint32_t slot = 0; slot < KY_SET_BLOCK_ELEMENTS; ++slot) {
    ASSERT_EQ(set->firstBlock->multiplicity[slot], slot == 6 ? 1u : 0u) << "slot " << slot;
  }
  EXPECT_EQ(set->firstBlock->bits[0], 1u << 6);
  EXPECT_EQ(set->firstBlock->bits[1], 0u);
}

// ---------------------------------------------------------------------------
// Life cycle

TEST_F(SetTest, DestroyAndEmptyFreeEveryBlockAndKeepTheCategory) {
  SetHolder set(category_, {1, 100, 1000});
  const KySetBlock* last = set->firstBlock->next->next;
  __KyDestroySet(set.get());
  EXPECT_EQ(set->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_EQ(set->firstBlock, nullptr);
  EXPECT_EQ(NextChunk(category_, sizeof(KySetBlock)), static_cast<const void*>(last));
  __KyAddAnElementToSet(set.get(), 4);
  __KyEmptySet(set.get());
  EXPECT_EQ(set->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_EQ(set->firstBlock, nullptr);

  MultiSetHolder multiset(category_, {{1, 2}, {100, 1}});
  __KyDestroyMultiSet(multiset.get());
  EXPECT_EQ(multiset->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_EQ(multiset->firstBlock, nullptr);
  __KyAddAnElementToMultiSet(multiset.get(), 4);
  __KyEmptyMultiSet(multiset.get());
  EXPECT_EQ(multiset->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_EQ(multiset->firstBlock, nullptr);
  __KyEmptyMultiSet(multiset.get());  // on an empty multiset
  EXPECT_EQ(multiset->firstBlock, nullptr);
}

TEST_F(SetTest, ConstructOverwritesTheDestinationsBlocksInPlaceAndFreesItsSurplus) {
  SetHolder destination(other_, {1000, 2000, 3000});
  SetHolder source(category_, {1, 64, 65});
  const std::vector<const void*> blocks = BlockAddressesOf(*destination);
  __KyConstructSet(destination.get(), source.get());
  EXPECT_EQ(ElementsOf(*destination), Elements({1, 64, 65}));
  EXPECT_EQ(destination->countAndCategory, KY_SET_HEADER_WORD(other_) | 3);
  EXPECT_EQ(BlockAddressesOf(*destination), std::vector<const void*>({blocks[0], blocks[1]}));
  EXPECT_EQ(NextChunk(other_, sizeof(KySetBlock)), blocks[2]);
  EXPECT_EQ(ElementsOf(*source), Elements({1, 64, 65}));
}

TEST_F(SetTest, ConstructAllocatesMissingBlocksInTheDestinationsCategory) {
  __KyEnableMemoryStatisticsCollection();
  SetHolder source(category_, {1, 64, 200});
  SetHolder destination(other_);
  EXPECT_EQ(AllocatedIn(other_), 0);
  __KyConstructSet(destination.get(), source.get());
  EXPECT_EQ(AllocatedIn(other_), kSlabBytes);
  EXPECT_EQ(BlockIndexesOf(*destination), std::vector<uint32_t>({0, 1, 3}));
  EXPECT_EQ(CountOf(*destination), 3u);
  const std::vector<const void*> copies = BlockAddressesOf(*destination);
  for (const void* block : BlockAddressesOf(*source)) {
    EXPECT_EQ(std::count(copies.begin(), copies.end(), block), 0) << "blocks are not shared";
  }
}

TEST_F(SetTest, ConstructFromAnEmptySourceEmptiesTheDestination) {
  SetHolder destination(other_, {1, 2000});
  SetHolder source(category_);
  __KyConstructSet(destination.get(), source.get());
  EXPECT_EQ(destination->firstBlock, nullptr);
  EXPECT_EQ(destination->countAndCategory, KY_SET_HEADER_WORD(other_));
}

TEST_F(SetTest, ConstructOntoItselfChangesNothing) {
  SetHolder set(category_, {1, 2000});
  const std::vector<const void*> blocks = BlockAddressesOf(*set);
  __KyConstructSet(set.get(), set.get());
  EXPECT_EQ(BlockAddressesOf(*set), blocks);
  EXPECT_EQ(ElementsOf(*set), Elements({1, 2000}));
  EXPECT_EQ(CountOf(*set), 2u);
}

TEST_F(SetTest, ConstructCopiesTheCountAsItIs) {
  SetHolder source(category_);
  MakeCountZeroWithTwoElements(source.get());
  SetHolder destination(other_);
  __KyConstructSet(destination.get(), source.get());
  EXPECT_EQ(ElementsOf(*destination), Elements({1, 100}));
  EXPECT_EQ(CountOf(*destination), 0u);
}

TEST_F(SetTest, ConstructMultiSetCopiesMultiplicities) {
  MultiSetHolder destination(other_, {{7, 7}, {500, 1}, {900, 1}});
  MultiSetHolder source(category_, {{5, 3}, {6, 1}, {1000, 2}});
  __KyConstructMultiSet(destination.get(), source.get());
  EXPECT_EQ(MultiplicitiesOf(*destination), Multiplicities({{5, 3}, {6, 1}, {1000, 2}}));
  EXPECT_EQ(destination->countAndCategory, KY_SET_HEADER_WORD(other_) | 3);
  EXPECT_EQ(__KyAreMultiSetsEqual(destination.get(), source.get()), 1);
  __KyConstructMultiSet(destination.get(), destination.get());
  EXPECT_EQ(MultiplicitiesOf(*destination), Multiplicities({{5, 3}, {6, 1}, {1000, 2}}));
}

TEST_F(SetTest, AMovedFromSetIsEmptyButKeepsItsCategory) {
  SetHolder destination(other_, {9, 900});
  SetHolder source(category_, {1, 100});
  const std::vector<const void*> taken = BlockAddressesOf(*source);
  const void* lastOfDestination = destination->firstBlock->next;
  __KyConstructSetAndDestroy(destination.get(), source.get());
  EXPECT_EQ(source->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_EQ(source->firstBlock, nullptr);
  EXPECT_EQ(BlockAddressesOf(*destination), taken);
  EXPECT_EQ(destination->countAndCategory, KY_SET_HEADER_WORD(other_) | 2);
  EXPECT_EQ(NextChunk(other_, sizeof(KySetBlock)), lastOfDestination);
}

TEST_F(SetTest, AMovedFromMultisetIsEmptyButKeepsItsCategory) {
  MultiSetHolder destination(other_, {{9, 1}});
  MultiSetHolder source(category_, {{1, 4}, {100, 1}});
  __KyConstructMultiSetAndDestroy(destination.get(), source.get());
  EXPECT_EQ(source->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_EQ(source->firstBlock, nullptr);
  EXPECT_EQ(__KyIsMultiSetEmpty(source.get()), 1);
  EXPECT_EQ(MultiplicitiesOf(*destination), Multiplicities({{1, 4}, {100, 1}}));
  EXPECT_EQ(destination->countAndCategory, KY_SET_HEADER_WORD(other_) | 2);
}

TEST_F(SetTest, MovingOntoItselfChangesNothing) {
  SetHolder set(category_, {1, 100});
  __KyConstructSetAndDestroy(set.get(), set.get());
  EXPECT_EQ(ElementsOf(*set), Elements({1, 100}));
  EXPECT_EQ(CountOf(*set), 2u);
  MultiSetHolder multiset(category_, {{3, 2}});
  __KyConstructMultiSetAndDestroy(multiset.get(), multiset.get());
  EXPECT_EQ(MultiplicitiesOf(*multiset), Multiplicities({{3, 2}}));
}

TEST_F(SetTest, PrintOutDoesNothing) {
  SetHolder set(category_, {1, 100});
  MultiSetHolder multiset(category_, {{3, 2}});
  const KySet setBefore = *set;
  const KyMultiSet multisetBefore = *multiset;
  __KyPrintOutSet(set.get());
  __KyPrintOutMultiSet(multiset.get());
  EXPECT_EQ(std::memcmp(&setBefore, &*set, sizeof setBefore), 0);
  EXPECT_EQ(std::memcmp(&multisetBefore, &*multiset, sizeof multisetBefore), 0);
  EXPECT_EQ(ElementsOf(*set), Elements({1, 100}));
}

// ---------------------------------------------------------------------------
// Comparisons

TEST_F(SetTest, EqualityComparesCountsThenBlocks) {
  SetHolder a(category_, {1, 64, 2000});
  SetHolder b(other_, {2000, 64, 1});
  SetHolder c(category_, {1, 64, 2001});
  SetHolder d(category_, {1, 64});
  EXPECT_EQ(__KyAreSetsEqual(a.get(), a.get()), 1);
  EXPECT_EQ(__KyAreSetsEqual(a.get(), b.get()), 1) << "categories do not matter";
  EXPECT_EQ(__KyAreSetsEqual(a.get(), c.get()), 0);
  EXPECT_EQ(__KyAreSetsEqual(a.get(), d.get()), 0);
  EXPECT_EQ(__KyAreSetsEqual(d.get(), a.get()), 0);
  SetHolder empty1(category_), empty2(other_);
  EXPECT_EQ(__KyAreSetsEqual(empty1.get(), empty2.get()), 1);
}

TEST_F(SetTest, EqualityNeedsBothListsToEndTogether) {
  SetHolder countZero(category_);
  MakeCountZeroWithTwoElements(countZero.get());
  SetHolder empty(category_);
  ASSERT_EQ(CountOf(*countZero), CountOf(*empty));
  EXPECT_EQ(__KyAreSetsEqual(countZero.get(), empty.get()), 0);
  EXPECT_EQ(__KyAreSetsEqual(empty.get(), countZero.get()), 0);
  EXPECT_EQ(__KyAreSetsEqual(countZero.get(), countZero.get()), 1);
}

TEST_F(SetTest, MultisetsDifferingOnlyInAMultiplicityAreNotEqual) {
  MultiSetHolder a(category_, {{5, 2}, {70, 1}});
  MultiSetHolder b(other_, {{5, 2}, {70, 1}});
  MultiSetHolder c(category_, {{5, 3}, {70, 1}});
  MultiSetHolder d(category_, {{5, 2}});
  EXPECT_EQ(__KyAreMultiSetsEqual(a.get(), b.get()), 1);
  EXPECT_EQ(__KyAreMultiSetsEqual(a.get(), c.get()), 0);
  EXPECT_EQ(__KyAreMultiSetsEqual(a.get(), d.get()), 0);
  EXPECT_EQ(__KyAreMultiSetsEqual(c.get(), c.get()), 1);
}

TEST_F(SetTest, CompareTellsEqualFromDifferentAndCountsTheDifference) {
  SetHolder one(category_, {1});
  SetHolder oneTwo(category_, {1, 2});
  SetHolder oneThree(category_, {1, 3});
  SetHolder empty(category_);
  EXPECT_EQ(__KyCompareSets(one.get(), oneTwo.get()), 0xFFFFFFFFu);
  EXPECT_EQ(__KyCompareSets(oneTwo.get(), one.get()), 1u);
  EXPECT_EQ(__KyCompareSets(empty.get(), oneTwo.get()), 0xFFFFFFFEu);
  EXPECT_EQ(__KyCompareSets(oneTwo.get(), oneThree.get()), 1u);
  EXPECT_EQ(__KyCompareSets(oneThree.get(), oneTwo.get()), 1u);
  EXPECT_EQ(__KyCompareSets(oneTwo.get(), oneTwo.get()), 0u);
  SetHolder alsoOneTwo(other_, {2, 1});
  EXPECT_EQ(__KyCompareSets(oneTwo.get(), alsoOneTwo.get()), 0u);
}

TEST_F(SetTest, ASetIsNeverDisjointFromItselfEvenWhenEmpty) {
  SetHolder empty(category_);
  SetHolder set(category_, {1});
  EXPECT_EQ(__KyAreSetsDisjoint(empty.get(), empty.get()), 0);
  EXPECT_EQ(__KyAreSetsDisjoint(set.get(), set.get()), 0);
}

TEST_F(SetTest, AnEmptySetIsDisjointFromAnyOther) {
  SetHolder empty(category_), otherEmpty(category_);
  SetHolder set(category_, {1, 100});
  EXPECT_EQ(__KyAreSetsDisjoint(empty.get(), set.get()), 1);
  EXPECT_EQ(__KyAreSetsDisjoint(set.get(), empty.get()), 1);
  EXPECT_EQ(__KyAreSetsDisjoint(empty.get(), otherEmpty.get()), 1);
}

TEST_F(SetTest, DisjointnessLooksForACommonBitInBlocksOfTheSameIndex) {
  SetHolder a(category_, {1, 64, 3000});
  SetHolder sameBlockNoCommonBit(category_, {2, 65, 3001});
  SetHolder otherBlocks(category_, {128, 200, 5000});
  SetHolder commonInTheLastBlock(category_, {2, 3000});
  EXPECT_EQ(__KyAreSetsDisjoint(a.get(), sameBlockNoCommonBit.get()), 1);
  EXPECT_EQ(__KyAreSetsDisjoint(a.get(), otherBlocks.get()), 1);
  EXPECT_EQ(__KyAreSetsDisjoint(a.get(), commonInTheLastBlock.get()), 0);
  EXPECT_EQ(__KyAreSetsDisjoint(commonInTheLastBlock.get(), a.get()), 0);
}

TEST_F(SetTest, SubsetNeedsEveryBlockOfAInBWithAllItsBits) {
  SetHolder empty(category_);
  SetHolder one(category_, {1});
  SetHolder oneTwo(category_, {1, 2});
  SetHolder oneSixtyFour(category_, {1, 64});
  SetHolder wide(category_, {1, 2, 64, 65, 1000});
  EXPECT_EQ(__KyIsASubsetOfSet(oneTwo.get(), oneTwo.get()), 1);
  EXPECT_EQ(__KyIsASubsetOfSet(empty.get(), one.get()), 1);
  EXPECT_EQ(__KyIsASubsetOfSet(empty.get(), empty.get()), 1);
  EXPECT_EQ(__KyIsASubsetOfSet(one.get(), empty.get()), 0);
  EXPECT_EQ(__KyIsASubsetOfSet(one.get(), oneTwo.get()), 1);
  EXPECT_EQ(__KyIsASubsetOfSet(oneTwo.get(), one.get()), 0) << "a bit of a not in b's block";
  EXPECT_EQ(__KyIsASubsetOfSet(oneSixtyFour.get(), oneTwo.get()), 0) << "a block missing in b";
  EXPECT_EQ(__KyIsASubsetOfSet(oneSixtyFour.get(), wide.get()), 1);
  EXPECT_EQ(__KyIsASubsetOfSet(wide.get(), oneSixtyFour.get()), 0);
}

// ---------------------------------------------------------------------------
// Set algebra

TEST_F(SetTest, UnionMergesBlocksInIndexOrderAndRecounts) {
  SetHolder a(category_, {1, 200});
  SetHolder b(other_, {2, 64, 1000, 201});
  const std::vector<const void*> ownBlocks = BlockAddressesOf(*a);
  __KyUnionSet(a.get(), b.get());
  EXPECT_EQ(ElementsOf(*a), Elements({1, 2, 64, 200, 201, 1000}));
  EXPECT_EQ(BlockIndexesOf(*a), std::vector<uint32_t>({0, 1, 3, 15}));
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(category_) | 6);
  const std::vector<const void*> blocks = BlockAddressesOf(*a);
  EXPECT_EQ(blocks[0], ownBlocks[0]);
  EXPECT_EQ(blocks[2], ownBlocks[1]);
  for (const void* block : BlockAddressesOf(*b)) {
    EXPECT_EQ(std::count(blocks.begin(), blocks.end(), block), 0) << "blocks are not shared";
  }
  EXPECT_EQ(ElementsOf(*b), Elements({2, 64, 201, 1000}));
  ExpectWellFormed(*a);
}

TEST_F(SetTest, UnionAllocatesTheBlocksALacksInItsOwnCategory) {
  __KyEnableMemoryStatisticsCollection();
  SetHolder b(category_, {1, 100});
  SetHolder a(other_);
  __KyUnionSet(a.get(), b.get());
  EXPECT_EQ(AllocatedIn(other_), kSlabBytes);
  EXPECT_EQ(ElementsOf(*a), Elements({1, 100}));
  EXPECT_EQ(CountOf(*a), 2u);
}

TEST_F(SetTest, UnionWithEmptySetsAndWithItself) {
  SetHolder a(category_, {1, 100});
  SetHolder empty(category_);
  __KyUnionSet(a.get(), empty.get());
  EXPECT_EQ(ElementsOf(*a), Elements({1, 100}));
  __KyUnionSet(empty.get(), a.get());
  EXPECT_EQ(ElementsOf(*empty), Elements({1, 100}));
  EXPECT_EQ(CountOf(*empty), 2u);
  __KyUnionSet(a.get(), a.get());
  EXPECT_EQ(ElementsOf(*a), Elements({1, 100}));
  EXPECT_EQ(CountOf(*a), 2u);
}

TEST_F(SetTest, UnionRecountsACountThatADifferenceLeftAtZero) {
  SetHolder a(category_);
  MakeCountZeroWithTwoElements(a.get());
  ASSERT_EQ(CountOf(*a), 0u);
  SetHolder empty(category_);
  __KyUnionSet(a.get(), empty.get());
  EXPECT_EQ(CountOf(*a), 2u);
}

TEST_F(SetTest, IntersectionOfASetWithItselfIsACopy) {
  SetHolder a(category_, {1, 100, 1000});
  SetHolder result(other_, {5});
  __KyIntersectSet(result.get(), a.get(), a.get());
  EXPECT_EQ(ElementsOf(*result), Elements({1, 100, 1000}));
  EXPECT_EQ(result->countAndCategory, KY_SET_HEADER_WORD(other_) | 3);
  __KyIntersectSet(a.get(), a.get(), a.get());
  EXPECT_EQ(ElementsOf(*a), Elements({1, 100, 1000}));
}

TEST_F(SetTest, IntersectionReusesTheResultsBlocksInOrderAndFreesTheSurplus) {
  SetHolder a(category_, {1, 2, 64, 200, 300});
  SetHolder b(category_, {2, 64, 65, 300, 5000});
  SetHolder result(other_, {1000, 2000, 3000, 4000});
  const std::vector<const void*> blocks = BlockAddressesOf(*result);
  __KyIntersectSet(result.get(), a.get(), b.get());
  EXPECT_EQ(ElementsOf(*result), Elements({2, 64, 300}));
  EXPECT_EQ(result->countAndCategory, KY_SET_HEADER_WORD(other_) | 3);
  EXPECT_EQ(BlockAddressesOf(*result),
            std::vector<const void*>(blocks.begin(), blocks.begin() + 3));
  EXPECT_EQ(NextChunk(other_, sizeof(KySetBlock)), blocks[3]);
}

TEST_F(SetTest, IntersectionAllocatesMoreBlocksInTheResultsCategory) {
  __KyEnableMemoryStatisticsCollection();
  SetHolder a(category_, {1, 65, 129});
  SetHolder b(category_, {1, 65, 129, 193});
  SetHolder result(other_);
  __KyIntersectSet(result.get(), a.get(), b.get());
  EXPECT_EQ(ElementsOf(*result), Elements({1, 65, 129}));
  EXPECT_EQ(BlockIndexesOf(*result), std::vector<uint32_t>({0, 1, 2}));
  EXPECT_EQ(AllocatedIn(other_), kSlabBytes);
}

TEST_F(SetTest, IntersectionStoresNoBlockWithoutACommonBit) {
  SetHolder a(category_, {1, 64});
  SetHolder b(category_, {2, 65});
  SetHolder result(category_, {7});
  __KyIntersectSet(result.get(), a.get(), b.get());
  EXPECT_EQ(result->firstBlock, nullptr);
  EXPECT_EQ(CountOf(*result), 0u);
  SetHolder empty(category_);
  __KyAddAnElementToSet(result.get(), 7);
  __KyIntersectSet(result.get(), a.get(), empty.get());
  EXPECT_EQ(result->firstBlock, nullptr);
  EXPECT_EQ(result->countAndCategory, KY_SET_HEADER_WORD(category_));
}

TEST_F(SetTest, IntersectionIntoOneOfItsOperands) {
  SetHolder a(category_, {1, 2, 64, 200, 300});
  SetHolder b(category_, {2, 64, 65, 300});
  __KyIntersectSet(a.get(), a.get(), b.get());
  EXPECT_EQ(ElementsOf(*a), Elements({2, 64, 300}));
  EXPECT_EQ(CountOf(*a), 3u);
  SetHolder c(category_, {0, 1, 2, 64, 65, 300, 301, 9999});
  SetHolder d(category_, {2, 300, 9999});
  __KyIntersectSet(d.get(), c.get(), d.get());
  EXPECT_EQ(ElementsOf(*d), Elements({2, 300, 9999}));
  EXPECT_EQ(CountOf(*d), 3u);
  ExpectWellFormed(*a);
  ExpectWellFormed(*d);
}

TEST_F(SetTest, DifferenceWithItselfEmptiesTheSet) {
  SetHolder a(category_, {1, 100});
  __KyDifferenceSet(a.get(), a.get());
  EXPECT_EQ(a->firstBlock, nullptr);
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(category_));
}

TEST_F(SetTest, DifferenceWithAnEmptySideZeroesTheCountAndKeepsEveryBlock) {
  SetHolder a(category_, {1, 100});
  SetHolder empty(category_);
  const std::vector<const void*> blocks = BlockAddressesOf(*a);
  __KyDifferenceSet(a.get(), empty.get());
  EXPECT_EQ(ElementsOf(*a), Elements({1, 100}));
  EXPECT_EQ(BlockAddressesOf(*a), blocks);
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(category_));
  EXPECT_NE(__KyIsAnElementOfSet(a.get(), 1), 0u);
  EXPECT_NE(__KyIsAnElementOfSet(a.get(), 100), 0u);

  SetHolder b(category_, {1});
  __KyDifferenceSet(empty.get(), b.get());
  EXPECT_EQ(empty->firstBlock, nullptr);
  EXPECT_EQ(CountOf(*empty), 0u);
}

TEST_F(SetTest, DifferenceOf1And100Minus1Leaves100InPlaceWithCountZero) {
  SetHolder a(category_, {1, 100});
  SetHolder b(category_, {1});
  const KySetBlock* firstBlock = a->firstBlock;
  __KyDifferenceSet(a.get(), b.get());
  EXPECT_EQ(ElementsOf(*a), Elements({100}));
  EXPECT_EQ(BlockIndexesOf(*a), std::vector<uint32_t>({1}));
  EXPECT_EQ(CountOf(*a), 0u);
  EXPECT_EQ(NextChunk(category_, sizeof(KySetBlock)), static_cast<const void*>(firstBlock));
}

TEST_F(SetTest, DifferenceSkipsSmallerBlocksOfBAndStopsAtTheEndOfB) {
  SetHolder a(category_, {100, 200});
  SetHolder b(category_, {1, 100});
  __KyDifferenceSet(a.get(), b.get());
  EXPECT_EQ(ElementsOf(*a), Elements({200}));
  EXPECT_EQ(CountOf(*a), 0u) << "the block of 200 lies past b's last block";

  SetHolder c(category_, {5, 640});
  SetHolder d(category_, {321});
  __KyDifferenceSet(c.get(), d.get());
  EXPECT_EQ(ElementsOf(*c), Elements({5, 640}));
  EXPECT_EQ(CountOf(*c), 1u) << "5 precedes b's block and is counted; 640 is past it";
}

TEST_F(SetTest, DifferenceCountsEverythingWhenAEndsFirst) {
  SetHolder a(category_, {1, 2, 64, 65, 130});
  SetHolder b(category_, {2, 65, 1, 10000});
  __KyDifferenceSet(a.get(), b.get());
  EXPECT_EQ(ElementsOf(*a), Elements({64, 130}));
  EXPECT_EQ(CountOf(*a), 2u);
  ExpectWellFormed(*a);
}

// ---------------------------------------------------------------------------
// Multiset algebra

TEST_F(SetTest, MultisetUnionSumsMultiplicitiesAndCopiesTheBlocksALacks) {
  MultiSetHolder a(category_, {{5, 2}, {70, 1}});
  MultiSetHolder b(other_, {{5, 3}, {200, 4}, {71, 1}});
  __KyUnionMultiSet(a.get(), b.get());
  EXPECT_EQ(MultiplicitiesOf(*a), Multiplicities({{5, 5}, {70, 1}, {71, 1}, {200, 4}}));
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(category_) | 4);
  EXPECT_EQ(MultiplicitiesOf(*b), Multiplicities({{5, 3}, {71, 1}, {200, 4}}));
  ExpectWellFormed(*a);
}

TEST_F(SetTest, MultisetUnionWithItselfDoublesEveryMultiplicity) {
  MultiSetHolder a(category_, {{5, 2}, {700, 3}});
  __KyUnionMultiSet(a.get(), a.get());
  EXPECT_EQ(MultiplicitiesOf(*a), Multiplicities({{5, 4}, {700, 6}}));
  EXPECT_EQ(CountOf(*a), 2u);
}

TEST_F(SetTest, UnionOfAMultisetWithASetAddsOnePerElement) {
  __KyEnableMemoryStatisticsCollection();
  MultiSetHolder a(other_, {{5, 2}});
  SetHolder b(category_, {5, 6, 1000, 0xFFFFFFFF});
  const int64_t before = AllocatedIn(other_);
  __KyUnionMultiSetSet(a.get(), b.get());
  EXPECT_EQ(MultiplicitiesOf(*a), Multiplicities({{5, 3}, {6, 1}, {1000, 1}, {0xFFFFFFFF, 1}}));
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(other_) | 4);
  EXPECT_EQ(AllocatedIn(other_), before) << "new blocks come from the multiset's slab";
  EXPECT_EQ(BlockIndexesOf(*a), std::vector<uint32_t>({0, 15, kTopBlockIndex}));
  SetHolder empty(category_);
  __KyUnionMultiSetSet(a.get(), empty.get());
  EXPECT_EQ(CountOf(*a), 4u);
}

TEST_F(SetTest, MultisetIntersectionTakesTheSmallerMultiplicity) {
  MultiSetHolder a(category_, {{5, 2}, {6, 1}, {70, 3}, {300, 1}});
  MultiSetHolder b(category_, {{5, 1}, {70, 5}, {71, 1}, {301, 2}});
  MultiSetHolder result(other_, {{9, 9}, {900, 1}, {9000, 1}});
  __KyIntersectMultiSet(result.get(), a.get(), b.get());
  EXPECT_EQ(MultiplicitiesOf(*result), Multiplicities({{5, 1}, {70, 3}}));
  EXPECT_EQ(result->countAndCategory, KY_SET_HEADER_WORD(other_) | 2);
  ExpectWellFormed(*result);
  __KyIntersectMultiSet(result.get(), a.get(), a.get());
  EXPECT_EQ(MultiplicitiesOf(*result), Multiplicities({{5, 2}, {6, 1}, {70, 3}, {300, 1}}));
  __KyIntersectMultiSet(a.get(), a.get(), b.get());
  EXPECT_EQ(MultiplicitiesOf(*a), Multiplicities({{5, 1}, {70, 3}}));
  EXPECT_EQ(CountOf(*a), 2u);
}

TEST_F(SetTest, MultisetDifferenceLowersMultiplicitiesAndCountsWhatIsLeft) {
  MultiSetHolder a(category_, {{5, 3}, {6, 1}, {70, 2}, {1000, 4}});
  MultiSetHolder b(category_, {{5, 1}, {6, 2}, {70, 2}});
  __KyDifferenceMultiSet(a.get(), b.get());
  EXPECT_EQ(MultiplicitiesOf(*a), Multiplicities({{5, 2}, {1000, 4}}));
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(category_) | 2)
      << "1000 lies past b's last block and is counted";
  EXPECT_EQ(BlockIndexesOf(*a), std::vector<uint32_t>({0, 15}));
  MultiSetHolder empty(category_);
  __KyDifferenceMultiSet(a.get(), empty.get());
  EXPECT_EQ(MultiplicitiesOf(*a), Multiplicities({{5, 2}, {1000, 4}}));
  EXPECT_EQ(CountOf(*a), 2u);
  __KyDifferenceMultiSet(empty.get(), a.get());
  EXPECT_EQ(empty->firstBlock, nullptr);
  EXPECT_EQ(CountOf(*empty), 0u);
}

TEST_F(SetTest, MultisetDifferenceWithItselfEmptiesIt) {
  MultiSetHolder a(category_, {{5, 3}, {1000, 1}});
  __KyDifferenceMultiSet(a.get(), a.get());
  EXPECT_EQ(a->firstBlock, nullptr);
  EXPECT_EQ(a->countAndCategory, KY_SET_HEADER_WORD(category_));
}

// ---------------------------------------------------------------------------
// Differential runs
//
// Values cluster around a few bases (so that sets share blocks often) and
// now and then fall anywhere in the range or on its edges.

uint32_t DrawElement(std::mt19937& random) {
  static constexpr uint32_t kBases[] = {0, 4096, 100000, 0xFFFFFF00};
  switch (random() % 8) {
    case 0:
      return static_cast<uint32_t>(random());
    case 1:
      return random() % 2 ? 0u : 0xFFFFFFFFu;
    default:
      return kBases[random() % std::size(kBases)] + random() % 256;
  }
}

TEST_F(SetTest, RandomAddsAndDeletesMatchStdSet) {
  std::mt19937 random(1234);
  SetHolder set(category_);
  std::set<uint32_t> model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t element = DrawElement(random);
    const uint32_t position = uint32_t{1} << (element % 32);
    switch (random() % 3) {
      case 0:
      case 1:
        __KyAddAnElementToSet(set.get(), element);
        model.insert(element);
        break;
      case 2:
        __KyDeleteAnElementFromSet(set.get(), element);
        model.erase(element);
        break;
    }
    const uint32_t probe = DrawElement(random);
    ASSERT_EQ(__KyIsAnElementOfSet(set.get(), probe), model.count(probe) ? 1u << (probe % 32) : 0u)
        << "step " << step;
    ASSERT_EQ(__KyIsAnElementOfSet(set.get(), element), model.count(element) ? position : 0u);
    ASSERT_EQ(CountOf(*set), model.size()) << "step " << step;
    if (step % 500 == 0) {
      ASSERT_EQ(ElementsOf(*set), Elements(model.begin(), model.end())) << "step " << step;
      ExpectWellFormed(*set);
    }
  }
  EXPECT_EQ(ElementsOf(*set), Elements(model.begin(), model.end()));
}

TEST_F(SetTest, RandomMultisetOperationsMatchStdMap) {
  std::mt19937 random(5678);
  MultiSetHolder set(category_);
  Multiplicities model;
  for (int step = 0; step < 20000; ++step) {
    const uint32_t element = DrawElement(random);
    switch (random() % 5) {
      case 0:
      case 1:
        __KyAddAnElementToMultiSet(set.get(), element);
        ++model[element];
        break;
      case 2:
      case 3:
        __KyDeleteAnElementFromMultiSet(set.get(), element);
        if (model.count(element) && --model[element] == 0) model.erase(element);
        break;
      case 4:
        __KyDeleteAllInstancesOfAnElementFromMultiSet(set.get(), element);
        model.erase(element);
        break;
    }
    const uint32_t probe = DrawElement(random);
    ASSERT_EQ(__KyGetElementMultiplicity(set.get(), probe), model.count(probe) ? model[probe] : 0u)
        << "step " << step;
    ASSERT_EQ(CountOf(*set), model.size()) << "step " << step;
    ASSERT_EQ(__KyIsMultiSetEmpty(set.get()), model.empty() ? 1 : 0);
    if (step % 500 == 0) {
      ASSERT_EQ(MultiplicitiesOf(*set), model) << "step " << step;
      ExpectWellFormed(*set);
    }
  }
  EXPECT_EQ(MultiplicitiesOf(*set), model);
}

// The set algebra as its rules state it, on a map from block index to the
// block's 64 presence bits and a separate count (which the difference
// leaves as the rules say, not as the elements are).
struct BlockModel {
  std::map<uint32_t, uint64_t> blocks;
  uint32_t count = 0;

  static uint32_t Population(uint64_t bits) {
    return static_cast<uint32_t>(__builtin_popcountll(bits));
  }

  uint32_t Recount() const {
    uint32_t total = 0;
    for (const auto& [index, bits] : blocks) total += Population(bits);
    return total & KY_SET_COUNT_MASK;
  }

  void Add(uint32_t element) {
    uint64_t& bits = blocks[element >> 6];
    const uint64_t bit = uint64_t{1} << (element & 63);
    if (!(bits & bit)) count = (count + 1) & KY_SET_COUNT_MASK;
    bits |= bit;
  }

  void Delete(uint32_t element) {
    const auto block = blocks.find(element >> 6);
    const uint64_t bit = uint64_t{1} << (element & 63);
    if (block == blocks.end() || !(block->second & bit)) return;
    block->second &= ~bit;
    count = (count - 1) & KY_SET_COUNT_MASK;
    if (block->second == 0) blocks.erase(block);
  }

  void Union(const BlockModel& b) {
    for (const auto& [index, bits] : b.blocks) blocks[index] |= bits;
    count = Recount();
  }

  static BlockModel Intersection(const BlockModel& a, const BlockModel& b, bool same) {
    if (same) return a;
    BlockModel result;
    for (const auto& [index, bits] : a.blocks) {
      const auto other = b.blocks.find(index);
      if (other != b.blocks.end() && (bits & other->second) != 0) {
        result.blocks[index] = bits & other->second;
      }
    }
    result.count = result.Recount();
    return result;
  }

  void Difference(const BlockModel& b, bool same) {
    if (same) {
      *this = BlockModel{};
      return;
    }
    if (blocks.empty() || b.blocks.empty()) {
      count = 0;
      return;
    }
    // The walk ends with b's last block: the blocks of a past it are
    // neither changed nor counted.
    const uint32_t lastOfB = b.blocks.rbegin()->first;
    uint32_t counted = 0;
    for (auto block = blocks.begin(); block != blocks.end() && block->first <= lastOfB;) {
      const auto other = b.blocks.find(block->first);
      if (other != b.blocks.end()) block->second &= ~other->second;
      if (block->second == 0) {
        block = blocks.erase(block);
        continue;
      }
      counted += Population(block->second);
      ++block;
    }
    count = counted & KY_SET_COUNT_MASK;
  }

  bool Equals(const BlockModel& b) const { return count == b.count && blocks == b.blocks; }

  bool Disjoint(const BlockModel& b) const {
    for (const auto& [index, bits] : blocks) {
      const auto other = b.blocks.find(index);
      if (other != b.blocks.end() && (bits & other->second) != 0) return false;
    }
    return true;
  }

  bool SubsetOf(const BlockModel& b) const {
    for (const auto& [index, bits] : blocks) {
      const auto other = b.blocks.find(index);
      if (other == b.blocks.end() || (bits & ~other->second) != 0) return false;
    }
    return true;
  }
};

void ExpectMatchesBlockModel(const KySet& set, const BlockModel& model, int step) {
  ASSERT_EQ(CountOf(set), model.count) << "step " << step;
  auto expected = model.blocks.begin();
  for (const KySetBlock* block = set.firstBlock; block != nullptr; block = block->next) {
    ASSERT_NE(expected, model.blocks.end()) << "step " << step << ": surplus blocks";
    ASSERT_EQ(block->blockIndex, expected->first) << "step " << step;
    ASSERT_EQ(block->bits[0], static_cast<uint32_t>(expected->second)) << "step " << step;
    ASSERT_EQ(block->bits[1], static_cast<uint32_t>(expected->second >> 32)) << "step " << step;
    ++expected;
  }
  ASSERT_EQ(expected, model.blocks.end()) << "step " << step << ": missing blocks";
}

TEST_F(SetTest, RandomSetAlgebraFollowsTheBlockRules) {
  constexpr int kSets = 4;
  std::mt19937 random(97531);
  std::vector<std::unique_ptr<SetHolder>> sets;
  std::vector<BlockModel> models(kSets);
  for (int s = 0; s < kSets; ++s) {
    sets.push_back(std::make_unique<SetHolder>(s % 2 ? category_ : other_));
  }
  // How often the run met the cases the rules single out.
  int countsBelowTheElements = 0;
  int intersectionsIntoAnOperand = 0;
  for (int step = 0; step < 6000; ++step) {
    const int x = static_cast<int>(random() % kSets);
    const int y = static_cast<int>(random() % kSets);
    const int z = static_cast<int>(random() % kSets);
    KySet* a = sets[x]->get();
    KySet* b = sets[y]->get();
    switch (random() % 12) {
      case 0:
      case 1:
      case 2:
        for (int i = 0; i < 4; ++i) {
          const uint32_t element = DrawElement(random);
          __KyAddAnElementToSet(a, element);
          models[x].Add(element);
        }
        break;
      case 3: {
        const uint32_t element = DrawElement(random);
        __KyDeleteAnElementFromSet(a, element);
        models[x].Delete(element);
        break;
      }
      case 4:
        __KyUnionSet(a, b);
        models[x].Union(models[y]);
        break;
      case 5:
        __KyIntersectSet(sets[z]->get(), a, b);
        models[z] = BlockModel::Intersection(models[x], models[y], x == y);
        if (x != y && (z == x || z == y)) ++intersectionsIntoAnOperand;
        break;
      case 6:
        __KyDifferenceSet(a, b);
        models[x].Difference(models[y], x == y);
        if (models[x].count != models[x].Recount()) ++countsBelowTheElements;
        break;
      case 7:
        __KyConstructSet(a, b);
        models[x] = models[y];
        break;
      case 8:
        __KyConstructSetAndDestroy(a, b);
        if (x != y) {
          models[x] = models[y];
          models[y] = BlockModel{};
        }
        break;
      case 9:
        ASSERT_EQ(__KyAreSetsEqual(a, b), x == y || models[x].Equals(models[y]) ? 1 : 0);
        ASSERT_EQ(__KyCompareSets(a, b), x == y || models[x].Equals(models[y]) ? 0u
                                         : models[x].count != models[y].count
                                             ? models[x].count - models[y].count
                                             : 1u);
        break;
      case 10:
        ASSERT_EQ(__KyAreSetsDisjoint(a, b), x == y                          ? 0
                                             : models[x].Disjoint(models[y]) ? 1
                                                                             : 0)
            << "step " << step;
        break;
      case 11:
        ASSERT_EQ(__KyIsASubsetOfSet(a, b), x == y || models[x].SubsetOf(models[y]) ? 1 : 0)
            << "step " << step;
        break;
    }
    for (int s = 0; s < kSets; ++s) {
      ExpectMatchesBlockModel(**sets[s], models[s], step);
      if (HasFatalFailure()) return;
      ExpectWellFormed(**sets[s]);
    }
    if (step % 200 == 0) {
      // Keep the sets from filling up: start one afresh now and then.
      __KyEmptySet(sets[x]->get());
      models[x] = BlockModel{};
    }
  }
  EXPECT_GT(countsBelowTheElements, 50);
  EXPECT_GT(intersectionsIntoAnOperand, 50);
}

// Multiset algebra against the mathematical definitions on std::map.
Multiplicities SumOf(Multiplicities a, const Multiplicities& b) {
  for (const auto& [element, multiplicity] : b) a[element] += multiplicity;
  return a;
}

Multiplicities SmallerOf(const Multiplicities& a, const Multiplicities& b) {
  Multiplicities result;
  for (const auto& [element, multiplicity] : a) {
    const auto other = b.find(element);
    if (other != b.end()) result[element] = std::min(multiplicity, other->second);
  }
  return result;
}

Multiplicities Lowered(Multiplicities a, const Multiplicities& b) {
  for (const auto& [element, multiplicity] : b) {
    const auto own = a.find(element);
    if (own == a.end()) continue;
    if (own->second <= multiplicity) {
      a.erase(own);
    } else {
      own->second -= multiplicity;
    }
  }
  return a;
}

TEST_F(SetTest, RandomMultisetAlgebraMatchesStdMap) {
  constexpr int kSets = 4;
  std::mt19937 random(24680);
  std::vector<std::unique_ptr<MultiSetHolder>> sets;
  std::vector<Multiplicities> models(kSets);
  for (int s = 0; s < kSets; ++s) {
    sets.push_back(std::make_unique<MultiSetHolder>(s % 2 ? category_ : other_));
  }
  SetHolder plain(category_);
  std::set<uint32_t> plainModel;
  for (int step = 0; step < 4000; ++step) {
    const int x = static_cast<int>(random() % kSets);
    const int y = static_cast<int>(random() % kSets);
    const int z = static_cast<int>(random() % kSets);
    KyMultiSet* a = sets[x]->get();
    KyMultiSet* b = sets[y]->get();
    switch (random() % 10) {
      case 0:
      case 1:
      case 2:
        for (int i = 0; i < 4; ++i) {
          const uint32_t element = DrawElement(random);
          __KyAddAnElementToMultiSet(a, element);
          ++models[x][element];
        }
        break;
      case 3: {
        const uint32_t element = DrawElement(random);
        __KyAddAnElementToSet(plain.get(), element);
        plainModel.insert(element);
        __KyUnionMultiSetSet(a, plain.get());
        for (uint32_t member : plainModel) ++models[x][member];
        break;
      }
      case 4:
        __KyUnionMultiSet(a, b);
        models[x] = SumOf(models[x], models[y]);
        break;
      case 5:
        __KyIntersectMultiSet(sets[z]->get(), a, b);
        models[z] = SmallerOf(models[x], models[y]);
        break;
      case 6:
        __KyDifferenceMultiSet(a, b);
        models[x] = Lowered(models[x], models[y]);
        break;
      case 7:
        __KyConstructMultiSet(a, b);
        models[x] = models[y];
        break;
      case 8:
        __KyConstructMultiSetAndDestroy(a, b);
        if (x != y) {
          models[x] = models[y];
          models[y].clear();
        }
        break;
      case 9:
        ASSERT_EQ(__KyAreMultiSetsEqual(a, b), models[x] == models[y] ? 1 : 0) << "step " << step;
        break;
    }
    for (int s = 0; s < kSets; ++s) {
      ASSERT_EQ(MultiplicitiesOf(**sets[s]), models[s]) << "step " << step << " set " << s;
      ASSERT_EQ(CountOf(**sets[s]), models[s].size()) << "step " << step << " set " << s;
      ExpectWellFormed(**sets[s]);
    }
    if (step % 50 == 0) {
      __KyEmptyMultiSet(sets[x]->get());
      models[x].clear();
      __KyEmptySet(plain.get());
      plainModel.clear();
    }
  }
}

}  // namespace
}  // namespace kyrt_test
