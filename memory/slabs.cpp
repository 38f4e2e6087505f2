// The small-block allocator: bins of per-category, per-size slabs with a
// free list of chunks each. See slabs.h for the layout and its invariants.
#include "memory/slabs.h"

#include "kyrt/log.h"
#include "memory/categories.h"
#include "memory/sub_allocator.h"
#include "runtime/thread_hooks.h"
#include "sync/spin_lock_inline.h"

namespace {

using kyrt::memory::Bin;
using kyrt::memory::ChunkWord;
using kyrt::memory::SlabHeader;
using kyrt::memory::SubAllocatorControl;

Bin& BinFor(const SubAllocatorControl& control, uint32_t category, uint32_t units) {
  return control.binTable[size_t{category} * kyrt::memory::kLargestSmallUnits + (units - 1)];
}

ChunkWord* FirstChunk(SlabHeader* slab) {
  return reinterpret_cast<ChunkWord*>(slab + 1);
}

ChunkWord AddressWord(const void* address) {
  return reinterpret_cast<ChunkWord>(address);
}

// Threads every chunk of a new slab onto its free list in ascending address
// order.
void ChainFreeChunks(SlabHeader* slab) {
  const uint64_t wordsPerChunk =
      uint64_t{slab->chunkUnits} * kyrt::memory::kUnitBytes / sizeof(ChunkWord);
  ChunkWord* chunk = FirstChunk(slab);
  for (uint32_t left = slab->chunkCount; left > 1; --left) {
    ChunkWord* next = chunk + wordsPerChunk;
    *chunk = AddressWord(next) | kyrt::memory::kFreeChunkBit;
    chunk = next;
  }
  *chunk = kyrt::memory::kEndOfFreeList;
  slab->firstFree = FirstChunk(slab);
}

// Lays out a new slab, still private to the calling thread: the header and
// the free list of all its chunks. It is linked into its bin afterwards.
SlabHeader* FormatSlab(void* memory, uint32_t category, uint32_t units, uint32_t slabShift) {
  SlabHeader* slab = static_cast<SlabHeader*>(memory);
  slab->next = nullptr;
  slab->previous = nullptr;
  slab->chunkUnits = units;
  slab->chunkCount = kyrt::memory::ChunksPerSlab(kyrt::memory::SlabBytes(slabShift), units);
  slab->freeChunks = slab->chunkCount;
  slab->marker = kyrt::memory::kSlabMarker;
  slab->category = static_cast<uint8_t>(category);
  slab->slabShift = static_cast<uint8_t>(slabShift);
  ChainFreeChunks(slab);
  return slab;
}

// A new slab from the underlying allocator, counted in the statistics.
SlabHeader* ObtainSlab(uint32_t category, uint32_t units, uint32_t slabShift) {
  const uint64_t slabBytes = kyrt::memory::SlabBytes(slabShift);
  void* memory =
      kyrt::memory::GuardedRequest(slabBytes - kyrt::memory::kUnderlyingAllocatorOverhead);
  if (kyrt::memory::StatisticsEnabled()) kyrt::memory::AccountSlabGained(category, slabBytes);
  return FormatSlab(memory, category, units, slabShift);
}

void PushSlab(Bin& bin, SlabHeader* slab) {
  slab->next = bin.firstSlab;
  slab->previous = nullptr;
  if (bin.firstSlab != nullptr) bin.firstSlab->previous = slab;
  bin.firstSlab = slab;
}

void UnlinkSlab(Bin& bin, SlabHeader* slab) {
  if (slab->previous != nullptr) {
    slab->previous->next = slab->next;
  } else {
    bin.firstSlab = slab->next;
  }
  if (slab->next != nullptr) slab->next->previous = slab->previous;
}

// Hands out the first free chunk of a slab on the bin's list; a slab left
// without a free chunk leaves the list.
void* TakeChunk(Bin& bin, SlabHeader* slab) {
  ChunkWord* chunk = slab->firstFree;
  slab->firstFree = reinterpret_cast<ChunkWord*>(*chunk & ~kyrt::memory::kFreeChunkBit);
  *chunk = AddressWord(slab);
  if (--slab->freeChunks == 0) UnlinkSlab(bin, slab);
  return chunk + 1;
}

void PutChunkBack(SlabHeader* slab, ChunkWord* chunk) {
  *chunk = AddressWord(slab->firstFree) | kyrt::memory::kFreeChunkBit;
  slab->firstFree = chunk;
  ++slab->freeChunks;
}

bool IsOnlySlabOfBin(const Bin& bin, const SlabHeader* slab) {
  return bin.firstSlab == slab && slab->next == nullptr;
}

// An empty slab that is not its bin's only one goes back to the underlying
// allocator (under the bin lock). Kept out of line, like AddSlabToBin.
__attribute__((noinline)) void ReleaseEmptySlab(const SubAllocatorControl& control, Bin& bin,
                                                SlabHeader* slab) {
  UnlinkSlab(bin, slab);
  if (kyrt::memory::StatisticsEnabled()) {
    kyrt::memory::AccountSlabReleased(slab->category, kyrt::memory::SlabBytes(slab->slabShift));
  }
  control.release(slab);
}

// The bin has no slab with a free chunk: called and returning with the bin
// lock held by self. No bin lock is held while the memory lock is taken, so
// the new slab is obtained and laid out with the bin lock released, and
// pushed in front of whatever slab another thread may have added meanwhile.
// Kept out of line: the common path stays small.
__attribute__((noinline)) void AddSlabToBin(Bin& bin, KyThreadId self, uint32_t category,
                                            uint32_t units, uint32_t slabShift) {
  kyrt::ReleaseSpinLock(&bin.lock);
  SlabHeader* slab = ObtainSlab(category, units, slabShift);
  kyrt::AcquireSpinLockTid(&bin.lock, self);
  PushSlab(bin, slab);
}

class BinLockGuard {
 public:
  BinLockGuard(Bin& bin, KyThreadId self) : bin_(bin) {
    kyrt::AcquireSpinLockTid(&bin_.lock, self);
  }
  ~BinLockGuard() { kyrt::ReleaseSpinLock(&bin_.lock); }
  BinLockGuard(const BinLockGuard&) = delete;
  BinLockGuard& operator=(const BinLockGuard&) = delete;

 private:
  Bin& bin_;
};

}  // namespace

namespace kyrt::memory {

Bin* CreateBinTable(KyAllocateFunction allocate) {
  Bin* table = static_cast<Bin*>(allocate(kBinTableBytes));
  if (table == nullptr) __KyExitHandler(-1);
  for (size_t index = 0; index < kBinCount; ++index) {
    Bin& bin = table[index];
    __KyInitializeSpinLock(&bin.lock);
    bin.firstSlab = nullptr;
    bin.chunkUnits = static_cast<uint32_t>(index % kLargestSmallUnits) + 1;
  }
  return table;
}

void* AllocateSmallBlock(uint32_t category, uint32_t units, uint32_t slabShift) {
  Bin& bin = BinFor(Control(), category, units);
  const KyThreadId self = kyrt::CurrentNativeThreadId();
  kyrt::AcquireSpinLockTid(&bin.lock, self);
  if (bin.firstSlab == nullptr) AddSlabToBin(bin, self, category, units, slabShift);
  void* block = TakeChunk(bin, bin.firstSlab);
  kyrt::ReleaseSpinLock(&bin.lock);
  return block;
}

void FreeSmallBlock(void* block, SlabHeader* slab) {
  const SubAllocatorControl& control = Control();
  Bin& bin = BinFor(control, slab->category, slab->chunkUnits);
  BinLockGuard guard(bin, kyrt::CurrentNativeThreadId());
  PutChunkBack(slab, ChunkWordOf(block));
  if (slab->freeChunks == slab->chunkCount) {
    if (!IsOnlySlabOfBin(bin, slab)) ReleaseEmptySlab(control, bin, slab);
  } else if (slab->freeChunks == 1) {
    PushSlab(bin, slab);  // it was full and off the list
  }
}

}  // namespace kyrt::memory
