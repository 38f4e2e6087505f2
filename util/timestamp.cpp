// The process-wide stamp counter: a 64-bit value, 0 at load, that callers
// advance to obtain distinct, increasing stamps without a lock.
#include "kyrt/files.h"
#include "runtime/atomic_ops.h"

namespace {

uint64_t g_stamp = 0;

// The amount a call adds: increment itself, sign-extended (the counter is
// advanced modulo 2^64), and 1 for 0, so that every call moves it.
uint64_t StepFor(int32_t increment) {
  return increment == 0 ? 1 : static_cast<uint64_t>(static_cast<int64_t>(increment));
}

}  // namespace

extern "C" {

uint64_t __KyUpdateTimestamp(int32_t increment) noexcept {
  const uint64_t step = StepFor(increment);
  uint64_t seen = kyrt::LoadRelaxed(&g_stamp);
  for (;;) {
    const uint64_t found = kyrt::CompareExchange(&g_stamp, seen + step, seen);
    if (found == seen) return seen + step;
    seen = found;  // another caller advanced it first: retry from its value
  }
}

}  // extern "C"
