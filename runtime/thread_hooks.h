// Internal access to the helper-thread hooks that have no exported getter.
// The command channel's service thread ends through the exit hook and
// registers its clean-up through the add-fini hook.
#ifndef KYRT_RUNTIME_THREAD_HOOKS_H
#define KYRT_RUNTIME_THREAD_HOOKS_H

#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"

namespace kyrt {

// The calling thread's native id, as __KyGetNativeThreadId() gives it, for
// the runtime's own hot paths: the hook is read and called in place rather
// than through the exported entry.
inline KyThreadId CurrentNativeThreadId() {
  KyGetThreadIdProc proc = LoadRelaxed(&__kyGetNativeThreadIdProc);
  return proc ? proc() : 0;
}

KyThreadExitProc ThreadExitHook();
KyAddFiniProc AddFiniHook();

// True when all four helper-thread hooks are set: only then may the runtime
// start a thread of its own.
bool HelperThreadHooksComplete();

}  // namespace kyrt

#endif  // KYRT_RUNTIME_THREAD_HOOKS_H
