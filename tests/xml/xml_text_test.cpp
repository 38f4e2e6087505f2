// Escaping of values and folding of comment text.
#include "xml/xml_text.h"

#include <string>

#include "gtest/gtest.h"

namespace {

std::string Escape(const char* text, std::size_t size = 256) {
  std::string buffer(size, '\x7f');
  const std::size_t length = kyrt::EscapeXmlText(text, buffer.data(), size);
  EXPECT_EQ(buffer[length], '\0');
  return buffer.substr(0, length);
}

std::string Collapse(std::string text) {
  text.resize(kyrt::CollapseDashRuns(text.data()));
  return text;
}

TEST(EscapeXmlText, ReplacesTheFiveSpecialCharacters) {
  EXPECT_EQ(Escape("\"&'<>"), "&quot;&amp;&apos;&lt;&gt;");
  EXPECT_EQ(Escape("x<y & 'z'"), "x&lt;y &amp; &apos;z&apos;");
}

TEST(EscapeXmlText, CopiesEveryOtherByteUnchanged) {
  EXPECT_EQ(Escape("tab\there\x01\x7f\xc3\xa9"), "tab\there\x01\x7f\xc3\xa9");
}

TEST(EscapeXmlText, EmptyAndNullGiveAnEmptyString) {
  EXPECT_EQ(Escape(""), "");
  EXPECT_EQ(Escape(nullptr), "");
}

TEST(EscapeXmlText, StopsBeforeTheLastByteOfTheBuffer) {
  EXPECT_EQ(Escape("abcdef", 4), "abc");
  EXPECT_EQ(Escape("abc", 4), "abc");
  EXPECT_EQ(Escape("x", 1), "");
}

TEST(EscapeXmlText, NeverEndsInAPartialEntity) {
  EXPECT_EQ(Escape("ab&c", 7), "ab");       // "&amp;" needs 5 more: 2 + 5 > 6
  EXPECT_EQ(Escape("ab&c", 8), "ab&amp;");  // exactly fits before the last byte
  EXPECT_EQ(Escape("a<b", 5), "a");
}

TEST(CollapseDashRuns, FoldsRunsOfDashesIntoOne) {
  EXPECT_EQ(Collapse("a--b---c"), "a-b-c");
  EXPECT_EQ(Collapse("--"), "-");
  EXPECT_EQ(Collapse("-a-"), "-a-");
  EXPECT_EQ(Collapse("x----------y--"), "x-y-");
  EXPECT_EQ(Collapse("no dashes & <tags>"), "no dashes & <tags>");
  EXPECT_EQ(Collapse(""), "");
}

}  // namespace
