// A multi-threaded allocation workload for kyheap's tests, demo and
// benchmark.
//
//   heap_workload [--threads N] [--iterations N] [--phases N] [--leaks N]
//                 [--wait] [--count]
//
// Each phase starts N threads that each run a deterministic mix of malloc,
// calloc, realloc, free, aligned_alloc, posix_memalign, memalign and
// valloc over a small set of slots, and free every block they still hold
// when the phase ends. In the last phase each thread also leaks --leaks
// blocks on purpose. With --wait the program prints "phase K done" after
// every phase but the last and waits for a line on its standard input, so
// that a test can act between phases. With --count it prints the counts of
// its own calls, per phase and in total.
//
// Every call goes through one of the Counted* functions below, which are
// exported (the program is linked with -rdynamic) so that a profiler can
// name them. A realloc that moves or resizes a block counts as one
// allocation, one free and one reallocation, as kyheap counts it.
#include <malloc.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace workload {

struct Counts {
  uint64_t allocations = 0;
  uint64_t frees = 0;
  uint64_t reallocations = 0;
  uint64_t bytesAllocated = 0;
  uint64_t bytesFreed = 0;
  uint64_t leakedBlocks = 0;
  uint64_t leakedBytes = 0;

  void add(const Counts& other) {
    allocations += other.allocations;
    frees += other.frees;
    reallocations += other.reallocations;
    bytesAllocated += other.bytesAllocated;
    bytesFreed += other.bytesFreed;
    leakedBlocks += other.leakedBlocks;
    leakedBytes += other.leakedBytes;
  }
};

struct Block {
  void* address = nullptr;
  size_t size = 0;
};

constexpr int kSlots = 64;
constexpr size_t kAlignment = 64;
constexpr size_t kSmallSizeLimit = 512;
constexpr size_t kLargeSizeLimit = 64 * 1024;
constexpr size_t kLeakBaseSize = 100;
constexpr uint8_t kFillByte = 0x5A;

// Counts one new block and touches it, as a program would.
void CountAllocation(Block* block, void* address, size_t size, Counts* counts) {
  block->address = address;
  block->size = size;
  if (address == nullptr) return;
  std::memset(address, kFillByte, size);
  counts->allocations++;
  counts->bytesAllocated += size;
}

__attribute__((noinline)) void CountedMalloc(Block* block, size_t size, Counts* counts) {
  CountAllocation(block, std::malloc(size), size, counts);
}

__attribute__((noinline)) void CountedCalloc(Block* block, size_t count, size_t size,
                                             Counts* counts) {
  CountAllocation(block, std::calloc(count, size), count * size, counts);
}

__attribute__((noinline)) void CountedAlignedAlloc(Block* block, size_t size, Counts* counts) {
  const size_t rounded = (size + kAlignment - 1) / kAlignment * kAlignment;
  CountAllocation(block, std::aligned_alloc(kAlignment, rounded), rounded, counts);
}

__attribute__((noinline)) void CountedPosixMemalign(Block* block, size_t size, Counts* counts) {
  void* address = nullptr;
  if (posix_memalign(&address, kAlignment, size) != 0) address = nullptr;
  CountAllocation(block, address, size, counts);
}

__attribute__((noinline)) void CountedMemalign(Block* block, size_t size, Counts* counts) {
  CountAllocation(block, memalign(kAlignment, size), size, counts);
}

__attribute__((noinline)) void CountedValloc(Block* block, size_t size, Counts* counts) {
  CountAllocation(block, valloc(size), size, counts);
}

__attribute__((noinline)) void CountedFree(Block* block, Counts* counts) {
  if (block->address == nullptr) return;
  std::free(block->address);
  counts->frees++;
  counts->bytesFreed += block->size;
  *block = Block{};
}

// realloc of a held block to a new, non-zero size.
__attribute__((noinline)) void CountedRealloc(Block* block, size_t size, Counts* counts) {
  void* moved = std::realloc(block->address, size);
  if (moved == nullptr) return;
  counts->frees++;
  counts->bytesFreed += block->size;
  counts->reallocations++;
  CountAllocation(block, moved, size, counts);
}

__attribute__((noinline)) void LeakOnPurpose(size_t size, Counts* counts) {
  Block block;
  CountedMalloc(&block, size, counts);
  counts->leakedBlocks++;
  counts->leakedBytes += size;
}

// xorshift64*: the same sequence for the same thread and phase every run.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
  uint64_t next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1Dull;
  }
  size_t size() {
    const uint64_t pick = next();
    if (pick % 97 == 0) return 0;
    if (pick % 13 == 0) return 1 + (next() % kLargeSizeLimit);
    return 1 + (next() % kSmallSizeLimit);
  }

 private:
  uint64_t state_;
};

void AllocateInto(Block* block, Random& random, Counts* counts) {
  const size_t size = random.size();
  switch (random.next() % 8) {
    case 0:
    case 1:
    case 2:
      CountedMalloc(block, size, counts);
      break;
    case 3:
      CountedCalloc(block, 1 + size / 16, 16, counts);
      break;
    case 4:
      CountedAlignedAlloc(block, size, counts);
      break;
    case 5:
      CountedPosixMemalign(block, size, counts);
      break;
    case 6:
      CountedMemalign(block, size, counts);
      break;
    default:
      CountedValloc(block, size % kSmallSizeLimit, counts);
      break;
  }
}

void Step(Block* slots, Random& random, Counts* counts) {
  Block* block = &slots[random.next() % kSlots];
  const uint64_t action = random.next() % 4;
  if (block->address == nullptr) {
    AllocateInto(block, random, counts);
  } else if (action == 0) {
    const size_t size = random.size();
    if (size != 0) {
      CountedRealloc(block, size, counts);
    } else {
      CountedFree(block, counts);
    }
  } else {
    CountedFree(block, counts);
  }
}

void RunThread(int thread, int phase, int iterations, int leaks, Counts* counts) {
  Random random(static_cast<uint64_t>(thread) * 1000 + static_cast<uint64_t>(phase));
  Block slots[kSlots];
  for (int i = 0; i < iterations; ++i) Step(slots, random, counts);
  for (Block& block : slots) CountedFree(&block, counts);
  for (int i = 0; i < leaks; ++i) LeakOnPurpose(kLeakBaseSize + static_cast<size_t>(i), counts);
}

Counts RunPhase(int phase, int threads, int iterations, int leaks) {
  std::vector<Counts> perThread(static_cast<size_t>(threads));
  std::vector<std::thread> workers;
  workers.reserve(static_cast<size_t>(threads));
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back(RunThread, t, phase, iterations, leaks,
                         &perThread[static_cast<size_t>(t)]);
  }
  for (std::thread& worker : workers) worker.join();
  Counts phaseCounts;
  for (const Counts& counts : perThread) phaseCounts.add(counts);
  return phaseCounts;
}

void PrintCounts(const char* label, const Counts& counts) {
  std::printf("%s allocations %" PRIu64 " frees %" PRIu64 " reallocations %" PRIu64
              " bytesAllocated %" PRIu64 " bytesFreed %" PRIu64 " leakedBlocks %" PRIu64
              " leakedBytes %" PRIu64 "\n",
              label, counts.allocations, counts.frees, counts.reallocations, counts.bytesAllocated,
              counts.bytesFreed, counts.leakedBlocks, counts.leakedBytes);
}

struct Settings {
  int threads = 4;
  int iterations = 20000;
  int phases = 1;
  int leaks = 4;
  bool wait = false;
  bool count = false;
};

bool ParseSettings(int argc, char** argv, Settings* settings) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const bool hasValue = i + 1 < argc;
    if (argument == "--wait") {
      settings->wait = true;
    } else if (argument == "--count") {
      settings->count = true;
    } else if (argument == "--threads" && hasValue) {
      settings->threads = std::atoi(argv[++i]);
    } else if (argument == "--iterations" && hasValue) {
      settings->iterations = std::atoi(argv[++i]);
    } else if (argument == "--phases" && hasValue) {
      settings->phases = std::atoi(argv[++i]);
    } else if (argument == "--leaks" && hasValue) {
      settings->leaks = std::atoi(argv[++i]);
    } else {
      return false;
    }
  }
  return settings->threads > 0 && settings->iterations >= 0 && settings->phases > 0 &&
         settings->leaks >= 0;
}

}  // namespace workload

int main(int argc, char** argv) {
  workload::Settings settings;
  if (!workload::ParseSettings(argc, argv, &settings)) {
    std::fprintf(stderr,
                 "usage: heap_workload [--threads N] [--iterations N] [--phases N] [--leaks N] "
                 "[--wait] [--count]\n");
    return 2;
  }
  workload::Counts total;
  std::vector<workload::Counts> phases;
  for (int phase = 1; phase <= settings.phases; ++phase) {
    const bool last = phase == settings.phases;
    phases.push_back(workload::RunPhase(phase, settings.threads, settings.iterations,
                                        last ? settings.leaks : 0));
    total.add(phases.back());
    if (settings.wait && !last) {
      std::printf("phase %d done\n", phase);
      std::fflush(stdout);
      std::string line;
      if (!std::getline(std::cin, line)) break;
    }
  }
  if (settings.count) {
    for (std::size_t i = 0; i < phases.size(); ++i) {
      workload::PrintCounts(("phase " + std::to_string(i + 1)).c_str(), phases[i]);
    }
    workload::PrintCounts("total", total);
  }
  return 0;
}
