/*
 * KYRT - support runtime for analysis tools.
 *
 * A thread-safe hash table from 64-bit keys to data-item pointers.
 *
 * Buckets hold chains of entries; a table doubles its bucket array when its
 * entries outnumber its buckets and never shrinks. A table may be split into
 * up to three levels of nested tables: an upper table's buckets hold
 * sub-tables, created on first insert, so that a very large key space is
 * spread over many small bottom tables that hold the entries.
 *
 * Every table, bucket and entry carries a KySharedExclusiveLock unless the
 * table is created with KY_HASH_TABLE_NO_LOCKING. Lock order: table, bucket,
 * entry. Readers hold the bottom table and the bucket shared; an insert holds
 * the table shared and the bucket exclusive for its first search, then the
 * table exclusive to add the entry (and to grow); a removal unlinks under the
 * table shared and the bucket exclusive and adjusts the count under the table
 * exclusive. Scans are opportunistic: they skip a table or an entry that is
 * busy instead of waiting for it. Sub-tables are created without a lock: the
 * creator parks the reserved value KY_HASH_TABLE_SUBTABLE_BEING_CREATED in
 * the bucket while it builds the table.
 *
 * The table never reports an error and does not check its allocations
 * (__KyMalloc ends the process when memory is exhausted). The data items
 * belong to the caller; the table only stores the pointers.
 */
#ifndef KYRT_HASH_TABLE_H
#define KYRT_HASH_TABLE_H

#include "kyrt/runtime.h"
#include "kyrt/shared_exclusive_lock.h"

KYRT_EXTERN_C_BEGIN

/* Creation flags (bits of the first argument of __KyCreateHashTable; no
 * other bit is examined, all are kept in the table's flags word). */
#define KY_HASH_TABLE_NO_LOCKING 0x02u   /* no lock anywhere: the caller serialises all use */
#define KY_HASH_TABLE_512_BUCKETS 0x08u  /* start with 512 buckets (wins over 1024) */
#define KY_HASH_TABLE_1024_BUCKETS 0x10u /* start with 1024 buckets; neither flag: 256 */
#define KY_HASH_TABLE_OBJECT_KEYS 0x80u  /* keys are objects: compared and released */

/* Levels of nesting a table may have (the levels argument of creation). */
#define KY_HASH_TABLE_MAX_LEVELS 3

/* The reserved content of an upper table's bucket while some thread is
 * creating its sub-table. */
#define KY_HASH_TABLE_SUBTABLE_BEING_CREATED ((void*)1)

/* The flags word: bits 0-7 and 20-31 hold the creation flags as passed,
 * bits 8-15 the memory category, bits 16-19 the allocation option (the slab
 * shift handed to __KyMalloc for entries). */
#define KY_HASH_TABLE_CATEGORY_SHIFT 8
#define KY_HASH_TABLE_CATEGORY_MASK 0x0000FF00u
#define KY_HASH_TABLE_ALLOCATION_OPTION_SHIFT 16
#define KY_HASH_TABLE_ALLOCATION_OPTION_MASK 0x000F0000u

struct KyHashTable;

/* A hash function of one level: returns the hash of key for table (the table
 * whose bucket is being chosen). The bucket is the hash ANDed with the
 * table's bucket count minus 1. */
typedef uint64_t (*KyHashFunction)(struct KyHashTable* table, uint64_t key);

/* Compares a stored key with a probe key (object keys only); returns
 * non-zero when they are equal. */
typedef int (*KyHashKeyCompareFunction)(uint64_t storedKey, uint64_t probeKey);

/* Releases a stored key when its entry goes (object keys only). */
typedef void (*KyHashKeyReleaseFunction)(uint64_t storedKey);

/* Releases a data item when its table is destroyed. */
typedef void (*KyHashDataReleaseFunction)(void* dataItem);

/* Called with a found data item while it cannot be removed; its result is
 * the result of the lookup. The Tid form also gets the caller's thread id. */
typedef uint32_t (*KyHashAcquireFunction)(void* dataItem);
typedef uint32_t (*KyHashAcquireTidFunction)(void* dataItem, KyThreadId tid);

/* A scan's test: non-zero when dataItem matches. */
typedef uint32_t (*KyHashMatchFunction)(void* dataItem, void* context);

/* A scan's last word on a matched data item: 0 keeps its entry in place,
 * non-zero lets the entry go (the function then owns the data item). */
typedef uint32_t (*KyHashDisposeFunction)(void* dataItem);

/* One entry of a bottom table's chain. 56 bytes: next 0, key 8, data item
 * 16, lock 24. The lock is used by scans to claim the entry and is
 * initialised only in locking tables. */
typedef struct KyHashEntry {
  struct KyHashEntry* next; /* next entry of the chain; null at the end */
  uint64_t key;
  void* dataItem; /* owned by the caller */
  KySharedExclusiveLock lock;
} KyHashEntry;

/* One bucket. 40 bytes: lock 0, contents 32. In a bottom table contents is
 * the head of the entry chain (a KyHashEntry*, null when empty); in an upper
 * table the bucket's sub-table (a struct KyHashTable*), null while none
 * exists and KY_HASH_TABLE_SUBTABLE_BEING_CREATED while one is being made. */
typedef struct KyHashBucket {
  KySharedExclusiveLock lock;
  void* contents;
} KyHashBucket;

/* One table, upper or bottom. 104 bytes: lock 0, hash functions 32, compare
 * function 56, key release function 64, buckets 72, bucket count 80, bucket
 * bits 84, count 88, levels below 92, flags word 96. Treat the fields as
 * read-only; they are laid out here for tools that inspect a table. */
typedef struct KyHashTable {
  KySharedExclusiveLock lock; /* unused (not even initialised) without locking */
  KyHashFunction hashFunctions[KY_HASH_TABLE_MAX_LEVELS]; /* index = levels below the table */
  KyHashKeyCompareFunction compareFunction;               /* object keys only */
  KyHashKeyReleaseFunction keyReleaseFunction;            /* object keys only; may be null */
  KyHashBucket* buckets;
  int32_t bucketCount; /* a power of two */
  uint32_t bucketBits; /* log2 of bucketCount */
  int32_t count;       /* bottom table: entries; upper table: sub-tables created */
  int32_t levelsBelow; /* 0 for a bottom table */
  uint32_t flags;      /* the flags word (see KY_HASH_TABLE_CATEGORY_SHIFT) */
} KyHashTable;

/* Creates a table.
 *   flags              creation flags KY_HASH_TABLE_*.
 *   hashFunctions      null, or an array of at least `levels` functions; a
 *                      non-null entry i replaces the default of level i
 *                      (level 0: the key itself; level 1: the key shifted
 *                      right by the table's bucket bits; level 2: shifted
 *                      right three times by the bucket bits).
 *   levels             1 to 3: a one-level table holds entries itself; with
 *                      more, the top table spreads keys over sub-tables.
 *                      Other values are taken as the nearest of 1 and 3.
 *   compareFunction    used with KY_HASH_TABLE_OBJECT_KEYS only.
 *   keyReleaseFunction used with KY_HASH_TABLE_OBJECT_KEYS only; may be null.
 *   category           memory category of every block of the table.
 *   allocationOption   slab shift (0 to 14) for the entries.
 * Returns the new table, never null. Destroy it with __KyDestroyHashTable. */
KYRT_API KyHashTable* __KyCreateHashTable(uint32_t flags, const KyHashFunction* hashFunctions,
                                          int32_t levels, KyHashKeyCompareFunction compareFunction,
                                          KyHashKeyReleaseFunction keyReleaseFunction,
                                          uint32_t category,
                                          uint32_t allocationOption) KYRT_NOTHROW;

/* Destroys table and every sub-table: for each entry calls
 * dataReleaseFunction (when not null) on its data item, then the key release
 * function on its key (object keys), then frees the entry; frees the bucket
 * arrays and the tables. Takes no lock: no other thread may use the table.
 * A null table is ignored. */
KYRT_API void __KyDestroyHashTable(KyHashTable* table,
                                   KyHashDataReleaseFunction dataReleaseFunction) KYRT_NOTHROW;

/* The data item stored under key, or null when key is absent (or table is
 * null). Thread-safe in a locking table. */
KYRT_API void* __KyLookupHashTable(KyHashTable* table, uint64_t key) KYRT_NOTHROW;

/* Looks key up and, when it is present, calls acquireFunction with its data
 * item while the table and bucket are still held shared, so that the item
 * cannot be removed meanwhile (the function must not use the table in a way
 * that needs it exclusive). Stores the data item in *dataItem and returns the
 * function's result. When key is absent (also while its sub-table is missing
 * or being created) stores null and returns 1. The locks are taken for the
 * calling thread. */
KYRT_API uint32_t __KyLookupAndAcquireHashTableDataItem(KyHashTable* table, uint64_t key,
                                                        KyHashAcquireFunction acquireFunction,
                                                        void** dataItem) KYRT_NOTHROW;

/* The same with the caller's thread id tid (non-zero), which takes the locks
 * and is passed to acquireFunction as its second argument. */
KYRT_API uint32_t __KyLookupAndAcquireHashTableDataItemTid(KyHashTable* table, uint64_t key,
                                                           KyHashAcquireTidFunction acquireFunction,
                                                           void** dataItem,
                                                           KyThreadId tid) KYRT_NOTHROW;

/* Stores dataItem under key unless key is present. Returns the data item now
 * stored under key: dataItem, or the item that was already there (then
 * nothing changes and the caller keeps its key and item). Creates missing
 * sub-tables and grows the bottom table by doubling when its entries exceed
 * its buckets. Thread-safe in a locking table; returns null for a null
 * table. */
KYRT_API void* __KyInsertHashTableEntry(KyHashTable* table, uint64_t key,
                                        void* dataItem) KYRT_NOTHROW;

/* Removes key's entry: releases its key (object keys) and frees the entry.
 * Returns the entry's data item, or null when key is absent. An entry whose
 * data item is null is removed too, but the table's count is then left as
 * it was (one too high), exactly as if nothing had been found. Thread-safe
 * in a locking table. */
KYRT_API void* __KyRemoveHashTableEntry(KyHashTable* table, uint64_t key) KYRT_NOTHROW;

/* Visits every entry, in bucket order and chain order, through every
 * sub-table: calls matchFunction(dataItem, context); when it returns
 * non-zero and remove is non-zero, unlinks the entry, releases its key
 * (object keys) and then asks disposeFunction (when not null): 0 puts the
 * entry back where it was (its key already released), anything else (or no
 * dispose function) frees the entry.
 * Opportunistic in a locking table: a bottom table that the calling thread
 * holds exclusive, or that a single try cannot take exclusive, is skipped,
 * and so is every entry whose lock a single try cannot take.
 * *entryCount (when not null) receives the number of entries the bottom
 * tables held when the scan reached them, skipped tables included, summed.
 * Returns the number of entries removed. */
KYRT_API uint32_t __KyScanHashTable(KyHashTable* table, KyHashMatchFunction matchFunction,
                                    void* context, uint32_t remove,
                                    KyHashDisposeFunction disposeFunction,
                                    uint32_t* entryCount) KYRT_NOTHROW;

/* Removes every entry the scan rules let it reach: for each one asks
 * disposeFunction (when not null) first: 0 keeps the entry; otherwise
 * releases the key (object keys) and frees the entry. Skips busy tables and
 * entries like __KyScanHashTable; *entryCount (when not null) and the result
 * are as there. */
KYRT_API uint32_t __KyScanAndEmptyHashTable(KyHashTable* table,
                                            KyHashDisposeFunction disposeFunction,
                                            uint32_t* entryCount) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_HASH_TABLE_H */
