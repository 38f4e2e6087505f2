// The threaded red-black tree against std::multimap<uint64_t, uint64_t>.
//
//   rbtree_build_64k   insert 65536 random keys into an empty tree, then
//                      destroy it (one iteration is the whole build)
//   rbtree_churn_64k   in a tree of 65536 random keys, remove the oldest
//                      node and insert a new key (insert and remove in a
//                      steady state, where the allocator neither takes
//                      nor gives back memory)
//   rbtree_lookup_64k  the first node of a key in a tree of 65536 random
//                      keys; half the probes are absent
//   rbtree_walk_64     a range of 64 consecutive keys, from its start node
//                      to its last, in a tree of 65536 keys
//
// Roles: "ours" is the tree with its default key order (compared inline),
// "std_multimap" the peer with its default std::less. The families whose
// names end in "_tool_order" give both sides an order reached through a
// function pointer, as for a tool with an order of its own: the tree then
// calls it once per question (equality, then side, on the way down a
// lookup), the multimap once per node. Keys come from a fixed seed.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/memory.h"
#include "kyrt/red_black_tree.h"

namespace {

using kyrt::bench::AtMost;

const kyrt::bench::TargetTable kTargets{
    {"rbtree_build_64k", "std_multimap", AtMost(1.20)},
    {"rbtree_churn_64k", "std_multimap", AtMost(1.20)},
    {"rbtree_lookup_64k", "std_multimap", AtMost(1.20)},
    {"rbtree_walk_64", "std_multimap", AtMost(1.20)},
};

constexpr size_t kTreeSize = 65536;
constexpr uint64_t kWalkSpan = 63;  // keys low .. low + 63
constexpr uint32_t kSeed = 20240607;

// A build takes tens of milliseconds: at the suite's default minimum time a
// repetition would time two or three of them.
constexpr double kBuildMinTimeSeconds = 0.5;

int32_t CompareAsUnsigned(uint64_t a, uint64_t b) {
  if (a < b) return -1;
  return a > b ? 1 : 0;
}

// Even keys, so that key + 1 is never present.
const std::vector<uint64_t>& RandomKeys() {
  static const std::vector<uint64_t> keys = [] {
    std::mt19937_64 random(kSeed);
    std::vector<uint64_t> drawn(kTreeSize);
    for (uint64_t& key : drawn) key = (random() >> 1) & ~uint64_t{1};
    return drawn;
  }();
  return keys;
}

// Probes in random order: a present key, then an absent one, alternately.
const std::vector<uint64_t>& Probes() {
  static const std::vector<uint64_t> probes = [] {
    std::vector<uint64_t> keys = RandomKeys();
    std::shuffle(keys.begin(), keys.end(), std::mt19937_64(kSeed + 1));
    for (size_t index = 1; index < keys.size(); index += 2) keys[index] += 1;
    return keys;
  }();
  return probes;
}

// Dense keys 0 .. kTreeSize - 1 in random order, for the walks.
const std::vector<uint64_t>& DenseKeys() {
  static const std::vector<uint64_t> keys = [] {
    std::vector<uint64_t> dense(kTreeSize);
    for (size_t index = 0; index < dense.size(); ++index) dense[index] = index;
    std::shuffle(dense.begin(), dense.end(), std::mt19937_64(kSeed + 2));
    return dense;
  }();
  return keys;
}

// ---------------------------------------------------------------------------
// Adapters: the same calls for every role

template <KyRedBlackCompareFunction kCompare>
struct Ours {
  using Map = KyRedBlackTree*;
  using Handle = KyRedBlackNode*;

  static Map Create() {
    return __KyCreateRedBlackTree(KY_MEMORY_CATEGORY_MISC, kCompare, nullptr, nullptr);
  }
  static void Destroy(Map& tree) { __KyDestroyRedBlackTree(tree); }
  static Handle Insert(Map& tree, uint64_t key) { return __KyInsertRedBlackEntry(tree, key, key); }
  static void Remove(Map&, Handle node) { __KyRemoveRedBlackEntry(node); }

  // The item of the first node holding key, or 0.
  static uint64_t Find(Map& tree, uint64_t key) {
    KyRedBlackNode* node = __KyGetRedBlackRangeStart(tree, key, key + 1);
    return node ? node->item : 0;
  }

  // The sum of the items from the range start to high.
  static uint64_t Walk(Map& tree, uint64_t low, uint64_t high) {
    uint64_t sum = 0;
    for (KyRedBlackNode* node = __KyGetRedBlackRangeStart(tree, low, high + 1); node != nullptr;
         node = __KyGetRedBlackRangeNext(node, high)) {
      sum += node->item;
    }
    return sum;
  }
};

// The multimap, ordered by Less.
template <typename Less>
struct StdMultimapOf {
  using Map = std::multimap<uint64_t, uint64_t, Less>*;
  using Handle = typename std::multimap<uint64_t, uint64_t, Less>::iterator;

  static Map Create() { return new std::multimap<uint64_t, uint64_t, Less>; }
  static void Destroy(Map& map) { delete map; }
  static Handle Insert(Map& map, uint64_t key) { return map->emplace(key, key); }
  static void Remove(Map& map, Handle entry) { map->erase(entry); }

  static uint64_t Find(Map& map, uint64_t key) {
    auto found = map->lower_bound(key);
    return found != map->end() && !Less()(key, found->first) ? found->second : 0;
  }

  static uint64_t Walk(Map& map, uint64_t low, uint64_t high) {
    uint64_t sum = 0;
    for (auto entry = map->lower_bound(low); entry != map->end() && !Less()(high, entry->first);
         ++entry) {
      sum += entry->second;
    }
    return sum;
  }
};

// An order through a function pointer, which the optimiser cannot see
// through (it is read from a volatile).
KyRedBlackCompareFunction volatile g_toolOrder = CompareAsUnsigned;

struct ThroughPointer {
  bool operator()(uint64_t a, uint64_t b) const { return g_toolOrder(a, b) < 0; }
};

using StdMultimap = StdMultimapOf<std::less<uint64_t>>;
using StdMultimapToolOrder = StdMultimapOf<ThroughPointer>;

template <typename Adapter>
typename Adapter::Map Filled(const std::vector<uint64_t>& keys) {
  typename Adapter::Map map = Adapter::Create();
  for (uint64_t key : keys) Adapter::Insert(map, key);
  return map;
}

// ---------------------------------------------------------------------------
// Benchmarks

template <typename Adapter>
void Build(benchmark::State& state) {
  const std::vector<uint64_t>& keys = RandomKeys();
  for (auto _ : state) {
    typename Adapter::Map map = Filled<Adapter>(keys);
    benchmark::DoNotOptimize(map);
    Adapter::Destroy(map);
  }
  state.counters["ns_per_insert"] =
      benchmark::Counter(static_cast<double>(state.iterations() * keys.size()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The tree keeps its size: each iteration removes the oldest node and
// inserts a key not seen for a while, so the memory in use neither grows
// nor shrinks.
template <typename Adapter>
void Churn(benchmark::State& state) {
  const std::vector<uint64_t>& keys = RandomKeys();
  const std::vector<uint64_t>& newKeys = Probes();
  typename Adapter::Map map = Adapter::Create();
  std::vector<typename Adapter::Handle> oldestFirst;
  for (uint64_t key : keys) oldestFirst.push_back(Adapter::Insert(map, key));
  size_t next = 0;
  for (auto _ : state) {
    Adapter::Remove(map, oldestFirst[next]);
    oldestFirst[next] = Adapter::Insert(map, newKeys[next]);
    next = (next + 1) % oldestFirst.size();
  }
  Adapter::Destroy(map);
}

template <typename Adapter>
void Lookup(benchmark::State& state) {
  typename Adapter::Map map = Filled<Adapter>(RandomKeys());
  const std::vector<uint64_t>& probes = Probes();
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Adapter::Find(map, probes[next]));
    next = (next + 1) % probes.size();
  }
  Adapter::Destroy(map);
}

template <typename Adapter>
void Walk(benchmark::State& state) {
  typename Adapter::Map map = Filled<Adapter>(DenseKeys());
  const std::vector<uint64_t>& lows = Probes();  // any random sequence will do
  size_t next = 0;
  for (auto _ : state) {
    const uint64_t low = lows[next] % (kTreeSize - kWalkSpan);
    benchmark::DoNotOptimize(Adapter::Walk(map, low, low + kWalkSpan));
    next = (next + 1) % lows.size();
  }
  Adapter::Destroy(map);
}

using Default = Ours<nullptr>;
using ToolOrder = Ours<CompareAsUnsigned>;

BENCHMARK_TEMPLATE(Build, Default)
    ->Name("rbtree_build_64k/ours")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(kBuildMinTimeSeconds);
BENCHMARK_TEMPLATE(Build, StdMultimap)
    ->Name("rbtree_build_64k/std_multimap")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(kBuildMinTimeSeconds);
BENCHMARK_TEMPLATE(Build, ToolOrder)
    ->Name("rbtree_build_64k_tool_order/ours")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(kBuildMinTimeSeconds);
BENCHMARK_TEMPLATE(Build, StdMultimapToolOrder)
    ->Name("rbtree_build_64k_tool_order/std_multimap")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(kBuildMinTimeSeconds);

BENCHMARK_TEMPLATE(Churn, Default)->Name("rbtree_churn_64k/ours");
BENCHMARK_TEMPLATE(Churn, StdMultimap)->Name("rbtree_churn_64k/std_multimap");
BENCHMARK_TEMPLATE(Churn, ToolOrder)->Name("rbtree_churn_64k_tool_order/ours");
BENCHMARK_TEMPLATE(Churn, StdMultimapToolOrder)->Name("rbtree_churn_64k_tool_order/std_multimap");

BENCHMARK_TEMPLATE(Lookup, Default)->Name("rbtree_lookup_64k/ours");
BENCHMARK_TEMPLATE(Lookup, StdMultimap)->Name("rbtree_lookup_64k/std_multimap");
BENCHMARK_TEMPLATE(Lookup, ToolOrder)->Name("rbtree_lookup_64k_tool_order/ours");
BENCHMARK_TEMPLATE(Lookup, StdMultimapToolOrder)->Name("rbtree_lookup_64k_tool_order/std_multimap");

BENCHMARK_TEMPLATE(Walk, Default)->Name("rbtree_walk_64/ours");
BENCHMARK_TEMPLATE(Walk, StdMultimap)->Name("rbtree_walk_64/std_multimap");
BENCHMARK_TEMPLATE(Walk, ToolOrder)->Name("rbtree_walk_64_tool_order/ours");
BENCHMARK_TEMPLATE(Walk, StdMultimapToolOrder)->Name("rbtree_walk_64_tool_order/std_multimap");

}  // namespace
