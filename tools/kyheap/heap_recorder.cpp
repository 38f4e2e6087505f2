#include "heap_recorder.h"

#include <algorithm>
#include <cstring>

#include "kyrt/memory.h"
#include "libc_allocator.h"
#include "mutex_hold.h"

namespace kyheap {
namespace {

constexpr uint32_t kNoSlabShift = 0;
constexpr int32_t kOneLevel = 1;
constexpr uint64_t kMixMultiplier = 0x9E3779B97F4A7C15ull;
// Blocks up to 128 MiB are one range-table block at most a few levels up;
// larger ones are cut into 128 MiB pieces.
constexpr uint64_t kLargestRangeBlock = uint64_t{1} << 27;

// Block addresses are 16-byte aligned: drop the always-zero bits and mix,
// so that consecutive blocks spread over the buckets.
uint64_t AddressHash(KyHashTable*, uint64_t key) {
  return ((key >> 4) * kMixMultiplier) >> 20;
}

// A zero-byte block still occupies a distinct address.
uint64_t RangeEnd(uintptr_t start, uint64_t size) {
  return start + std::max<uint64_t>(size, 1);
}

template <typename Key>
void KeepLargest(std::vector<SiteSnapshot>* sites, int limit, Key key) {
  std::stable_sort(sites->begin(), sites->end(),
                   [key](const SiteSnapshot& a, const SiteSnapshot& b) { return key(a) > key(b); });
  if (limit > 0 && sites->size() > static_cast<std::size_t>(limit)) sites->resize(limit);
}

}  // namespace

void HeapRecorder::create(const ToolMemory& memory) {
  static const KyHashFunction kHashFunctions[] = {AddressHash};
  blockCategory_ = memory.blocks;
  blocks_ =
      __KyCreateHashTable(KY_HASH_TABLE_NO_LOCKING | KY_HASH_TABLE_1024_BUCKETS, kHashFunctions,
                          kOneLevel, nullptr, nullptr, memory.indexes, kNoSlabShift);
  ranges_ = __KyCreateRangeTable(kLargestRangeBlock, memory.indexes, kNoSlabShift, 0, nullptr);
  sites_.create(memory.sites, memory.indexes);
  sizeClasses_.create(memory.indexes);
}

void HeapRecorder::addBlockLocked(void* block, uint64_t size, CallSite* site) {
  const uint64_t key = reinterpret_cast<uintptr_t>(block);
  uint64_t staleSize = 0;
  // An address still on record was freed behind the recorder's back (by a
  // free that ran inside the tool): that block is gone.
  if (removeBlockLocked(block, &staleSize)) ++totals_.frees, totals_.bytesFreed += staleSize;
  BlockRecord* record =
      static_cast<BlockRecord*>(__KyMalloc(blockCategory_, sizeof(BlockRecord), kNoSlabShift));
  record->size = size;
  record->site = site;
  __KyInsertHashTableEntry(blocks_, key, record);
  __KyInsertRangeTableEntry(ranges_, key, RangeEnd(key, size), reinterpret_cast<uintptr_t>(record));
  ++totals_.allocations;
  totals_.bytesAllocated += size;
  ++totals_.liveBlocks;
  totals_.liveBytes += size;
  totals_.peakLiveBytes = std::max(totals_.peakLiveBytes, totals_.liveBytes);
  site->counters.allocations++;
  site->counters.bytes += size;
  site->counters.liveBlocks++;
  site->counters.liveBytes += size;
  sizeClasses_.add(size);
}

bool HeapRecorder::removeBlockLocked(void* block, uint64_t* size) {
  const uint64_t key = reinterpret_cast<uintptr_t>(block);
  BlockRecord* record = static_cast<BlockRecord*>(__KyRemoveHashTableEntry(blocks_, key));
  if (record == nullptr) return false;
  __KyRemoveRangeTableEntry(ranges_, key, RangeEnd(key, record->size));
  *size = record->size;
  --totals_.liveBlocks;
  totals_.liveBytes -= record->size;
  record->site->counters.liveBlocks--;
  record->site->counters.liveBytes -= record->size;
  __KyFree(record);
  return true;
}

void HeapRecorder::recordAllocation(void* block, uint64_t size, const StackTrace& trace) {
  MutexHold hold(&mutex_);
  if (paused_.load(std::memory_order_relaxed)) return;
  addBlockLocked(block, size, sites_.intern(trace));
}

bool HeapRecorder::recordFree(void* block) {
  MutexHold hold(&mutex_);
  uint64_t size = 0;
  if (!removeBlockLocked(block, &size)) return false;
  ++totals_.frees;
  totals_.bytesFreed += size;
  return true;
}

void* HeapRecorder::reallocate(void* block, size_t size, const StackTrace& trace) {
  MutexHold hold(&mutex_);
  void* moved = __libc_realloc(block, size);
  if (moved == nullptr) return nullptr;  // the old block is untouched
  uint64_t oldSize = 0;
  const bool wasRecorded = removeBlockLocked(block, &oldSize);
  if (wasRecorded) {
    ++totals_.frees;
    totals_.bytesFreed += oldSize;
  }
  // A block the recorder never saw stays unseen: its history is unknown.
  if (!wasRecorded || paused_.load(std::memory_order_relaxed)) return moved;
  ++totals_.reallocations;
  addBlockLocked(moved, size, sites_.intern(trace));
  return moved;
}

bool HeapRecorder::locate(uintptr_t address, BlockLocation* location) {
  MutexHold hold(&mutex_);
  uint64_t start = 0;
  uint64_t end = 0;
  const uint64_t data = __KyLookupRangeTable(ranges_, address, &start, &end);
  if (data == 0) return false;
  const BlockRecord* record = reinterpret_cast<const BlockRecord*>(data);
  location->start = static_cast<uintptr_t>(start);
  location->size = record->size;
  location->site = copySite(*record->site);
  return true;
}

SiteSnapshot HeapRecorder::copySite(const CallSite& site) const {
  SiteSnapshot copy;
  copy.counters = site.counters;
  copy.frameCount = site.frameCount;
  std::memcpy(copy.frames, site.frames, sizeof(void*) * site.frameCount);
  return copy;
}

HeapSnapshot HeapRecorder::snapshot(int topSites, int leakSites) {
  HeapSnapshot snapshot;
  {
    MutexHold hold(&mutex_);
    snapshot.totals = totals_;
    snapshot.sizeClasses = sizeClasses_.rows();
    snapshot.siteCount = sites_.size();
    snapshot.resets = resets_;
    snapshot.paused = paused_.load(std::memory_order_relaxed);
    for (const CallSite* site = sites_.first(); site != nullptr; site = site->next) {
      if (site->counters.allocations != 0) snapshot.topSites.push_back(copySite(*site));
      if (site->counters.liveBlocks != 0) snapshot.leakSites.push_back(copySite(*site));
    }
  }
  snapshot.leakSiteCount = snapshot.leakSites.size();
  KeepLargest(&snapshot.topSites, topSites, [](const SiteSnapshot& s) { return s.counters.bytes; });
  KeepLargest(&snapshot.leakSites, leakSites,
              [](const SiteSnapshot& s) { return s.counters.liveBytes; });
  return snapshot;
}

HeapTotals HeapRecorder::totals() {
  MutexHold hold(&mutex_);
  return totals_;
}

void HeapRecorder::reset() {
  MutexHold hold(&mutex_);
  const uint64_t liveBlocks = totals_.liveBlocks;
  const uint64_t liveBytes = totals_.liveBytes;
  totals_ = HeapTotals{};
  totals_.liveBlocks = liveBlocks;
  totals_.liveBytes = liveBytes;
  totals_.peakLiveBytes = liveBytes;
  sites_.clearEventCounters();
  sizeClasses_.clear();
  ++resets_;
}

void HeapRecorder::pause() {
  MutexHold hold(&mutex_);
  paused_.store(true, std::memory_order_relaxed);
}

void HeapRecorder::resume() {
  MutexHold hold(&mutex_);
  paused_.store(false, std::memory_order_relaxed);
}

void HeapRecorder::lockForFork() {
  pthread_mutex_lock(&mutex_);
}

void HeapRecorder::unlockInParent() {
  pthread_mutex_unlock(&mutex_);
}

void HeapRecorder::reinitialiseInChild() {
  pthread_mutex_init(&mutex_, nullptr);
}

}  // namespace kyheap
