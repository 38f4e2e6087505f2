// The layout of an annotation table inside a ".qzv_notify_tab" section.
//
// A section is a run of tables, possibly separated by zero bytes. A table is
// a header, its entries right behind it, and two tables the header points
// at by offsets from the header's first byte: a string table (entry names)
// and an expression table (location expressions). All numbers are
// little-endian.
//
//   version 1.1 header, 36 bytes        version 1.2 header, 48 bytes
//    0 magic (16)                        0 magic (16)
//   16 version 0x0101                   16 version 0x0102
//   18 entry count                      18 (not read)
//   20 string table offset              20 entry count
//   24 string table size                22 (not read)
//   28 expression table offset          24 string table offset
//   32 expression table size            28 string table size
//                                       32 expression table offset
//                                       36 expression table size
//                                       40 flags (64 bits)
//
//   entry (1.1, and 1.2 with the probe flag), 20 bytes: address 0 (64 bits),
//   probe word 8, name offset 12, expression offset 16;
//   entry (1.2 without the probe flag), 16 bytes: address 0, name offset 8,
//   expression offset 12.
#ifndef KYRT_ZCA_ZCA_FORMAT_H
#define KYRT_ZCA_ZCA_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace kyrt::zca {

// The 15 characters of the section name and one NUL: all 16 must match.
constexpr std::size_t kMagicSize = 16;
inline constexpr char kMagic[kMagicSize] = ".qzv_notify_tab";

// Version numbers: major in the high byte, minor in the low byte.
constexpr uint16_t kVersion11 = 0x0101;
constexpr uint16_t kVersion12 = 0x0102;
constexpr std::size_t kVersionFieldOffset = 16;

// The bytes a table needs before its version is looked at. Version 1.2
// headers are longer; the rest of theirs is checked with the entries.
constexpr uint64_t kMinimumHeaderSize = 36;

// The flag word of a version 1.2 table.
constexpr uint64_t kFlagPcRelative = 1;
constexpr uint64_t kFlagProbe = 2;
constexpr uint64_t kFlag32Bit = 4;

// Where the fields of a header lie.
struct HeaderLayout {
  uint64_t size;
  std::size_t entryCount;
  std::size_t stringTableOffset;
  std::size_t stringTableSize;
  std::size_t expressionTableOffset;
  std::size_t expressionTableSize;
  bool hasFlags;
  std::size_t flags;
};

constexpr HeaderLayout kHeader11{36, 18, 20, 24, 28, 32, false, 0};
constexpr HeaderLayout kHeader12{48, 20, 24, 28, 32, 36, true, 40};

// Where the fields of an entry lie.
struct EntryLayout {
  uint64_t size;
  bool hasProbe;
  std::size_t probe;
  std::size_t nameOffset;
  std::size_t expressionOffset;
};

constexpr std::size_t kEntryAddress = 0;
constexpr EntryLayout kEntryWithProbe{20, true, 8, 12, 16};
constexpr EntryLayout kEntryWithoutProbe{16, false, 0, 8, 12};

// DWARF location operations the expressions may start with: each range
// names its operand (a small constant or a register number) by the
// distance from its first operation.
constexpr uint8_t kOpLit0 = 0x30;   // DW_OP_lit0 .. DW_OP_lit31: a constant
constexpr uint8_t kOpReg0 = 0x50;   // DW_OP_reg0 .. DW_OP_reg31: a register
constexpr uint8_t kOpBreg0 = 0x70;  // DW_OP_breg0 .. DW_OP_breg31: register + SLEB128 offset
constexpr uint8_t kOperationsPerRange = 32;

// The value a one-byte expression with any other operation yields (with the
// register flag set).
constexpr uint64_t kUnknownOperationValue = 0xFFFFFFFF;

}  // namespace kyrt::zca

#endif  // KYRT_ZCA_ZCA_FORMAT_H
