// Counting processors from /proc/stat, with /proc/cpuinfo as the fallback.
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "kyrt/runtime.h"
#include "runtime/proc_paths.h"
#include "support/test_files.h"

namespace {

using kyrt_test::WriteFile;

constexpr const char* kMissing = "no-such-file";

const char* const kCpuinfoWithThree =
    "processor\t: 0\nmodel name\t: x\n\nprocessor\t: 1\n\nprocessor\t: 2\nflags\t: y\n";

int CountWith(const std::string& stat, const std::string& cpuinfo) {
  kyrt::SetProcPathsForTesting({stat.c_str(), cpuinfo.c_str(), nullptr, nullptr});
  return __KyGetNProcsInternal();
}

TEST(ProcessorCount, CountsTheNumberedCpuLinesButNotTheSummary) {
  WriteFile("stat", "cpu  1 2 3\ncpu0 1 2 3\ncpu1 4 5 6\ncpu2 7 8 9\nintr 1 2\n");
  EXPECT_EQ(CountWith("stat", kMissing), 3);
}

TEST(ProcessorCount, StopsAtTheFirstLineThatIsNotACpuLine) {
  WriteFile("stat", "cpu  1\ncpu0 1\ncpu1 1\nctxt 5\ncpu2 1\ncpu3 1\n");
  EXPECT_EQ(CountWith("stat", kMissing), 2);
}

TEST(ProcessorCount, StatWithoutNumberedCpuLinesGivesZeroWithoutFallingBack) {
  WriteFile("stat", "cpu  1 2 3\nintr 1\n");
  WriteFile("cpuinfo", kCpuinfoWithThree);
  EXPECT_EQ(CountWith("stat", "cpuinfo"), 0);
}

TEST(ProcessorCount, EmptyStatGivesZero) {
  WriteFile("stat", "");
  WriteFile("cpuinfo", kCpuinfoWithThree);
  EXPECT_EQ(CountWith("stat", "cpuinfo"), 0);
}

TEST(ProcessorCount, StatNotStartingWithCpuGivesZero) {
  WriteFile("stat", "intr 1\ncpu0 1\n");
  EXPECT_EQ(CountWith("stat", kMissing), 0);
}

TEST(ProcessorCount, FallsBackToCpuinfoOnlyWhenStatCannotBeOpened) {
  WriteFile("cpuinfo", kCpuinfoWithThree);
  EXPECT_EQ(CountWith(kMissing, "cpuinfo"), 3);
}

TEST(ProcessorCount, CpuinfoCountsLinesBeginningWithProcessorAnywhere) {
  WriteFile("cpuinfo", "vendor: x\nprocessor: 0\nflags: y\nprocessors-extra\nxprocessor\n");
  EXPECT_EQ(CountWith(kMissing, "cpuinfo"), 2);
}

TEST(ProcessorCount, NeitherFileGivesZero) {
  EXPECT_EQ(CountWith(kMissing, kMissing), 0);
}

TEST(ProcessorCount, ALineLongerThanTheBufferIsStillOneLine) {
  // A numbered cpu line of 3,000 characters: its tail must not be read as
  // a further line (which would end the count early or add to it).
  std::string longLine = "cpu0";
  while (longLine.size() < 3000) longLine += " 1234567";
  WriteFile("stat", "cpu  1\n" + longLine + "\ncpu1 1\n");
  EXPECT_EQ(CountWith("stat", kMissing), 2);
}

TEST(ProcessorCount, LastLineWithoutNewLineCounts) {
  WriteFile("stat", "cpu  1\ncpu0 1\ncpu1 1");
  EXPECT_EQ(CountWith("stat", kMissing), 2);
}

TEST(ProcessorCount, RealProcStatMatchesTheOnlineProcessors) {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, nullptr, nullptr});
  EXPECT_EQ(__KyGetNProcsInternal(), static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)));
}

}  // namespace
