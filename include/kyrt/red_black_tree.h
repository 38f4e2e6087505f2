/*
 * KYRT - support runtime for analysis tools.
 *
 * An ordered map from 64-bit keys to 64-bit items with duplicate keys: a
 * red-black tree whose nodes are also threaded into a doubly linked list in
 * key order, so that range walks step from node to node without climbing
 * the tree.
 *
 * Callers hold node handles (pointers to nodes), returned by insert and by
 * the range queries. A handle stays valid until its node is removed or
 * destroyed: the tree never moves a node in memory. Equal keys are kept in
 * insertion order, a new node after all nodes with its key.
 *
 * The tree takes no locks: callers serialise every call on one tree,
 * readers included. Different trees are independent.
 *
 * Nodes, their shared leaf node (the sentinel) and the tree record come from
 * __KyMalloc in the category given at creation (slab shift 0) and go back
 * through __KyFree. Allocation never fails (see kyrt/memory.h).
 */
#ifndef KYRT_RED_BLACK_TREE_H
#define KYRT_RED_BLACK_TREE_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Node colours. */
#define KY_RED_BLACK_BLACK 0u
#define KY_RED_BLACK_RED 1u

/* Orders two keys: negative if a orders before b, 0 if they are equal,
 * positive if a orders after b. It must be a consistent total order. */
typedef int32_t (*KyRedBlackCompareFunction)(uint64_t a, uint64_t b);

/* Releases what an item or a key stands for when the destroy operations
 * take its node out of the tree. */
typedef void (*KyRedBlackReleaseFunction)(uint64_t value);

struct KyRedBlackTree;

/* A node. Offsets: tree 0, left 8, right 16, parent 24, previous 32,
 * next 40, key 48, item 56, colour 64; 72 bytes. Read the fields, never
 * write them. The sentinel is a node too: every leaf link and the list's
 * two ends point to it. */
typedef struct KyRedBlackNode {
  struct KyRedBlackTree* tree;     /* owning tree */
  struct KyRedBlackNode* left;     /* left child, or the sentinel */
  struct KyRedBlackNode* right;    /* right child, or the sentinel */
  struct KyRedBlackNode* parent;   /* parent; the sentinel at the root */
  struct KyRedBlackNode* previous; /* previous in key order; the sentinel at the first */
  struct KyRedBlackNode* next;     /* next in key order; the sentinel at the last */
  uint64_t key;
  uint64_t item;
  uint32_t colour; /* KY_RED_BLACK_RED or KY_RED_BLACK_BLACK */
} KyRedBlackNode;

/* The tree record. Offsets: root 0, sentinel 8, compare 16, releaseItem 24,
 * releaseKey 32, category 40, count 44; 48 bytes. Read the fields, never
 * write them.
 *
 * The sentinel is black, holds key 0 and item 0, and its owning tree is
 * this tree. Its left and right children point to itself; so does its
 * parent between calls. Its next and previous close the key-ordered list
 * into a ring: next is the first node and previous the last, both the
 * sentinel itself while the tree is empty. */
typedef struct KyRedBlackTree {
  KyRedBlackNode* root;                  /* the sentinel when the tree is empty */
  KyRedBlackNode* sentinel;              /* the shared leaf node */
  KyRedBlackCompareFunction compare;     /* never null: the default when none was given */
  KyRedBlackReleaseFunction releaseItem; /* may be null */
  KyRedBlackReleaseFunction releaseKey;  /* may be null */
  uint32_t category;                     /* memory category of every allocation */
  uint32_t count;                        /* nodes, the sentinel not counted */
} KyRedBlackTree;

/* Creates an empty tree whose record, sentinel and nodes are allocated in
 * memory category `category` (0 to 63). compare orders the keys; null
 * selects the default order, the keys as unsigned 64-bit numbers (the
 * stored default returns -1, 0 or 1). releaseItem and releaseKey, each may
 * be null, are called by __KyDestroyRedBlackRange and
 * __KyDestroyRedBlackTree with the item and then the key of every node they
 * take out; __KyRemoveRedBlackEntry calls neither. Never returns null.
 * Destroy the tree with __KyDestroyRedBlackTree. */
KYRT_API KyRedBlackTree* __KyCreateRedBlackTree(uint32_t category,
                                                KyRedBlackCompareFunction compare,
                                                KyRedBlackReleaseFunction releaseItem,
                                                KyRedBlackReleaseFunction releaseKey) KYRT_NOTHROW;

/* Inserts (key, item) and returns the new node, which follows every node
 * with an equal key. The handle stays valid until the node is removed or
 * destroyed. Returns null, inserting nothing, when tree is null. */
KYRT_API KyRedBlackNode* __KyInsertRedBlackEntry(KyRedBlackTree* tree, uint64_t key,
                                                 uint64_t item) KYRT_NOTHROW;

/* Takes node out of its tree and frees it; its key and item are not
 * released (that is the caller's business). Other handles stay valid. Does
 * nothing when node is null or a tree's sentinel. */
KYRT_API void __KyRemoveRedBlackEntry(KyRedBlackNode* node) KYRT_NOTHROW;

/* The first node of the range low (inclusive) to high (exclusive): the
 * first node with a key equal to low if there is one, whatever high (high
 * is then not consulted); otherwise the first node whose key orders after
 * low, provided that high orders strictly after its key. Null when there is
 * no such node or tree is null. */
KYRT_API KyRedBlackNode* __KyGetRedBlackRangeStart(KyRedBlackTree* tree, uint64_t low,
                                                   uint64_t high) KYRT_NOTHROW;

/* The last node holding exactly key, or null when no node holds it (range
 * end finds exact keys only) or tree is null. */
KYRT_API KyRedBlackNode* __KyGetRedBlackRangeEnd(KyRedBlackTree* tree, uint64_t key) KYRT_NOTHROW;

/* The node after node in key order if its key does not order after high
 * (high inclusive); null at the end of the tree, or when node is null or a
 * sentinel. */
KYRT_API KyRedBlackNode* __KyGetRedBlackRangeNext(KyRedBlackNode* node, uint64_t high) KYRT_NOTHROW;

/* The node before node in key order if its key does not order before low
 * (low inclusive); null at the start of the tree, or when node is null or a
 * sentinel. */
KYRT_API KyRedBlackNode* __KyGetRedBlackRangePrev(KyRedBlackNode* node, uint64_t low) KYRT_NOTHROW;

/* Stores node's item in *item and returns 1. Returns 0, writing nothing,
 * when node is null or a sentinel or item is null. */
KYRT_API int __KyGetRedBlackItem(KyRedBlackNode* node, uint64_t* item) KYRT_NOTHROW;

/* Stores node's key in *key and returns 1. Returns 0, writing nothing, when
 * node is null or a sentinel or key is null. */
KYRT_API int __KyGetRedBlackKey(KyRedBlackNode* node, uint64_t* key) KYRT_NOTHROW;

/* Destroys the nodes from __KyGetRedBlackRangeStart(tree, low, high) on,
 * stepping as __KyGetRedBlackRangeNext(node, high) does (so high is
 * inclusive past the first node). For each node, in key order: removes it,
 * then calls the item release function with its item and the key release
 * function with its key (each if set). Does nothing when tree is null. */
KYRT_API void __KyDestroyRedBlackRange(KyRedBlackTree* tree, uint64_t low,
                                       uint64_t high) KYRT_NOTHROW;

/* Destroys the tree: for every node in key order calls the item release
 * function with its item and the key release function with its key (each if
 * set) and frees the node; then frees the sentinel and the record. Every
 * handle of the tree becomes invalid. Does nothing when tree is null. */
KYRT_API void __KyDestroyRedBlackTree(KyRedBlackTree* tree) KYRT_NOTHROW;

/* Checks the tree's invariants without writing anything: no red node has a
 * red child; every path from the root to the sentinel passes as many black
 * nodes as the leftmost one; an empty tree counts 0 nodes; walking the list
 * from the leftmost node, compare never puts a node after its next node,
 * and the walk meets exactly count nodes. Returns 1 when all hold, 0 on the
 * first that fails or when tree is null. */
KYRT_API int __KyValidateRedBlack(KyRedBlackTree* tree) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_RED_BLACK_TREE_H */
