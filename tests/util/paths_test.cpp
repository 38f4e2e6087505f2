// Path normalisation, base and folder names, and the executable's path.
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "kyrt/memory.h"
#include "sync/lock_test_support.h"
#include "util/executable_path.h"

namespace {

using Paths = kyrt_test::RuntimeTest;

using BaseNameFunction = char* (*)(const char*);
constexpr BaseNameFunction kBaseNameFunctions[] = {__KyGetBaseName, __KyGetSCBaseName};

std::string Sanitized(std::string path) {
  __KySanitizePath(path.data());
  return path.c_str();
}

// The base name by function, as a string; "<null>" for a null result.
std::string BaseNameBy(BaseNameFunction baseName, const char* path) {
  char* result = baseName(path);
  if (result == nullptr) return "<null>";
  std::string text = result;
  __KyFree(result);
  return text;
}

TEST(SanitizePath, CollapsesEveryRunOfSlashes) {
  EXPECT_EQ(Sanitized("a//b///c//"), "a/b/c/");
  EXPECT_EQ(Sanitized("//"), "/");
  EXPECT_EQ(Sanitized("///x"), "/x");
  EXPECT_EQ(Sanitized("/"), "/");
}

TEST(SanitizePath, ChangesNothingElse) {
  EXPECT_EQ(Sanitized(""), "");
  EXPECT_EQ(Sanitized("./a/../b/"), "./a/../b/");
  EXPECT_EQ(Sanitized("/usr/lib/x.so"), "/usr/lib/x.so");
  EXPECT_EQ(Sanitized("a\\\\b"), "a\\\\b");
  EXPECT_EQ(Sanitized("dir/"), "dir/");
}

TEST(SanitizePath, IgnoresNull) {
  __KySanitizePath(nullptr);
  SUCCEED();
}

TEST(SanitizePath, WorksInPlace) {
  char path[] = "a//b";
  __KySanitizePath(path);
  EXPECT_EQ(std::memcmp(path, "a/b\0", 4), 0);
}

TEST_F(Paths, BaseNameIsThePartAfterTheLastSlash) {
  for (BaseNameFunction baseName : kBaseNameFunctions) {
    EXPECT_EQ(BaseNameBy(baseName, "/usr/lib/x.so"), "x.so");
    EXPECT_EQ(BaseNameBy(baseName, "a/b"), "b");
    EXPECT_EQ(BaseNameBy(baseName, "x.so"), "x.so");
    EXPECT_EQ(BaseNameBy(baseName, "a"), "a");
  }
}

TEST_F(Paths, BaseNameDoesNotTakeALeadingSlashAsASeparator) {
  for (BaseNameFunction baseName : kBaseNameFunctions) {
    EXPECT_EQ(BaseNameBy(baseName, "/x"), "/x");
    EXPECT_EQ(BaseNameBy(baseName, "/abc"), "/abc");
    EXPECT_EQ(BaseNameBy(baseName, "/"), "/");
    // A slash in the second position does count.
    EXPECT_EQ(BaseNameBy(baseName, "//"), "");
    EXPECT_EQ(BaseNameBy(baseName, "a/"), "");
  }
}

TEST_F(Paths, BaseNameOfATrailingSlashIsEmpty) {
  for (BaseNameFunction baseName : kBaseNameFunctions) {
    EXPECT_EQ(BaseNameBy(baseName, "dir/"), "");
    EXPECT_EQ(BaseNameBy(baseName, "/usr/lib/"), "");
  }
}

TEST_F(Paths, BaseNameOfAnEmptyOrNullPathIsNull) {
  for (BaseNameFunction baseName : kBaseNameFunctions) {
    EXPECT_EQ(baseName(""), nullptr);
    EXPECT_EQ(baseName(nullptr), nullptr);
  }
}

TEST_F(Paths, BaseNameIsANewString) {
  for (BaseNameFunction baseName : kBaseNameFunctions) {
    const char* path = "x.so";
    char* result = baseName(path);
    ASSERT_NE(result, nullptr);
    EXPECT_NE(result, path);
    __KyFree(result);
  }
}

TEST(StandardStringPaths, BaseNameCountsALeadingSlash) {
  EXPECT_EQ(kyrt::GetBaseName("/x"), "x");
  EXPECT_EQ(kyrt::GetBaseName("/usr/lib/x.so"), "x.so");
  EXPECT_EQ(kyrt::GetBaseName("x.so"), "x.so");
  EXPECT_EQ(kyrt::GetBaseName("dir/"), "");
  EXPECT_EQ(kyrt::GetBaseName("/"), "");
  EXPECT_EQ(kyrt::GetBaseName(""), "");
}

TEST(StandardStringPaths, FolderNameIsThePartBeforeTheLastSlash) {
  EXPECT_EQ(kyrt::GetFolderName("/usr/lib/x.so"), "/usr/lib");
  EXPECT_EQ(kyrt::GetFolderName("a/b/"), "a/b");
  EXPECT_EQ(kyrt::GetFolderName("a//b"), "a/");
}

TEST(StandardStringPaths, FolderNameIsEmptyWithoutASlashOrForALeadingOneOnly) {
  EXPECT_EQ(kyrt::GetFolderName("/x"), "");
  EXPECT_EQ(kyrt::GetFolderName("/"), "");
  EXPECT_EQ(kyrt::GetFolderName("x.so"), "");
  EXPECT_EQ(kyrt::GetFolderName(""), "");
}

TEST(StandardStringPaths, SanitizePathCollapsesSlashes) {
  EXPECT_EQ(kyrt::SanitizePath("a//b///c//"), "a/b/c/");
  EXPECT_EQ(kyrt::SanitizePath("//"), "/");
  EXPECT_EQ(kyrt::SanitizePath(""), "");
}

TEST(StandardStringPaths, SanitizePathStopsAtTheFirstNul) {
  const std::string withNul("a//b\0c//d", 9);
  EXPECT_EQ(kyrt::SanitizePath(withNul), "a/b");
}

// The executable's path, read through links the test makes itself.
class ExecutablePath : public ::testing::Test {
 protected:
  void TearDown() override { kyrt::SetExecutableLinkFormatForTesting(nullptr); }

  // Points the lookup at "link-<pid>" in the scratch directory and makes
  // that link with the given target.
  void UseLinkTo(const std::string& target) {
    kyrt::SetExecutableLinkFormatForTesting("link-%d");
    const std::string link = "link-" + std::to_string(getpid());
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  }
};

TEST_F(ExecutablePath, IsTheTargetOfTheProcessExeLink) {
  char expected[PATH_MAX + 1] = {};
  ASSERT_GT(readlink("/proc/self/exe", expected, PATH_MAX), 0);
  const std::string path = kyrt::GetExecutableFilePath();
  EXPECT_EQ(path, kyrt::SanitizePath(expected));
  EXPECT_EQ(path.front(), '/');
  EXPECT_EQ(access(path.c_str(), X_OK), 0);
}

TEST_F(ExecutablePath, TheTargetIsSanitised) {
  UseLinkTo("dir//sub///program");
  EXPECT_EQ(kyrt::GetExecutableFilePath(), "dir/sub/program");
}

TEST_F(ExecutablePath, AOneCharacterTargetIsKept) {
  UseLinkTo("p");
  EXPECT_EQ(kyrt::GetExecutableFilePath(), "p");
}

TEST_F(ExecutablePath, TheLongestTargetALinkCanHoldIsKeptWhole) {
  const std::string target(4095, 'p');
  UseLinkTo(target);
  EXPECT_EQ(kyrt::GetExecutableFilePath(), target);
}

TEST_F(ExecutablePath, IsEmptyWhenTheLinkCannotBeRead) {
  kyrt::SetExecutableLinkFormatForTesting("missing-%d");
  EXPECT_EQ(kyrt::GetExecutableFilePath(), "");
  // A file that is not a link: readlink fails as well.
  kyrt::SetExecutableLinkFormatForTesting("plain-%d");
  const std::string plain = "plain-" + std::to_string(getpid());
  FILE* file = std::fopen(plain.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fclose(file);
  EXPECT_EQ(kyrt::GetExecutableFilePath(), "");
}

}  // namespace
