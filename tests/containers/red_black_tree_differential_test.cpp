// The red-black tree against std::multimap, under random operations with
// fixed seeds.
//
// The model maps each key to the node handle the tree returned for it. A
// multimap inserts an equal key after its equals, exactly as the tree
// threads it, so the model's sequence must equal the tree's ring node for
// node, not only key for key. After every change the tree must validate and
// be well formed; every few changes the range queries and walks are set
// against the model's answers.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "containers/red_black_tree_test_support.h"
#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/red_black_tree.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt_test::g_released;
using kyrt_test::IsWellFormed;
using kyrt_test::RingNodes;
using kyrt_test::WalkBackward;
using kyrt_test::WalkForward;

constexpr int kQueriesPerCheck = 8;
constexpr int kChangesPerCheck = 16;
constexpr uint64_t kRangeSpanDivisor = 8;
constexpr uint32_t kReversedRangePeriod = 8;
constexpr int kMostDestroyRounds = 2000;
constexpr size_t kSmallTree = 4;

// One run: the seed, the key space (small means many duplicates), the
// number of changes, and the share of changes that are inserts (percent).
struct Scenario {
  uint32_t seed;
  uint64_t keySpace;
  int changes;
  int insertPercent;
};

std::string ScenarioName(const ::testing::TestParamInfo<Scenario>& info) {
  return "seed" + std::to_string(info.param.seed) + "_keys" + std::to_string(info.param.keySpace) +
         "_inserts" + std::to_string(info.param.insertPercent);
}

// The tree and its model under one order. Order is a strict weak ordering
// that agrees with the tree's compare function.
template <typename Order>
class Differential {
 public:
  using Model = std::multimap<uint64_t, KyRedBlackNode*, Order>;

  Differential(KyRedBlackCompareFunction compare, uint32_t seed, uint64_t keySpace)
      : tree_(__KyCreateRedBlackTree(KY_MEMORY_CATEGORY_MISC, compare, kyrt_test::RecordItemRelease,
                                     kyrt_test::RecordKeyRelease)),
        random_(seed),
        keySpace_(keySpace) {}

  ~Differential() { __KyDestroyRedBlackTree(tree_); }

  Differential(const Differential&) = delete;
  Differential& operator=(const Differential&) = delete;

  void insert() {
    const uint64_t key = randomKey();
    const uint64_t item = nextItem_++;
    KyRedBlackNode* node = __KyInsertRedBlackEntry(tree_, key, item);
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->key, key);
    ASSERT_EQ(node->item, item);
    handles_.push_back(model_.emplace(key, node));
  }

  void removeOne() {
    if (handles_.empty()) return;
    const size_t index = random_() % handles_.size();
    const auto entry = handles_[index];
    handles_[index] = handles_.back();
    handles_.pop_back();
    __KyRemoveRedBlackEntry(entry->second);
    model_.erase(entry);
  }

  // Destroys a random range and checks which nodes went, and in what order
  // their items and keys were released.
  // Ranges span up to an eighth of the key space; one in
  // kReversedRangePeriod has high just below low.
  void destroyRange() {
    const uint64_t low = randomKey();
    const uint64_t high = random_() % kReversedRangePeriod == 0
                              ? low - 1
                              : low + random_() % (keySpace_ / kRangeSpanDivisor + 2);
    std::vector<std::pair<char, uint64_t>> expected;
    // The start node goes whatever high; past it, nodes up to high.
    Entry doomed = expectedRangeStart(low, high);
    for (bool first = true; doomed != model_.end() && (first || !Order()(high, doomed->first));
         first = false) {
      expected.emplace_back('i', doomed->second->item);
      expected.emplace_back('k', doomed->first);
      dropHandle(doomed->second);
      doomed = model_.erase(doomed);
    }
    g_released.clear();
    __KyDestroyRedBlackRange(tree_, low, high);
    EXPECT_EQ(g_released, expected) << "destroy range " << low << ".." << high;
  }

  void expectConsistent() {
    ASSERT_EQ(__KyValidateRedBlack(tree_), 1);
    ASSERT_TRUE(IsWellFormed(tree_));
    ASSERT_EQ(tree_->count, model_.size());
  }

  // The ring against the model, node for node, then random queries.
  void expectSameAnswers() {
    std::vector<KyRedBlackNode*> modelNodes;
    for (const auto& entry : model_) modelNodes.push_back(entry.second);
    ASSERT_EQ(RingNodes(tree_), modelNodes);
    for (int query = 0; query < kQueriesPerCheck; ++query) {
      const uint64_t low = randomKey();
      const uint64_t high = randomKey();
      expectRangeStart(low, high);
      expectRangeEnd(low);
      expectWalks(low, high);
    }
  }

  size_t size() const { return model_.size(); }

  void run(const Scenario& scenario) {
    for (int change = 1; change <= scenario.changes; ++change) {
      if (static_cast<int>(random_() % 100) < scenario.insertPercent) {
        insert();
      } else {
        removeOne();
      }
      expectConsistent();
      if (change % kChangesPerCheck == 0) expectSameAnswers();
      if (::testing::Test::HasFatalFailure()) return;
    }
  }

 private:
  using Entry = typename Model::iterator;

  // Keys straddle the key space a little, so that queries fall before the
  // first and after the last key too.
  uint64_t randomKey() { return random_() % (keySpace_ + 2); }

  // What range start must answer: the first node of key low if there is
  // one; else the first node after low if high orders after its key.
  Entry expectedRangeStart(uint64_t low, uint64_t high) {
    const Entry first = model_.lower_bound(low);
    if (first == model_.end()) return first;
    const bool exact = !Order()(low, first->first);
    return exact || Order()(first->first, high) ? first : model_.end();
  }

  KyRedBlackNode* expectedRangeEnd(uint64_t key) {
    const auto [first, past] = model_.equal_range(key);
    return first == past ? nullptr : std::prev(past)->second;
  }

  void expectRangeStart(uint64_t low, uint64_t high) {
    const Entry expected = expectedRangeStart(low, high);
    EXPECT_EQ(__KyGetRedBlackRangeStart(tree_, low, high),
              expected == model_.end() ? nullptr : expected->second)
        << "range start " << low << ", " << high;
  }

  void expectRangeEnd(uint64_t key) {
    EXPECT_EQ(__KyGetRedBlackRangeEnd(tree_, key), expectedRangeEnd(key)) << "range end " << key;
  }

  // From the range start, next(high) walks to the last key not after high;
  // from the last node of low's run (when low is present), prev(low) walks
  // back to the first node of low.
  void expectWalks(uint64_t low, uint64_t high) {
    std::vector<KyRedBlackNode*> forward;
    for (Entry entry = expectedRangeStart(low, high);
         entry != model_.end() && (forward.empty() || !Order()(high, entry->first)); ++entry) {
      forward.push_back(entry->second);
    }
    EXPECT_EQ(WalkForward(__KyGetRedBlackRangeStart(tree_, low, high), high), forward)
        << "walk " << low << " to " << high;

    KyRedBlackNode* end = expectedRangeEnd(high);
    std::vector<KyRedBlackNode*> backward;
    if (end != nullptr) {
      auto entry = std::make_reverse_iterator(model_.equal_range(high).second);
      for (; entry != model_.rend() && !Order()(entry->first, low); ++entry) {
        backward.push_back(entry->second);
      }
      if (backward.empty()) backward.push_back(end);  // the end node itself is always the first
    }
    EXPECT_EQ(WalkBackward(__KyGetRedBlackRangeEnd(tree_, high), low), backward)
        << "walk back " << high << " to " << low;
  }

  void dropHandle(KyRedBlackNode* node) {
    for (size_t index = 0; index < handles_.size(); ++index) {
      if (handles_[index]->second != node) continue;
      handles_[index] = handles_.back();
      handles_.pop_back();
      return;
    }
  }

  KyRedBlackTree* tree_;
  Model model_;
  std::vector<Entry> handles_;  // every entry of the model, for random removal
  std::mt19937 random_;
  uint64_t keySpace_;
  uint64_t nextItem_ = 1;
};

class RedBlackTreeDifferential : public kyrt_test::RuntimeTest,
                                 public ::testing::WithParamInterface<Scenario> {};

TEST_P(RedBlackTreeDifferential, DefaultOrderMatchesMultimap) {
  Differential<std::less<uint64_t>> run(nullptr, GetParam().seed, GetParam().keySpace);
  run.run(GetParam());
}

TEST_P(RedBlackTreeDifferential, ToolOrderMatchesMultimap) {
  Differential<std::greater<uint64_t>> run(kyrt_test::CompareDescending, GetParam().seed,
                                           GetParam().keySpace);
  run.run(GetParam());
}

// Grows a tree, then destroys random ranges until it is small, checking
// each destroyed range and the tree after it.
TEST_P(RedBlackTreeDifferential, DestroyRangeMatchesMultimap) {
  Differential<std::less<uint64_t>> run(nullptr, GetParam().seed, GetParam().keySpace);
  for (int change = 0; change < GetParam().changes / 2; ++change) run.insert();
  for (int round = 0; round < kMostDestroyRounds && run.size() > kSmallTree; ++round) {
    run.destroyRange();
    run.expectConsistent();
    run.expectSameAnswers();
    if (HasFatalFailure()) return;
  }
  EXPECT_LE(run.size(), kSmallTree);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RedBlackTreeDifferential,
                         ::testing::Values(Scenario{1, 8, 3000, 60}, Scenario{2, 64, 3000, 60},
                                           Scenario{3, 1000000, 3000, 60},
                                           Scenario{4, 16, 4000, 52}, Scenario{5, 4096, 4000, 75},
                                           Scenario{6, 2, 2000, 55}),
                         ScenarioName);

}  // namespace
