// The texts the section parser reports, and the problems that end a parse.
//
// The tables' own checks (header size, magic, version, room for the
// entries) keep their historical wording, "Expected" in the version message
// included: it shows the version that was found. The checks added for
// damaged or hostile sections (names and expressions must lie inside the
// section, tables must move the parse forward) use the same "zca_parser:"
// style.
#ifndef KYRT_ZCA_SECTION_MESSAGES_H
#define KYRT_ZCA_SECTION_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kyrt::zca {

inline constexpr const char kFoundVersion11[] = "Found ZCA section with version 1.1";
inline constexpr const char kFoundVersion12[] = "Found ZCA section with version 1.2";
inline constexpr const char kUnsupportedExpression[] = "KYRT: Unsupported Dwarf Expression in ZCA";

// Why a section's parse stopped.
enum class SectionProblem {
  kSectionSize,       // fewer than 36 bytes left for a header
  kHeaderFormat,      // the magic does not match
  kItemCount,         // fewer bytes left than the header and entries need
  kVersion,           // neither 1.1 nor 1.2
  kNameOffset,        // an entry's name starts outside the section
  kNameUnterminated,  // an entry's name has no NUL inside the section
  kExpressionOffset,  // an entry's expression starts outside the section
  kExpressionLength,  // an expression (or its operand) runs past the section end
  kTableLayout,       // the next table would start at or before this header
};

struct SectionError {
  SectionProblem problem;
  uint64_t headerOffset;  // the table's first byte, from the section start
  uint16_t version;       // the table's version field (read for kVersion and later checks)
};

// Room for the longest message.
constexpr std::size_t kSectionMessageSize = 96;

// The message of a problem without arguments; null for kVersion.
inline const char* FixedSectionMessage(SectionProblem problem) {
  switch (problem) {
    case SectionProblem::kSectionSize:
      return "ZCA parser: invalid zca section size";
    case SectionProblem::kHeaderFormat:
      return "zca_parser: Incorrect zca header format";
    case SectionProblem::kItemCount:
      return "zca_parser: incorrect number of zca items";
    case SectionProblem::kVersion:
      return nullptr;
    case SectionProblem::kNameOffset:
      return "zca_parser: incorrect zca name offset";
    case SectionProblem::kNameUnterminated:
      return "zca_parser: unterminated zca name";
    case SectionProblem::kExpressionOffset:
      return "zca_parser: incorrect zca expression offset";
    case SectionProblem::kExpressionLength:
      return "zca_parser: incorrect zca expression length";
    case SectionProblem::kTableLayout:
      return "zca_parser: incorrect zca table layout";
  }
  return nullptr;
}

// Writes the problem's message into buffer (always terminated, cut to
// size). Returns buffer.
inline const char* DescribeSectionError(const SectionError& error, char* buffer, std::size_t size) {
  constexpr unsigned kByteBits = 8;
  constexpr unsigned kByteMask = 0xFF;
  const char* fixed = FixedSectionMessage(error.problem);
  if (fixed != nullptr) {
    std::snprintf(buffer, size, "%s", fixed);
  } else {
    std::snprintf(buffer, size, "zca_parser: Expected zca version %d.%d",
                  static_cast<int>(error.version >> kByteBits),
                  static_cast<int>(error.version & kByteMask));
  }
  return buffer;
}

}  // namespace kyrt::zca

#endif  // KYRT_ZCA_SECTION_MESSAGES_H
