// Unit tests of the threaded red-black tree: record layout, creation, every
// rule of insert, remove, the range queries, the accessors, the destroy
// operations and validation, and where the tree's memory comes from and
// goes back to.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "containers/red_black_tree_test_support.h"
#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/red_black_tree.h"
#include "memory/slabs.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt_test::g_released;
using kyrt_test::IsWellFormed;
using kyrt_test::RingKeys;
using kyrt_test::RingNodes;
using kyrt_test::WalkBackward;
using kyrt_test::WalkForward;
using Released = std::vector<std::pair<char, uint64_t>>;

// Counts the calls of a tool's compare function that orders keys as the
// default does.
int g_compareCalls = 0;

int32_t CountingCompare(uint64_t a, uint64_t b) {
  ++g_compareCalls;
  if (a < b) return -1;
  return a > b ? 1 : 0;
}

// A freed small block has bit 0 of its chunk word set (see memory/slabs.h).
bool IsFreedBlock(void* block) {
  return (*kyrt::memory::ChunkWordOf(block) & kyrt::memory::kFreeChunkBit) != 0;
}

kyrt::memory::SlabHeader* SlabOf(void* block) {
  return reinterpret_cast<kyrt::memory::SlabHeader*>(*kyrt::memory::ChunkWordOf(block));
}

class RedBlackTreeTest : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_released.clear();
    g_compareCalls = 0;
  }

  void TearDown() override { __KyDestroyRedBlackTree(tree_); }

  // A tree in category 0 with the default order and recording releases.
  KyRedBlackTree* Tree(KyRedBlackCompareFunction compare = nullptr) {
    tree_ = __KyCreateRedBlackTree(KY_MEMORY_CATEGORY_MISC, compare, kyrt_test::RecordItemRelease,
                                   kyrt_test::RecordKeyRelease);
    return tree_;
  }

  // Inserts key with item key * 100 + 1 (never 0, so that an item tells
  // which node it came from).
  KyRedBlackNode* Insert(uint64_t key) {
    return __KyInsertRedBlackEntry(tree_, key, key * 100 + 1);
  }

  KyRedBlackTree* tree_ = nullptr;
};

// ---------------------------------------------------------------------------
// Layout and creation

TEST(RedBlackTreeLayout, NodeFieldsSitAtTheirFixedOffsets) {
  EXPECT_EQ(sizeof(KyRedBlackNode), 72u);
  EXPECT_EQ(offsetof(KyRedBlackNode, tree), 0u);
  EXPECT_EQ(offsetof(KyRedBlackNode, left), 8u);
  EXPECT_EQ(offsetof(KyRedBlackNode, right), 16u);
  EXPECT_EQ(offsetof(KyRedBlackNode, parent), 24u);
  EXPECT_EQ(offsetof(KyRedBlackNode, previous), 32u);
  EXPECT_EQ(offsetof(KyRedBlackNode, next), 40u);
  EXPECT_EQ(offsetof(KyRedBlackNode, key), 48u);
  EXPECT_EQ(offsetof(KyRedBlackNode, item), 56u);
  EXPECT_EQ(offsetof(KyRedBlackNode, colour), 64u);
  EXPECT_EQ(KY_RED_BLACK_RED, 1u);
  EXPECT_EQ(KY_RED_BLACK_BLACK, 0u);
}

TEST(RedBlackTreeLayout, TreeFieldsSitAtTheirFixedOffsets) {
  EXPECT_EQ(sizeof(KyRedBlackTree), 48u);
  EXPECT_EQ(offsetof(KyRedBlackTree, root), 0u);
  EXPECT_EQ(offsetof(KyRedBlackTree, sentinel), 8u);
  EXPECT_EQ(offsetof(KyRedBlackTree, compare), 16u);
  EXPECT_EQ(offsetof(KyRedBlackTree, releaseItem), 24u);
  EXPECT_EQ(offsetof(KyRedBlackTree, releaseKey), 32u);
  EXPECT_EQ(offsetof(KyRedBlackTree, category), 40u);
  EXPECT_EQ(offsetof(KyRedBlackTree, count), 44u);
}

TEST_F(RedBlackTreeTest, CreateGivesAnEmptyTreeWithASelfLinkedBlackSentinel) {
  const uint32_t category = __KyRegisterMemoryCategory("rbtree-create");
  tree_ = __KyCreateRedBlackTree(category, CountingCompare, kyrt_test::RecordItemRelease,
                                 kyrt_test::RecordKeyRelease);
  KyRedBlackNode* sentinel = tree_->sentinel;
  ASSERT_NE(sentinel, nullptr);
  EXPECT_EQ(tree_->root, sentinel);
  EXPECT_EQ(tree_->compare, &CountingCompare);
  EXPECT_EQ(tree_->releaseItem, &kyrt_test::RecordItemRelease);
  EXPECT_EQ(tree_->releaseKey, &kyrt_test::RecordKeyRelease);
  EXPECT_EQ(tree_->category, category);
  EXPECT_EQ(tree_->count, 0u);
  EXPECT_EQ(sentinel->tree, tree_);
  EXPECT_EQ(sentinel->left, sentinel);
  EXPECT_EQ(sentinel->right, sentinel);
  EXPECT_EQ(sentinel->parent, sentinel);
  EXPECT_EQ(sentinel->previous, sentinel);
  EXPECT_EQ(sentinel->next, sentinel);
  EXPECT_EQ(sentinel->key, 0u);
  EXPECT_EQ(sentinel->item, 0u);
  EXPECT_EQ(sentinel->colour, KY_RED_BLACK_BLACK);
  EXPECT_EQ(g_compareCalls, 0);
}

TEST_F(RedBlackTreeTest, CreateWithoutFunctionsStoresTheDefaultOrderAndNoReleases) {
  tree_ = __KyCreateRedBlackTree(KY_MEMORY_CATEGORY_MISC, nullptr, nullptr, nullptr);
  ASSERT_NE(tree_->compare, nullptr);
  EXPECT_EQ(tree_->releaseItem, nullptr);
  EXPECT_EQ(tree_->releaseKey, nullptr);
}

TEST_F(RedBlackTreeTest, DefaultOrderComparesUnsignedAndAnswersMinusOneZeroOrOne) {
  KyRedBlackCompareFunction compare = Tree()->compare;
  EXPECT_EQ(compare(1, 2), -1);
  EXPECT_EQ(compare(2, 1), 1);
  EXPECT_EQ(compare(7, 7), 0);
  EXPECT_EQ(compare(0, UINT64_MAX), -1);
  EXPECT_EQ(compare(UINT64_MAX, 0), 1);
  EXPECT_EQ(compare(uint64_t{1} << 63, 1), 1);  // unsigned, not signed
  EXPECT_EQ(compare(0, 1000000), -1);           // not the difference
}

TEST_F(RedBlackTreeTest, DefaultOrderSortsKeysAsUnsignedNumbers) {
  Tree();
  Insert(uint64_t{1} << 63);
  Insert(UINT64_MAX);
  Insert(1);
  Insert(0);
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{0, 1, uint64_t{1} << 63, UINT64_MAX}));
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, AllocationsComeFromTheTreeCategoryWithTheSmallestSlabs) {
  const uint32_t category = __KyRegisterMemoryCategory("rbtree-slabs");
  tree_ = __KyCreateRedBlackTree(category, nullptr, nullptr, nullptr);
  KyRedBlackNode* node = __KyInsertRedBlackEntry(tree_, 1, 2);
  for (void* block :
       {static_cast<void*>(tree_), static_cast<void*>(tree_->sentinel), static_cast<void*>(node)}) {
    EXPECT_EQ(SlabOf(block)->category, category);
    EXPECT_EQ(SlabOf(block)->slabShift, 0u);
  }
}

// ---------------------------------------------------------------------------
// Insert

TEST_F(RedBlackTreeTest, FirstNodeIsTheBlackRootWithTheSentinelAsNeighbours) {
  Tree();
  KyRedBlackNode* node = __KyInsertRedBlackEntry(tree_, 42, 4200);
  ASSERT_NE(node, nullptr);
  KyRedBlackNode* sentinel = tree_->sentinel;
  EXPECT_EQ(tree_->root, node);
  EXPECT_EQ(tree_->count, 1u);
  EXPECT_EQ(node->tree, tree_);
  EXPECT_EQ(node->key, 42u);
  EXPECT_EQ(node->item, 4200u);
  EXPECT_EQ(node->colour, KY_RED_BLACK_BLACK);
  EXPECT_EQ(node->left, sentinel);
  EXPECT_EQ(node->right, sentinel);
  EXPECT_EQ(node->parent, sentinel);
  EXPECT_EQ(node->previous, sentinel);
  EXPECT_EQ(node->next, sentinel);
  EXPECT_EQ(sentinel->next, node);
  EXPECT_EQ(sentinel->previous, node);
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, SmallerKeyHangsLeftRedAndThreadsBeforeItsParent) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  KyRedBlackNode* five = Insert(5);
  EXPECT_EQ(ten->left, five);
  EXPECT_EQ(five->parent, ten);
  EXPECT_EQ(five->colour, KY_RED_BLACK_RED);
  EXPECT_EQ(five->previous, tree_->sentinel);
  EXPECT_EQ(five->next, ten);
  EXPECT_EQ(ten->previous, five);
  EXPECT_EQ(tree_->sentinel->next, five);
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, EqualKeyHangsRightAndThreadsAfterItsEqual) {
  Tree();
  KyRedBlackNode* first = Insert(10);
  KyRedBlackNode* second = Insert(10);
  EXPECT_EQ(first->right, second);
  EXPECT_EQ(first->next, second);
  EXPECT_EQ(second->previous, first);
  EXPECT_EQ(tree_->sentinel->previous, second);
}

TEST_F(RedBlackTreeTest, ThreeEqualKeysGiveThreeNodesFirstAndLastInInsertionOrder) {
  Tree();
  KyRedBlackNode* a = __KyInsertRedBlackEntry(tree_, 5, 1);
  KyRedBlackNode* b = __KyInsertRedBlackEntry(tree_, 5, 2);
  KyRedBlackNode* c = __KyInsertRedBlackEntry(tree_, 5, 3);
  EXPECT_EQ(tree_->count, 3u);
  EXPECT_NE(a, b);
  EXPECT_NE(b, c);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 5, 5), a);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 5), c);
  EXPECT_EQ(RingNodes(tree_), (std::vector<KyRedBlackNode*>{a, b, c}));
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, NewNodeFollowsEveryEqualNodeWhereverRotationsPutThem) {
  Tree();
  std::vector<KyRedBlackNode*> fives;
  for (uint64_t round = 0; round < 40; ++round) {
    fives.push_back(__KyInsertRedBlackEntry(tree_, 5, round));
    Insert(round % 2 ? 3 : 7);  // neighbours that make the fives rotate around
  }
  std::vector<KyRedBlackNode*> ringFives;
  for (KyRedBlackNode* node : RingNodes(tree_)) {
    if (node->key == 5) ringFives.push_back(node);
  }
  EXPECT_EQ(ringFives, fives);
  EXPECT_TRUE(IsWellFormed(tree_));
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, InsertIntoANullTreeReturnsNull) {
  EXPECT_EQ(__KyInsertRedBlackEntry(nullptr, 1, 2), nullptr);
}

TEST_F(RedBlackTreeTest, AscendingAndDescendingRunsStayBalanced) {
  Tree();
  constexpr uint64_t kRun = 4096;
  for (uint64_t key = 0; key < kRun; ++key) Insert(key);
  for (uint64_t key = 2 * kRun; key > kRun; --key) Insert(key);
  EXPECT_EQ(tree_->count, 2 * kRun);
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, InsertAsksTheToolOrderOncePerLevel) {
  Tree(CountingCompare);
  Insert(20);
  EXPECT_EQ(g_compareCalls, 0);  // nothing to compare with
  Insert(10);
  EXPECT_EQ(g_compareCalls, 1);
  Insert(30);
  EXPECT_EQ(g_compareCalls, 2);
  Insert(5);  // root 20, then 10
  EXPECT_EQ(g_compareCalls, 4);
}

// ---------------------------------------------------------------------------
// Range start and range end

TEST_F(RedBlackTreeTest, RangeStartInAGapNeedsHighStrictlyAfterTheNextKey) {
  Tree();
  Insert(10);
  KyRedBlackNode* twenty = Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 11, 30), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 11, 21), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 11, 20), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 11, 11), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 15), nullptr);
}

TEST_F(RedBlackTreeTest, RangeStartOnAnExactLowIgnoresHigh) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 10, 11), ten);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 10, 10), ten);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 10, 0), ten);
}

TEST_F(RedBlackTreeTest, RangeStartBelowEveryKeyFindsTheFirstNode) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 0, 11), ten);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 0, 10), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 9, UINT64_MAX), ten);
}

TEST_F(RedBlackTreeTest, RangeStartAfterEveryKeyIsNull) {
  Tree();
  Insert(10);
  Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 21, UINT64_MAX), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, UINT64_MAX, UINT64_MAX), nullptr);
}

TEST_F(RedBlackTreeTest, RangeStartFindsTheFirstOfARunOfEqualKeys) {
  Tree();
  for (uint64_t key : {1, 3, 3, 3, 3, 3, 3, 3, 5, 2, 4}) Insert(key);
  KyRedBlackNode* start = __KyGetRedBlackRangeStart(tree_, 3, 0);
  ASSERT_NE(start, nullptr);
  EXPECT_EQ(start->key, 3u);
  EXPECT_EQ(start->previous->key, 2u);
  KyRedBlackNode* end = __KyGetRedBlackRangeEnd(tree_, 3);
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(end->key, 3u);
  EXPECT_EQ(end->next->key, 4u);
  EXPECT_EQ(WalkForward(start, 3).back(), end);
  EXPECT_EQ(WalkForward(start, 3).size(), 7u);
}

TEST_F(RedBlackTreeTest, RangeEndFindsExactKeysOnly) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  KyRedBlackNode* twenty = Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 10), ten);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 20), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 0), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 9), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 11), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 21), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, UINT64_MAX), nullptr);
}

TEST_F(RedBlackTreeTest, RangeQueriesOfAnEmptyOrNullTreeAreNull) {
  Tree();
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 0, UINT64_MAX), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 0), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeStart(nullptr, 0, UINT64_MAX), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeEnd(nullptr, 0), nullptr);
}

// The walks ask "equal?" and then "which side?" of every node they pass.
TEST_F(RedBlackTreeTest, WalksCallTheToolOrderOnceForEqualityAndOnceForTheSide) {
  Tree(CountingCompare);
  KyRedBlackNode* ten = Insert(10);

  g_compareCalls = 0;
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 20), nullptr);
  EXPECT_EQ(g_compareCalls, 2);  // equal? side?

  g_compareCalls = 0;
  EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, 10), ten);
  EXPECT_EQ(g_compareCalls, 1);  // equal; no neighbour to look at

  g_compareCalls = 0;
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 20, 30), nullptr);
  EXPECT_EQ(g_compareCalls, 3);  // equal? side? 20 after 10? then the list ends

  g_compareCalls = 0;
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 5, 30), ten);
  EXPECT_EQ(g_compareCalls, 4);  // equal? side? 5 after 10? 30 after 10?
}

TEST_F(RedBlackTreeTest, RangeQueriesFollowTheToolOrder) {
  Tree(kyrt_test::CompareDescending);
  KyRedBlackNode* thirty = Insert(30);
  KyRedBlackNode* twenty = Insert(20);
  KyRedBlackNode* ten = Insert(10);
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{30, 20, 10}));
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 25, 5), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 25, 20), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, 35, 0), thirty);
  EXPECT_EQ(__KyGetRedBlackRangeNext(thirty, 20), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeNext(twenty, 11), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangePrev(ten, 20), twenty);
  EXPECT_EQ(__KyGetRedBlackRangePrev(twenty, 21), nullptr);
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

// ---------------------------------------------------------------------------
// Range next and range prev

TEST_F(RedBlackTreeTest, RangeNextIncludesHigh) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  KyRedBlackNode* twenty = Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangeNext(ten, 20), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeNext(ten, UINT64_MAX), twenty);
  EXPECT_EQ(__KyGetRedBlackRangeNext(ten, 19), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeNext(twenty, UINT64_MAX), nullptr);  // the end
}

TEST_F(RedBlackTreeTest, RangePrevIncludesLow) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  KyRedBlackNode* twenty = Insert(20);
  EXPECT_EQ(__KyGetRedBlackRangePrev(twenty, 10), ten);
  EXPECT_EQ(__KyGetRedBlackRangePrev(twenty, 0), ten);
  EXPECT_EQ(__KyGetRedBlackRangePrev(twenty, 11), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangePrev(ten, 0), nullptr);  // the start
}

TEST_F(RedBlackTreeTest, RangeNextAndPrevOfNullOrTheSentinelAreNull) {
  Tree();
  Insert(10);
  EXPECT_EQ(__KyGetRedBlackRangeNext(nullptr, UINT64_MAX), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangePrev(nullptr, 0), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangeNext(tree_->sentinel, UINT64_MAX), nullptr);
  EXPECT_EQ(__KyGetRedBlackRangePrev(tree_->sentinel, 0), nullptr);
}

TEST_F(RedBlackTreeTest, RangeWalksVisitTheClosedRangeInBothDirections) {
  Tree();
  std::vector<KyRedBlackNode*> nodes;
  for (uint64_t key = 0; key < 100; key += 2) nodes.push_back(Insert(key));
  const std::vector<KyRedBlackNode*> forward =
      WalkForward(__KyGetRedBlackRangeStart(tree_, 9, 41), 40);
  EXPECT_EQ(forward, std::vector<KyRedBlackNode*>(nodes.begin() + 5, nodes.begin() + 21));
  const std::vector<KyRedBlackNode*> backward = WalkBackward(__KyGetRedBlackRangeEnd(tree_, 40), 9);
  EXPECT_EQ(backward, std::vector<KyRedBlackNode*>(forward.rbegin(), forward.rend()));
}

// ---------------------------------------------------------------------------
// Accessors

TEST_F(RedBlackTreeTest, GetItemAndKeyReadTheNode) {
  Tree();
  KyRedBlackNode* node = __KyInsertRedBlackEntry(tree_, 0xABCDEF0123456789u, 0xFEDCBA9876543210u);
  uint64_t item = 0;
  uint64_t key = 0;
  EXPECT_EQ(__KyGetRedBlackItem(node, &item), 1);
  EXPECT_EQ(__KyGetRedBlackKey(node, &key), 1);
  EXPECT_EQ(item, 0xFEDCBA9876543210u);
  EXPECT_EQ(key, 0xABCDEF0123456789u);
}

TEST_F(RedBlackTreeTest, GetItemAndKeyOfNullTheSentinelOrIntoNullWriteNothing) {
  Tree();
  KyRedBlackNode* node = Insert(7);
  uint64_t out = 0x5A5A5A5A5A5A5A5Au;
  EXPECT_EQ(__KyGetRedBlackItem(nullptr, &out), 0);
  EXPECT_EQ(__KyGetRedBlackKey(nullptr, &out), 0);
  EXPECT_EQ(__KyGetRedBlackItem(tree_->sentinel, &out), 0);
  EXPECT_EQ(__KyGetRedBlackKey(tree_->sentinel, &out), 0);
  EXPECT_EQ(out, 0x5A5A5A5A5A5A5A5Au);
  EXPECT_EQ(__KyGetRedBlackItem(node, nullptr), 0);
  EXPECT_EQ(__KyGetRedBlackKey(node, nullptr), 0);
}

// ---------------------------------------------------------------------------
// Remove

TEST_F(RedBlackTreeTest, RemoveFreesTheNodeAndReleasesNothing) {
  Tree();
  Insert(1);
  KyRedBlackNode* doomed = Insert(2);
  Insert(3);
  __KyRemoveRedBlackEntry(doomed);
  EXPECT_TRUE(IsFreedBlock(doomed));
  EXPECT_TRUE(g_released.empty());
  EXPECT_EQ(tree_->count, 2u);
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{1, 3}));
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, RemoveOfNullOrTheSentinelDoesNothing) {
  Tree();
  Insert(1);
  __KyRemoveRedBlackEntry(nullptr);
  __KyRemoveRedBlackEntry(tree_->sentinel);
  EXPECT_EQ(tree_->count, 1u);
  EXPECT_FALSE(IsFreedBlock(tree_->sentinel));
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, RemovingANodeWithTwoChildrenRelinksItsSuccessorIntoItsPlace) {
  Tree();
  for (uint64_t key : {20, 10, 30, 25, 35}) Insert(key);
  KyRedBlackNode* root = tree_->root;
  ASSERT_EQ(root->key, 20u);
  KyRedBlackNode* left = root->left;
  KyRedBlackNode* successor = root->next;
  ASSERT_EQ(successor->key, 25u);
  __KyRemoveRedBlackEntry(root);
  EXPECT_EQ(tree_->root, successor);
  EXPECT_EQ(successor->key, 25u);
  EXPECT_EQ(successor->item, 2501u);
  EXPECT_EQ(successor->left, left);
  EXPECT_EQ(left->parent, successor);
  EXPECT_EQ(successor->previous, left);
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, RemovalsKeepEveryOtherHandleOnItsKeyAndItem) {
  Tree();
  std::vector<KyRedBlackNode*> nodes;
  constexpr uint64_t kNodes = 200;
  for (uint64_t key = 0; key < kNodes; ++key) nodes.push_back(Insert(key));
  std::vector<bool> removed(kNodes, false);
  // Always the root: the node most likely to have two children.
  for (int round = 0; round < 150; ++round) {
    KyRedBlackNode* root = tree_->root;
    removed[root->key] = true;
    __KyRemoveRedBlackEntry(root);
    ASSERT_EQ(__KyValidateRedBlack(tree_), 1);
    ASSERT_TRUE(IsWellFormed(tree_));
  }
  std::vector<KyRedBlackNode*> survivors;
  for (uint64_t key = 0; key < kNodes; ++key) {
    if (removed[key]) continue;
    EXPECT_EQ(nodes[key]->key, key);
    EXPECT_EQ(nodes[key]->item, key * 100 + 1);
    survivors.push_back(nodes[key]);
  }
  EXPECT_EQ(RingNodes(tree_), survivors);
}

TEST_F(RedBlackTreeTest, RemovingEveryNodeLeavesTheTreeAsCreated) {
  Tree();
  std::vector<KyRedBlackNode*> nodes;
  for (uint64_t key = 0; key < 64; ++key) nodes.push_back(Insert(key * 7 % 64));
  for (KyRedBlackNode* node : nodes) {
    __KyRemoveRedBlackEntry(node);
    ASSERT_EQ(__KyValidateRedBlack(tree_), 1);
    ASSERT_TRUE(IsWellFormed(tree_));
  }
  KyRedBlackNode* sentinel = tree_->sentinel;
  EXPECT_EQ(tree_->count, 0u);
  EXPECT_EQ(tree_->root, sentinel);
  EXPECT_EQ(sentinel->next, sentinel);
  EXPECT_EQ(sentinel->previous, sentinel);
  EXPECT_EQ(sentinel->parent, sentinel);
  KyRedBlackNode* again = Insert(5);
  EXPECT_EQ(tree_->root, again);
  EXPECT_TRUE(IsWellFormed(tree_));
}

// ---------------------------------------------------------------------------
// Destroy range and destroy tree

TEST_F(RedBlackTreeTest, DestroyRangeTakesLowToHighInclusiveAndReleasesItemThenKey) {
  Tree();
  KyRedBlackNode* ten = Insert(10);
  Insert(15);
  Insert(20);
  KyRedBlackNode* twentyFive = Insert(25);
  __KyDestroyRedBlackRange(tree_, 10, 20);
  EXPECT_EQ(g_released,
            (Released{{'i', 1001}, {'k', 10}, {'i', 1501}, {'k', 15}, {'i', 2001}, {'k', 20}}));
  EXPECT_EQ(tree_->count, 1u);
  EXPECT_EQ(tree_->root, twentyFive);
  EXPECT_TRUE(IsFreedBlock(ten));
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, DestroyRangeStartingInAGapNeedsHighAfterTheFirstKey) {
  Tree();
  Insert(10);
  Insert(20);
  __KyDestroyRedBlackRange(tree_, 11, 20);
  EXPECT_TRUE(g_released.empty());
  EXPECT_EQ(tree_->count, 2u);
  __KyDestroyRedBlackRange(tree_, 11, 21);
  EXPECT_EQ(g_released, (Released{{'i', 2001}, {'k', 20}}));
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{10}));
}

TEST_F(RedBlackTreeTest, DestroyRangeFromAnExactLowWithHighBelowItTakesOneNode) {
  Tree();
  for (uint64_t key : {5, 5, 5, 6}) Insert(key);
  __KyDestroyRedBlackRange(tree_, 5, 4);
  EXPECT_EQ(g_released, (Released{{'i', 501}, {'k', 5}}));
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{5, 5, 6}));
  __KyDestroyRedBlackRange(tree_, 5, 5);
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{6}));
}

TEST_F(RedBlackTreeTest, DestroyRangeOverEverythingEmptiesTheTree) {
  Tree();
  for (uint64_t key = 0; key < 300; ++key) Insert(key * 37 % 300);
  __KyDestroyRedBlackRange(tree_, 0, UINT64_MAX);
  EXPECT_EQ(tree_->count, 0u);
  EXPECT_EQ(tree_->root, tree_->sentinel);
  ASSERT_EQ(g_released.size(), 600u);
  for (uint64_t key = 0; key < 300; ++key) {
    EXPECT_EQ(g_released[2 * key], std::make_pair('i', key * 100 + 1));
    EXPECT_EQ(g_released[2 * key + 1], std::make_pair('k', key));
  }
  EXPECT_TRUE(IsWellFormed(tree_));
}

TEST_F(RedBlackTreeTest, DestroyRangeWithoutReleaseFunctionsStillRemoves) {
  tree_ = __KyCreateRedBlackTree(KY_MEMORY_CATEGORY_MISC, nullptr, nullptr, nullptr);
  for (uint64_t key : {1, 2, 3, 4}) Insert(key);
  __KyDestroyRedBlackRange(tree_, 2, 3);
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{1, 4}));
  EXPECT_TRUE(g_released.empty());
}

TEST_F(RedBlackTreeTest, DestroyRangeOfANullTreeDoesNothing) {
  __KyDestroyRedBlackRange(nullptr, 0, UINT64_MAX);
  EXPECT_TRUE(g_released.empty());
}

TEST_F(RedBlackTreeTest, DestroyTreeReleasesEveryNodeInKeyOrderAndFreesEverything) {
  const uint32_t category = __KyRegisterMemoryCategory("rbtree-destroy");
  // Blocks of the record's and the nodes' size classes keep their slabs in
  // place, so that the freed blocks can be looked at.
  void* recordPin = __KyMalloc(category, sizeof(KyRedBlackTree), 0);
  void* nodePin = __KyMalloc(category, sizeof(KyRedBlackNode), 0);
  KyRedBlackTree* tree = __KyCreateRedBlackTree(category, nullptr, kyrt_test::RecordItemRelease,
                                                kyrt_test::RecordKeyRelease);
  std::vector<KyRedBlackNode*> nodes;
  for (uint64_t key : {30, 10, 20, 10})
    nodes.push_back(__KyInsertRedBlackEntry(tree, key, key + 1));
  KyRedBlackNode* sentinel = tree->sentinel;
  __KyDestroyRedBlackTree(tree);
  EXPECT_EQ(
      g_released,
      (Released{
          {'i', 11}, {'k', 10}, {'i', 11}, {'k', 10}, {'i', 21}, {'k', 20}, {'i', 31}, {'k', 30}}));
  for (KyRedBlackNode* node : nodes) EXPECT_TRUE(IsFreedBlock(node));
  EXPECT_TRUE(IsFreedBlock(sentinel));
  EXPECT_TRUE(IsFreedBlock(tree));
  __KyFree(recordPin);
  __KyFree(nodePin);
}

TEST_F(RedBlackTreeTest, DestroyOfAnEmptyOrNullTreeReleasesNothing) {
  __KyDestroyRedBlackTree(nullptr);
  __KyDestroyRedBlackTree(__KyCreateRedBlackTree(
      KY_MEMORY_CATEGORY_MISC, nullptr, kyrt_test::RecordItemRelease, kyrt_test::RecordKeyRelease));
  EXPECT_TRUE(g_released.empty());
}

// ---------------------------------------------------------------------------
// Validate

TEST_F(RedBlackTreeTest, ValidateAcceptsAFreshTreeAndRejectsNull) {
  EXPECT_EQ(__KyValidateRedBlack(Tree()), 1);
  EXPECT_EQ(__KyValidateRedBlack(nullptr), 0);
}

TEST_F(RedBlackTreeTest, ValidateRejectsARedNodeWithARedChild) {
  Tree();
  for (uint64_t key : {2, 1, 3}) Insert(key);
  ASSERT_EQ(tree_->root->left->colour, KY_RED_BLACK_RED);
  tree_->root->colour = KY_RED_BLACK_RED;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  tree_->root->colour = KY_RED_BLACK_BLACK;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, ValidateRejectsPathsWithDifferentBlackCounts) {
  Tree();
  for (uint64_t key : {2, 1, 3}) Insert(key);
  tree_->root->right->colour = KY_RED_BLACK_BLACK;  // the right path gains a black node
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  tree_->root->left->colour = KY_RED_BLACK_BLACK;  // and now the left one too
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, ValidateRejectsAnEmptyTreeThatCountsNodes) {
  Tree();
  tree_->count = 1;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  tree_->count = 0;
}

TEST_F(RedBlackTreeTest, ValidateRejectsACountThatDiffersFromTheList) {
  Tree();
  for (uint64_t key : {2, 1, 3}) Insert(key);
  tree_->count = 4;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  tree_->count = 2;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  tree_->count = 3;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, ValidateRejectsAListOutOfOrderAndAcceptsEqualNeighbours) {
  Tree();
  KyRedBlackNode* one = Insert(1);
  Insert(2);
  KyRedBlackNode* three = Insert(3);
  one->key = 3;  // 3, 2, 3
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  one->key = 2;  // 2, 2, 3
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
  three->key = 1;  // 2, 2, 1
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  one->key = 1;
  three->key = 3;
}

TEST_F(RedBlackTreeTest, ValidateStopsOnARingThatRunsInACircle) {
  Tree();
  KyRedBlackNode* one = Insert(1);
  Insert(1);
  KyRedBlackNode* last = Insert(1);
  last->next = one;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 0);
  last->next = tree_->sentinel;
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
}

TEST_F(RedBlackTreeTest, ValidateChecksTheListWithTheToolOrder) {
  Tree(kyrt_test::CompareDescending);
  for (uint64_t key : {1, 2, 3}) Insert(key);
  EXPECT_EQ(__KyValidateRedBlack(tree_), 1);
  EXPECT_EQ(RingKeys(tree_), (std::vector<uint64_t>{3, 2, 1}));
}

TEST_F(RedBlackTreeTest, ValidateHoldsAfterInsertsAndRemovalsInAnyOrder) {
  Tree();
  std::vector<KyRedBlackNode*> nodes;
  for (uint64_t key = 0; key < 128; ++key) {
    nodes.push_back(Insert(key * 53 % 128));
    ASSERT_EQ(__KyValidateRedBlack(tree_), 1);
  }
  for (size_t i = 0; i < nodes.size(); i += 3) {
    __KyRemoveRedBlackEntry(nodes[i]);
    ASSERT_EQ(__KyValidateRedBlack(tree_), 1);
  }
  for (size_t i = nodes.size(); i-- > 0;) {
    if (i % 3 == 0) continue;
    __KyRemoveRedBlackEntry(nodes[i]);
    ASSERT_EQ(__KyValidateRedBlack(tree_), 1);
  }
  EXPECT_EQ(tree_->count, 0u);
}

}  // namespace
