// Memory categories, the per-category byte statistics and the peak snapshot.
#include "memory/categories.h"

#include <algorithm>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/spin_lock.h"
#include "runtime/atomic_ops.h"

extern "C" {
uint64_t __kyTotalMemoryAllocated = 0;
}

namespace {

// One entry of the category table.
//   - name: NUL-terminated, at most 31 significant characters;
//   - allocated: slab bytes held now; signed, because a slab obtained before
//     statistics were enabled and given back after drives it below zero;
//   - allocatedAtPeak: this category's allocated at the moment the total
//     last reached a new peak (a snapshot of the whole table, not the
//     category's own maximum: it tells who held the memory when the process
//     was at its largest).
struct CategoryEntry {
  char name[KY_MEMORY_CATEGORY_NAME_SIZE];
  int64_t allocated;
  int64_t allocatedAtPeak;
};

// The category table: entry 0 is preset; entries [1, g_categoryCount) have
// been registered. The count only grows, by interlocked increment; a
// registration that would pass the 64 entries undoes its increment, so the
// count may exceed 64 for an instant and every reader clamps it.
CategoryEntry g_categories[KY_MAX_MEMORY_CATEGORIES] = {{"KY_MISC", 0, 0}};
uint32_t g_categoryCount = 1;

// The process-wide statistics besides __kyTotalMemoryAllocated. Every field
// here, the total and the figures of the category table are written under
// `lock` only.
struct Statistics {
  uint64_t peakTotal;        // highest value the total has reached
  uint64_t timesCollected;   // collections run while statistics were enabled
  uint64_t periodicCounter;  // slabs counted; drives the periodic dump
  int32_t enabled;           // set once, never cleared
  KySpinLock lock;
};

Statistics g_statistics = {};

constexpr uint64_t kSlabsPerPeriodicDump = 100;

uint32_t CategoriesInTable() {
  return std::min<uint32_t>(kyrt::LoadRelaxed(&g_categoryCount), KY_MAX_MEMORY_CATEGORIES);
}

void AddToCategory(uint32_t category, int64_t bytes) {
  int64_t* allocated = &g_categories[category].allocated;
  kyrt::StoreRelaxed(allocated, kyrt::LoadRelaxed(allocated) + bytes);
}

void AddToTotal(uint64_t bytes) {
  kyrt::StoreRelaxed(&__kyTotalMemoryAllocated,
                     kyrt::LoadRelaxed(&__kyTotalMemoryAllocated) + bytes);
}

// Called under the statistics lock with the total just raised.
void RecordPeakIfNew() {
  const uint64_t total = kyrt::LoadRelaxed(&__kyTotalMemoryAllocated);
  if (total <= kyrt::LoadRelaxed(&g_statistics.peakTotal)) return;
  for (CategoryEntry& entry : g_categories) {
    kyrt::StoreRelaxed(&entry.allocatedAtPeak, kyrt::LoadRelaxed(&entry.allocated));
  }
  kyrt::StoreRelaxed(&g_statistics.peakTotal, total);
}

// Called under the statistics lock; true when this slab is a multiple of
// kSlabsPerPeriodicDump.
bool CountSlabForPeriodicDump() {
  const uint64_t counted = kyrt::LoadRelaxed(&g_statistics.periodicCounter) + 1;
  kyrt::StoreRelaxed(&g_statistics.periodicCounter, counted);
  return counted % kSlabsPerPeriodicDump == 0;
}

void WritePeriodicDump() {
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "Periodic allocation status dump");
  kyrt::memory::LogCategoryLines(kyrt::memory::kAllocationStatusLine);
}

class StatisticsLockGuard {
 public:
  StatisticsLockGuard() { __KyAcquireSpinLock(&g_statistics.lock); }
  ~StatisticsLockGuard() { __KyReleaseSpinLock(&g_statistics.lock); }
  StatisticsLockGuard(const StatisticsLockGuard&) = delete;
  StatisticsLockGuard& operator=(const StatisticsLockGuard&) = delete;
};

}  // namespace

namespace kyrt::memory {

bool StatisticsEnabled() {
  return LoadRelaxed(&g_statistics.enabled) != 0;
}

uint64_t TotalMemoryAllocated() {
  return LoadRelaxed(&__kyTotalMemoryAllocated);
}

void AccountSlabGained(uint32_t category, uint64_t bytes) {
  bool dumpDue;
  {
    StatisticsLockGuard guard;
    AddToCategory(category, static_cast<int64_t>(bytes));
    AddToTotal(bytes);
    RecordPeakIfNew();
    dumpDue = CountSlabForPeriodicDump();
  }
  // Written after the lock is released: the log's first record allocates
  // its file record through __KyMalloc, which must never run under the
  // statistics lock (the last lock of the allocator's order).
  if (dumpDue) WritePeriodicDump();
}

void AccountSlabReleased(uint32_t category, uint64_t bytes) {
  StatisticsLockGuard guard;
  AddToCategory(category, -static_cast<int64_t>(bytes));
  AddToTotal(0 - bytes);
}

void CountCollection() {
  StatisticsLockGuard guard;
  StoreRelaxed(&g_statistics.timesCollected, LoadRelaxed(&g_statistics.timesCollected) + 1);
}

void ResetStatistics() {
  StatisticsLockGuard guard;
  StoreRelaxed(&__kyTotalMemoryAllocated, uint64_t{0});
  StoreRelaxed(&g_statistics.peakTotal, uint64_t{0});
  StoreRelaxed(&g_statistics.timesCollected, uint64_t{0});
  for (CategoryEntry& entry : g_categories) {
    StoreRelaxed(&entry.allocated, int64_t{0});
    StoreRelaxed(&entry.allocatedAtPeak, int64_t{0});
  }
}

void LogCategoryLines(const char* lineFormat) {
  const uint32_t count = CategoriesInTable();
  for (uint32_t id = 0; id < count; ++id) {
    const CategoryEntry& entry = g_categories[id];
    __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, lineFormat, entry.name,
                    static_cast<long>(LoadRelaxed(&entry.allocated)));
  }
}

}  // namespace kyrt::memory

extern "C" {

uint32_t __KyRegisterMemoryCategory(const char* name) noexcept {
  if (name == nullptr) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0,
                    "A name must be specified when registering memory categories");
    return KY_INVALID_MEMORY_CATEGORY;
  }
  const uint32_t id = kyrt::AddAndFetch(&g_categoryCount, 1u) - 1;
  if (id >= KY_MAX_MEMORY_CATEGORIES) {
    kyrt::AddAndFetch(&g_categoryCount, static_cast<uint32_t>(-1));
    return KY_INVALID_MEMORY_CATEGORY;
  }
  __KyStrncpy(g_categories[id].name, name, KY_MEMORY_CATEGORY_NAME_SIZE);
  return id;
}

uint32_t __KyGetNumMemoryCategories(void) noexcept {
  return kyrt::LoadRelaxed(&g_categoryCount);
}

int __KyGetMemoryInfoByCategory(uint32_t id, MemoryCategoryInfo* info) noexcept {
  if (info == nullptr || id >= kyrt::LoadRelaxed(&g_categoryCount) ||
      id >= KY_MAX_MEMORY_CATEGORIES) {
    return 0;
  }
  const CategoryEntry& entry = g_categories[id];
  __KyStrncpy(info->name, entry.name, KY_MEMORY_CATEGORY_NAME_SIZE);
  info->allocated = kyrt::LoadRelaxed(&entry.allocated);
  info->allocatedAtPeak = kyrt::LoadRelaxed(&entry.allocatedAtPeak);
  return 1;
}

void __KyEnableMemoryStatisticsCollection(void) noexcept {
  // The lock is made ready before the flag is published, and a second call
  // leaves both alone: initialising the lock again could break it under a
  // thread that holds it.
  if (kyrt::LoadRelaxed(&g_statistics.enabled) != 0) return;
  __KyInitializeSpinLock(&g_statistics.lock);
  kyrt::StoreRelease(&g_statistics.enabled, 1);
}

uint64_t __KyGetTotalTimesMemoryCollected(void) noexcept {
  return kyrt::LoadRelaxed(&g_statistics.timesCollected);
}

uint64_t __KyGetPeakTotalMemoryAllocated(void) noexcept {
  const uint64_t peak = kyrt::LoadRelaxed(&g_statistics.peakTotal);
  return peak != 0 ? peak : kyrt::LoadRelaxed(&__kyTotalMemoryAllocated);
}

}  // extern "C"
