// The allocation functions the preloaded library puts in front of the C
// library's. Each one forwards to the C library's own entry point and, when
// the calling thread is not inside the tool and start-up has finished,
// records the result with the stack of its caller.
//
// These, and _exit and _Exit at the end, are the only functions
// libkyheap.so exports (see kyheap.map).
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "heap_tool.h"
#include "libc_allocator.h"
#include "reentry_guard.h"
#include "stack_walk.h"
#include "tool_log.h"

#define KYHEAP_EXPORT extern "C" __attribute__((visibility("default")))

namespace kyheap {

__thread int t_toolDepth __attribute__((tls_model("initial-exec"))) = 0;

namespace {

bool ShouldRecord() {
  return !InsideTool() && HeapTool::ready();
}

bool IsPowerOfTwo(size_t value) {
  return value != 0 && (value & (value - 1)) == 0;
}

// Out of line, so that the interposed functions stay small; frame is the
// interposed function's own frame, where the walk starts.
__attribute__((noinline)) void RecordAllocation(void* block, size_t size, const void* frame) {
  ToolScope scope;
  HeapTool& tool = HeapTool::instance();
  if (!tool.recorder().recording()) return;
  StackTrace trace;
  CaptureStack(frame, tool.stackFrames(), &trace);
  tool.recorder().recordAllocation(block, size, trace);
  DebugDump(kDebugAlloc, "allocated %p, %zu bytes, %d frames", block, size, trace.count);
}

__attribute__((noinline)) void RecordFree(void* block) {
  ToolScope scope;
  HeapTool& tool = HeapTool::instance();
  if (tool.recorder().recordFree(block)) {
    DebugDump(kDebugFree, "freed %p", block);
    return;
  }
  BlockLocation location;
  if (tool.recorder().locate(reinterpret_cast<uintptr_t>(block), &location)) {
    LogWarning("free(%p) of an address %lu bytes inside the live block %p", block,
               static_cast<unsigned long>(reinterpret_cast<uintptr_t>(block) - location.start),
               reinterpret_cast<void*>(location.start));
  }
}

__attribute__((noinline)) void* Reallocate(void* block, size_t size, const void* frame) {
  ToolScope scope;
  HeapTool& tool = HeapTool::instance();
  StackTrace trace;
  if (tool.recorder().recording()) CaptureStack(frame, tool.stackFrames(), &trace);
  return tool.recorder().reallocate(block, size, trace);
}

using UsableSizeFunction = size_t (*)(void*);

UsableSizeFunction LibcUsableSize() {
  static UsableSizeFunction function = nullptr;
  if (function == nullptr) {
    ToolScope scope;  // dlsym may allocate
    function = reinterpret_cast<UsableSizeFunction>(dlsym(RTLD_NEXT, "malloc_usable_size"));
  }
  return function;
}

__attribute__((constructor)) void StartTool() {
  HeapTool::instance().start();
  LibcUsableSize();
}

}  // namespace
}  // namespace kyheap

using kyheap::RecordAllocation;
using kyheap::ShouldRecord;

KYHEAP_EXPORT void* malloc(size_t size) noexcept {
  void* block = __libc_malloc(size);
  if (block != nullptr && ShouldRecord()) RecordAllocation(block, size, __builtin_frame_address(0));
  return block;
}

KYHEAP_EXPORT void free(void* block) noexcept {
  if (block != nullptr && ShouldRecord()) kyheap::RecordFree(block);
  __libc_free(block);
}

// The C library's calloc checks count * size for overflow itself. While the
// tool bootstraps (the loader's own allocations, dlsym) calloc reaches the
// C library directly like everything else.
KYHEAP_EXPORT void* calloc(size_t count, size_t size) noexcept {
  void* block = __libc_calloc(count, size);
  if (block != nullptr && ShouldRecord()) {
    RecordAllocation(block, count * size, __builtin_frame_address(0));
  }
  return block;
}

// realloc(block, n > 0) that moves or resizes a recorded block counts as a
// free of the old block, an allocation of the new one and a reallocation.
KYHEAP_EXPORT void* realloc(void* block, size_t size) noexcept {
  if (!ShouldRecord()) return __libc_realloc(block, size);
  if (block == nullptr) {
    void* fresh = __libc_malloc(size);
    if (fresh != nullptr) RecordAllocation(fresh, size, __builtin_frame_address(0));
    return fresh;
  }
  if (size == 0) {  // the C library frees the block and returns null
    kyheap::RecordFree(block);
    return __libc_realloc(block, 0);
  }
  return kyheap::Reallocate(block, size, __builtin_frame_address(0));
}

KYHEAP_EXPORT void* reallocarray(void* block, size_t count, size_t size) noexcept {
  size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    errno = ENOMEM;
    return nullptr;
  }
  return realloc(block, bytes);
}

KYHEAP_EXPORT int posix_memalign(void** result, size_t alignment, size_t size) noexcept {
  if (alignment % sizeof(void*) != 0 || !kyheap::IsPowerOfTwo(alignment)) return EINVAL;
  void* block = __libc_memalign(alignment, size);
  if (block == nullptr) return ENOMEM;
  if (ShouldRecord()) RecordAllocation(block, size, __builtin_frame_address(0));
  *result = block;
  return 0;
}

KYHEAP_EXPORT void* aligned_alloc(size_t alignment, size_t size) noexcept {
  if (!kyheap::IsPowerOfTwo(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  void* block = __libc_memalign(alignment, size);
  if (block != nullptr && ShouldRecord()) RecordAllocation(block, size, __builtin_frame_address(0));
  return block;
}

KYHEAP_EXPORT void* memalign(size_t alignment, size_t size) noexcept {
  void* block = __libc_memalign(alignment, size);
  if (block != nullptr && ShouldRecord()) RecordAllocation(block, size, __builtin_frame_address(0));
  return block;
}

KYHEAP_EXPORT void* valloc(size_t size) noexcept {
  void* block = __libc_valloc(size);
  if (block != nullptr && ShouldRecord()) RecordAllocation(block, size, __builtin_frame_address(0));
  return block;
}

KYHEAP_EXPORT void* pvalloc(size_t size) noexcept {
  void* block = __libc_pvalloc(size);
  if (block != nullptr && ShouldRecord()) RecordAllocation(block, size, __builtin_frame_address(0));
  return block;
}

// Blocks are the C library's own, unchanged: its answer holds.
KYHEAP_EXPORT size_t malloc_usable_size(void* block) noexcept {
  kyheap::UsableSizeFunction function = kyheap::LibcUsableSize();
  return function != nullptr ? function(block) : 0;
}

// Programs that end with _exit (shells do) skip the exit handlers: the
// report and the removal of the command channel happen here instead.
[[noreturn]] void EndProcess(int status) {
  if (kyheap::HeapTool::ready()) kyheap::HeapTool::instance().finish();
  for (;;) syscall(SYS_exit_group, status);
}

KYHEAP_EXPORT void _exit(int status) noexcept {
  EndProcess(status);
}

KYHEAP_EXPORT void _Exit(int status) noexcept {
  EndProcess(status);
}
