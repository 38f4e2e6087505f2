// Streams: opening above the standard descriptors, wide paths and the thin
// wrappers.
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "support/test_files.h"
#include "sync/lock_test_support.h"
#include "util/child_process.h"

namespace {

using kyrt_test::ExitStatusOfChild;
using kyrt_test::IsClosed;
using kyrt_test::ReadFile;
using kyrt_test::WriteFile;

constexpr int kHighestStandardDescriptor = 2;

// Exit codes of the children below: 0 when every check held, else the
// number of the first check that failed.
constexpr int kAllChecksHeld = 0;

void CloseStandardDescriptors() {
  for (int fd = 0; fd <= kHighestStandardDescriptor; ++fd) close(fd);
}

bool StandardDescriptorsAreClosed() {
  for (int fd = 0; fd <= kHighestStandardDescriptor; ++fd) {
    if (!IsClosed(fd)) return false;
  }
  return true;
}

using Streams = kyrt_test::RuntimeTest;

TEST_F(Streams, FopenOpensAnExistingFile) {
  WriteFile("in.txt", "content");
  int error = -1;
  FILE* stream = __KyFopen("in.txt", "r", &error);
  ASSERT_NE(stream, nullptr);
  EXPECT_GT(fileno(stream), kHighestStandardDescriptor);
  char buffer[16] = {};
  EXPECT_EQ(std::fread(buffer, 1, sizeof buffer - 1, stream), 7u);
  EXPECT_STREQ(buffer, "content");
  std::fclose(stream);
}

TEST_F(Streams, FopenOfAMissingFileIsNullWithTheErrorStored) {
  int error = 0;
  EXPECT_EQ(__KyFopen("missing.txt", "r", &error), nullptr);
  EXPECT_EQ(error, ENOENT);
}

TEST_F(Streams, FopenWithoutAnErrorOutputStillWorks) {
  EXPECT_EQ(__KyFopen("missing.txt", "r", nullptr), nullptr);
  FILE* stream = __KyFopen("new.txt", "w", nullptr);
  ASSERT_NE(stream, nullptr);
  std::fclose(stream);
}

TEST_F(Streams, FopenWithTheStandardDescriptorsClosedLandsAboveThem) {
  const int status = ExitStatusOfChild([] {
    CloseStandardDescriptors();
    int error = -1;
    FILE* stream = __KyFopen("out.txt", "w", &error);
    if (stream == nullptr) return 1;
    if (fileno(stream) <= kHighestStandardDescriptor) return 2;
    // The low descriptors the first open and its duplicates took are free
    // again.
    if (!StandardDescriptorsAreClosed()) return 3;
    if (std::fputs("written", stream) < 0 || std::fclose(stream) != 0) return 4;
    return kAllChecksHeld;
  });
  EXPECT_EQ(status, kAllChecksHeld);
  EXPECT_EQ(ReadFile("out.txt"), "written");
}

TEST_F(Streams, FopenWithOneStandardDescriptorClosedLandsAboveThem) {
  for (int closedFd = 0; closedFd <= kHighestStandardDescriptor; ++closedFd) {
    const int status = ExitStatusOfChild([closedFd] {
      close(closedFd);
      FILE* stream = __KyFopen("out.txt", "w", nullptr);
      if (stream == nullptr) return 1;
      if (fileno(stream) <= kHighestStandardDescriptor) return 2;
      if (!IsClosed(closedFd)) return 3;
      return kAllChecksHeld;
    });
    EXPECT_EQ(status, kAllChecksHeld) << "descriptor " << closedFd << " closed";
  }
}

TEST_F(Streams, FopenGivesUpWhenADuplicateCannotBeMade) {
  // With room for three descriptors only, the third duplicate of the first
  // open's descriptor fails.
  const int status = ExitStatusOfChild([] {
    CloseStandardDescriptors();
    const struct rlimit three = {3, 3};
    if (setrlimit(RLIMIT_NOFILE, &three) != 0) return 1;
    if (__KyFopen("out.txt", "w", nullptr) != nullptr) return 2;
    // The open's descriptor and the two duplicates are all closed again.
    if (!StandardDescriptorsAreClosed()) return 3;
    return kAllChecksHeld;
  });
  EXPECT_EQ(status, kAllChecksHeld);
}

TEST_F(Streams, FopenReportsTheSecondOpenWhenItFails) {
  // "x" makes the file's creation exclusive: the first open creates it, so
  // the second one, made to land above the standard descriptors, fails.
  const int status = ExitStatusOfChild([] {
    CloseStandardDescriptors();
    int error = 0;
    if (__KyFopen("exclusive.txt", "wx", &error) != nullptr) return 1;
    if (error != EEXIST) return 2;
    if (!StandardDescriptorsAreClosed()) return 3;
    return kAllChecksHeld;
  });
  EXPECT_EQ(status, kAllChecksHeld);
  EXPECT_EQ(access("exclusive.txt", F_OK), 0);
}

TEST_F(Streams, FopenOfAMissingFileWithTheStandardDescriptorsClosedFails) {
  const int status = ExitStatusOfChild([] {
    CloseStandardDescriptors();
    int error = 0;
    if (__KyFopen("missing.txt", "r", &error) != nullptr) return 1;
    if (error != ENOENT) return 2;
    if (!StandardDescriptorsAreClosed()) return 3;
    return kAllChecksHeld;
  });
  EXPECT_EQ(status, kAllChecksHeld);
}

class WideStreams : public Streams {
 protected:
  void SetUp() override {
    Streams::SetUp();
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  }
  void TearDown() override { std::setlocale(LC_ALL, "C"); }
};

TEST_F(WideStreams, WFopenOpensTheUtf8Path) {
  WriteFile("caf\xC3\xA9.txt", "wide");
  int error = -1;
  FILE* stream = __KyWFopen(L"caf\u00E9.txt", L"r", &error);
  ASSERT_NE(stream, nullptr);
  char buffer[8] = {};
  EXPECT_EQ(std::fread(buffer, 1, sizeof buffer - 1, stream), 4u);
  EXPECT_STREQ(buffer, "wide");
  std::fclose(stream);
}

TEST_F(WideStreams, WFopenOfAMissingFileIsNullWithTheErrorStored) {
  int error = 0;
  EXPECT_EQ(__KyWFopen(L"missing.txt", L"r", &error), nullptr);
  EXPECT_EQ(error, ENOENT);
}

TEST_F(WideStreams, WFopenIsNullWhenAConversionFails) {
  const wchar_t unconvertible[] = {L'a', static_cast<wchar_t>(0xD800), L'\0'};
  int error = 12345;
  EXPECT_EQ(__KyWFopen(unconvertible, L"w", &error), nullptr);
  EXPECT_EQ(__KyWFopen(L"out.txt", unconvertible, &error), nullptr);
  EXPECT_EQ(__KyWFopen(nullptr, L"w", &error), nullptr);
  EXPECT_EQ(__KyWFopen(L"out.txt", nullptr, &error), nullptr);
  // No open was attempted: nothing stored, nothing created.
  EXPECT_EQ(error, 12345);
  EXPECT_NE(access("out.txt", F_OK), 0);
}

TEST_F(WideStreams, WFopenDoesNotProtectTheStandardDescriptors) {
  const int status = ExitStatusOfChild([] {
    close(0);
    FILE* stream = __KyWFopen(L"out.txt", L"w", nullptr);
    if (stream == nullptr) return 1;
    return fileno(stream) == 0 ? kAllChecksHeld : 2;
  });
  EXPECT_EQ(status, kAllChecksHeld);
}

TEST_F(Streams, WrappersBehaveAsTheCLibrary) {
  FILE* stream = __KyFopen("data.txt", "w+", nullptr);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(__KyFwrite("line one\nline two\n", 1, 18, stream), 18u);
  EXPECT_EQ(__KyFflush(stream), 0);
  EXPECT_EQ(ReadFile("data.txt"), "line one\nline two\n");
  EXPECT_EQ(__KyFtell(stream), 18);
  EXPECT_EQ(__KyFseek(stream, 5, SEEK_SET), 0);
  EXPECT_EQ(__KyFtell(stream), 5);
  char word[4] = {};
  EXPECT_EQ(__KyFread(word, 1, 3, stream), 3u);
  EXPECT_STREQ(word, "one");
  char line[32];
  EXPECT_EQ(__KyFgets(line, sizeof line, stream), line);
  EXPECT_STREQ(line, "\n");
  EXPECT_EQ(__KyFgets(line, sizeof line, stream), line);
  EXPECT_STREQ(line, "line two\n");
  EXPECT_EQ(__KyFgets(line, sizeof line, stream), nullptr);
  EXPECT_EQ(__KyFread(word, 1, 3, stream), 0u);
  EXPECT_EQ(__KyFseek(stream, -100, SEEK_SET), -1);
  EXPECT_EQ(__KyFclose(stream), 0);
}

TEST_F(Streams, FwriteCountsWholeItems) {
  FILE* stream = __KyFopen("items.bin", "w", nullptr);
  ASSERT_NE(stream, nullptr);
  const uint32_t items[3] = {1, 2, 3};
  EXPECT_EQ(__KyFwrite(items, sizeof items[0], 3, stream), 3u);
  EXPECT_EQ(__KyFclose(stream), 0);
  EXPECT_EQ(ReadFile("items.bin").size(), sizeof items);
}

}  // namespace
