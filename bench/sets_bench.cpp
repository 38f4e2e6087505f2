// Sets against std::set<uint32_t> and a plain bitmap over the same values.
//
//   set_union_<shape>      result = a, then result |= b
//   set_intersect_<shape>  result = a & b
//   set_member_<shape>     one membership test of a fixed random probe
//
// Shapes:
//   dense   each value of [0, 4096) present with probability 1/2: every
//           64-value block of the range holds about 32 elements
//   sparse  1024 values drawn from [0, 2^20): almost every element has a
//           block of its own, which the set walks as a list
//
// The bitmap covers exactly the shape's range, one bit per value, and is the
// lower bound for dense data; std::set is the general-purpose ordered set.
// Every role works on the same values and keeps its result alive between
// iterations, so steady-state runs reuse what they allocated where the
// container allows it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/sets.h"

namespace {

using kyrt::bench::Below;

// Whole-set operations work a block (64 values) at a time and must beat the
// node-per-value tree. Membership walks the block list from its start, so
// it is shown for information: on sparse data that walk is the price of the
// layout.
const kyrt::bench::TargetTable kTargets{
    {"set_union_dense", "std_set", Below(1.00)},
    {"set_intersect_dense", "std_set", Below(1.00)},
    {"set_intersect_sparse", "std_set", Below(1.00)},
};

constexpr uint32_t kBitsPerWord = 64;
constexpr size_t kProbes = 4096;  // a power of two: probes are taken in a ring

struct Shape {
  uint32_t range;     // values are below this
  uint32_t elements;  // how many draws make a set (0: take each value with probability 1/2)
};

constexpr Shape kDense{4096, 0};
constexpr Shape kSparse{uint32_t{1} << 20, 1024};

std::vector<uint32_t> DrawValues(const Shape& shape, uint32_t seed) {
  std::mt19937 random(seed);
  std::set<uint32_t> values;
  if (shape.elements == 0) {
    for (uint32_t value = 0; value < shape.range; ++value) {
      if (random() % 2) values.insert(value);
    }
  } else {
    while (values.size() < shape.elements) values.insert(random() % shape.range);
  }
  return std::vector<uint32_t>(values.begin(), values.end());
}

std::vector<uint32_t> DrawProbes(const Shape& shape) {
  std::mt19937 random(99);
  std::vector<uint32_t> probes(kProbes);
  for (uint32_t& probe : probes) probe = random() % shape.range;
  return probes;
}

// The two operands of every benchmark of a shape.
struct Operands {
  std::vector<uint32_t> a;
  std::vector<uint32_t> b;
  std::vector<uint32_t> probes;
};

Operands MakeOperands(const Shape& shape) {
  return Operands{DrawValues(shape, 1), DrawValues(shape, 2), DrawProbes(shape)};
}

// ---------------------------------------------------------------------------
// Adapters: the same calls for every container

struct Ours {
  // A set header with its blocks, freed at the end of the run.
  class Container {
   public:
    explicit Container(const Shape&) : header_(KySet KY_SET_HEADER_INITIALIZER(0)) {}
    ~Container() { __KyDestroySet(&header_); }
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;
    KySet* get() { return &header_; }

   private:
    KySet header_;
  };

  static void Fill(Container& set, const std::vector<uint32_t>& values) {
    for (uint32_t value : values) __KyAddAnElementToSet(set.get(), value);
  }
  static void Union(Container& result, Container& a, Container& b) {
    __KyConstructSet(result.get(), a.get());
    __KyUnionSet(result.get(), b.get());
  }
  static void Intersect(Container& result, Container& a, Container& b) {
    __KyIntersectSet(result.get(), a.get(), b.get());
  }
  static bool Contains(Container& set, uint32_t value) {
    return __KyIsAnElementOfSet(set.get(), value) != 0;
  }
};

struct StdSet {
  struct Container {
    explicit Container(const Shape&) {}
    std::set<uint32_t> values;
  };

  static void Fill(Container& set, const std::vector<uint32_t>& values) {
    set.values.insert(values.begin(), values.end());
  }
  static void Union(Container& result, Container& a, Container& b) {
    result.values = a.values;
    result.values.insert(b.values.begin(), b.values.end());
  }
  static void Intersect(Container& result, Container& a, Container& b) {
    result.values.clear();
    std::set_intersection(a.values.begin(), a.values.end(), b.values.begin(), b.values.end(),
                          std::inserter(result.values, result.values.end()));
  }
  static bool Contains(Container& set, uint32_t value) { return set.values.count(value) != 0; }
};

struct Bitmap {
  struct Container {
    explicit Container(const Shape& shape) : words(shape.range / kBitsPerWord) {}
    std::vector<uint64_t> words;
  };

  static void Fill(Container& set, const std::vector<uint32_t>& values) {
    for (uint32_t value : values)
      set.words[value / kBitsPerWord] |= uint64_t{1} << (value % kBitsPerWord);
  }
  static void Union(Container& result, Container& a, Container& b) {
    std::copy(a.words.begin(), a.words.end(), result.words.begin());
    for (size_t i = 0; i < result.words.size(); ++i) result.words[i] |= b.words[i];
  }
  static void Intersect(Container& result, Container& a, Container& b) {
    for (size_t i = 0; i < result.words.size(); ++i) result.words[i] = a.words[i] & b.words[i];
  }
  static bool Contains(Container& set, uint32_t value) {
    return (set.words[value / kBitsPerWord] >> (value % kBitsPerWord)) & 1;
  }
};

// ---------------------------------------------------------------------------
// Benchmarks

template <typename Adapter>
struct Workload {
  explicit Workload(const Shape& shape)
      : operands(MakeOperands(shape)), a(shape), b(shape), result(shape) {
    Adapter::Fill(a, operands.a);
    Adapter::Fill(b, operands.b);
  }
  Operands operands;
  typename Adapter::Container a;
  typename Adapter::Container b;
  typename Adapter::Container result;
};

template <typename Adapter>
void UnionOf(benchmark::State& state, const Shape& shape) {
  Workload<Adapter> work(shape);
  for (auto _ : state) {
    Adapter::Union(work.result, work.a, work.b);
    benchmark::ClobberMemory();
  }
}

template <typename Adapter>
void IntersectionOf(benchmark::State& state, const Shape& shape) {
  Workload<Adapter> work(shape);
  for (auto _ : state) {
    Adapter::Intersect(work.result, work.a, work.b);
    benchmark::ClobberMemory();
  }
}

template <typename Adapter>
void MembershipIn(benchmark::State& state, const Shape& shape) {
  Workload<Adapter> work(shape);
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Adapter::Contains(work.a, work.operands.probes[next]));
    next = (next + 1) & (kProbes - 1);
  }
}

// Registers every operation on every shape for the three roles, family by
// family, so that the ratio table lists each family's roles together.
using Runner = void (*)(benchmark::State&, const Shape&);

struct Operation {
  const char* family;
  Runner ours;
  Runner stdSet;
  Runner bitmap;
};

int RegisterAll() {
  const Operation operations[] = {
      {"set_union_", UnionOf<Ours>, UnionOf<StdSet>, UnionOf<Bitmap>},
      {"set_intersect_", IntersectionOf<Ours>, IntersectionOf<StdSet>, IntersectionOf<Bitmap>},
      {"set_member_", MembershipIn<Ours>, MembershipIn<StdSet>, MembershipIn<Bitmap>},
  };
  const std::pair<const char*, Shape> shapes[] = {{"dense", kDense}, {"sparse", kSparse}};
  for (const auto& [shapeName, shape] : shapes) {
    for (const Operation& operation : operations) {
      const std::string family = std::string(operation.family) + shapeName;
      benchmark::RegisterBenchmark((family + "/ours").c_str(), operation.ours, shape);
      benchmark::RegisterBenchmark((family + "/std_set").c_str(), operation.stdSet, shape);
      benchmark::RegisterBenchmark((family + "/bitmap").c_str(), operation.bitmap, shape);
    }
  }
  return 0;
}

[[maybe_unused]] const int kRegistered = RegisterAll();

}  // namespace
