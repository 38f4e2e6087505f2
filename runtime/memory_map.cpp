// The memory-map scan and the two address-range calls built directly on it
// (the third, __KyGetKYRTAddressRange, sits with the module table whose
// storage it locates).
#include "runtime/memory_map.h"

#include <cstdio>

#include "kyrt/modules.h"
#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"
#include "runtime/proc_paths.h"
#include "util/line_reader.h"

namespace kyrt {
namespace {

// The longest map line read whole, terminating NUL included. Only the two
// leading addresses matter; the rest of a longer line (a long path) is
// skipped rather than read as a line of its own.
constexpr std::size_t kMapsLineBufferSize = 4176;

// Serialises scans: 0 = free, 1 = held.
int32_t g_mapsScanGuard = 0;

void TakeScanGuard() {
  while (__KyInterlockedCompareExchangeInternal(&g_mapsScanGuard, 1, 0) != 0) __KyYield();
}

void ReleaseScanGuard() {
  StoreRelease(&g_mapsScanGuard, 0);
}

// Reads the "start-end" prefix of a map line. A line without it (never
// produced by the kernel) is not a mapping.
bool ParseMappingBounds(const char* line, MemoryMapping* bounds) {
  void* start = nullptr;
  void* end = nullptr;
  if (std::sscanf(line, "%p-%p", &start, &end) != 2) return false;
  bounds->start = reinterpret_cast<uint64_t>(start);
  bounds->end = reinterpret_cast<uint64_t>(end);
  return true;
}

bool Holds(const MemoryMapping& bounds, uint64_t address) {
  return bounds.start <= address && address <= bounds.end;
}

bool ScanForMapping(std::FILE* maps, uint64_t address, MemoryMapping* mapping) {
  bool found = false;
  ForEachLine<kMapsLineBufferSize>(maps, [&](const char* line) {
    MemoryMapping bounds;
    if (!ParseMappingBounds(line, &bounds) || !Holds(bounds, address)) return true;
    *mapping = bounds;
    found = true;
    return false;
  });
  return found;
}

}  // namespace

bool FindMappingContaining(uint64_t address, MemoryMapping* mapping) {
  TakeScanGuard();
  bool found = false;
  if (std::FILE* maps = std::fopen(CurrentProcPaths().selfMaps, "re")) {
    found = ScanForMapping(maps, address, mapping);
    std::fclose(maps);
  }
  ReleaseScanGuard();
  return found;
}

}  // namespace kyrt

extern "C" {

uint64_t __KyGetModuleAddressRange(uint64_t address, uint64_t* end) noexcept {
  // Without somewhere to put the end the caller cannot use the range: skip
  // the scan altogether.
  if (end == nullptr) return 0;
  kyrt::MemoryMapping mapping;
  if (!kyrt::FindMappingContaining(address, &mapping)) return 0;
  *end = mapping.end;
  return mapping.start;
}

uint64_t __KyGetThreadStackBaseAndSize(uint64_t addressOnStack, uint64_t* base) noexcept {
  // Stacks grow down: the base is the top of the mapping that holds them.
  kyrt::MemoryMapping mapping = {0, 0};
  kyrt::FindMappingContaining(addressOnStack, &mapping);
  if (base != nullptr) *base = mapping.end;
  return mapping.end - mapping.start;
}

}  // extern "C"
