// Large blocks: requests above the largest size class (internal interface).
//
// A large block is n + 8 bytes straight from the underlying allocator (by a
// guarded request); its first 64-bit word holds kLargeBlockMarker and the
// caller gets the address 8 bytes in. Slab addresses are even and the
// marker is odd, so the word in front of any block tells its kind: the
// marker for a large block, another odd value for a freed chunk, anything
// else for the slab that owns the chunk. Large blocks are not counted in
// the statistics and take no bin lock.
#ifndef KYRT_MEMORY_LARGE_BLOCKS_H
#define KYRT_MEMORY_LARGE_BLOCKS_H

#include <cstdint>

namespace kyrt::memory {

inline constexpr uint64_t kLargeBlockMarker = 0xBEEF;

void* AllocateLargeBlock(uint64_t size);

// Gives a large block (the address handed out) back to the underlying
// allocator.
void FreeLargeBlock(void* block);

}  // namespace kyrt::memory

#endif  // KYRT_MEMORY_LARGE_BLOCKS_H
