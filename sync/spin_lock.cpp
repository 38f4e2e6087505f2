// Recursive spin locks.
#include "kyrt/spin_lock.h"

#include <cstddef>

#include "runtime/thread_hooks.h"
#include "sync/lock_common.h"
#include "sync/spin_lock_inline.h"

static_assert(sizeof(KySpinLock) == 24 && alignof(KySpinLock) == 8, "KySpinLock layout");
static_assert(offsetof(KySpinLock, ownerThreadId) == 0, "KySpinLock owner");
static_assert(offsetof(KySpinLock, state) == 8, "KySpinLock state");
static_assert(offsetof(KySpinLock, recursionCount) == 12, "KySpinLock recursion count");
static_assert(offsetof(KySpinLock, spinCount) == 16, "KySpinLock spin count");

namespace kyrt {

void WaitAndTakeSpinLock(KySpinLock* lock) {
  AcquireStateWord(&lock->state, kSpinLockHeld, LoadRelaxed(&lock->spinCount), [] {});
}

}  // namespace kyrt

using kyrt::kSpinLockHeld;

extern "C" {

KYRT_API KyClientLockProc __kyTRELLClientLock = nullptr;
KYRT_API KyClientLockProc __kyTRELLClientUnlock = nullptr;

void __KyInitializeSpinLockAndSpinCount(KySpinLock* lock, uint32_t spinCount) noexcept {
  kyrt::StoreRelaxed(&lock->ownerThreadId, uint64_t{0});
  kyrt::StoreRelaxed(&lock->recursionCount, 0u);
  kyrt::StoreRelaxed(&lock->spinCount, spinCount);
  kyrt::StoreRelease(&lock->state, kyrt::kLockStateFree);
}

void __KyInitializeSpinLock(KySpinLock* lock) noexcept {
  __KyInitializeSpinLockAndSpinCount(lock, 0);
}

int __KyIsSpinLockInAcquiredState(KySpinLock* lock) noexcept {
  return kyrt::LoadRelaxed(&lock->state) == kSpinLockHeld;
}

int __KyIsSpinLockAcquiredByCallingThread(KySpinLock* lock) noexcept {
  return __KyIsSpinLockInAcquiredState(lock) &&
         kyrt::IsOwnedBy(lock, kyrt::CurrentNativeThreadId());
}

void __KyAcquireSpinLockTid(KySpinLock* lock, KyThreadId tid) noexcept {
  kyrt::AcquireSpinLockTid(lock, tid);
}

void __KyAcquireSpinLock(KySpinLock* lock) noexcept {
  __KyAcquireSpinLockTid(lock, kyrt::CurrentNativeThreadId());
}

int __KyTryToAcquireSpinLockTid(KySpinLock* lock, uint32_t attempts, KyThreadId tid) noexcept {
  if (kyrt::IsOwnedBy(lock, tid)) {
    kyrt::CountReentry(lock);
    return 1;
  }
  if (!kyrt::TryAcquireStateWord(&lock->state, kSpinLockHeld, attempts)) return 0;
  kyrt::RecordOwner(lock, tid);
  return 1;
}

int __KyTryToAcquireSpinLock(KySpinLock* lock, uint32_t attempts) noexcept {
  return __KyTryToAcquireSpinLockTid(lock, attempts, kyrt::CurrentNativeThreadId());
}

void __KyReleaseSpinLock(KySpinLock* lock) noexcept {
  kyrt::ReleaseSpinLock(lock);
}

void __KySetTrellClientLockProc(KyClientLockProc lockProc, KyClientLockProc unlockProc) noexcept {
  kyrt::StoreRelaxed(&__kyTRELLClientLock, lockProc);
  kyrt::StoreRelaxed(&__kyTRELLClientUnlock, unlockProc);
}

}  // extern "C"
