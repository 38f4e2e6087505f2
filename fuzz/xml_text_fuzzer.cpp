// Escaping of values and folding of comment text on arbitrary bytes, in
// buffers of every size: the result must stay inside its buffer, be
// terminated, contain no raw special character (escaping) and no "--"
// (comments).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "xml/xml_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the output buffer size (1 to 256 bytes).
  const size_t bufferSize = static_cast<size_t>(data[0]) + 1;
  const std::vector<char> text(data + 1, data + size);
  std::vector<char> input(text);
  input.push_back('\0');

  std::vector<char> buffer(bufferSize);
  const size_t length = kyrt::EscapeXmlText(input.data(), buffer.data(), buffer.size());
  if (length >= bufferSize || buffer[length] != '\0') std::abort();
  for (size_t i = 0; i < length; ++i) {
    const char c = buffer[i];
    if (c == '<' || c == '>' || c == '"' || c == '\'') std::abort();
  }

  const size_t folded = kyrt::CollapseDashRuns(input.data());
  if (folded > std::strlen(input.data()) || std::strstr(input.data(), "--") != nullptr) {
    std::abort();
  }
  return 0;
}
