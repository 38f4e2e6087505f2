// A small reader of the XML kyheap writes: elements, attributes, text, the
// five predefined entities and numeric character references, comments and
// processing instructions (skipped). No DTDs, no namespaces, no CDATA: the
// reports use none. Enough to read a report back without a library.
#ifndef KYHEAP_XML_READER_H
#define KYHEAP_XML_READER_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kyheap {

struct XmlElement {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<XmlElement> children;
  std::string text;  // the element's own character data, concatenated

  // The attribute's value, or null when absent.
  const std::string* attribute(const std::string& attributeName) const;
  // The attribute as an unsigned number (decimal or 0x hexadecimal); 0
  // when absent or not a number.
  uint64_t number(const std::string& attributeName) const;
  // The first child of that name, or null.
  const XmlElement* child(const std::string& childName) const;
  // Every child of that name, in document order.
  std::vector<const XmlElement*> childrenNamed(const std::string& childName) const;
};

// Parses a whole document into its root element. On failure returns false
// and describes the first problem (with its byte offset) in *error.
bool ParseXml(const std::string& document, XmlElement* root, std::string* error);

}  // namespace kyheap

#endif  // KYHEAP_XML_READER_H
