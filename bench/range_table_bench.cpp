// The range table against std::map<start, (end, data)> searched with
// upper_bound, with 100,000 ranges.
//
//   range_lookup_100k_inside  the range holding an address drawn inside a
//                             random stored range
//   range_lookup_100k_any     the same for an address drawn anywhere in the
//                             region the ranges cover, gaps included (about
//                             three addresses in a hundred fall in a gap)
//
// The ranges look like a heap's blocks: 16-byte aligned starts, sizes of 16
// bytes to 64 KiB (most of them small), gaps of 0 to 256 bytes, so that
// small neighbours often share a 32-byte block. The table's largest block is
// 4 KiB, a page; the families ending in "_1mib_blocks" repeat both
// lookups with a largest block of 1 MiB, where a lookup of a small range
// probes twice as many levels. Ranges, addresses and the insertion order
// come from fixed seeds.
//
// Roles: "ours" is __KyLookupRangeTable with both bounds asked for;
// "std_map" finds the last range starting at or below the address and
// checks that it reaches the address.
#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/memory.h"
#include "kyrt/range_table.h"

namespace {

using kyrt::bench::Below;

const kyrt::bench::TargetTable kTargets{
    {"range_lookup_100k_inside", "std_map", Below(1.00)},
    {"range_lookup_100k_any", "std_map", Below(1.00)},
};

constexpr size_t kRangeCount = 100000;
constexpr size_t kProbeCount = size_t{1} << 20;
constexpr uint64_t kRegionBase = 0x7F0000000000ull;
constexpr uint64_t kPageBlocks = uint64_t{1} << 12;
constexpr uint64_t kMebibyteBlocks = uint64_t{1} << 20;
constexpr uint32_t kSeed = 20240612;

struct Range {
  uint64_t start;
  uint64_t end;
};

uint64_t HeapLikeSize(std::mt19937_64& random) {
  const unsigned kind = random() % 100;
  if (kind < 55) return 16 + random() % 240;
  if (kind < 90) return 256 + random() % 3840;
  return 4096 + random() % (60 << 10);
}

const std::vector<Range>& Ranges() {
  static const std::vector<Range> ranges = [] {
    std::mt19937_64 random(kSeed);
    std::vector<Range> made;
    uint64_t position = kRegionBase;
    for (size_t i = 0; i < kRangeCount; ++i) {
      const uint64_t start = (position + random() % 257 + 15) & ~uint64_t{15};
      const uint64_t end = start + HeapLikeSize(random);
      made.push_back(Range{start, end});
      position = end;
    }
    return made;
  }();
  return ranges;
}

uint64_t RegionEnd() {
  return Ranges().back().end;
}

// Addresses inside random ranges, or anywhere in the region.
std::vector<uint64_t> MakeProbes(bool inside) {
  std::mt19937_64 random(kSeed + (inside ? 1 : 2));
  const std::vector<Range>& ranges = Ranges();
  std::vector<uint64_t> probes(kProbeCount);
  for (uint64_t& probe : probes) {
    if (inside) {
      const Range& range = ranges[random() % ranges.size()];
      probe = range.start + random() % (range.end - range.start);
    } else {
      probe = kRegionBase + random() % (RegionEnd() - kRegionBase);
    }
  }
  return probes;
}

const std::vector<uint64_t>& Probes(bool inside) {
  static const std::vector<uint64_t> probesInside = MakeProbes(true);
  static const std::vector<uint64_t> probesAnywhere = MakeProbes(false);
  return inside ? probesInside : probesAnywhere;
}

// The ranges in a random insertion order; a range's data is its index + 1.
std::vector<size_t> InsertionOrder() {
  std::vector<size_t> order(kRangeCount);
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937_64(kSeed + 3));
  return order;
}

// ---------------------------------------------------------------------------
// Adapters

template <uint64_t kMaximumBlock>
struct Ours {
  using Map = KyRangeTable;
  static Map* Build() {
    Map* table = __KyCreateRangeTable(kMaximumBlock, KY_MEMORY_CATEGORY_MISC, 0, 0, nullptr);
    for (size_t i : InsertionOrder()) {
      __KyInsertRangeTableEntry(table, Ranges()[i].start, Ranges()[i].end, i + 1);
    }
    return table;
  }
  static uint64_t Find(Map* table, uint64_t address) {
    uint64_t start, end;
    return __KyLookupRangeTable(table, address, &start, &end);
  }
};

struct StdMap {
  using Map = std::map<uint64_t, std::pair<uint64_t, uint64_t>>;  // start -> (end, data)
  static Map* Build() {
    auto* map = new Map;
    for (size_t i : InsertionOrder())
      map->emplace(Ranges()[i].start, std::make_pair(Ranges()[i].end, i + 1));
    return map;
  }
  static uint64_t Find(Map* map, uint64_t address) {
    auto found = map->upper_bound(address);
    if (found == map->begin()) return 0;
    --found;
    return address < found->second.first ? found->second.second : 0;
  }
};

template <typename Role>
typename Role::Map* BuiltMap() {
  static typename Role::Map* map = Role::Build();
  return map;
}

template <typename Role>
void Lookup(benchmark::State& state, bool inside) {
  typename Role::Map* map = BuiltMap<Role>();
  const std::vector<uint64_t>& probes = Probes(inside);
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Role::Find(map, probes[next]));
    next = (next + 1) & (kProbeCount - 1);
  }
}

void Register(const std::string& family, void (*ours)(benchmark::State&, bool), bool inside) {
  benchmark::RegisterBenchmark((family + "/ours").c_str(), ours, inside)
      ->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark((family + "/std_map").c_str(), Lookup<StdMap>, inside)
      ->Unit(benchmark::kNanosecond);
}

const bool kRegistered = [] {
  Register("range_lookup_100k_inside", Lookup<Ours<kPageBlocks>>, true);
  Register("range_lookup_100k_any", Lookup<Ours<kPageBlocks>>, false);
  Register("range_lookup_100k_inside_1mib_blocks", Lookup<Ours<kMebibyteBlocks>>, true);
  Register("range_lookup_100k_any_1mib_blocks", Lookup<Ours<kMebibyteBlocks>>, false);
  return true;
}();

}  // namespace
