/*
 * KYRT - support runtime for analysis tools.
 *
 * A map from address ranges [start, end) to a 64-bit data value.
 *
 * Each range is cut into the fewest naturally aligned power-of-two blocks,
 * from 32 bytes up to a maximum block size fixed at creation (at most
 * 128 MiB), and every block is stored under its start address in a hash
 * table (kyrt/hash_table.h) of its size. Blocks of 64 bytes and more lie
 * wholly inside their range; only the two ends of a range are rounded
 * outward, to 32 bytes. Looking an address up probes the block that would
 * hold it at each size, largest first: a few hash probes whatever the number
 * of ranges.
 *
 * Normally a 32-byte block holds a chain of links, so that several small
 * ranges may share it; with KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK it holds one
 * range record, and a later range that shares the block does not get it.
 * Ranges must not overlap (only the sharing of 32-byte blocks just described
 * is supported); where blocks of two ranges collide, the first range keeps
 * the block.
 *
 * The table takes no lock: callers serialise all use. No error is reported;
 * memory comes from __KyMalloc in the table's category.
 */
#ifndef KYRT_RANGE_TABLE_H
#define KYRT_RANGE_TABLE_H

#include "kyrt/hash_table.h"

KYRT_EXTERN_C_BEGIN

/* Creation flag: each 32-byte block holds exactly one range record. */
#define KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK 0x01u

/* Level indexes: level i holds blocks of 2^(i + 1) bytes. */
#define KY_RANGE_TABLE_BASE_LEVEL 4     /* 32-byte blocks */
#define KY_RANGE_TABLE_MAX_TOP_LEVEL 26 /* 128 MiB blocks */

/* The marker that opens every range record (links never start with it). */
#define KY_RANGE_RECORD_MARKER 0xFFFFFFFFFFFFFFFFull

/* Called with a range's data when the range is destroyed. */
typedef void (*KyRangeDataReleaseFunction)(uint64_t data);

/* The table. 32 bytes: flags 0, base level 4, top level 8, data release
 * function 16, level tables 24. Treat the fields as read-only. */
typedef struct KyRangeTable {
  uint32_t flags;    /* bits 0-7 creation flags, 8-15 category, 16-19 allocation option */
  int32_t baseLevel; /* always KY_RANGE_TABLE_BASE_LEVEL */
  int32_t topLevel;  /* level of the largest block */
  KyRangeDataReleaseFunction dataReleaseFunction; /* may be null */
  KyHashTable** levelTables; /* topLevel - baseLevel + 1 tables, created on first use */
} KyRangeTable;

/* One inserted range. 48 bytes: marker 0, start 8, end 16, table 24, data
 * 32, block count 40. */
typedef struct KyRangeRecord {
  uint64_t marker; /* KY_RANGE_RECORD_MARKER */
  uint64_t start;
  uint64_t end; /* exclusive */
  KyRangeTable* table;
  uint64_t data;
  uint32_t blockCount; /* blocks that refer to the record */
} KyRangeRecord;

/* One element of a 32-byte block's chain. 16 bytes: next 0, record 8. */
typedef struct KyRangeLink {
  struct KyRangeLink* next; /* null at the end */
  KyRangeRecord* record;
} KyRangeLink;

/* Creates an empty table.
 *   maximumBlockSize     the largest block wanted; its most significant one
 *                        bit is taken and kept between 32 bytes and 128 MiB
 *                        (1 gives 32-byte blocks only, 2^40 gives 128 MiB).
 *   category             memory category of every block of the table.
 *   allocationOption     slab shift (0 to 14) for records and links.
 *   flags                KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK or 0.
 *   dataReleaseFunction  called once with the data of every destroyed range;
 *                        may be null.
 * Returns the new table, never null. */
KYRT_API KyRangeTable* __KyCreateRangeTable(
    uint64_t maximumBlockSize, uint32_t category, uint32_t allocationOption, uint32_t flags,
    KyRangeDataReleaseFunction dataReleaseFunction) KYRT_NOTHROW;

/* Destroys the level hash tables and frees the table. Ranges still stored
 * are neither freed nor released: empty the table first with
 * __KyScanAndEmptyRangeTable. A null table is ignored. */
KYRT_API void __KyDestroyRangeTable(KyRangeTable* table) KYRT_NOTHROW;

/* Stores [start, end) with data. An empty range (end <= start) is not
 * stored. Does nothing for a null table. */
KYRT_API void __KyInsertRangeTableEntry(KyRangeTable* table, uint64_t start, uint64_t end,
                                        uint64_t data) KYRT_NOTHROW;

/* The data of the range holding address, or 0 when none does. *start and
 * *end (each may be null) receive the range's bounds, or 0. Without
 * KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK the answer is exact; with it, an
 * address in the 32-byte rounding of a range's end block finds that range. */
KYRT_API uint64_t __KyLookupRangeTable(KyRangeTable* table, uint64_t address, uint64_t* start,
                                       uint64_t* end) KYRT_NOTHROW;

/* Removes the range [start, end) as inserted and calls the data release
 * function on its data, once, after its last block is gone. Nothing happens
 * for a range that is not stored. */
KYRT_API void __KyDestroyRangeTableEntry(KyRangeTable* table, uint64_t start,
                                         uint64_t end) KYRT_NOTHROW;

/* Removes the range [start, end) as inserted without releasing its data. */
KYRT_API void __KyRemoveRangeTableEntry(KyRangeTable* table, uint64_t start,
                                        uint64_t end) KYRT_NOTHROW;

/* Destroys every range that meets [start, start + length) (releasing each
 * one's data once) and reports the union of that span and the destroyed
 * ranges in *spanStart and *spanEnd (each may be null): start and
 * start + length, widened to the start of a destroyed range that began
 * before start and to the end of one that ended past start + length. A
 * length of 0 destroys nothing. */
KYRT_API void __KyDestroyRangeTableSpan(KyRangeTable* table, uint64_t start, uint64_t length,
                                        uint64_t* spanStart, uint64_t* spanEnd) KYRT_NOTHROW;

/* Finds, walking up from low, the first range that lies inside [low, high]
 * (start >= low and end <= high), removes it without releasing its data and
 * returns the data; 0 when there is none. Ranges sharing a 32-byte block are
 * taken newest first. */
KYRT_API uint64_t __KyRemoveFirstRangeTableEntry(KyRangeTable* table, uint64_t low,
                                                 uint64_t high) KYRT_NOTHROW;

/* Destroys every range (releasing each one's data once) and frees every
 * record and link; the table stays usable, empty. */
KYRT_API void __KyScanAndEmptyRangeTable(KyRangeTable* table) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_RANGE_TABLE_H */
