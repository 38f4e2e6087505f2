// The test of a disabled debug channel against what a tool would write by
// hand.
//
//   channel_disabled   is the channel on? The channel (MEM) is off, only API
//                      is enabled
//   dump_disabled      a trace call with two arguments on that channel
//
// Roles: "ours" calls __KyIsDbgDumpEnabled or __KyDbgMessageDumpInternal in
// libkyrt.so; "inline_and" is the tool's own `if (mask & bit)` on a mask it
// keeps itself, inlined into the loop; "call_and" is the same bound check
// and AND as an out-of-line call in the tool's own code, which isolates
// what the library costs beyond a plain call (the procedure linkage table
// and the variadic call's register save).
//
// Every role reads the channel and the mask afresh on each iteration (the
// values go through DoNotOptimize), so none can be hoisted out of the loop.
#include <cstdint>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/debug_dump.h"

namespace {

using kyrt::bench::AtMost;

// Against the tool's own out-of-line check, ours pays only the call
// through the procedure linkage table (and, for the dump, passing the
// variadic arguments): generous bounds, the machines these run on are
// shared. Against the inline AND the ratio is the price of a call at all,
// shown for information.
const kyrt::bench::TargetTable kTargets{
    {"channel_disabled", "call_and", AtMost(2.5)},
    {"dump_disabled", "call_and", AtMost(3.0)},
};

constexpr unsigned kDisabledChannel = KY_DBG_CHANNEL_MEM;

// The tool's own channels for the peers: the same masks, kept by hand.
struct HandKeptChannels {
  const KyDbgMapEntry* map;
  uint32_t count;
  uint32_t mask;
};

void EnableOnlyApi() {
  __KyParseDbgDumpOption("NONE,API");
}

HandKeptChannels HandKeptApiOnly() {
  static const KyDbgMapEntry kMap[] = {{0x0, "NONE"}, {0x1, "API"}, {0x2, "CAL"}, {0x4, "MEM"}};
  return HandKeptChannels{kMap, 4, 0x1};
}

__attribute__((noinline)) int HandKeptIsEnabled(const HandKeptChannels& channels,
                                                unsigned channel) {
  // Keeps the compiler from specialising the call on the caller's values.
  asm volatile("" ::: "memory");
  return channel < channels.count &&
         (static_cast<uint32_t>(channels.map[channel].mask) & channels.mask) != 0;
}

void ChannelDisabledOurs(benchmark::State& state) {
  EnableOnlyApi();
  unsigned channel = kDisabledChannel;
  for (auto _ : state) {
    benchmark::DoNotOptimize(channel);
    int enabled = __KyIsDbgDumpEnabled(channel);
    benchmark::DoNotOptimize(enabled);
  }
}

void ChannelDisabledInlineAnd(benchmark::State& state) {
  uint32_t mask = 0x1;
  uint32_t bit = 0x4;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mask);
    benchmark::DoNotOptimize(bit);
    int enabled = (mask & bit) != 0;
    benchmark::DoNotOptimize(enabled);
  }
}

void ChannelDisabledCallAnd(benchmark::State& state) {
  const HandKeptChannels channels = HandKeptApiOnly();
  unsigned channel = kDisabledChannel;
  for (auto _ : state) {
    benchmark::DoNotOptimize(channel);
    int enabled = HandKeptIsEnabled(channels, channel);
    benchmark::DoNotOptimize(enabled);
  }
}

void DumpDisabledOurs(benchmark::State& state) {
  EnableOnlyApi();
  unsigned channel = kDisabledChannel;
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(channel);
    __KyDbgMessageDumpInternal(channel, "value %d of %s", ++value, "bench");
  }
  benchmark::DoNotOptimize(value);
}

void DumpDisabledInlineAnd(benchmark::State& state) {
  uint32_t mask = 0x1;
  uint32_t bit = 0x4;
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mask);
    benchmark::DoNotOptimize(bit);
    if (mask & bit)
      __KyDbgMessageDumpInternal(kDisabledChannel, "value %d of %s", ++value, "bench");
  }
  benchmark::DoNotOptimize(value);
}

void DumpDisabledCallAnd(benchmark::State& state) {
  const HandKeptChannels channels = HandKeptApiOnly();
  unsigned channel = kDisabledChannel;
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(channel);
    if (HandKeptIsEnabled(channels, channel)) {
      __KyDbgMessageDumpInternal(channel, "value %d of %s", ++value, "bench");
    }
  }
  benchmark::DoNotOptimize(value);
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("channel_disabled/ours", ChannelDisabledOurs);
  benchmark::RegisterBenchmark("channel_disabled/inline_and", ChannelDisabledInlineAnd);
  benchmark::RegisterBenchmark("channel_disabled/call_and", ChannelDisabledCallAnd);
  benchmark::RegisterBenchmark("dump_disabled/ours", DumpDisabledOurs);
  benchmark::RegisterBenchmark("dump_disabled/inline_and", DumpDisabledInlineAnd);
  benchmark::RegisterBenchmark("dump_disabled/call_and", DumpDisabledCallAnd);
  return true;
}();

}  // namespace
