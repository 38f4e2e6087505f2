// The swap rule of the guarded request (internal interface).
//
// Free swap is sampled on every request to the underlying allocator once the
// collector is initialised. The highest and lowest free swap seen since the
// last collection are kept; once free swap has fallen by more than a
// sixteenth of all swap below its high-water mark, the tool's collectors are
// asked to give memory back before the process starts to page heavily.
#ifndef KYRT_MEMORY_SWAP_RULE_H
#define KYRT_MEMORY_SWAP_RULE_H

#include <cstdint>

namespace kyrt::memory {

// Free and total swap as the system reports them (in its own unit).
struct SwapFigures {
  uint64_t freeSwap;
  uint64_t totalSwap;
};

// Fills *figures; false when the figures cannot be read.
using SwapQuery = bool (*)(SwapFigures* figures);

// Samples free swap and runs the collection when the rule says so. Called
// with the memory lock held, which also guards the watermarks.
void ApplySwapRule();

// Test seam: replaces the query of the system (sysinfo) with `query`; null
// restores the system's.
void SetSwapQueryForTesting(SwapQuery query);

}  // namespace kyrt::memory

#endif  // KYRT_MEMORY_SWAP_RULE_H
