#include "tool_memory.h"

#include "kyrt/memory.h"

namespace kyheap {

ToolMemory RegisterToolMemory() {
  __KyEnableMemoryStatisticsCollection();
  ToolMemory memory;
  memory.blocks = __KyRegisterMemoryCategory("kyheap blocks");
  memory.sites = __KyRegisterMemoryCategory("kyheap call sites");
  memory.indexes = __KyRegisterMemoryCategory("kyheap indexes");
  return memory;
}

}  // namespace kyheap
