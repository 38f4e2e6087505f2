// Parsing throughput of the annotation section parser, against the memory
// speed limit.
//
//   zca_parse_16mib  a 16 MiB section of version 1.2 tables (no flags:
//                    16-byte entries), each entry with a name of its own
//                    and one of the three location forms; "ours" parses
//                    it and hands every record to a callback that sums
//                    address and location; the peer "read_bytes" only
//                    reads the same 16 MiB, summing them as 64-bit words
//                    (the speed at which the bytes can be fetched at all)
//
// Both report bytes per second over the whole section. The parser's log
// records (one per table) go to /dev/null.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/log.h"
#include "kyrt/zca.h"

namespace {

constexpr std::size_t kSectionSize = std::size_t{16} << 20;
constexpr std::size_t kHeaderSize = 48;
constexpr std::size_t kEntrySize = 16;
constexpr std::size_t kMaxEntriesPerTable = 0xFFFF;
constexpr std::size_t kNameSize = 16;  // "annotation_NNNNN" and a NUL
constexpr std::size_t kExpressionSize = 4;
constexpr std::size_t kBytesPerEntry = kEntrySize + kNameSize + 1 + kExpressionSize;

// The location forms the entries cycle through.
const uint8_t kExpressions[][kExpressionSize] = {
    {0x01, 0x33, 0x00, 0x00},  // constant 3
    {0x01, 0x55, 0x00, 0x00},  // register 5
    {0x03, 0x77, 0x7C, 0x00},  // register 7 - 4
};

void Put(std::vector<uint8_t>& bytes, std::size_t at, uint64_t value, int size) {
  for (int i = 0; i < size; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

// Writes one table of count entries at offset; returns its size.
std::size_t WriteTable(std::vector<uint8_t>& section, std::size_t offset, std::size_t count,
                       std::size_t firstEntry) {
  const std::size_t strings = kHeaderSize + count * kEntrySize;
  const std::size_t stringSize = count * (kNameSize + 1);
  const std::size_t expressions = strings + stringSize;
  const std::size_t expressionSize = count * kExpressionSize;
  std::memcpy(&section[offset], ".qzv_notify_tab", 16);
  Put(section, offset + 16, 0x0102, 2);
  Put(section, offset + 20, count, 2);
  Put(section, offset + 24, strings, 4);
  Put(section, offset + 28, stringSize, 4);
  Put(section, offset + 32, expressions, 4);
  Put(section, offset + 36, expressionSize, 4);
  Put(section, offset + 40, 0, 8);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t entry = offset + kHeaderSize + i * kEntrySize;
    Put(section, entry, 0x400000 + (firstEntry + i) * 16, 8);
    Put(section, entry + 8, i * (kNameSize + 1), 4);
    Put(section, entry + 12, i * kExpressionSize, 4);
    char name[kNameSize + 1];
    std::snprintf(name, sizeof name, "annotation_%05u", static_cast<unsigned>(i % 100000));
    std::memcpy(&section[offset + strings + i * (kNameSize + 1)], name, kNameSize + 1);
    std::memcpy(&section[offset + expressions + i * kExpressionSize], kExpressions[i % 3],
                kExpressionSize);
  }
  return expressions + expressionSize;
}

// Tables of up to 65,535 entries filling 16 MiB; the rest is zero padding.
const std::vector<uint8_t>& Section() {
  static const std::vector<uint8_t> section = [] {
    std::vector<uint8_t> bytes(kSectionSize, 0);
    std::size_t offset = 0;
    std::size_t entries = 0;
    for (;;) {
      const std::size_t room = (kSectionSize - offset - kHeaderSize) / kBytesPerEntry;
      const std::size_t count = room < kMaxEntriesPerTable ? room : kMaxEntriesPerTable;
      if (count == 0 || offset + kHeaderSize >= kSectionSize) break;
      offset += WriteTable(bytes, offset, count, entries);
      entries += count;
    }
    return bytes;
  }();
  return section;
}

struct Totals {
  uint64_t sum = 0;
  uint64_t records = 0;
};

int AddUp(KyZCARecord* record, void* user) {
  auto* totals = static_cast<Totals*>(user);
  totals->sum += record->address + record->arguments[0].value + record->arguments[0].offset;
  ++totals->records;
  return 0;
}

void DiscardLog() {
  static const int created = __KyCreateLogger(KY_LOG_DEFAULT_SOURCE, "/dev/null", 0);
  benchmark::DoNotOptimize(created);
}

void ParseOurs(benchmark::State& state) {
  DiscardLog();
  const std::vector<uint8_t>& section = Section();
  Totals totals;
  for (auto _ : state) {
    __KyZCAParseAndProcessRecords(0, section.data(), section.size(), AddUp, &totals);
    benchmark::DoNotOptimize(totals);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * section.size()));
  state.counters["records"] =
      benchmark::Counter(static_cast<double>(totals.records), benchmark::Counter::kAvgIterations);
}

void ReadBytes(benchmark::State& state) {
  const std::vector<uint8_t>& section = Section();
  for (auto _ : state) {
    uint64_t sum = 0;
    for (std::size_t i = 0; i < section.size(); i += sizeof(uint64_t)) {
      uint64_t word;
      std::memcpy(&word, &section[i], sizeof word);
      sum += word;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * section.size()));
}

BENCHMARK(ParseOurs)->Name("zca_parse_16mib/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(ReadBytes)->Name("zca_parse_16mib/read_bytes")->Unit(benchmark::kMillisecond);

}  // namespace
