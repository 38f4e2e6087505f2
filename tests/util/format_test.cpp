// The printf family behind the runtime's names.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "support/test_files.h"

namespace {

int FormatThroughVsnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = __KyVsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return written;
}

using SizedFormatter = int (*)(char*, size_t, const char*, ...);
constexpr SizedFormatter kSizedFormatters[] = {__KySnprintf, __KySCnprintf, FormatThroughVsnprintf};

TEST(Format, FprintfWritesToTheStreamAndCountsTheCharacters) {
  FILE* stream = std::fopen("out.txt", "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(__KyFprintf(stream, "%d-%s-%c", 42, "abc", 'z'), 8);
  std::fclose(stream);
  EXPECT_EQ(kyrt_test::ReadFile("out.txt"), "42-abc-z");
}

TEST(Format, SizedFormattersWriteWhatFits) {
  for (SizedFormatter format : kSizedFormatters) {
    char buffer[16];
    EXPECT_EQ(format(buffer, sizeof buffer, "%s=%u", "n", 7u), 3);
    EXPECT_STREQ(buffer, "n=7");
  }
}

TEST(Format, SizedFormattersCutAndTerminateAndReturnTheFullLength) {
  for (SizedFormatter format : kSizedFormatters) {
    char buffer[] = "xxxxxxxx";
    EXPECT_EQ(format(buffer, 5, "%s", "abcdefgh"), 8);
    EXPECT_EQ(std::memcmp(buffer, "abcd\0xxx", 9), 0);
  }
}

TEST(Format, SizedFormattersWithSizeZeroOnlyMeasure) {
  for (SizedFormatter format : kSizedFormatters) {
    char buffer[] = "xx";
    EXPECT_EQ(format(buffer, 0, "%05d", 12), 5);
    EXPECT_STREQ(buffer, "xx");
    EXPECT_EQ(format(nullptr, 0, "%s", "abc"), 3);
  }
}

TEST(Format, SizedFormattersOfOneByteGiveAnEmptyString) {
  for (SizedFormatter format : kSizedFormatters) {
    char buffer[] = "xx";
    EXPECT_EQ(format(buffer, 1, "%s", "abc"), 3);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'x');
  }
}

}  // namespace
