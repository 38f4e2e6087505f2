// Helpers shared by the red-black tree tests: a structural check that goes
// beyond __KyValidateRedBlack (parent links, the ring through the sentinel,
// the sentinel's own fields), walks of the ring, and release functions that
// record their calls.
#ifndef KYRT_TESTS_CONTAINERS_RED_BLACK_TREE_TEST_SUPPORT_H
#define KYRT_TESTS_CONTAINERS_RED_BLACK_TREE_TEST_SUPPORT_H

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/red_black_tree.h"

namespace kyrt_test {

// The nodes of the tree's in-order sequence, read from the child links.
inline std::vector<KyRedBlackNode*> InOrderNodes(const KyRedBlackTree* tree) {
  std::vector<KyRedBlackNode*> nodes;
  std::vector<KyRedBlackNode*> pending;
  KyRedBlackNode* node = tree->root;
  while (node != tree->sentinel || !pending.empty()) {
    while (node != tree->sentinel) {
      pending.push_back(node);
      node = node->left;
    }
    node = pending.back();
    pending.pop_back();
    nodes.push_back(node);
    node = node->right;
  }
  return nodes;
}

// The nodes of the ring, from the sentinel's next to the sentinel.
inline std::vector<KyRedBlackNode*> RingNodes(const KyRedBlackTree* tree) {
  std::vector<KyRedBlackNode*> nodes;
  for (KyRedBlackNode* node = tree->sentinel->next; node != tree->sentinel; node = node->next) {
    nodes.push_back(node);
  }
  return nodes;
}

inline std::vector<uint64_t> RingKeys(const KyRedBlackTree* tree) {
  std::vector<uint64_t> keys;
  for (const KyRedBlackNode* node : RingNodes(tree)) keys.push_back(node->key);
  return keys;
}

// The nodes from first on, stepping with __KyGetRedBlackRangeNext(high).
inline std::vector<KyRedBlackNode*> WalkForward(KyRedBlackNode* first, uint64_t high) {
  std::vector<KyRedBlackNode*> nodes;
  for (KyRedBlackNode* node = first; node != nullptr; node = __KyGetRedBlackRangeNext(node, high)) {
    nodes.push_back(node);
  }
  return nodes;
}

// The nodes from last back, stepping with __KyGetRedBlackRangePrev(low).
inline std::vector<KyRedBlackNode*> WalkBackward(KyRedBlackNode* last, uint64_t low) {
  std::vector<KyRedBlackNode*> nodes;
  for (KyRedBlackNode* node = last; node != nullptr; node = __KyGetRedBlackRangePrev(node, low)) {
    nodes.push_back(node);
  }
  return nodes;
}

inline bool IsBalancedHeight(const KyRedBlackTree* tree, const KyRedBlackNode* node, int depth,
                             int limit) {
  if (node == tree->sentinel) return true;
  if (depth > limit) return false;
  return IsBalancedHeight(tree, node->left, depth + 1, limit) &&
         IsBalancedHeight(tree, node->right, depth + 1, limit);
}

// Everything the tree's record and links promise: the sentinel's fields,
// the owner and parent links, the ring in in-order sequence in both
// directions, the count, a black root and a height within 2 log2(n + 1).
inline ::testing::AssertionResult IsWellFormed(const KyRedBlackTree* tree) {
  const KyRedBlackNode* sentinel = tree->sentinel;
  if (sentinel->tree != tree || sentinel->left != sentinel || sentinel->right != sentinel ||
      sentinel->parent != sentinel || sentinel->colour != KY_RED_BLACK_BLACK ||
      sentinel->key != 0 || sentinel->item != 0) {
    return ::testing::AssertionFailure() << "the sentinel's own fields changed";
  }
  if (tree->root != sentinel &&
      (tree->root->parent != sentinel || tree->root->colour != KY_RED_BLACK_BLACK)) {
    return ::testing::AssertionFailure() << "the root is not a black node under the sentinel";
  }
  const std::vector<KyRedBlackNode*> inOrder = InOrderNodes(tree);
  for (const KyRedBlackNode* node : inOrder) {
    if (node->tree != tree) return ::testing::AssertionFailure() << "a node names another tree";
    if ((node->left != sentinel && node->left->parent != node) ||
        (node->right != sentinel && node->right->parent != node)) {
      return ::testing::AssertionFailure() << "a child does not name its parent";
    }
  }
  if (RingNodes(tree) != inOrder) {
    return ::testing::AssertionFailure() << "the ring is not the in-order sequence";
  }
  const KyRedBlackNode* expectedPrevious = sentinel;
  for (const KyRedBlackNode* node : inOrder) {
    if (node->previous != expectedPrevious) {
      return ::testing::AssertionFailure() << "a previous link is wrong";
    }
    expectedPrevious = node;
  }
  if (sentinel->previous != expectedPrevious) {
    return ::testing::AssertionFailure() << "the sentinel's previous is not the last node";
  }
  if (inOrder.size() != tree->count) {
    return ::testing::AssertionFailure()
           << "count " << tree->count << " but " << inOrder.size() << " nodes";
  }
  const int heightLimit = static_cast<int>(2 * std::log2(static_cast<double>(inOrder.size() + 1)));
  if (!IsBalancedHeight(tree, tree->root, 1, heightLimit)) {
    return ::testing::AssertionFailure() << "deeper than 2 log2(n + 1)";
  }
  return ::testing::AssertionSuccess();
}

// What the release functions were called with, in order: ('i', item) and
// ('k', key).
inline std::vector<std::pair<char, uint64_t>> g_released;

inline void RecordItemRelease(uint64_t item) {
  g_released.emplace_back('i', item);
}

inline void RecordKeyRelease(uint64_t key) {
  g_released.emplace_back('k', key);
}

// Keys in descending order, for trees with a tool's compare function.
inline int32_t CompareDescending(uint64_t a, uint64_t b) {
  if (a > b) return -1;
  return a < b ? 1 : 0;
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_CONTAINERS_RED_BLACK_TREE_TEST_SUPPORT_H
