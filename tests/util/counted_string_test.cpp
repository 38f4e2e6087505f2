// Counted strings: layout, setting, appending, growth and release.
#include <cstddef>
#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/strings.h"
#include "sync/lock_test_support.h"

namespace {

class CountedString : public kyrt_test::RuntimeTest {
 protected:
  void TearDown() override { __KyStrDestroy(string_); }

  // The string under test, destroyed when the case ends.
  KyString* Make(uint32_t capacity, const char* init, uint32_t category = 0) {
    string_ = __KyStrAlloc(category, capacity, init);
    return string_;
  }

  KyString* string_ = nullptr;
};

void ExpectState(const KyString* string, const char* text, uint32_t capacity) {
  EXPECT_STREQ(string->text, text);
  EXPECT_EQ(string->length, std::strlen(text));
  EXPECT_EQ(string->capacity, capacity);
}

TEST(CountedStringLayout, FieldsSitAtTheirFixedOffsets) {
  static_assert(offsetof(KyString, length) == 0);
  static_assert(offsetof(KyString, capacity) == 4);
  static_assert(offsetof(KyString, category) == 8);
  static_assert(offsetof(KyString, text) == 16);
  static_assert(sizeof(KyString) == 24);
  SUCCEED();
}

TEST_F(CountedString, AllocKeepsTheCapacityWhenTheTextFits) {
  KyString* string = Make(4, "abc");
  ASSERT_NE(string, nullptr);
  ExpectState(string, "abc", 4);
  EXPECT_EQ(string->category, 0u);
}

TEST_F(CountedString, AllocRecordsTheCategory) {
  const uint32_t category = __KyRegisterMemoryCategory("counted strings");
  ASSERT_NE(category, KY_INVALID_MEMORY_CATEGORY);
  KyString* string = Make(16, "text", category);
  EXPECT_EQ(string->category, category);
  ExpectState(string, "text", 16);
}

TEST_F(CountedString, AllocOfATextThatDoesNotFitDoublesItsLength) {
  ExpectState(Make(2, "abcdef"), "abcdef", 12);
}

TEST_F(CountedString, SetToATextOneTooLongDoublesItsLength) {
  KyString* string = Make(4, "abc");
  EXPECT_EQ(__KyStrSet(string, "abcd"), string);
  ExpectState(string, "abcd", 8);
}

TEST_F(CountedString, SetToAShorterTextKeepsTheBuffer) {
  KyString* string = Make(8, "abcdefg");
  const char* before = string->text;
  EXPECT_EQ(__KyStrSet(string, "xy"), string);
  ExpectState(string, "xy", 8);
  EXPECT_EQ(string->text, before);
}

TEST_F(CountedString, SetToTheEmptyTextKeepsTheCapacity) {
  KyString* string = Make(8, "abc");
  __KyStrSet(string, "");
  ExpectState(string, "", 8);
}

TEST_F(CountedString, SetToAPartOfItsOwnText) {
  KyString* string = Make(8, "abcdef");
  __KyStrSet(string, string->text + 2);
  ExpectState(string, "cdef", 8);
}

TEST_F(CountedString, SetOfANullStringDoesNothing) {
  EXPECT_EQ(__KyStrSet(nullptr, "abc"), nullptr);
}

TEST_F(CountedString, SetToANullTextSetsTheEmptyText) {
  KyString* string = Make(8, "abc");
  EXPECT_EQ(__KyStrSet(string, nullptr), string);
  ExpectState(string, "", 8);
}

TEST_F(CountedString, AllocWithoutAnInitialTextIsEmpty) {
  ExpectState(Make(8, nullptr), "", 8);
}

TEST_F(CountedString, AnEmptyTextInNoRoomGetsRoomForItsNul) {
  ExpectState(Make(0, ""), "", 1);
}

TEST_F(CountedString, AppendThatFitsKeepsTheCapacity) {
  KyString* string = Make(8, "abcd");
  const char* before = string->text;
  __KyStrAppend(string, "xy");  // 4 + 2 + 1 = 7 bytes
  ExpectState(string, "abcdxy", 8);
  EXPECT_EQ(string->text, before);
}

TEST_F(CountedString, AppendFillingTheBufferExactlyKeepsTheCapacity) {
  KyString* string = Make(8, "abcd");
  __KyStrAppend(string, "xyz");  // 4 + 3 + 1 = 8 bytes
  ExpectState(string, "abcdxyz", 8);
}

TEST_F(CountedString, AppendThatDoesNotFitGrowsToTwiceCapacityPlusTheText) {
  KyString* string = Make(8, "abcd");
  __KyStrAppend(string, "xyzw");  // (8 + 4) x 2
  ExpectState(string, "abcdxyzw", 24);
}

TEST_F(CountedString, AppendOneByteTooManyGrows) {
  KyString* string = Make(8, "abcdxyz");
  __KyStrAppend(string, "q");  // (8 + 1) x 2
  ExpectState(string, "abcdxyzq", 18);
}

TEST_F(CountedString, AppendOfItsOwnText) {
  KyString* string = Make(3, "ab");
  __KyStrAppend(string, string->text);  // grows: (3 + 2) x 2
  ExpectState(string, "abab", 10);
  __KyStrAppend(string, string->text);  // fits: 4 + 4 + 1 = 9
  ExpectState(string, "abababab", 10);
}

TEST_F(CountedString, AppendOfTheEmptyTextChangesNothing) {
  KyString* string = Make(4, "abc");
  __KyStrAppend(string, "");
  ExpectState(string, "abc", 4);
}

TEST_F(CountedString, AppendIgnoresNulls) {
  KyString* string = Make(4, "abc");
  __KyStrAppend(string, nullptr);
  __KyStrAppend(nullptr, "x");
  ExpectState(string, "abc", 4);
}

TEST_F(CountedString, RepeatedAppendsKeepTheWholeText) {
  KyString* string = Make(1, "");
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    const char piece[] = {static_cast<char>('a' + i % 26), '\0'};
    __KyStrAppend(string, piece);
    expected += piece;
  }
  EXPECT_STREQ(string->text, expected.c_str());
  EXPECT_EQ(string->length, 100u);
  EXPECT_GE(string->capacity, 101u);
}

TEST_F(CountedString, DestroyIgnoresNull) {
  __KyStrDestroy(nullptr);
  SUCCEED();
}

}  // namespace
