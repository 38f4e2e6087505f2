// The CRC-32 against zlib's crc32 on the same buffers.
//
//   crc32_64B, crc32_4KiB, crc32_1MiB   the checksum of a random buffer of
//                                       that many bytes
//
// The runtime computes the checksum with Boost's table-driven engine, one
// byte per table look-up; zlib reads several bytes per step. The ratio is
// shown for information: the engine is a given of the runtime, not a choice
// to tune.
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/vectors.h"

namespace {

constexpr size_t kLargestBuffer = size_t{1} << 20;

// One random buffer of the largest size; shorter runs use its start.
const unsigned char* RandomBytes() {
  static const std::vector<unsigned char> bytes = [] {
    std::mt19937 random(42);
    std::vector<unsigned char> buffer(kLargestBuffer);
    for (unsigned char& byte : buffer) byte = static_cast<unsigned char>(random());
    return buffer;
  }();
  return bytes.data();
}

void CrcOurs(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const unsigned char* data = RandomBytes();
  for (auto _ : state) {
    benchmark::DoNotOptimize(__KyCRC32(data, static_cast<int64_t>(size)));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void CrcZlib(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const unsigned char* data = RandomBytes();
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc32(0L, data, static_cast<uInt>(size)));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

BENCHMARK(CrcOurs)->Name("crc32_64B/ours")->Arg(64);
BENCHMARK(CrcZlib)->Name("crc32_64B/zlib")->Arg(64);
BENCHMARK(CrcOurs)->Name("crc32_4KiB/ours")->Arg(4096);
BENCHMARK(CrcZlib)->Name("crc32_4KiB/zlib")->Arg(4096);
BENCHMARK(CrcOurs)->Name("crc32_1MiB/ours")->Arg(kLargestBuffer);
BENCHMARK(CrcZlib)->Name("crc32_1MiB/zlib")->Arg(kLargestBuffer);

}  // namespace
