// The common test main: each case starts in a fresh, empty scratch directory.
#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "gtest/gtest.h"
#include "support/test_files.h"

namespace {

std::string WorkingDirectory() {
  char path[PATH_MAX];
  return getcwd(path, sizeof path) ? path : "";
}

int EntriesIn(const char* path) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return -1;
  int count = 0;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") ++count;
  }
  closedir(dir);
  return count;
}

TEST(TestMain, EachCaseStartsInAnEmptyScratchDirectory) {
  EXPECT_NE(WorkingDirectory().find("/kyrt-test-"), std::string::npos);
  EXPECT_EQ(EntriesIn("."), 0);
  kyrt_test::WriteFile("left-behind", "x");  // removed when the case ends
}

TEST(TestMain, ADeathTestChildRunsInTheParentsDirectory) {
  const std::string here = WorkingDirectory();
  EXPECT_EXIT(
      {
        kyrt_test::WriteFile("from-child", here == WorkingDirectory() ? "same" : "other");
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(kyrt_test::ReadFile("from-child"), "same");
}

}  // namespace
