// Setting and reading option values.
//
// Every setter goes through one common setter and every string read through
// one argument getter. Both, and the typed getters, bound the option id
// inclusively (an id equal to the option count passes the bound): such an id
// names a slot that no parser owns, so the ownership test refuses it next,
// with the same message as any foreign id. Slots past the table are refused
// before they are looked at.
#include <cstring>

#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/options.h"
#include "options/options_internal.h"

namespace {

using kyrt::OptionRecord;
using kyrt::OptionValueNode;

constexpr const char* kBadValueAccess =
    "A valid option id and parser id must be specified to get the value of the option";

// Shown in the refusal of a value outside the valid arguments when the
// setter was given no string (integers and booleans).
constexpr const char* kNoStringText = "\"\"";

// The record of option for a value access as type, or a fatal defect.
OptionRecord& ValueRecord(uint32_t parser, uint32_t option, uint32_t type) {
  OptionRecord* record = option <= kyrt::OptionCount() ? kyrt::OptionSlot(option) : nullptr;
  if (record == nullptr || !kyrt::IsOwnedBy(*record, parser) || record->type != type) {
    __KyLogFatalToolDefect("%s", kBadValueAccess);
  }
  return *record;
}

// The type of the option in slot option, for the calls that serve whatever
// type the option has; a string for an id beyond the table (refused later).
uint32_t OwnType(uint32_t option) {
  const OptionRecord* record = kyrt::OptionSlot(option);
  return record != nullptr ? record->type : KY_OPTION_TYPE_STRING;
}

// The option's name for a message; a slot that lost its record has none.
const char* NameText(const OptionRecord& record) {
  return record.name != nullptr ? record.name : kyrt::kMissingText;
}

bool IsSet(const OptionRecord& record) {
  return record.current == &record.setNode;
}

// Whether given is a prefix of entry: compared over given's length, so an
// abbreviation matches and the empty string matches any entry.
bool IsPrefixOf(const char* given, const char* entry) {
  return entry != nullptr && std::strncmp(entry, given, std::strlen(given)) == 0;
}

// Whether a value set as type is among record's valid arguments: integers
// by equality of value, strings as a prefix of an entry's string.
bool IsValidArgument(const OptionRecord& record, uint32_t type, const char* string,
                     uint32_t value) {
  for (const OptionValueNode* node = record.validArguments; node != nullptr; node = node->next) {
    if (type == KY_OPTION_TYPE_INTEGER) {
      if (node->value == value) return true;
    } else if (string != nullptr && IsPrefixOf(string, node->string)) {
      return true;
    }
  }
  return false;
}

void StoreNumber(OptionRecord& record, uint32_t value) {
  record.setNode.value = value;
  __KyFree(record.setNode.string);
  record.setNode.string = nullptr;
  record.argumentCount = 1;
  record.current = &record.setNode;
}

// The node a string value goes into: the set node, replacing its old
// string, or, for an append option that already has a value, a new node
// linked behind the last one.
OptionValueNode& NodeForString(OptionRecord& record) {
  if (record.append == 0) {
    __KyFree(record.setNode.string);
    record.argumentCount = 1;
    return record.setNode;
  }
  OptionValueNode* node = &record.setNode;
  if (record.lastNode != nullptr) {
    node = kyrt::NewValueNode(kyrt::kStringNodeValue, nullptr);
    record.lastNode->next = node;
  }
  ++record.argumentCount;
  record.lastNode = node;
  return *node;
}

void StoreString(OptionRecord& record, uint32_t type, const char* string) {
  OptionValueNode& node = NodeForString(record);
  node.value = kyrt::kStringNodeValue;
  node.string = kyrt::CopyOptionText(string, type);
  node.next = nullptr;
  record.current = &record.setNode;
}

// The common setter: sets option of parser, which must be of type, to the
// number value (booleans, integers) or the string (string types).
int SetOption(uint32_t parser, uint32_t option, uint32_t type, const char* string, uint32_t value) {
  OptionRecord& record = ValueRecord(parser, option, type);
  if (record.current == nullptr) {
    __KyLogFatalToolDefect("Option %s is not a valid option", NameText(record));
  }
  if (record.validArguments != nullptr && !IsValidArgument(record, type, string, value)) {
    __KyLogFatalToolDefect("Invalid argument [%s, %d] used to set Option %s",
                           string != nullptr ? string : kNoStringText, static_cast<int32_t>(value),
                           NameText(record));
  }
  switch (type) {
    case KY_OPTION_TYPE_BOOLEAN:
    case KY_OPTION_TYPE_INTEGER:
      StoreNumber(record, value);
      return 1;
    case KY_OPTION_TYPE_STRING:
    case KY_OPTION_TYPE_ENUM:
    case KY_OPTION_TYPE_PATH:
      if (string == nullptr) __KyLogFatalToolDefect("Null string used to set string option");
      StoreString(record, type, string);
      return 1;
    default:
      __KyLogFatalToolDefect("Invalid option type");
  }
}

// The current value of a boolean or integer option.
int32_t NumberValue(uint32_t parser, uint32_t option, uint32_t type) {
  const OptionRecord& record = ValueRecord(parser, option, type);
  if (record.current == nullptr) {
    __KyLogFatalToolDefect("Option %s is not initialized correctly", NameText(record));
  }
  return static_cast<int32_t>(record.current->value);
}

}  // namespace

namespace kyrt {

const char* OptionArgument(uint32_t parser, uint32_t option, uint32_t type, uint32_t index) {
  const OptionRecord& record = ValueRecord(parser, option, type);
  if (index == 0 || (IsSet(record) && index > record.argumentCount)) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, "Option %s does not have an argument #%d",
                    NameText(record), static_cast<int32_t>(index));
    return nullptr;
  }
  const OptionValueNode* node = record.current;
  for (uint32_t step = 1; step < index && node != nullptr; ++step) node = node->next;
  return node != nullptr ? node->string : nullptr;
}

}  // namespace kyrt

extern "C" {

int __KySetBooleanOption(uint32_t parser, uint32_t option, int32_t value) noexcept {
  return SetOption(parser, option, KY_OPTION_TYPE_BOOLEAN, nullptr, static_cast<uint32_t>(value));
}

int __KySetIntegerOption(uint32_t parser, uint32_t option, int32_t value) noexcept {
  return SetOption(parser, option, KY_OPTION_TYPE_INTEGER, nullptr, static_cast<uint32_t>(value));
}

int __KySetStringOption(uint32_t parser, uint32_t option, const char* value) noexcept {
  return SetOption(parser, option, OwnType(option), value, kyrt::kStringNodeValue);
}

int __KySetPathOption(uint32_t parser, uint32_t option, const char* value) noexcept {
  return SetOption(parser, option, KY_OPTION_TYPE_PATH, value, kyrt::kStringNodeValue);
}

int32_t __KyGetBooleanOptionValue(uint32_t parser, uint32_t option) noexcept {
  return NumberValue(parser, option, KY_OPTION_TYPE_BOOLEAN);
}

int32_t __KyGetIntegerOptionValue(uint32_t parser, uint32_t option) noexcept {
  return NumberValue(parser, option, KY_OPTION_TYPE_INTEGER);
}

const char* __KyGetStringOptionValue(uint32_t parser, uint32_t option) noexcept {
  return kyrt::OptionArgument(parser, option, OwnType(option), 1);
}

const char* __KyGetStringOptionArgumentValue(uint32_t parser, uint32_t option,
                                             uint32_t index) noexcept {
  return kyrt::OptionArgument(parser, option, KY_OPTION_TYPE_STRING, index);
}

const char* __KyGetPathOptionValue(uint32_t parser, uint32_t option) noexcept {
  return kyrt::OptionArgument(parser, option, KY_OPTION_TYPE_PATH, 1);
}

const char* __KyGetPathOptionArgumentValue(uint32_t parser, uint32_t option,
                                           uint32_t index) noexcept {
  return kyrt::OptionArgument(parser, option, KY_OPTION_TYPE_PATH, index);
}

uint32_t __KyGetStringOptionEnumValue(uint32_t parser, uint32_t option) noexcept {
  const char* value = kyrt::OptionArgument(parser, option, KY_OPTION_TYPE_ENUM, 1);
  if (value == nullptr) return KY_OPTION_INVALID_ID;
  const OptionRecord& record = *kyrt::OptionSlot(option);
  for (const OptionValueNode* node = record.validArguments; node != nullptr; node = node->next) {
    if (IsPrefixOf(value, node->string)) return node->value;
  }
  return KY_OPTION_INVALID_ID;
}

int __KyIsOptionSet(uint32_t parser, uint32_t option) noexcept {
  const OptionRecord* record = kyrt::RegisteredOption(parser, option);
  if (record == nullptr) {
    __KyLogFatalToolDefect(
        "A valid option id and parser id must be specified to check if an option is set");
  }
  return IsSet(*record) ? 1 : 0;
}

uint32_t __KyGetOptionFlags(uint32_t parser, uint32_t option) noexcept {
  const OptionRecord* record = kyrt::RegisteredOption(parser, option);
  if (record == nullptr) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0,
                    "Invalid option parser id or option id used to get option flags");
    return KY_OPTION_INVALID_ID;
  }
  return record->flags;
}

const char* __KyGetOptionName(uint32_t parser, uint32_t option) noexcept {
  const OptionRecord* record = kyrt::RegisteredOption(parser, option);
  return record != nullptr ? record->name : nullptr;
}

uint32_t __KyGetOptionNumberOfArguments(uint32_t /*parser*/, uint32_t option) noexcept {
  const OptionRecord* record = kyrt::OptionSlot(option);
  return record != nullptr ? record->argumentCount : 0;
}

void __KyProcessAppendOptionValues(uint32_t parser, uint32_t option, KyOptionValueCallback callback,
                                   void* context) noexcept {
  const OptionRecord* record = kyrt::RegisteredOption(parser, option);
  if (record == nullptr) {
    __KyLogFatalToolDefect(
        "A valid option id and parser id must be specified to check if an option is sets");
  }
  if (record->append == 0) {
    __KyLogFatalToolDefect("A iterator can be applied only to string and path append options.");
  }
  if (callback == nullptr) return;
  // The count is read again after every call: a callback may add values.
  for (uint32_t index = 1; index <= record->argumentCount; ++index) {
    callback(kyrt::OptionArgument(parser, option, record->type, index), context);
  }
}

}  // extern "C"
