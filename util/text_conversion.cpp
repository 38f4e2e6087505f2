// Conversion between multi-byte text (UTF-8 under a UTF-8 locale) and wide
// text, through mbstowcs and wcstombs: the current locale decides the
// multi-byte encoding.
//
// The sized conversions write the n converted characters and no terminator.
// Their size check refuses only a destination larger than the conversion
// needs with a terminator ((n + 1) wide characters, n + 1 bytes): callers
// size destinations from the same length query, never larger. A destination
// smaller than n characters is the caller's error and is not detected.
//
// A source that is null or does not convert in the current locale (the C
// library reports (size_t)-1) converts to nothing: without this, the length
// arithmetic below would wrap and let the conversion run unbounded.
#include <cstdlib>

#include "kyrt/memory.h"
#include "kyrt/strings.h"

namespace {

constexpr size_t kWideCharacterBytes = 4;
static_assert(sizeof(wchar_t) == kWideCharacterBytes, "wide characters are 32-bit");

constexpr size_t kDoesNotConvert = static_cast<size_t>(-1);

size_t WideLengthOf(const char* source) {
  return source != nullptr ? std::mbstowcs(nullptr, source, 0) : kDoesNotConvert;
}

size_t MultiByteLengthOf(const wchar_t* source) {
  return source != nullptr ? std::wcstombs(nullptr, source, 0) : kDoesNotConvert;
}

bool IsConvertible(size_t length) {
  return length != kDoesNotConvert;
}

size_t WideBufferBytes(size_t length) {
  return (length + 1) * kWideCharacterBytes;
}

size_t MultiByteBufferBytes(size_t length) {
  return length + 1;
}

}  // namespace

extern "C" {

size_t __KyUtf8ToWstring(wchar_t* destination, size_t size, const char* source) noexcept {
  const size_t length = WideLengthOf(source);
  if (length == 0 || !IsConvertible(length) || size > WideBufferBytes(length)) return 0;
  return std::mbstowcs(destination, source, length);
}

size_t __KyWstringToUtf8(char* destination, size_t size, const wchar_t* source) noexcept {
  const size_t length = MultiByteLengthOf(source);
  if (length == 0 || !IsConvertible(length) || size > MultiByteBufferBytes(length)) return 0;
  return std::wcstombs(destination, source, length);
}

// The allocator does not zero its blocks, so the allocating conversions
// write the terminator themselves.
wchar_t* __KyAllocateAndConvertUtf8ToWstring(const char* source) noexcept {
  const size_t length = WideLengthOf(source);
  if (!IsConvertible(length)) return nullptr;
  const size_t bytes = WideBufferBytes(length);
  auto* wide = static_cast<wchar_t*>(__KyMalloc(KY_MEMORY_CATEGORY_MISC, bytes, 0));
  __KyUtf8ToWstring(wide, bytes, source);
  wide[length] = L'\0';
  return wide;
}

char* __KyAllocateAndConvertWstringToUtf8(const wchar_t* source) noexcept {
  const size_t length = MultiByteLengthOf(source);
  if (!IsConvertible(length)) return nullptr;
  const size_t bytes = MultiByteBufferBytes(length);
  auto* text = static_cast<char*>(__KyMalloc(KY_MEMORY_CATEGORY_MISC, bytes, 0));
  __KyWstringToUtf8(text, bytes, source);
  text[length] = '\0';
  return text;
}

void __KyFreeMbString(const char* string) noexcept {
  __KyFree(const_cast<char*>(string));
}

void __KyFreeWstring(const wchar_t* string) noexcept {
  __KyFree(const_cast<wchar_t*>(string));
}

}  // extern "C"
