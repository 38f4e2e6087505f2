// Multi-byte (UTF-8) and wide-text conversion.
#include <clocale>
#include <cstring>
#include <cwchar>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/strings.h"
#include "sync/lock_test_support.h"

namespace {

constexpr wchar_t kWideSentinel = L'#';
constexpr char kSentinel = '#';

// "héllo": five characters, six bytes in UTF-8.
constexpr const char* kUtf8Text = "h\xC3\xA9llo";
constexpr const wchar_t* kWideText = L"h\u00E9llo";
constexpr size_t kCharacters = 5;
constexpr size_t kUtf8Bytes = 6;

// Wide size limit of kUtf8Text in bytes: (n + 1) x 4.
constexpr size_t kWideSizeLimit = (kCharacters + 1) * 4;
// Multi-byte size limit of kWideText: n + 1.
constexpr size_t kUtf8SizeLimit = kUtf8Bytes + 1;

class TextConversion : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    std::wmemset(wide_, kWideSentinel, kBufferLength);
    std::memset(narrow_, kSentinel, kBufferLength);
  }
  void TearDown() override { std::setlocale(LC_ALL, "C"); }

  bool WideUntouchedFrom(size_t first) const {
    for (size_t i = first; i < kBufferLength; ++i) {
      if (wide_[i] != kWideSentinel) return false;
    }
    return true;
  }
  bool NarrowUntouchedFrom(size_t first) const {
    for (size_t i = first; i < kBufferLength; ++i) {
      if (narrow_[i] != kSentinel) return false;
    }
    return true;
  }

  static constexpr size_t kBufferLength = 32;
  wchar_t wide_[kBufferLength];
  char narrow_[kBufferLength];
};

const wchar_t kUnconvertibleWide[] = {L'a', static_cast<wchar_t>(0xD800), L'\0'};

TEST_F(TextConversion, Utf8ToWstringWritesTheCharactersWithoutATerminator) {
  EXPECT_EQ(__KyUtf8ToWstring(wide_, kWideSizeLimit, kUtf8Text), kCharacters);
  EXPECT_EQ(std::wmemcmp(wide_, kWideText, kCharacters), 0);
  EXPECT_TRUE(WideUntouchedFrom(kCharacters));
}

TEST_F(TextConversion, Utf8ToWstringRefusesADestinationLargerThanNeeded) {
  EXPECT_EQ(__KyUtf8ToWstring(wide_, kWideSizeLimit + 1, kUtf8Text), 0u);
  EXPECT_EQ(__KyUtf8ToWstring(wide_, sizeof wide_, kUtf8Text), 0u);
  EXPECT_TRUE(WideUntouchedFrom(0));
}

TEST_F(TextConversion, Utf8ToWstringTrustsASmallerSize) {
  // The size only guards against too large a destination: a smaller size
  // still converts every character.
  EXPECT_EQ(__KyUtf8ToWstring(wide_, 1, kUtf8Text), kCharacters);
  EXPECT_EQ(std::wmemcmp(wide_, kWideText, kCharacters), 0);
}

TEST_F(TextConversion, Utf8ToWstringOfNothingWritesNothing) {
  EXPECT_EQ(__KyUtf8ToWstring(wide_, 4, ""), 0u);
  EXPECT_EQ(__KyUtf8ToWstring(wide_, 0, nullptr), 0u);
  EXPECT_TRUE(WideUntouchedFrom(0));
}

TEST_F(TextConversion, Utf8ToWstringOfInvalidUtf8WritesNothing) {
  EXPECT_EQ(__KyUtf8ToWstring(wide_, 0, "a\xFF"), 0u);
  EXPECT_EQ(__KyUtf8ToWstring(wide_, 8, "a\xFF"), 0u);
  EXPECT_TRUE(WideUntouchedFrom(0));
}

TEST_F(TextConversion, WstringToUtf8WritesTheBytesWithoutATerminator) {
  EXPECT_EQ(__KyWstringToUtf8(narrow_, kUtf8SizeLimit, kWideText), kUtf8Bytes);
  EXPECT_EQ(std::memcmp(narrow_, kUtf8Text, kUtf8Bytes), 0);
  EXPECT_TRUE(NarrowUntouchedFrom(kUtf8Bytes));
}

TEST_F(TextConversion, WstringToUtf8RefusesADestinationLargerThanNeeded) {
  EXPECT_EQ(__KyWstringToUtf8(narrow_, kUtf8SizeLimit + 1, kWideText), 0u);
  EXPECT_TRUE(NarrowUntouchedFrom(0));
}

TEST_F(TextConversion, WstringToUtf8TrustsASmallerSize) {
  EXPECT_EQ(__KyWstringToUtf8(narrow_, 1, kWideText), kUtf8Bytes);
  EXPECT_EQ(std::memcmp(narrow_, kUtf8Text, kUtf8Bytes), 0);
}

TEST_F(TextConversion, WstringToUtf8OfNothingOrOfTheUnconvertibleWritesNothing) {
  EXPECT_EQ(__KyWstringToUtf8(narrow_, 1, L""), 0u);
  EXPECT_EQ(__KyWstringToUtf8(narrow_, 0, nullptr), 0u);
  EXPECT_EQ(__KyWstringToUtf8(narrow_, 0, kUnconvertibleWide), 0u);
  EXPECT_TRUE(NarrowUntouchedFrom(0));
}

TEST_F(TextConversion, TheLocaleDecidesTheEncoding) {
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(__KyUtf8ToWstring(wide_, kWideSizeLimit, kUtf8Text), 0u);
  EXPECT_EQ(__KyAllocateAndConvertUtf8ToWstring(kUtf8Text), nullptr);
  EXPECT_EQ(__KyAllocateAndConvertWstringToUtf8(kWideText), nullptr);
  EXPECT_EQ(__KyUtf8ToWstring(wide_, 16, "abc"), 3u);
}

TEST_F(TextConversion, AllocatedWideConversionIsTerminated) {
  wchar_t* wide = __KyAllocateAndConvertUtf8ToWstring(kUtf8Text);
  ASSERT_NE(wide, nullptr);
  EXPECT_STREQ(wide, kWideText);
  __KyFreeWstring(wide);
}

TEST_F(TextConversion, AllocatedUtf8ConversionIsTerminated) {
  char* text = __KyAllocateAndConvertWstringToUtf8(kWideText);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, kUtf8Text);
  __KyFreeMbString(text);
}

TEST_F(TextConversion, AllocatedConversionsTerminateUnzeroedBlocks) {
  // Blocks come back from the allocator as they were left: fill and free
  // blocks of the sizes the conversions ask for, then convert.
  void* wideBlock = __KyMalloc(0, kWideSizeLimit, 0);
  std::memset(wideBlock, 0x55, kWideSizeLimit);
  __KyFree(wideBlock);
  wchar_t* wide = __KyAllocateAndConvertUtf8ToWstring(kUtf8Text);
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(std::wcslen(wide), kCharacters);
  void* narrowBlock = __KyMalloc(0, kUtf8SizeLimit, 0);
  std::memset(narrowBlock, 0x55, kUtf8SizeLimit);
  __KyFree(narrowBlock);
  char* text = __KyAllocateAndConvertWstringToUtf8(kWideText);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::strlen(text), kUtf8Bytes);
  __KyFreeWstring(wide);
  __KyFreeMbString(text);
}

TEST_F(TextConversion, AllocatedConversionsOfEmptyTextAreEmptyStrings) {
  wchar_t* wide = __KyAllocateAndConvertUtf8ToWstring("");
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide[0], L'\0');
  char* text = __KyAllocateAndConvertWstringToUtf8(L"");
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text[0], '\0');
  __KyFreeWstring(wide);
  __KyFreeMbString(text);
}

TEST_F(TextConversion, AllocatedConversionsOfNullOrUnconvertibleTextAreNull) {
  EXPECT_EQ(__KyAllocateAndConvertUtf8ToWstring(nullptr), nullptr);
  EXPECT_EQ(__KyAllocateAndConvertUtf8ToWstring("a\xFF"), nullptr);
  EXPECT_EQ(__KyAllocateAndConvertWstringToUtf8(nullptr), nullptr);
  EXPECT_EQ(__KyAllocateAndConvertWstringToUtf8(kUnconvertibleWide), nullptr);
}

TEST_F(TextConversion, FreeingNullIsHarmless) {
  __KyFreeMbString(nullptr);
  __KyFreeWstring(nullptr);
  SUCCEED();
}

}  // namespace
