// The spin lock's acquire and release as inline functions, for the
// runtime's own hot paths (the allocator's bin locks): the exported entries
// are built on these, so both follow one implementation, and the library's
// callers save the calls. Only the uncontended path is inline; waiting stays
// out of line.
#ifndef KYRT_SYNC_SPIN_LOCK_INLINE_H
#define KYRT_SYNC_SPIN_LOCK_INLINE_H

#include "kyrt/spin_lock.h"
#include "sync/lock_common.h"

namespace kyrt {

inline constexpr uint32_t kSpinLockHeld = 1;

// Waits for the state word of a lock found busy (or lost to another thread)
// and takes it; out of line.
void WaitAndTakeSpinLock(KySpinLock* lock);

inline void AcquireSpinLockTid(KySpinLock* lock, KyThreadId tid) {
  if (IsOwnedBy(lock, tid)) {
    CountReentry(lock);
    return;
  }
  // The uncontended case, one read and one swap, stays out of the wait loop.
  if (LoadRelaxed(&lock->state) != kLockStateFree || !TrySwapState(&lock->state, kSpinLockHeld)) {
    WaitAndTakeSpinLock(lock);
  }
  RecordOwner(lock, tid);
}

inline void ReleaseSpinLock(KySpinLock* lock) {
  ReleaseRecursive(lock, kSpinLockHeld);
}

}  // namespace kyrt

#endif  // KYRT_SYNC_SPIN_LOCK_INLINE_H
