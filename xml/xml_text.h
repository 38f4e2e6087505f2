// Text transformations of the XML writers: escaping of values and the
// folding of comment text. One routine each, shared by every writer.
#ifndef KYRT_XML_XML_TEXT_H
#define KYRT_XML_XML_TEXT_H

#include <cstddef>

namespace kyrt {

// Writes text into buffer (size bytes, size >= 1) with the five XML special
// characters replaced by their entities; every other byte is copied as it
// is. Stops before a character or entity that would not fit in front of the
// buffer's last byte, so the result is cut at a character boundary and never
// ends in a partial entity. Always NUL-terminates. A null text is empty.
// Returns the length written.
std::size_t EscapeXmlText(const char* text, char* buffer, std::size_t size);

// Collapses, in place, every run of two or more '-' into one, so that the
// text can stand inside an XML comment. Returns the new length.
std::size_t CollapseDashRuns(char* text);

}  // namespace kyrt

#endif  // KYRT_XML_XML_TEXT_H
