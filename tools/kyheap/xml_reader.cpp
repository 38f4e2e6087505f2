#include "xml_reader.h"

#include <cstdlib>
#include <cstring>

namespace kyheap {
namespace {

constexpr int kMaxDepth = 256;

class Parser {
 public:
  explicit Parser(const std::string& text) : text_(text) {}

  bool parseDocument(XmlElement* root) {
    skipMisc();
    if (!parseElement(root, 0)) return false;
    skipMisc();
    if (position_ != text_.size()) return fail("content after the root element");
    return true;
  }

  std::string error() const { return error_ + " at offset " + std::to_string(position_); }

 private:
  bool fail(const std::string& what) {
    if (error_.empty()) error_ = what;
    return false;
  }

  bool atEnd() const { return position_ >= text_.size(); }
  bool startsWith(const char* prefix) const {
    return text_.compare(position_, std::strlen(prefix), prefix) == 0;
  }

  void skipSpace() {
    while (!atEnd() && std::strchr(" \t\r\n", text_[position_]) != nullptr) ++position_;
  }

  bool skipPast(const char* terminator) {
    const std::size_t end = text_.find(terminator, position_);
    if (end == std::string::npos) return false;
    position_ = end + std::strlen(terminator);
    return true;
  }

  // Space, comments and processing instructions between elements.
  void skipMisc() {
    for (;;) {
      skipSpace();
      if (startsWith("<?")) {
        if (!skipPast("?>")) return;
      } else if (startsWith("<!--")) {
        if (!skipPast("-->")) return;
      } else {
        return;
      }
    }
  }

  static bool IsNameCharacter(char c) { return std::strchr(" \t\r\n=/>'\"<&", c) == nullptr; }

  bool parseName(std::string* name) {
    const std::size_t start = position_;
    while (!atEnd() && IsNameCharacter(text_[position_])) ++position_;
    if (position_ == start) return fail("a name was expected");
    name->assign(text_, start, position_ - start);
    return true;
  }

  bool appendReference(std::string* out) {
    const std::size_t end = text_.find(';', position_);
    if (end == std::string::npos || end - position_ > 12) return fail("unterminated entity");
    const std::string entity = text_.substr(position_ + 1, end - position_ - 1);
    position_ = end + 1;
    if (entity == "amp") return out->push_back('&'), true;
    if (entity == "lt") return out->push_back('<'), true;
    if (entity == "gt") return out->push_back('>'), true;
    if (entity == "apos") return out->push_back('\''), true;
    if (entity == "quot") return out->push_back('"'), true;
    if (entity.size() >= 2 && entity[0] == '#') {
      const bool hex = entity[1] == 'x';
      const unsigned long code =
          std::strtoul(entity.c_str() + (hex ? 2 : 1), nullptr, hex ? 16 : 10);
      if (code == 0 || code > 0x7F) return fail("character reference outside ASCII");
      out->push_back(static_cast<char>(code));
      return true;
    }
    return fail("unknown entity '" + entity + "'");
  }

  bool parseAttributeValue(std::string* value) {
    if (atEnd() || (text_[position_] != '\'' && text_[position_] != '"')) {
      return fail("a quoted attribute value was expected");
    }
    const char quote = text_[position_++];
    while (!atEnd() && text_[position_] != quote) {
      if (text_[position_] == '<') return fail("'<' in an attribute value");
      if (text_[position_] == '&') {
        if (!appendReference(value)) return false;
      } else {
        value->push_back(text_[position_++]);
      }
    }
    if (atEnd()) return fail("unterminated attribute value");
    ++position_;
    return true;
  }

  bool parseAttributes(XmlElement* element) {
    for (;;) {
      skipSpace();
      if (atEnd()) return fail("unterminated start tag");
      if (text_[position_] == '>' || startsWith("/>")) return true;
      std::pair<std::string, std::string> attribute;
      if (!parseName(&attribute.first)) return false;
      skipSpace();
      if (atEnd() || text_[position_] != '=') return fail("'=' was expected");
      ++position_;
      skipSpace();
      if (!parseAttributeValue(&attribute.second)) return false;
      if (element->attribute(attribute.first) != nullptr) return fail("duplicate attribute");
      element->attributes.push_back(std::move(attribute));
    }
  }

  bool parseContent(XmlElement* element, int depth) {
    for (;;) {
      if (atEnd()) return fail("unterminated element '" + element->name + "'");
      if (startsWith("</")) {
        position_ += 2;
        std::string closing;
        if (!parseName(&closing)) return false;
        if (closing != element->name) return fail("mismatched end tag '" + closing + "'");
        skipSpace();
        if (atEnd() || text_[position_] != '>') return fail("'>' was expected");
        ++position_;
        return true;
      }
      if (startsWith("<!--")) {
        if (!skipPast("-->")) return fail("unterminated comment");
      } else if (startsWith("<?")) {
        if (!skipPast("?>")) return fail("unterminated processing instruction");
      } else if (text_[position_] == '<') {
        element->children.emplace_back();
        if (!parseElement(&element->children.back(), depth + 1)) return false;
      } else if (text_[position_] == '&') {
        if (!appendReference(&element->text)) return false;
      } else {
        element->text.push_back(text_[position_++]);
      }
    }
  }

  bool parseElement(XmlElement* element, int depth) {
    if (depth > kMaxDepth) return fail("elements nested too deeply");
    if (atEnd() || text_[position_] != '<') return fail("an element was expected");
    ++position_;
    if (!parseName(&element->name) || !parseAttributes(element)) return false;
    if (startsWith("/>")) {
      position_ += 2;
      return true;
    }
    ++position_;  // '>'
    return parseContent(element, depth);
  }

  const std::string& text_;
  std::size_t position_ = 0;
  std::string error_;
};

}  // namespace

const std::string* XmlElement::attribute(const std::string& attributeName) const {
  for (const auto& [key, value] : attributes) {
    if (key == attributeName) return &value;
  }
  return nullptr;
}

uint64_t XmlElement::number(const std::string& attributeName) const {
  const std::string* value = attribute(attributeName);
  if (value == nullptr || value->empty()) return 0;
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(value->c_str(), &end, 0);
  return end != nullptr && *end == '\0' ? parsed : 0;
}

const XmlElement* XmlElement::child(const std::string& childName) const {
  for (const XmlElement& element : children) {
    if (element.name == childName) return &element;
  }
  return nullptr;
}

std::vector<const XmlElement*> XmlElement::childrenNamed(const std::string& childName) const {
  std::vector<const XmlElement*> found;
  for (const XmlElement& element : children) {
    if (element.name == childName) found.push_back(&element);
  }
  return found;
}

bool ParseXml(const std::string& document, XmlElement* root, std::string* error) {
  Parser parser(document);
  *root = XmlElement{};
  if (parser.parseDocument(root)) return true;
  if (error != nullptr) *error = parser.error();
  return false;
}

}  // namespace kyheap
