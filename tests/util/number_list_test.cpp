// Splitting separated lists of numbers.
#include <climits>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/strings.h"

namespace {

using Numbers = std::vector<unsigned long>;

Numbers Split(const char* text, char separator, Numbers out = {}) {
  kyrt::StrToNums(text, separator, out);
  return out;
}

TEST(StrToNums, SplitsAtTheSeparator) {
  EXPECT_EQ(Split("1,2,3", ','), (Numbers{1, 2, 3}));
  EXPECT_EQ(Split("5", ','), (Numbers{5}));
  EXPECT_EQ(Split("10;200;3000", ';'), (Numbers{10, 200, 3000}));
}

TEST(StrToNums, ASeparatorAtTheEndEndsTheList) {
  EXPECT_EQ(Split("1,2,", ','), (Numbers{1, 2}));
  EXPECT_EQ(Split(",", ','), (Numbers{0}));
}

TEST(StrToNums, AppendsToWhatIsThere) {
  EXPECT_EQ(Split("1,2", ',', {9}), (Numbers{9, 1, 2}));
}

TEST(StrToNums, NullOrEmptyTextAppendsNothing) {
  EXPECT_EQ(Split(nullptr, ',', {9}), (Numbers{9}));
  EXPECT_EQ(Split("", ',', {9}), (Numbers{9}));
}

TEST(StrToNums, AnItemNotStartingWithANumberGivesZero) {
  EXPECT_EQ(Split("1,,2", ','), (Numbers{1, 0, 2}));
  EXPECT_EQ(Split(",5", ','), (Numbers{0, 5}));
  EXPECT_EQ(Split("a,3", ','), (Numbers{0, 3}));
}

TEST(StrToNums, EachItemIsReadAsAtolReadsIt) {
  EXPECT_EQ(Split("12abc,4", ','), (Numbers{12, 4}));
  EXPECT_EQ(Split(" 7, +8", ','), (Numbers{7, 8}));
  // A signed value stored as unsigned.
  EXPECT_EQ(Split("-1,2", ','), (Numbers{ULONG_MAX, 2}));
  EXPECT_EQ(Split("9223372036854775807", ','), (Numbers{9223372036854775807UL}));
}

TEST(StrToNums, AnotherSeparatorLeavesOneItem) {
  EXPECT_EQ(Split("1,2", ';'), (Numbers{1}));
}

TEST(StrToNums, ANulSeparatorLeavesOneItem) {
  EXPECT_EQ(Split("1,2", '\0'), (Numbers{1}));
}

}  // namespace
