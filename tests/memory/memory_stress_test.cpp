// Concurrency of the allocator: threads allocating and freeing in one
// category and in their own, blocks handed between threads, collections
// running beside allocation, the one-time creation of the control record and
// the lock-free registrations.
//
// Every case is bounded by iteration counts, never by elapsed time, so that
// it ends in a few seconds on two processors and under ThreadSanitizer too.
// Each block is filled with a pattern of its owner and checked before it is
// freed: a chunk handed out twice would show up as a broken pattern.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <iterator>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/spin_lock.h"
#include "memory/categories.h"
#include "memory/collector.h"
#include "memory/memory_test_support.h"
#include "memory/slabs.h"
#include "memory/sub_allocator.h"
#include "support/thread_harness.h"

namespace kyrt_test {
namespace {

using kyrt_test::RunConcurrently;

#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 20000;  // ThreadSanitizer runs 5-15 times slower
#else
constexpr int kRounds = 200000;
#endif

constexpr int kThreads = 4;
constexpr int kSlotsPerThread = 64;

// Sizes from one unit to the largest small class, and one large size.
constexpr uint64_t kSizes[] = {0, 8, 24, 100, 1000, 4000, 32728, 40000};

// A small, fast, per-thread pseudo-random sequence.
class Sequence {
 public:
  explicit Sequence(uint32_t seed) : state_(seed * 2654435761u + 1) {}
  uint32_t next(uint32_t bound) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_ % bound;
  }

 private:
  uint32_t state_;
};

struct Block {
  unsigned char* data = nullptr;
  uint64_t size = 0;
  unsigned char pattern = 0;
};

Block Allocate(uint32_t category, uint64_t size, unsigned char pattern) {
  Block block{static_cast<unsigned char*>(__KyMalloc(category, size, 0)), size, pattern};
  std::memset(block.data, pattern, size);
  return block;
}

// Checks the block's head and tail: two owners of one chunk would differ
// there.
bool Intact(const Block& block) {
  constexpr uint64_t kChecked = 32;
  const uint64_t head = std::min(block.size, kChecked);
  for (uint64_t at = 0; at < head; ++at) {
    if (block.data[at] != block.pattern || block.data[block.size - 1 - at] != block.pattern) {
      return false;
    }
  }
  return true;
}

// Frees a block after checking its pattern; counts broken ones.
void Release(const Block& block, std::atomic<int>* broken) {
  if (!Intact(block)) broken->fetch_add(1);
  __KyFree(block.data);
}

// Sum of the slabs on the lists of every bin of category: after every block
// has been freed, each slab of the category is on its bin's list.
int64_t SlabBytesListed(uint32_t category) {
  int64_t bytes = 0;
  const kyrt::memory::Bin* row =
      kyrt::memory::Control().binTable + size_t{category} * kyrt::memory::kLargestSmallUnits;
  for (uint32_t sizeClass = 0; sizeClass < kyrt::memory::kLargestSmallUnits; ++sizeClass) {
    for (const kyrt::memory::SlabHeader* slab = row[sizeClass].firstSlab; slab != nullptr;
         slab = slab->next) {
      EXPECT_EQ(slab->freeChunks, slab->chunkCount);
      bytes += static_cast<int64_t>(kyrt::memory::SlabBytes(slab->slabShift));
    }
  }
  return bytes;
}

class MemoryStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KyPosixHostInstall();
    __KyRtStartup();
    __KyEnableMemoryStatisticsCollection();
  }

  // Every thread keeps kSlotsPerThread blocks and replaces a random one on
  // every round, in the category categoryOf(thread).
  template <typename CategoryOf>
  void ChurnBlocks(CategoryOf categoryOf) {
    std::atomic<int> broken{0};
    RunConcurrently(kThreads, [&](int thread) {
      Sequence sequence(static_cast<uint32_t>(thread) + 1);
      const uint32_t category = categoryOf(thread);
      std::vector<Block> slots(kSlotsPerThread);
      for (int round = 0; round < kRounds; ++round) {
        Block& slot = slots[sequence.next(kSlotsPerThread)];
        if (slot.data != nullptr) Release(slot, &broken);
        const uint64_t size = kSizes[sequence.next(std::size(kSizes))];
        slot = Allocate(category, size, static_cast<unsigned char>(round * kThreads + thread));
      }
      for (const Block& slot : slots) {
        if (slot.data != nullptr) Release(slot, &broken);
      }
    });
    EXPECT_EQ(broken.load(), 0);
  }

  static void ExpectFiguresMatchTheSlabsHeld(const std::vector<uint32_t>& categories) {
    int64_t sum = 0;
    for (uint32_t id = 0; id < __KyGetNumMemoryCategories(); ++id) {
      sum += CategoryInfo(id).allocated;
    }
    EXPECT_EQ(static_cast<uint64_t>(sum), __kyTotalMemoryAllocated);
    for (uint32_t category : categories) {
      EXPECT_EQ(CategoryInfo(category).allocated, SlabBytesListed(category)) << category;
      EXPECT_GT(CategoryInfo(category).allocated, 0);
    }
    EXPECT_GE(__KyGetPeakTotalMemoryAllocated(), __kyTotalMemoryAllocated);
  }
};

TEST_F(MemoryStressTest, ThreadsShareOneCategory) {
  const uint32_t shared = __KyRegisterMemoryCategory("shared");
  ChurnBlocks([shared](int) { return shared; });
  ExpectFiguresMatchTheSlabsHeld({shared});
}

TEST_F(MemoryStressTest, ThreadsUseTheirOwnCategories) {
  std::vector<uint32_t> categories;
  for (int thread = 0; thread < kThreads; ++thread) {
    categories.push_back(__KyRegisterMemoryCategory("own"));
  }
  ChurnBlocks([&categories](int thread) { return categories[static_cast<size_t>(thread)]; });
  ExpectFiguresMatchTheSlabsHeld(categories);
}

// Producers allocate, consumers free: every block is freed by a thread
// other than the one that allocated it.
TEST_F(MemoryStressTest, BlocksHandedBetweenThreads) {
  const uint32_t category = __KyRegisterMemoryCategory("handed");
  std::mutex mutex;
  std::deque<Block> handed;
  std::atomic<int> producersLeft{kThreads / 2};
  std::atomic<int> broken{0};
  std::atomic<int> freed{0};
  const int perProducer = kRounds / 2;
  RunConcurrently(kThreads, [&](int thread) {
    Sequence sequence(static_cast<uint32_t>(thread) + 7);
    if (thread % 2 == 0) {
      for (int round = 0; round < perProducer; ++round) {
        const uint64_t size = kSizes[sequence.next(std::size(kSizes))];
        Block block = Allocate(category, size, static_cast<unsigned char>(round));
        std::lock_guard<std::mutex> hold(mutex);
        handed.push_back(block);
      }
      producersLeft.fetch_sub(1);
      return;
    }
    for (;;) {
      Block block;
      {
        std::lock_guard<std::mutex> hold(mutex);
        if (!handed.empty()) {
          block = handed.front();
          handed.pop_front();
        }
      }
      if (block.data != nullptr) {
        Release(block, &broken);
        freed.fetch_add(1);
      } else if (producersLeft.load() == 0) {
        std::lock_guard<std::mutex> hold(mutex);
        if (handed.empty()) return;
      } else {
        std::this_thread::yield();
      }
    }
  });
  EXPECT_EQ(broken.load(), 0);
  EXPECT_EQ(freed.load(), perProducer * (kThreads / 2));
  ExpectFiguresMatchTheSlabsHeld({category});
}

// A collector hook frees what allocating threads leave in a pool, while
// those threads keep allocating: the collection runs under the memory lock
// and frees under bin locks, the allocators take bin locks and the memory
// lock one after the other.
std::mutex g_poolMutex;
std::vector<Block> g_pool;
std::atomic<int> g_poolBroken{0};

void PoolDrainingHook() {
  std::vector<Block> drained;
  {
    std::lock_guard<std::mutex> hold(g_poolMutex);
    drained.swap(g_pool);
  }
  for (const Block& block : drained) Release(block, &g_poolBroken);
}

TEST_F(MemoryStressTest, CollectionsRunBesideAllocation) {
  const uint32_t category = __KyRegisterMemoryCategory("pooled");
  __KyRegisterMemoryCollector(PoolDrainingHook);
  const int rounds = kRounds / 4;
  RunConcurrently(kThreads, [&](int thread) {
    Sequence sequence(static_cast<uint32_t>(thread) + 3);
    for (int round = 0; round < rounds; ++round) {
      if (thread == 0) {
        if (round % 16 == 0) {
          __KyAcquireSpinLock(&kyrt::memory::g_memoryLock);
          kyrt::memory::CollectMemory();
          __KyReleaseSpinLock(&kyrt::memory::g_memoryLock);
        }
        continue;
      }
      const uint64_t size = kSizes[sequence.next(std::size(kSizes))];
      Block block = Allocate(category, size, static_cast<unsigned char>(thread));
      std::lock_guard<std::mutex> hold(g_poolMutex);
      g_pool.push_back(block);
    }
  });
  PoolDrainingHook();
  EXPECT_EQ(g_poolBroken.load(), 0);
  EXPECT_GT(__KyGetTotalTimesMemoryCollected(), 0u);
  ExpectFiguresMatchTheSlabsHeld({category});
}

TEST(MemoryFirstUseTest, ConcurrentFirstCallsCreateTheControlRecordOnce) {
  KyPosixHostInstall();
  __KyRtStartup();
  std::atomic<int> binTableRequests{0};
  static std::atomic<int>* requests = &binTableRequests;
  g_fake.onRequest.store([](size_t size) {
    if (size == kyrt::memory::kBinTableBytes) requests->fetch_add(1);
  });
  std::vector<kyrt::memory::Bin*> tables(kThreads * 2);
  RunConcurrently(kThreads * 2, [&tables](int thread) {
    __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
    tables[static_cast<size_t>(thread)] = kyrt::memory::Control().binTable;
    __KyFree(__KyMalloc(static_cast<uint32_t>(thread), 100, 0));
  });
  g_fake.onRequest.store(nullptr);
  EXPECT_EQ(binTableRequests.load(), 1);
  for (kyrt::memory::Bin* table : tables) EXPECT_EQ(table, tables[0]);
}

TEST(MemoryRegistrationTest, ConcurrentCategoryRegistrationsGetDistinctIds) {
  constexpr int kPerThread = 20;
  std::vector<std::vector<uint32_t>> ids(kThreads);
  RunConcurrently(kThreads, [&ids](int thread) {
    for (int call = 0; call < kPerThread; ++call) {
      ids[static_cast<size_t>(thread)].push_back(__KyRegisterMemoryCategory("racing"));
    }
  });
  std::set<uint32_t> distinct;
  int refused = 0;
  for (const auto& perThread : ids) {
    for (uint32_t id : perThread) {
      if (id == KY_INVALID_MEMORY_CATEGORY) {
        ++refused;
      } else {
        EXPECT_TRUE(distinct.insert(id).second) << "id " << id << " given twice";
      }
    }
  }
  EXPECT_EQ(distinct.size(), 63u);
  EXPECT_EQ(*distinct.begin(), 1u);
  EXPECT_EQ(*distinct.rbegin(), 63u);
  EXPECT_EQ(refused, kThreads * kPerThread - 63);
  EXPECT_EQ(__KyGetNumMemoryCategories(), 64u);
}

void NothingToCollect() {}

TEST(MemoryRegistrationTest, ConcurrentHookRegistrationsAcceptSixteen) {
  std::atomic<int> accepted{0};
  RunConcurrently(kThreads, [&accepted](int) {
    for (int call = 0; call < 8; ++call) {
      if (__KyRegisterMemoryCollector(NothingToCollect) == 0) accepted.fetch_add(1);
    }
  });
  EXPECT_EQ(accepted.load(), 16);
}

}  // namespace
}  // namespace kyrt_test
