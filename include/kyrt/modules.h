/*
 * KYRT - support runtime for analysis tools.
 *
 * The module table, address ranges from the process's memory map, stack
 * back traces by frame pointers, their symbolisation, and dynamic loading.
 *
 * The tool reports the code modules it sees loaded; the runtime keeps them
 * in a skip list ordered by low address so that any code address becomes a
 * module name plus an offset when call stacks are logged. The module table
 * has no lock of its own: callers serialise loads, unloads and lookups.
 */
#ifndef KYRT_MODULES_H
#define KYRT_MODULES_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Most levels of the module skip list (level indexes 0 to 10). */
#define KY_MODULE_MAX_LEVELS 11

/* Most entries a frame-pointer walk stores. */
#define KY_MAX_BACKTRACE_FRAMES 25

/* A loaded module. The record holds (its level + 1) forward links; treat
 * next as private. */
typedef struct KyModule {
  char* name;    /* private copy of the module's name */
  uint64_t low;  /* low address: the table's key */
  uint64_t high; /* high address */
  struct KyModule* next[1];
} KyModule;

/* Records a module [low, high) named name (a private copy is kept). If a
 * module with the same low address exists, returns it unchanged. Returns
 * null if an allocation failed; after a successful insertion the result
 * carries no meaning. */
KYRT_API KyModule* __KyLoadModule(const char* name, uint64_t low, uint64_t high) KYRT_NOTHROW;

/* Removes the module whose low address is low (nothing if none) and frees
 * it. */
KYRT_API void __KyUnloadModule(uint64_t low) KYRT_NOTHROW;

/* The module with the greatest low address strictly below address,
 * provided address is strictly below its high address; else null. Both ends
 * are exclusive: a module's own low address is not found in it. */
KYRT_API KyModule* __KyFindModuleByAddress(uint64_t address) KYRT_NOTHROW;

/* The low address of the module containing address (as
 * __KyFindModuleByAddress finds it), storing its name pointer in *name; 0
 * (and *name untouched) when there is none. */
KYRT_API uint64_t __KyGetModuleForVariable(uint64_t address, const char** name) KYRT_NOTHROW;

/* The name of GPU architecture generation index (0 to 10); "unknown" for
 * any other index. A static string. */
KYRT_API const char* __KyGetModuleArchString(uint32_t index) KYRT_NOTHROW;

/* Finds the mapping of the process that contains address (end inclusive),
 * stores its end in *end and returns its start; 0 (and *end untouched) when
 * none contains it or the memory map cannot be read. With a null end nothing
 * is scanned and 0 is returned. Thread-safe (serialised). */
KYRT_API uint64_t __KyGetModuleAddressRange(uint64_t address, uint64_t* end) KYRT_NOTHROW;

/* Stores the bounds of the mapping that holds the runtime's writable static
 * data; nothing when either pointer is null. */
KYRT_API void __KyGetKYRTAddressRange(uint64_t* start, uint64_t* end) KYRT_NOTHROW;

/* For an address on a thread's stack: stores the end of its mapping as the
 * stack base (stacks grow down) and returns the mapping's size; base 0 and
 * size 0 when no mapping contains it. */
KYRT_API uint64_t __KyGetThreadStackBaseAndSize(uint64_t addressOnStack,
                                                uint64_t* base) KYRT_NOTHROW;

/* Walks frame pointers from framePointer within [stackLow, stackHigh],
 * storing firstPc (when non-zero) and then each frame's return address into
 * out, at most KY_MAX_BACKTRACE_FRAMES entries. Returns the count. The
 * fifth argument is ignored. out must hold KY_MAX_BACKTRACE_FRAMES
 * entries. */
KYRT_API uint16_t __KyCaptureStackBackTrace(uint64_t stackHigh, uint64_t stackLow,
                                            uint64_t framePointer, uint64_t firstPc,
                                            uint64_t ignored, void** out) KYRT_NOTHROW;

/* The calling thread's back trace from its current frame, with its
 * caller's return address first. out must hold KY_MAX_BACKTRACE_FRAMES
 * entries. */
KYRT_API uint16_t __KyCaptureCurrentStackBackTrace(void** out) KYRT_NOTHROW;

/* Symbol texts for frames[0 .. count), produced by the C library under the
 * host's client lock: null unless both __kyTRELLClientLock and
 * __kyTRELLClientUnlock are set. The array and its strings are one
 * allocation of the C library, released by the caller with free(). */
KYRT_API char** __KyGetStackBackTraceSymbols(void* const* frames, int count) KYRT_NOTHROW;

/* Always 0. */
KYRT_API uint64_t __KyGetImageOffsetFromPreferredAddress(void) KYRT_NOTHROW;

/* dlopen(path, RTLD_NOW). */
KYRT_API void* __KyRtLoadImage(const char* path) KYRT_NOTHROW;

/* The address of symbol name in image handle, or null for a null handle or
 * when the loader reports an error (a symbol whose value is null looks
 * missing). */
KYRT_API void* __KyRtGetSymbol(void* handle, const char* name) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_MODULES_H */
