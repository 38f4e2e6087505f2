// Memory categories and their byte statistics (internal interface).
//
// The statistics count slab memory only: every slab of the small-block
// allocator at its full power-of-two size, from the moment statistics are
// enabled. Large blocks are never counted. All figures are written under
// the statistics lock and read without it (relaxed loads), so a reader may
// see the two figures of a category momentarily out of step.
#ifndef KYRT_MEMORY_CATEGORIES_H
#define KYRT_MEMORY_CATEGORIES_H

#include <cstdint>

#include "kyrt/memory.h"

// Sum of the slab bytes held by all categories (statistics only). Process-
// wide, internal to the library.
extern "C" uint64_t __kyTotalMemoryAllocated;

namespace kyrt::memory {

// The line formats of the status reports: one line per category, name and
// bytes held.
inline constexpr const char kAllocationStatusLine[] = "Allocation status for %-25s:%15ld";
inline constexpr const char kCollectionStatusLine[] = "MemoryAllocated by %-25s:%15ld";

bool StatisticsEnabled();

// The current value of __kyTotalMemoryAllocated.
uint64_t TotalMemoryAllocated();

// A slab of `bytes` bytes was obtained for category: adds it to the category
// and the total, snapshots every category at a new peak of the total, and
// writes the periodic status dump at every 100th slab counted.
void AccountSlabGained(uint32_t category, uint64_t bytes);

// A slab of `bytes` bytes of category was given back: subtracts it from the
// category and the total; the peak figures stay.
void AccountSlabReleased(uint32_t category, uint64_t bytes);

// Counts one collection in the times-collected counter.
void CountCollection();

// Zeroes the total, the peak total, both figures of all 64 categories and
// the times-collected counter (collector initialisation).
void ResetStatistics();

// Logs one information record per registered category (at most 64) with
// lineFormat, which takes the category's name and its bytes held.
void LogCategoryLines(const char* lineFormat);

}  // namespace kyrt::memory

#endif  // KYRT_MEMORY_CATEGORIES_H
