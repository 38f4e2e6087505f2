// Creating parsers, registering options under them and registering the
// valid arguments of an option.
#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/options.h"
#include "options/options_internal.h"

namespace {

using kyrt::OptionRecord;
using kyrt::OptionValueNode;

// What a registration call describes, whatever its type.
struct OptionDefinition {
  uint32_t parser;
  const char* name;
  const char* description;
  uint32_t type;
  int32_t defaultValue;       // booleans and integers
  const char* defaultString;  // string types; may be null
  uint32_t flags;
  int32_t append;  // string and path options only
  int32_t listedInHelp;
};

bool TakesAppend(uint32_t type) {
  return type == KY_OPTION_TYPE_STRING || type == KY_OPTION_TYPE_PATH;
}

bool HoldsString(uint32_t type) {
  return type == KY_OPTION_TYPE_STRING || type == KY_OPTION_TYPE_ENUM ||
         type == KY_OPTION_TYPE_PATH;
}

// The default value as stored: booleans normalised to 0 or 1, string types
// marked as strings.
uint32_t StoredDefaultValue(const OptionDefinition& definition) {
  if (HoldsString(definition.type)) return kyrt::kStringNodeValue;
  if (definition.type == KY_OPTION_TYPE_BOOLEAN) return definition.defaultValue != 0 ? 1 : 0;
  return static_cast<uint32_t>(definition.defaultValue);
}

void FillRecord(OptionRecord& record, const OptionDefinition& definition) {
  record.name = __KyStrdup(definition.name);
  record.description = __KyStrdup(definition.description);
  record.type = definition.type;
  record.append = TakesAppend(definition.type) && definition.append != 0 ? 1 : 0;
  record.defaultNode.value = StoredDefaultValue(definition);
  record.defaultNode.string = HoldsString(definition.type)
                                  ? kyrt::CopyOptionText(definition.defaultString, definition.type)
                                  : nullptr;
  record.defaultNode.next = nullptr;
  record.setNode = OptionValueNode();
  record.argumentCount = 0;
  record.lastNode = nullptr;
  record.current = &record.defaultNode;
  record.flags = definition.flags;
  record.validArguments = nullptr;
  record.listedInHelp = static_cast<uint32_t>(definition.listedInHelp);
  record.parserId = definition.parser;
}

uint32_t RegisterOption(const OptionDefinition& definition) {
  if (definition.name == nullptr || definition.description == nullptr ||
      definition.parser >= kyrt::ParserCount()) {
    __KyLogFatalToolDefect(
        "A valid option name, description and parser handle must be specified to register an "
        "option with KYRT");
  }
  const uint32_t id = kyrt::TakeOptionId();
  if (id == KY_OPTION_INVALID_ID) return KY_OPTION_INVALID_ID;
  if (definition.name[0] != '-') {
    __KyLogFatalToolDefect(
        "A valid option name starting with '-' must be specified to register the option with "
        "KYRT");
  }
  FillRecord(*kyrt::OptionSlot(id), definition);
  return id;
}

bool MayHaveValidArguments(uint32_t type) {
  return type == KY_OPTION_TYPE_INTEGER || type == KY_OPTION_TYPE_STRING ||
         type == KY_OPTION_TYPE_ENUM;
}

// Appends a valid argument (value and a copy of string) to option's list.
int AddValidArgument(uint32_t parser, uint32_t option, uint32_t value, const char* string) {
  OptionRecord* record = kyrt::RegisteredOption(parser, option);
  if (record == nullptr) {
    __KyLogFatalToolDefect(
        "A valid option id and parser id must be specified to register an option argument for "
        "an option in KYRT");
  }
  if (record->append != 0) {
    __KyLogFatalToolDefect(
        "Registering valid arguments for append options is not currenctly supported");
  }
  if (!MayHaveValidArguments(record->type)) {
    __KyLogFatalToolDefect("Only string and integer option types can register valid arguments");
  }
  OptionValueNode** link = &record->validArguments;
  while (*link != nullptr) link = &(*link)->next;
  *link = kyrt::NewValueNode(value, string);
  return 1;
}

}  // namespace

extern "C" {

uint32_t __KyGetOptionParser(const char* name) noexcept {
  if (name == nullptr) return KY_OPTION_INVALID_ID;
  const uint32_t parser = kyrt::TakeParserId();
  if (parser != KY_OPTION_INVALID_ID) kyrt::StoreParserName(parser, name);
  return parser;
}

uint32_t __KyRegisterBooleanOption(uint32_t parser, const char* name, const char* description,
                                   int32_t defaultValue, uint32_t flags,
                                   int32_t listedInHelp) noexcept {
  return RegisterOption({parser, name, description, KY_OPTION_TYPE_BOOLEAN, defaultValue, nullptr,
                         flags, 0, listedInHelp});
}

uint32_t __KyRegisterIntegerOption(uint32_t parser, const char* name, const char* description,
                                   int32_t defaultValue, uint32_t flags,
                                   int32_t listedInHelp) noexcept {
  return RegisterOption({parser, name, description, KY_OPTION_TYPE_INTEGER, defaultValue, nullptr,
                         flags, 0, listedInHelp});
}

uint32_t __KyRegisterStringOption(uint32_t parser, const char* name, const char* description,
                                  const char* defaultValue, uint32_t flags, int32_t append,
                                  int32_t listedInHelp) noexcept {
  return RegisterOption({parser, name, description, KY_OPTION_TYPE_STRING, 0, defaultValue, flags,
                         append, listedInHelp});
}

uint32_t __KyRegisterStringEnumOption(uint32_t parser, const char* name, const char* description,
                                      const char* defaultValue, uint32_t flags,
                                      int32_t listedInHelp) noexcept {
  return RegisterOption(
      {parser, name, description, KY_OPTION_TYPE_ENUM, 0, defaultValue, flags, 0, listedInHelp});
}

uint32_t __KyRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                const char* defaultValue, uint32_t flags, int32_t append,
                                int32_t listedInHelp) noexcept {
  return RegisterOption({parser, name, description, KY_OPTION_TYPE_PATH, 0, defaultValue, flags,
                         append, listedInHelp});
}

int __KySetValidIntegerOptionArgument(uint32_t parser, uint32_t option, int32_t value) noexcept {
  return AddValidArgument(parser, option, static_cast<uint32_t>(value), nullptr);
}

int __KySetValidStringOptionArgument(uint32_t parser, uint32_t option, const char* value) noexcept {
  return AddValidArgument(parser, option, kyrt::kStringNodeValue, value);
}

int __KySetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option, const char* value,
                                             uint32_t enumValue) noexcept {
  return AddValidArgument(parser, option, enumValue, value);
}

}  // extern "C"
