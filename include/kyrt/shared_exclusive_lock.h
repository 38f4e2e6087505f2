/*
 * KYRT - support runtime for analysis tools.
 *
 * Shared-exclusive (reader-writer) spin locks that prefer writers.
 *
 * Many threads may hold a KySharedExclusiveLock shared, or one thread
 * exclusive. A thread waiting for exclusive access raises a flag that keeps
 * new readers out until it gets in. The exclusive side is recursive for its
 * owner, and the owner's own shared acquires and releases are no-ops, so code
 * that reads under a lock it already holds exclusive works unchanged.
 * Waiting follows the spin lock's rule: poll, and yield after every
 * spin-count polls. There is no shared try, no upgrade and no downgrade.
 *
 * Ids are native thread ids (__KyGetNativeThreadId()); the Tid variants take
 * it from the caller, who must pass a non-zero id.
 */
#ifndef KYRT_SHARED_EXCLUSIVE_LOCK_H
#define KYRT_SHARED_EXCLUSIVE_LOCK_H

#include "kyrt/runtime.h"

KYRT_EXTERN_C_BEGIN

/* The lock record; treat the fields as private. State and reader count form
 * one aligned 64-bit word (state in the low half): the last reader frees the
 * lock with a single 64-bit compare-and-swap of that word from 1 to 0, which
 * fails while any reader is still counted. Offsets: state 0, readers 4,
 * owner 8, writer waiting 16, recursion 20, spin count 24; 32 bytes,
 * 8-byte aligned. */
typedef struct KySharedExclusiveLock {
  uint32_t state;          /* 0 = free, 1 = shared, 2 = exclusive */
  uint32_t readerCount;    /* readers counted in, including those about to enter */
  uint64_t ownerThreadId;  /* exclusive owner, zero-extended; 0 = none */
  uint32_t writerWaiting;  /* 1 while a writer waits; keeps new readers out */
  uint32_t recursionCount; /* exclusive re-entries not yet released */
  uint32_t spinCount;      /* polls of a busy lock between two yields */
} KySharedExclusiveLock;

/* Initialises every field to 0 (free, spin count 0). */
KYRT_API void __KyInitializeSharedExclusiveLock(KySharedExclusiveLock* lock) KYRT_NOTHROW;

/* Initialises every field to 0 except the spin count. */
KYRT_API void __KyInitializeSharedExclusiveLockAndSpinCount(KySharedExclusiveLock* lock,
                                                            uint32_t spinCount) KYRT_NOTHROW;

/* Acquires lock shared for tid, waiting while a writer waits or holds it. A
 * no-op when tid holds lock exclusive (and then needs no release). */
KYRT_API void __KyAcquireSharedLockTid(KySharedExclusiveLock* lock, KyThreadId tid) KYRT_NOTHROW;

/* __KyAcquireSharedLockTid() with the calling thread's native id. */
KYRT_API void __KyAcquireSharedLock(KySharedExclusiveLock* lock) KYRT_NOTHROW;

/* Releases one shared acquisition by tid; the last reader frees the lock. A
 * no-op when tid holds lock exclusive. Decrements the reader count whatever
 * the state: callers guarantee pairing. */
KYRT_API void __KyReleaseSharedLockTid(KySharedExclusiveLock* lock, KyThreadId tid) KYRT_NOTHROW;

/* __KyReleaseSharedLockTid() with the calling thread's native id. */
KYRT_API void __KyReleaseSharedLock(KySharedExclusiveLock* lock) KYRT_NOTHROW;

/* 1 if lock is held exclusive by the calling thread, else 0. */
KYRT_API int __KyIsExclusiveLockAcquiredByCallingThread(KySharedExclusiveLock* lock) KYRT_NOTHROW;

/* Acquires lock exclusive for tid, raising the writer-waiting flag while it
 * waits for readers and other writers to leave. Re-entry by the owner only
 * raises the recursion count. */
KYRT_API void __KyAcquireExclusiveLockTid(KySharedExclusiveLock* lock, KyThreadId tid) KYRT_NOTHROW;

/* __KyAcquireExclusiveLockTid() with the calling thread's native id. */
KYRT_API void __KyAcquireExclusiveLock(KySharedExclusiveLock* lock) KYRT_NOTHROW;

/* Tries to acquire lock exclusive for the calling thread without yielding
 * and without raising the writer-waiting flag: one compare-and-swap when
 * attempts is 0 (or on one processor), else up to attempts probes. Returns 1
 * if the caller now holds it exclusive (re-entry always succeeds), else 0. */
KYRT_API int __KyTryToAcquireExclusiveLock(KySharedExclusiveLock* lock,
                                           uint32_t attempts) KYRT_NOTHROW;

/* Releases one exclusive acquisition; the last one clears the owner, then
 * frees the lock. Does nothing unless the lock is exclusive. No owner
 * check. */
KYRT_API void __KyReleaseExclusiveLock(KySharedExclusiveLock* lock) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_SHARED_EXCLUSIVE_LOCK_H */
