// The common main of every test binary.
//
// CTest runs each test case in a process of its own (gtest_discover_tests),
// and this main gives each process a fresh, empty temporary working
// directory, removed when the case ends: the runtime is process-global and
// writes into the working directory, so no two cases ever share a file.
//
// A death-test child (re-executed with --gtest_internal_run_death_test) stays
// in the directory of the case that started it, so that the parent can look
// at what the child left behind.
#include <ftw.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gtest/gtest.h"

namespace {

bool IsDeathTestChild(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strstr(argv[i], "internal_run_death_test") != nullptr) return true;
  }
  return false;
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  return std::remove(path);
}

class ScratchDirectory {
 public:
  ScratchDirectory() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kyrt-test-XXXXXX";
    if (getcwd(previous_, sizeof previous_) == nullptr) previous_[0] = '\0';
    if (mkdtemp(pattern.data()) == nullptr || chdir(pattern.c_str()) != 0) {
      std::perror("kyrt test main: cannot enter a scratch directory");
      std::exit(2);
    }
    path_ = pattern;
  }

  ~ScratchDirectory() {
    if (previous_[0] == '\0' || chdir(previous_) != 0) {
      if (chdir("/") != 0) return;
    }
    nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  }

  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

 private:
  std::string path_;
  char previous_[PATH_MAX];
};

}  // namespace

int main(int argc, char** argv) {
  const bool deathTestChild = IsDeathTestChild(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  // Death tests re-execute the binary rather than fork a process that has
  // threads of its own.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  if (deathTestChild) return RUN_ALL_TESTS();
  ScratchDirectory scratch;
  return RUN_ALL_TESTS();
}
