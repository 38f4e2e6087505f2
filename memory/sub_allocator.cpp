// The underlying allocator: its installation, the control record created
// once on first use, and the guarded request through which every slab and
// large block is obtained.
#include "memory/sub_allocator.h"

#include <cstdlib>

#include "kyrt/log.h"
#include "memory/collector.h"
#include "memory/slabs.h"
#include "memory/swap_rule.h"
#include "runtime/atomic_ops.h"

namespace {

// The installed underlying allocator; the control record copies the pair
// that is installed when the record is created.
KyAllocateFunction g_allocateFunction = &std::malloc;
KyReleaseFunction g_releaseFunction = &std::free;

// The one-time creation of the control record. The runtime lives inside a
// host framework that owns the threads, so the creation does not lean on
// the threads library's once-routines: the first caller to swap the guard
// word from 0 to 1 creates the record, and the others yield until it is
// published through g_control. The guard is never reset.
int32_t g_controlCreationTaken = 0;

// Set while a request or a pre-allocation check hands reserve blocks back.
int32_t g_releasingReserves = 0;

void WaitForControl() {
  while (__atomic_load_n(&kyrt::memory::g_control, __ATOMIC_ACQUIRE) == nullptr) __KyYield();
}

void CreateControl() {
  __KyInitializeSpinLock(&kyrt::memory::g_memoryLock);
  __KyInitializeSpinLock(&kyrt::memory::g_preAllocationLock);
  kyrt::memory::SubAllocatorControl& record = kyrt::memory::g_controlRecord;
  record.allocate = kyrt::LoadRelaxed(&g_allocateFunction);
  record.release = kyrt::LoadRelaxed(&g_releaseFunction);
  record.binTable = kyrt::memory::CreateBinTable(record.allocate);
  kyrt::StoreRelease(&kyrt::memory::g_control, &record);
}

void LogFreeingReserves() {
  __KyLogInternal(KY_LOG_WARNING, kyrt::LoadRelaxed(&KYLOG_MSG_FREEING_RESERVES), 0, KY_LOG_ARG_INT,
                  static_cast<int>(KY_RESERVE_BLOCK_SIZE), KY_LOG_ARG_END);
}

}  // namespace

namespace kyrt::memory {

SubAllocatorControl g_controlRecord = {};
SubAllocatorControl* g_control = nullptr;
KySpinLock g_memoryLock = {};
KySpinLock g_preAllocationLock = {};

SubAllocatorControl& CreateControlOnce() {
  if (CompareExchange(&g_controlCreationTaken, 1, 0) == 0) {
    CreateControl();
  } else {
    WaitForControl();
  }
  return g_controlRecord;
}

bool ReleasingReserves() {
  return LoadRelaxed(&g_releasingReserves) != 0;
}

void* RetryReleasingReserves(const SubAllocatorControl& control, size_t bytes) {
  StoreRelaxed(&g_releasingReserves, 1);
  void* block = nullptr;
  while (block == nullptr) {
    void* reserve = PopReserveBlock();
    if (reserve == nullptr) break;
    control.release(reserve);
    LogFreeingReserves();
    block = control.allocate(bytes);
  }
  StoreRelaxed(&g_releasingReserves, 0);
  return block;
}

void* GuardedRequest(size_t bytes) {
  const SubAllocatorControl& control = Control();
  __KyAcquireSpinLock(&g_memoryLock);
  SetCollectLoggedLatch(0);
  if (CollectorInitialised()) ApplySwapRule();
  void* block = control.allocate(bytes);
  if (block == nullptr) block = RetryReleasingReserves(control, bytes);
  if (block == nullptr) {
    __KyReleaseSpinLock(&g_memoryLock);
    ReportOutOfMemory();
  }
  SetCollectLoggedLatch(0);
  __KyReleaseSpinLock(&g_memoryLock);
  return block;
}

}  // namespace kyrt::memory

extern "C" {

void __KyInitializeSubAllocator(KyAllocateFunction allocate, KyReleaseFunction release) noexcept {
  kyrt::StoreRelaxed(&g_allocateFunction, allocate);
  kyrt::StoreRelaxed(&g_releaseFunction, release);
  kyrt::memory::Control();
}

void __KyDeinitializeSubAllocator(void) noexcept {
  kyrt::StoreRelaxed(&g_allocateFunction, static_cast<KyAllocateFunction>(&std::malloc));
  kyrt::StoreRelaxed(&g_releaseFunction, static_cast<KyReleaseFunction>(&std::free));
  kyrt::memory::SubAllocatorControl& control = kyrt::memory::Control();
  control.release(control.binTable);
  // The record is finished with: its pointer stays published and the
  // one-time creation is not reset, so a memory call made after this point
  // finds an empty record and fails at once on the null bin table or
  // functions instead of using memory that has been given back.
  control = kyrt::memory::SubAllocatorControl{};
}

}  // extern "C"
