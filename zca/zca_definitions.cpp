// External annotation definitions: the line parser, the file loader, the
// process-wide definition list and its matching against modules.
//
// The list is a singly linked chain of KyZCADefinition nodes from
// g_definitions; each loaded file's nodes are appended at its tail, in line
// order. A node is kept for every non-blank line, whatever the line held;
// only nodes with a module path and an argument block can match a module,
// since the argument block holds the link-time base that the address needs.
// Nothing here is locked: one thread at a time loads, processes and cleans
// up.
#include "zca/zca_definitions.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/zca.h"
#include "util/text_copy.h"

namespace {

// The node layout tools see.
static_assert(sizeof(KyZCADefinition) == 48, "KyZCADefinition is 48 bytes");
static_assert(offsetof(KyZCADefinition, offset) == 0, "KyZCADefinition.offset at 0");
static_assert(offsetof(KyZCADefinition, name) == 8, "KyZCADefinition.name at 8");
static_assert(offsetof(KyZCADefinition, modulePath) == 16, "KyZCADefinition.modulePath at 16");
static_assert(offsetof(KyZCADefinition, argumentKind) == 24, "KyZCADefinition.argumentKind at 24");
static_assert(offsetof(KyZCADefinition, arguments) == 32, "KyZCADefinition.arguments at 32");
static_assert(offsetof(KyZCADefinition, next) == 40, "KyZCADefinition.next at 40");

KyZCADefinition* g_definitions = nullptr;

// fgets reads at most kLineBufferSize - 1 bytes of a line.
constexpr int kLineBufferSize = 65535;

// The fields of a line, in order.
enum DefinitionField {
  kNameField = 0,
  kModulePathField,
  kOffsetField,
  kFirstArgumentField,
  kSecondArgumentField,
  kFieldCount,
};

constexpr int kHexadecimal = 16;
constexpr int kAnyBase = 0;  // strtoul: 0x hexadecimal, 0 octal, else decimal
constexpr char kQuote = '"';
// The module path field is quoted: its first and last characters go.
constexpr std::size_t kModulePathQuotes = 2;
constexpr int32_t kArgumentKindWithArguments = 2;
// Kinds up to this one carry no arguments into the record.
constexpr int32_t kHighestKindWithoutArguments = 1;
constexpr uint32_t kExternalArgumentCount = 2;
constexpr int kFirstArgument = 0;
constexpr int kLinkTimeBaseArgument = 1;

bool IsWhiteSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// A field: the characters [begin, end) of the line.
struct FieldText {
  const char* begin;
  const char* end;

  std::size_t length() const { return static_cast<std::size_t>(end - begin); }
};

// Finds the field at or after *cursor: white space separates fields except
// inside double quotes (each quote toggles quoting; the quotes stay part of
// the field). Runs of white space make no empty fields. Returns false at the
// end of the text.
bool NextField(const char** cursor, FieldText* field) {
  const char* c = *cursor;
  while (IsWhiteSpace(*c)) ++c;
  if (*c == '\0') return false;
  field->begin = c;
  bool quoted = false;
  for (; *c != '\0' && (quoted || !IsWhiteSpace(*c)); ++c) {
    if (*c == kQuote) quoted = !quoted;
  }
  field->end = c;
  *cursor = c;
  return true;
}

// The field's number read by strtoul. A field never starts with white space
// and ends at white space, the text's end or past a quote, and strtoul
// stops at all three, so it never reads beyond the field.
unsigned long FieldNumber(const FieldText& field, int base) {
  return std::strtoul(field.begin, nullptr, base);
}

KyZCAArgument* NewArgumentBlock() {
  auto* block = static_cast<KyZCAArgument*>(
      __KyMalloc(KY_MEMORY_CATEGORY_MISC, kExternalArgumentCount * sizeof(KyZCAArgument), 0));
  std::memset(block, 0, kExternalArgumentCount * sizeof(KyZCAArgument));
  return block;
}

// The module path without its quotes, runs of "/" collapsed; a field too
// short to hold the two quotes defines no path.
char* ModulePathOf(const FieldText& field) {
  if (field.length() < kModulePathQuotes) return nullptr;
  char* path = kyrt::CopyOfText(field.begin + 1, field.length() - kModulePathQuotes);
  __KySanitizePath(path);
  return path;
}

void StoreField(int index, const FieldText& field, KyZCADefinition* definition) {
  switch (index) {
    case kNameField:
      definition->name = kyrt::CopyOfText(field.begin, field.length());
      return;
    case kModulePathField:
      definition->modulePath = ModulePathOf(field);
      return;
    case kOffsetField:
      definition->offset = static_cast<uint32_t>(FieldNumber(field, kHexadecimal));
      return;
    case kFirstArgumentField:
      definition->arguments = NewArgumentBlock();
      definition->argumentKind = kArgumentKindWithArguments;
      definition->arguments[kFirstArgument].value = FieldNumber(field, kAnyBase);
      return;
    default:  // kSecondArgumentField
      definition->arguments[kLinkTimeBaseArgument].value = FieldNumber(field, kHexadecimal);
      return;
  }
}

KyZCADefinition* NewDefinition() {
  return static_cast<KyZCADefinition*>(
      __KyMalloc(KY_MEMORY_CATEGORY_MISC, sizeof(KyZCADefinition), 0));
}

// The node the next line goes into: the first one, a new one linked after
// current, or current itself when a blank line left it unused.
KyZCADefinition* NodeForNextLine(KyZCADefinition* current) {
  if (current == nullptr) return NewDefinition();
  if (current->name == nullptr) return current;
  current->next = NewDefinition();
  return current->next;
}

// Reads the next line into buffer, as fgets does. A line too long for the
// buffer keeps its first kLineBufferSize - 1 bytes and the rest is skipped,
// so that it never turns into further lines: the last byte of the buffer is
// set before the read and is a NUL afterwards only if the buffer was filled.
bool ReadLine(std::FILE* stream, char* buffer) {
  constexpr char kUnfilled = '\n';
  buffer[kLineBufferSize - 1] = kUnfilled;
  if (__KyFgets(buffer, kLineBufferSize, stream) == nullptr) return false;
  const bool filled = buffer[kLineBufferSize - 1] == '\0';
  if (filled && buffer[kLineBufferSize - 2] != '\n') {
    int c;
    while ((c = std::getc(stream)) != EOF && c != '\n') {
    }
  }
  return true;
}

// The file's definitions as a chain, in line order; null for a file
// without lines.
KyZCADefinition* ReadDefinitions(std::FILE* stream, char* buffer) {
  KyZCADefinition* first = nullptr;
  KyZCADefinition* current = nullptr;
  while (ReadLine(stream, buffer)) {
    current = NodeForNextLine(current);
    if (first == nullptr) first = current;
    std::memset(current, 0, sizeof *current);
    __KyZCAParseDefinition(buffer, current);  // a node is kept whatever its line held
  }
  return first;
}

void AppendToDefinitionList(KyZCADefinition* chain) {
  KyZCADefinition** link = &g_definitions;
  while (*link != nullptr) link = &(*link)->next;
  *link = chain;
}

bool MatchesModule(const KyZCADefinition& definition, const char* moduleName) {
  if (std::strcmp(definition.modulePath, moduleName) == 0) return true;
  char* baseName = __KyGetBaseName(definition.modulePath);
  const bool matches = baseName != nullptr && std::strcmp(baseName, moduleName) == 0;
  __KyFree(baseName);
  return matches;
}

// The record of a matching definition: its offset relocated from the
// module's link-time base (the second argument) to its load address.
KyZCARecord ExternalRecord(const KyZCADefinition& definition, uint64_t moduleBase) {
  KyZCARecord record{};
  record.address =
      definition.offset + moduleBase - definition.arguments[kLinkTimeBaseArgument].value;
  record.name = definition.name;
  if (definition.argumentKind > kHighestKindWithoutArguments) {
    record.argumentCount = kExternalArgumentCount;
    std::memcpy(record.arguments, definition.arguments, sizeof record.arguments);
  }
  return record;
}

}  // namespace

namespace kyrt::zca {

const KyZCADefinition* DefinitionList() {
  return g_definitions;
}

void DeliverMatchingDefinitions(const KyZCADefinition* list, const char* moduleName,
                                uint64_t moduleBase, KyZCARecordCallback callback, void* user) {
  if (callback == nullptr) return;
  for (const KyZCADefinition* node = list; node != nullptr; node = node->next) {
    // A line without a fourth field has no link-time base to relocate by:
    // such a definition is skipped.
    if (node->modulePath == nullptr || node->arguments == nullptr) continue;
    if (!MatchesModule(*node, moduleName)) continue;
    KyZCARecord record = ExternalRecord(*node, moduleBase);
    callback(&record, user);
  }
}

}  // namespace kyrt::zca

extern "C" {

int __KyZCAParseDefinition(char* line, KyZCADefinition* definition) noexcept {
  if (line == nullptr || definition == nullptr) return 0;
  const char* cursor = __KyStripWhiteSpaces(line);
  int fields = 0;
  FieldText field;
  while (NextField(&cursor, &field)) {
    if (fields == kFieldCount) {
      __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0,
                      "zca_file_parser: Unexpected number of annotation arguments: %d",
                      static_cast<int>(kFieldCount));
      return 0;
    }
    StoreField(fields++, field, definition);
  }
  return fields == kFieldCount ? 1 : 0;
}

int __KyZCALoadExternalDefinitions(const char* path) noexcept {
  char* buffer = static_cast<char*>(__KyMalloc(KY_MEMORY_CATEGORY_MISC, kLineBufferSize, 0));
  std::FILE* stream = path != nullptr ? __KyFopen(path, "r", nullptr) : nullptr;
  if (stream == nullptr) {
    __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_FAIL_OPEN_FILE, 0, KY_LOG_ARG_STRING,
                    path != nullptr ? path : "", KY_LOG_ARG_END);
    __KyFree(buffer);
    return 0;
  }
  KyZCADefinition* definitions = ReadDefinitions(stream, buffer);
  __KyFree(buffer);
  __KyFclose(stream);
  AppendToDefinitionList(definitions);
  return 1;
}

void __KyZCAProcessExternalRecords(const char* moduleName, uint64_t moduleBase,
                                   KyZCARecordCallback callback, void* user) noexcept {
  char* name = __KyStrdup(moduleName);
  if (name == nullptr) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0,
                    "Cannot allocate memory to copy module name");
    return;
  }
  __KySanitizePath(name);
  kyrt::zca::DeliverMatchingDefinitions(g_definitions, name, moduleBase, callback, user);
  __KyFree(name);
}

void __KyZCACleanupDefinitions(void) noexcept {
  // The head is deliberately not reset: clean-up is the family's last call.
  KyZCADefinition* node = g_definitions;
  while (node != nullptr) {
    KyZCADefinition* next = node->next;
    __KyFree(node->name);
    __KyFree(node->modulePath);
    __KyFree(node->arguments);
    __KyFree(node);
    node = next;
  }
}

}  // extern "C"
