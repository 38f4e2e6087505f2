// The swap rule: a collection when free swap falls well below its recent
// high-water mark.
#include "memory/swap_rule.h"

#include <sys/sysinfo.h>

#include <cstdint>

#include "memory/collector.h"
#include "runtime/atomic_ops.h"

namespace {

bool QuerySystemSwap(kyrt::memory::SwapFigures* figures) {
  struct sysinfo info;
  if (sysinfo(&info) != 0) return false;
  figures->freeSwap = info.freeswap;
  figures->totalSwap = info.totalswap;
  return true;
}

kyrt::memory::SwapQuery g_swapQuery = &QuerySystemSwap;

// The free-swap watermarks since the last collection (or since load):
// highest starts at 0 and lowest at all ones, so that the first sample sets
// both. Guarded by the memory lock.
constexpr uint64_t kNoLowestYet = UINT64_MAX;
constexpr uint64_t kNoHighestYet = 0;
uint64_t g_highestFreeSwap = kNoHighestYet;
uint64_t g_lowestFreeSwap = kNoLowestYet;

// The fall below the high-water mark that triggers a collection, as a
// divisor of the total swap.
constexpr uint64_t kSwapFallDivisor = 16;

void RecordFreeSwap(uint64_t freeSwap) {
  if (freeSwap > g_highestFreeSwap) {
    g_highestFreeSwap = freeSwap;
    g_lowestFreeSwap = freeSwap;
  } else if (freeSwap < g_lowestFreeSwap) {
    g_lowestFreeSwap = freeSwap;
  }
}

}  // namespace

namespace kyrt::memory {

void ApplySwapRule() {
  SwapFigures figures;
  if (!LoadRelaxed(&g_swapQuery)(&figures)) return;
  RecordFreeSwap(figures.freeSwap);
  if (g_lowestFreeSwap + figures.totalSwap / kSwapFallDivisor < g_highestFreeSwap) {
    g_lowestFreeSwap = kNoLowestYet;
    g_highestFreeSwap = kNoHighestYet;
    CollectMemory();
  }
}

void SetSwapQueryForTesting(SwapQuery query) {
  StoreRelaxed(&g_swapQuery, query != nullptr ? query : &QuerySystemSwap);
}

}  // namespace kyrt::memory
