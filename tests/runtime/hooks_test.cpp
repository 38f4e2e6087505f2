// The hook table and its wrappers.
#include <cstdint>

#include "gtest/gtest.h"
#include "kyrt/runtime.h"
#include "runtime/thread_hooks.h"

namespace {

KyThreadId CurrentId() {
  return 101;
}
KyThreadId NativeId() {
  return 202;
}
KyThreadId ParentId() {
  return 303;
}
KyTlsIndex AllocSlot() {
  return 7;
}
int g_freedSlot = -1;
int FreeSlot(KyTlsIndex index) {
  g_freedSlot = static_cast<int>(index);
  return 1;
}
void* g_storedValue = nullptr;
void* GetSlot(KyTlsIndex index) {
  return index == 7 ? g_storedValue : nullptr;
}
int SetSlot(KyTlsIndex index, void* value) {
  if (index != 7) return 0;
  g_storedValue = value;
  return 1;
}
int32_t Pid() {
  return 4242;
}

KyThreadId CreateThread(KyThreadFunction, void*, size_t, uint64_t* handle) {
  *handle = 99;
  return 5;
}
void ExitThread(int32_t) {}
int WaitThread(uint64_t*, uint32_t, int32_t*) {
  return 1;
}
void AddFini(KyFiniFunction, void*) {}

TEST(Hooks, AllUnsetGiveTheFallbackValues) {
  EXPECT_EQ(__KyGetCurrentThreadId(), 0u);
  EXPECT_EQ(__KyGetNativeThreadId(), 0u);
  EXPECT_EQ(__KyGetNativeParentThreadId(), 0u);
  EXPECT_EQ(__KyTlsAlloc(), 0xFFFFFFFFu);
  EXPECT_EQ(__KyTlsFree(3), 0);
  EXPECT_EQ(__KyTlsGetValue(3), nullptr);
  int value = 0;
  EXPECT_EQ(__KyTlsSetValue(3, &value), 0);
  EXPECT_EQ(__KyGetPid(), -1);
  EXPECT_EQ(__KyGetThreadCreateProc(), nullptr);
  EXPECT_EQ(__KyGetThreadWaitProc(), nullptr);
}

TEST(Hooks, SettersStoreIntoTheExportedVariables) {
  __KySetGetCurrentThreadIdProc(CurrentId);
  __KySetGetNativeThreadIdProc(NativeId);
  __KySetGetNativeParentThreadIdProc(ParentId);
  __KySetTlsAllocProc(AllocSlot);
  __KySetTlsFreeProc(FreeSlot);
  __KySetTlsGetValueProc(GetSlot);
  __KySetTlsSetValueProc(SetSlot);
  EXPECT_EQ(__kyGetCurrentThreadIdProc, &CurrentId);
  EXPECT_EQ(__kyGetNativeThreadIdProc, &NativeId);
  EXPECT_EQ(__kyGetNativeParentThreadIdProc, &ParentId);
  EXPECT_EQ(__kyTlsAllocProc, &AllocSlot);
  EXPECT_EQ(__kyTlsFreeProc, &FreeSlot);
  EXPECT_EQ(__kyTlsGetValueProc, &GetSlot);
  EXPECT_EQ(__kyTlsSetValueProc, &SetSlot);
}

TEST(Hooks, WrappersReturnWhatTheHooksReturn) {
  __KySetGetCurrentThreadIdProc(CurrentId);
  __KySetGetNativeThreadIdProc(NativeId);
  __KySetGetNativeParentThreadIdProc(ParentId);
  __KySetTlsAllocProc(AllocSlot);
  __KySetTlsFreeProc(FreeSlot);
  __KySetTlsGetValueProc(GetSlot);
  __KySetTlsSetValueProc(SetSlot);
  __KySetGetPidProc(Pid);
  EXPECT_EQ(__KyGetCurrentThreadId(), 101u);
  EXPECT_EQ(__KyGetNativeThreadId(), 202u);
  EXPECT_EQ(__KyGetNativeParentThreadId(), 303u);
  EXPECT_EQ(__KyTlsAlloc(), 7u);
  int value = 0;
  EXPECT_EQ(__KyTlsSetValue(7, &value), 1);
  EXPECT_EQ(__KyTlsGetValue(7), &value);
  EXPECT_EQ(__KyTlsSetValue(8, &value), 0);
  EXPECT_EQ(__KyTlsFree(7), 1);
  EXPECT_EQ(g_freedSlot, 7);
  EXPECT_EQ(__KyGetPid(), 4242);
}

TEST(Hooks, AToolMayStoreIntoTheVariablesDirectly) {
  __kyGetNativeThreadIdProc = NativeId;
  EXPECT_EQ(__KyGetNativeThreadId(), 202u);
  __kyGetNativeThreadIdProc = nullptr;
  EXPECT_EQ(__KyGetNativeThreadId(), 0u);
}

TEST(Hooks, StoringNullRestoresTheFallbacks) {
  __KySetGetCurrentThreadIdProc(CurrentId);
  __KySetTlsAllocProc(AllocSlot);
  __KySetGetPidProc(Pid);
  __KySetGetCurrentThreadIdProc(nullptr);
  __KySetTlsAllocProc(nullptr);
  __KySetGetPidProc(nullptr);
  EXPECT_EQ(__KyGetCurrentThreadId(), 0u);
  EXPECT_EQ(__KyTlsAlloc(), 0xFFFFFFFFu);
  EXPECT_EQ(__KyGetPid(), -1);
}

TEST(Hooks, ReplacedHookIsReadOnTheNextCall) {
  __KySetGetNativeThreadIdProc(NativeId);
  EXPECT_EQ(__KyGetNativeThreadId(), 202u);
  __KySetGetNativeThreadIdProc(ParentId);
  EXPECT_EQ(__KyGetNativeThreadId(), 303u);
}

TEST(HelperThreadHooks, SetTogetherAndReadBack) {
  EXPECT_EQ(__KySetThreadProcs(CreateThread, ExitThread, WaitThread, AddFini), 1);
  EXPECT_EQ(__KyGetThreadCreateProc(), &CreateThread);
  EXPECT_EQ(__KyGetThreadWaitProc(), &WaitThread);
  EXPECT_EQ(kyrt::ThreadExitHook(), &ExitThread);
  EXPECT_EQ(kyrt::AddFiniHook(), &AddFini);
  EXPECT_TRUE(kyrt::HelperThreadHooksComplete());
}

TEST(HelperThreadHooks, NullsAreStoredToo) {
  __KySetThreadProcs(CreateThread, ExitThread, WaitThread, AddFini);
  EXPECT_EQ(__KySetThreadProcs(CreateThread, nullptr, WaitThread, nullptr), 1);
  EXPECT_EQ(__KyGetThreadCreateProc(), &CreateThread);
  EXPECT_EQ(kyrt::ThreadExitHook(), nullptr);
  EXPECT_EQ(kyrt::AddFiniHook(), nullptr);
  EXPECT_FALSE(kyrt::HelperThreadHooksComplete());
  EXPECT_EQ(__KySetThreadProcs(nullptr, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(__KyGetThreadCreateProc(), nullptr);
  EXPECT_EQ(__KyGetThreadWaitProc(), nullptr);
}

TEST(HelperThreadHooks, IncompleteUnlessAllFourAreSet) {
  EXPECT_FALSE(kyrt::HelperThreadHooksComplete());
  __KySetThreadProcs(nullptr, ExitThread, WaitThread, AddFini);
  EXPECT_FALSE(kyrt::HelperThreadHooksComplete());
  __KySetThreadProcs(CreateThread, ExitThread, nullptr, AddFini);
  EXPECT_FALSE(kyrt::HelperThreadHooksComplete());
}

}  // namespace
