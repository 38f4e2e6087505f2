// Collector hooks, the collection that runs them, the reserve blocks set
// aside at initialisation, and the reports written when memory is short.
#include "memory/collector.h"

#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"
#include "memory/categories.h"
#include "memory/sub_allocator.h"
#include "runtime/atomic_ops.h"

namespace {

// The hook table: slots [0, g_hookCount) are registered. The count is
// raised by interlocked increment before the slot is written (a refused
// registration undoes its increment), so a collection may momentarily see
// an empty slot, or a count above the table size, and allows for both.
MemoryCollectorHook g_hooks[KY_MAX_MEMORY_COLLECTORS] = {};
uint32_t g_hookCount = 0;

// Set once by the initialiser; turns the memory-pressure machinery on.
int32_t g_initialised = 0;

// Reserve blocks, a singly linked list threaded through the blocks
// themselves: the first machine word of each holds the next block's address
// (null at the end). Changed under the memory lock only.
struct ReserveBlock {
  ReserveBlock* next;
};
ReserveBlock* g_reserveList = nullptr;

// See CollectLoggedLatch() in collector.h.
int32_t g_collectLogged = 0;

// Starts set; cleared by the first MEMORY_IS_TIGHT report, so that report
// appears once per process. (Its out-of-memory counterpart is never
// cleared, which is why running out of memory is always fatal and needs no
// latch word at all.)
int32_t g_memoryTightLatch = 1;

// The thread writing the out-of-memory report, 0 while none is. Writing a
// record may allocate (the log's first record creates its file record
// through __KyMalloc); when that allocation fails too, the report would
// start over inside itself without end, so a thread that re-enters the
// report ends the process through the exit handler at once.
KyThreadId g_outOfMemoryReporter = 0;

constexpr const char kStartCollectingFormat[] =
    "Start collecting memory: __kyTotalMemoryAllocated=%llu";
constexpr const char kStopCollectingFormat[] =
    "Stop collecting memory: __kyTotalMemoryAllocated=%llu";

void LogCollectMemoryOnce() {
  if (kyrt::LoadRelaxed(&g_collectLogged) != 0) return;
  if (__KyIsLoggerInitialized()) {
    __KyLogInternal(KY_LOG_WARNING, kyrt::LoadRelaxed(&KYLOG_MSG_COLLECT_MEMORY), 0,
                    KY_LOG_ARG_END);
  }
  kyrt::StoreRelaxed(&g_collectLogged, 1);
}

// The total and the per-category lines around a collection.
void LogCollectionProgress(const char* totalFormat) {
  if (!__KyIsLoggerInitialized()) return;
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, totalFormat,
                  static_cast<unsigned long long>(kyrt::memory::TotalMemoryAllocated()));
  kyrt::memory::LogCategoryLines(kyrt::memory::kCollectionStatusLine);
}

// Calls the hooks in slot order, rereading the count before each call so
// that a hook registered during the run is called too.
void RunCollectorHooks() {
  for (uint32_t slot = 0; slot < kyrt::LoadRelaxed(&g_hookCount) && slot < KY_MAX_MEMORY_COLLECTORS;
       ++slot) {
    if (MemoryCollectorHook hook = kyrt::LoadRelaxed(&g_hooks[slot])) hook();
  }
}

void LogAllocationStatusIfCounted() {
  if (kyrt::memory::StatisticsEnabled()) {
    kyrt::memory::LogCategoryLines(kyrt::memory::kAllocationStatusLine);
  }
}

void EndAtOnceIfReportingAlready() {
  const KyThreadId self = __KyGetNativeThreadId();
  const KyThreadId reporter = kyrt::CompareExchange(&g_outOfMemoryReporter, self, KyThreadId{0});
  if (reporter == self && self != 0) __KyExitHandler(-1);
}

void PushReserveBlock(void* block) {
  ReserveBlock* reserve = static_cast<ReserveBlock*>(block);
  reserve->next = g_reserveList;
  g_reserveList = reserve;
}

// Obtains up to `count` reserve blocks straight from the underlying
// allocator; stops quietly at the first refusal.
void SetAsideReserveBlocks(const kyrt::memory::SubAllocatorControl& control, int32_t count) {
  for (int32_t obtained = 0; obtained < count; ++obtained) {
    void* block = control.allocate(KY_RESERVE_BLOCK_SIZE);
    if (block == nullptr) return;
    PushReserveBlock(block);
  }
}

}  // namespace

namespace kyrt::memory {

bool CollectorInitialised() {
  return LoadRelaxed(&g_initialised) != 0;
}

int32_t CollectLoggedLatch() {
  return LoadRelaxed(&g_collectLogged);
}

void SetCollectLoggedLatch(int32_t value) {
  StoreRelaxed(&g_collectLogged, value);
}

uint64_t CollectMemory() {
  LogCollectMemoryOnce();
  const uint64_t startingTotal = TotalMemoryAllocated();
  if (StatisticsEnabled()) {
    CountCollection();
    LogCollectionProgress(kStartCollectingFormat);
  }
  RunCollectorHooks();
  const uint64_t freed = startingTotal - TotalMemoryAllocated();
  if (StatisticsEnabled()) LogCollectionProgress(kStopCollectingFormat);
  return freed;
}

void* PopReserveBlock() {
  ReserveBlock* reserve = g_reserveList;
  if (reserve != nullptr) g_reserveList = reserve->next;
  return reserve;
}

void ReportOutOfMemory() {
  EndAtOnceIfReportingAlready();
  LogAllocationStatusIfCounted();
  __KyLogInternal(KY_LOG_ERROR, LoadRelaxed(&KYLOG_MSG_OUT_OF_MEMORY), 0, KY_LOG_ARG_END);
  __KyFatalExit(-1);
}

void ReportMemoryIsTight() {
  if (LoadRelaxed(&g_memoryTightLatch) == 0) return;
  LogAllocationStatusIfCounted();
  __KyLogInternal(KY_LOG_WARNING, LoadRelaxed(&KYLOG_MSG_MEMORY_IS_TIGHT), 0, KY_LOG_ARG_END);
  StoreRelaxed(&g_memoryTightLatch, 0);
}

}  // namespace kyrt::memory

extern "C" {

int32_t __KyRegisterMemoryCollector(MemoryCollectorHook hook) noexcept {
  if (hook == nullptr) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0,
                    "A valid memory collector hook must be specified to register it with KYRT");
    return -1;
  }
  const uint32_t count = kyrt::AddAndFetch(&g_hookCount, 1u);
  if (count > KY_MAX_MEMORY_COLLECTORS) {
    kyrt::AddAndFetch(&g_hookCount, static_cast<uint32_t>(-1));
    return -1;
  }
  kyrt::StoreRelaxed(&g_hooks[count - 1], hook);
  return 0;
}

void __KyInitializeMemoryCollectorAndReserveMemory(int32_t reserveBlocks) noexcept {
  const kyrt::memory::SubAllocatorControl& control = kyrt::memory::Control();
  // Before start-up the process is taken to be single-threaded, and the
  // thread-id hooks the lock relies on may not be set yet.
  const bool locked = __KyGetStarted() != 0;
  if (locked) __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
  if (!kyrt::memory::CollectorInitialised()) {
    kyrt::memory::ResetStatistics();
    SetAsideReserveBlocks(control, reserveBlocks);
    kyrt::StoreRelaxed(&g_initialised, 1);
  }
  if (locked) __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
}

void __KyInitializeMemoryCollector(void) noexcept {
  __KyInitializeMemoryCollectorAndReserveMemory(0);
}

}  // extern "C"
