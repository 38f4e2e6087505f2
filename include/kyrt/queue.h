/*
 * KYRT - support runtime for analysis tools.
 *
 * A first-in first-out queue of pointer-sized values, optionally safe for
 * any number of concurrent producers and consumers.
 *
 * The queue is a singly linked list that starts at a fixed sentinel node
 * embedded in the queue record and ends at a tail pointer. A thread-safe
 * queue guards its front with a head lock and its back with a tail lock
 * (both KySpinLock, spin count 0), so that producers and consumers meet only
 * when the queue holds at most one value. Lock order: head lock, then tail
 * lock; a producer holding the tail lock only ever tries the head lock, and
 * backs off to take both in order, so it never waits for it.
 *
 * Values are opaque to the queue: it never reads what a value points to. A
 * stored null cannot be told from an empty queue by __KyDequeue or
 * __KyPeekQueue; __KyIsQueueEmpty can.
 *
 * The record and its nodes come from __KyMalloc in the category given at
 * creation (slab shift 0): one allocation per enqueue, one free per value
 * that leaves the queue.
 */
#ifndef KYRT_QUEUE_H
#define KYRT_QUEUE_H

#include "kyrt/export.h"
#include "kyrt/spin_lock.h"

KYRT_EXTERN_C_BEGIN

/* Flags word: the thread-safe bit, and the memory category in bits 4 to 11.
 * Other bits are kept as given and unused. */
#define KY_QUEUE_FLAG_THREAD_SAFE 0x2u
#define KY_QUEUE_CATEGORY_SHIFT 4u
#define KY_QUEUE_CATEGORY_MASK 0xFF0u

/* A node: 16 bytes, value at offset 0, next at 8. */
typedef struct KyQueueNode {
  void* value;              /* the tool's value; unused in the sentinel */
  struct KyQueueNode* next; /* the next node, or null at the tail */
} KyQueueNode;

/* The queue record: 88 bytes, 8-byte aligned. Offsets: head 0, tail 8,
 * sentinel 16, headLock 32, tailLock 56, flags 80, userFlag 84. Read the
 * fields, never write them (except through the functions below).
 *
 * Between operations: head points to the embedded sentinel; the list from
 * sentinel.next to tail holds the values in arrival order; tail's next is
 * null; tail is &sentinel exactly when sentinel.next is null. */
typedef struct KyQueue {
  KyQueueNode* head; /* always &sentinel */
  KyQueueNode* tail; /* the last node, or &sentinel when empty */
  KyQueueNode sentinel;
  KySpinLock headLock; /* guards sentinel.next and the walk of peek */
  KySpinLock tailLock; /* guards tail and the tail node's next */
  uint32_t flags;      /* (category << 4) | the creation flags without bits 4 to 11 */
  uint32_t userFlag;   /* the tool's own word, never read by the queue */
} KyQueue;

/* A peek predicate: a value matches when it returns exactly 1 (any other
 * result is a mismatch). arg1 and arg2 are passed through from
 * __KyPeekQueue. It runs under the queue's head lock and must not call
 * back into the same queue. */
typedef int (*KyQueueMatchFunction)(unsigned arg1, long arg2, void* value);

/* Creates an empty queue. The record and every node are allocated in
 * memory category `category` (0 to 63); the flags word becomes
 * (category << 4) | (flags with bits 4 to 11 cleared). With
 * KY_QUEUE_FLAG_THREAD_SAFE set the operations take the queue's locks; else
 * the queue is for one thread at a time. The user flag starts at 0. Never
 * returns null. End it with __KyDestroyQueue and then __KyFree the record. */
KYRT_API KyQueue* __KyCreateQueue(unsigned flags, unsigned category) KYRT_NOTHROW;

/* Appends value at the back. Does nothing when queue is null. Thread-safe
 * on a thread-safe queue. */
KYRT_API void __KyEnqueue(KyQueue* queue, void* value) KYRT_NOTHROW;

/* Removes the front value and returns it; null when the queue is empty or
 * queue is null. Thread-safe on a thread-safe queue. */
KYRT_API void* __KyDequeue(KyQueue* queue) KYRT_NOTHROW;

/* Searches from the front for the first value for which
 * match(arg1, arg2, value) returns 1 (with a null match, the front value)
 * and returns it; when remove is non-zero that node is also taken out of
 * the queue. Returns null when nothing matches, the queue is empty or queue
 * is null. Thread-safe on a thread-safe queue; match runs under the head
 * lock. */
KYRT_API void* __KyPeekQueue(KyQueue* queue, KyQueueMatchFunction match, unsigned arg1, long arg2,
                             int remove) KYRT_NOTHROW;

/* 1 when the queue holds no value (or queue is null), else 0. Reads without
 * a lock: a snapshot when other threads are at work. */
KYRT_API int __KyIsQueueEmpty(KyQueue* queue) KYRT_NOTHROW;

/* Stores flag in the record's user flag. Takes no lock. Does nothing when
 * queue is null. */
KYRT_API void __KySetQueueFlag(KyQueue* queue, unsigned flag) KYRT_NOTHROW;

/* Frees every node still queued, front first, without taking a lock and
 * without releasing anything the values stand for. The tail is left as it
 * was and the record is not freed: the queue must not be used afterwards,
 * and its owner releases the record with __KyFree. No other thread may use
 * the queue meanwhile. Does nothing when queue is null. */
KYRT_API void __KyDestroyQueue(KyQueue* queue) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_QUEUE_H */
