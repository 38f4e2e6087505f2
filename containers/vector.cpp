// Paged counter vectors.
//
// A vector is a fixed table of 512 page pointers over 131,072 counters. The
// first page lives inside the record, so small vectors never allocate; the
// others are 2048-byte blocks of the vector's memory category, allocated the
// first time they are written. Reads never allocate: a missing page reads as
// zeros, and so does everything at or past the size.
//
// Invariants of a vector record:
//   - pages[0] == inlinePage;
//   - pages[p] for p >= 1 is null or a page of __KyMalloc;
//   - the word's high byte is the category, fixed from initialisation on;
//     its low 24 bits are the size, at most KY_VECTOR_CAPACITY.
// Elements of an allocated page at or past the size are not necessarily 0:
// the merge leaves the unused tail of a page it allocates as the allocator
// returned it, and the copy clears only the first element of a page the
// source lacks. Reads are bounded by the size, so those values surface only
// once the size grows over them.
#include <cstddef>
#include <cstring>

#include "kyrt/memory.h"
#include "kyrt/vectors.h"

static_assert(sizeof(KyVector) == 6152 && alignof(KyVector) == 8, "KyVector layout");
static_assert(offsetof(KyVector, pages) == 0, "KyVector page table");
static_assert(offsetof(KyVector, inlinePage) == 4096, "KyVector inline page");
static_assert(offsetof(KyVector, sizeAndCategory) == 6144, "KyVector size and category");
static_assert(KY_VECTOR_PAGE_ELEMENTS * KY_VECTOR_PAGE_COUNT == KY_VECTOR_CAPACITY,
              "the page table covers the capacity");
static_assert(KY_VECTOR_MAX_INDEX == KY_VECTOR_CAPACITY - 1, "highest index");
static_assert(KY_VECTOR_CAPACITY <= KY_VECTOR_SIZE_MASK, "the size fits its 24 bits");

namespace kyrt {
namespace {

constexpr uint32_t kPageShift = 8;  // log2 of KY_VECTOR_PAGE_ELEMENTS
constexpr uint32_t kSlotMask = KY_VECTOR_PAGE_ELEMENTS - 1;
constexpr uint64_t kPageBytes = KY_VECTOR_PAGE_ELEMENTS * sizeof(uint64_t);
constexpr uint32_t kCategoryByteMask = 0xFF;
// Vectors use the allocator's default slabs.
constexpr uint32_t kVectorSlabShift = 0;

static_assert(uint32_t{1} << kPageShift == KY_VECTOR_PAGE_ELEMENTS, "page shift");
static_assert(kPageBytes == 2048, "a page is 2048 bytes");

uint32_t SizeOf(const KyVector* vector) {
  return vector->sizeAndCategory & KY_VECTOR_SIZE_MASK;
}

uint32_t CategoryOf(const KyVector* vector) {
  return vector->sizeAndCategory >> KY_VECTOR_CATEGORY_SHIFT;
}

uint32_t PackSizeAndCategory(uint32_t size, uint32_t category) {
  return ((category & kCategoryByteMask) << KY_VECTOR_CATEGORY_SHIFT) | size;
}

void StoreSize(KyVector* vector, uint32_t size) {
  vector->sizeAndCategory = PackSizeAndCategory(size, CategoryOf(vector));
}

uint32_t PageOf(uint32_t index) {
  return index >> kPageShift;
}

uint32_t SlotOf(uint32_t index) {
  return index & kSlotMask;
}

// A page straight from the allocator: its contents are whatever the chunk
// held before.
uint64_t* AllocatePage(uint32_t category) {
  return static_cast<uint64_t*>(__KyMalloc(category, kPageBytes, kVectorSlabShift));
}

uint64_t* AllocateCopyOfPage(const uint64_t* source, uint32_t category) {
  uint64_t* page = AllocatePage(category);
  std::memcpy(page, source, kPageBytes);
  return page;
}

void ResetRecord(KyVector* vector, uint32_t category) {
  vector->pages[0] = vector->inlinePage;
  std::memset(vector->inlinePage, 0, sizeof vector->inlinePage);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) vector->pages[page] = nullptr;
  vector->sizeAndCategory = PackSizeAndCategory(0, category);
}

KyVector* AllocateRecord(uint32_t category) {
  return static_cast<KyVector*>(__KyMalloc(category, sizeof(KyVector), kVectorSlabShift));
}

// The slot of element index for a store or an increment: allocates and
// zeroes a missing page and extends the size over index. Null for an index
// past the capacity.
uint64_t* SlotForUpdate(KyVector* vector, uint32_t index) {
  if (index > KY_VECTOR_MAX_INDEX) return nullptr;
  uint64_t*& page = vector->pages[PageOf(index)];
  if (page == nullptr) {
    page = AllocatePage(CategoryOf(vector));
    std::memset(page, 0, kPageBytes);
  }
  if (index >= SizeOf(vector)) StoreSize(vector, index + 1);
  return &page[SlotOf(index)];
}

void KeepLarger(uint64_t* destination, const uint64_t* source, uint32_t count) {
  for (uint32_t slot = 0; slot < count; ++slot) {
    if (source[slot] > destination[slot]) destination[slot] = source[slot];
  }
}

// Merges the first inUse elements of a source page into destination page
// pageNumber. A page the destination lacks is allocated and receives those
// elements only.
void MergePage(KyVector* destination, uint32_t pageNumber, const uint64_t* sourcePage,
               uint32_t inUse) {
  uint64_t*& page = destination->pages[pageNumber];
  if (page == nullptr) {
    page = AllocatePage(CategoryOf(destination));
    std::memcpy(page, sourcePage, inUse * sizeof(uint64_t));
  } else {
    KeepLarger(page, sourcePage, inUse);
  }
}

}  // namespace
}  // namespace kyrt

using kyrt::CategoryOf;
using kyrt::SizeOf;

extern "C" {

KyVector* __KyInitializeVector(KyVector* storage, uint32_t category) noexcept {
  if (storage != nullptr) kyrt::ResetRecord(storage, category);
  return storage;
}

KyVector* __KyCreateVector(uint32_t category) noexcept {
  KyVector* vector = kyrt::AllocateRecord(category);
  kyrt::ResetRecord(vector, category);
  return vector;
}

void __KyDestroyVector(KyVector* vector) noexcept {
  if (vector == nullptr) return;
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) __KyFree(vector->pages[page]);
  __KyFree(vector);
}

uint64_t __KyGetVectorElement(const KyVector* vector, uint32_t index) noexcept {
  if (vector == nullptr || index >= SizeOf(vector)) return 0;
  const uint64_t* page = vector->pages[kyrt::PageOf(index)];
  return page == nullptr ? 0 : page[kyrt::SlotOf(index)];
}

uint64_t __KySetVectorElement(KyVector* vector, uint32_t index, uint64_t value) noexcept {
  if (vector == nullptr) return 0;
  uint64_t* slot = kyrt::SlotForUpdate(vector, index);
  if (slot == nullptr) return 0;
  const uint64_t previous = *slot;
  *slot = value;
  return previous;
}

uint64_t __KyIncrementVectorElement(KyVector* vector, uint32_t index) noexcept {
  if (vector == nullptr) return 0;
  uint64_t* slot = kyrt::SlotForUpdate(vector, index);
  if (slot == nullptr) return 0;
  return (*slot)++;
}

void __KyMaxVector(KyVector* destination, const KyVector* source) noexcept {
  if (destination == nullptr || source == nullptr) return;
  if (SizeOf(source) > SizeOf(destination)) kyrt::StoreSize(destination, SizeOf(source));
  const uint32_t size = SizeOf(destination);
  const uint32_t fullPages = kyrt::PageOf(size);
  for (uint32_t page = 0; page < fullPages; ++page) {
    if (source->pages[page] != nullptr) {
      kyrt::MergePage(destination, page, source->pages[page], KY_VECTOR_PAGE_ELEMENTS);
    }
  }
  // A full table has no partial page after its last full one.
  const uint32_t partialPage = fullPages;
  if (partialPage < KY_VECTOR_PAGE_COUNT && source->pages[partialPage] != nullptr) {
    kyrt::MergePage(destination, partialPage, source->pages[partialPage], kyrt::SlotOf(size));
  }
}

KyVector* __KyDuplicateVector(const KyVector* source, uint32_t category) noexcept {
  if (source == nullptr) return nullptr;
  KyVector* copy = kyrt::AllocateRecord(category);
  copy->pages[0] = copy->inlinePage;
  std::memcpy(copy->inlinePage, source->inlinePage, sizeof copy->inlinePage);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    const uint64_t* sourcePage = source->pages[page];
    copy->pages[page] =
        sourcePage == nullptr ? nullptr : kyrt::AllocateCopyOfPage(sourcePage, CategoryOf(source));
  }
  copy->sizeAndCategory = kyrt::PackSizeAndCategory(SizeOf(source), category);
  return copy;
}

void __KyCopyVector(KyVector* destination, const KyVector* source) noexcept {
  if (destination == nullptr || source == nullptr || destination == source) return;
  std::memcpy(destination->inlinePage, source->inlinePage, sizeof destination->inlinePage);
  for (uint32_t page = 1; page < KY_VECTOR_PAGE_COUNT; ++page) {
    const uint64_t* sourcePage = source->pages[page];
    uint64_t*& destinationPage = destination->pages[page];
    if (sourcePage != nullptr) {
      if (destinationPage == nullptr) destinationPage = kyrt::AllocatePage(CategoryOf(destination));
      std::memcpy(destinationPage, sourcePage, kyrt::kPageBytes);
    } else if (destinationPage != nullptr) {
      destinationPage[0] = 0;
    }
  }
  kyrt::StoreSize(destination, SizeOf(source));
}

}  // extern "C"
