// C string helpers: duplication, white-space trimming, bounded copies and
// lower-casing.
#include <clocale>
#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "kyrt/memory.h"
#include "sync/lock_test_support.h"

namespace {

using CStrings = kyrt_test::RuntimeTest;

using BoundedCopy = char* (*)(char*, const char*, size_t);
constexpr BoundedCopy kBoundedCopies[] = {__KyStrncpy, __KyStrSCncpy};

TEST_F(CStrings, StrdupOfNullIsNull) {
  EXPECT_EQ(__KyStrdup(nullptr), nullptr);
}

TEST_F(CStrings, StrdupMakesASeparateCopy) {
  char original[] = "some text";
  char* copy = __KyStrdup(original);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, original);
  EXPECT_STREQ(copy, "some text");
  original[0] = 'S';
  EXPECT_STREQ(copy, "some text");
  __KyFree(copy);
}

TEST_F(CStrings, StrdupOfTheEmptyStringIsAnEmptyString) {
  char* copy = __KyStrdup("");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "");
  __KyFree(copy);
}

TEST_F(CStrings, StripWhiteSpacesOfNullIsNull) {
  EXPECT_EQ(__KyStripWhiteSpaces(nullptr), nullptr);
}

TEST_F(CStrings, StripWhiteSpacesPointsIntoTheBufferAndCutsTheEnd) {
  char text[] = "  a b  ";
  char* result = __KyStripWhiteSpaces(text);
  EXPECT_EQ(result, text + 2);
  EXPECT_STREQ(result, "a b");
  // Leading blanks are skipped, not removed; both trailing blanks are NULs.
  EXPECT_EQ(text[0], ' ');
  EXPECT_EQ(text[1], ' ');
  EXPECT_EQ(text[5], '\0');
  EXPECT_EQ(text[6], '\0');
}

TEST_F(CStrings, StripWhiteSpacesKnowsEveryWhiteSpaceCharacter) {
  char text[] = "\t\n\v\f\r x \t\n\v\f\r";
  char* result = __KyStripWhiteSpaces(text);
  EXPECT_EQ(result, text + 6);
  EXPECT_STREQ(result, "x");
}

TEST_F(CStrings, StripWhiteSpacesLeavesTextWithoutWhiteSpaceAlone) {
  char text[] = "abc";
  EXPECT_EQ(__KyStripWhiteSpaces(text), text);
  EXPECT_STREQ(text, "abc");
}

TEST_F(CStrings, StripWhiteSpacesOfAnAllBlankStringStopsAtItsStart) {
  // The byte before the string is a blank too: the trailing scan must not
  // reach it.
  char storage[] = "    ";
  char* text = storage + 1;
  char* result = __KyStripWhiteSpaces(text);
  EXPECT_EQ(result, text);
  EXPECT_STREQ(result, "");
  EXPECT_EQ(storage[0], ' ');
  EXPECT_EQ(std::memcmp(text, "\0\0\0", 4), 0);
}

TEST_F(CStrings, StripWhiteSpacesOfAnEmptyStringStopsAtItsStart) {
  char storage[] = " ";
  char* text = storage + 1;
  EXPECT_EQ(__KyStripWhiteSpaces(text), text);
  EXPECT_EQ(storage[0], ' ');
}

TEST_F(CStrings, BoundedCopyOfZeroBytesTouchesNothing) {
  for (BoundedCopy copy : kBoundedCopies) {
    char destination[] = "xxxx";
    EXPECT_EQ(copy(destination, "abc", 0), destination);
    EXPECT_STREQ(destination, "xxxx");
  }
}

TEST_F(CStrings, BoundedCopyPadsAShortSourceWithNuls) {
  for (BoundedCopy copy : kBoundedCopies) {
    char destination[] = "xxxxxx";
    EXPECT_EQ(copy(destination, "ab", 5), destination);
    EXPECT_EQ(std::memcmp(destination, "ab\0\0\0x", 6), 0);
  }
}

TEST_F(CStrings, BoundedCopyCutsALongSourceAndTerminatesIt) {
  for (BoundedCopy copy : kBoundedCopies) {
    char destination[] = "xxxxxx";
    EXPECT_EQ(copy(destination, "abcdef", 4), destination);
    EXPECT_EQ(std::memcmp(destination, "abc\0xx", 6), 0);
  }
}

TEST_F(CStrings, BoundedCopyOfASourceFillingTheBufferLosesItsLastCharacter) {
  for (BoundedCopy copy : kBoundedCopies) {
    char destination[] = "xxxxxx";
    copy(destination, "abcd", 4);
    EXPECT_STREQ(destination, "abc");
    copy(destination, "abc", 4);
    EXPECT_STREQ(destination, "abc");
  }
}

TEST_F(CStrings, BoundedCopyOfOneByteGivesAnEmptyString) {
  for (BoundedCopy copy : kBoundedCopies) {
    char destination[] = "xx";
    copy(destination, "abc", 1);
    EXPECT_EQ(destination[0], '\0');
    EXPECT_EQ(destination[1], 'x');
  }
}

TEST_F(CStrings, LowerCaseConvertsAsciiLettersOnly) {
  char text[] = "HeLLo, WORLD 123 [Z]";
  __KyConvertUtf8ToLowerCase(text);
  EXPECT_STREQ(text, "hello, world 123 [z]");
}

TEST_F(CStrings, LowerCaseLeavesMultiByteSequencesAlone) {
  char text[] =
      "\xC3\x84"
      "BC\xC3\x96";  // "ÄBCÖ" in UTF-8
  __KyConvertUtf8ToLowerCase(text);
  EXPECT_STREQ(text,
               "\xC3\x84"
               "bc\xC3\x96");
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  char again[] =
      "\xC3\x84"
      "X";
  __KyConvertUtf8ToLowerCase(again);
  std::setlocale(LC_ALL, "C");
  EXPECT_STREQ(again,
               "\xC3\x84"
               "x");
}

TEST_F(CStrings, LowerCaseIgnoresNullAndEmpty) {
  __KyConvertUtf8ToLowerCase(nullptr);
  char empty[] = "";
  __KyConvertUtf8ToLowerCase(empty);
  EXPECT_STREQ(empty, "");
}

}  // namespace
