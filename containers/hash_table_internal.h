// What the hash table shares with the range table and with its own tests:
// the default hash functions, the shift-xor family and the composition of a
// container's flags word.
#ifndef KYRT_CONTAINERS_HASH_TABLE_INTERNAL_H
#define KYRT_CONTAINERS_HASH_TABLE_INTERNAL_H

#include <array>
#include <cstdint>

#include "kyrt/hash_table.h"

namespace kyrt {

// The default hash function of each level, indexed by the number of levels
// below the table that uses it: the key itself (bottom), the key shifted
// right by the table's bucket bits, and the key shifted right three times by
// the bucket bits. The last is deliberately not two shifts: a three-level
// table spreads its top level by the key bits above 3 x bucket bits, and the
// bits in between reach no level at all; existing tables depend on that
// distribution, so it stays.
extern const KyHashFunction kDefaultHashFunctions[KY_HASH_TABLE_MAX_LEVELS];

// The shift-xor family: function s (1 to 27) shifts the key right
// arithmetically by s bits, giving x, and returns x ^ (x >> s) with a
// logical shift. Entry s - 1 of the table is function s.
inline constexpr uint32_t kShiftXorHashFunctionCount = 27;
extern const std::array<KyHashFunction, kShiftXorHashFunctionCount> kShiftXorHashFunctions;

// Shift-xor function number s (1 to kShiftXorHashFunctionCount).
inline KyHashFunction ShiftXorHashFunction(uint32_t s) {
  return kShiftXorHashFunctions[s - 1];
}

// Bucket choice and chain walk, shared by the table's own operations (which
// take the locks around them) and by the range table, whose level tables
// have no locking and which walks them inline.

inline bool HasObjectKeys(const KyHashTable* table) {
  return (table->flags & KY_HASH_TABLE_OBJECT_KEYS) != 0;
}

// The bucket of key in table: the hash function of the table's level, masked
// by the bucket count.
inline KyHashBucket* BucketOf(KyHashTable* table, uint64_t key) {
  const uint64_t hash = table->hashFunctions[table->levelsBelow](table, key);
  return &table->buckets[hash &
                         (static_cast<uint64_t>(static_cast<uint32_t>(table->bucketCount)) - 1)];
}

inline bool KeysEqual(const KyHashTable* table, uint64_t storedKey, uint64_t probeKey) {
  return HasObjectKeys(table) ? table->compareFunction(storedKey, probeKey) != 0
                              : storedKey == probeKey;
}

// Key's entry in a bottom table's bucket, or null.
inline KyHashEntry* FindEntry(const KyHashTable* table, const KyHashBucket* bucket, uint64_t key) {
  for (auto* entry = static_cast<KyHashEntry*>(bucket->contents); entry != nullptr;
       entry = entry->next) {
    if (KeysEqual(table, entry->key, key)) return entry;
  }
  return nullptr;
}

// A container's flags word: the creation bits the caller keeps (already
// masked), the memory category in bits 8-15 and the allocation option in
// bits 16-19.
inline uint32_t ComposeFlagsWord(uint32_t creationBits, uint32_t category,
                                 uint32_t allocationOption) {
  return creationBits | ((category << KY_HASH_TABLE_CATEGORY_SHIFT) & KY_HASH_TABLE_CATEGORY_MASK) |
         ((allocationOption << KY_HASH_TABLE_ALLOCATION_OPTION_SHIFT) &
          KY_HASH_TABLE_ALLOCATION_OPTION_MASK);
}

inline uint32_t CategoryOfFlagsWord(uint32_t flagsWord) {
  return (flagsWord & KY_HASH_TABLE_CATEGORY_MASK) >> KY_HASH_TABLE_CATEGORY_SHIFT;
}

inline uint32_t AllocationOptionOfFlagsWord(uint32_t flagsWord) {
  return (flagsWord & KY_HASH_TABLE_ALLOCATION_OPTION_MASK) >>
         KY_HASH_TABLE_ALLOCATION_OPTION_SHIFT;
}

}  // namespace kyrt

#endif  // KYRT_CONTAINERS_HASH_TABLE_INTERNAL_H
