// The POSIX directory services behind the folder functions.
#include "util/os_services.h"

#include <sys/stat.h>

#include "gtest/gtest.h"
#include "support/test_files.h"

namespace {

TEST(OsServices, MkDirCreatesADirectory) {
  EXPECT_EQ(OS_MkDir("made", 0777), kyrt::kOsResultSuccess);
  struct stat status;
  ASSERT_EQ(stat("made", &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
}

TEST(OsServices, MkDirOnAnExistingDirectorySucceeds) {
  ASSERT_EQ(OS_MkDir("made", 0777), kyrt::kOsResultSuccess);
  EXPECT_EQ(OS_MkDir("made", 0777), kyrt::kOsResultSuccess);
}

TEST(OsServices, MkDirFailsWithNineOnAFileOrAMissingParent) {
  kyrt_test::WriteFile("plain", "x");
  EXPECT_EQ(OS_MkDir("plain", 0777), 9);
  EXPECT_EQ(OS_MkDir("missing/child", 0777), 9);
  EXPECT_EQ(OS_MkDir(nullptr, 0777), 9);
}

TEST(OsServices, DeleteDirectoryRemovesAnEmptyDirectoryOnly) {
  ASSERT_EQ(OS_MkDir("outer", 0777), kyrt::kOsResultSuccess);
  ASSERT_EQ(OS_MkDir("outer/inner", 0777), kyrt::kOsResultSuccess);
  EXPECT_NE(OS_DeleteDirectory("outer"), kyrt::kOsResultSuccess);
  EXPECT_EQ(OS_DeleteDirectory("outer/inner"), kyrt::kOsResultSuccess);
  EXPECT_EQ(OS_DeleteDirectory("outer"), kyrt::kOsResultSuccess);
  EXPECT_NE(OS_DeleteDirectory("outer"), kyrt::kOsResultSuccess);
  EXPECT_NE(OS_DeleteDirectory(nullptr), kyrt::kOsResultSuccess);
}

TEST(OsServices, AttributesMarkDirectoriesWithBitFour) {
  ASSERT_EQ(OS_MkDir("folder", 0777), kyrt::kOsResultSuccess);
  kyrt_test::WriteFile("file", "x");
  uint32_t attributes = 0;
  ASSERT_EQ(OS_GetFileAttributes("folder", &attributes), kyrt::kOsResultSuccess);
  EXPECT_EQ(attributes & 0x4u, 0x4u);
  ASSERT_EQ(OS_GetFileAttributes("file", &attributes), kyrt::kOsResultSuccess);
  EXPECT_EQ(attributes & 0x4u, 0u);
  EXPECT_EQ(attributes & kyrt::kOsAttributeFile, kyrt::kOsAttributeFile);
}

TEST(OsServices, AttributesOfAMissingPathFailAndLeaveTheOutputAlone) {
  uint32_t attributes = 0xDEAD;
  EXPECT_NE(OS_GetFileAttributes("missing", &attributes), kyrt::kOsResultSuccess);
  EXPECT_EQ(attributes, 0xDEADu);
  EXPECT_NE(OS_GetFileAttributes("missing", nullptr), kyrt::kOsResultSuccess);
}

}  // namespace
