/*
 * KYRT - support runtime for analysis tools.
 *
 * Runtime start-up, platform hooks, atomics, bit scans, yield and busy sleep.
 *
 * The runtime lives inside a host instrumentation framework that owns thread
 * creation, thread identities and thread-local storage. A tool hands the
 * runtime a set of hooks (function pointers) before it calls
 * __KyRtStartup(); every service of the runtime asks for thread ids, TLS
 * slots, the process id and helper threads only through the wrappers below.
 *
 * Hooks are plain process-wide pointers, all null at load time. Set them
 * before other threads use the runtime; a wrapper reads its hook once per
 * call, and an unset hook makes its wrapper return a fixed fallback value.
 */
#ifndef KYRT_RUNTIME_H
#define KYRT_RUNTIME_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* ------------------------------------------------------------------------ */
/* Shared scalar types                                                       */
/* ------------------------------------------------------------------------ */

/* A thread id as supplied by the hooks; 0 means "no id known". Locks store
 * it zero-extended in 64-bit owner fields. */
typedef uint32_t KyThreadId;

/* A thread-local storage slot; KY_TLS_INVALID_INDEX means "no slot". */
typedef uint32_t KyTlsIndex;
#define KY_TLS_INVALID_INDEX ((KyTlsIndex)0xFFFFFFFFu)

/* The value __KyRtStartup() returns on every call. */
#define KY_RT_STARTUP_RESULT ((uint32_t)0x0D0F0008u)

/* The value __KyGetPid() returns while the get-pid hook is unset. */
#define KY_INVALID_PID ((int32_t)-1)

/* The value the thread-create hook returns when it cannot start a thread. */
#define KY_INVALID_THREAD_ID ((KyThreadId)0xFFFFFFFFu)

/* ------------------------------------------------------------------------ */
/* Hook signatures                                                           */
/* ------------------------------------------------------------------------ */

typedef KyThreadId (*KyGetThreadIdProc)(void);
typedef KyTlsIndex (*KyTlsAllocProc)(void);
typedef int (*KyTlsFreeProc)(KyTlsIndex index);
typedef void* (*KyTlsGetValueProc)(KyTlsIndex index);
typedef int (*KyTlsSetValueProc)(KyTlsIndex index, void* value);
typedef int32_t (*KyGetPidProc)(void);

/* The body of a helper thread. It must end by calling the thread-exit hook
 * with code 0 rather than by returning. */
typedef void (*KyThreadFunction)(void* argument);

/* Starts a helper thread running function(argument). stackSize is always 0
 * when the runtime calls it (the host chooses). Fills *handle with the host's
 * 64-bit handle of the new thread and returns its thread id, or
 * KY_INVALID_THREAD_ID when no thread could be started. */
typedef KyThreadId (*KyThreadCreateProc)(KyThreadFunction function, void* argument,
                                         size_t stackSize, uint64_t* handle);

/* Ends the calling helper thread with the given exit code. Never returns. */
typedef void (*KyThreadExitProc)(int32_t exitCode);

/* Waits up to timeoutMilliseconds for the helper thread behind *handle to
 * end. When exitCode is not null it receives the thread's exit code. Returns
 * non-zero when the thread has ended, 0 on time-out or failure. The runtime
 * calls it as (handle, 1000, NULL). */
typedef int (*KyThreadWaitProc)(uint64_t* handle, uint32_t timeoutMilliseconds, int32_t* exitCode);

/* A callback the host runs before the process finishes. */
typedef void (*KyFiniFunction)(int32_t exitCode, void* argument);

/* Registers callback(exitCode, argument) to run before the process ends. */
typedef void (*KyAddFiniProc)(KyFiniFunction callback, void* argument);

/* ------------------------------------------------------------------------ */
/* Exported runtime state                                                    */
/* ------------------------------------------------------------------------ */

/* 0 until __KyRtStartup() has run once, then 1 for the life of the process.
 * Read it through __KyGetStarted(); do not write it. */
KYRT_API extern int32_t __kyRtStarted;

/* Processor count computed by __KyRtStartup(); 0 before start-up and when
 * the system files could not be read. Read-only for tools. */
KYRT_API extern int32_t __kyNumberOfProcessors;

/* The seven thread and TLS hooks. A tool may store into them directly; the
 * setters below do exactly that and nothing else. */
KYRT_API extern KyGetThreadIdProc __kyGetCurrentThreadIdProc;
KYRT_API extern KyGetThreadIdProc __kyGetNativeThreadIdProc;
KYRT_API extern KyGetThreadIdProc __kyGetNativeParentThreadIdProc;
KYRT_API extern KyTlsAllocProc __kyTlsAllocProc;
KYRT_API extern KyTlsFreeProc __kyTlsFreeProc;
KYRT_API extern KyTlsGetValueProc __kyTlsGetValueProc;
KYRT_API extern KyTlsSetValueProc __kyTlsSetValueProc;

/* ------------------------------------------------------------------------ */
/* Start-up                                                                  */
/* ------------------------------------------------------------------------ */

/* Starts the runtime once: counts the processors into __kyNumberOfProcessors
 * and sets __kyRtStarted to 1. Later calls find the runtime started and do
 * nothing. Safe to call from several threads at once (a private guard word
 * serialises them). Always returns KY_RT_STARTUP_RESULT (0x0D0F0008). */
KYRT_API uint32_t __KyRtStartup(void) KYRT_NOTHROW;

/* Does nothing; kept so that a tool can pair it with __KyRtStartup(). */
KYRT_API void __KyRtShutdown(void) KYRT_NOTHROW;

/* Returns the current value of __kyRtStarted (0 or 1). Thread-safe. */
KYRT_API int __KyGetStarted(void) KYRT_NOTHROW;

/* Returns __kyNumberOfProcessors: the count taken at start-up, 0 before. */
KYRT_API int __KyGetNProcs(void) KYRT_NOTHROW;

/* Counts the processors now: the numbered "cpu" lines at the head of
 * /proc/stat, or, only when /proc/stat cannot be opened, the lines of
 * /proc/cpuinfo that begin with "processor". Returns 0 when neither file can
 * be read or /proc/stat lists no numbered cpu line. Thread-safe. */
KYRT_API int __KyGetNProcsInternal(void) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Thread ids, TLS and the process id                                        */
/* ------------------------------------------------------------------------ */

/* The host framework's own number for the calling thread; 0 while the hook
 * is unset. */
KYRT_API KyThreadId __KyGetCurrentThreadId(void) KYRT_NOTHROW;

/* The operating system's id of the calling thread; 0 while the hook is
 * unset. Lock owner fields hold this id. */
KYRT_API KyThreadId __KyGetNativeThreadId(void) KYRT_NOTHROW;

/* The operating system's id of the thread that created the calling one; 0
 * while the hook is unset. */
KYRT_API KyThreadId __KyGetNativeParentThreadId(void) KYRT_NOTHROW;

/* Allocates a TLS slot. Returns KY_TLS_INVALID_INDEX when the hook is unset
 * or reports failure. */
KYRT_API KyTlsIndex __KyTlsAlloc(void) KYRT_NOTHROW;

/* Frees a TLS slot. Returns the hook's result (non-zero on success), 0 while
 * the hook is unset. */
KYRT_API int __KyTlsFree(KyTlsIndex index) KYRT_NOTHROW;

/* Returns the calling thread's value in a TLS slot; null while the hook is
 * unset. */
KYRT_API void* __KyTlsGetValue(KyTlsIndex index) KYRT_NOTHROW;

/* Stores the calling thread's value in a TLS slot. Returns the hook's result
 * (non-zero on success), 0 while the hook is unset. */
KYRT_API int __KyTlsSetValue(KyTlsIndex index, void* value) KYRT_NOTHROW;

/* The process id from the get-pid hook; KY_INVALID_PID (-1) while unset. */
KYRT_API int32_t __KyGetPid(void) KYRT_NOTHROW;

/* Hook setters. Each stores its pointer (null included: null restores the
 * fallback behaviour) and does nothing else. Not synchronised: call them
 * before other threads use the runtime. */
KYRT_API void __KySetGetCurrentThreadIdProc(KyGetThreadIdProc proc) KYRT_NOTHROW;
KYRT_API void __KySetGetNativeThreadIdProc(KyGetThreadIdProc proc) KYRT_NOTHROW;
KYRT_API void __KySetGetNativeParentThreadIdProc(KyGetThreadIdProc proc) KYRT_NOTHROW;
KYRT_API void __KySetTlsAllocProc(KyTlsAllocProc proc) KYRT_NOTHROW;
KYRT_API void __KySetTlsFreeProc(KyTlsFreeProc proc) KYRT_NOTHROW;
KYRT_API void __KySetTlsGetValueProc(KyTlsGetValueProc proc) KYRT_NOTHROW;
KYRT_API void __KySetTlsSetValueProc(KyTlsSetValueProc proc) KYRT_NOTHROW;
KYRT_API void __KySetGetPidProc(KyGetPidProc proc) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Helper-thread hooks                                                       */
/* ------------------------------------------------------------------------ */

/* Stores the four helper-thread hooks together (nulls included) and returns
 * 1. The command channel starts its service thread only when all four are
 * set. */
KYRT_API int __KySetThreadProcs(KyThreadCreateProc create, KyThreadExitProc exit,
                                KyThreadWaitProc wait, KyAddFiniProc addFini) KYRT_NOTHROW;

/* The stored thread-create hook, or null. */
KYRT_API KyThreadCreateProc __KyGetThreadCreateProc(void) KYRT_NOTHROW;

/* The stored thread-wait hook, or null. */
KYRT_API KyThreadWaitProc __KyGetThreadWaitProc(void) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Atomic operations                                                         */
/* ------------------------------------------------------------------------ */
/* Every operation is one locked read-modify-write instruction and a full
 * memory barrier. Each public name forwards to the routine of the same name
 * with the suffix Internal, which is exported too. Thread-safe by nature;
 * the pointer must be valid and naturally aligned. */

/* If *target equals comparand, stores exchange. Returns the value *target
 * held before. */
KYRT_API int32_t __KyInterlockedCompareExchange(volatile int32_t* target, int32_t exchange,
                                                int32_t comparand) KYRT_NOTHROW;
KYRT_API int32_t __KyInterlockedCompareExchangeInternal(volatile int32_t* target, int32_t exchange,
                                                        int32_t comparand) KYRT_NOTHROW;

/* The same on 64 bits. */
KYRT_API int64_t __KyInterlockedCompareExchange64(volatile int64_t* target, int64_t exchange,
                                                  int64_t comparand) KYRT_NOTHROW;
KYRT_API int64_t __KyInterlockedCompareExchange64Internal(volatile int64_t* target,
                                                          int64_t exchange,
                                                          int64_t comparand) KYRT_NOTHROW;

/* Adds 1 to *target and returns the new value. */
KYRT_API int32_t __KyInterlockedIncrement(volatile int32_t* target) KYRT_NOTHROW;
KYRT_API int32_t __KyInterlockedIncrementInternal(volatile int32_t* target) KYRT_NOTHROW;

/* Subtracts 1 from *target and returns the new value. */
KYRT_API int32_t __KyInterlockedDecrement(volatile int32_t* target) KYRT_NOTHROW;
KYRT_API int32_t __KyInterlockedDecrementInternal(volatile int32_t* target) KYRT_NOTHROW;

/* Adds addend to *target atomically. The result is the value of *target read
 * by an ordinary load just before the locked add: under contention it may
 * differ from the value the add replaced. Do not build on the result. */
KYRT_API int32_t __KyInterlockedExchangeAdd(volatile int32_t* target, int32_t addend) KYRT_NOTHROW;
KYRT_API int32_t __KyInterlockedExchangeAddInternal(volatile int32_t* target,
                                                    int32_t addend) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Bit scans                                                                 */
/* ------------------------------------------------------------------------ */
/* The result for a zero argument is unspecified: never pass 0. */

/* Index (0..31) of the lowest set bit of value. */
KYRT_API uint32_t __KyGetLeastSignificantOneIndex(uint32_t value) KYRT_NOTHROW;
KYRT_API uint32_t __KyGetLeastSignificantOneIndexInternal(uint32_t value) KYRT_NOTHROW;

/* Index (0..31) of the highest set bit of a 32-bit value. */
KYRT_API uint32_t __KyGetMostSignificantOneIndexInternal(uint32_t value) KYRT_NOTHROW;

/* Index (0..63) of the highest set bit of a 64-bit value. */
KYRT_API uint32_t __KyGetMostSignificantOneIndexLong(uint64_t value) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Yield and busy sleep                                                      */
/* ------------------------------------------------------------------------ */

/* Gives up the processor once (the operating system's yield). */
KYRT_API void __KyYield(void) KYRT_NOTHROW;

/* Busy-waits without blocking in the kernel and without reading a clock:
 * (units * 5,000,000) rounds computed in 32-bit unsigned arithmetic (so the
 * count wraps from 859 units on), each round one yield. Returns at once
 * when the round count is 0. */
KYRT_API void __KySleep(uint32_t units) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_RUNTIME_H */
