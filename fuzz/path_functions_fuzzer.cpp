// The path and C-string helpers of the platform utilities on arbitrary
// text: path normalisation, the two readings of a base name, the folder
// name, bounded copies, white-space trimming, lower-casing, duplication and
// counted strings.
//
// Every in-place function works on an exact-size heap copy (text plus NUL),
// so AddressSanitizer reports any byte read or written outside it; every
// result is compared with a small reference written here and checked for
// its invariants: NUL-terminated inside its buffer, no longer than the
// input, nothing written past the size it was given.
//
// Input layout: byte 0 is the bound of the bounded copies, byte 1 the
// initial capacity of the counted string; the rest is the text. The C
// functions see the text up to its first NUL; the std::string functions see
// all of it, NULs included.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_runtime.h"
#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/strings.h"

namespace {

constexpr char kSeparator = '/';
constexpr std::size_t kHeaderBytes = 2;
constexpr uint32_t kCategory = 0;

void Require(bool condition) {
  if (!condition) std::abort();
}

// A heap buffer of exactly the text and its NUL.
std::unique_ptr<char[]> ExactCopy(const std::string& text) {
  std::unique_ptr<char[]> copy(new char[text.size() + 1]);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

bool IsWhiteSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// The text up to its first NUL, as a C function sees it.
std::string CText(const std::string& text) {
  return std::string(text.c_str());
}

// ---------------------------------------------------------------------------
// References

std::string ReferenceSanitized(const std::string& text) {
  std::string result;
  for (char c : text) {
    if (c == kSeparator && !result.empty() && result.back() == kSeparator) continue;
    result.push_back(c);
  }
  return result;
}

// After the last "/" that is not the first character.
std::string ReferenceCBaseName(const std::string& text) {
  for (std::size_t i = text.size(); i-- > 1;) {
    if (text[i] == kSeparator) return text.substr(i + 1);
  }
  return text;
}

std::string ReferenceStripped(const std::string& text) {
  std::size_t end = text.size();
  while (end != 0 && IsWhiteSpace(text[end - 1])) --end;
  std::size_t start = 0;
  while (start < end && IsWhiteSpace(text[start])) ++start;
  return text.substr(start, end - start);
}

// ---------------------------------------------------------------------------
// Checks, one function family each

void CheckSanitizePath(const std::string& text) {
  std::unique_ptr<char[]> buffer = ExactCopy(text);
  __KySanitizePath(buffer.get());
  const std::size_t length = strnlen(buffer.get(), text.size() + 1);
  Require(length <= text.size());
  Require(std::string(buffer.get(), length) == ReferenceSanitized(text));
  Require(std::strstr(buffer.get(), "//") == nullptr);
}

void CheckCBaseNames(const std::string& text) {
  char* wide = __KyGetBaseName(text.c_str());
  char* narrow = __KyGetSCBaseName(text.c_str());
  if (text.empty()) {
    Require(wide == nullptr && narrow == nullptr);
    return;
  }
  Require(wide != nullptr && narrow != nullptr);
  const std::string expected = ReferenceCBaseName(text);
  Require(expected == wide && expected == narrow);
  __KyFree(wide);
  __KyFree(narrow);
}

void CheckStandardStringPaths(const std::string& text) {
  Require(kyrt::SanitizePath(text) == ReferenceSanitized(CText(text)));
  const std::string folder = kyrt::GetFolderName(text);
  const std::string base = kyrt::GetBaseName(text);
  const std::size_t separator = text.rfind(kSeparator);
  if (separator == std::string::npos) {
    Require(folder.empty() && base == text);
    return;
  }
  Require(base.find(kSeparator) == std::string::npos);
  Require(folder + kSeparator + base == text);
}

// strncpy's contract plus the forced NUL: the first n - 1 bytes are the
// source's (padded with NULs), byte n - 1 is a NUL, nothing beyond n.
void CheckBoundedCopies(const std::string& text, std::size_t bound) {
  using Copy = char* (*)(char*, const char*, size_t);
  for (Copy copy : {static_cast<Copy>(__KyStrncpy), static_cast<Copy>(__KyStrSCncpy)}) {
    std::unique_ptr<char[]> destination(new char[bound]);
    if (bound != 0) std::memset(destination.get(), 'x', bound);
    Require(copy(destination.get(), text.c_str(), bound) == destination.get());
    if (bound == 0) continue;
    Require(destination[bound - 1] == '\0');
    const std::size_t kept = std::min(text.size(), bound - 1);
    Require(std::memcmp(destination.get(), text.data(), kept) == 0);
    for (std::size_t at = kept; at < bound; ++at) Require(destination[at] == '\0');
  }
}

void CheckStripWhiteSpaces(const std::string& text) {
  std::unique_ptr<char[]> buffer = ExactCopy(text);
  char* start = __KyStripWhiteSpaces(buffer.get());
  Require(start >= buffer.get() && start <= buffer.get() + text.size());
  Require(std::string(start) == ReferenceStripped(text));
}

void CheckLowerCase(const std::string& text) {
  std::unique_ptr<char[]> buffer = ExactCopy(text);
  __KyConvertUtf8ToLowerCase(buffer.get());
  for (std::size_t at = 0; at <= text.size(); ++at) {
    const auto original = static_cast<unsigned char>(text[at]);
    Require(buffer[at] == static_cast<char>(std::tolower(original)));
  }
}

void CheckDuplicate(const std::string& text) {
  char* copy = __KyStrdup(text.c_str());
  Require(copy != nullptr && text == copy);
  __KyFree(copy);
}

void RequireCountedString(const KyString* string, const std::string& expected) {
  Require(string->length == expected.size());
  Require(string->capacity >= string->length + 1);
  Require(std::strlen(string->text) == string->length);
  Require(expected == string->text);
}

// The whole input, split at its NULs: the first piece initialises the
// string, then each piece is appended or set by the parity of its length.
void CheckCountedString(const std::string& whole, uint32_t capacity) {
  const std::string first = whole.c_str();
  KyString* string = __KyStrAlloc(kCategory, capacity, first.c_str());
  std::string expected = first;
  RequireCountedString(string, expected);
  for (std::size_t at = first.size() + 1; at < whole.size();) {
    const std::string piece = whole.c_str() + at;
    if (piece.size() % 2 == 0) {
      __KyStrAppend(string, piece.c_str());
      expected += piece;
    } else {
      __KyStrSet(string, piece.c_str());
      expected = piece;
    }
    RequireCountedString(string, expected);
    at += piece.size() + 1;
  }
  __KyStrDestroy(string);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  StartRuntimeWithDiscardedLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeaderBytes) return 0;
  const std::size_t bound = data[0];
  const uint32_t capacity = data[1];
  const std::string whole(reinterpret_cast<const char*>(data + kHeaderBytes), size - kHeaderBytes);
  const std::string text = CText(whole);
  CheckSanitizePath(text);
  CheckCBaseNames(text);
  CheckStandardStringPaths(whole);
  CheckBoundedCopies(text, bound);
  CheckStripWhiteSpaces(text);
  CheckLowerCase(text);
  CheckDuplicate(text);
  CheckCountedString(whole, capacity);
  return 0;
}
