// Plain C string helpers: duplication, white-space trimming, bounded copies
// and byte-wise lower-casing.
#include <cctype>
#include <cstring>

#include "kyrt/files.h"
#include "kyrt/memory.h"
#include "util/text_copy.h"

namespace {

bool IsWhiteSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Overwrites the white space at the end of text with NULs. The scan stops at
// the first byte of text, so an empty or all-blank string is never read
// before its start; such a string simply ends up empty.
void CutTrailingWhiteSpace(char* text) {
  char* last = text + std::strlen(text);
  while (last != text && IsWhiteSpace(last[-1])) {
    --last;
    *last = '\0';
  }
}

char* SkipLeadingWhiteSpace(char* text) {
  while (IsWhiteSpace(*text)) ++text;
  return text;
}

// strncpy leaves the destination unterminated when the source does not fit;
// the last byte of the destination is always made a NUL here.
char* CopyBounded(char* destination, const char* source, size_t n) {
  std::strncpy(destination, source, n);
  if (n != 0) destination[n - 1] = '\0';
  return destination;
}

}  // namespace

namespace kyrt {

char* CopyOfText(const char* text, std::size_t length) {
  char* copy = static_cast<char*>(__KyMalloc(KY_MEMORY_CATEGORY_MISC, length + 1, 0));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

}  // namespace kyrt

extern "C" {

char* __KyStrdup(const char* string) noexcept {
  if (string == nullptr) return nullptr;
  return kyrt::CopyOfText(string, std::strlen(string));
}

char* __KyStripWhiteSpaces(char* string) noexcept {
  if (string == nullptr) return nullptr;
  CutTrailingWhiteSpace(string);
  return SkipLeadingWhiteSpace(string);
}

char* __KyStrncpy(char* destination, const char* source, size_t n) noexcept {
  return CopyBounded(destination, source, n);
}

char* __KyStrSCncpy(char* destination, const char* source, size_t n) noexcept {
  return CopyBounded(destination, source, n);
}

void __KyConvertUtf8ToLowerCase(char* string) noexcept {
  if (string == nullptr) return;
  // Multi-byte sequences are not interpreted: each byte goes through tolower
  // on its own (in the C and UTF-8 locales, bytes above 0x7F come back
  // unchanged, so UTF-8 text stays well-formed).
  for (char* c = string; *c != '\0'; ++c) {
    *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
  }
}

}  // extern "C"
