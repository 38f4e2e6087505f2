// Multisets of unsigned 32-bit integers: the set's bitmap blocks with a
// multiplicity per element (see set_blocks.h for the list invariants).
#include <algorithm>
#include <cstddef>
#include <iterator>

#include "containers/set_blocks.h"
#include "kyrt/sets.h"

static_assert(sizeof(KyMultiSet) == 16 && alignof(KyMultiSet) == 8, "KyMultiSet layout");
static_assert(offsetof(KyMultiSet, countAndCategory) == 0, "KyMultiSet word");
static_assert(offsetof(KyMultiSet, firstBlock) == 8, "KyMultiSet first block");
static_assert(sizeof(KyMultiSetBlock) == 280 && alignof(KyMultiSetBlock) == 8,
              "KyMultiSetBlock layout");
static_assert(offsetof(KyMultiSetBlock, next) == 0, "KyMultiSetBlock next");
static_assert(offsetof(KyMultiSetBlock, blockIndex) == 8, "KyMultiSetBlock index");
static_assert(offsetof(KyMultiSetBlock, bits) == 12, "KyMultiSetBlock bitmap");
static_assert(offsetof(KyMultiSetBlock, multiplicity) == 20, "KyMultiSetBlock multiplicities");

namespace kyrt::sets {
namespace {

uint32_t SlotOf(uint32_t word, uint32_t bit) {
  return word * kBitsPerWord + bit;
}

void ClearBit(KyMultiSetBlock& block, uint32_t word, uint32_t bit) {
  block.bits[word] &= ~(uint32_t{1} << bit);
}

void SetBit(KyMultiSetBlock& block, uint32_t word, uint32_t bit) {
  block.bits[word] |= uint32_t{1} << bit;
}

void AbsorbMultiplicities(KyMultiSetBlock& into, const KyMultiSetBlock& from) {
  into.bits[0] |= from.bits[0];
  into.bits[1] |= from.bits[1];
  for (uint32_t slot = 0; slot < KY_SET_BLOCK_ELEMENTS; ++slot) {
    into.multiplicity[slot] += from.multiplicity[slot];
  }
}

void AbsorbOnce(KyMultiSetBlock& into, const KySetBlock& from) {
  ForEachBit(from, [&](uint32_t word, uint32_t bit) {
    SetBit(into, word, bit);
    ++into.multiplicity[SlotOf(word, bit)];
  });
}

void SmallerMultiplicities(KyMultiSetBlock& common, const KyMultiSetBlock& a,
                           const KyMultiSetBlock& b) {
  KySetBlock both{};
  both.bits[0] = a.bits[0] & b.bits[0];
  both.bits[1] = a.bits[1] & b.bits[1];
  ForEachBit(both, [&](uint32_t word, uint32_t bit) {
    const uint32_t slot = SlotOf(word, bit);
    const uint32_t smaller = std::min(a.multiplicity[slot], b.multiplicity[slot]);
    if (smaller == 0) return;
    common.multiplicity[slot] = smaller;
    SetBit(common, word, bit);
  });
}

// Lowers each multiplicity of `from` by that of `removed`, down to 0, and
// clears the bits of the elements that reach 0.
void LowerMultiplicities(KyMultiSetBlock& from, const KyMultiSetBlock& removed) {
  ForEachBit(from, [&](uint32_t word, uint32_t bit) {
    uint32_t& multiplicity = from.multiplicity[SlotOf(word, bit)];
    const uint32_t lowering = removed.multiplicity[SlotOf(word, bit)];
    multiplicity = multiplicity > lowering ? multiplicity - lowering : 0;
    if (multiplicity == 0) ClearBit(from, word, bit);
  });
}

uint32_t CountNonZeroMultiplicities(const KyMultiSetBlock* first) {
  uint32_t count = 0;
  for (const KyMultiSetBlock* block = first; block != nullptr; block = block->next) {
    count += static_cast<uint32_t>(std::count_if(std::begin(block->multiplicity),
                                                 std::end(block->multiplicity),
                                                 [](uint32_t value) { return value != 0; }));
  }
  return count;
}

// Takes one instance of element out of the multiset (removeAll: every
// instance). An element whose multiplicity reaches 0 loses its bit and its
// place in the count, and its block goes once empty.
void TakeOut(KyMultiSet* set, uint32_t element, bool removeAll) {
  const ElementPosition position = PositionOf(element);
  KyMultiSetBlock** link = FindLink(&set->firstBlock, position.blockIndex);
  if (!HoldsBlock(link, position.blockIndex) || !HasBit(**link, position)) return;
  uint32_t& multiplicity = (*link)->multiplicity[position.slot];
  if (!removeAll && multiplicity > 1) {
    --multiplicity;
    return;
  }
  multiplicity = 0;
  (*link)->bits[position.word] &= ~position.mask;
  LowerCount(set);
  DropIfEmpty(link);
}

}  // namespace
}  // namespace kyrt::sets

namespace sets = kyrt::sets;

extern "C" {

void __KyDestroyMultiSet(KyMultiSet* set) noexcept {
  sets::Release(set);
}

void __KyEmptyMultiSet(KyMultiSet* set) noexcept {
  sets::Release(set);
}

void __KyConstructMultiSet(KyMultiSet* destination, const KyMultiSet* source) noexcept {
  sets::CopyInto(destination, source);
}

void __KyConstructMultiSetAndDestroy(KyMultiSet* destination, KyMultiSet* source) noexcept {
  sets::MoveInto(destination, source);
}

void __KyPrintOutMultiSet(const KyMultiSet*) noexcept {}

int __KyIsMultiSetEmpty(const KyMultiSet* set) noexcept {
  return sets::CountOf(set) == 0 ? 1 : 0;
}

uint32_t __KyGetElementMultiplicity(const KyMultiSet* set, uint32_t element) noexcept {
  const sets::ElementPosition position = sets::PositionOf(element);
  const KyMultiSetBlock* block = sets::FindBlock(set->firstBlock, position.blockIndex);
  return block == nullptr ? 0 : block->multiplicity[position.slot];
}

int __KyAddAnElementToMultiSet(KyMultiSet* set, uint32_t element) noexcept {
  const sets::ElementPosition position = sets::PositionOf(element);
  KyMultiSetBlock* block = sets::FindOrInsertBlock(set, position.blockIndex);
  block->bits[position.word] |= position.mask;
  if (++block->multiplicity[position.slot] == 1) sets::RaiseCount(set);
  return 1;
}

void __KyDeleteAnElementFromMultiSet(KyMultiSet* set, uint32_t element) noexcept {
  sets::TakeOut(set, element, /*removeAll=*/false);
}

void __KyDeleteAllInstancesOfAnElementFromMultiSet(KyMultiSet* set, uint32_t element) noexcept {
  sets::TakeOut(set, element, /*removeAll=*/true);
}

int __KyAreMultiSetsEqual(const KyMultiSet* a, const KyMultiSet* b) noexcept {
  return sets::AreEqual(a, b) ? 1 : 0;
}

void __KyUnionMultiSet(KyMultiSet* a, const KyMultiSet* b) noexcept {
  sets::MergeInto(a, b->firstBlock, sets::AbsorbMultiplicities);
  sets::StoreCount(a, sets::CountBits(a->firstBlock));
}

void __KyUnionMultiSetSet(KyMultiSet* a, const KySet* b) noexcept {
  sets::MergeInto(a, b->firstBlock, sets::AbsorbOnce);
  sets::StoreCount(a, sets::CountNonZeroMultiplicities(a->firstBlock));
}

void __KyIntersectMultiSet(KyMultiSet* result, const KyMultiSet* a, const KyMultiSet* b) noexcept {
  sets::IntersectInto(result, a, b, sets::SmallerMultiplicities);
}

void __KyDifferenceMultiSet(KyMultiSet* a, const KyMultiSet* b) noexcept {
  if (a == b) {
    sets::Release(a);
    return;
  }
  // Unlike the set difference, every block of a is visited and counted.
  KyMultiSetBlock** link = &a->firstBlock;
  const KyMultiSetBlock* y = b->firstBlock;
  while (*link != nullptr) {
    y = sets::SkipBelow(y, (*link)->blockIndex);
    if (y == nullptr) break;
    if (y->blockIndex == (*link)->blockIndex) {
      sets::LowerMultiplicities(**link, *y);
      if (sets::DropIfEmpty(link)) continue;
    }
    link = &(*link)->next;
  }
  sets::StoreCount(a, sets::CountBits(a->firstBlock));
}

}  // extern "C"
