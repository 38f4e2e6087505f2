/*
 * KYRT - support runtime for analysis tools.
 *
 * The POSIX host adapter: the hooks a host instrumentation framework would
 * hand the runtime, implemented for a normal Linux program. Link the
 * companion library kyrt-posix-host (CMake target kyrt::posix_host,
 * pkg-config adds it with kyrt-posix-host) and call KyPosixHostInstall()
 * once before __KyRtStartup(). Not part of libkyrt.so.
 *
 * What it installs:
 *   - current and native thread ids: gettid(), cached per thread so that no
 *     lock operation makes a system call (the cache is renewed in the child
 *     after fork);
 *   - native parent thread id: the creating thread's id for helper threads
 *     started through the thread-create hook, getppid() for the process's
 *     main thread, 0 (unknown) for other threads;
 *   - TLS slots on pthread keys;
 *   - the process id from getpid();
 *   - the helper-thread hooks on pthreads: create (fills the 64-bit handle
 *     with the pthread_t and returns the new thread's native id; the thread
 *     starts with every signal blocked, so the application's signals never
 *     interrupt it), exit, wait with a time-out in milliseconds, and add-fini
 *     callbacks that run at process exit in reverse order of registration,
 *     each only in the process that registered it (not in forked children).
 */
#ifndef KYRT_POSIX_HOST_H
#define KYRT_POSIX_HOST_H

#include "kyrt/runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Most add-fini callbacks the adapter keeps; further registrations are
 * dropped (KyPosixHostAddFini reports nothing, as the hook has no result). */
#define KY_POSIX_HOST_MAX_FINI_CALLBACKS 64

/* Installs every hook of the runtime (thread ids, TLS, process id, helper
 * threads). Idempotent; call it before any other thread uses the runtime.
 * Returns 1. */
int KyPosixHostInstall(void);

/* The individual hooks, for tools that install only some of them. */
KyThreadId KyPosixHostGetThreadId(void);
KyThreadId KyPosixHostGetParentThreadId(void);
KyTlsIndex KyPosixHostTlsAlloc(void);
int KyPosixHostTlsFree(KyTlsIndex index);
void* KyPosixHostTlsGetValue(KyTlsIndex index);
int KyPosixHostTlsSetValue(KyTlsIndex index, void* value);
int32_t KyPosixHostGetPid(void);
KyThreadId KyPosixHostThreadCreate(KyThreadFunction function, void* argument, size_t stackSize,
                                   uint64_t* handle);
void KyPosixHostThreadExit(int32_t exitCode);
int KyPosixHostThreadWait(uint64_t* handle, uint32_t timeoutMilliseconds, int32_t* exitCode);
void KyPosixHostAddFini(KyFiniFunction callback, void* argument);

#ifdef __cplusplus
}
#endif

#endif /* KYRT_POSIX_HOST_H */
