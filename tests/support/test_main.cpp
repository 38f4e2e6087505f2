// The common main of every test binary.
//
// CTest runs each test case in a process of its own (gtest_discover_tests),
// and this main gives each process a fresh, empty temporary working
// directory, removed when the case ends: the runtime is process-global and
// writes into the working directory, so no two cases ever share a file.
//
// A death-test child (re-executed with --gtest_internal_run_death_test) works
// in the directory of the case that started it, so that the parent can look
// at what the child left behind. GoogleTest re-executes the child in the
// directory the binary was started in, so the parent hands its scratch
// directory down in the environment.
#include <ftw.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gtest/gtest.h"

namespace {

constexpr const char* kScratchVariable = "KYRT_TEST_SCRATCH_DIRECTORY";

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
    setenv(kScratchVariable, path_.c_str(), 1);
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

int RunAllTests(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Death tests re-execute the binary rather than fork a process that may
  // have threads of its own.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}

}  // namespace

int main(int argc, char** argv) {
  if (IsDeathTestChild(argc, argv)) {
    const char* parentScratch = std::getenv(kScratchVariable);
    if (parentScratch == nullptr || chdir(parentScratch) != 0) return 2;
    return RunAllTests(argc, argv);
  }
  ScratchDirectory scratch;
  return RunAllTests(argc, argv);
}
