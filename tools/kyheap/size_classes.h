// Allocation counts and bytes per size class, in two of the runtime's
// counter vectors. Class 0 holds zero-byte requests; class c >= 1 holds
// sizes from 2^(c-1) to 2^c - 1. Not locked: the recorder serialises.
#ifndef KYHEAP_SIZE_CLASSES_H
#define KYHEAP_SIZE_CLASSES_H

#include <cstdint>
#include <vector>

#include "kyrt/vectors.h"

namespace kyheap {

struct SizeClassRow {
  uint32_t sizeClass;
  uint64_t lowestSize;
  uint64_t highestSize;
  uint64_t allocations;
  uint64_t bytes;
};

// Zero, then one class per bit position of a 64-bit size.
constexpr uint32_t kSizeClassCount = 65;

uint32_t SizeClassOf(uint64_t size);
uint64_t LowestSizeOf(uint32_t sizeClass);
uint64_t HighestSizeOf(uint32_t sizeClass);

class SizeClassHistogram {
 public:
  void create(uint32_t category);
  void add(uint64_t size);
  void clear();
  // The classes that saw an allocation, smallest first.
  std::vector<SizeClassRow> rows() const;

 private:
  KyVector* counts_ = nullptr;
  KyVector* bytes_ = nullptr;
  uint32_t category_ = 0;
};

}  // namespace kyheap

#endif  // KYHEAP_SIZE_CLASSES_H
