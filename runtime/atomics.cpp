// Atomic integer operations, bit scans, yield and busy sleep.
//
// The public names are thin entries forwarding to the ...Internal routines,
// which are single locked instructions (see runtime/atomic_ops.h).
#include <sched.h>

#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"
#include "runtime/sleep_rounds.h"

namespace {

// The busy sleep increments this word and clears it again on every round so
// that the loop has an effect the compiler must keep.
int32_t g_sleepSink = 0;

}  // namespace

extern "C" {

int32_t __KyInterlockedCompareExchangeInternal(volatile int32_t* target, int32_t exchange,
                                               int32_t comparand) noexcept {
  return kyrt::CompareExchange(target, exchange, comparand);
}

int64_t __KyInterlockedCompareExchange64Internal(volatile int64_t* target, int64_t exchange,
                                                 int64_t comparand) noexcept {
  return kyrt::CompareExchange(target, exchange, comparand);
}

int32_t __KyInterlockedIncrementInternal(volatile int32_t* target) noexcept {
  return kyrt::AddAndFetch(target, 1);
}

int32_t __KyInterlockedDecrementInternal(volatile int32_t* target) noexcept {
  return kyrt::AddAndFetch(target, -1);
}

int32_t __KyInterlockedExchangeAddInternal(volatile int32_t* target, int32_t addend) noexcept {
  // The result is deliberately the value seen by an ordinary load just
  // before the locked add, not the value the add replaced; no caller builds
  // on it, and the add itself stays one locked instruction.
  const int32_t seenBefore = kyrt::LoadRelaxed(target);
  __atomic_add_fetch(target, addend, __ATOMIC_SEQ_CST);
  return seenBefore;
}

int32_t __KyInterlockedCompareExchange(volatile int32_t* target, int32_t exchange,
                                       int32_t comparand) noexcept {
  return __KyInterlockedCompareExchangeInternal(target, exchange, comparand);
}

int64_t __KyInterlockedCompareExchange64(volatile int64_t* target, int64_t exchange,
                                         int64_t comparand) noexcept {
  return __KyInterlockedCompareExchange64Internal(target, exchange, comparand);
}

int32_t __KyInterlockedIncrement(volatile int32_t* target) noexcept {
  return __KyInterlockedIncrementInternal(target);
}

int32_t __KyInterlockedDecrement(volatile int32_t* target) noexcept {
  return __KyInterlockedDecrementInternal(target);
}

int32_t __KyInterlockedExchangeAdd(volatile int32_t* target, int32_t addend) noexcept {
  return __KyInterlockedExchangeAddInternal(target, addend);
}

// A zero argument has no set bit; these return 0 for it rather than leave
// the processor's undefined result to the caller.
uint32_t __KyGetLeastSignificantOneIndexInternal(uint32_t value) noexcept {
  return value ? static_cast<uint32_t>(__builtin_ctz(value)) : 0;
}

uint32_t __KyGetMostSignificantOneIndexInternal(uint32_t value) noexcept {
  return value ? 31u - static_cast<uint32_t>(__builtin_clz(value)) : 0;
}

uint32_t __KyGetLeastSignificantOneIndex(uint32_t value) noexcept {
  return __KyGetLeastSignificantOneIndexInternal(value);
}

uint32_t __KyGetMostSignificantOneIndexLong(uint64_t value) noexcept {
  const uint32_t high = static_cast<uint32_t>(value >> 32);
  if (high != 0) return 32u + __KyGetMostSignificantOneIndexInternal(high);
  return __KyGetMostSignificantOneIndexInternal(static_cast<uint32_t>(value));
}

void __KyYield(void) noexcept {
  sched_yield();
}

void __KySleep(uint32_t units) noexcept {
  for (uint32_t round = kyrt::SleepRounds(units); round != 0; --round) {
    __KyYield();
    __atomic_add_fetch(&g_sleepSink, 1, __ATOMIC_SEQ_CST);
    kyrt::StoreRelaxed(&g_sleepSink, 0);
  }
}

}  // extern "C"
