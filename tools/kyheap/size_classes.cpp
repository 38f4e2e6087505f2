#include "size_classes.h"

#include "kyrt/runtime.h"

namespace kyheap {

uint32_t SizeClassOf(uint64_t size) {
  return size == 0 ? 0 : __KyGetMostSignificantOneIndexLong(size) + 1;
}

uint64_t LowestSizeOf(uint32_t sizeClass) {
  return sizeClass == 0 ? 0 : uint64_t{1} << (sizeClass - 1);
}

uint64_t HighestSizeOf(uint32_t sizeClass) {
  if (sizeClass == 0) return 0;
  if (sizeClass >= 64) return UINT64_MAX;
  return (uint64_t{1} << sizeClass) - 1;
}

void SizeClassHistogram::create(uint32_t category) {
  category_ = category;
  counts_ = __KyCreateVector(category);
  bytes_ = __KyCreateVector(category);
}

void SizeClassHistogram::add(uint64_t size) {
  const uint32_t sizeClass = SizeClassOf(size);
  __KyIncrementVectorElement(counts_, sizeClass);
  __KySetVectorElement(bytes_, sizeClass, __KyGetVectorElement(bytes_, sizeClass) + size);
}

void SizeClassHistogram::clear() {
  __KyDestroyVector(counts_);
  __KyDestroyVector(bytes_);
  create(category_);
}

std::vector<SizeClassRow> SizeClassHistogram::rows() const {
  std::vector<SizeClassRow> rows;
  for (uint32_t sizeClass = 0; sizeClass < kSizeClassCount; ++sizeClass) {
    const uint64_t allocations = __KyGetVectorElement(counts_, sizeClass);
    if (allocations == 0) continue;
    rows.push_back(SizeClassRow{sizeClass, LowestSizeOf(sizeClass), HighestSizeOf(sizeClass),
                                allocations, __KyGetVectorElement(bytes_, sizeClass)});
  }
  return rows;
}

}  // namespace kyheap
