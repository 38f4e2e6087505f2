#include "xml/xml_text.h"

#include <cstring>

namespace kyrt {
namespace {

// The replacement of c, or null when c stands for itself.
const char* EntityFor(char c) {
  switch (c) {
    case '"':
      return "&quot;";
    case '&':
      return "&amp;";
    case '\'':
      return "&apos;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    default:
      return nullptr;
  }
}

}  // namespace

std::size_t EscapeXmlText(const char* text, char* buffer, std::size_t size) {
  const std::size_t limit = size - 1;  // the last byte stays for the NUL
  std::size_t length = 0;
  for (const char* p = text ? text : ""; *p != '\0'; ++p) {
    const char* entity = EntityFor(*p);
    const std::size_t needed = entity ? std::strlen(entity) : 1;
    if (length + needed > limit) break;
    if (entity) {
      std::memcpy(buffer + length, entity, needed);
    } else {
      buffer[length] = *p;
    }
    length += needed;
  }
  buffer[length] = '\0';
  return length;
}

std::size_t CollapseDashRuns(char* text) {
  std::size_t out = 0;
  for (std::size_t in = 0; text[in] != '\0'; ++in) {
    if (text[in] == '-' && out > 0 && text[out - 1] == '-') continue;
    text[out++] = text[in];
  }
  text[out] = '\0';
  return out;
}

}  // namespace kyrt
