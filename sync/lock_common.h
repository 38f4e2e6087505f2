// What the spin lock and the shared-exclusive lock have in common: the wait
// rule, the compare-and-swap acquisition of a state word, and the recursive
// ownership fields (owner thread id and recursion count).
//
// Invariants of every lock record:
//   - the state word changes only by compare-and-swap (full barrier);
//   - a held lock has a non-zero state; its owner field holds the holder's
//     32-bit id zero-extended to 64 bits (0 = none) and its recursion count
//     the holder's acquisitions not yet released;
//   - the last release clears recursion count and owner before it frees the
//     state, so a thread that finds its own id in the owner field really is
//     the holder (only that thread can have written its id there).
#ifndef KYRT_SYNC_LOCK_COMMON_H
#define KYRT_SYNC_LOCK_COMMON_H

#include <cstdint>

#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"

namespace kyrt {

inline constexpr uint32_t kLockStateFree = 0;

inline int32_t StateCompareExchange(uint32_t* state, uint32_t exchange, uint32_t comparand) {
  // Signed and unsigned variants of one type may alias: the state word is
  // swapped with the runtime's one 32-bit compare-and-swap.
  return CompareExchange(reinterpret_cast<volatile int32_t*>(state), static_cast<int32_t>(exchange),
                         static_cast<int32_t>(comparand));
}

inline bool TrySwapState(uint32_t* state, uint32_t takenValue) {
  return StateCompareExchange(state, takenValue, kLockStateFree) ==
         static_cast<int32_t>(kLockStateFree);
}

// The one wait rule of the runtime's locks. A waiter that found the lock busy
// calls onBusyPoll(): on a machine with more than one processor it counts the
// poll and, while the spin count is above the count, asks for another poll at
// once (returns false); otherwise it resets the count and yields (returns
// true). On one processor every busy poll yields.
class PollBackoff {
 public:
  explicit PollBackoff(uint32_t spinCount) : spinCount_(spinCount) {}

  bool onBusyPoll() {
    if (LoadRelaxed(&__kyNumberOfProcessors) != 1) {
      ++polls_;
      if (spinCount_ > polls_) return false;
      polls_ = 0;
    }
    __KyYield();
    return true;
  }

  template <typename Condition>
  void waitWhile(Condition condition) {
    while (condition()) onBusyPoll();
  }

 private:
  uint32_t spinCount_;
  uint32_t polls_ = 0;
};

// Takes a state word from free to takenValue, waiting by the wait rule. A
// compare-and-swap is tried only when the state was seen free or after a
// yield. onBusy runs on every busy poll before the wait rule (the writer of a
// shared-exclusive lock raises its flag there).
template <typename OnBusy>
__attribute__((noinline)) void AcquireStateWord(uint32_t* state, uint32_t takenValue,
                                                uint32_t spinCount, OnBusy onBusy) {
  PollBackoff backoff(spinCount);
  for (;;) {
    if (LoadRelaxed(state) != kLockStateFree) {
      onBusy();
      if (!backoff.onBusyPoll()) continue;
    }
    if (TrySwapState(state, takenValue)) return;
  }
}

// The try rule: with no attempts, or on one processor, exactly one
// compare-and-swap; otherwise up to `attempts` probes without yielding, each
// one used up by a busy state or a failed swap.
inline bool TryAcquireStateWord(uint32_t* state, uint32_t takenValue, uint32_t attempts) {
  if (attempts == 0 || LoadRelaxed(&__kyNumberOfProcessors) == 1) {
    return TrySwapState(state, takenValue);
  }
  for (uint32_t left = attempts; left != 0; --left) {
    if (LoadRelaxed(state) == kLockStateFree && TrySwapState(state, takenValue)) return true;
  }
  return false;
}

// Ownership of a lock record with fields ownerThreadId and recursionCount.
template <typename Lock>
bool IsOwnedBy(const Lock* lock, KyThreadId tid) {
  return LoadRelaxed(&lock->ownerThreadId) == static_cast<uint64_t>(tid);  // zero extension
}

template <typename Lock>
void CountReentry(Lock* lock) {
  StoreRelaxed(&lock->recursionCount, LoadRelaxed(&lock->recursionCount) + 1);
}

template <typename Lock>
void RecordOwner(Lock* lock, KyThreadId tid) {
  StoreRelaxed(&lock->ownerThreadId, static_cast<uint64_t>(tid));
  CountReentry(lock);
}

// One release of a lock whose state is takenValue while held: lower the
// recursion count, and on the last release clear the owner and then free the
// state. Any thread may release; a lock not in takenValue is left alone.
template <typename Lock>
void ReleaseRecursive(Lock* lock, uint32_t takenValue) {
  if (LoadRelaxed(&lock->state) != takenValue) return;
  const uint32_t recursion = LoadRelaxed(&lock->recursionCount);
  if (recursion >= 2) {
    StoreRelaxed(&lock->recursionCount, recursion - 1);
    return;
  }
  StoreRelaxed(&lock->recursionCount, 0u);
  StoreRelaxed(&lock->ownerThreadId, uint64_t{0});
  StateCompareExchange(&lock->state, kLockStateFree, takenValue);
}

}  // namespace kyrt

#endif  // KYRT_SYNC_LOCK_COMMON_H
