#include "stack_walk.h"

#include <algorithm>

#include "kyrt/modules.h"

namespace kyheap {
namespace {

constexpr uintptr_t kFrameAlignment = 16;
constexpr uintptr_t kFrameRecordSize = 2 * sizeof(void*);

// The bounds of the calling thread's stack mapping, looked up once per
// thread (the lookup reads the process's memory map) and again when the
// stack pointer is found outside them: the main thread's stack grows, and a
// signal handler may run on an alternate stack.
struct StackBounds {
  uintptr_t low = 0;
  uintptr_t high = 0;
};

__thread StackBounds t_bounds __attribute__((tls_model("initial-exec")));

bool Contains(const StackBounds& bounds, uintptr_t address) {
  return address >= bounds.low && address < bounds.high;
}

bool LookUpBounds(uintptr_t addressOnStack, StackBounds* bounds) {
  uint64_t base = 0;
  const uint64_t size = __KyGetThreadStackBaseAndSize(addressOnStack, &base);
  if (size == 0) return false;
  bounds->high = static_cast<uintptr_t>(base);
  bounds->low = static_cast<uintptr_t>(base - size);
  return true;
}

bool BoundsFor(uintptr_t stackPointer, StackBounds* bounds) {
  if (Contains(t_bounds, stackPointer)) {
    *bounds = t_bounds;
    return true;
  }
  StackBounds fresh;
  if (!LookUpBounds(stackPointer, &fresh) || !Contains(fresh, stackPointer)) return false;
  t_bounds = fresh;
  *bounds = fresh;
  return true;
}

bool IsUsableFrame(uintptr_t frame, uintptr_t previous, const StackBounds& bounds) {
  return frame % kFrameAlignment == 0 && frame > previous && frame >= bounds.low &&
         frame + kFrameRecordSize <= bounds.high;
}

}  // namespace

void CaptureStack(const void* frameAddress, int maxFrames, StackTrace* trace) {
  trace->count = 0;
  const int limit = std::min(maxFrames, StackTrace::kCapacity);
  const uintptr_t start = reinterpret_cast<uintptr_t>(frameAddress);
  StackBounds bounds;
  if (!BoundsFor(start, &bounds)) return;
  uintptr_t previous = start - 1;
  uintptr_t frame = start;
  while (trace->count < limit && IsUsableFrame(frame, previous, bounds)) {
    const uintptr_t* record = reinterpret_cast<const uintptr_t*>(frame);
    const uintptr_t returnAddress = record[1];
    if (returnAddress == 0) break;
    trace->frames[trace->count++] = reinterpret_cast<void*>(returnAddress);
    previous = frame;
    frame = record[0];
  }
}

}  // namespace kyheap
