// Call stacks of the analysed program by its frame pointers.
//
// Programs built without frame pointers leave arbitrary values in the frame
// register, so the walk trusts nothing: a frame is followed only while it is
// 16-byte aligned, strictly above the previous one and wholly inside the
// calling thread's stack. A bad chain then ends early instead of faulting.
#ifndef KYHEAP_STACK_WALK_H
#define KYHEAP_STACK_WALK_H

#include <cstdint>

namespace kyheap {

// The return addresses of one allocation, innermost first.
struct StackTrace {
  static constexpr int kCapacity = 24;
  void* frames[kCapacity];
  int count = 0;
};

// Walks from frameAddress, the frame of an interposed function (its saved
// frame pointer and return address), storing at most maxFrames return
// addresses. The first one is the interposed function's caller.
void CaptureStack(const void* frameAddress, int maxFrames, StackTrace* trace);

}  // namespace kyheap

#endif  // KYHEAP_STACK_WALK_H
