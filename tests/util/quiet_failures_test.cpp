// Apart from the lock files and a child that cannot launch its program, the
// platform utilities report failure by their results alone: with the
// runtime started, failing calls leave no log behind.
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "kyrt/strings.h"
#include "sync/lock_test_support.h"
#include "util/executable_path.h"

namespace {

using QuietFailures = kyrt_test::RuntimeTest;

TEST_F(QuietFailures, FailingCallsLogNothing) {
  const wchar_t unconvertible[] = {static_cast<wchar_t>(0xD800), L'\0'};
  std::vector<unsigned long> numbers;

  EXPECT_EQ(__KyFopen("missing/file", "r", nullptr), nullptr);
  EXPECT_EQ(__KyWFopen(unconvertible, L"r", nullptr), nullptr);
  EXPECT_EQ(__KyGetBaseName(""), nullptr);
  EXPECT_EQ(__KySetEnvironmentVariable("", "value"), 0);
  EXPECT_EQ(__KyAllocateAndConvertWstringToUtf8(unconvertible), nullptr);
  EXPECT_EQ(__KyLockFile(-1), -1);
  kyrt::SetExecutableLinkFormatForTesting("missing-%d");
  EXPECT_EQ(kyrt::GetExecutableFilePath(), "");
  kyrt::SetExecutableLinkFormatForTesting(nullptr);
  kyrt::StrToNums("", ',', numbers);

  EXPECT_NE(access("kylog.log", F_OK), 0);
}

}  // namespace
