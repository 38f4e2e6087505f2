// Shared-exclusive spin locks with writer preference.
//
// The state (low half) and the reader count (high half) form one aligned
// 64-bit word. A reader counts itself in before it enters, and the last
// reader frees the lock by swapping the whole word from "shared, no readers"
// to "free, no readers": while any reader is counted, including one that has
// counted itself but not yet entered, that swap fails, so a lock is never
// freed under a reader.
#include "kyrt/shared_exclusive_lock.h"

#include <cstddef>

#include "runtime/thread_hooks.h"
#include "sync/lock_common.h"

static_assert(sizeof(KySharedExclusiveLock) == 32 && alignof(KySharedExclusiveLock) == 8,
              "KySharedExclusiveLock layout");
static_assert(offsetof(KySharedExclusiveLock, state) == 0, "state: low half of the pair");
static_assert(offsetof(KySharedExclusiveLock, readerCount) == 4, "readers: high half");
static_assert(offsetof(KySharedExclusiveLock, ownerThreadId) == 8, "owner");
static_assert(offsetof(KySharedExclusiveLock, writerWaiting) == 16, "writer waiting");
static_assert(offsetof(KySharedExclusiveLock, recursionCount) == 20, "recursion count");
static_assert(offsetof(KySharedExclusiveLock, spinCount) == 24, "spin count");

namespace {

constexpr uint32_t kShared = 1;
constexpr uint32_t kExclusive = 2;

// State "shared" with a reader count of 0, as the 64-bit pair reads it.
constexpr int64_t kPairSharedNoReaders = kShared;
constexpr int64_t kPairFree = 0;

volatile int64_t* StateAndReaders(KySharedExclusiveLock* lock) {
  return reinterpret_cast<volatile int64_t*>(&lock->state);
}

// One reader, as the 64-bit pair counts it (the count is the high half).
constexpr int64_t kPairOneReader = int64_t{1} << 32;

// The reader count is changed through the pair's own address rather than
// through the 32-bit half: one locked add either way, but then every change
// of the count and the releasing swap act on one and the same atomic object.
// A reader's exit is thereby ordered before the swap that frees the lock,
// whichever reader makes that swap, for the compiler's memory model and for
// ThreadSanitizer alike (both track atomics per object, not per byte).
void CountReaderIn(KySharedExclusiveLock* lock) {
  kyrt::AddAndFetch(StateAndReaders(lock), kPairOneReader);
}

void CountReaderOut(KySharedExclusiveLock* lock) {
  kyrt::AddAndFetch(StateAndReaders(lock), -kPairOneReader);
}

int64_t LoadPair(KySharedExclusiveLock* lock) {
  return kyrt::LoadRelaxed(StateAndReaders(lock));
}

uint32_t StateOf(int64_t pair) {
  return static_cast<uint32_t>(pair);
}

// The caller's id as the shared paths' owner test needs it. Only an
// exclusive lock has an owner (it is recorded after the state becomes
// exclusive and cleared before it stops being so), so while the lock is not
// exclusive the test can only match the empty id 0, which the caller has
// exactly when no id hook is set. The hook is therefore asked only when the
// lock is exclusive; otherwise an id that matches no owner stands in for it
// (hooks give live threads non-zero ids).
KyThreadId CallerIdForOwnerTest(KySharedExclusiveLock* lock) {
  if (kyrt::LoadRelaxed(&lock->state) == kExclusive) return kyrt::CurrentNativeThreadId();
  return kyrt::LoadRelaxed(&__kyGetNativeThreadIdProc) == nullptr ? 0 : KY_INVALID_THREAD_ID;
}

// The common case of a shared acquire in one swap of the pair: counting the
// reader in and entering a free or shared lock at once. It is what the
// two-step path (count in, then swap the state) does when nothing happens in
// between; when anything does, the two-step path takes over.
bool TryEnterSharedAtOnce(KySharedExclusiveLock* lock) {
  const int64_t pair = LoadPair(lock);
  if (StateOf(pair) == kExclusive) return false;
  const int64_t entered = ((pair & ~int64_t{0xFFFFFFFF}) + kPairOneReader) | kShared;
  return kyrt::CompareExchange(StateAndReaders(lock), entered, pair) == pair;
}

// The last reader's release in one swap: (shared, one reader) to free. Any
// other pair goes the two-step way (count out, then swap (shared, none) to
// free).
bool TryLeaveAsLastReaderAtOnce(KySharedExclusiveLock* lock) {
  constexpr int64_t kSharedOneReader = kPairOneReader | kShared;
  return LoadPair(lock) == kSharedOneReader &&
         kyrt::CompareExchange(StateAndReaders(lock), kPairFree, kSharedOneReader) ==
             kSharedOneReader;
}

}  // namespace

extern "C" {

void __KyInitializeSharedExclusiveLockAndSpinCount(KySharedExclusiveLock* lock,
                                                   uint32_t spinCount) noexcept {
  kyrt::StoreRelaxed(&lock->readerCount, 0u);
  kyrt::StoreRelaxed(&lock->ownerThreadId, uint64_t{0});
  kyrt::StoreRelaxed(&lock->writerWaiting, 0u);
  kyrt::StoreRelaxed(&lock->recursionCount, 0u);
  kyrt::StoreRelaxed(&lock->spinCount, spinCount);
  kyrt::StoreRelease(&lock->state, kyrt::kLockStateFree);
}

void __KyInitializeSharedExclusiveLock(KySharedExclusiveLock* lock) noexcept {
  __KyInitializeSharedExclusiveLockAndSpinCount(lock, 0);
}

void __KyAcquireSharedLockTid(KySharedExclusiveLock* lock, KyThreadId tid) noexcept {
  if (kyrt::IsOwnedBy(lock, tid)) return;  // the exclusive owner reads under its own lock
  const uint32_t spinCount = kyrt::LoadRelaxed(&lock->spinCount);
  if (kyrt::LoadRelaxed(&lock->writerWaiting) == 1) {
    kyrt::PollBackoff(spinCount).waitWhile(
        [lock] { return kyrt::LoadRelaxed(&lock->writerWaiting) == 1; });
  }
  if (TryEnterSharedAtOnce(lock)) return;
  CountReaderIn(lock);
  // One poll counter for every pass: a writer slipping in between the wait
  // and the swap does not restart the count.
  kyrt::PollBackoff backoff(spinCount);
  for (;;) {
    backoff.waitWhile([lock] { return kyrt::LoadRelaxed(&lock->state) == kExclusive; });
    // From free the swap makes the lock shared; an already shared lock is
    // entered as it is. Only a writer that came in between sends us round.
    if (kyrt::StateCompareExchange(&lock->state, kShared, kyrt::kLockStateFree) !=
        static_cast<int32_t>(kExclusive)) {
      return;
    }
  }
}

void __KyAcquireSharedLock(KySharedExclusiveLock* lock) noexcept {
  __KyAcquireSharedLockTid(lock, CallerIdForOwnerTest(lock));
}

void __KyReleaseSharedLockTid(KySharedExclusiveLock* lock, KyThreadId tid) noexcept {
  if (kyrt::IsOwnedBy(lock, tid)) return;
  if (TryLeaveAsLastReaderAtOnce(lock)) return;
  CountReaderOut(lock);
  kyrt::CompareExchange(StateAndReaders(lock), kPairFree, kPairSharedNoReaders);
}

void __KyReleaseSharedLock(KySharedExclusiveLock* lock) noexcept {
  __KyReleaseSharedLockTid(lock, CallerIdForOwnerTest(lock));
}

int __KyIsExclusiveLockAcquiredByCallingThread(KySharedExclusiveLock* lock) noexcept {
  return kyrt::LoadRelaxed(&lock->state) == kExclusive &&
         kyrt::IsOwnedBy(lock, kyrt::CurrentNativeThreadId());
}

void __KyAcquireExclusiveLockTid(KySharedExclusiveLock* lock, KyThreadId tid) noexcept {
  if (kyrt::IsOwnedBy(lock, tid)) {
    kyrt::CountReentry(lock);
    return;
  }
  if (kyrt::LoadRelaxed(&lock->state) != kyrt::kLockStateFree ||
      !kyrt::TrySwapState(&lock->state, kExclusive)) {
    kyrt::AcquireStateWord(&lock->state, kExclusive, kyrt::LoadRelaxed(&lock->spinCount), [lock] {
      // Keep new readers out while we wait (a plain store: best effort).
      if (kyrt::LoadRelaxed(&lock->writerWaiting) == 0) {
        kyrt::StoreRelaxed(&lock->writerWaiting, 1u);
      }
    });
  }
  // Cleared even if other writers still wait: each raises it again on its
  // next busy poll.
  kyrt::StoreRelaxed(&lock->writerWaiting, 0u);
  kyrt::RecordOwner(lock, tid);
}

void __KyAcquireExclusiveLock(KySharedExclusiveLock* lock) noexcept {
  __KyAcquireExclusiveLockTid(lock, kyrt::CurrentNativeThreadId());
}

int __KyTryToAcquireExclusiveLock(KySharedExclusiveLock* lock, uint32_t attempts) noexcept {
  const KyThreadId tid = kyrt::CurrentNativeThreadId();
  if (kyrt::IsOwnedBy(lock, tid)) {
    kyrt::CountReentry(lock);
    return 1;
  }
  if (!kyrt::TryAcquireStateWord(&lock->state, kExclusive, attempts)) return 0;
  kyrt::StoreRelaxed(&lock->writerWaiting, 0u);
  kyrt::RecordOwner(lock, tid);
  return 1;
}

void __KyReleaseExclusiveLock(KySharedExclusiveLock* lock) noexcept {
  kyrt::ReleaseRecursive(lock, kExclusive);
}

}  // extern "C"
