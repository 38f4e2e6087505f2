// kyrt::SystemInformation: memory figures and page rounding.
#include "kyrt/system_information.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "gtest/gtest.h"
#include "runtime/proc_paths.h"
#include "support/test_files.h"

namespace {

using kyrt::SystemInformation;
using kyrt_test::WriteFile;

void UseMeminfo(const char* path) {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, path, nullptr});
}

void UseMeminfoText(const char* text) {
  WriteFile("meminfo", text);
  UseMeminfo("meminfo");
}

TEST(SystemInformation, IsFourWordsInTheDocumentedOrder) {
  static_assert(sizeof(SystemInformation) == 4 * sizeof(uint64_t));
  UseMeminfoText("MemTotal: 1000 kB\nMemFree: 300 kB\n");
  SystemInformation info;
  uint64_t words[4];
  std::memcpy(words, static_cast<const void*>(&info), sizeof words);
  EXPECT_EQ(words[0], 1000u);
  EXPECT_EQ(words[1], 300u);
  EXPECT_EQ(words[2], static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
}

TEST(SystemInformation, ReadsTotalAndFreeMemoryInKilobytes) {
  UseMeminfoText(
      "MemTotal:       16318412 kB\nMemFree:         9127844 kB\n"
      "MemAvailable:   12000000 kB\n");
  SystemInformation info;
  EXPECT_EQ(info.totalMemory(), 16318412u);
  EXPECT_EQ(info.freeMemory(), 9127844u);
  EXPECT_EQ(info.pageSize(), sysconf(_SC_PAGESIZE));
}

TEST(SystemInformation, NamesAreMatchedAsSubstrings) {
  UseMeminfoText("xMemTotaly: 7\nHugeMemFree2: 3\n");
  SystemInformation info;
  EXPECT_EQ(info.totalMemory(), 7u);
  EXPECT_EQ(info.freeMemory(), 3u);
}

TEST(SystemInformation, WithoutMemFreeTheWholeFileIsReadAndTotalIsSet) {
  UseMeminfoText("Buffers: 1\nMemTotal: 500\nCached: 2\nSwapTotal: 9\n");
  SystemInformation info;
  EXPECT_EQ(info.totalMemory(), 500u);
  EXPECT_EQ(info.freeMemory(), 0u);
}

TEST(SystemInformation, ReadingStopsAtMemFree) {
  UseMeminfoText("MemFree: 5\nMemTotal: 9\n");
  SystemInformation info;
  EXPECT_EQ(info.freeMemory(), 5u);
  EXPECT_EQ(info.totalMemory(), 0u);
}

TEST(SystemInformation, LinesWithoutANameAndANumberAreSkipped) {
  UseMeminfoText(
      "garbage\n: 12\nMemTotal: not-a-number\nMemTotal 99\nMemTotal: 42 kB\n"
      "MemFree:\nMemFree: 17\n");
  SystemInformation info;
  EXPECT_EQ(info.totalMemory(), 42u);
  EXPECT_EQ(info.freeMemory(), 17u);
}

TEST(SystemInformation, UnreadableFileLeavesTheFiguresAsTheyWere) {
  UseMeminfoText("MemTotal: 100\nMemFree: 50\n");
  SystemInformation info;
  UseMeminfo("no-such-file");
  info.Update();
  EXPECT_EQ(info.totalMemory(), 100u);
  EXPECT_EQ(info.freeMemory(), 50u);
}

TEST(SystemInformation, UnreadableFileAtConstructionGivesZeros) {
  UseMeminfo("no-such-file");
  SystemInformation info;
  EXPECT_EQ(info.totalMemory(), 0u);
  EXPECT_EQ(info.freeMemory(), 0u);
}

TEST(SystemInformation, EachUpdateTakesTheCurrentValues) {
  UseMeminfoText("MemTotal: 100\nMemFree: 50\n");
  SystemInformation info;
  UseMeminfoText("MemTotal: 100\nMemFree: 40\n");
  info.Update();
  EXPECT_EQ(info.freeMemory(), 40u);
  UseMeminfoText("MemTotal: 120\nMemFree: 30\n");
  info.Update();
  EXPECT_EQ(info.totalMemory(), 120u);
  EXPECT_EQ(info.freeMemory(), 30u);
}

TEST(SystemInformation, RealMeminfoGivesPlausibleFigures) {
  UseMeminfo(nullptr);
  SystemInformation info;
  EXPECT_GT(info.totalMemory(), 0u);
  EXPECT_GT(info.freeMemory(), 0u);
  EXPECT_LE(info.freeMemory(), info.totalMemory());
}

TEST(SystemInformation, PageSizeAlignedValueRoundsUpToWholePages) {
  SystemInformation info;
  const unsigned long page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(info.getPageSizeAlignedValue(0), 0u);
  EXPECT_EQ(info.getPageSizeAlignedValue(1), page);
  EXPECT_EQ(info.getPageSizeAlignedValue(page - 1), page);
  EXPECT_EQ(info.getPageSizeAlignedValue(page), page);
  EXPECT_EQ(info.getPageSizeAlignedValue(page + 1), 2 * page);
  EXPECT_EQ(info.getPageSizeAlignedValue(10 * page), 10 * page);
}

TEST(SystemInformation, PageSizeAlignedValueWithFourKilobytePages) {
  if (sysconf(_SC_PAGESIZE) != 4096) GTEST_SKIP() << "page size is not 4096";
  SystemInformation info;
  EXPECT_EQ(info.getPageSizeAlignedValue(0), 0u);
  EXPECT_EQ(info.getPageSizeAlignedValue(1), 4096u);
  EXPECT_EQ(info.getPageSizeAlignedValue(4096), 4096u);
  EXPECT_EQ(info.getPageSizeAlignedValue(4097), 8192u);
}

TEST(SystemInformation, GetValueReturnsTheUntouchedFourthWordWhateverTheMetric) {
  UseMeminfoText("MemTotal: 1\nMemFree: 1\n");
  alignas(SystemInformation) unsigned char storage[sizeof(SystemInformation)];
  std::memset(storage, 0xA5, sizeof storage);
  SystemInformation* info = new (storage) SystemInformation();
  const SystemInformation::MetricType metric = SystemInformation::kValueWord;
  EXPECT_EQ(info->getValue(metric), 0xA5A5A5A5A5A5A5A5u);
  info->Update();
  EXPECT_EQ(info->getValue(static_cast<SystemInformation::MetricType>(3)), 0xA5A5A5A5A5A5A5A5u);
  info->~SystemInformation();
}

TEST(SystemInformation, StaticObjectHasAZeroValueWord) {
  static SystemInformation info;
  EXPECT_EQ(info.getValue(SystemInformation::kValueWord), 0u);
}

}  // namespace
