// Internal access to the helper-thread hooks that have no exported getter.
// The command channel's service thread ends through the exit hook and
// registers its clean-up through the add-fini hook.
#ifndef KYRT_RUNTIME_THREAD_HOOKS_H
#define KYRT_RUNTIME_THREAD_HOOKS_H

#include "kyrt/runtime.h"

namespace kyrt {

KyThreadExitProc ThreadExitHook();
KyAddFiniProc AddFiniHook();

// True when all four helper-thread hooks are set: only then may the runtime
// start a thread of its own.
bool HelperThreadHooksComplete();

}  // namespace kyrt

#endif  // KYRT_RUNTIME_THREAD_HOOKS_H
