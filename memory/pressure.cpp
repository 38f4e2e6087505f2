// The memory-pressure protocol with the host framework: the check before the
// host reserves memory for itself, the report of how that went, and the
// host's notification that it is short of memory.
//
// A pre-allocation check goes idle -> first attempt -> (sleeping, probe
// waiting set) -> second attempt -> releasing reserves -> idle; any
// successful probe returns to idle. Checks are serialised by the
// pre-allocation lock, which is taken before the memory lock.
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"
#include "memory/categories.h"
#include "memory/collector.h"
#include "memory/sub_allocator.h"
#include "runtime/atomic_ops.h"

namespace {

// Set while a check sleeps between its two attempts; read without a lock by
// __KyWaitForPreVirtualAllocThread.
int32_t g_probeWaiting = 0;

// Host allocations reported failed in a row; guarded by the pre-allocation
// lock.
int32_t g_consecutiveFailures = 0;

// While the host keeps failing, probing would only squeeze the tool's heap
// for nothing: the check is skipped above this many failures in a row.
constexpr int32_t kMaxConsecutiveFailures = 10;

// The probe is the host's size plus the underlying allocator's 16-byte
// header, rounded up to a multiple of 64 KiB, less that header again.
constexpr uint64_t kProbeGranule = 0x10000;
constexpr uint64_t kProbeOverhead = 16;

constexpr uint32_t kSleepUnitsBetweenAttempts = 1;
constexpr int kRetriesAnnounced = 1;  // there is exactly one retry

uint64_t ProbeSize(uint64_t size) {
  return ((size + kProbeOverhead + kProbeGranule - 1) & ~(kProbeGranule - 1)) - kProbeOverhead;
}

// One attempt: under the memory lock, with the collect-logged latch set to
// latchBefore, request the probe from the underlying allocator. Leaves the
// latch's value after the request in *latchAfter. A probe obtained is given
// straight back.
bool ProbeOnce(const kyrt::memory::SubAllocatorControl& control, uint64_t probe,
               int32_t latchBefore, int32_t* latchAfter) {
  __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
  kyrt::memory::SetCollectLoggedLatch(latchBefore);
  void* block = control.allocate(probe);
  *latchAfter = kyrt::memory::CollectLoggedLatch();
  __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
  if (block == nullptr) return false;
  control.release(block);
  return true;
}

// The last resort: reserve blocks go back one at a time until the probe
// succeeds; when none is left, memory is reported tight (once per process).
void ProbeReleasingReserves(const kyrt::memory::SubAllocatorControl& control, uint64_t probe) {
  __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
  void* block = kyrt::memory::RetryReleasingReserves(control, probe);
  __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
  if (block != nullptr) {
    control.release(block);
  } else {
    kyrt::memory::ReportMemoryIsTight();
  }
}

void SleepBeforeRetry() {
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                  "Memory collection %i failed.  Retrying after a few seconds...",
                  kRetriesAnnounced);
  kyrt::StoreRelaxed(&g_probeWaiting, 1);
  __KySleep(kSleepUnitsBetweenAttempts);
}

bool StatisticsReportable() {
  return kyrt::memory::StatisticsEnabled() && __KyIsLoggerInitialized();
}

// The shortage arose inside the calling thread's own guarded request: the
// collection runs at once, under the memory lock the thread already holds.
void CollectInsideRequest(uint64_t size) {
  if (StatisticsReportable()) {
    __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "Trell requested at least %llu bytes",
                    static_cast<unsigned long long>(size));
  }
  const uint64_t freed = kyrt::memory::CollectMemory();
  if (StatisticsReportable()) {
    __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "We freed %llu bytes",
                    static_cast<unsigned long long>(freed));
  }
}

}  // namespace

extern "C" {

void __KyPreVirtualAllocCheck(uint64_t size) noexcept {
  const kyrt::memory::SubAllocatorControl& control = kyrt::memory::Control();
  const uint64_t probe = ProbeSize(size);
  __KyAcquireSpinLock(&kyrt::memory::g_preAllocationLock);
  if (g_consecutiveFailures > kMaxConsecutiveFailures) {
    __KyReleaseSpinLock(&kyrt::memory::g_preAllocationLock);
    return;
  }
  int32_t latch = 0;
  if (!ProbeOnce(control, probe, 0, &latch)) {
    SleepBeforeRetry();
    if (!ProbeOnce(control, probe, latch, &latch)) ProbeReleasingReserves(control, probe);
  }
  kyrt::StoreRelaxed(&g_probeWaiting, 0);
  __KyReleaseSpinLock(&kyrt::memory::g_preAllocationLock);
}

void __KyPostVirtualAllocCheck(int32_t succeeded) noexcept {
  __KyAcquireSpinLock(&kyrt::memory::g_preAllocationLock);
  g_consecutiveFailures = succeeded != 0 ? 0 : g_consecutiveFailures + 1;
  __KyReleaseSpinLock(&kyrt::memory::g_preAllocationLock);
}

void __KyAsynchronousCollectMemory(uint64_t size) noexcept {
  // A reserve block handed back may itself provoke this notification.
  if (!kyrt::memory::CollectorInitialised() || kyrt::memory::ReleasingReserves()) return;
  if (!__KyIsSpinLockAcquiredByCallingThread(&kyrt::memory::g_memoryLock)) {
    __KyPreVirtualAllocCheck(static_cast<uint32_t>(size));
    return;
  }
  CollectInsideRequest(size);
}

void __KyWaitForPreVirtualAllocThread(void) noexcept {
  while (kyrt::LoadRelaxed(&g_probeWaiting) != 0) __KyYield();
}

}  // extern "C"
