// Slabs, chunk words and bins: the small-block allocator (internal
// interface).
//
// A small request of n bytes needs units = (n + 23) / 16 units of 16 bytes:
// the n bytes plus the eight-byte chunk word in front of the block, rounded
// up. Requests of 1 to 2046 units are small and are served from the bin of
// their category and size class; every bin keeps a doubly linked list of its
// slabs that have a free chunk.
//
// A slab is a block of S = 2^(16 + slab shift) bytes of which S - 16 are
// requested from the underlying allocator (whose own 16-byte header makes
// the pair fill a power of two). It starts with a three-unit header
// (SlabHeader) and is followed by chunkCount chunks of chunkUnits units each,
// back to back. Each chunk starts with its chunk word:
//   - chunk in use: the address of its slab (always even);
//   - chunk free: the address of the next free chunk of the same slab with
//     bit 0 set, or 1 at the end of the slab's free list.
// The caller's block starts right after the chunk word, 8 bytes past a
// 16-byte boundary of the slab.
//
// Invariants, all under the bin's lock:
//   - freeChunks counts the chunks on the slab's free list;
//   - a slab is on its bin's list exactly when freeChunks > 0 (every slab
//     holds at least two chunks, so a full slab that gets a chunk back is
//     never empty at the same time);
//   - an empty slab is given back unless it is the only slab on its bin's
//     list, which is kept so that a bin alternating between one block and
//     none does not visit the underlying allocator every time.
#ifndef KYRT_MEMORY_SLABS_H
#define KYRT_MEMORY_SLABS_H

#include <cstddef>
#include <cstdint>

#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"

namespace kyrt::memory {

using ChunkWord = uint64_t;

inline constexpr uint64_t kUnitBytes = 16;
inline constexpr uint64_t kChunkWordBytes = sizeof(ChunkWord);
inline constexpr uint32_t kLargestSmallUnits = 2046;
inline constexpr uint32_t kSlabHeaderUnits = 3;
inline constexpr uint32_t kSmallestSlabBits = 16;
inline constexpr uint64_t kUnderlyingAllocatorOverhead = 16;
inline constexpr uint16_t kSlabMarker = 0xBEEF;
inline constexpr ChunkWord kFreeChunkBit = 1;
inline constexpr ChunkWord kEndOfFreeList = kFreeChunkBit;

// The slab header, the slab's first three units.
struct SlabHeader {
  SlabHeader* next;      // next slab on the bin's list
  SlabHeader* previous;  // previous slab on the bin's list, null at the head
  ChunkWord* firstFree;  // chunk word of the first free chunk, or null
  uint32_t freeChunks;
  uint32_t chunkUnits;  // chunk size in units, chunk word included
  uint32_t chunkCount;
  uint16_t marker;    // kSlabMarker; written, never checked
  uint8_t category;   // memory category of every chunk
  uint8_t slabShift;  // the slab holds 2^(16 + slabShift) bytes
  uint8_t unused[8];  // pads the header to whole units
};

static_assert(sizeof(SlabHeader) == kSlabHeaderUnits * kUnitBytes, "slab header size");
static_assert(offsetof(SlabHeader, next) == 0 && offsetof(SlabHeader, previous) == 8 &&
                  offsetof(SlabHeader, firstFree) == 16 && offsetof(SlabHeader, freeChunks) == 24 &&
                  offsetof(SlabHeader, chunkUnits) == 28 &&
                  offsetof(SlabHeader, chunkCount) == 32 && offsetof(SlabHeader, marker) == 36 &&
                  offsetof(SlabHeader, category) == 38 && offsetof(SlabHeader, slabShift) == 39,
              "slab header layout");

// A bin: one per (category, size class). The lock guards the bin and every
// slab on its list. Size class k (from 0) of every category holds chunks of
// k + 1 units.
//
// The record is 40 bytes: the 24-byte lock, the 8-byte list head, the
// 4-byte size class and 4 bytes of tail padding that keep the next record's
// lock 8-byte aligned. It is deliberately not padded to a cache line: the
// table would grow from 5 MiB to 8 MiB, and the bins that threads of
// different categories use are 80 KiB apart anyway; neighbouring size
// classes of one category share lines, the price of a flat table that is
// indexed directly.
struct Bin {
  KySpinLock lock;
  SlabHeader* firstSlab;  // head of the list of slabs with a free chunk
  uint32_t chunkUnits;
};

static_assert(sizeof(Bin) == 40 && alignof(Bin) == 8, "bin record size");

// The bin table: KY_MAX_MEMORY_CATEGORIES rows of kLargestSmallUnits bins.
inline constexpr size_t kBinCount = size_t{KY_MAX_MEMORY_CATEGORIES} * kLargestSmallUnits;
inline constexpr size_t kBinTableBytes = kBinCount * sizeof(Bin);

// The size class of a request, in units. The unit count is a 32-bit value:
// it wraps for requests of 64 GiB and more, and a wrapped count of 0 is not
// a size class (see IsSmallSizeClass).
constexpr uint32_t SizeClassUnits(uint64_t size) {
  return static_cast<uint32_t>((size + kChunkWordBytes + kUnitBytes - 1) / kUnitBytes);
}

// True for 1 to kLargestSmallUnits units.
constexpr bool IsSmallSizeClass(uint32_t units) {
  return units - 1 < kLargestSmallUnits;
}

constexpr uint64_t SlabBytes(uint32_t slabShift) {
  return uint64_t{1} << (kSmallestSlabBits + slabShift);
}

constexpr uint32_t ChunksPerSlab(uint64_t slabBytes, uint32_t chunkUnits) {
  return static_cast<uint32_t>(
      ((slabBytes - kUnderlyingAllocatorOverhead) / kUnitBytes - kSlabHeaderUnits) / chunkUnits);
}

static_assert(ChunksPerSlab(SlabBytes(0), kLargestSmallUnits) >= 2,
              "a slab that gets a chunk back is never full and empty at once");

// The chunk word in front of a block handed out.
inline ChunkWord* ChunkWordOf(void* block) {
  return static_cast<ChunkWord*>(block) - 1;
}

// Obtains and initialises the bin table with allocate; ends the process
// through the exit handler when it cannot be obtained.
Bin* CreateBinTable(KyAllocateFunction allocate);

// Serves a small request of `units` units for category.
void* AllocateSmallBlock(uint32_t category, uint32_t units, uint32_t slabShift);

// Takes back a small block whose chunk word names slab.
void FreeSmallBlock(void* block, SlabHeader* slab);

}  // namespace kyrt::memory

#endif  // KYRT_MEMORY_SLABS_H
