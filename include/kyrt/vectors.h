/*
 * KYRT - support runtime for analysis tools.
 *
 * Paged counter vectors and the CRC-32 of a byte buffer.
 *
 * A KyVector is a sparse array of KY_VECTOR_CAPACITY unsigned 64-bit
 * counters, all 0 at first. Its storage is a table of KY_VECTOR_PAGE_COUNT
 * page pointers; page p holds elements KY_VECTOR_PAGE_ELEMENTS * p to
 * KY_VECTOR_PAGE_ELEMENTS * p + 255, so element i is slot i % 256 of page
 * i / 256. Page 0 is part of the record itself (the inline page), so the
 * first 256 elements never allocate; every other page is allocated with
 * __KyMalloc() in the vector's memory category the first time one of its
 * elements is stored or incremented. Every access is two array indexes.
 *
 * The size is one more than the highest index ever stored or incremented
 * (0 while nothing was). Reads at or past the size return 0.
 *
 * Vectors take no lock: a vector is not safe for concurrent writers, and
 * callers serialise. No call fails: a page allocation either succeeds or
 * ends the process (see __KyMalloc()); an index past the capacity is
 * ignored. __KyCRC32() is safe from any thread.
 */
#ifndef KYRT_VECTORS_H
#define KYRT_VECTORS_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Elements in one page, pages in the page table, and the capacity. */
#define KY_VECTOR_PAGE_ELEMENTS 256u
#define KY_VECTOR_PAGE_COUNT 512u
#define KY_VECTOR_CAPACITY 131072u

/* The highest usable index (KY_VECTOR_CAPACITY - 1). */
#define KY_VECTOR_MAX_INDEX 0x1FFFFu

/* The size and category word: the size in the low 24 bits, the memory
 * category of the record and its pages in the high 8 bits. */
#define KY_VECTOR_SIZE_MASK 0x00FFFFFFu
#define KY_VECTOR_CATEGORY_SHIFT 24u

/* The vector record, allocated (or provided by the caller) as one block.
 * Offsets: page table 0, inline page 4096, size and category 6144; 6152
 * bytes, 8-byte aligned. Treat the fields as private: they are laid out
 * here so that a vector can live in the caller's own storage. */
typedef struct KyVector {
  /* pages[0] always points at inlinePage; pages[p] for p >= 1 is null until
   * an element of page p is needed, then a 2048-byte block of __KyMalloc. */
  uint64_t* pages[KY_VECTOR_PAGE_COUNT];
  /* Elements 0 to 255. */
  uint64_t inlinePage[KY_VECTOR_PAGE_ELEMENTS];
  /* Size (low 24 bits) and memory category (high 8 bits). */
  uint32_t sizeAndCategory;
} KyVector;

/* Makes storage an empty vector whose pages will come from category (its
 * low 8 bits are kept). Zeroes the inline page, points page 0 at it and
 * clears pages 1 to 511; allocates nothing. Whatever storage held before is
 * overwritten without being freed. Returns storage (null for null).
 * __KyDestroyVector() frees the record itself and so must not be used on
 * caller storage; no call releases the pages of such a vector, which suits
 * vectors that live as long as the process or stay within their first 256
 * elements. */
KYRT_API KyVector* __KyInitializeVector(KyVector* storage, uint32_t category) KYRT_NOTHROW;

/* Allocates a vector record from category (__KyMalloc, never null) and
 * initialises it as __KyInitializeVector() does. Release with
 * __KyDestroyVector(). */
KYRT_API KyVector* __KyCreateVector(uint32_t category) KYRT_NOTHROW;

/* Frees every allocated page of vector and then the record itself: only for
 * vectors of __KyCreateVector() or __KyDuplicateVector(). Null is ignored. */
KYRT_API void __KyDestroyVector(KyVector* vector) KYRT_NOTHROW;

/* The value of element index: 0 when index is not below the size, when its
 * page was never allocated, or when vector is null. */
KYRT_API uint64_t __KyGetVectorElement(const KyVector* vector, uint32_t index) KYRT_NOTHROW;

/* Stores value at index and returns the value it replaces. A missing page
 * is allocated in the vector's category and zeroed; an index at or past the
 * size makes the size index + 1. An index above KY_VECTOR_MAX_INDEX (or a
 * null vector) stores nothing and returns 0, silently. */
KYRT_API uint64_t __KySetVectorElement(KyVector* vector, uint32_t index,
                                       uint64_t value) KYRT_NOTHROW;

/* Adds 1 to element index (wrapping from 2^64 - 1 to 0) and returns the
 * value before the increment. Pages, size and out-of-range indexes as for
 * __KySetVectorElement(). */
KYRT_API uint64_t __KyIncrementVectorElement(KyVector* vector, uint32_t index) KYRT_NOTHROW;

/* Merges source into destination by element-wise maximum (unsigned):
 *   - the destination takes the source's size when that is larger;
 *   - for every full page below the (new) size that the source has: a page
 *     the destination lacks is allocated in the destination's category and
 *     becomes a copy of the source page, otherwise each element becomes the
 *     larger of the two;
 *   - for the last, partial page (size / 256, with size % 256 elements in
 *     use), only when the source has it: a page the destination lacks is
 *     allocated and receives the source's elements in use only, the rest of
 *     that page being left as the allocator returned it (not zeroed);
 *     otherwise only the elements in use are merged. With no element in use
 *     the page is still allocated when missing, and nothing is copied.
 * Source pages past the size are not looked at. Nothing for a null
 * argument. */
KYRT_API void __KyMaxVector(KyVector* destination, const KyVector* source) KYRT_NOTHROW;

/* A new vector (record from category) holding the source's elements and
 * size. The record carries category; the copies of the source's pages are
 * allocated in the SOURCE's category, while pages allocated later by the
 * new vector come from category. Release with __KyDestroyVector(). Null
 * for a null source. */
KYRT_API KyVector* __KyDuplicateVector(const KyVector* source, uint32_t category) KYRT_NOTHROW;

/* Copies source into destination: the inline page, then every page the
 * source has (allocating the destination's page in its own category when
 * missing). A page that the destination has and the source lacks is
 * neither freed nor cleared: only its first element is set to 0, its other
 * 255 elements are left as they were. The destination keeps its category
 * and takes the source's size. Copying a vector onto itself changes nothing;
 * nothing either for a null argument. */
KYRT_API void __KyCopyVector(KyVector* destination, const KyVector* source) KYRT_NOTHROW;

/* The standard CRC-32 (zip, Ethernet: polynomial 0x04C11DB7, reflected
 * input and output, initial value and final XOR 0xFFFFFFFF) of the length
 * bytes at data. A length of 0 or less, or null data, gives 0. The lookup
 * table is built once, on first use; thread-safe. */
KYRT_API uint32_t __KyCRC32(const void* data, int64_t length) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_VECTORS_H */
