// Sets of unsigned 32-bit integers: sorted lists of 64-element bitmap
// blocks (see set_blocks.h for the list invariants).
#include <cstddef>

#include "containers/set_blocks.h"
#include "kyrt/sets.h"

static_assert(sizeof(KySet) == 16 && alignof(KySet) == 8, "KySet layout");
static_assert(offsetof(KySet, countAndCategory) == 0, "KySet word");
static_assert(offsetof(KySet, firstBlock) == 8, "KySet first block");
static_assert(sizeof(KySetBlock) == 24 && alignof(KySetBlock) == 8, "KySetBlock layout");
static_assert(offsetof(KySetBlock, next) == 0, "KySetBlock next");
static_assert(offsetof(KySetBlock, blockIndex) == 8, "KySetBlock index");
static_assert(offsetof(KySetBlock, bits) == 12, "KySetBlock bitmap");

namespace kyrt::sets {
namespace {

bool ShareABit(const KySetBlock& a, const KySetBlock& b) {
  return ((a.bits[0] & b.bits[0]) | (a.bits[1] & b.bits[1])) != 0;
}

bool HasBitsOutside(const KySetBlock& a, const KySetBlock& b) {
  return ((a.bits[0] & ~b.bits[0]) | (a.bits[1] & ~b.bits[1])) != 0;
}

void AbsorbBits(KySetBlock& into, const KySetBlock& from) {
  into.bits[0] |= from.bits[0];
  into.bits[1] |= from.bits[1];
}

void CommonBits(KySetBlock& common, const KySetBlock& a, const KySetBlock& b) {
  common.bits[0] = a.bits[0] & b.bits[0];
  common.bits[1] = a.bits[1] & b.bits[1];
}

void RemoveBits(KySetBlock& from, const KySetBlock& removed) {
  from.bits[0] &= ~removed.bits[0];
  from.bits[1] &= ~removed.bits[1];
}

// The difference walk: see __KyDifferenceSet() in the public header for
// the count it leaves, which is deliberately not the number of elements
// left once the walk stops at the end of b.
void SubtractWhileBothLast(KySet* a, const KySet* b) {
  uint32_t counted = 0;
  KySetBlock** link = &a->firstBlock;
  const KySetBlock* y = b->firstBlock;
  while (*link != nullptr && y != nullptr) {
    KySetBlock* const x = *link;
    if (y->blockIndex < x->blockIndex) {
      y = y->next;
      continue;
    }
    if (x->blockIndex == y->blockIndex) {
      RemoveBits(*x, *y);
      y = y->next;
      if (IsEmpty(*x)) {
        *link = x->next;
        __KyFree(x);
        continue;
      }
    }
    counted += Population(*x);
    link = &x->next;
  }
  StoreCount(a, counted);
}

}  // namespace
}  // namespace kyrt::sets

namespace sets = kyrt::sets;

extern "C" {

void __KyDestroySet(KySet* set) noexcept {
  sets::Release(set);
}

void __KyEmptySet(KySet* set) noexcept {
  sets::Release(set);
}

void __KyConstructSet(KySet* destination, const KySet* source) noexcept {
  sets::CopyInto(destination, source);
}

void __KyConstructSetAndDestroy(KySet* destination, KySet* source) noexcept {
  sets::MoveInto(destination, source);
}

void __KyPrintOutSet(const KySet*) noexcept {}

uint32_t __KyIsAnElementOfSet(const KySet* set, uint32_t element) noexcept {
  const sets::ElementPosition position = sets::PositionOf(element);
  const KySetBlock* block = sets::FindBlock(set->firstBlock, position.blockIndex);
  return block == nullptr ? 0 : block->bits[position.word] & position.mask;
}

int __KyAddAnElementToSet(KySet* set, uint32_t element) noexcept {
  const sets::ElementPosition position = sets::PositionOf(element);
  KySetBlock* block = sets::FindOrInsertBlock(set, position.blockIndex);
  if (!sets::HasBit(*block, position)) {
    block->bits[position.word] |= position.mask;
    sets::RaiseCount(set);
  }
  return 1;
}

void __KyDeleteAnElementFromSet(KySet* set, uint32_t element) noexcept {
  const sets::ElementPosition position = sets::PositionOf(element);
  KySetBlock** link = sets::FindLink(&set->firstBlock, position.blockIndex);
  if (!sets::HoldsBlock(link, position.blockIndex) || !sets::HasBit(**link, position)) return;
  (*link)->bits[position.word] &= ~position.mask;
  sets::LowerCount(set);
  sets::DropIfEmpty(link);
}

void __KyScanSet(const KySet* set, KySetVisitor visitor, void* context) noexcept {
  if (visitor == nullptr) return;
  for (const KySetBlock* block = set->firstBlock; block != nullptr; block = block->next) {
    sets::ForEachBit(*block, [&](uint32_t word, uint32_t bit) {
      visitor(sets::ElementAt(block->blockIndex, word, bit), context);
    });
  }
}

int __KyAreSetsEqual(const KySet* a, const KySet* b) noexcept {
  return sets::AreEqual(a, b) ? 1 : 0;
}

uint32_t __KyCompareSets(const KySet* a, const KySet* b) noexcept {
  if (sets::AreEqual(a, b)) return 0;
  const uint32_t countOfA = sets::CountOf(a);
  const uint32_t countOfB = sets::CountOf(b);
  return countOfA != countOfB ? countOfA - countOfB : 1;
}

int __KyAreSetsDisjoint(const KySet* a, const KySet* b) noexcept {
  if (a == b) return 0;
  const KySetBlock* x = a->firstBlock;
  const KySetBlock* y = b->firstBlock;
  while (x != nullptr && y != nullptr) {
    if (x->blockIndex < y->blockIndex) {
      x = x->next;
    } else if (y->blockIndex < x->blockIndex) {
      y = y->next;
    } else {
      if (sets::ShareABit(*x, *y)) return 0;
      x = x->next;
      y = y->next;
    }
  }
  return 1;
}

int __KyIsASubsetOfSet(const KySet* a, const KySet* b) noexcept {
  if (a == b) return 1;
  const KySetBlock* y = b->firstBlock;
  for (const KySetBlock* x = a->firstBlock; x != nullptr; x = x->next) {
    y = sets::FindBlock(y, x->blockIndex);
    if (y == nullptr || sets::HasBitsOutside(*x, *y)) return 0;
  }
  return 1;
}

void __KyUnionSet(KySet* a, const KySet* b) noexcept {
  sets::MergeInto(a, b->firstBlock, sets::AbsorbBits);
  sets::StoreCount(a, sets::CountBits(a->firstBlock));
}

void __KyIntersectSet(KySet* result, const KySet* a, const KySet* b) noexcept {
  sets::IntersectInto(result, a, b, sets::CommonBits);
}

void __KyDifferenceSet(KySet* a, const KySet* b) noexcept {
  if (a == b) {
    sets::Release(a);
  } else if (a->firstBlock == nullptr || b->firstBlock == nullptr) {
    sets::StoreCount(a, 0);
  } else {
    sets::SubtractWhileBothLast(a, b);
  }
}

}  // extern "C"
