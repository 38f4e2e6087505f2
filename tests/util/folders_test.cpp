// File access checks and the folder services over the host's directory
// services.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "support/test_files.h"
#include "util/child_process.h"

namespace {

using kyrt::KYFACCESS_EXISTS;
using kyrt::KYFACCESS_READ;
using kyrt::KYFACCESS_READWRITE;
using kyrt::KYFACCESS_WRITE;
using kyrt::KYFACCESSMODE;

constexpr uid_t kUnprivilegedId = 65534;

bool IsFolder(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

void MakeFileWithMode(const char* path, mode_t mode) {
  kyrt_test::WriteFile(path, "x");
  ASSERT_EQ(chmod(path, mode), 0);
}

// One bit per (file, mode) answer, so that a child can report them all in
// its exit status.
int AccessAnswers(const char* path) {
  const KYFACCESSMODE modes[] = {KYFACCESS_EXISTS, KYFACCESS_READ, KYFACCESS_WRITE,
                                 KYFACCESS_READWRITE};
  int answers = 0;
  for (int i = 0; i < 4; ++i) {
    if (kyrt::CheckFileAccess(path, modes[i])) answers |= 1 << i;
  }
  return answers;
}

constexpr int kExists = 1, kRead = 2, kWrite = 4, kReadWrite = 8;

// The answers for path as seen by a user without privileges: root passes
// every read and write check, so a root test process drops to an ordinary
// user in a child first.
int AccessAnswersWithoutPrivileges(const char* path) {
  return kyrt_test::ExitStatusOfChild([path] {
    if (geteuid() == 0 && (setgid(kUnprivilegedId) != 0 || setuid(kUnprivilegedId) != 0)) {
      return 100;
    }
    return AccessAnswers(path);
  });
}

class FileAccess : public ::testing::Test {
 protected:
  void SetUp() override {
    // The scratch directory must be searchable by the unprivileged user.
    ASSERT_EQ(chmod(".", 0755), 0);
  }
};

TEST_F(FileAccess, EmptyPathIsRefusedInEveryMode) {
  EXPECT_EQ(AccessAnswers(""), 0);
}

TEST_F(FileAccess, MissingFileFailsInEveryMode) {
  EXPECT_EQ(AccessAnswers("missing"), 0);
}

TEST_F(FileAccess, ReadableAndWritableFilePassesEveryMode) {
  MakeFileWithMode("both", 0666);
  EXPECT_EQ(AccessAnswersWithoutPrivileges("both"), kExists | kRead | kWrite | kReadWrite);
}

TEST_F(FileAccess, ReadOnlyFilePassesExistsAndRead) {
  MakeFileWithMode("read-only", 0444);
  EXPECT_EQ(AccessAnswersWithoutPrivileges("read-only"), kExists | kRead);
}

TEST_F(FileAccess, WriteOnlyFilePassesExistsAndWrite) {
  MakeFileWithMode("write-only", 0222);
  EXPECT_EQ(AccessAnswersWithoutPrivileges("write-only"), kExists | kWrite);
}

TEST_F(FileAccess, FileWithoutPermissionsOnlyExists) {
  MakeFileWithMode("none", 0000);
  EXPECT_EQ(AccessAnswersWithoutPrivileges("none"), kExists);
}

TEST(Folders, CreateFolderMakesAFolder) {
  EXPECT_TRUE(kyrt::CreateFolder("made"));
  EXPECT_TRUE(IsFolder("made"));
}

TEST(Folders, CreatingAnExistingFolderSucceeds) {
  ASSERT_TRUE(kyrt::CreateFolder("made"));
  EXPECT_TRUE(kyrt::CreateFolder("made"));
}

TEST(Folders, CreateFolderFailsWhenTheHostRefuses) {
  kyrt_test::WriteFile("plain", "x");
  EXPECT_FALSE(kyrt::CreateFolder("plain"));
  EXPECT_FALSE(kyrt::CreateFolder("missing/child"));
  EXPECT_FALSE(kyrt::CreateFolder(""));
}

TEST(Folders, DeleteFolderRemovesAnEmptyFolder) {
  ASSERT_TRUE(kyrt::CreateFolder("made"));
  EXPECT_TRUE(kyrt::DeleteFolder("made"));
  EXPECT_FALSE(IsFolder("made"));
}

TEST(Folders, DeleteFolderFailsForAFullOrMissingFolderOrAnEmptyPath) {
  ASSERT_TRUE(kyrt::CreateFolder("outer"));
  ASSERT_TRUE(kyrt::CreateFolder("outer/inner"));
  EXPECT_FALSE(kyrt::DeleteFolder("outer"));
  EXPECT_TRUE(IsFolder("outer"));
  EXPECT_FALSE(kyrt::DeleteFolder("missing"));
  EXPECT_FALSE(kyrt::DeleteFolder(""));
}

TEST(Folders, FolderExistsForAFolder) {
  ASSERT_TRUE(kyrt::CreateFolder("dir"));
  EXPECT_TRUE(kyrt::FolderExists("dir"));
  EXPECT_TRUE(kyrt::FolderExists("."));
}

TEST(Folders, FolderExistsIgnoresOneTrailingSlashOrBackslash) {
  ASSERT_TRUE(kyrt::CreateFolder("dir"));
  EXPECT_TRUE(kyrt::FolderExists("dir/"));
  EXPECT_TRUE(kyrt::FolderExists("dir\\"));
  // Only one character is dropped: "dir\" is not a folder.
  EXPECT_FALSE(kyrt::FolderExists("dir\\\\"));
}

TEST(Folders, FolderExistsIsFalseForFilesMissingPathsAndTheEmptyPath) {
  kyrt_test::WriteFile("file", "x");
  EXPECT_FALSE(kyrt::FolderExists("file"));
  EXPECT_FALSE(kyrt::FolderExists("file/"));
  EXPECT_FALSE(kyrt::FolderExists("missing"));
  EXPECT_FALSE(kyrt::FolderExists(""));
}

TEST(Folders, TheRootWrittenAsASlashIsAskedForAsTheEmptyPath) {
  // Dropping the one trailing slash leaves nothing, and nothing is no folder.
  EXPECT_FALSE(kyrt::FolderExists("/"));
  EXPECT_TRUE(kyrt::FolderExists("//"));
}

}  // namespace
