// Reading small system files line by line.
#include "util/line_reader.h"

#include <cstdio>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/test_files.h"

namespace {

std::vector<std::string> ReadLines(const std::string& content, std::size_t stopAfter = 1000) {
  kyrt_test::WriteFile("lines", content);
  std::FILE* file = std::fopen("lines", "r");
  std::vector<std::string> lines;
  kyrt::ForEachLine<8>(file, [&](const char* line) {
    lines.emplace_back(line);
    return lines.size() < stopAfter;
  });
  std::fclose(file);
  return lines;
}

TEST(LineReader, HandsOverLinesWithoutTheirNewLine) {
  EXPECT_EQ(ReadLines("ab\ncd\n\nef"), (std::vector<std::string>{"ab", "cd", "", "ef"}));
}

TEST(LineReader, CutsLongLinesToTheBufferAndSkipsTheirRest) {
  EXPECT_EQ(ReadLines("0123456789abc\nxy\n0123456\n"),
            (std::vector<std::string>{"0123456", "xy", "0123456"}));
}

TEST(LineReader, StopsWhenTheVisitorSaysSo) {
  EXPECT_EQ(ReadLines("a\nb\nc\n", 2), (std::vector<std::string>{"a", "b"}));
}

TEST(LineReader, EmptyFileGivesNoLine) {
  EXPECT_TRUE(ReadLines("").empty());
}

}  // namespace
