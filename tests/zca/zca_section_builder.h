// Building annotation sections byte by byte for the parser tests, and
// collecting what the parser delivers.
//
// SectionBytes appends little-endian numbers, texts and raw bytes. The
// table helpers lay a whole table out the usual way: header, entries, then
// the string table and the expression table (or the expression table
// first), every offset computed from the pieces; tests that need a damaged
// or unusual table patch the bytes afterwards or write them by hand.
#ifndef KYRT_TESTS_ZCA_ZCA_SECTION_BUILDER_H
#define KYRT_TESTS_ZCA_ZCA_SECTION_BUILDER_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "kyrt/zca.h"

namespace zca_test {

constexpr uint16_t kVersion11 = 0x0101;
constexpr uint16_t kVersion12 = 0x0102;
constexpr std::size_t kHeader11Size = 36;
constexpr std::size_t kHeader12Size = 48;

class SectionBytes {
 public:
  SectionBytes& u8(uint8_t value) {
    bytes_.push_back(value);
    return *this;
  }
  SectionBytes& u16(uint16_t value) { return little(value, 2); }
  SectionBytes& u32(uint32_t value) { return little(value, 4); }
  SectionBytes& u64(uint64_t value) { return little(value, 8); }
  SectionBytes& raw(std::initializer_list<uint8_t> values) {
    bytes_.insert(bytes_.end(), values.begin(), values.end());
    return *this;
  }
  SectionBytes& raw(const std::vector<uint8_t>& values) {
    bytes_.insert(bytes_.end(), values.begin(), values.end());
    return *this;
  }
  // The text and its NUL.
  SectionBytes& text(const std::string& value) {
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    bytes_.push_back(0);
    return *this;
  }
  SectionBytes& zeros(std::size_t count) {
    bytes_.insert(bytes_.end(), count, 0);
    return *this;
  }
  // The 16 magic bytes: ".qzv_notify_tab" and a NUL.
  SectionBytes& magic() { return text(".qzv_notify_tab"); }

  void patch32(std::size_t offset, uint32_t value) { patch(offset, value, 4); }
  void patch16(std::size_t offset, uint16_t value) { patch(offset, value, 2); }

  std::size_t size() const { return bytes_.size(); }
  const uint8_t* data() const { return bytes_.data(); }
  std::vector<uint8_t>& bytes() { return bytes_; }

 private:
  SectionBytes& little(uint64_t value, int count) {
    for (int i = 0; i < count; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return *this;
  }
  void patch(std::size_t offset, uint64_t value, int count) {
    for (int i = 0; i < count; ++i) bytes_.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
  }

  std::vector<uint8_t> bytes_;
};

// One entry to lay out.
struct Entry {
  uint64_t address;
  uint32_t probe;
  std::string name;
  std::vector<uint8_t> expression;  // the whole expression: ULEB128 length and bytes
};

enum class TableOrder { kStringsFirst, kExpressionsFirst };

// Where a laid-out table's pieces went, from the table's header.
struct TableLayout {
  std::size_t headerOffset;  // from the section start
  std::size_t stringTable;
  std::size_t stringTableSize;
  std::size_t expressionTable;
  std::size_t expressionTableSize;
  std::size_t end;  // from the section start
};

inline std::vector<uint8_t> StringTableOf(const std::vector<Entry>& entries,
                                          std::vector<uint32_t>* offsets) {
  std::vector<uint8_t> table;
  for (const Entry& entry : entries) {
    offsets->push_back(static_cast<uint32_t>(table.size()));
    table.insert(table.end(), entry.name.begin(), entry.name.end());
    table.push_back(0);
  }
  return table;
}

inline std::vector<uint8_t> ExpressionTableOf(const std::vector<Entry>& entries,
                                              std::vector<uint32_t>* offsets) {
  std::vector<uint8_t> table;
  for (const Entry& entry : entries) {
    offsets->push_back(static_cast<uint32_t>(table.size()));
    table.insert(table.end(), entry.expression.begin(), entry.expression.end());
  }
  return table;
}

// Appends a table of the given version (flags for 1.2 only) to section.
inline TableLayout AppendTable(SectionBytes& section, uint16_t version, uint64_t flags,
                               const std::vector<Entry>& entries,
                               TableOrder order = TableOrder::kStringsFirst) {
  const bool v11 = version == kVersion11;
  const bool probe = v11 || (flags & 2) != 0;
  const std::size_t headerSize = v11 ? kHeader11Size : kHeader12Size;
  const std::size_t entrySize = probe ? 20 : 16;
  std::vector<uint32_t> nameOffsets;
  std::vector<uint32_t> expressionOffsets;
  const std::vector<uint8_t> strings = StringTableOf(entries, &nameOffsets);
  const std::vector<uint8_t> expressions = ExpressionTableOf(entries, &expressionOffsets);

  TableLayout layout{};
  layout.headerOffset = section.size();
  const std::size_t afterEntries = headerSize + entrySize * entries.size();
  const bool stringsFirst = order == TableOrder::kStringsFirst;
  layout.stringTable = stringsFirst ? afterEntries : afterEntries + expressions.size();
  layout.expressionTable = stringsFirst ? afterEntries + strings.size() : afterEntries;
  layout.stringTableSize = strings.size();
  layout.expressionTableSize = expressions.size();

  section.magic().u16(version);
  if (v11) {
    section.u16(static_cast<uint16_t>(entries.size()));
  } else {
    section.u16(0xAAAA).u16(static_cast<uint16_t>(entries.size())).u16(0xBBBB);
  }
  section.u32(static_cast<uint32_t>(layout.stringTable))
      .u32(static_cast<uint32_t>(strings.size()))
      .u32(static_cast<uint32_t>(layout.expressionTable))
      .u32(static_cast<uint32_t>(expressions.size()));
  if (!v11) section.u64(flags);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    section.u64(entries[i].address);
    if (probe) section.u32(entries[i].probe);
    section.u32(nameOffsets[i]).u32(expressionOffsets[i]);
  }
  section.raw(stringsFirst ? strings : expressions);
  section.raw(stringsFirst ? expressions : strings);
  layout.end = section.size();
  return layout;
}

// What a test keeps of a delivered record.
struct Delivered {
  uint64_t address;
  std::string name;
  std::ptrdiff_t expressionOffset;  // from the section start; -1 for none
  uint32_t probe;
  uint32_t argumentCount;
  KyZCAArgument arguments[2];
};

// Parses sections and collects their records. The section is parsed from
// an exact-size heap copy, so that AddressSanitizer catches any read past
// its end; sectionStart is that copy (PC-relative addresses are relative to
// it) and turns expression pointers into offsets.
struct Collector {
  std::unique_ptr<uint8_t[]> copy;
  const uint8_t* sectionStart = nullptr;
  std::vector<Delivered> records;

  static int Collect(KyZCARecord* record, void* user) {
    auto* self = static_cast<Collector*>(user);
    Delivered delivered{};
    delivered.address = record->address;
    delivered.name = record->name;
    delivered.expressionOffset =
        record->expression == nullptr ? -1 : record->expression - self->sectionStart;
    delivered.probe = record->probe;
    delivered.argumentCount = record->argumentCount;
    delivered.arguments[0] = record->arguments[0];
    delivered.arguments[1] = record->arguments[1];
    self->records.push_back(delivered);
    return 0;
  }

  void parse(uint64_t moduleBase, const SectionBytes& section) {
    parse(moduleBase, section.data(), section.size());
  }
  void parse(uint64_t moduleBase, const uint8_t* bytes, std::size_t size) {
    copy.reset(new uint8_t[size == 0 ? 1 : size]);
    if (size != 0) std::memcpy(copy.get(), bytes, size);
    sectionStart = copy.get();
    __KyZCAParseAndProcessRecords(moduleBase, sectionStart, size, Collect, this);
  }

  // The address of the section byte at offset, as the parser saw it.
  uint64_t addressOf(std::size_t offset) const {
    return reinterpret_cast<uintptr_t>(sectionStart) + offset;
  }
};

}  // namespace zca_test

#endif  // KYRT_TESTS_ZCA_ZCA_SECTION_BUILDER_H
