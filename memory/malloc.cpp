// The allocator's entry points: small requests to the slabs, large ones
// straight to the underlying allocator, and the C library's pair for the
// runtime's own bookkeeping.
#include <cstdlib>

#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "memory/large_blocks.h"
#include "memory/slabs.h"
#include "memory/sub_allocator.h"

extern "C" {

void* __KyMalloc(uint32_t category, uint64_t size, uint32_t slabShift) noexcept {
  const uint32_t units = kyrt::memory::SizeClassUnits(size);
  if (kyrt::memory::IsSmallSizeClass(units)) {
    return kyrt::memory::AllocateSmallBlock(category, units, slabShift);
  }
  return kyrt::memory::AllocateLargeBlock(size);
}

void __KyFree(void* block) noexcept {
  kyrt::memory::Control();  // like every memory function, the first call creates the record
  if (block == nullptr) return;
  const kyrt::memory::ChunkWord word = *kyrt::memory::ChunkWordOf(block);
  if (word == kyrt::memory::kLargeBlockMarker) {
    kyrt::memory::FreeLargeBlock(block);
  } else if ((word & kyrt::memory::kFreeChunkBit) != 0) {
    // Caught only until the chunk is handed out again.
    __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                    "Tried to free a memory chunk that has already been freed");
  } else {
    kyrt::memory::FreeSmallBlock(block, reinterpret_cast<kyrt::memory::SlabHeader*>(word));
  }
}

void* __KyMallocInternal(size_t size) noexcept {
  return std::malloc(size);
}

void __KyFreeInternal(void* block) noexcept {
  std::free(block);
}

}  // extern "C"
