// The threaded red-black tree.
//
// Besides the red-black properties (the root and the sentinel are black, no
// red node has a red child, every path from a node down to the sentinel
// passes the same number of black nodes), these hold between calls:
//   - the list is a ring through the sentinel: following next from the
//     sentinel visits every node in the tree's in-order sequence and comes
//     back to the sentinel; previous runs the same ring backwards;
//   - equal keys keep their insertion order in that sequence: insertion
//     sends an equal key right, and rotations preserve in-order sequence;
//   - the sentinel's left, right and parent point to itself; it is black
//     and holds key 0 and item 0. The textbook deletion borrows its parent
//     field (it records where the sentinel moved up) and removal restores it;
//   - count is the number of nodes in the ring, the sentinel not counted.
//
// Nodes never move: deletion of a node with two children relinks its
// successor into its place instead of copying the successor's key and item,
// so every handle a tool holds keeps naming the same key and item. Thanks to
// the ring, that successor is simply the removed node's next.
//
// Left and right cases of the fix-ups are one template over the side, so
// that each mirrored pair is written once and resolved at compile time.
#include "kyrt/red_black_tree.h"

#include <cstddef>
#include <cstdint>

#include "kyrt/memory.h"

static_assert(sizeof(KyRedBlackNode) == 72 && alignof(KyRedBlackNode) == 8, "node layout");
static_assert(offsetof(KyRedBlackNode, tree) == 0 && offsetof(KyRedBlackNode, left) == 8 &&
                  offsetof(KyRedBlackNode, right) == 16 && offsetof(KyRedBlackNode, parent) == 24 &&
                  offsetof(KyRedBlackNode, previous) == 32 &&
                  offsetof(KyRedBlackNode, next) == 40 && offsetof(KyRedBlackNode, key) == 48 &&
                  offsetof(KyRedBlackNode, item) == 56 && offsetof(KyRedBlackNode, colour) == 64,
              "node field offsets");
static_assert(sizeof(KyRedBlackTree) == 48 && alignof(KyRedBlackTree) == 8, "tree layout");
static_assert(offsetof(KyRedBlackTree, root) == 0 && offsetof(KyRedBlackTree, sentinel) == 8 &&
                  offsetof(KyRedBlackTree, compare) == 16 &&
                  offsetof(KyRedBlackTree, releaseItem) == 24 &&
                  offsetof(KyRedBlackTree, releaseKey) == 32 &&
                  offsetof(KyRedBlackTree, category) == 40 && offsetof(KyRedBlackTree, count) == 44,
              "tree field offsets");

namespace kyrt {
namespace {

using Node = KyRedBlackNode;
using Tree = KyRedBlackTree;

// Every allocation of a tree uses the smallest slabs.
constexpr uint32_t kTreeSlabShift = 0;

// No valid tree is deeper than this: a red-black path of this many nodes
// would need a black height of 64, that is more than 2^64 nodes. Validation
// uses it to stop on a cycle of child links instead of recursing for ever.
constexpr uint32_t kDeepestValidPath = 128;

// ---------------------------------------------------------------------------
// Key order

int32_t CompareUnsignedKeys(uint64_t a, uint64_t b) noexcept {
  if (a < b) return -1;
  return a > b ? 1 : 0;
}

// The questions the walks ask about two keys. The default order is answered
// inline; a tool's compare function is called through its pointer once per
// question, so a walk that asks "equal?" and then "which side?" calls it
// twice, as the walks are defined to.
struct UnsignedOrder {
  static bool Equal(uint64_t a, uint64_t b) { return a == b; }
  static bool Before(uint64_t a, uint64_t b) { return a < b; }
  static bool After(uint64_t a, uint64_t b) { return a > b; }
};

struct ToolOrder {
  KyRedBlackCompareFunction compare;

  bool Equal(uint64_t a, uint64_t b) const { return compare(a, b) == 0; }
  bool Before(uint64_t a, uint64_t b) const { return compare(a, b) < 0; }
  bool After(uint64_t a, uint64_t b) const { return compare(a, b) > 0; }
};

// Runs walk(order) with the order of tree.
template <typename Walk>
auto InKeyOrder(const Tree* tree, Walk walk) {
  if (tree->compare == CompareUnsignedKeys) return walk(UnsignedOrder{});
  return walk(ToolOrder{tree->compare});
}

// ifTrue or ifFalse without a branch: the side a walk down the tree takes
// goes either way as often, and a branch on it is mispredicted half the
// time.
template <typename T>
T* Select(bool condition, T* ifTrue, T* ifFalse) {
  const uintptr_t mask = uintptr_t{0} - static_cast<uintptr_t>(condition);
  return reinterpret_cast<T*>((reinterpret_cast<uintptr_t>(ifTrue) & mask) |
                              (reinterpret_cast<uintptr_t>(ifFalse) & ~mask));
}

// ---------------------------------------------------------------------------
// Nodes

enum class Side { kLeft, kRight };

constexpr Side Opposite(Side side) {
  return side == Side::kLeft ? Side::kRight : Side::kLeft;
}

template <Side S>
Node*& Child(Node* node) {
  if constexpr (S == Side::kLeft) {
    return node->left;
  } else {
    return node->right;
  }
}

bool IsRed(const Node* node) {
  return node->colour == KY_RED_BLACK_RED;
}

bool IsBlack(const Node* node) {
  return node->colour == KY_RED_BLACK_BLACK;
}

bool IsSentinel(const Node* node) {
  return node == node->tree->sentinel;
}

// A node of tree with every link pointing to links.
Node* NewNode(Tree* tree, uint64_t key, uint64_t item, uint32_t colour, Node* links) {
  auto* node = static_cast<Node*>(__KyMalloc(tree->category, sizeof(Node), kTreeSlabShift));
  node->tree = tree;
  node->left = node->right = node->parent = node->previous = node->next = links;
  node->key = key;
  node->item = item;
  node->colour = colour;
  return node;
}

Node* NewSentinel(Tree* tree) {
  Node* sentinel = NewNode(tree, 0, 0, KY_RED_BLACK_BLACK, nullptr);
  sentinel->left = sentinel->right = sentinel->parent = sentinel->previous = sentinel->next =
      sentinel;
  return sentinel;
}

Node* Leftmost(const Tree* tree) {
  Node* node = tree->root;
  if (node == tree->sentinel) return node;
  while (node->left != tree->sentinel) node = node->left;
  return node;
}

// ---------------------------------------------------------------------------
// The key-ordered ring

void ThreadBefore(Node* node, Node* successor) {
  node->previous = successor->previous;
  node->next = successor;
  successor->previous->next = node;
  successor->previous = node;
}

void ThreadAfter(Node* node, Node* predecessor) {
  node->next = predecessor->next;
  node->previous = predecessor;
  predecessor->next->previous = node;
  predecessor->next = node;
}

void Unthread(Node* node) {
  node->previous->next = node->next;
  node->next->previous = node->previous;
}

// ---------------------------------------------------------------------------
// Tree surgery

// Hangs replacement where node hangs (as the root or as the same child of
// node's parent) and makes node's parent its parent, even when replacement
// is the sentinel: the removal fix-up climbs from there.
void Transplant(Tree* tree, Node* node, Node* replacement) {
  Node* parent = node->parent;
  if (parent == tree->sentinel) {
    tree->root = replacement;
  } else if (node == parent->left) {
    parent->left = replacement;
  } else {
    parent->right = replacement;
  }
  replacement->parent = parent;
}

// Lifts node's child on the side opposite S into node's place; node goes
// down on side S. Rotate<Side::kLeft> is the textbook left rotation.
template <Side S>
void Rotate(Tree* tree, Node* node) {
  constexpr Side kOther = Opposite(S);
  Node* riser = Child<kOther>(node);
  Node* handedOver = Child<S>(riser);
  Child<kOther>(node) = handedOver;
  if (handedOver != tree->sentinel) handedOver->parent = node;
  Transplant(tree, node, riser);
  Child<S>(riser) = node;
  node->parent = riser;
}

// One step of the insertion fix-up for red node whose parent is red and is
// the S child of its grandparent. Returns the node to go on from.
template <Side S>
Node* RepairRedParent(Tree* tree, Node* node) {
  constexpr Side kOther = Opposite(S);
  Node* parent = node->parent;
  Node* grandparent = parent->parent;
  Node* uncle = Child<kOther>(grandparent);
  if (IsRed(uncle)) {
    parent->colour = KY_RED_BLACK_BLACK;
    uncle->colour = KY_RED_BLACK_BLACK;
    grandparent->colour = KY_RED_BLACK_RED;
    return grandparent;
  }
  if (node == Child<kOther>(parent)) {
    // An inner grandchild: one rotation makes it an outer one.
    node = parent;
    Rotate<S>(tree, node);
    parent = node->parent;
  }
  parent->colour = KY_RED_BLACK_BLACK;
  grandparent->colour = KY_RED_BLACK_RED;
  Rotate<kOther>(tree, grandparent);
  return node;
}

void RepairAfterInsert(Tree* tree, Node* node) {
  // A red parent is never the root, so the grandparent is a real node.
  while (IsRed(node->parent)) {
    const bool parentIsLeft = node->parent == node->parent->parent->left;
    node = parentIsLeft ? RepairRedParent<Side::kLeft>(tree, node)
                        : RepairRedParent<Side::kRight>(tree, node);
  }
  tree->root->colour = KY_RED_BLACK_BLACK;
}

// One step of the removal fix-up for a node that carries an extra black and
// is the S child of its parent (it may be the sentinel, whose parent field
// then says where it stands). Returns the node to go on from; the root when
// the extra black has been absorbed.
template <Side S>
Node* RepairExtraBlack(Tree* tree, Node* node) {
  constexpr Side kOther = Opposite(S);
  Node* parent = node->parent;
  Node* sibling = Child<kOther>(parent);
  if (IsRed(sibling)) {
    sibling->colour = KY_RED_BLACK_BLACK;
    parent->colour = KY_RED_BLACK_RED;
    Rotate<S>(tree, parent);
    sibling = Child<kOther>(parent);
  }
  if (IsBlack(sibling->left) && IsBlack(sibling->right)) {
    sibling->colour = KY_RED_BLACK_RED;
    return parent;
  }
  if (IsBlack(Child<kOther>(sibling))) {
    Child<S>(sibling)->colour = KY_RED_BLACK_BLACK;
    sibling->colour = KY_RED_BLACK_RED;
    Rotate<kOther>(tree, sibling);
    sibling = Child<kOther>(parent);
  }
  sibling->colour = parent->colour;
  parent->colour = KY_RED_BLACK_BLACK;
  Child<kOther>(sibling)->colour = KY_RED_BLACK_BLACK;
  Rotate<S>(tree, parent);
  return tree->root;
}

void RepairAfterRemove(Tree* tree, Node* node) {
  // The sibling of a node with an extra black is never the sentinel, so
  // when node is the sentinel the test below still finds its true side.
  while (node != tree->root && IsBlack(node)) {
    node = node == node->parent->left ? RepairExtraBlack<Side::kLeft>(tree, node)
                                      : RepairExtraBlack<Side::kRight>(tree, node);
  }
  node->colour = KY_RED_BLACK_BLACK;
}

template <typename Order>
void Hang(Tree* tree, Node* node, Order order) {
  Node* const sentinel = tree->sentinel;
  Node* parent = sentinel;
  bool goesLeft = false;
  for (Node* cursor = tree->root; cursor != sentinel;) {
    parent = cursor;
    goesLeft = order.Before(node->key, cursor->key);
    cursor = Select(goesLeft, cursor->left, cursor->right);
  }
  node->parent = parent;
  if (parent == sentinel) {
    tree->root = node;
    ThreadAfter(node, sentinel);
  } else if (goesLeft) {
    parent->left = node;
    ThreadBefore(node, parent);
  } else {
    parent->right = node;
    ThreadAfter(node, parent);
  }
}

// The textbook red-black deletion, the successor relinked rather than
// copied.
void Unlink(Tree* tree, Node* node) {
  Node* const sentinel = tree->sentinel;
  Node* risen;  // what moves up into the place that loses a node
  uint32_t lostColour = node->colour;
  if (node->left == sentinel) {
    risen = node->right;
    Transplant(tree, node, risen);
  } else if (node->right == sentinel) {
    risen = node->left;
    Transplant(tree, node, risen);
  } else {
    Node* successor = node->next;  // the leftmost node of the right subtree
    lostColour = successor->colour;
    risen = successor->right;
    if (successor->parent == node) {
      risen->parent = successor;
    } else {
      Transplant(tree, successor, risen);
      successor->right = node->right;
      successor->right->parent = successor;
    }
    Transplant(tree, node, successor);
    successor->left = node->left;
    successor->left->parent = successor;
    successor->colour = node->colour;
  }
  if (lostColour == KY_RED_BLACK_BLACK) RepairAfterRemove(tree, risen);
  sentinel->parent = sentinel;
}

void Remove(Node* node) {
  Tree* tree = node->tree;
  Unthread(node);
  Unlink(tree, node);
  --tree->count;
  __KyFree(node);
}

// ---------------------------------------------------------------------------
// Range walks

// Walks down from the root asking of each node whether its key equals key
// and, if not, on which side key lies. Returns the node found, or null with
// *lastVisited set to the last node visited (the sentinel for an empty
// tree).
template <typename Order>
Node* FindEqual(const Tree* tree, uint64_t key, Order order, Node** lastVisited) {
  Node* const sentinel = tree->sentinel;
  *lastVisited = sentinel;
  for (Node* node = tree->root; node != sentinel;) {
    if (order.Equal(key, node->key)) return node;
    *lastVisited = node;
    node = Select(order.Before(key, node->key), node->left, node->right);
  }
  return nullptr;
}

template <typename Order>
Node* FirstOfEqualRun(Node* node, uint64_t key, Order order) {
  Node* const sentinel = node->tree->sentinel;
  while (node->previous != sentinel && order.Equal(key, node->previous->key)) {
    node = node->previous;
  }
  return node;
}

template <typename Order>
Node* LastOfEqualRun(Node* node, uint64_t key, Order order) {
  Node* const sentinel = node->tree->sentinel;
  while (node->next != sentinel && order.Equal(key, node->next->key)) node = node->next;
  return node;
}

template <typename Order>
Node* RangeStart(const Tree* tree, uint64_t low, uint64_t high, Order order) {
  Node* const sentinel = tree->sentinel;
  Node* node = sentinel;
  if (Node* equal = FindEqual(tree, low, order, &node)) return FirstOfEqualRun(equal, low, order);
  while (node != sentinel && order.After(low, node->key)) node = node->next;
  if (node == sentinel) return nullptr;
  return order.After(high, node->key) ? node : nullptr;
}

template <typename Order>
Node* RangeEnd(const Tree* tree, uint64_t key, Order order) {
  Node* lastVisited = nullptr;
  Node* equal = FindEqual(tree, key, order, &lastVisited);
  // Without a node of exactly this key there is no range end: no fallback
  // to a neighbouring key.
  return equal ? LastOfEqualRun(equal, key, order) : nullptr;
}

template <typename Order>
Node* RangeNext(const Node* node, uint64_t high, Order order) {
  Node* next = node->next;
  if (next == node->tree->sentinel || order.Before(high, next->key)) return nullptr;
  return next;
}

template <typename Order>
Node* RangePrevious(const Node* node, uint64_t low, Order order) {
  Node* previous = node->previous;
  if (previous == node->tree->sentinel || order.After(low, previous->key)) return nullptr;
  return previous;
}

bool IsNodeHandle(const Node* node) {
  return node != nullptr && !IsSentinel(node);
}

void ReleaseContents(const Tree* tree, uint64_t key, uint64_t item) {
  if (tree->releaseItem) tree->releaseItem(item);
  if (tree->releaseKey) tree->releaseKey(key);
}

// ---------------------------------------------------------------------------
// Validation

// The black nodes on the path from the root down its left side, the
// sentinel included.
uint32_t LeftmostBlackHeight(const Tree* tree) {
  uint32_t blacks = 1;  // the sentinel
  for (const Node* node = tree->root; node != tree->sentinel; node = node->left) {
    blacks += IsBlack(node);
  }
  return blacks;
}

bool HasNoRedRedLink(const Tree* tree, const Node* node, uint32_t depth) {
  if (node == tree->sentinel) return true;
  if (depth > kDeepestValidPath) return false;
  if (IsRed(node) && (IsRed(node->left) || IsRed(node->right))) return false;
  return HasNoRedRedLink(tree, node->left, depth + 1) &&
         HasNoRedRedLink(tree, node->right, depth + 1);
}

// True when every path from node to the sentinel, added to blacksAbove (the
// black nodes above node), passes exactly expected black nodes.
bool HasEqualBlackHeights(const Tree* tree, const Node* node, uint32_t blacksAbove,
                          uint32_t expected, uint32_t depth) {
  if (node == tree->sentinel) return blacksAbove + 1 == expected;
  if (depth > kDeepestValidPath) return false;
  const uint32_t blacks = blacksAbove + IsBlack(node);
  return HasEqualBlackHeights(tree, node->left, blacks, expected, depth + 1) &&
         HasEqualBlackHeights(tree, node->right, blacks, expected, depth + 1);
}

// The list from the leftmost node is in order and holds count nodes. The
// walk gives up as soon as it has met more than count nodes, so that a
// damaged ring cannot keep it going.
bool ListIsOrderedAndCounted(const Tree* tree) {
  Node* const sentinel = tree->sentinel;
  uint64_t walked = 0;
  for (const Node* node = Leftmost(tree); node != sentinel; node = node->next) {
    if (++walked > tree->count) return false;
    if (node->next != sentinel && tree->compare(node->key, node->next->key) > 0) return false;
  }
  return walked == tree->count;
}

bool IsValid(const Tree* tree) {
  if (!HasNoRedRedLink(tree, tree->root, 0)) return false;
  if (!HasEqualBlackHeights(tree, tree->root, 0, LeftmostBlackHeight(tree), 0)) return false;
  if (tree->root == tree->sentinel && tree->count != 0) return false;
  return ListIsOrderedAndCounted(tree);
}

}  // namespace
}  // namespace kyrt

using kyrt::InKeyOrder;

extern "C" {

KyRedBlackTree* __KyCreateRedBlackTree(uint32_t category, KyRedBlackCompareFunction compare,
                                       KyRedBlackReleaseFunction releaseItem,
                                       KyRedBlackReleaseFunction releaseKey) noexcept {
  auto* tree = static_cast<KyRedBlackTree*>(
      __KyMalloc(category, sizeof(KyRedBlackTree), kyrt::kTreeSlabShift));
  tree->category = category;
  tree->count = 0;
  tree->compare = compare ? compare : kyrt::CompareUnsignedKeys;
  tree->releaseItem = releaseItem;
  tree->releaseKey = releaseKey;
  tree->sentinel = kyrt::NewSentinel(tree);
  tree->root = tree->sentinel;
  return tree;
}

KyRedBlackNode* __KyInsertRedBlackEntry(KyRedBlackTree* tree, uint64_t key,
                                        uint64_t item) noexcept {
  if (tree == nullptr) return nullptr;
  KyRedBlackNode* node = kyrt::NewNode(tree, key, item, KY_RED_BLACK_RED, tree->sentinel);
  InKeyOrder(tree, [&](auto order) { kyrt::Hang(tree, node, order); });
  kyrt::RepairAfterInsert(tree, node);
  ++tree->count;
  return node;
}

void __KyRemoveRedBlackEntry(KyRedBlackNode* node) noexcept {
  if (!kyrt::IsNodeHandle(node)) return;
  kyrt::Remove(node);
}

KyRedBlackNode* __KyGetRedBlackRangeStart(KyRedBlackTree* tree, uint64_t low,
                                          uint64_t high) noexcept {
  if (tree == nullptr) return nullptr;
  return InKeyOrder(tree, [&](auto order) { return kyrt::RangeStart(tree, low, high, order); });
}

KyRedBlackNode* __KyGetRedBlackRangeEnd(KyRedBlackTree* tree, uint64_t key) noexcept {
  if (tree == nullptr) return nullptr;
  return InKeyOrder(tree, [&](auto order) { return kyrt::RangeEnd(tree, key, order); });
}

KyRedBlackNode* __KyGetRedBlackRangeNext(KyRedBlackNode* node, uint64_t high) noexcept {
  if (!kyrt::IsNodeHandle(node)) return nullptr;
  return InKeyOrder(node->tree, [&](auto order) { return kyrt::RangeNext(node, high, order); });
}

KyRedBlackNode* __KyGetRedBlackRangePrev(KyRedBlackNode* node, uint64_t low) noexcept {
  if (!kyrt::IsNodeHandle(node)) return nullptr;
  return InKeyOrder(node->tree, [&](auto order) { return kyrt::RangePrevious(node, low, order); });
}

int __KyGetRedBlackItem(KyRedBlackNode* node, uint64_t* item) noexcept {
  if (!kyrt::IsNodeHandle(node) || item == nullptr) return 0;
  *item = node->item;
  return 1;
}

int __KyGetRedBlackKey(KyRedBlackNode* node, uint64_t* key) noexcept {
  if (!kyrt::IsNodeHandle(node) || key == nullptr) return 0;
  *key = node->key;
  return 1;
}

void __KyDestroyRedBlackRange(KyRedBlackTree* tree, uint64_t low, uint64_t high) noexcept {
  if (tree == nullptr) return;
  KyRedBlackNode* node = __KyGetRedBlackRangeStart(tree, low, high);
  while (node != nullptr) {
    // The next node is fetched before this one goes.
    KyRedBlackNode* next = __KyGetRedBlackRangeNext(node, high);
    const uint64_t key = node->key;
    const uint64_t item = node->item;
    kyrt::Remove(node);
    kyrt::ReleaseContents(tree, key, item);
    node = next;
  }
}

void __KyDestroyRedBlackTree(KyRedBlackTree* tree) noexcept {
  if (tree == nullptr) return;
  KyRedBlackNode* const sentinel = tree->sentinel;
  KyRedBlackNode* node = kyrt::Leftmost(tree);
  while (node != sentinel) {
    KyRedBlackNode* next = node->next;
    kyrt::ReleaseContents(tree, node->key, node->item);
    __KyFree(node);
    node = next;
  }
  __KyFree(sentinel);
  __KyFree(tree);
}

int __KyValidateRedBlack(KyRedBlackTree* tree) noexcept {
  return tree != nullptr && kyrt::IsValid(tree);
}

}  // extern "C"
