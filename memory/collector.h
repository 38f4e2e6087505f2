// Collector hooks, collections, reserve blocks and shortage reports
// (internal interface).
//
// Everything here that changes state runs under the allocator's memory lock
// (sub_allocator.h): the collection, the reserve list and the shortage
// reports. The latches and the initialised flag are plain 32-bit words that
// the memory-pressure entry points read without the lock.
#ifndef KYRT_MEMORY_COLLECTOR_H
#define KYRT_MEMORY_COLLECTOR_H

#include <cstdint>

namespace kyrt::memory {

// True once __KyInitializeMemoryCollector* has run: the memory-pressure
// machinery (swap rule, asynchronous collection) is on.
bool CollectorInitialised();

// The collect-logged latch: set when a collection starts, so that
// COLLECT_MEMORY is logged at most once per request to the underlying
// allocator, however many collections that request causes.
int32_t CollectLoggedLatch();
void SetCollectLoggedLatch(int32_t value);

// Runs every registered hook and returns by how many bytes the total of slab
// memory fell meanwhile (0 while statistics are disabled). Memory lock held.
uint64_t CollectMemory();

// Takes the first reserve block off the reserve list; null when none is
// left. Memory lock held.
void* PopReserveBlock();

// Out of memory: logs the status lines (statistics enabled) and
// OUT_OF_MEMORY, then ends the process through __KyFatalExit(-1).
[[noreturn]] void ReportOutOfMemory();

// Memory is tight: logs the status lines (statistics enabled) and
// MEMORY_IS_TIGHT, the first time in the process only.
void ReportMemoryIsTight();

}  // namespace kyrt::memory

#endif  // KYRT_MEMORY_COLLECTOR_H
