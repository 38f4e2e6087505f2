// Counted strings: a record holding the length, the capacity and the memory
// category of a NUL-terminated text, both allocated from that category.
//
// Growth rules: setting a text that does not fit replaces the buffer by one
// of twice the new length (the old text is not kept); appending text that
// does not fit grows the buffer to twice (capacity + appended length).
#include <cstddef>
#include <cstring>

#include "kyrt/memory.h"
#include "kyrt/strings.h"

static_assert(offsetof(KyString, length) == 0, "KyString length");
static_assert(offsetof(KyString, capacity) == 4, "KyString capacity");
static_assert(offsetof(KyString, category) == 8, "KyString category");
static_assert(offsetof(KyString, text) == 16, "KyString text");

namespace {

constexpr uint32_t kDefaultSlabShift = 0;

char* AllocateText(uint32_t category, uint32_t capacity) {
  return static_cast<char*>(__KyMalloc(category, capacity, kDefaultSlabShift));
}

uint32_t LengthOf(const char* text) {
  return static_cast<uint32_t>(std::strlen(text));
}

bool Fits(uint64_t length, uint32_t capacity) {
  return length + 1 <= capacity;
}

// Twice the length, but at least 1: twice 0 would leave no room for the NUL
// of the empty text.
uint32_t CapacityToSet(uint32_t length) {
  return length == 0 ? 1 : length * 2;
}

// Replaces the text buffer by one of the given capacity; the old text is
// dropped.
void ReplaceBuffer(KyString* string, uint32_t capacity) {
  __KyFree(string->text);
  string->capacity = capacity;
  string->text = AllocateText(string->category, capacity);
}

// Moves the text into a buffer of the given capacity and appends the added
// bytes (with their NUL). The appended text is copied before the old buffer
// is released, so it may lie inside that buffer.
void GrowAndAppend(KyString* string, uint32_t capacity, const char* added, uint32_t addedLength) {
  char* grown = AllocateText(string->category, capacity);
  std::memcpy(grown, string->text, string->length);
  std::memcpy(grown + string->length, added, addedLength + 1);
  __KyFree(string->text);
  string->text = grown;
  string->capacity = capacity;
}

}  // namespace

extern "C" {

KyString* __KyStrAlloc(uint32_t category, uint32_t capacity, const char* init) noexcept {
  auto* string = static_cast<KyString*>(__KyMalloc(category, sizeof(KyString), kDefaultSlabShift));
  string->length = 0;
  string->capacity = capacity;
  string->category = category;
  string->text = AllocateText(category, capacity);
  return __KyStrSet(string, init);
}

KyString* __KyStrSet(KyString* string, const char* text) noexcept {
  if (string == nullptr) return nullptr;
  if (text == nullptr) text = "";  // a missing text sets the empty string
  const uint32_t length = LengthOf(text);
  // A text that does not fit cannot lie inside the current buffer, so the
  // buffer may go before the copy; one that fits may overlap it (memmove).
  if (!Fits(length, string->capacity)) ReplaceBuffer(string, CapacityToSet(length));
  std::memmove(string->text, text, length + 1);
  string->length = length;
  return string;
}

void __KyStrAppend(KyString* string, const char* text) noexcept {
  if (string == nullptr || text == nullptr) return;
  const uint32_t addedLength = LengthOf(text);
  if (Fits(uint64_t{string->length} + addedLength, string->capacity)) {
    std::memmove(string->text + string->length, text, addedLength + 1);
  } else {
    GrowAndAppend(string, (string->capacity + addedLength) * 2, text, addedLength);
  }
  string->length += addedLength;
}

void __KyStrDestroy(KyString* string) noexcept {
  if (string == nullptr) return;
  __KyFree(string->text);
  __KyFree(string);
}

}  // extern "C"
