// The module table: a skip list of the loaded modules, ordered by low
// address, that turns a code address into a module name plus an offset.
//
// Layout. The head is a record with KY_MODULE_MAX_LEVELS links, created on
// the first load; a link that points back to the head ends its level, so an
// empty level is a head link pointing at the head. Every other record holds
// (its level + 1) links and is linked on levels 0 to its level. Levels above
// the table's top level are always empty. Records, the head and the name
// copies come from __KyMalloc in the default category.
//
// Levels. A record does not get an independent random level: it gets the
// table's top level at the time of its insertion, and about one insertion in
// ten (a rand() draw at or below kRaiseDraw) first raises that top level by
// one, up to kTopLevelCap. Upper levels therefore hold the records inserted
// while the table was tall. This is deliberate: lookups stay correct on
// every level, and the level of a record depends only on the order of loads.
//
// The table has no lock: callers serialise loads, unloads and lookups.
#include "runtime/module_table.h"

#include <cstddef>
#include <cstdlib>

#include "kyrt/files.h"
#include "kyrt/memory.h"
#include "kyrt/modules.h"
#include "runtime/memory_map.h"

namespace kyrt {
namespace {

constexpr int32_t kTopLevelCap = KY_MODULE_MAX_LEVELS - 1;

// Draws at or below this value (about one in ten of rand()'s range) raise
// the top level.
constexpr int kRaiseDraw = 0x0CCCCCCB;

struct ModuleTable {
  KyModule* head;    // null until the first load
  int32_t topLevel;  // highest level index in use; 0 when the head is created
};

ModuleTable g_moduleTable = {nullptr, 0};

ModuleLevelDraw g_levelDraw = std::rand;

// The remembered record of each level during a walk: the last one whose low
// address is below the key.
using Predecessors = KyModule* [KY_MODULE_MAX_LEVELS];

std::size_t RecordSize(int32_t level) {
  return offsetof(KyModule, next) + static_cast<std::size_t>(level + 1) * sizeof(KyModule*);
}

KyModule* AllocateRecord(int32_t level) {
  return static_cast<KyModule*>(__KyMalloc(KY_MEMORY_CATEGORY_MISC, RecordSize(level), 0));
}

KyModule* CreateHead() {
  KyModule* head = AllocateRecord(kTopLevelCap);
  if (head == nullptr) return nullptr;
  head->name = nullptr;
  head->low = 0;
  head->high = 0;
  for (int32_t level = 0; level <= kTopLevelCap; ++level) head->next[level] = head;
  return head;
}

bool EnsureHead() {
  if (g_moduleTable.head == nullptr) {
    g_moduleTable.head = CreateHead();
    g_moduleTable.topLevel = 0;
  }
  return g_moduleTable.head != nullptr;
}

// Walks from the top level down to level 0, moving forward while the next
// record's low address is below key. Fills predecessors (when given) for
// levels 0 to the top level and returns the last record below key on level
// 0: the head when there is none.
KyModule* WalkToLastBelow(uint64_t key, KyModule** predecessors) {
  KyModule* head = g_moduleTable.head;
  KyModule* record = head;
  for (int32_t level = g_moduleTable.topLevel; level >= 0; --level) {
    while (record->next[level] != head && record->next[level]->low < key) {
      record = record->next[level];
    }
    if (predecessors != nullptr) predecessors[level] = record;
  }
  return record;
}

// The level of the record about to be inserted: the top level, after a draw
// that may raise it by one. The table itself is not changed here.
int32_t ChooseLevel() {
  const int32_t top = g_moduleTable.topLevel;
  if (top >= kTopLevelCap) return top;
  return g_levelDraw() <= kRaiseDraw ? top + 1 : top;
}

// Makes level the top level if it is above it; the head is the predecessor
// on the newly opened level.
void RaiseTopLevelTo(int32_t level, Predecessors predecessors) {
  while (g_moduleTable.topLevel < level) {
    ++g_moduleTable.topLevel;
    predecessors[g_moduleTable.topLevel] = g_moduleTable.head;
  }
}

KyModule* CreateRecord(const char* name, uint64_t low, uint64_t high, int32_t level) {
  KyModule* record = AllocateRecord(level);
  if (record == nullptr) return nullptr;
  record->name = __KyStrdup(name);
  if (name != nullptr && record->name == nullptr) {
    __KyFree(record);
    return nullptr;
  }
  record->low = low;
  record->high = high;
  return record;
}

void Splice(KyModule* record, int32_t level, Predecessors predecessors) {
  for (int32_t i = 0; i <= level; ++i) {
    record->next[i] = predecessors[i]->next[i];
    predecessors[i]->next[i] = record;
  }
}

// Unlinks record from every level it is on: exactly those, from 0 up, on
// which its predecessor links to it.
void Unsplice(KyModule* record, Predecessors predecessors) {
  for (int32_t i = 0; i <= g_moduleTable.topLevel && predecessors[i]->next[i] == record; ++i) {
    predecessors[i]->next[i] = record->next[i];
  }
}

void LowerTopLevelPastEmptyLevels() {
  KyModule* head = g_moduleTable.head;
  while (g_moduleTable.topLevel > 0 && head->next[g_moduleTable.topLevel] == head) {
    --g_moduleTable.topLevel;
  }
}

KyModule* InsertModule(const char* name, uint64_t low, uint64_t high) {
  if (!EnsureHead()) return nullptr;
  Predecessors predecessors;
  KyModule* following = WalkToLastBelow(low, predecessors)->next[0];
  if (following != g_moduleTable.head && following->low == low) return following;

  const int32_t level = ChooseLevel();
  KyModule* record = CreateRecord(name, low, high, level);
  if (record == nullptr) return nullptr;
  RaiseTopLevelTo(level, predecessors);
  Splice(record, level, predecessors);
  return record;
}

void RemoveModule(uint64_t low) {
  if (g_moduleTable.head == nullptr) return;
  Predecessors predecessors;
  KyModule* record = WalkToLastBelow(low, predecessors)->next[0];
  if (record == g_moduleTable.head || record->low != low) return;
  Unsplice(record, predecessors);
  __KyFree(record->name);
  __KyFree(record);
  LowerTopLevelPastEmptyLevels();
}

// Both ends are exclusive: a module is not found at its own low address.
KyModule* FindModuleHolding(uint64_t address) {
  if (g_moduleTable.head == nullptr) return nullptr;
  KyModule* candidate = WalkToLastBelow(address, nullptr);
  if (candidate == g_moduleTable.head || address >= candidate->high) return nullptr;
  return candidate;
}

}  // namespace

void SetModuleLevelDrawForTesting(ModuleLevelDraw draw) {
  g_levelDraw = draw != nullptr ? draw : std::rand;
}

const KyModule* ModuleTableHeadForTesting() {
  return g_moduleTable.head;
}

int32_t ModuleTableTopLevelForTesting() {
  return g_moduleTable.topLevel;
}

const void* ModuleTableStorageAddress() {
  return &g_moduleTable;
}

}  // namespace kyrt

extern "C" {

KyModule* __KyLoadModule(const char* name, uint64_t low, uint64_t high) noexcept {
  return kyrt::InsertModule(name, low, high);
}

void __KyUnloadModule(uint64_t low) noexcept {
  kyrt::RemoveModule(low);
}

KyModule* __KyFindModuleByAddress(uint64_t address) noexcept {
  return kyrt::FindModuleHolding(address);
}

uint64_t __KyGetModuleForVariable(uint64_t address, const char** name) noexcept {
  const KyModule* module = kyrt::FindModuleHolding(address);
  if (module == nullptr) return 0;
  if (name != nullptr) *name = module->name;
  return module->low;
}

void __KyGetKYRTAddressRange(uint64_t* start, uint64_t* end) noexcept {
  if (start == nullptr || end == nullptr) return;
  kyrt::MemoryMapping mapping;
  if (!kyrt::FindMappingContaining(reinterpret_cast<uint64_t>(kyrt::ModuleTableStorageAddress()),
                                   &mapping)) {
    return;
  }
  *start = mapping.start;
  *end = mapping.end;
}

}  // extern "C"
