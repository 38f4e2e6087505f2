// The process-wide parser and option tables.
//
// Both tables are fixed arrays filled in id order. An id is taken by
// interlocked increment of the table's counter, so that registrations racing
// on several threads still get distinct ids; a refused one (table full)
// undoes its increment. The slots themselves are written without a lock:
// tools register, parse and set their options on one thread at start-up.
// Ids are never reused: a released parser keeps its slot (with no name) and
// its options keep theirs (owned by no parser).
#include <cstddef>
#include <cstring>

#include "kyrt/files.h"
#include "kyrt/memory.h"
#include "kyrt/runtime.h"
#include "options/options_internal.h"
#include "runtime/atomic_ops.h"

namespace {

using kyrt::OptionRecord;
using kyrt::OptionValueNode;

// The node shape and the order of the record's fields.
static_assert(sizeof(OptionValueNode) == 24, "value, string, next");
static_assert(offsetof(OptionValueNode, string) == 8 && offsetof(OptionValueNode, next) == 16);
static_assert(offsetof(OptionRecord, description) > offsetof(OptionRecord, name) &&
              offsetof(OptionRecord, type) > offsetof(OptionRecord, description) &&
              offsetof(OptionRecord, append) > offsetof(OptionRecord, type) &&
              offsetof(OptionRecord, defaultNode) > offsetof(OptionRecord, append) &&
              offsetof(OptionRecord, setNode) > offsetof(OptionRecord, defaultNode) &&
              offsetof(OptionRecord, argumentCount) > offsetof(OptionRecord, setNode) &&
              offsetof(OptionRecord, lastNode) > offsetof(OptionRecord, argumentCount) &&
              offsetof(OptionRecord, current) > offsetof(OptionRecord, lastNode) &&
              offsetof(OptionRecord, flags) > offsetof(OptionRecord, current) &&
              offsetof(OptionRecord, parserId) > offsetof(OptionRecord, flags) &&
              offsetof(OptionRecord, validArguments) > offsetof(OptionRecord, parserId) &&
              offsetof(OptionRecord, listedInHelp) > offsetof(OptionRecord, validArguments));

// Parser slot i holds the name of parser i (owned copy, category 0), or
// null when the parser was never created or has been released.
char* g_parserNames[KY_OPTION_MAX_PARSERS];
int32_t g_parserCount = 0;
// Counted by every release and read nowhere else: a statistic kept for
// inspection in a debugger.
int32_t g_releasedParserCount = 0;

OptionRecord g_options[KY_OPTION_MAX_OPTIONS];
int32_t g_optionCount = 0;

// Takes the next id of a table of capacity slots counted by counter.
uint32_t TakeId(volatile int32_t* counter, uint32_t capacity) {
  const uint32_t id = static_cast<uint32_t>(__KyInterlockedIncrement(counter) - 1);
  if (id >= capacity) {
    __KyInterlockedDecrement(counter);
    return KY_OPTION_INVALID_ID;
  }
  return id;
}

// Frees the strings of the nodes of a chain and every node from first on.
void FreeNodeChain(OptionValueNode* first) {
  while (first != nullptr) {
    OptionValueNode* next = first->next;
    __KyFree(first->string);
    __KyFree(first);
    first = next;
  }
}

}  // namespace

namespace kyrt {

uint32_t ParserCount() {
  return static_cast<uint32_t>(LoadRelaxed(&g_parserCount));
}

uint32_t TakeParserId() {
  return TakeId(&g_parserCount, KY_OPTION_MAX_PARSERS);
}

const char* ParserName(uint32_t parser) {
  return parser < KY_OPTION_MAX_PARSERS ? g_parserNames[parser] : nullptr;
}

const char* ParserNameText(uint32_t parser) {
  const char* name = ParserName(parser);
  return name != nullptr ? name : kMissingText;
}

void StoreParserName(uint32_t parser, const char* name) {
  g_parserNames[parser] = __KyStrdup(name);
}

void ForgetParserName(uint32_t parser) {
  __KyFree(g_parserNames[parser]);
  g_parserNames[parser] = nullptr;
  __KyInterlockedIncrement(&g_releasedParserCount);
}

uint32_t OptionCount() {
  return static_cast<uint32_t>(LoadRelaxed(&g_optionCount));
}

uint32_t TakeOptionId() {
  return TakeId(&g_optionCount, KY_OPTION_MAX_OPTIONS);
}

OptionRecord* OptionSlot(uint32_t option) {
  return option < KY_OPTION_MAX_OPTIONS ? &g_options[option] : nullptr;
}

OptionRecord* RegisteredOption(uint32_t parser, uint32_t option) {
  if (option >= OptionCount()) return nullptr;
  OptionRecord* record = OptionSlot(option);
  return record != nullptr && IsOwnedBy(*record, parser) ? record : nullptr;
}

OptionValueNode* NewValueNode(uint32_t value, const char* string) {
  auto* node = static_cast<OptionValueNode*>(
      __KyMalloc(KY_MEMORY_CATEGORY_MISC, sizeof(OptionValueNode), 0));
  node->value = value;
  node->string = __KyStrdup(string);
  node->next = nullptr;
  return node;
}

char* CopyOptionText(const char* text, uint32_t type) {
  char* copy = __KyStrdup(text);
  if (type == KY_OPTION_TYPE_PATH) __KySanitizePath(copy);
  return copy;
}

void ClearOptionRecord(OptionRecord& record) {
  __KyFree(record.name);
  __KyFree(record.description);
  __KyFree(record.defaultNode.string);
  __KyFree(record.setNode.string);
  FreeNodeChain(record.setNode.next);
  FreeNodeChain(record.validArguments);
  record = OptionRecord();
}

void ResetOptionRegistry() {
  for (OptionRecord& record : g_options) ClearOptionRecord(record);
  for (char*& name : g_parserNames) {
    __KyFree(name);
    name = nullptr;
  }
  StoreRelaxed(&g_optionCount, 0);
  StoreRelaxed(&g_parserCount, 0);
  StoreRelaxed(&g_releasedParserCount, 0);
}

}  // namespace kyrt
