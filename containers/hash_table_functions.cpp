// The hash table's default hash functions and the shift-xor family.
#include <array>
#include <cstddef>
#include <utility>

#include "containers/hash_table_internal.h"

namespace {

uint64_t KeyItself(KyHashTable*, uint64_t key) {
  return key;
}

uint64_t KeyAboveOneTable(KyHashTable* table, uint64_t key) {
  return key >> table->bucketBits;
}

// Three separate shifts, each below 64 bits, so that large bucket counts
// never make one shift as wide as the key.
uint64_t KeyAboveThreeTables(KyHashTable* table, uint64_t key) {
  const uint32_t bits = table->bucketBits;
  return ((key >> bits) >> bits) >> bits;
}

template <uint32_t kShift>
uint64_t ShiftXor(KyHashTable*, uint64_t key) {
  static_assert(kShift >= 1 && kShift <= kyrt::kShiftXorHashFunctionCount);
  // The right shift of a negative signed value propagates the sign bit.
  const uint64_t x = static_cast<uint64_t>(static_cast<int64_t>(key) >> kShift);
  return x ^ (x >> kShift);
}

template <size_t... kIndex>
constexpr auto ShiftXorTable(std::index_sequence<kIndex...>) {
  return std::array<KyHashFunction, sizeof...(kIndex)>{{&ShiftXor<kIndex + 1>...}};
}

}  // namespace

namespace kyrt {

const KyHashFunction kDefaultHashFunctions[KY_HASH_TABLE_MAX_LEVELS] = {KeyItself, KeyAboveOneTable,
                                                                        KeyAboveThreeTables};

const std::array<KyHashFunction, kShiftXorHashFunctionCount> kShiftXorHashFunctions =
    ShiftXorTable(std::make_index_sequence<kShiftXorHashFunctionCount>{});

}  // namespace kyrt
