// The hook table through which the tool supplies thread ids, TLS, the process
// id and helper threads, and the wrappers every other family calls.
//
// All hooks start null (zero-initialised storage). A wrapper loads its hook
// once per call and falls back to a fixed value while it is null, so a
// half-configured tool degrades to "thread id 0" and "no TLS" rather than
// crashing. Hooks are written without a barrier: tools set them before other
// threads use the runtime.
#include "kyrt/runtime.h"
#include "runtime/atomic_ops.h"
#include "runtime/thread_hooks.h"

extern "C" {

KYRT_API KyGetThreadIdProc __kyGetCurrentThreadIdProc = nullptr;
KYRT_API KyGetThreadIdProc __kyGetNativeThreadIdProc = nullptr;
KYRT_API KyGetThreadIdProc __kyGetNativeParentThreadIdProc = nullptr;
KYRT_API KyTlsAllocProc __kyTlsAllocProc = nullptr;
KYRT_API KyTlsFreeProc __kyTlsFreeProc = nullptr;
KYRT_API KyTlsGetValueProc __kyTlsGetValueProc = nullptr;
KYRT_API KyTlsSetValueProc __kyTlsSetValueProc = nullptr;

}  // extern "C"

namespace {

using kyrt::LoadRelaxed;
using kyrt::StoreRelaxed;

// Private hooks: not exported, reachable only through their setters.
KyGetPidProc g_getPidProc = nullptr;
KyThreadCreateProc g_threadCreateProc = nullptr;
KyThreadExitProc g_threadExitProc = nullptr;
KyThreadWaitProc g_threadWaitProc = nullptr;
KyAddFiniProc g_addFiniProc = nullptr;

KyThreadId ThreadIdFrom(KyGetThreadIdProc* hook) {
  KyGetThreadIdProc proc = LoadRelaxed(hook);
  return proc ? proc() : 0;
}

}  // namespace

extern "C" {

KyThreadId __KyGetCurrentThreadId(void) noexcept {
  return ThreadIdFrom(&__kyGetCurrentThreadIdProc);
}

KyThreadId __KyGetNativeThreadId(void) noexcept {
  return kyrt::CurrentNativeThreadId();
}

KyThreadId __KyGetNativeParentThreadId(void) noexcept {
  return ThreadIdFrom(&__kyGetNativeParentThreadIdProc);
}

KyTlsIndex __KyTlsAlloc(void) noexcept {
  KyTlsAllocProc proc = LoadRelaxed(&__kyTlsAllocProc);
  return proc ? proc() : KY_TLS_INVALID_INDEX;
}

int __KyTlsFree(KyTlsIndex index) noexcept {
  KyTlsFreeProc proc = LoadRelaxed(&__kyTlsFreeProc);
  return proc ? proc(index) : 0;
}

void* __KyTlsGetValue(KyTlsIndex index) noexcept {
  KyTlsGetValueProc proc = LoadRelaxed(&__kyTlsGetValueProc);
  return proc ? proc(index) : nullptr;
}

int __KyTlsSetValue(KyTlsIndex index, void* value) noexcept {
  KyTlsSetValueProc proc = LoadRelaxed(&__kyTlsSetValueProc);
  return proc ? proc(index, value) : 0;
}

int32_t __KyGetPid(void) noexcept {
  KyGetPidProc proc = LoadRelaxed(&g_getPidProc);
  return proc ? proc() : KY_INVALID_PID;
}

void __KySetGetCurrentThreadIdProc(KyGetThreadIdProc proc) noexcept {
  StoreRelaxed(&__kyGetCurrentThreadIdProc, proc);
}

void __KySetGetNativeThreadIdProc(KyGetThreadIdProc proc) noexcept {
  StoreRelaxed(&__kyGetNativeThreadIdProc, proc);
}

void __KySetGetNativeParentThreadIdProc(KyGetThreadIdProc proc) noexcept {
  StoreRelaxed(&__kyGetNativeParentThreadIdProc, proc);
}

void __KySetTlsAllocProc(KyTlsAllocProc proc) noexcept {
  StoreRelaxed(&__kyTlsAllocProc, proc);
}

void __KySetTlsFreeProc(KyTlsFreeProc proc) noexcept {
  StoreRelaxed(&__kyTlsFreeProc, proc);
}

void __KySetTlsGetValueProc(KyTlsGetValueProc proc) noexcept {
  StoreRelaxed(&__kyTlsGetValueProc, proc);
}

void __KySetTlsSetValueProc(KyTlsSetValueProc proc) noexcept {
  StoreRelaxed(&__kyTlsSetValueProc, proc);
}

void __KySetGetPidProc(KyGetPidProc proc) noexcept {
  StoreRelaxed(&g_getPidProc, proc);
}

int __KySetThreadProcs(KyThreadCreateProc create, KyThreadExitProc exit, KyThreadWaitProc wait,
                       KyAddFiniProc addFini) noexcept {
  StoreRelaxed(&g_threadCreateProc, create);
  StoreRelaxed(&g_threadExitProc, exit);
  StoreRelaxed(&g_threadWaitProc, wait);
  StoreRelaxed(&g_addFiniProc, addFini);
  return 1;
}

KyThreadCreateProc __KyGetThreadCreateProc(void) noexcept {
  return LoadRelaxed(&g_threadCreateProc);
}

KyThreadWaitProc __KyGetThreadWaitProc(void) noexcept {
  return LoadRelaxed(&g_threadWaitProc);
}

}  // extern "C"

namespace kyrt {

KyThreadExitProc ThreadExitHook() {
  return LoadRelaxed(&g_threadExitProc);
}

KyAddFiniProc AddFiniHook() {
  return LoadRelaxed(&g_addFiniProc);
}

bool HelperThreadHooksComplete() {
  return __KyGetThreadCreateProc() && ThreadExitHook() && __KyGetThreadWaitProc() && AddFiniHook();
}

}  // namespace kyrt
