// The memory categories under which the tool's own bookkeeping is
// accounted (registered once at start-up; statistics are on, so a report
// can say what the tool itself holds).
#ifndef KYHEAP_TOOL_MEMORY_H
#define KYHEAP_TOOL_MEMORY_H

#include <cstdint>

namespace kyheap {

struct ToolMemory {
  uint32_t blocks;   // one record per live block of the program
  uint32_t sites;    // call-site records
  uint32_t indexes;  // the hash tables, the range table and the vectors
};

// Registers the categories and turns statistics on. Call before any other
// allocation through the runtime's allocator.
ToolMemory RegisterToolMemory();

}  // namespace kyheap

#endif  // KYHEAP_TOOL_MEMORY_H
