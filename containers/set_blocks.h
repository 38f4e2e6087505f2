// Block lists shared by sets and multisets.
//
// A set header (KySet or KyMultiSet) holds a count-and-category word and
// the first block of a singly linked list. Invariants kept by every
// operation:
//   - blocks are sorted by strictly increasing block index;
//   - the header word's top byte (the category) never changes; the count in
//     its low 24 bits is maintained modulo 2^24;
//   - in a multiset block, an element whose bit is clear has multiplicity 0.
// Element deletions free a block as soon as its bitmap becomes empty; the
// set algebra never stores an empty block either.
//
// The list algorithms are templates over the header type, so one walk
// serves both block kinds; what differs between sets and multisets (how two
// blocks combine, what "the same contents" means) is passed in or
// overloaded on the block type.
#ifndef KYRT_CONTAINERS_SET_BLOCKS_H
#define KYRT_CONTAINERS_SET_BLOCKS_H

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kyrt/memory.h"
#include "kyrt/runtime.h"
#include "kyrt/sets.h"

namespace kyrt::sets {

constexpr uint32_t kBlockShift = 6;  // log2 of KY_SET_BLOCK_ELEMENTS
constexpr uint32_t kWordShift = 5;   // log2 of the bits of one bitmap word
constexpr uint32_t kBitsPerWord = 32;
constexpr uint32_t kWordsPerBlock = 2;
constexpr uint32_t kBitMask = kBitsPerWord - 1;
constexpr uint32_t kSlotMask = KY_SET_BLOCK_ELEMENTS - 1;
// Blocks use the allocator's default slabs.
constexpr uint32_t kBlockSlabShift = 0;

static_assert(uint32_t{1} << kBlockShift == KY_SET_BLOCK_ELEMENTS, "block shift");
static_assert(kBitsPerWord * kWordsPerBlock == KY_SET_BLOCK_ELEMENTS, "bitmap size");

// Where an element lives: its block, its bitmap word and bit, and its slot
// in a multiset block's multiplicities.
struct ElementPosition {
  uint32_t blockIndex;
  uint32_t word;
  uint32_t mask;
  uint32_t slot;
};

inline ElementPosition PositionOf(uint32_t element) {
  return ElementPosition{element >> kBlockShift, (element >> kWordShift) % kWordsPerBlock,
                         uint32_t{1} << (element & kBitMask), element & kSlotMask};
}

// The value of bit `bit` of word `word` of block blockIndex.
inline uint32_t ElementAt(uint32_t blockIndex, uint32_t word, uint32_t bit) {
  return (blockIndex << kBlockShift) + word * kBitsPerWord + bit;
}

// Calls visit(word, bit) for every set bit of a block's bitmap, in
// ascending element order.
template <typename Block, typename Visit>
void ForEachBit(const Block& block, Visit visit) {
  for (uint32_t word = 0; word < kWordsPerBlock; ++word) {
    for (uint32_t bits = block.bits[word]; bits != 0; bits &= bits - 1) {
      visit(word, __KyGetLeastSignificantOneIndexInternal(bits));
    }
  }
}

// ---------------------------------------------------------------------------
// The header word

template <typename Header>
using BlockOf = std::remove_pointer_t<decltype(Header::firstBlock)>;

template <typename Header>
uint32_t CountOf(const Header* header) {
  return header->countAndCategory & KY_SET_COUNT_MASK;
}

template <typename Header>
uint32_t CategoryOf(const Header* header) {
  return header->countAndCategory >> KY_SET_CATEGORY_SHIFT;
}

template <typename Header>
void StoreCount(Header* header, uint32_t count) {
  header->countAndCategory =
      (header->countAndCategory & ~KY_SET_COUNT_MASK) | (count & KY_SET_COUNT_MASK);
}

template <typename Header>
void RaiseCount(Header* header) {
  StoreCount(header, CountOf(header) + 1);
}

template <typename Header>
void LowerCount(Header* header) {
  StoreCount(header, CountOf(header) - 1);
}

// ---------------------------------------------------------------------------
// Blocks

template <typename Block>
bool IsEmpty(const Block& block) {
  return (block.bits[0] | block.bits[1]) == 0;
}

template <typename Block>
uint32_t Population(const Block& block) {
  return static_cast<uint32_t>(__builtin_popcount(block.bits[0]) +
                               __builtin_popcount(block.bits[1]));
}

template <typename Block>
uint32_t CountBits(const Block* first) {
  uint32_t count = 0;
  for (const Block* block = first; block != nullptr; block = block->next) {
    count += Population(*block);
  }
  return count;
}

template <typename Block>
bool HasBit(const Block& block, const ElementPosition& position) {
  return (block.bits[position.word] & position.mask) != 0;
}

inline void ClearContents(KySetBlock& block) {
  block.bits[0] = 0;
  block.bits[1] = 0;
}

inline void ClearContents(KyMultiSetBlock& block) {
  block.bits[0] = 0;
  block.bits[1] = 0;
  std::memset(block.multiplicity, 0, sizeof block.multiplicity);
}

// Overwrites everything of `to` but its link with the contents of `from`.
template <typename Block>
void CopyContents(Block& to, const Block& from) {
  if (&to == &from) return;
  Block* const next = to.next;
  std::memcpy(&to, &from, sizeof to);
  to.next = next;
}

// A new empty block with the given index and link, from the category.
template <typename Block>
Block* NewBlock(uint32_t category, uint32_t blockIndex, Block* next) {
  Block* block = static_cast<Block*>(__KyMalloc(category, sizeof(Block), kBlockSlabShift));
  block->next = next;
  block->blockIndex = blockIndex;
  ClearContents(*block);
  return block;
}

template <typename Block>
void FreeChain(Block* first) {
  while (first != nullptr) {
    Block* const next = first->next;
    __KyFree(first);
    first = next;
  }
}

// Walks from link to the link holding the block of blockIndex or, when
// there is none, the first block with a greater index (or the list's end):
// where such a block would be linked in.
template <typename Block>
Block** FindLink(Block** link, uint32_t blockIndex) {
  while (*link != nullptr && (*link)->blockIndex < blockIndex) link = &(*link)->next;
  return link;
}

template <typename Block>
bool HoldsBlock(Block* const* link, uint32_t blockIndex) {
  return *link != nullptr && (*link)->blockIndex == blockIndex;
}

// The first block from block on whose index is not below blockIndex, or
// null.
template <typename Block>
const Block* SkipBelow(const Block* block, uint32_t blockIndex) {
  while (block != nullptr && block->blockIndex < blockIndex) block = block->next;
  return block;
}

// The block of blockIndex from block on, or null.
template <typename Block>
const Block* FindBlock(const Block* block, uint32_t blockIndex) {
  block = SkipBelow(block, blockIndex);
  return block != nullptr && block->blockIndex == blockIndex ? block : nullptr;
}

// The block of blockIndex, linked in (empty) at its place when missing.
template <typename Header>
BlockOf<Header>* FindOrInsertBlock(Header* header, uint32_t blockIndex) {
  using Block = BlockOf<Header>;
  Block** link = FindLink(&header->firstBlock, blockIndex);
  if (!HoldsBlock(link, blockIndex)) *link = NewBlock(CategoryOf(header), blockIndex, *link);
  return *link;
}

// Unlinks and frees the block at *link when its bitmap is empty; true when
// it did.
template <typename Block>
bool DropIfEmpty(Block** link) {
  Block* const block = *link;
  if (!IsEmpty(*block)) return false;
  *link = block->next;
  __KyFree(block);
  return true;
}

// ---------------------------------------------------------------------------
// Whole lists

template <typename Header>
void Release(Header* header) {
  FreeChain(header->firstBlock);
  header->firstBlock = nullptr;
  StoreCount(header, 0);
}

// Hands out the blocks of a list one after the other for overwriting,
// extending the list with new blocks when it runs out; ReleaseRest() then
// frees the blocks that were not handed out. The links of handed-out blocks
// are never changed, so a list may be rewritten while another walk (over
// the same list, ahead of the writer) still follows them.
template <typename Block>
class BlockRecycler {
 public:
  BlockRecycler(Block** first, uint32_t category) : link_(first), category_(category) {}

  // The next block to overwrite; its contents (index included) are stale.
  Block* Next() {
    if (*link_ == nullptr) *link_ = NewBlock<Block>(category_, 0, nullptr);
    Block* const block = *link_;
    link_ = &block->next;
    return block;
  }

  void ReleaseRest() {
    FreeChain(*link_);
    *link_ = nullptr;
  }

 private:
  Block** link_;
  uint32_t category_;
};

// to becomes a copy of from, keeping its own category. Nothing for the same
// header.
template <typename Header>
void CopyInto(Header* to, const Header* from) {
  using Block = BlockOf<Header>;
  if (to == from) return;
  BlockRecycler<Block> recycler(&to->firstBlock, CategoryOf(to));
  for (const Block* block = from->firstBlock; block != nullptr; block = block->next) {
    CopyContents(*recycler.Next(), *block);
  }
  recycler.ReleaseRest();
  StoreCount(to, CountOf(from));
}

// to takes over from's list and count; from is left empty. Both keep their
// categories. Nothing for the same header.
template <typename Header>
void MoveInto(Header* to, Header* from) {
  if (to == from) return;
  FreeChain(to->firstBlock);
  to->firstBlock = from->firstBlock;
  StoreCount(to, CountOf(from));
  from->firstBlock = nullptr;
  StoreCount(from, 0);
}

inline bool SameContents(const KySetBlock& a, const KySetBlock& b) {
  return a.blockIndex == b.blockIndex && a.bits[0] == b.bits[0] && a.bits[1] == b.bits[1];
}

inline bool SameContents(const KyMultiSetBlock& a, const KyMultiSetBlock& b) {
  return a.blockIndex == b.blockIndex && a.bits[0] == b.bits[0] && a.bits[1] == b.bits[1] &&
         std::memcmp(a.multiplicity, b.multiplicity, sizeof a.multiplicity) == 0;
}

template <typename Header>
bool AreEqual(const Header* a, const Header* b) {
  using Block = BlockOf<Header>;
  if (a == b) return true;
  if (CountOf(a) != CountOf(b)) return false;
  const Block* x = a->firstBlock;
  const Block* y = b->firstBlock;
  for (; x != nullptr && y != nullptr; x = x->next, y = y->next) {
    if (!SameContents(*x, *y)) return false;
  }
  return x == nullptr && y == nullptr;
}

// Merges every block of the list `from` into a's list in index order: a
// block of a with the same index absorbs it, otherwise a new empty block
// (in a's category) is linked in at its place and absorbs it. Works when
// from is a's own list (every block then absorbs itself).
template <typename Header, typename FromBlock, typename Absorb>
void MergeInto(Header* a, const FromBlock* from, Absorb absorb) {
  using Block = BlockOf<Header>;
  Block** link = &a->firstBlock;
  for (; from != nullptr; from = from->next) {
    link = FindLink(link, from->blockIndex);
    if (!HoldsBlock(link, from->blockIndex)) {
      *link = NewBlock(CategoryOf(a), from->blockIndex, *link);
    }
    absorb(**link, *from);
    link = &(*link)->next;
  }
}

// result becomes the blocks that a and b share, each combined by
// combine(common, blockOfA, blockOfB) into a zeroed block; empty results
// are not stored. result's blocks are reused in order, and result may be a
// or b: the k-th stored block overwrites result's k-th block only after the
// walk has read every block up to it. a and b the same header: result is a
// copy of a.
template <typename Header, typename Combine>
void IntersectInto(Header* result, const Header* a, const Header* b, Combine combine) {
  using Block = BlockOf<Header>;
  if (a == b) {
    CopyInto(result, a);
    return;
  }
  BlockRecycler<Block> recycler(&result->firstBlock, CategoryOf(result));
  uint32_t count = 0;
  const Block* x = a->firstBlock;
  const Block* y = b->firstBlock;
  while (x != nullptr && y != nullptr) {
    if (x->blockIndex < y->blockIndex) {
      x = x->next;
    } else if (y->blockIndex < x->blockIndex) {
      y = y->next;
    } else {
      Block common{};
      common.blockIndex = x->blockIndex;
      combine(common, *x, *y);
      x = x->next;
      y = y->next;
      if (!IsEmpty(common)) {
        count += Population(common);
        CopyContents(*recycler.Next(), common);
      }
    }
  }
  recycler.ReleaseRest();
  StoreCount(result, count);
}

}  // namespace kyrt::sets

#endif  // KYRT_CONTAINERS_SET_BLOCKS_H
