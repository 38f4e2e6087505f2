/*
 * KYRT - support runtime for analysis tools.
 *
 * Recursive spin locks that record their owning thread.
 *
 * A KySpinLock lives inside the caller's own structure: no allocation, no
 * kernel object, no destroy call. A waiter polls the state word and gives up
 * the processor with __KyYield() after every spin-count polls (after every
 * poll on a one-processor machine); there is no sleeping and no queue of
 * waiters, so keep critical sections short.
 *
 * Owners are native thread ids (__KyGetNativeThreadId()). The variants whose
 * names end in Tid take the id from the caller, who must pass a non-zero id:
 * 0 is the empty owner, so a Tid call with id 0 on a free lock matches it and
 * only raises the recursion count without taking the lock.
 *
 * Release does not check the caller: any thread may release a held lock.
 * Callers guarantee that acquires and releases pair up.
 */
#ifndef KYRT_SPIN_LOCK_H
#define KYRT_SPIN_LOCK_H

#include "kyrt/runtime.h"

KYRT_EXTERN_C_BEGIN

/* The lock record. Treat the fields as private: they are laid out here only
 * so that the record can be embedded by value. Offsets: owner 0, state 8,
 * recursion count 12, spin count 16; 24 bytes, 8-byte aligned. */
typedef struct KySpinLock {
  uint64_t ownerThreadId;  /* zero-extended id of the holder; 0 = none */
  uint32_t state;          /* 0 = free, 1 = held; changed by compare-and-swap only */
  uint32_t recursionCount; /* acquires by the owner not yet released */
  uint32_t spinCount;      /* polls of a busy lock between two yields */
} KySpinLock;

/* A host framework's client lock or unlock procedure. */
typedef void (*KyClientLockProc)(void);

/* The host's client lock and unlock procedures, null until
 * __KySetTrellClientLockProc() stores them. Stack back-trace symbolisation
 * runs the C library's symbol lookup between the two, and produces nothing
 * while either is null. */
KYRT_API extern KyClientLockProc __kyTRELLClientLock;
KYRT_API extern KyClientLockProc __kyTRELLClientUnlock;

/* Initialises lock as free with spin count 0. Overwrites whatever the record
 * held, a held lock included. Not atomic with respect to other users. */
KYRT_API void __KyInitializeSpinLock(KySpinLock* lock) KYRT_NOTHROW;

/* Initialises lock as free with the given spin count (polls between yields;
 * 0 or 1 yields on every busy poll). */
KYRT_API void __KyInitializeSpinLockAndSpinCount(KySpinLock* lock, uint32_t spinCount) KYRT_NOTHROW;

/* 1 if lock is held by any thread, else 0. A snapshot; thread-safe. */
KYRT_API int __KyIsSpinLockInAcquiredState(KySpinLock* lock) KYRT_NOTHROW;

/* 1 if lock is held and its owner is the calling thread, else 0. */
KYRT_API int __KyIsSpinLockAcquiredByCallingThread(KySpinLock* lock) KYRT_NOTHROW;

/* Acquires lock for thread id tid, waiting as long as it takes. Re-entry by
 * the owner only raises the recursion count. */
KYRT_API void __KyAcquireSpinLockTid(KySpinLock* lock, KyThreadId tid) KYRT_NOTHROW;

/* __KyAcquireSpinLockTid() with the calling thread's native id. */
KYRT_API void __KyAcquireSpinLock(KySpinLock* lock) KYRT_NOTHROW;

/* Tries to acquire lock for tid without yielding. With attempts 0 (or on a
 * one-processor machine) makes exactly one compare-and-swap; otherwise makes
 * up to attempts probes. Returns 1 if tid now holds lock (re-entry by the
 * owner always succeeds and raises the recursion count), 0 if not. */
KYRT_API int __KyTryToAcquireSpinLockTid(KySpinLock* lock, uint32_t attempts,
                                         KyThreadId tid) KYRT_NOTHROW;

/* __KyTryToAcquireSpinLockTid() with the calling thread's native id. */
KYRT_API int __KyTryToAcquireSpinLock(KySpinLock* lock, uint32_t attempts) KYRT_NOTHROW;

/* Releases one acquisition of lock. The last one clears the owner and then
 * frees the state. Releasing a free lock does nothing. No owner check. */
KYRT_API void __KyReleaseSpinLock(KySpinLock* lock) KYRT_NOTHROW;

/* Stores lockProc in __kyTRELLClientLock and unlockProc in
 * __kyTRELLClientUnlock. Calls neither. Not synchronised. */
KYRT_API void __KySetTrellClientLockProc(KyClientLockProc lockProc,
                                         KyClientLockProc unlockProc) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_SPIN_LOCK_H */
