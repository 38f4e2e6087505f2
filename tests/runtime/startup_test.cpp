// Start-up: once only, with its fixed result.
#include "gtest/gtest.h"
#include "kyrt/runtime.h"
#include "runtime/proc_paths.h"
#include "support/test_files.h"

namespace {

using kyrt_test::WriteFile;

void UseStatWithCpus(const char* path, const char* content) {
  WriteFile(path, content);
  kyrt::SetProcPathsForTesting({path, "no-such-file", nullptr, nullptr});
}

TEST(Startup, BeforeStartupNothingIsCounted) {
  EXPECT_EQ(__KyGetStarted(), 0);
  EXPECT_EQ(__kyRtStarted, 0);
  EXPECT_EQ(__KyGetNProcs(), 0);
  EXPECT_EQ(__kyNumberOfProcessors, 0);
}

TEST(Startup, CountsProcessorsAndMarksTheRuntimeStarted) {
  UseStatWithCpus("stat", "cpu  1\ncpu0 1\ncpu1 1\n");
  EXPECT_EQ(__KyRtStartup(), 0x0D0F0008u);
  EXPECT_EQ(__KyGetStarted(), 1);
  EXPECT_EQ(__kyRtStarted, 1);
  EXPECT_EQ(__KyGetNProcs(), 2);
  EXPECT_EQ(__kyNumberOfProcessors, 2);
}

TEST(Startup, SecondCallNeitherRecountsNorFailsAndReturnsTheSameValue) {
  UseStatWithCpus("stat", "cpu  1\ncpu0 1\ncpu1 1\n");
  ASSERT_EQ(__KyRtStartup(), 0x0D0F0008u);
  UseStatWithCpus("stat5", "cpu  1\ncpu0 1\ncpu1 1\ncpu2 1\ncpu3 1\ncpu4 1\n");
  EXPECT_EQ(__KyGetNProcsInternal(), 5);
  EXPECT_EQ(__KyRtStartup(), 0x0D0F0008u);
  EXPECT_EQ(__KyGetNProcs(), 2);
  EXPECT_EQ(__KyGetStarted(), 1);
}

TEST(Startup, UnreadableProcFilesGiveZeroProcessorsButStillStart) {
  kyrt::SetProcPathsForTesting({"no-such-file", "no-such-file", nullptr, nullptr});
  EXPECT_EQ(__KyRtStartup(), 0x0D0F0008u);
  EXPECT_EQ(__KyGetStarted(), 1);
  EXPECT_EQ(__KyGetNProcs(), 0);
}

TEST(Startup, NeedsNoHooks) {
  EXPECT_EQ(__KyGetNativeThreadId(), 0u);
  EXPECT_EQ(__KyRtStartup(), 0x0D0F0008u);
  EXPECT_EQ(__KyGetStarted(), 1);
}

TEST(Shutdown, DoesNothing) {
  UseStatWithCpus("stat", "cpu  1\ncpu0 1\n");
  __KyRtShutdown();
  EXPECT_EQ(__KyGetStarted(), 0);
  __KyRtStartup();
  __KyRtShutdown();
  EXPECT_EQ(__KyGetStarted(), 1);
  EXPECT_EQ(__KyGetNProcs(), 1);
}

}  // namespace
