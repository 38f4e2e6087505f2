// The locking hash table under concurrent inserts, lookups, removals and
// scans: no key is lost or duplicated, no item is found after its removal,
// and lookup-and-acquire never reaches an item that is being removed.
//
// Every item records its own life: kOut (not in the table), kLinking (about
// to be inserted), kIn (inserted), and back to kOut after its removal. An
// item becomes kLinking before its insert starts and kOut only after its
// removal has returned (or, for scan removals, in the dispose function,
// which runs after the unlink), so an item that is linked in the table is
// never kOut: the acquire and match functions, which run while the item
// cannot be unlinked, check exactly that.
#include <atomic>
#include <cstdint>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "containers/hash_table_test_support.h"
#include "kyrt/hash_table.h"

namespace {

enum ItemState : int { kOut = 0, kLinking = 1, kIn = 2 };

struct TestItem {
  uint64_t key = 0;
  int owner = 0;
  std::atomic<int> state{kOut};
};

constexpr int kWorkers = 4;
constexpr int kKeysPerWorker = 96;
constexpr int kRounds = 30;
constexpr int kProbesPerRound = 96;
constexpr int kScannerOwner = kWorkers;
constexpr int kScannerKeys = 64;

std::atomic<uint64_t> g_violations{0};
std::atomic<uint64_t> g_acquired{0};

void Violation() {
  g_violations.fetch_add(1);
}

// Keys from a few top buckets (bits 8-11) so that the threads meet in the
// same bottom tables, with distinct bits above.
uint64_t KeyFor(int owner, int index) {
  const uint64_t serial = static_cast<uint64_t>(owner) * 1000 + index;
  return (serial << 16) | ((serial & 0xF) << 8) | (serial & 0xFF);
}

uint32_t AcquireLinkedItem(void* item, KyThreadId tid) {
  auto* testItem = static_cast<TestItem*>(item);
  if (testItem->state.load() == kOut) Violation();
  if (tid != __KyGetNativeThreadId()) Violation();
  g_acquired.fetch_add(1);
  return 0;
}

uint32_t MatchLinkedItem(void* item, void* context) {
  auto* testItem = static_cast<TestItem*>(item);
  if (testItem->state.load() == kOut) Violation();
  return testItem->owner == *static_cast<int*>(context);
}

uint32_t DisposeAsRemoved(void* item) {
  static_cast<TestItem*>(item)->state.store(kOut);
  return 1;
}

class HashTableConcurrency : public kyrt_test::RuntimeTest,
                             public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_violations = 0;
    g_acquired = 0;
    table_ = __KyCreateHashTable(0, nullptr, GetParam(), nullptr, nullptr, 0, 0);
    items_.resize(kWorkers + 1);
    for (int owner = 0; owner <= kWorkers; ++owner) {
      const int keys = owner == kScannerOwner ? kScannerKeys : kKeysPerWorker;
      items_[owner] = std::vector<TestItem>(keys);
      for (int i = 0; i < keys; ++i) {
        items_[owner][i].key = KeyFor(owner, i);
        items_[owner][i].owner = owner;
      }
    }
  }
  void TearDown() override { __KyDestroyHashTable(table_, nullptr); }

  void Insert(TestItem& item) {
    item.state = kLinking;
    if (__KyInsertHashTableEntry(table_, item.key, &item) != &item) Violation();
    item.state = kIn;
  }

  void Remove(TestItem& item) {
    if (__KyRemoveHashTableEntry(table_, item.key) != &item) Violation();
    item.state = kOut;
  }

  // A lookup finds either nothing or the one item of its key, never an item
  // of another key.
  void Probe(uint64_t key, const TestItem& expected) {
    void* found = __KyLookupHashTable(table_, key);
    if (found != nullptr && found != &expected) Violation();
    void* acquired = nullptr;
    const uint32_t result = __KyLookupAndAcquireHashTableDataItemTid(
        table_, key, AcquireLinkedItem, &acquired, __KyGetNativeThreadId());
    if (acquired != nullptr && (acquired != &expected || result != 0)) Violation();
    if (acquired == nullptr && result != 1) Violation();
  }

  void Work(int owner) {
    std::mt19937 random(1234 + owner);
    std::vector<TestItem>& mine = items_[owner];
    for (int round = 0; round < kRounds; ++round) {
      for (TestItem& item : mine) {
        if (item.state == kOut) Insert(item);
      }
      for (int probe = 0; probe < kProbesPerRound; ++probe) {
        const int otherOwner = static_cast<int>(random() % kWorkers);
        const TestItem& other = items_[otherOwner][random() % kKeysPerWorker];
        Probe(other.key, other);
        const TestItem& own = mine[random() % kKeysPerWorker];
        if (__KyLookupHashTable(table_, own.key) != &own) Violation();  // only we remove it
      }
      for (TestItem& item : mine) {
        if (random() % 2 == 0) Remove(item);
      }
      for (const TestItem& item : mine) {
        const bool present = __KyLookupHashTable(table_, item.key) == &item;
        if (present != (item.state == kIn)) Violation();
      }
    }
  }

  // Inserts the scanner's own items and takes them out again with
  // removing scans, until every one is gone (the scans skip busy entries,
  // so one pass may not be enough); in between, plain scans check every
  // linked item.
  void Scan() {
    int scannerOwner = kScannerOwner;
    int nobody = -1;
    for (int round = 0; round < kRounds; ++round) {
      for (TestItem& item : items_[kScannerOwner]) Insert(item);
      uint32_t removed = 0;
      for (int pass = 0; pass < 1000 && removed < kScannerKeys; ++pass) {
        removed +=
            __KyScanHashTable(table_, MatchLinkedItem, &scannerOwner, 1, DisposeAsRemoved, nullptr);
        __KyScanHashTable(table_, MatchLinkedItem, &nobody, 1, nullptr, nullptr);
        std::this_thread::yield();
      }
      if (removed != kScannerKeys) Violation();
      for (const TestItem& item : items_[kScannerOwner]) {
        if (item.state != kOut || __KyLookupHashTable(table_, item.key) != nullptr) Violation();
      }
    }
  }

  KyHashTable* table_ = nullptr;
  std::vector<std::vector<TestItem>> items_;
};

TEST_P(HashTableConcurrency, NoKeyIsLostDuplicatedOrFoundAfterItsRemoval) {
  std::vector<std::thread> threads;
  for (int owner = 0; owner < kWorkers; ++owner)
    threads.emplace_back([this, owner] { Work(owner); });
  threads.emplace_back([this] { Scan(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(g_violations.load(), 0u);
  EXPECT_GT(g_acquired.load(), 0u);

  // Afterwards: exactly the items in state kIn are stored, each once.
  std::multiset<const void*> seen;
  uint32_t entries = 0;
  __KyScanHashTable(
      table_,
      [](void* item, void* context) -> uint32_t {
        static_cast<std::multiset<const void*>*>(context)->insert(item);
        return 0;
      },
      &seen, 0, nullptr, &entries);
  uint32_t expectedIn = 0;
  for (const auto& owned : items_) {
    for (const TestItem& item : owned) {
      const bool in = item.state == kIn;
      expectedIn += in;
      EXPECT_EQ(seen.count(&item), in ? 1u : 0u) << item.key;
      EXPECT_EQ(__KyLookupHashTable(table_, item.key), in ? &item : nullptr) << item.key;
    }
  }
  EXPECT_EQ(entries, expectedIn);
  EXPECT_EQ(seen.size(), expectedIn);
}

INSTANTIATE_TEST_SUITE_P(Levels, HashTableConcurrency, ::testing::Values(1, 2, 3));

using HashTableRaces = kyrt_test::RuntimeTest;

// Several threads insert the same keys at once: each key ends up with one
// item, and every insert of a key returns that item.
TEST_F(HashTableRaces, ConcurrentInsertsOfOneKeyStoreOneItem) {
  constexpr int kThreads = 4;
  constexpr int kKeys = 600;  // enough for the bottom tables to grow meanwhile
  KyHashTable* table = __KyCreateHashTable(0, nullptr, 2, nullptr, nullptr, 0, 0);
  std::vector<std::vector<void*>> results(kThreads, std::vector<void*>(kKeys));
  std::vector<std::vector<int>> items(kThreads, std::vector<int>(kKeys));
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      kyrt_test::WaitUntil([&] { return ready.load() == kThreads; });
      for (int k = 0; k < kKeys; ++k) {
        results[t][k] =
            __KyInsertHashTableEntry(table, static_cast<uint64_t>(k) * 37, &items[t][k]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int k = 0; k < kKeys; ++k) {
    void* stored = __KyLookupHashTable(table, static_cast<uint64_t>(k) * 37);
    int owners = 0;
    for (int t = 0; t < kThreads; ++t) {
      EXPECT_EQ(results[t][k], stored) << k;
      owners += stored == &items[t][k];
    }
    EXPECT_EQ(owners, 1) << k;
  }
  uint32_t entries = 0;
  __KyScanHashTable(
      table, [](void*, void*) -> uint32_t { return 0; }, nullptr, 0, nullptr, &entries);
  EXPECT_EQ(entries, static_cast<uint32_t>(kKeys));
  __KyDestroyHashTable(table, nullptr);
}

// Threads racing to create the same sub-tables: one creation per bucket.
TEST_F(HashTableRaces, ConcurrentSubTableCreationHappensOncePerBucket) {
  constexpr int kThreads = 6;
  constexpr int kKeysPerThread = 64;
  KyHashTable* table = __KyCreateHashTable(0, nullptr, 3, nullptr, nullptr, 0, 0);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      kyrt_test::WaitUntil([&] { return ready.load() == kThreads; });
      for (int k = 0; k < kKeysPerThread; ++k) {
        // Top bucket k % 4 (bits 24-31), middle bucket k % 8 (bits 8-15).
        const uint64_t key = (static_cast<uint64_t>(k % 4) << 24) |
                             (static_cast<uint64_t>(k % 8) << 8) | static_cast<uint64_t>(t) << 16 |
                             static_cast<uint64_t>(k);
        __KyInsertHashTableEntry(table, key, kyrt_test::Item(key + 1));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(table->count, 4);
  for (uint64_t top = 0; top < 4; ++top) {
    KyHashTable* middle = kyrt_test::SubTableAt(table, top);
    ASSERT_NE(middle, nullptr);
    EXPECT_EQ(middle->count, 2) << top;  // k % 8 is top or top + 4
  }
  uint32_t entries = 0;
  __KyScanHashTable(
      table, [](void*, void*) -> uint32_t { return 0; }, nullptr, 0, nullptr, &entries);
  EXPECT_EQ(entries, static_cast<uint32_t>(kThreads * kKeysPerThread));
  __KyDestroyHashTable(table, nullptr);
}

}  // namespace
