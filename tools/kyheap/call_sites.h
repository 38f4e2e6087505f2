// Call sites: the distinct stacks allocations came from, with their
// counters. Sites live as long as the process; the table only grows.
// Not locked: the heap recorder serialises every call.
#ifndef KYHEAP_CALL_SITES_H
#define KYHEAP_CALL_SITES_H

#include <cstdint>

#include "kyrt/hash_table.h"
#include "stack_walk.h"

namespace kyheap {

struct SiteCounters {
  uint64_t allocations = 0;
  uint64_t bytes = 0;
  uint64_t liveBlocks = 0;
  uint64_t liveBytes = 0;
};

struct CallSite {
  CallSite* next;  // every site, newest first
  uint64_t key;
  SiteCounters counters;
  int frameCount;
  void* frames[StackTrace::kCapacity];
};

class CallSiteTable {
 public:
  void create(uint32_t recordCategory, uint32_t indexCategory);

  // The site of trace, created on first sight.
  CallSite* intern(const StackTrace& trace);

  // Clears every site's allocation counters; live figures stay.
  void clearEventCounters();

  CallSite* first() const { return sites_; }
  uint64_t size() const { return count_; }

 private:
  KyHashTable* table_ = nullptr;
  CallSite* sites_ = nullptr;
  uint64_t count_ = 0;
  uint32_t recordCategory_ = 0;
};

}  // namespace kyheap

#endif  // KYHEAP_CALL_SITES_H
