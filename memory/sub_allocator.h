// The underlying allocator beneath the slabs, its control record and the
// guarded request (internal interface).
//
// Every request to the underlying allocator is made under the memory lock,
// so the allocation function is entered by one thread at a time; the
// collection, the reserve list and the pressure flags live under that lock
// too. Lock order of the allocator: pre-allocation lock, memory lock, bin
// lock, statistics lock.
#ifndef KYRT_MEMORY_SUB_ALLOCATOR_H
#define KYRT_MEMORY_SUB_ALLOCATOR_H

#include <cstddef>

#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"

namespace kyrt::memory {

struct Bin;

// The control record, created once, lazily, by the first memory function
// that runs, and never replaced:
//   - allocate, release: the underlying allocator as it was installed when
//     the record was created (later installations do not reach it);
//   - binTable: the flat table of bin records (slabs.h), obtained from
//     allocate when the record is created.
// __KyDeinitializeSubAllocator gives the bin table back and clears the
// record; nothing may use it afterwards.
struct SubAllocatorControl {
  KyAllocateFunction allocate;
  KyReleaseFunction release;
  Bin* binTable;
};

// The record itself, in static storage, and the process-wide pointer to
// it: null until the record is complete, then published with release order
// and never changed. The hot paths test the pointer and read the record
// directly, so that the bin table's address does not wait for the pointer.
extern SubAllocatorControl g_controlRecord;
extern SubAllocatorControl* g_control;

// The memory lock guards the underlying allocator, the reserve list and the
// pressure state; the pre-allocation lock serialises pre-allocation checks.
// A spin lock that records its owner: the asynchronous collection asks
// whether the calling thread holds the memory lock.
extern KySpinLock g_memoryLock;
extern KySpinLock g_preAllocationLock;

SubAllocatorControl& CreateControlOnce();

// The control record, created on first use (thread-safe).
inline SubAllocatorControl& Control() {
  if (__builtin_expect(__atomic_load_n(&g_control, __ATOMIC_ACQUIRE) != nullptr, 1)) {
    return g_controlRecord;
  }
  return CreateControlOnce();
}

// Obtains `bytes` bytes from the underlying allocator under the memory lock,
// first applying the swap rule; when the allocator refuses, hands reserve
// blocks back one at a time and retries; when none is left, ends the process
// with the out-of-memory report. Never returns null.
void* GuardedRequest(size_t bytes);

// With the memory lock held and the underlying allocator having refused
// `bytes`: gives reserve blocks back one at a time, each logged with
// FREEING_RESERVES, retrying the request after each. Returns the block, or
// null when the reserves ran out. The releasing-reserves flag is set
// meanwhile.
void* RetryReleasingReserves(const SubAllocatorControl& control, size_t bytes);

// True while reserves are being handed back.
bool ReleasingReserves();

}  // namespace kyrt::memory

#endif  // KYRT_MEMORY_SUB_ALLOCATOR_H
