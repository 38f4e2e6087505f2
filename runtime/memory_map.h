// Lookups in the process's memory map (/proc/self/maps).
//
// The three address-range calls of the module family share one scan: it
// reads the map line by line and reports the first mapping whose bounds hold
// the address. Scans are serialised by a private guard word, so that
// concurrent callers never interleave their reads of the map.
#ifndef KYRT_RUNTIME_MEMORY_MAP_H
#define KYRT_RUNTIME_MEMORY_MAP_H

#include <cstdint>

namespace kyrt {

// One line of the memory map: the bounds as the map prints them.
struct MemoryMapping {
  uint64_t start;
  uint64_t end;
};

// Scans the memory map for the first line with start <= address <= end (the
// end taken as inclusive) and stores its bounds in *mapping. Returns false,
// leaving *mapping untouched, when no line holds the address or the map
// cannot be opened. Thread-safe.
bool FindMappingContaining(uint64_t address, MemoryMapping* mapping);

}  // namespace kyrt

#endif  // KYRT_RUNTIME_MEMORY_MAP_H
