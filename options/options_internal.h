// The option registry's tables and the internal interfaces shared by
// registration, value access, command-line parsing, help, the option log and
// release.
#ifndef KYRT_OPTIONS_OPTIONS_INTERNAL_H
#define KYRT_OPTIONS_OPTIONS_INTERNAL_H

#include <cstdint>

#include "kyrt/options.h"

namespace kyrt {

// The value of a node that holds a string, and of a string valid argument
// registered without an enumeration value.
constexpr uint32_t kStringNodeValue = 0xFFFFFFFFu;

// The parser id of an option slot that no parser owns: never registered, or
// released. No call matches it, whatever parser id it passes.
constexpr uint32_t kNoParser = KY_OPTION_INVALID_ID;

// What a printf "%s" would show for a missing string. Passed explicitly so
// that no null pointer ever reaches a format.
constexpr const char* kMissingText = "(null)";

// One value of an option, or one entry of its list of valid arguments.
//   value   integer, boolean or enumeration value; kStringNodeValue for a
//           string value
//   string  owned copy (category 0), or null
//   next    the following value of an append option, or the following
//           valid argument; null at the end
// Nodes other than the two embedded in the record come from __KyMalloc
// (category 0) and belong to the record.
struct OptionValueNode {
  uint32_t value = 0;
  char* string = nullptr;
  OptionValueNode* next = nullptr;
};

// One slot of the option table, fields in their documented order.
//
// Invariants of a registered record (parserId != kNoParser):
//   - current is &defaultNode while the option is unset and &setNode from
//     the first successful set on; it is never null;
//   - argumentCount is 0 while unset, 1 for a set non-append option, and the
//     length of the chain setNode -> next -> ... for a set append option,
//     whose last node is lastNode;
//   - append is set only for string and path options;
//   - validArguments lists nodes in registration order; booleans, paths and
//     append options never have one.
// A slot that was never registered, or has been released, holds the
// default-constructed record: no strings, no nodes, parserId kNoParser.
struct OptionRecord {
  char* name = nullptr;
  char* description = nullptr;
  uint32_t type = 0;
  uint32_t append = 0;
  OptionValueNode defaultNode;
  OptionValueNode setNode;
  uint32_t argumentCount = 0;
  OptionValueNode* lastNode = nullptr;
  OptionValueNode* current = nullptr;
  uint32_t flags = 0;
  uint32_t parserId = kNoParser;
  OptionValueNode* validArguments = nullptr;
  uint32_t listedInHelp = 0;
};

// Number of parsers handed out, released ones included (never above
// KY_OPTION_MAX_PARSERS once a refused call has undone its increment).
uint32_t ParserCount();

// Takes the next parser id; KY_OPTION_INVALID_ID when the table is full.
uint32_t TakeParserId();

// The stored name of parser, or null for an id that was never handed out or
// has been released.
const char* ParserName(uint32_t parser);

// The name for messages and help: the stored name, or kMissingText.
const char* ParserNameText(uint32_t parser);

// Stores a private copy of name as parser's name (parser < ParserCount()).
void StoreParserName(uint32_t parser, const char* name);

// Frees parser's stored name and counts the release.
void ForgetParserName(uint32_t parser);

// Number of option ids handed out (may pass KY_OPTION_MAX_OPTIONS for an
// instant while a refused registration undoes its increment).
uint32_t OptionCount();

// The number of slots that hold options or did: the option count, kept
// within the table.
inline uint32_t OptionSlotsInUse() {
  const uint32_t count = OptionCount();
  return count < KY_OPTION_MAX_OPTIONS ? count : KY_OPTION_MAX_OPTIONS;
}

// Takes the next option id; KY_OPTION_INVALID_ID when the table is full.
uint32_t TakeOptionId();

// The slot of option id, or null for an id beyond the table.
OptionRecord* OptionSlot(uint32_t option);

// Whether record is registered under parser. Never true for kNoParser.
inline bool IsOwnedBy(const OptionRecord& record, uint32_t parser) {
  return parser != kNoParser && record.parserId == parser;
}

// The record of option when the id is below the option count and the option
// is registered under parser; otherwise null.
OptionRecord* RegisteredOption(uint32_t parser, uint32_t option);

// Calls visit(id, record) for every option registered under parser, in id
// order.
template <typename Visit>
void ForEachOptionOf(uint32_t parser, Visit visit) {
  const uint32_t slots = OptionSlotsInUse();
  for (uint32_t id = 0; id < slots; ++id) {
    OptionRecord& record = *OptionSlot(id);
    if (IsOwnedBy(record, parser)) visit(id, record);
  }
}

// A node allocated from category 0 holding value and a copy of string.
OptionValueNode* NewValueNode(uint32_t value, const char* string);

// A private copy of text (category 0); for paths, with runs of '/' folded.
char* CopyOptionText(const char* text, uint32_t type);

// Frees every string and extra node of record and returns the slot to its
// unregistered state.
void ClearOptionRecord(OptionRecord& record);

// The argument getter: value number index (from 1) of option, which must be
// registered under parser and be of the given type, else a fatal tool
// defect. Logs an error and returns null for index 0 or an index above the
// number of values of a set option; null also when the chain of values ends
// first.
const char* OptionArgument(uint32_t parser, uint32_t option, uint32_t type, uint32_t index);

// Returns the registry to its state at load: every option and parser name
// freed, both tables empty, both counters 0. For tests and fuzzing, which
// need fresh tables in one process; no other thread may use options
// meanwhile.
void ResetOptionRegistry();

}  // namespace kyrt

#endif  // KYRT_OPTIONS_OPTIONS_INTERNAL_H
