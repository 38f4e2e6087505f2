/*
 * KYRT - support runtime for analysis tools.
 *
 * Accounted memory: categories, statistics, collector hooks, reserve blocks,
 * the slab allocator and the memory-pressure protocol with the host.
 *
 * Every block the runtime hands out belongs to a memory category, a small
 * id naming the subsystem that owns it (0 is "KY_MISC"). Small blocks (up to
 * KY_MALLOC_SMALL_LIMIT bytes) come from per-category, per-size slabs of
 * 2^(16 + slab shift) bytes; larger ones go straight to the underlying
 * allocator behind an eight-byte marker. When the underlying allocator
 * refuses, the runtime hands its reserve blocks back one at a time and
 * retries; when none are left the process ends with an out-of-memory record
 * in the log and exit status 255. __KyMalloc therefore never returns null.
 *
 * Lock order inside the allocator: pre-allocation lock, memory lock, bin
 * lock, statistics lock. Collector hooks run under the memory lock and give
 * memory back through __KyFree, which takes only bin locks and the
 * statistics lock.
 */
#ifndef KYRT_MEMORY_H
#define KYRT_MEMORY_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Fixed table sizes. */
#define KY_MAX_MEMORY_CATEGORIES 64
#define KY_MAX_MEMORY_COLLECTORS 16
#define KY_MEMORY_CATEGORY_NAME_SIZE 32

/* The default category, preset with the name "KY_MISC". */
#define KY_MEMORY_CATEGORY_MISC 0u

/* The result of a refused category registration. */
#define KY_INVALID_MEMORY_CATEGORY 0xFFFFFFFFu

/* The size of one reserve block: 32 MiB less the underlying allocator's own
 * 16-byte header. */
#define KY_RESERVE_BLOCK_SIZE 0x1FFFFF0u

/* Largest request served from slabs (2046 units of 16 bytes, less the
 * eight-byte chunk word); larger requests are large blocks. */
#define KY_MALLOC_SMALL_LIMIT 32728u

/* Largest slab shift (slabs of 2^(16 + 14) bytes). */
#define KY_MAX_SLAB_SHIFT 14u

/* A collector hook: called when the process runs short of memory, to give
 * memory back through __KyFree. Runs under the allocator's memory lock:
 * it must not allocate with __KyMalloc. */
typedef void (*MemoryCollectorHook)(void);

/* A category's figures, as __KyGetMemoryInfoByCategory copies them. */
typedef struct MemoryCategoryInfo {
  char name[KY_MEMORY_CATEGORY_NAME_SIZE]; /* NUL-terminated, at most 31 characters */
  int64_t allocated;                       /* slab bytes held now (statistics only) */
  int64_t allocatedAtPeak;                 /* bytes held when the process-wide total last peaked */
} MemoryCategoryInfo;

/* The underlying allocator: takes a byte count, returns a block or null. */
typedef void* (*KyAllocateFunction)(size_t size);
/* Gives a block of the underlying allocator back. */
typedef void (*KyReleaseFunction)(void* block);

/* ------------------------------------------------------------------------ */
/* Categories, statistics and collectors                                     */
/* ------------------------------------------------------------------------ */

/* Registers a category named name (a private copy of at most 31 characters
 * is kept; two categories may share a name). Returns its id, handed out
 * densely from 1 to 63, or KY_INVALID_MEMORY_CATEGORY when the table is full
 * (silently) or name is null (logged as an error). Lock-free; thread-safe. */
KYRT_API uint32_t __KyRegisterMemoryCategory(const char* name) KYRT_NOTHROW;

/* The number of categories, "KY_MISC" included (1 at load). */
KYRT_API uint32_t __KyGetNumMemoryCategories(void) KYRT_NOTHROW;

/* Copies category id's name and figures into *info. Returns 1, or 0 when
 * info is null or id is not a registered category (info untouched). Reads
 * without a lock: the two figures may be momentarily inconsistent. */
KYRT_API int __KyGetMemoryInfoByCategory(uint32_t id, MemoryCategoryInfo* info) KYRT_NOTHROW;

/* Turns byte statistics on for the rest of the process. Call it once,
 * before the allocations that are to be counted; slabs obtained before are
 * not counted (giving them back afterwards can drive a figure below 0). */
KYRT_API void __KyEnableMemoryStatisticsCollection(void) KYRT_NOTHROW;

/* How many collections ran while statistics were enabled. */
KYRT_API uint64_t __KyGetTotalTimesMemoryCollected(void) KYRT_NOTHROW;

/* The highest total of slab bytes reached, or the current total while no
 * peak has been recorded. */
KYRT_API uint64_t __KyGetPeakTotalMemoryAllocated(void) KYRT_NOTHROW;

/* Registers a collector hook. Returns 0, or -1 when hook is null (logged as
 * an error) or 16 hooks are registered (silently). Register hooks during
 * start-up: a collection running at the same instant may find the new slot
 * still empty. */
KYRT_API int32_t __KyRegisterMemoryCollector(MemoryCollectorHook hook) KYRT_NOTHROW;

/* Turns the memory-pressure machinery on and sets aside reserveBlocks blocks
 * of KY_RESERVE_BLOCK_SIZE bytes for an emergency (fewer, quietly, if the
 * underlying allocator refuses). Idempotent: later calls do nothing. */
KYRT_API void __KyInitializeMemoryCollectorAndReserveMemory(int32_t reserveBlocks) KYRT_NOTHROW;

/* __KyInitializeMemoryCollectorAndReserveMemory(0). */
KYRT_API void __KyInitializeMemoryCollector(void) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Allocation                                                                */
/* ------------------------------------------------------------------------ */

/* Allocates size bytes for category (0 to 63) from slabs of
 * 2^(16 + slabShift) bytes (slabShift 0 to 14; pass 0 unless a container
 * wants bigger slabs). The block is 8 bytes past a 16-byte boundary and is
 * not zeroed. Never returns null: exhaustion ends the process (status 255)
 * after reserves have been handed back. Thread-safe; blocks of different
 * categories or size classes never contend. Release with __KyFree. */
KYRT_API void* __KyMalloc(uint32_t category, uint64_t size, uint32_t slabShift) KYRT_NOTHROW;

/* Releases a block of __KyMalloc; null is ignored. A second free of a small
 * block is detected (an INFO record, nothing changed) until the chunk is
 * handed out again. Thread-safe; any thread may free any block. */
KYRT_API void __KyFree(void* block) KYRT_NOTHROW;

/* The C library's malloc and free, bypassing categories and slabs: for
 * bookkeeping that must not depend on the allocator above. */
KYRT_API void* __KyMallocInternal(size_t size) KYRT_NOTHROW;
KYRT_API void __KyFreeInternal(void* block) KYRT_NOTHROW;

/* Installs the underlying allocator (both functions; the C library's malloc
 * and free at load). Takes effect only if no memory function of the runtime
 * has run yet: call it first. */
KYRT_API void __KyInitializeSubAllocator(KyAllocateFunction allocate,
                                         KyReleaseFunction release) KYRT_NOTHROW;

/* Releases the allocator's bin table; the last memory call of a tool's
 * shutdown. No memory function may be used afterwards. Outstanding blocks
 * are not released. */
KYRT_API void __KyDeinitializeSubAllocator(void) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Memory pressure (called by the host framework through the tool)           */
/* ------------------------------------------------------------------------ */

/* Before the host reserves size bytes for itself: probes that much memory
 * from the underlying allocator, retries once after a busy sleep, then hands
 * reserve blocks back until the probe succeeds; reports "memory is tight"
 * (once per process) when nothing helps. Never ends the process. Skipped
 * while more than 10 host allocations in a row were reported failed. */
KYRT_API void __KyPreVirtualAllocCheck(uint64_t size) KYRT_NOTHROW;

/* Reports the outcome of the host's allocation: non-zero resets the count
 * of consecutive failures, 0 adds one. */
KYRT_API void __KyPostVirtualAllocCheck(int32_t succeeded) KYRT_NOTHROW;

/* The host is short of memory: runs the tool's collectors (directly when the
 * calling thread is inside the allocator, else through the pre-allocation
 * check). Does nothing before __KyInitializeMemoryCollector* or while
 * reserves are being handed back. */
KYRT_API void __KyAsynchronousCollectMemory(uint64_t size) KYRT_NOTHROW;

/* Waits (yielding) while a pre-allocation check sleeps between its two
 * attempts. */
KYRT_API void __KyWaitForPreVirtualAllocThread(void) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_MEMORY_H */
