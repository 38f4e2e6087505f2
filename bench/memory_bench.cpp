// The accounted allocator against the allocators a tool author would
// otherwise use: the C library's malloc, jemalloc and mimalloc.
//
//   small_pair_<n>     allocate and free one block of n bytes, one thread
//   batch_10k          allocate 10,000 blocks of 64 bytes, then free them all
//   large_pair         allocate and free one block of 256 KiB
//   scaling_2t         two threads each allocating and freeing 64-byte pairs,
//                      against one thread doing the same (real time per
//                      operation: equal times mean twice the throughput)
//   resident_1m_32b    resident memory for one million 32-byte blocks; for
//                      this family the "ns" columns are bytes resident
//
// jemalloc and mimalloc are reached through their own entry points
// (mallocx/dallocx, mi_malloc/mi_free), and the C library's allocator through
// the malloc and free that the C library itself defines, looked up in it by
// name: linking the other two into this one program lets one of them take
// over plain malloc (and even __libc_malloc), and each peer must measure
// what it claims to. The runtime's own underlying allocator is set to the C
// library's, as in a tool.
#include <dlfcn.h>
#include <jemalloc/jemalloc.h>
#include <mimalloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/memory.h"

namespace {

using kyrt::bench::AtMost;
using kyrt::bench::Below;

constexpr int kBatchBlocks = 10000;
constexpr size_t kBatchBlockSize = 64;
constexpr size_t kLargeBlockSize = 256 * 1024;
constexpr size_t kResidentBlocks = 1000000;
constexpr size_t kResidentBlockSize = 32;
constexpr uint32_t kFirstThreadCategory = 1;

// Two threads should give at least 1.8 times the throughput of one: the
// time per operation of each may grow by at most 2 / 1.8.
constexpr double kScalingBound = 2.0 / 1.8;

const kyrt::bench::TargetTable kTargets{
    {"small_pair_16", "glibc", AtMost(1.5)},  {"small_pair_64", "glibc", AtMost(1.5)},
    {"small_pair_256", "glibc", AtMost(1.5)}, {"small_pair_1024", "glibc", AtMost(1.5)},
    {"batch_10k", "glibc", Below(1.0)},       {"scaling_2t", "one_thread", AtMost(kScalingBound)},
};

uint32_t g_categories[2];

using MallocFunction = void* (*)(size_t);
using FreeFunction = void (*)(void*);

// The C library's own allocator, whatever else defines malloc in this
// process.
struct CLibraryAllocator {
  MallocFunction allocate;
  FreeFunction release;
};

CLibraryAllocator FindCLibraryAllocator() {
  void* library = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
  if (library == nullptr) std::abort();
  CLibraryAllocator found{reinterpret_cast<MallocFunction>(dlsym(library, "malloc")),
                          reinterpret_cast<FreeFunction>(dlsym(library, "free"))};
  if (found.allocate == nullptr || found.release == nullptr) std::abort();
  return found;
}

const CLibraryAllocator kCLibrary = FindCLibraryAllocator();

// The underlying allocator and the categories, set before any benchmark.
const bool kAllocatorReady = [] {
  __KyInitializeSubAllocator(kCLibrary.allocate, kCLibrary.release);
  g_categories[0] = __KyRegisterMemoryCategory("bench_thread_0");
  g_categories[1] = __KyRegisterMemoryCategory("bench_thread_1");
  return true;
}();

struct Ours {
  static void* Allocate(size_t size, uint32_t category = kFirstThreadCategory) {
    return __KyMalloc(category, size, 0);
  }
  static void Release(void* block) { __KyFree(block); }
};

struct Glibc {
  static void* Allocate(size_t size, uint32_t = 0) { return kCLibrary.allocate(size); }
  static void Release(void* block) { kCLibrary.release(block); }
};

struct Jemalloc {
  static void* Allocate(size_t size, uint32_t = 0) { return mallocx(size, 0); }
  static void Release(void* block) { dallocx(block, 0); }
};

struct Mimalloc {
  static void* Allocate(size_t size, uint32_t = 0) { return mi_malloc(size); }
  static void Release(void* block) { mi_free(block); }
};

template <typename Allocator>
void SmallPair(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* block = Allocator::Allocate(size);
    benchmark::DoNotOptimize(block);
    Allocator::Release(block);
  }
}

template <typename Allocator>
void Batch(benchmark::State& state) {
  std::vector<void*> blocks(kBatchBlocks);
  for (auto _ : state) {
    for (void*& block : blocks) block = Allocator::Allocate(kBatchBlockSize);
    benchmark::DoNotOptimize(blocks.data());
    for (void* block : blocks) Allocator::Release(block);
  }
  state.SetItemsProcessed(state.iterations() * kBatchBlocks);
}

template <typename Allocator>
void LargePair(benchmark::State& state) {
  for (auto _ : state) {
    void* block = Allocator::Allocate(kLargeBlockSize);
    benchmark::DoNotOptimize(block);
    Allocator::Release(block);
  }
}

// Pairs of 64-byte blocks; with distinctCategories each thread has a
// category of its own (different bins, no shared lock), else both share one.
template <bool distinctCategories>
void ScalingPairs(benchmark::State& state) {
  const uint32_t category =
      distinctCategories ? g_categories[state.thread_index() % 2] : g_categories[0];
  for (auto _ : state) {
    void* block = Ours::Allocate(kBatchBlockSize, category);
    benchmark::DoNotOptimize(block);
    Ours::Release(block);
  }
}

size_t ResidentBytes() {
  long pages = 0;
  long resident = 0;
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return 0;
  if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(statm);
  return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// The resident growth of one million live 32-byte blocks (each written, so
// that its page is really there), measured in a child process of its own so
// that no memory freed by earlier benchmarks is reused.
template <typename Allocator>
size_t MeasureResidentGrowth() {
  int channel[2];
  if (pipe(channel) != 0) return 0;
  const pid_t child = fork();
  if (child == 0) {
    std::vector<void*> blocks(kResidentBlocks);
    const size_t before = ResidentBytes();
    for (void*& block : blocks) {
      block = Allocator::Allocate(kResidentBlockSize);
      static_cast<char*>(block)[0] = 1;
    }
    const size_t growth = ResidentBytes() - before;
    _exit(write(channel[1], &growth, sizeof growth) == sizeof growth ? 0 : 1);
  }
  size_t growth = 0;
  if (child < 0 || read(channel[0], &growth, sizeof growth) != sizeof growth) growth = 0;
  close(channel[0]);
  close(channel[1]);
  if (child > 0) waitpid(child, nullptr, 0);
  return growth;
}

// Reports the resident growth as the iteration's "time" (bytes as ns).
template <typename Allocator>
void Resident(benchmark::State& state) {
  static const size_t growth = MeasureResidentGrowth<Allocator>();
  for (auto _ : state) state.SetIterationTime(static_cast<double>(growth) * 1e-9);
  state.counters["resident_MiB"] = static_cast<double>(growth) / (1024.0 * 1024.0);
}

void RegisterResident(const char* name, void (*function)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name, function)->UseManualTime()->Iterations(1);
}

void RegisterSmallPairs(int64_t size) {
  const std::string family = "small_pair_" + std::to_string(size);
  benchmark::RegisterBenchmark((family + "/ours").c_str(), SmallPair<Ours>)->Arg(size);
  benchmark::RegisterBenchmark((family + "/glibc").c_str(), SmallPair<Glibc>)->Arg(size);
  benchmark::RegisterBenchmark((family + "/jemalloc").c_str(), SmallPair<Jemalloc>)->Arg(size);
  benchmark::RegisterBenchmark((family + "/mimalloc").c_str(), SmallPair<Mimalloc>)->Arg(size);
}

const bool kRegistered = [] {
  for (int64_t size : {16, 64, 256, 1024}) RegisterSmallPairs(size);
  benchmark::RegisterBenchmark("batch_10k/ours", Batch<Ours>);
  benchmark::RegisterBenchmark("batch_10k/glibc", Batch<Glibc>);
  benchmark::RegisterBenchmark("batch_10k/jemalloc", Batch<Jemalloc>);
  benchmark::RegisterBenchmark("batch_10k/mimalloc", Batch<Mimalloc>);
  benchmark::RegisterBenchmark("large_pair/ours", LargePair<Ours>);
  benchmark::RegisterBenchmark("large_pair/glibc", LargePair<Glibc>);
  benchmark::RegisterBenchmark("large_pair/jemalloc", LargePair<Jemalloc>);
  benchmark::RegisterBenchmark("large_pair/mimalloc", LargePair<Mimalloc>);
  benchmark::RegisterBenchmark("scaling_2t/ours_distinct_categories", ScalingPairs<true>)
      ->Threads(2)
      ->UseRealTime();
  benchmark::RegisterBenchmark("scaling_2t/ours_same_category", ScalingPairs<false>)
      ->Threads(2)
      ->UseRealTime();
  benchmark::RegisterBenchmark("scaling_2t/one_thread", ScalingPairs<true>)
      ->Threads(1)
      ->UseRealTime();
  RegisterResident("resident_1m_32b/ours", Resident<Ours>);
  RegisterResident("resident_1m_32b/glibc", Resident<Glibc>);
  return kAllocatorReady;
}();

}  // namespace
