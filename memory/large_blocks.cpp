// Large blocks, behind an eight-byte marker word.
#include "memory/large_blocks.h"

#include "memory/slabs.h"
#include "memory/sub_allocator.h"

namespace kyrt::memory {

void* AllocateLargeBlock(uint64_t size) {
  ChunkWord* marker = static_cast<ChunkWord*>(GuardedRequest(size + kChunkWordBytes));
  *marker = kLargeBlockMarker;
  return marker + 1;
}

void FreeLargeBlock(void* block) {
  Control().release(ChunkWordOf(block));
}

}  // namespace kyrt::memory
