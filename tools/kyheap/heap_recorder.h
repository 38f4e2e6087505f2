// The heap as the analysed program sees it: every live block (in a hash
// table by address and in a range table by extent), the call sites, the
// size classes and the running totals.
//
// One mutex serialises all of it. The interposed functions capture their
// stacks before they take it, and reports copy what they need under it and
// then write without it (symbolisation takes the loader's lock, and a thread
// inside the loader may be waiting in malloc for this mutex).
#ifndef KYHEAP_HEAP_RECORDER_H
#define KYHEAP_HEAP_RECORDER_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "call_sites.h"
#include "kyrt/range_table.h"
#include "size_classes.h"
#include "stack_walk.h"
#include "tool_memory.h"

namespace kyheap {

struct HeapTotals {
  uint64_t allocations = 0;
  uint64_t frees = 0;
  uint64_t reallocations = 0;
  uint64_t bytesAllocated = 0;
  uint64_t bytesFreed = 0;
  uint64_t liveBlocks = 0;
  uint64_t liveBytes = 0;
  uint64_t peakLiveBytes = 0;
};

// A call site as a report shows it.
struct SiteSnapshot {
  SiteCounters counters;
  int frameCount;
  void* frames[StackTrace::kCapacity];
};

// Everything a report needs, copied under the recorder's mutex.
struct HeapSnapshot {
  HeapTotals totals;
  std::vector<SizeClassRow> sizeClasses;
  std::vector<SiteSnapshot> topSites;   // by bytes allocated, largest first
  std::vector<SiteSnapshot> leakSites;  // by live bytes, largest first
  uint64_t siteCount = 0;
  uint64_t leakSiteCount = 0;
  uint64_t resets = 0;
  bool paused = false;
};

// The live block holding an address.
struct BlockLocation {
  uintptr_t start = 0;
  uint64_t size = 0;
  SiteSnapshot site{};
};

class HeapRecorder {
 public:
  void create(const ToolMemory& memory);

  // Whether new allocations are recorded now (a hint read without the
  // mutex, so that a paused run skips its stack walks).
  bool recording() const { return !paused_.load(std::memory_order_relaxed); }

  void recordAllocation(void* block, uint64_t size, const StackTrace& trace);

  // Forgets block if it is recorded; returns false when it is not.
  bool recordFree(void* block);

  // Calls the C library's realloc under the mutex (so that the old address
  // cannot be handed out and recorded by another thread before its record
  // is gone) and moves the record. block is not null and size not 0.
  void* reallocate(void* block, size_t size, const StackTrace& trace);

  bool locate(uintptr_t address, BlockLocation* location);

  HeapSnapshot snapshot(int topSites, int leakSites);
  HeapTotals totals();

  void reset();
  void pause();
  void resume();

  // pthread_atfork: hold the mutex across fork, and give the child a fresh
  // one (the parent's other threads do not exist there).
  void lockForFork();
  void unlockInParent();
  void reinitialiseInChild();

 private:
  struct BlockRecord {
    uint64_t size;
    CallSite* site;
  };

  void addBlockLocked(void* block, uint64_t size, CallSite* site);
  bool removeBlockLocked(void* block, uint64_t* size);
  SiteSnapshot copySite(const CallSite& site) const;

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<bool> paused_{false};
  KyHashTable* blocks_ = nullptr;
  KyRangeTable* ranges_ = nullptr;
  CallSiteTable sites_;
  SizeClassHistogram sizeClasses_;
  HeapTotals totals_;
  uint64_t resets_ = 0;
  uint32_t blockCategory_ = 0;
};

}  // namespace kyheap

#endif  // KYHEAP_HEAP_RECORDER_H
