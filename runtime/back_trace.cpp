// Call stacks by frame-pointer walk, and their symbol texts.
//
// The library and the tools it serves are built with frame pointers: every
// frame starts with a frame record holding the caller's frame pointer and,
// in the word above it, the return address into the caller. Following the
// saved frame pointers from one record to the next yields the return
// addresses of the calling frames, cheaply and without unwind tables, which
// is what the fatal paths need. The walk trusts only frame pointers that lie
// inside the stack bounds it was given.
#include <execinfo.h>

#include "kyrt/modules.h"
#include "kyrt/spin_lock.h"
#include "runtime/atomic_ops.h"

namespace {

// The frame record a frame-pointer prologue pushes; the frame pointer
// points at it.
struct FrameRecord {
  uint64_t savedFramePointer;  // the caller's frame pointer
  uint64_t returnAddress;      // where this frame returns into the caller
};

// Bounds are inclusive at both ends; 0 ends every chain (the outermost
// frames of a thread clear their frame pointer).
bool IsFrameOnStack(uint64_t framePointer, uint64_t stackHigh, uint64_t stackLow) {
  return framePointer != 0 && framePointer <= stackHigh && framePointer >= stackLow;
}

void* AsCodeAddress(uint64_t address) {
  return reinterpret_cast<void*>(address);
}

uint64_t CurrentStackPointer() {
  uint64_t stackPointer;
  asm volatile("mov %%rsp, %0" : "=r"(stackPointer));
  return stackPointer;
}

}  // namespace

extern "C" {

uint16_t __KyCaptureStackBackTrace(uint64_t stackHigh, uint64_t stackLow, uint64_t framePointer,
                                   uint64_t firstPc, uint64_t /*ignored*/, void** out) noexcept {
  uint16_t count = 0;
  if (firstPc != 0) out[count++] = AsCodeAddress(firstPc);
  while (IsFrameOnStack(framePointer, stackHigh, stackLow) && count < KY_MAX_BACKTRACE_FRAMES) {
    const FrameRecord* frame = reinterpret_cast<const FrameRecord*>(framePointer);
    out[count++] = AsCodeAddress(frame->returnAddress);
    framePointer = frame->savedFramePointer;
  }
  return count;
}

// Must keep a frame of its own: its frame record is where the walk starts.
__attribute__((noinline)) uint16_t __KyCaptureCurrentStackBackTrace(void** out) noexcept {
  uint64_t stackBase = 0;
  const uint64_t stackSize = __KyGetThreadStackBaseAndSize(CurrentStackPointer(), &stackBase);
  // The first entry is this call's own return address, the caller's pc; the
  // walk then goes on from the caller's frame, so that every frame appears
  // once.
  const FrameRecord* current = static_cast<const FrameRecord*>(__builtin_frame_address(0));
  return __KyCaptureStackBackTrace(stackBase, stackBase - stackSize, current->savedFramePointer,
                                   current->returnAddress, 0, out);
}

char** __KyGetStackBackTraceSymbols(void* const* frames, int count) noexcept {
  // The C library's symbol lookup is not safe against the host framework's
  // own use of the loader: it runs only under the host's client lock, and
  // not at all when the tool has not handed that lock over.
  const KyClientLockProc lock = kyrt::LoadRelaxed(&__kyTRELLClientLock);
  const KyClientLockProc unlock = kyrt::LoadRelaxed(&__kyTRELLClientUnlock);
  if (lock == nullptr || unlock == nullptr) return nullptr;
  lock();
  char** symbols = backtrace_symbols(frames, count);
  unlock();
  return symbols;
}

}  // extern "C"
