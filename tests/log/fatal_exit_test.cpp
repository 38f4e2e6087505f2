// Call stacks in the log, the exit handler and the fatal exits.
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/modules.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/spin_lock.h"
#include "support/log_text.h"

namespace {

using kyrt_test::LogText;
using testing::ExitedWithCode;

void Start() {
  KyPosixHostInstall();
  __KyRtStartup();
}

void* Address(uintptr_t value) {
  return reinterpret_cast<void*>(value);
}

TEST(Callstack, ACountOfZeroCannotBeUnwound) {
  Start();
  void* frames[1] = {Address(0x1234)};
  __KyLogCallstack("mine", frames, 0);
  EXPECT_EQ(LogText(), kyrt_test::kLogHeader + kyrt_test::kLogRoot +
                           "\n\t<!-- Unable to unwind mine call stack. -->");
}

TEST(Callstack, TheCountIsTakenModulo65536) {
  Start();
  void* frames[1] = {Address(0x1234)};
  __KyLogCallstack("big", frames, 65536);
  EXPECT_NE(LogText().find("<!-- Unable to unwind big call stack. -->"), std::string::npos);
}

TEST(Callstack, FramesOutsideModulesAreBareAddresses) {
  Start();
  void* frames[2] = {Address(0x1234), Address(0xabcdef)};
  __KyLogCallstack("t", frames, 2);
  EXPECT_EQ(LogText(), kyrt_test::kLogHeader + kyrt_test::kLogRoot +
                           "\n\t<!-- Frames of t call stack: -->"
                           "\n\t<!-- => 0x1234 -->\n\t<!-- => 0xabcdef -->");
}

TEST(Callstack, FramesInsideAModuleShowNameOffsetAndAddress) {
  Start();
  ASSERT_EQ(__KyLoadModule("libthing.so", 0x10000, 0x20000) != nullptr ||
                __KyFindModuleByAddress(0x10001) != nullptr,
            true);
  void* frames[1] = {Address(0x10010)};
  __KyLogCallstack("t", frames, 1);
  EXPECT_NE(LogText().find("<!-- => libthing.so!0x10 (0x10010) -->"), std::string::npos);
}

TEST(Callstack, ALineLongerThanTheFirstBufferIsEmittedWhole) {
  Start();
  const std::string longName(3000, 'm');
  __KyLoadModule(longName.c_str(), 0x10000, 0x20000);
  void* frames[1] = {Address(0x10020)};
  __KyLogCallstack("t", frames, 1);
  EXPECT_NE(LogText().find("<!-- => " + longName + "!0x20 (0x10020) -->"), std::string::npos);
}

int g_clientLocks = 0;
void ClientLock() {
  ++g_clientLocks;
}
void ClientUnlock() {
  ++g_clientLocks;
}

TEST(Callstack, SymbolsAreUsedWhenTheHostLockIsSet) {
  Start();
  __KySetTrellClientLockProc(ClientLock, ClientUnlock);
  void* frames[1] = {reinterpret_cast<void*>(&__KyLogCallstack)};
  __KyLogCallstack("sym", frames, 1);
  EXPECT_EQ(g_clientLocks, 2);
  const std::string text = LogText();
  EXPECT_TRUE(std::regex_search(text, std::regex("<!-- => 0x[0-9a-f]+: [^ ]*libkyrt"))) << text;
}

TEST(Callstack, BeforeStartupLinesGoToStandardOutput) {
  void* frames[1] = {Address(0x1234)};
  testing::internal::CaptureStdout();
  __KyLogCallstack("early", frames, 1);
  __KyLogCallstack("none", frames, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Frames of early call stack:\n=> 0x1234\nUnable to unwind none call stack.\n");
}

TEST(Callstack, CurrentCallstackIsTheCallersOwn) {
  Start();
  __KyLogCurrentCallstack();
  const std::string text = LogText();
  EXPECT_NE(text.find("<!-- Frames of trelltool call stack: -->"), std::string::npos) << text;
  EXPECT_NE(text.find("<!-- => 0x"), std::string::npos);
}

TEST(ExitHandler, WithoutAHandlerTheProcessEndsWith255) {
  EXPECT_EXIT(__KyExitHandler(5), ExitedWithCode(255), "");
}

void ReturningHandler(int32_t code) {
  kyrt_test::WriteFile("handler-ran", std::to_string(code));
}

TEST(ExitHandler, AHandlerThatReturnsStillEndsWith255) {
  EXPECT_EXIT(
      {
        __KySetExitHandler(ReturningHandler);
        __KyExitHandler(7);
      },
      ExitedWithCode(255), "");
  EXPECT_EQ(kyrt_test::ReadFile("handler-ran"), "7");
}

void ExitingHandler(int32_t code) {
  _exit(code + 100);
}

TEST(ExitHandler, AHandlerMayEndTheProcessItself) {
  EXPECT_EXIT(
      {
        __KySetExitHandler(ExitingHandler);
        __KyExitHandler(3);
      },
      ExitedWithCode(103), "");
}

TEST(FatalExit, LogsAbnormalTerminateThenExitsWith255) {
  EXPECT_EXIT(
      {
        Start();
        __KyFatalExit(3);
      },
      ExitedWithCode(255), "");
  EXPECT_NE(LogText().find("<type>ABNORMAL_TERMINATE</type>\n\t\t<severity>ERROR</severity>"),
            std::string::npos);
}

TEST(FatalExit, ToolDefectAfterStartupIsLoggedWithTheCallStack) {
  EXPECT_EXIT(
      {
        Start();
        __KyLogFatalToolDefect("bad option %s", "-x");
      },
      ExitedWithCode(255), "");
  const std::string text = LogText();
  const size_t defect = text.find(
      "<type>INTERNAL</type>\n\t\t<severity>ERROR</severity>\n\t\t<timestamp>TS</timestamp>"
      "\n\t\t<!-- bad option -x -->");
  const size_t stack = text.find("<!-- Frames of trelltool call stack: -->");
  const size_t abnormal = text.find("<type>ABNORMAL_TERMINATE</type>");
  ASSERT_NE(defect, std::string::npos) << text;
  ASSERT_NE(stack, std::string::npos) << text;
  ASSERT_NE(abnormal, std::string::npos) << text;
  EXPECT_LT(defect, stack);
  EXPECT_LT(stack, abnormal);
}

TEST(FatalExit, ToolDefectBeforeStartupGoesToStandardOutput) {
  EXPECT_EXIT(
      {
        if (std::freopen("stdout.txt", "w", stdout) == nullptr) _exit(1);
        __KyLogFatalToolDefect("early defect %d", 1);
      },
      ExitedWithCode(255), "");
  EXPECT_NE(access("kylog.log", F_OK), 0);
  const std::string printed = kyrt_test::ReadFile("stdout.txt");
  EXPECT_EQ(printed.rfind("early defect 1\nFrames of trelltool call stack:\n=> 0x", 0), 0u)
      << printed;
}

}  // namespace
