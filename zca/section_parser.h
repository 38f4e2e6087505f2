// The parser of a ".qzv_notify_tab" section, shared by the exported entry
// point (which logs what it finds and calls the tool's callback) and by the
// kyrt-zca command (which prints it). Header-only: an observer type decides
// what happens to each table, entry and problem, and is inlined into the
// walk.
//
// The walk (the layout is in zca_format.h):
//   - a zero byte between tables is padding and is stepped over;
//   - a table needs 36 bytes for its header check, the 16 magic bytes and
//     version 1.1 or 1.2; then its whole header and count x entry size bytes
//     of entries must lie inside the section;
//   - every entry becomes a KyZCARecord: its address relocated, its name and
//     expression resolved through the table's offsets, its location
//     expression decoded into the first argument;
//   - the next table starts where the later of the string and expression
//     tables ends (the string table's end when both start at the same
//     offset).
// The section is input from the program under analysis and may be damaged
// or hostile, so no byte outside [bytes, bytes + size) is ever read: a name
// or expression that does not lie inside the section, a name without its
// NUL inside the section, an expression whose bytes run past the section
// end and a table that would not move the walk forward are problems like
// the header checks. The first problem ends the walk; what was delivered
// before it stays delivered.
//
// Observer requirements (all called on the parsing thread, in order):
//   void tableStarted(uint64_t headerOffset, uint16_t version);
//       magic and version accepted (1.1 or 1.2)
//   void tableRead(const TableHeader& table);
//       the whole header lies inside the section
//   void entryFound(const TableHeader& table, KyZCARecord& record, LocationForm form);
//       one entry; record is valid only during the call
//   void sectionFailed(const SectionError& error);
//       the walk stops after this call
#ifndef KYRT_ZCA_SECTION_PARSER_H
#define KYRT_ZCA_SECTION_PARSER_H

#include <cstdint>
#include <cstring>
#include <limits>

#include "kyrt/zca.h"
#include "zca/leb128.h"
#include "zca/section_messages.h"
#include "zca/zca_format.h"

namespace kyrt::zca {

// Where the section lies in the analysed process.
struct SectionPlacement {
  uint64_t moduleBase;      // added to version 1.1 addresses
  uint64_t sectionAddress;  // the address of the section's first byte; PC-relative
                            // version 1.2 addresses are relative to their table's
                            // header, at sectionAddress + header offset
};

// A table's header as read from the section.
struct TableHeader {
  uint64_t offset;  // the header's first byte, from the section start
  uint16_t version;
  uint16_t entryCount;
  uint32_t stringTableOffset;  // from the header's first byte
  uint32_t stringTableSize;
  uint32_t expressionTableOffset;  // from the header's first byte
  uint32_t expressionTableSize;
  uint64_t flags;  // the kFlag* bits; 0 for version 1.1
};

// What an entry's location expression turned out to be.
enum class LocationForm {
  kConstant,          // DW_OP_litN: value N, register flag 0
  kRegister,          // DW_OP_regN: value N, register flag 1
  kRegisterOffset,    // DW_OP_bregN: value N, register flag 1, offset
  kUnknownOperation,  // a single other operation: value 0xFFFFFFFF, register flag 1
  kUnsupported,       // anything else: the argument stays all zero
};

// a + b, or the largest offset when the sum does not fit (such an offset
// lies outside every section).
inline uint64_t SaturatingSum(uint64_t a, uint64_t b) {
  const uint64_t sum = a + b;
  return sum < a ? std::numeric_limits<uint64_t>::max() : sum;
}

// The tables are little-endian, like the only host the runtime runs on:
// numbers are read in place, at any alignment.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "little-endian host expected");

// The little-endian number of type T at bytes.
template <typename T>
T LoadLittleEndian(const uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Whether operation is one of the 32 operations starting at first.
inline bool IsInOperationRange(uint8_t operation, uint8_t first) {
  return operation >= first && operation < first + kOperationsPerRange;
}

inline bool IsBaseRegisterOperation(uint8_t operation) {
  return IsInOperationRange(operation, kOpBreg0);
}

// The location of a one-byte expression.
inline LocationForm DecodeSingleOperation(uint8_t operation, KyZCAArgument* argument) {
  if (IsInOperationRange(operation, kOpLit0)) {
    argument->value = operation - kOpLit0;
    return LocationForm::kConstant;
  }
  argument->isRegister = 1;
  if (IsInOperationRange(operation, kOpReg0)) {
    argument->value = operation - kOpReg0;
    return LocationForm::kRegister;
  }
  if (IsBaseRegisterOperation(operation)) {
    argument->value = operation - kOpBreg0;
    return LocationForm::kRegisterOffset;
  }
  argument->value = kUnknownOperationValue;
  return LocationForm::kUnknownOperation;
}

// Version 1.2 addresses: a 32-bit address with bit 31 set has its upper
// half filled with ones (one with bit 31 clear is used as read, upper half
// included); a PC-relative one is added to its header's address.
inline uint64_t RelocateVersion12Address(uint64_t stored, uint64_t flags, uint64_t headerAddress) {
  constexpr uint64_t kBit31 = uint64_t{1} << 31;
  constexpr uint64_t kUpperHalf = ~uint64_t{0} << 32;
  uint64_t address = stored;
  if ((flags & kFlag32Bit) != 0 && (address & kBit31) != 0) address |= kUpperHalf;
  if ((flags & kFlagPcRelative) != 0) address += headerAddress;
  return address;
}

template <typename Observer>
class SectionParser {
 public:
  // bytes[0 .. size) is the section; size is not 0.
  SectionParser(const uint8_t* bytes, uint64_t size, const SectionPlacement& placement,
                Observer& observer)
      : bytes_(bytes), size_(size), placement_(placement), observer_(observer) {}

  void run() {
    uint64_t position = 0;
    while (position < size_) {
      if (bytes_[position] == 0) {
        ++position;  // padding between tables
        continue;
      }
      if (!parseTable(position, &position)) return;
    }
  }

 private:
  template <typename T>
  T load(uint64_t offset) const {
    return LoadLittleEndian<T>(bytes_ + offset);
  }

  // Reports the problem of the current table; always false, so that a
  // check can end with "return fail(...)".
  bool fail(SectionProblem problem) {
    error_.problem = problem;
    observer_.sectionFailed(error_);
    return false;
  }

  static const HeaderLayout* headerLayoutOf(uint16_t version) {
    if (version == kVersion11) return &kHeader11;
    if (version == kVersion12) return &kHeader12;
    return nullptr;
  }

  static const EntryLayout& entryLayoutOf(const TableHeader& table) {
    const bool hasProbe = table.version == kVersion11 || (table.flags & kFlagProbe) != 0;
    return hasProbe ? kEntryWithProbe : kEntryWithoutProbe;
  }

  TableHeader readHeader(uint64_t header, uint16_t version, const HeaderLayout& layout) const {
    TableHeader table{};
    table.offset = header;
    table.version = version;
    table.entryCount = load<uint16_t>(header + layout.entryCount);
    table.stringTableOffset = load<uint32_t>(header + layout.stringTableOffset);
    table.stringTableSize = load<uint32_t>(header + layout.stringTableSize);
    table.expressionTableOffset = load<uint32_t>(header + layout.expressionTableOffset);
    table.expressionTableSize = load<uint32_t>(header + layout.expressionTableSize);
    if (layout.hasFlags) table.flags = load<uint64_t>(header + layout.flags);
    return table;
  }

  // Parses the table whose header starts at header (a non-zero byte) and
  // sets *next to where the walk goes on. False when a problem ended it.
  bool parseTable(uint64_t header, uint64_t* next) {
    error_ = SectionError{SectionProblem::kSectionSize, header, 0};
    const uint64_t available = size_ - header;
    if (available < kMinimumHeaderSize) return fail(SectionProblem::kSectionSize);
    if (std::memcmp(bytes_ + header, kMagic, kMagicSize) != 0) {
      return fail(SectionProblem::kHeaderFormat);
    }
    const uint16_t version = load<uint16_t>(header + kVersionFieldOffset);
    error_.version = version;
    const HeaderLayout* layout = headerLayoutOf(version);
    if (layout == nullptr) return fail(SectionProblem::kVersion);
    observer_.tableStarted(header, version);
    // A version 1.2 header cut by the section end leaves less than no room
    // for entries, whatever their count.
    if (available < layout->size) return fail(SectionProblem::kItemCount);
    const TableHeader table = readHeader(header, version, *layout);
    observer_.tableRead(table);
    const EntryLayout& entry = entryLayoutOf(table);
    if (available - layout->size < table.entryCount * entry.size) {
      return fail(SectionProblem::kItemCount);
    }
    uint64_t entryOffset = header + layout->size;
    for (uint32_t i = 0; i < table.entryCount; ++i, entryOffset += entry.size) {
      if (!parseEntry(table, entryOffset, entry)) return false;
    }
    return findNextTable(table, next);
  }

  bool parseEntry(const TableHeader& table, uint64_t entry, const EntryLayout& layout) {
    KyZCARecord record{};
    const uint64_t stored = load<uint64_t>(entry + kEntryAddress);
    record.address = table.version == kVersion11
                         ? stored + placement_.moduleBase
                         : RelocateVersion12Address(stored, table.flags,
                                                    placement_.sectionAddress + table.offset);
    if (layout.hasProbe) record.probe = load<uint32_t>(entry + layout.probe);
    if (!resolveName(table, load<uint32_t>(entry + layout.nameOffset), &record.name)) return false;
    LocationForm form;
    if (!decodeExpression(table, load<uint32_t>(entry + layout.expressionOffset), &record, &form)) {
      return false;
    }
    observer_.entryFound(table, record, form);
    return true;
  }

  bool resolveName(const TableHeader& table, uint32_t nameOffset, const char** name) {
    const uint64_t start =
        SaturatingSum(SaturatingSum(table.offset, table.stringTableOffset), nameOffset);
    if (start >= size_) return fail(SectionProblem::kNameOffset);
    if (std::memchr(bytes_ + start, 0, size_ - start) == nullptr)
      return fail(SectionProblem::kNameUnterminated);
    *name = reinterpret_cast<const char*>(bytes_ + start);
    return true;
  }

  // The expression: a ULEB128 length L, then L bytes whose first is the
  // operation. The operation byte is read even when L is 0, so it must lie
  // inside the section as well as the L bytes.
  bool decodeExpression(const TableHeader& table, uint32_t expressionOffset, KyZCARecord* record,
                        LocationForm* form) {
    const uint64_t start =
        SaturatingSum(SaturatingSum(table.offset, table.expressionTableOffset), expressionOffset);
    if (start >= size_) return fail(SectionProblem::kExpressionOffset);
    record->expression = bytes_ + start;
    record->argumentCount = 1;
    uint64_t cursor = start;
    uint32_t length = 0;
    if (!ReadUleb128(bytes_, size_, &cursor, &length)) {
      return fail(SectionProblem::kExpressionLength);
    }
    if (cursor >= size_ || size_ - cursor < length) return fail(SectionProblem::kExpressionLength);
    const uint8_t operation = bytes_[cursor];
    KyZCAArgument* argument = &record->arguments[0];
    if (length == 1) {
      *form = DecodeSingleOperation(operation, argument);
      return true;
    }
    if (!IsBaseRegisterOperation(operation)) {
      *form = LocationForm::kUnsupported;
      return true;
    }
    ++cursor;
    int32_t offset = 0;
    if (!ReadSleb128(bytes_, size_, &cursor, &offset)) {
      return fail(SectionProblem::kExpressionLength);
    }
    argument->value = operation - kOpBreg0;
    argument->isRegister = 1;
    argument->offset = offset;
    *form = LocationForm::kRegisterOffset;
    return true;
  }

  bool findNextTable(const TableHeader& table, uint64_t* next) {
    const uint64_t end = table.stringTableOffset < table.expressionTableOffset
                             ? SaturatingSum(table.offset, uint64_t{table.expressionTableOffset} +
                                                               table.expressionTableSize)
                             : SaturatingSum(table.offset, uint64_t{table.stringTableOffset} +
                                                               table.stringTableSize);
    if (end <= table.offset) return fail(SectionProblem::kTableLayout);
    *next = end;
    return true;
  }

  const uint8_t* const bytes_;
  const uint64_t size_;
  const SectionPlacement placement_;
  Observer& observer_;
  SectionError error_{};
};

// Walks the section bytes[0 .. size). Nothing happens for null bytes, a
// size of 0, or a size that would run past the end of the address space.
template <typename Observer>
void ParseSection(const uint8_t* bytes, uint64_t size, const SectionPlacement& placement,
                  Observer& observer) {
  if (bytes == nullptr || size == 0) return;
  if (size > std::numeric_limits<uintptr_t>::max() - reinterpret_cast<uintptr_t>(bytes)) return;
  SectionParser<Observer>(bytes, size, placement, observer).run();
}

}  // namespace kyrt::zca

#endif  // KYRT_ZCA_SECTION_PARSER_H
