// The hash table against std::unordered_map: long random sequences of
// inserts, lookups, lookup-and-acquires, removals and scans, with fixed
// seeds, for one to three levels, with and without locking, with plain and
// with object keys.
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "containers/hash_table_test_support.h"
#include "kyrt/hash_table.h"

namespace {

using kyrt_test::Item;
using kyrt_test::ItemNumber;

constexpr int kOperations = 40000;
constexpr int kValuePool = 3000;
constexpr uint32_t kAcquireResult = 7;

// ---------------------------------------------------------------------------
// Object keys: heap objects holding the key value, compared by value, hashed
// by value, freed by the key release function.

struct KeyObject {
  uint64_t value;
};

int64_t g_liveKeyObjects = 0;

uint64_t ValueOf(uint64_t key) {
  return reinterpret_cast<const KeyObject*>(key)->value;
}

int CompareValues(uint64_t storedKey, uint64_t probeKey) {
  return ValueOf(storedKey) == ValueOf(probeKey);
}

void FreeKeyObject(uint64_t key) {
  delete reinterpret_cast<KeyObject*>(key);
  --g_liveKeyObjects;
}

uint64_t HashValueLevel0(KyHashTable*, uint64_t key) {
  return ValueOf(key);
}
uint64_t HashValueLevel1(KyHashTable* table, uint64_t key) {
  return ValueOf(key) >> table->bucketBits;
}
uint64_t HashValueLevel2(KyHashTable* table, uint64_t key) {
  return ((ValueOf(key) >> table->bucketBits) >> table->bucketBits) >> table->bucketBits;
}

const KyHashFunction kValueHashes[3] = {HashValueLevel0, HashValueLevel1, HashValueLevel2};

uint32_t AcquireConstant(void*) {
  return kAcquireResult;
}
uint32_t AcquireConstantTid(void*, KyThreadId) {
  return kAcquireResult;
}

uint32_t MatchMultipleOfSeven(void* item, void*) {
  return ItemNumber(item) % 7 == 0;
}

uint32_t KeepMultiplesOfThree(void* item) {
  return ItemNumber(item) % 3 != 0;
}

uint32_t CollectItem(void* item, void* context) {
  static_cast<std::vector<uintptr_t>*>(context)->push_back(ItemNumber(item));
  return 0;
}

int64_t g_releasedData = 0;
void CountDataRelease(void*) {
  ++g_releasedData;
}

// Values that exercise every level: small consecutive ones, random ones, and
// ones that differ only in bits 0-3 and 16-23 (bits 16-23 reach no level of
// a three-level table, so those share bottom tables and buckets).
std::vector<uint64_t> ValuePool(std::mt19937_64& random) {
  std::vector<uint64_t> values;
  for (int i = 0; i < kValuePool; ++i) {
    switch (i % 3) {
      case 0:
        values.push_back(static_cast<uint64_t>(i));
        break;
      case 1:
        values.push_back(random());
        break;
      default:
        values.push_back(0x5A00000000ull | (random() & 0xFF0000) | (random() & 0xF));
        break;
    }
  }
  return values;
}

// (levels, locking, object keys)
using Configuration = std::tuple<int, bool, bool>;

class HashTableDifferential : public kyrt_test::RuntimeTest,
                              public ::testing::WithParamInterface<Configuration> {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    const auto [levels, locking, objectKeys] = GetParam();
    objectKeys_ = objectKeys;
    const uint32_t flags =
        (locking ? 0u : KY_HASH_TABLE_NO_LOCKING) | (objectKeys ? KY_HASH_TABLE_OBJECT_KEYS : 0u);
    table_ = objectKeys ? __KyCreateHashTable(flags, kValueHashes, levels, CompareValues,
                                              FreeKeyObject, 0, 0)
                        : __KyCreateHashTable(flags, nullptr, levels, nullptr, nullptr, 0, 0);
    g_liveKeyObjects = 0;
    g_releasedData = 0;
  }

  // The key to store for value: a new object the table will own, or the
  // value itself.
  uint64_t StoredKey(uint64_t value) {
    if (!objectKeys_) return value;
    ++g_liveKeyObjects;
    return reinterpret_cast<uint64_t>(new KeyObject{value});
  }

  // A key to probe with: a different object of equal value (it lives in
  // probe_), or the value itself.
  uint64_t ProbeKey(uint64_t value) {
    probe_.value = value;
    return objectKeys_ ? reinterpret_cast<uint64_t>(&probe_) : value;
  }

  void Insert(uint64_t value) {
    const uintptr_t serial = ++serial_;
    const uint64_t key = StoredKey(value);
    void* stored = __KyInsertHashTableEntry(table_, key, Item(serial));
    const auto present = model_.find(value);
    if (present != model_.end()) {
      ASSERT_EQ(stored, Item(present->second)) << value;
      if (objectKeys_) FreeKeyObject(key);  // refused: still ours
    } else {
      ASSERT_EQ(stored, Item(serial)) << value;
      model_[value] = serial;
    }
  }

  void LookUp(uint64_t value) {
    const auto present = model_.find(value);
    void* expected = present == model_.end() ? nullptr : Item(present->second);
    ASSERT_EQ(__KyLookupHashTable(table_, ProbeKey(value)), expected) << value;
  }

  void LookUpAndAcquire(uint64_t value, bool withTid) {
    const auto present = model_.find(value);
    void* out = Item(1);
    const uint32_t result =
        withTid
            ? __KyLookupAndAcquireHashTableDataItemTid(table_, ProbeKey(value), AcquireConstantTid,
                                                       &out, __KyGetNativeThreadId())
            : __KyLookupAndAcquireHashTableDataItem(table_, ProbeKey(value), AcquireConstant, &out);
    if (present == model_.end()) {
      ASSERT_EQ(result, 1u);
      ASSERT_EQ(out, nullptr);
    } else {
      ASSERT_EQ(result, kAcquireResult);
      ASSERT_EQ(out, Item(present->second));
    }
  }

  void Remove(uint64_t value) {
    const auto present = model_.find(value);
    void* expected = present == model_.end() ? nullptr : Item(present->second);
    ASSERT_EQ(__KyRemoveHashTableEntry(table_, ProbeKey(value)), expected) << value;
    if (present != model_.end()) model_.erase(present);
  }

  void ScanRemovingMultiplesOfSeven() {
    uint32_t entries = 0;
    const uint32_t removed =
        __KyScanHashTable(table_, MatchMultipleOfSeven, nullptr, 1, nullptr, &entries);
    ASSERT_EQ(entries, model_.size());
    ASSERT_EQ(removed, EraseFromModel([](uintptr_t serial) { return serial % 7 == 0; }));
  }

  void EmptyKeepingMultiplesOfThree() {
    uint32_t entries = 0;
    const uint32_t removed = __KyScanAndEmptyHashTable(table_, KeepMultiplesOfThree, &entries);
    ASSERT_EQ(entries, model_.size());
    ASSERT_EQ(removed, EraseFromModel([](uintptr_t serial) { return serial % 3 != 0; }));
  }

  template <typename Predicate>
  uint32_t EraseFromModel(Predicate goes) {
    uint32_t erased = 0;
    for (auto it = model_.begin(); it != model_.end();) {
      if (goes(it->second)) {
        it = model_.erase(it);
        ++erased;
      } else {
        ++it;
      }
    }
    return erased;
  }

  void ExpectSameContents() {
    std::vector<uintptr_t> items;
    uint32_t entries = 0;
    EXPECT_EQ(__KyScanHashTable(table_, CollectItem, &items, 0, nullptr, &entries), 0u);
    EXPECT_EQ(entries, model_.size());
    std::unordered_set<uintptr_t> expected;
    for (const auto& [value, serial] : model_) expected.insert(serial);
    EXPECT_EQ(std::unordered_set<uintptr_t>(items.begin(), items.end()), expected);
    EXPECT_EQ(items.size(), model_.size());
    for (const auto& [value, serial] : model_) {
      EXPECT_EQ(__KyLookupHashTable(table_, ProbeKey(value)), Item(serial));
    }
  }

  KyHashTable* table_ = nullptr;
  bool objectKeys_ = false;
  KeyObject probe_{0};
  uintptr_t serial_ = 0;
  std::unordered_map<uint64_t, uintptr_t> model_;  // value -> item serial
};

TEST_P(HashTableDifferential, RandomOperationsAgreeWithAnUnorderedMap) {
  const auto [levels, locking, objectKeys] = GetParam();
  std::mt19937_64 random(0x5EED0000u + levels * 4 + locking * 2 + objectKeys);
  const std::vector<uint64_t> values = ValuePool(random);
  for (int operation = 0; operation < kOperations; ++operation) {
    const uint64_t value = values[random() % values.size()];
    const unsigned choice = random() % 1000;
    if (choice < 400) {
      Insert(value);
    } else if (choice < 650) {
      LookUp(value);
    } else if (choice < 750) {
      LookUpAndAcquire(value, choice % 2 == 0);
    } else if (choice < 990) {
      Remove(value);
    } else if (choice < 997) {
      ScanRemovingMultiplesOfSeven();
    } else {
      EmptyKeepingMultiplesOfThree();
    }
    if (HasFatalFailure()) return;
  }
  ExpectSameContents();
  const size_t finalSize = model_.size();
  EXPECT_GT(finalSize, 500u);
  __KyDestroyHashTable(table_, CountDataRelease);
  EXPECT_EQ(g_releasedData, static_cast<int64_t>(finalSize));
  EXPECT_EQ(g_liveKeyObjects, 0);
}

std::string ConfigurationName(const ::testing::TestParamInfo<Configuration>& info) {
  const int levels = std::get<0>(info.param);
  const bool locking = std::get<1>(info.param);
  const bool objectKeys = std::get<2>(info.param);
  return std::to_string(levels) + "Levels" + (locking ? "Locking" : "Unlocked") +
         (objectKeys ? "ObjectKeys" : "PlainKeys");
}

INSTANTIATE_TEST_SUITE_P(AllConfigurations, HashTableDifferential,
                         ::testing::Combine(::testing::Values(1, 2, 3), ::testing::Bool(),
                                            ::testing::Bool()),
                         ConfigurationName);

}  // namespace
