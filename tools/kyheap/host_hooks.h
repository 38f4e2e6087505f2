// The runtime's hooks, from the POSIX host adapter with two changes that a
// heap profiler living inside someone else's program needs:
//   - helper threads (the command service thread) run wholly inside the
//     tool, so that their allocations are not recorded (the adapter already
//     starts them with every signal blocked);
//   - exit callbacks run when the tool finishes, which is also when the
//     program ends through _exit: the adapter's callbacks hang on atexit,
//     which _exit skips. They run only in the process that registered them:
//     a forked child must not shut down its parent's command service thread.
#ifndef KYHEAP_HOST_HOOKS_H
#define KYHEAP_HOST_HOOKS_H

namespace kyheap {

void InstallHostHooks();

// Runs the exit callbacks the runtime registered, newest first, if the
// calling process is the one that registered them.
void RunOwnExitCallbacks();

}  // namespace kyheap

#endif  // KYHEAP_HOST_HOOKS_H
