// The folder functions against a host whose directory services the test
// plays itself: which calls reach the host, with what, and how its answers
// are read.
//
// This binary defines OS_MkDir, OS_DeleteDirectory and OS_GetFileAttributes,
// as a host framework does; the linker then takes these rather than the
// runtime's POSIX ones from the static archive.
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "sync/lock_test_support.h"
#include "util/os_services.h"

namespace {

// What the fake host answers, and what it was asked.
struct FakeHost {
  int result = 0;
  uint32_t attributes = 0;
  std::vector<std::string> paths;
  std::vector<int> modes;
};

FakeHost g_host;

}  // namespace

extern "C" {

int OS_MkDir(const char* path, int mode) {
  g_host.paths.emplace_back(path);
  g_host.modes.push_back(mode);
  return g_host.result;
}

int OS_DeleteDirectory(const char* path) {
  g_host.paths.emplace_back(path);
  return g_host.result;
}

int OS_GetFileAttributes(const char* path, uint32_t* attributes) {
  g_host.paths.emplace_back(path);
  *attributes = g_host.attributes;
  return g_host.result;
}

}  // extern "C"

namespace {

void HostAnswers(int result, uint32_t attributes = 0) {
  g_host = FakeHost{};
  g_host.result = result;
  g_host.attributes = attributes;
}

using Paths = std::vector<std::string>;

TEST(FoldersOnTheHost, CreateAsksForMode0777) {
  HostAnswers(0);
  EXPECT_TRUE(kyrt::CreateFolder("made"));
  EXPECT_EQ(g_host.paths, Paths{"made"});
  EXPECT_EQ(g_host.modes, std::vector<int>{0777});
}

TEST(FoldersOnTheHost, CreateFailsOnlyOnTheHostsFailureCode) {
  HostAnswers(9);
  EXPECT_FALSE(kyrt::CreateFolder("made"));
  for (int other : {1, 2, 8, 10, -1}) {
    HostAnswers(other);
    EXPECT_TRUE(kyrt::CreateFolder("made")) << "result " << other;
  }
}

TEST(FoldersOnTheHost, DeleteSucceedsOnlyOnTheHostsSuccessCode) {
  HostAnswers(0);
  EXPECT_TRUE(kyrt::DeleteFolder("gone"));
  EXPECT_EQ(g_host.paths, Paths{"gone"});
  for (int other : {1, 9, -1}) {
    HostAnswers(other);
    EXPECT_FALSE(kyrt::DeleteFolder("gone")) << "result " << other;
  }
}

TEST(FoldersOnTheHost, ExistsNeedsSuccessAndTheDirectoryBit) {
  HostAnswers(0, 0x4);
  EXPECT_TRUE(kyrt::FolderExists("dir"));
  HostAnswers(0, 0xFFFFFFFF);
  EXPECT_TRUE(kyrt::FolderExists("dir"));
  HostAnswers(0, 0xFFFFFFFB);  // every bit but the directory bit
  EXPECT_FALSE(kyrt::FolderExists("dir"));
  HostAnswers(9, 0x4);
  EXPECT_FALSE(kyrt::FolderExists("dir"));
  HostAnswers(1, 0x4);
  EXPECT_FALSE(kyrt::FolderExists("dir"));
}

TEST(FoldersOnTheHost, ExistsAsksWithoutOneTrailingSeparator) {
  HostAnswers(0, 0x4);
  kyrt::FolderExists("dir/");
  kyrt::FolderExists("dir\\");
  kyrt::FolderExists("dir//");
  kyrt::FolderExists("dir");
  kyrt::FolderExists("/");
  EXPECT_EQ(g_host.paths, (Paths{"dir", "dir", "dir/", "dir", ""}));
}

TEST(FoldersOnTheHost, AnEmptyPathNeverReachesTheHost) {
  HostAnswers(0, 0x4);
  EXPECT_FALSE(kyrt::CreateFolder(""));
  EXPECT_FALSE(kyrt::DeleteFolder(""));
  EXPECT_FALSE(kyrt::FolderExists(""));
  EXPECT_TRUE(g_host.paths.empty());
}

using QuietFolderFailures = kyrt_test::RuntimeTest;

TEST_F(QuietFolderFailures, RefusalsAreReportedByTheResultAlone) {
  HostAnswers(9);
  EXPECT_FALSE(kyrt::CreateFolder("made"));
  EXPECT_FALSE(kyrt::DeleteFolder("gone"));
  EXPECT_FALSE(kyrt::FolderExists("dir"));
  EXPECT_FALSE(kyrt::CheckFileAccess("missing", kyrt::KYFACCESS_EXISTS));
  EXPECT_NE(access("kylog.log", F_OK), 0);
}

}  // namespace
