// Internal atomic primitives of the runtime.
//
// The exported __KyInterlocked*Internal routines are out-of-line copies of
// these inline functions, and the lock families inline them on their hot
// paths: one implementation, one locked instruction per read-modify-write,
// every one a full barrier. Fields that other threads read but that are
// written without a read-modify-write (owners, recursion counts, flags, hook
// pointers) go through LoadRelaxed/StoreRelaxed: a plain mov on x86-64, and
// ThreadSanitizer then sees them as the deliberate unsynchronised accesses
// they are.
#ifndef KYRT_RUNTIME_ATOMIC_OPS_H
#define KYRT_RUNTIME_ATOMIC_OPS_H

#include <cstdint>
#include <type_traits>

namespace kyrt {

template <typename T>
inline T CompareExchange(volatile T* target, T exchange, T comparand) {
  static_assert(std::is_integral_v<T> && (sizeof(T) == 4 || sizeof(T) == 8));
  __atomic_compare_exchange_n(target, &comparand, exchange, /*weak=*/false, __ATOMIC_SEQ_CST,
                              __ATOMIC_SEQ_CST);
  return comparand;  // on failure the builtin stored the value found there
}

template <typename T>
inline T AddAndFetch(volatile T* target, T addend) {
  return __atomic_add_fetch(target, addend, __ATOMIC_SEQ_CST);
}

template <typename T>
inline T LoadRelaxed(const volatile T* source) {
  return __atomic_load_n(source, __ATOMIC_RELAXED);
}

template <typename T>
inline void StoreRelaxed(volatile T* target, T value) {
  __atomic_store_n(target, value, __ATOMIC_RELAXED);
}

template <typename T>
inline void StoreRelease(volatile T* target, T value) {
  __atomic_store_n(target, value, __ATOMIC_RELEASE);
}

}  // namespace kyrt

#endif  // KYRT_RUNTIME_ATOMIC_OPS_H
