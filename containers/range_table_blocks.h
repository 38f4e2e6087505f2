// The block geometry of the range table: block sizes by level, the level
// that fits a span, and the decomposition of a range into aligned blocks.
//
// Level i stands for blocks of 2^(i + 1) bytes. Levels 0 to 3 exist only in
// the numbering (the fixed tables below cover them so that a level index can
// serve directly as a table index); the range table uses levels
// KY_RANGE_TABLE_BASE_LEVEL (32 bytes) to its top level.
#ifndef KYRT_CONTAINERS_RANGE_TABLE_BLOCKS_H
#define KYRT_CONTAINERS_RANGE_TABLE_BLOCKS_H

#include <array>
#include <cstdint>

#include "kyrt/range_table.h"
#include "kyrt/runtime.h"

namespace kyrt::range_table {

inline constexpr int32_t kBaseLevel = KY_RANGE_TABLE_BASE_LEVEL;
inline constexpr int32_t kLevelCount = KY_RANGE_TABLE_MAX_TOP_LEVEL + 1;
inline constexpr uint32_t kSmallestBlockLog = kBaseLevel + 1;                   // 32 bytes
inline constexpr uint32_t kLargestBlockLog = KY_RANGE_TABLE_MAX_TOP_LEVEL + 1;  // 128 MiB
inline constexpr uint64_t kSmallestBlockSize = uint64_t{1} << kSmallestBlockLog;

// The two fixed tables: for level i, the block size 2^(i + 1) and its
// logarithm i + 1.
inline constexpr std::array<uint64_t, kLevelCount> kBlockSizes = [] {
  std::array<uint64_t, kLevelCount> sizes{};
  for (int32_t level = 0; level < kLevelCount; ++level) sizes[level] = uint64_t{2} << level;
  return sizes;
}();

inline constexpr std::array<uint32_t, kLevelCount> kBlockLogs = [] {
  std::array<uint32_t, kLevelCount> logs{};
  for (int32_t level = 0; level < kLevelCount; ++level) logs[level] = level + 1;
  return logs;
}();

inline uint64_t BlockSize(int32_t level) {
  return kBlockSizes[level];
}

// The start of the level's block that holds address.
inline uint64_t BlockStart(uint64_t address, int32_t level) {
  return address & ~(BlockSize(level) - 1);
}

inline uint32_t ClampLog(uint32_t log, uint32_t lowest, uint32_t highest) {
  return log < lowest ? lowest : (log > highest ? highest : log);
}

// The top level for a maximum block size: the index of its most significant
// one bit, kept between 5 and 27, minus 1.
inline int32_t TopLevelFor(uint64_t maximumBlockSize) {
  const uint32_t log = ClampLog(__KyGetMostSignificantOneIndexLong(maximumBlockSize),
                                kSmallestBlockLog, kLargestBlockLog);
  return static_cast<int32_t>(log) - 1;
}

// The largest fitting level of the non-empty span [a, b): the level whose
// block size is the largest power of two not above b - a, kept between the
// base and the top level.
inline int32_t LargestFittingLevel(uint64_t a, uint64_t b, int32_t topLevel) {
  const uint32_t log =
      ClampLog(__KyGetMostSignificantOneIndexLong(b - a), kSmallestBlockLog, kBlockLogs[topLevel]);
  return static_cast<int32_t>(log) - 1;
}

// Calls visit(level, blockStart) once for each block of [a, b) (a < b),
// starting at `level`, the largest fitting level of the span. Blocks come in
// address order. A head not aligned to the level's blocks is decomposed on
// its own at its own level; at the base level the head and tail 32-byte
// blocks may reach outside the span, and nowhere else does a block.
// Arithmetic is on distances to b, so a span that ends at the top of the
// address space cannot wrap.
template <typename Visit>
void DecomposeSpan(uint64_t a, uint64_t b, int32_t level, int32_t topLevel, Visit& visit) {
  for (;;) {
    const uint64_t size = BlockSize(level);
    const uint64_t aligned = BlockStart(a, level);
    if (a != aligned) {
      const bool reachesEnd = b - aligned <= size;
      if (level > kBaseLevel) {
        const uint64_t headEnd = reachesEnd ? b : aligned + size;
        DecomposeSpan(a, headEnd, LargestFittingLevel(a, headEnd, topLevel), topLevel, visit);
      } else {
        visit(level, aligned);  // reaches back before the span's start
      }
      if (reachesEnd) return;
      a = aligned + size;
    }
    while (b - a >= size) {
      visit(level, a);
      a += size;
      if (a == b) return;
    }
    if (level == kBaseLevel) {
      visit(level, a);  // reaches past the span's end
      return;
    }
    level = LargestFittingLevel(a, b, topLevel);
  }
}

// The blocks of the range [start, end) in a table with the given top level;
// nothing for an empty range.
template <typename Visit>
void DecomposeRange(uint64_t start, uint64_t end, int32_t topLevel, Visit visit) {
  if (start >= end) return;
  DecomposeSpan(start, end, LargestFittingLevel(start, end, topLevel), topLevel, visit);
}

}  // namespace kyrt::range_table

#endif  // KYRT_CONTAINERS_RANGE_TABLE_BLOCKS_H
