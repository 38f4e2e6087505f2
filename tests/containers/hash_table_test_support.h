// Helpers shared by the hash table and range table tests.
#ifndef KYRT_TESTS_CONTAINERS_HASH_TABLE_TEST_SUPPORT_H
#define KYRT_TESTS_CONTAINERS_HASH_TABLE_TEST_SUPPORT_H

#include <cstdint>
#include <vector>

#include "kyrt/hash_table.h"
#include "sync/lock_test_support.h"

namespace kyrt_test {

// A fake data item: the tables store data item pointers without looking at
// them, so small numbers serve as distinct, recognisable items.
inline void* Item(uintptr_t number) {
  return reinterpret_cast<void*>(number);
}

inline uintptr_t ItemNumber(const void* item) {
  return reinterpret_cast<uintptr_t>(item);
}

// The keys of a bucket's chain, head first.
inline std::vector<uint64_t> ChainKeys(const KyHashBucket& bucket) {
  std::vector<uint64_t> keys;
  for (auto* entry = static_cast<const KyHashEntry*>(bucket.contents); entry != nullptr;
       entry = entry->next) {
    keys.push_back(entry->key);
  }
  return keys;
}

inline KyHashTable* SubTableAt(const KyHashTable* table, uint64_t bucketIndex) {
  return static_cast<KyHashTable*>(table->buckets[bucketIndex].contents);
}

inline uint64_t BucketIndex(const KyHashTable* table, uint64_t hash) {
  return hash & (static_cast<uint64_t>(table->bucketCount) - 1);
}

// The slab header fields of a small block of __KyMalloc: the chunk word in
// front of a block in use holds the address of its slab, whose header ends
// with the category and the slab shift (bytes 38 and 39).
struct SlabFacts {
  uint32_t category;
  uint32_t slabShift;
};

inline SlabFacts SlabOf(const void* block) {
  const auto* slab = reinterpret_cast<const uint8_t*>(static_cast<const uint64_t*>(block)[-1]);
  return SlabFacts{slab[38], slab[39]};
}

inline uint32_t LockState(const KySharedExclusiveLock& lock) {
  return __atomic_load_n(&lock.state, __ATOMIC_SEQ_CST);
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_CONTAINERS_HASH_TABLE_TEST_SUPPORT_H
