/*
 * KYRT - support runtime for analysis tools.
 *
 * Sets and multisets of unsigned 32-bit integers.
 *
 * Elements are kept in a singly linked list of blocks sorted by strictly
 * increasing block index. A block covers 64 consecutive values (block index
 * = element >> 6) with a presence bitmap of two 32-bit words: element e is
 * bit e % 32 of word (e >> 5) % 2. A multiset block adds a multiplicity per
 * element. Dense clusters of small numbers cost one block per 64 values;
 * clusters far apart cost nothing in between.
 *
 * The header (KySet or KyMultiSet) lives in the caller's memory; only blocks
 * are allocated, with __KyMalloc() in the memory category that the header's
 * top byte names. Zero-initialise the header and set its category byte
 * before first use (KY_SET_HEADER_INITIALIZER does both); every call keeps
 * that byte. The low 24 bits count the distinct elements present and wrap
 * modulo 2^24.
 *
 * Header pointers must not be null. No call takes a lock: callers
 * serialise every use of a set, reads included. No call fails: a block
 * allocation either succeeds or ends the process (see __KyMalloc()).
 *
 * Some of the set-algebra calls deliberately give results other than the
 * mathematical ones (the count after a difference, the disjointness of a set
 * with itself); each says so where it is declared.
 */
#ifndef KYRT_SETS_H
#define KYRT_SETS_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Values per block, and the header word's fields. */
#define KY_SET_BLOCK_ELEMENTS 64u
#define KY_SET_COUNT_MASK 0x00FFFFFFu
#define KY_SET_CATEGORY_SHIFT 24u

/* The header word of an empty set whose blocks come from category. */
#define KY_SET_HEADER_WORD(category) ((uint32_t)(category) << KY_SET_CATEGORY_SHIFT)

/* An initializer for an empty KySet or KyMultiSet of category:
 *   KySet registers = KY_SET_HEADER_INITIALIZER(myCategory); */
#define KY_SET_HEADER_INITIALIZER(category) \
  { KY_SET_HEADER_WORD(category), NULL }

/* A block of a set. Offsets: next 0, block index 8, bitmap 12; 24 bytes. */
typedef struct KySetBlock {
  struct KySetBlock* next; /* the block with the next higher index, or null */
  uint32_t blockIndex;     /* element >> 6 for every element of the block */
  uint32_t bits[2];        /* presence: element e is bit e % 32 of bits[(e >> 5) % 2] */
} KySetBlock;

/* A block of a multiset: the set block's fields, then the multiplicity of
 * each of its 64 values (index e % 64). A present element has its bit set
 * and a multiplicity of at least 1. Offsets: next 0, block index 8, bitmap
 * 12, multiplicities 20; 280 bytes. */
typedef struct KyMultiSetBlock {
  struct KyMultiSetBlock* next;
  uint32_t blockIndex;
  uint32_t bits[2];
  uint32_t multiplicity[KY_SET_BLOCK_ELEMENTS];
} KyMultiSetBlock;

/* The caller-owned header of a set. Offsets: word 0, first block 8; 16
 * bytes. */
typedef struct KySet {
  uint32_t countAndCategory; /* bits 0-23: distinct elements; bits 24-31: category */
  KySetBlock* firstBlock;    /* lowest block, null when there is none */
} KySet;

/* The caller-owned header of a multiset: the same layout as KySet. */
typedef struct KyMultiSet {
  uint32_t countAndCategory;   /* bits 0-23: distinct elements; bits 24-31: category */
  KyMultiSetBlock* firstBlock; /* lowest block, null when there is none */
} KyMultiSet;

/* Called by __KyScanSet() once per element, with the caller's context. */
typedef void (*KySetVisitor)(uint32_t element, void* context);

/* ------------------------------------------------------------------------ */
/* Life cycle                                                                */
/* ------------------------------------------------------------------------ */

/* Free every block of set; the count becomes 0 and the first block null.
 * The category byte is kept, so the set can be used again. The Empty and
 * Destroy forms are the same call. */
KYRT_API void __KyDestroySet(KySet* set) KYRT_NOTHROW;
KYRT_API void __KyEmptySet(KySet* set) KYRT_NOTHROW;
KYRT_API void __KyDestroyMultiSet(KyMultiSet* set) KYRT_NOTHROW;
KYRT_API void __KyEmptyMultiSet(KyMultiSet* set) KYRT_NOTHROW;

/* Make destination a copy of source (elements, multiplicities and count),
 * overwriting destination's blocks in place, allocating more in
 * destination's category as needed and freeing its surplus. destination
 * keeps its category. Nothing when both are the same header. */
KYRT_API void __KyConstructSet(KySet* destination, const KySet* source) KYRT_NOTHROW;
KYRT_API void __KyConstructMultiSet(KyMultiSet* destination, const KyMultiSet* source) KYRT_NOTHROW;

/* Move: destination's blocks are freed, and destination takes over
 * source's list and count (keeping its own category byte); source is left
 * empty with its category byte kept. The blocks keep the category they were
 * allocated in. Nothing when both are the same header. */
KYRT_API void __KyConstructSetAndDestroy(KySet* destination, KySet* source) KYRT_NOTHROW;
KYRT_API void __KyConstructMultiSetAndDestroy(KyMultiSet* destination,
                                              KyMultiSet* source) KYRT_NOTHROW;

/* Do nothing; kept as entry points for tools that call them. */
KYRT_API void __KyPrintOutSet(const KySet* set) KYRT_NOTHROW;
KYRT_API void __KyPrintOutMultiSet(const KyMultiSet* set) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Elements                                                                  */
/* ------------------------------------------------------------------------ */

/* Non-zero when element is in set: the element's own bit within its bitmap
 * word (1 << (element % 32)), not normalised to 1. 0 when absent. */
KYRT_API uint32_t __KyIsAnElementOfSet(const KySet* set, uint32_t element) KYRT_NOTHROW;

/* Adds element to set, allocating its block when missing; an element
 * already present changes nothing. Returns 1 (non-zero) in both cases. */
KYRT_API int __KyAddAnElementToSet(KySet* set, uint32_t element) KYRT_NOTHROW;

/* Removes element from set when present; when that empties its block, the
 * block is unlinked and freed. */
KYRT_API void __KyDeleteAnElementFromSet(KySet* set, uint32_t element) KYRT_NOTHROW;

/* 1 when the multiset's count is 0, else 0. */
KYRT_API int __KyIsMultiSetEmpty(const KyMultiSet* set) KYRT_NOTHROW;

/* The multiplicity of element in set; 0 when absent. */
KYRT_API uint32_t __KyGetElementMultiplicity(const KyMultiSet* set, uint32_t element) KYRT_NOTHROW;

/* Adds 1 to the multiplicity of element (modulo 2^32), allocating its
 * block when missing. The count rises only when the multiplicity goes from
 * 0 to 1. Returns 1 (non-zero). */
KYRT_API int __KyAddAnElementToMultiSet(KyMultiSet* set, uint32_t element) KYRT_NOTHROW;

/* Subtracts 1 from the multiplicity of element when present. At 0 the
 * element is gone: its bit is cleared, the count falls by 1, and an emptied
 * block is unlinked and freed. */
KYRT_API void __KyDeleteAnElementFromMultiSet(KyMultiSet* set, uint32_t element) KYRT_NOTHROW;

/* Removes element whatever its multiplicity, as above. */
KYRT_API void __KyDeleteAllInstancesOfAnElementFromMultiSet(KyMultiSet* set,
                                                            uint32_t element) KYRT_NOTHROW;

/* Calls visitor(element, context) for every element of set in ascending
 * order; context is passed through untouched. The visitor must not change
 * set. Nothing for a null visitor. */
KYRT_API void __KyScanSet(const KySet* set, KySetVisitor visitor, void* context) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Comparisons                                                               */
/* ------------------------------------------------------------------------ */

/* 1 when a and b hold the same elements (and, for multisets, the same
 * multiplicities) and the same count, else 0. A header equals itself. */
KYRT_API int __KyAreSetsEqual(const KySet* a, const KySet* b) KYRT_NOTHROW;
KYRT_API int __KyAreMultiSetsEqual(const KyMultiSet* a, const KyMultiSet* b) KYRT_NOTHROW;

/* Not an ordering: 0 when a and b are equal (as __KyAreSetsEqual()); when
 * their counts differ, count of a minus count of b in unsigned 32-bit
 * arithmetic ({1} against {1, 2} gives 0xFFFFFFFF); otherwise 1. */
KYRT_API uint32_t __KyCompareSets(const KySet* a, const KySet* b) KYRT_NOTHROW;

/* 1 when a and b have no common element, else 0. A set is never disjoint
 * from itself, even when empty: the same header gives 0. Otherwise a set
 * without blocks is disjoint from anything. */
KYRT_API int __KyAreSetsDisjoint(const KySet* a, const KySet* b) KYRT_NOTHROW;

/* 1 when every block of a has a block of the same index in b holding all of
 * its bits, else 0. The same header gives 1. */
KYRT_API int __KyIsASubsetOfSet(const KySet* a, const KySet* b) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Set algebra                                                               */
/* ------------------------------------------------------------------------ */
/* Results go to the first header, whose category serves the blocks it
 * allocates. Any header may also be passed as another argument. */

/* a becomes a union b; a's count is recounted from its bits. */
KYRT_API void __KyUnionSet(KySet* a, const KySet* b) KYRT_NOTHROW;

/* a's multiplicities become the sums of a's and b's (modulo 2^32); the
 * count is recounted from a's bits. */
KYRT_API void __KyUnionMultiSet(KyMultiSet* a, const KyMultiSet* b) KYRT_NOTHROW;

/* Every element of the set b adds 1 to its multiplicity in the multiset a;
 * the count becomes the number of non-zero multiplicities in a. */
KYRT_API void __KyUnionMultiSetSet(KyMultiSet* a, const KySet* b) KYRT_NOTHROW;

/* result becomes a intersect b (a copy of a when a and b are the same
 * header), reusing result's blocks in order and freeing its surplus. */
KYRT_API void __KyIntersectSet(KySet* result, const KySet* a, const KySet* b) KYRT_NOTHROW;

/* result holds the elements common to a and b, each with the smaller of
 * its two multiplicities; blocks reused as for __KyIntersectSet(). */
KYRT_API void __KyIntersectMultiSet(KyMultiSet* result, const KyMultiSet* a,
                                    const KyMultiSet* b) KYRT_NOTHROW;

/* a loses the elements of b, with a count that is deliberately not always
 * the number of elements left:
 *   - a and b the same header: a is emptied (count 0);
 *   - a or b without blocks: a keeps all its blocks, its count becomes 0;
 *   - otherwise both lists are walked together: blocks of a that b shares
 *     lose b's bits (and are freed once empty), and the walk ends with the
 *     shorter list. The count becomes the elements of the blocks of a that
 *     the walk reached; blocks of a past b's last block are kept but not
 *     counted.
 * So {1, 100} minus {} and {1, 100} minus {1} both leave count 0, the
 * first with 1 and 100 in place, the second with 100 in place. */
KYRT_API void __KyDifferenceSet(KySet* a, const KySet* b) KYRT_NOTHROW;

/* Each multiplicity of a is lowered by b's (to 0 when b's is as large or
 * larger); elements that reach 0 go, emptied blocks are freed, and the
 * count becomes the number of elements left in a. The same header empties
 * a. */
KYRT_API void __KyDifferenceMultiSet(KyMultiSet* a, const KyMultiSet* b) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_SETS_H */
