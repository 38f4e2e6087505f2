#include "call_sites.h"

#include <cstring>

#include "kyrt/memory.h"

namespace kyheap {
namespace {

constexpr uint64_t kFnvOffsetBasis = 14695981039346656037ull;
constexpr uint64_t kFnvPrime = 1099511628211ull;
constexpr uint64_t kMixMultiplier = 0x9E3779B97F4A7C15ull;
constexpr uint32_t kNoSlabShift = 0;
constexpr int32_t kOneLevel = 1;

uint64_t HashOfTrace(const StackTrace& trace) {
  uint64_t hash = kFnvOffsetBasis;
  for (int i = 0; i < trace.count; ++i) {
    hash = (hash ^ reinterpret_cast<uintptr_t>(trace.frames[i])) * kFnvPrime;
  }
  return hash ^ static_cast<uint64_t>(trace.count);
}

// Keys are already hashes; spread their high bits into the bucket index.
uint64_t BucketHash(KyHashTable*, uint64_t key) {
  return (key * kMixMultiplier) >> 32;
}

bool SameTrace(const CallSite& site, const StackTrace& trace) {
  return site.frameCount == trace.count &&
         std::memcmp(site.frames, trace.frames, sizeof(void*) * trace.count) == 0;
}

}  // namespace

void CallSiteTable::create(uint32_t recordCategory, uint32_t indexCategory) {
  static const KyHashFunction kHashFunctions[] = {BucketHash};
  recordCategory_ = recordCategory;
  table_ =
      __KyCreateHashTable(KY_HASH_TABLE_NO_LOCKING | KY_HASH_TABLE_1024_BUCKETS, kHashFunctions,
                          kOneLevel, nullptr, nullptr, indexCategory, kNoSlabShift);
}

CallSite* CallSiteTable::intern(const StackTrace& trace) {
  // Two stacks with the same hash take consecutive keys.
  for (uint64_t key = HashOfTrace(trace);; ++key) {
    CallSite* found = static_cast<CallSite*>(__KyLookupHashTable(table_, key));
    if (found == nullptr) {
      CallSite* site =
          static_cast<CallSite*>(__KyMalloc(recordCategory_, sizeof(CallSite), kNoSlabShift));
      site->next = sites_;
      site->key = key;
      site->counters = SiteCounters{};
      site->frameCount = trace.count;
      std::memcpy(site->frames, trace.frames, sizeof(void*) * trace.count);
      __KyInsertHashTableEntry(table_, key, site);
      sites_ = site;
      ++count_;
      return site;
    }
    if (SameTrace(*found, trace)) return found;
  }
}

void CallSiteTable::clearEventCounters() {
  for (CallSite* site = sites_; site != nullptr; site = site->next) {
    site->counters.allocations = 0;
    site->counters.bytes = 0;
  }
}

}  // namespace kyheap
