// KyXmlWriter: sequences the XML file writer's calls for one file, keeping
// the stack of open element names and the tag state.
#include "kyrt/xml_writer.h"

#include <cstddef>
#include <cstdint>

namespace {

// The fixed layout of the exported class: the virtual table pointer, then
// the members in declaration order with natural alignment.
constexpr std::size_t kStackOffset = sizeof(void*);
constexpr std::size_t kTagStateOffset = kStackOffset + sizeof(std::deque<std::string>);
constexpr std::size_t kFileOffset =
    (kTagStateOffset + sizeof(uint32_t) + alignof(KyXmlFileHandle) - 1) / alignof(KyXmlFileHandle) *
    alignof(KyXmlFileHandle);
constexpr std::size_t kWriterSize = kFileOffset + sizeof(KyXmlFileHandle);

}  // namespace

KyXmlWriter::KyXmlWriter() noexcept : tagState_(kBetweenElements), file_(nullptr) {
  // Checked here, where the private members are reachable. offsetof on a
  // class with a virtual table is conditionally supported; both compilers
  // the project uses support it and only warn.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  static_assert(offsetof(KyXmlWriter, openElements_) == kStackOffset, "the stack follows the vptr");
  static_assert(offsetof(KyXmlWriter, tagState_) == kTagStateOffset, "then the tag state");
  static_assert(offsetof(KyXmlWriter, file_) == kFileOffset, "then the file handle");
#pragma GCC diagnostic pop
  static_assert(sizeof(TagState) == sizeof(uint32_t), "the tag state is a 32-bit unsigned");
  static_assert(sizeof(KyXmlWriter) == kWriterSize, "nothing after the file handle");
}

KyXmlWriter::~KyXmlWriter() noexcept {
  close();
}

bool KyXmlWriter::create(const char* path, bool append) noexcept {
  if (file_ != nullptr) close();
  file_ = __KyXMLCreateFile(path, append ? 1 : 0);
  return file_ != nullptr;
}

KyXmlWriter& KyXmlWriter::startElement(const char* name, bool complete) noexcept {
  autoFinishStartedTag();
  if (complete) {
    __KyXMLWriteOpeningTag(file_, name);
  } else {
    __KyXMLStartWritingOpeningTag(file_, name);
  }
  openElements_.emplace_back(name != nullptr ? name : "");
  tagState_ = complete ? kInsideElement : kTagStarted;
  return *this;
}

KyXmlWriter& KyXmlWriter::writeStrAttribute(const char* name, const std::string& value) noexcept {
  __KyXMLWriteStringAttribute(file_, name, value.c_str());
  return *this;
}

KyXmlWriter& KyXmlWriter::writeAttribute(const char* name, int value) noexcept {
  __KyXMLWriteIntegerAttribute(file_, name, value);
  return *this;
}

KyXmlWriter& KyXmlWriter::writeAttribute(const char* name, unsigned long long value) noexcept {
  __KyXMLWriteLongIntegerAttribute(file_, name, value);
  return *this;
}

KyXmlWriter& KyXmlWriter::writeAttribute(const char* name, const void* address) noexcept {
  __KyXMLWriteHexadecimalAddressAttribute(file_, name, address);
  return *this;
}

KyXmlWriter& KyXmlWriter::write(const std::string& text) noexcept {
  finishStartedTagForContent();
  __KyXMLWriteStringValue(file_, text.c_str());
  return *this;
}

KyXmlWriter& KyXmlWriter::write(int value) noexcept {
  finishStartedTagForContent();
  __KyXMLWriteIntValue(file_, value);
  return *this;
}

KyXmlWriter& KyXmlWriter::writeElement(const char* name, unsigned long long value) noexcept {
  autoFinishStartedTag();
  __KyXMLWriteLongDecimalElement(file_, name, value);
  return wholeElementWritten();
}

KyXmlWriter& KyXmlWriter::writeElement(const char* name, unsigned long value) noexcept {
  autoFinishStartedTag();
  __KyXMLWriteDecimalElement(file_, name, value);
  return wholeElementWritten();
}

KyXmlWriter& KyXmlWriter::writeElement(const char* name, unsigned int value) noexcept {
  return writeElement(name, static_cast<unsigned long>(value));
}

KyXmlWriter& KyXmlWriter::writeElement(const char* name, int value) noexcept {
  // Sign extension first: -1 becomes the all-ones 64-bit value.
  return writeElement(name, static_cast<unsigned long>(static_cast<long>(value)));
}

KyXmlWriter& KyXmlWriter::writeStrElement(const char* name, const std::string& value) noexcept {
  autoFinishStartedTag();
  __KyXMLWriteStringElement(file_, name, value.c_str());
  return wholeElementWritten();
}

KyXmlWriter& KyXmlWriter::writeAddressElement(const char* name, unsigned long address) noexcept {
  autoFinishStartedTag();
  __KyXMLWriteHexadecimalAddressElement(file_, name, reinterpret_cast<const void*>(address));
  return wholeElementWritten();
}

KyXmlWriter& KyXmlWriter::writeAddressElement(const char* name, const void* address) noexcept {
  return writeAddressElement(name, reinterpret_cast<unsigned long>(address));
}

KyXmlWriter& KyXmlWriter::endElement() noexcept {
  if (openElements_.empty()) return *this;
  autoFinishStartedTag();
  closeInnermostElement();
  return wholeElementWritten();
}

KyXmlWriter& KyXmlWriter::endAll() noexcept {
  finishStartedTagForContent();
  if (openElements_.empty()) return *this;
  while (!openElements_.empty()) closeInnermostElement();
  return wholeElementWritten();
}

void KyXmlWriter::close() noexcept {
  endAll();
  __KyXMLCloseFile(&file_);
}

void KyXmlWriter::acquire() noexcept {
  __KyXMLAcquireFile(file_);
}

void KyXmlWriter::release() noexcept {
  __KyXMLReleaseFile(file_);
}

void KyXmlWriter::autoFinishStartedTag() noexcept {
  if (tagState_ == kTagStarted) __KyXMLFinishWritingOpeningTag(file_);
}

void KyXmlWriter::finishStartedTagForContent() noexcept {
  if (tagState_ != kTagStarted) return;
  autoFinishStartedTag();
  tagState_ = kInsideElement;
}

KyXmlWriter& KyXmlWriter::wholeElementWritten() noexcept {
  tagState_ = kBetweenElements;
  return *this;
}

void KyXmlWriter::closeInnermostElement() noexcept {
  __KyXMLWriteClosingTag(file_, openElements_.back().c_str());
  openElements_.pop_back();
}
