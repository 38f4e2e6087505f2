// An underlying allocator for fault injection: it numbers every request the
// runtime makes, from 1, and refuses a chosen one (once) or every request
// from a chosen one on (persistently). Blocks come from the C library
// behind a 16-byte header that remembers the size, so that reserve blocks
// can be told apart when they are handed back.
//
// It must be installed before any other memory call of the process (the
// runtime keeps the pair it was created with), so a case installs it in a
// fresh child process (see fault_child.h).
#ifndef KYRT_TESTS_SUPPORT_FAULT_ALLOCATOR_H
#define KYRT_TESTS_SUPPORT_FAULT_ALLOCATOR_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kyrt/memory.h"

namespace kyrt_test {

enum class FaultMode {
  kNever,       // every request is served
  kOnce,        // only request N is refused
  kFromThenOn,  // request N and every later one are refused
};

// What the allocator saw; written to a file by the child for its parent.
struct FaultCounters {
  uint64_t requests = 0;
  uint64_t refusals = 0;
  uint64_t reservesGranted = 0;
  uint64_t reservesReleased = 0;
  uint64_t mark = 0;  // the request count at a point of the case's choosing, 0 if not reached
};

struct FaultAllocatorState {
  std::atomic<uint64_t> requests{0};
  std::atomic<uint64_t> refusals{0};
  std::atomic<uint64_t> reservesGranted{0};
  std::atomic<uint64_t> reservesReleased{0};
  std::atomic<uint64_t> mark{0};
  FaultMode mode = FaultMode::kNever;
  uint64_t failAt = 0;
};

inline FaultAllocatorState g_faultAllocator;

struct FaultBlockHeader {
  uint64_t size;
  uint64_t unused;
};
static_assert(sizeof(FaultBlockHeader) == 16, "the C library's alignment");

inline bool FaultRefuses(uint64_t request) {
  switch (g_faultAllocator.mode) {
    case FaultMode::kOnce:
      return request == g_faultAllocator.failAt;
    case FaultMode::kFromThenOn:
      return request >= g_faultAllocator.failAt;
    case FaultMode::kNever:
      break;
  }
  return false;
}

inline void* FaultyAllocate(size_t size) {
  const uint64_t request = g_faultAllocator.requests.fetch_add(1) + 1;
  if (FaultRefuses(request)) {
    g_faultAllocator.refusals.fetch_add(1);
    return nullptr;
  }
  auto* header = static_cast<FaultBlockHeader*>(std::malloc(sizeof(FaultBlockHeader) + size));
  if (header == nullptr) return nullptr;
  header->size = size;
  if (size == KY_RESERVE_BLOCK_SIZE) g_faultAllocator.reservesGranted.fetch_add(1);
  return header + 1;
}

inline void FaultyRelease(void* block) {
  if (block == nullptr) return;
  FaultBlockHeader* header = static_cast<FaultBlockHeader*>(block) - 1;
  if (header->size == KY_RESERVE_BLOCK_SIZE) g_faultAllocator.reservesReleased.fetch_add(1);
  std::free(header);
}

// The process's first memory call.
inline void InstallFaultyAllocator(FaultMode mode, uint64_t failAt) {
  g_faultAllocator.mode = mode;
  g_faultAllocator.failAt = failAt;
  __KyInitializeSubAllocator(FaultyAllocate, FaultyRelease);
}

inline FaultCounters CurrentFaultCounters() {
  FaultCounters counters;
  counters.requests = g_faultAllocator.requests.load();
  counters.refusals = g_faultAllocator.refusals.load();
  counters.reservesGranted = g_faultAllocator.reservesGranted.load();
  counters.reservesReleased = g_faultAllocator.reservesReleased.load();
  counters.mark = g_faultAllocator.mark.load();
  return counters;
}

// Remembers how many requests have been made so far (see FaultCounters).
inline void MarkFaultCounters() {
  g_faultAllocator.mark.store(g_faultAllocator.requests.load());
}

// The counters as one line of text in a file, and back. Plain stdio with
// the C library's allocator: it works while the runtime's allocator fails.
inline void WriteFaultCounters(const char* path, const FaultCounters& counters) {
  std::FILE* file = std::fopen(path, "w");
  if (file == nullptr) return;
  std::fprintf(file, "%llu %llu %llu %llu %llu\n",
               static_cast<unsigned long long>(counters.requests),
               static_cast<unsigned long long>(counters.refusals),
               static_cast<unsigned long long>(counters.reservesGranted),
               static_cast<unsigned long long>(counters.reservesReleased),
               static_cast<unsigned long long>(counters.mark));
  std::fclose(file);
}

inline bool ReadFaultCounters(const std::string& path, FaultCounters* counters) {
  std::FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return false;
  unsigned long long values[5] = {0, 0, 0, 0, 0};
  const int read = std::fscanf(file, "%llu %llu %llu %llu %llu", &values[0], &values[1], &values[2],
                               &values[3], &values[4]);
  std::fclose(file);
  if (read != 5) return false;
  counters->requests = values[0];
  counters->refusals = values[1];
  counters->reservesGranted = values[2];
  counters->reservesReleased = values[3];
  counters->mark = values[4];
  return true;
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_SUPPORT_FAULT_ALLOCATOR_H
