// The locking hash table against std::unordered_map under std::shared_mutex
// and tbb::concurrent_hash_map, with one million keys.
//
//   hash_lookup_1m_1t   a lookup of a present key in a table of 2^20 random
//                       keys, by one thread
//   hash_lookup_1m_2t   the same by two threads at once, each with its own
//                       probe order (throughput: wall time per lookup)
//   hash_insert_1m_1t   one iteration builds a table of 2^20 random keys from
//                       empty (the destruction is not timed)
//   hash_insert_1m_2t   the same build by two threads, each inserting half
//                       of the keys into the one table
//
// Roles: "ours" is a locking table of one level with the default hash
// function (flags 0: table, bucket and entry locks all live; a lookup takes
// the table and the bucket shared); "ours_2level" spreads the keys over 256
// locking sub-tables by a level-1 function of its own (the default one, the
// key shifted by the bucket bits, would share bits with the sub-tables' own
// buckets once they grow past 256 buckets), so that two threads rarely meet
// on a table lock; "std_shared_mutex" guards a std::unordered_map with one
// std::shared_mutex (shared for lookups, exclusive for inserts); "tbb" is
// tbb::concurrent_hash_map, looked up through a const accessor as its
// documentation recommends for readers. Keys and probe orders come from
// fixed seeds.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <tbb/concurrent_hash_map.h>

#include "bench_ratio.h"
#include "kyrt/hash_table.h"
#include "kyrt/memory.h"

namespace {

using kyrt::bench::AtMost;

const kyrt::bench::TargetTable kTargets{
    {"hash_lookup_1m_1t", "std_shared_mutex", AtMost(1.00)},
    {"hash_lookup_1m_2t", "std_shared_mutex", AtMost(1.00)},
};

constexpr size_t kKeyCount = size_t{1} << 20;
constexpr uint32_t kSeed = 20240611;

// Distinct random keys; a key's data item is the key plus one, as a pointer.
const std::vector<uint64_t>& Keys() {
  static const std::vector<uint64_t> keys = [] {
    std::mt19937_64 random(kSeed);
    std::unordered_map<uint64_t, bool> seen;
    std::vector<uint64_t> drawn;
    drawn.reserve(kKeyCount);
    while (drawn.size() < kKeyCount) {
      const uint64_t key = random();
      if (seen.emplace(key, true).second) drawn.push_back(key);
    }
    return drawn;
  }();
  return keys;
}

void* ItemFor(uint64_t key) {
  return reinterpret_cast<void*>(key + 1);
}

// One probe order per thread: the keys shuffled with the thread's seed.
const std::vector<uint64_t>& Probes(int thread) {
  static const std::vector<uint64_t> orders[2] = {
      [] {
        std::vector<uint64_t> keys = Keys();
        std::shuffle(keys.begin(), keys.end(), std::mt19937_64(kSeed + 1));
        return keys;
      }(),
      [] {
        std::vector<uint64_t> keys = Keys();
        std::shuffle(keys.begin(), keys.end(), std::mt19937_64(kSeed + 2));
        return keys;
      }(),
  };
  return orders[thread];
}

// ---------------------------------------------------------------------------
// Adapters: the same four calls for every role

// The top byte of the key, after a multiplicative mix: a level-1 function
// that does not share bits with the bottom tables' own buckets.
uint64_t MixedTopByte(KyHashTable*, uint64_t key) {
  return (key * 0x9E3779B97F4A7C15ull) >> 56;
}

template <int32_t kLevels>
struct Ours {
  using Map = KyHashTable;
  static Map* Create() {
    static const KyHashFunction functions[2] = {nullptr, MixedTopByte};
    return __KyCreateHashTable(0, functions, kLevels, nullptr, nullptr, KY_MEMORY_CATEGORY_MISC, 0);
  }
  static void Destroy(Map* table) { __KyDestroyHashTable(table, nullptr); }
  static void Insert(Map* table, uint64_t key) {
    __KyInsertHashTableEntry(table, key, ItemFor(key));
  }
  static void* Find(Map* table, uint64_t key) { return __KyLookupHashTable(table, key); }
};

struct SharedMutexMap {
  std::shared_mutex mutex;
  std::unordered_map<uint64_t, void*> map;
};

struct StdSharedMutex {
  using Map = SharedMutexMap;
  static Map* Create() { return new Map; }
  static void Destroy(Map* map) { delete map; }
  static void Insert(Map* map, uint64_t key) {
    std::unique_lock<std::shared_mutex> lock(map->mutex);
    map->map.emplace(key, ItemFor(key));
  }
  static void* Find(Map* map, uint64_t key) {
    std::shared_lock<std::shared_mutex> lock(map->mutex);
    const auto found = map->map.find(key);
    return found == map->map.end() ? nullptr : found->second;
  }
};

struct Tbb {
  using Map = tbb::concurrent_hash_map<uint64_t, void*>;
  static Map* Create() { return new Map; }
  static void Destroy(Map* map) { delete map; }
  static void Insert(Map* map, uint64_t key) { map->insert(Map::value_type(key, ItemFor(key))); }
  static void* Find(Map* map, uint64_t key) {
    Map::const_accessor accessor;
    return map->find(accessor, key) ? accessor->second : nullptr;
  }
};

// ---------------------------------------------------------------------------
// Benchmarks

template <typename Role>
void InsertRange(typename Role::Map* map, size_t begin, size_t end) {
  const std::vector<uint64_t>& keys = Keys();
  for (size_t i = begin; i < end; ++i) Role::Insert(map, keys[i]);
}

// The lookup table of a role, built once, before the first timed lookup.
template <typename Role>
typename Role::Map* FilledMap() {
  static typename Role::Map* map = [] {
    typename Role::Map* filled = Role::Create();
    InsertRange<Role>(filled, 0, kKeyCount);
    return filled;
  }();
  return map;
}

template <typename Role>
void Lookup(benchmark::State& state) {
  typename Role::Map* map = FilledMap<Role>();
  const std::vector<uint64_t>& probes = Probes(state.thread_index() % 2);
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Role::Find(map, probes[next]));
    next = (next + 1) & (kKeyCount - 1);
  }
}

template <typename Role>
void Build(benchmark::State& state, int threads) {
  for (auto _ : state) {
    typename Role::Map* map = Role::Create();
    if (threads == 1) {
      InsertRange<Role>(map, 0, kKeyCount);
    } else {
      std::thread helper([map] { InsertRange<Role>(map, 0, kKeyCount / 2); });
      InsertRange<Role>(map, kKeyCount / 2, kKeyCount);
      helper.join();
    }
    state.PauseTiming();
    Role::Destroy(map);
    state.ResumeTiming();
  }
}

template <typename Role>
void RegisterRole(const char* role) {
  const std::string name = role;
  benchmark::RegisterBenchmark(("hash_lookup_1m_1t/" + name).c_str(), Lookup<Role>)
      ->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark(("hash_lookup_1m_2t/" + name).c_str(), Lookup<Role>)
      ->Threads(2)
      ->UseRealTime()
      ->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark(("hash_insert_1m_1t/" + name).c_str(), Build<Role>, 1)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(("hash_insert_1m_2t/" + name).c_str(), Build<Role>, 2)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

const bool kRegistered = [] {
  RegisterRole<Ours<1>>("ours");
  RegisterRole<Ours<2>>("ours_2level");
  RegisterRole<StdSharedMutex>("std_shared_mutex");
  RegisterRole<Tbb>("tbb");
  return true;
}();

}  // namespace
