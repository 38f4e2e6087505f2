// The range table against a sorted list of intervals: random non-overlapping
// ranges of every size, with fixed seeds; lookups of every boundary address,
// destroy and remove of single ranges, destroy span, remove first, and a
// record of every data release.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "kyrt/range_table.h"
#include "sync/lock_test_support.h"

namespace {

constexpr uint64_t kRegionBase = 0x7F0000000000ull;
constexpr int kInitialRanges = 1200;
constexpr int kOperations = 2500;

struct Interval {
  uint64_t end;
  uint64_t data;
  uint64_t serial;  // insertion order: ranges sharing a 32-byte block are taken newest first
};

// Releases seen, by data value.
std::map<uint64_t, int> g_releases;

void CountRelease(uint64_t data) {
  ++g_releases[data];
}

struct Configuration {
  uint64_t maximumBlock;
  uint32_t flags;
  const char* name;
};

void PrintTo(const Configuration& configuration, std::ostream* out) {
  *out << configuration.name;
}

class RangeTableDifferential : public kyrt_test::RuntimeTest,
                               public ::testing::WithParamInterface<Configuration> {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_releases.clear();
    table_ = __KyCreateRangeTable(GetParam().maximumBlock, 0, 0, GetParam().flags, CountRelease);
    random_.seed(0xAB5EED + GetParam().maximumBlock + GetParam().flags);
  }
  void TearDown() override { __KyDestroyRangeTable(table_); }

  // With one range per 32-byte block, ranges must not share blocks: they
  // start and end on 32-byte boundaries, where lookups are exact too.
  bool AlignTo32() const { return (GetParam().flags & KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK) != 0; }

  // Sizes of every magnitude, up to 256 of the table's largest blocks.
  uint64_t RandomSize() {
    const unsigned kind = random_() % 1000;
    uint64_t size;
    if (kind < 450) {
      size = 1 + random_() % 40;
    } else if (kind < 800) {
      size = 41 + random_() % 4096;
    } else if (kind < 960) {
      size = 4096 + random_() % (256 << 10);
    } else if (kind < 998) {
      size = (256 << 10) + random_() % (8 << 20);
    } else {
      size = (8 << 20) + random_() % (300 << 20);
    }
    const uint64_t largestBlock =
        std::min<uint64_t>(std::max<uint64_t>(GetParam().maximumBlock, 32), uint64_t{1} << 27);
    return std::min(size, 256 * largestBlock);
  }

  uint64_t RandomGap() {
    const unsigned kind = random_() % 10;
    if (kind < 3) return 0;
    if (kind < 6) return random_() % 32;
    return random_() % 8192;
  }

  uint64_t Align(uint64_t address) const {
    return AlignTo32() ? (address + 31) & ~uint64_t{31} : address;
  }

  void Insert(uint64_t start, uint64_t end) {
    const uint64_t data = ++serial_;
    __KyInsertRangeTableEntry(table_, start, end, data);
    model_[start] = Interval{end, data, serial_};
    expectedReleases_[data] = 0;
  }

  void InsertInitialRanges() {
    uint64_t position = kRegionBase;
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    for (int i = 0; i < kInitialRanges; ++i) {
      const uint64_t start = Align(position + RandomGap());
      const uint64_t end = Align(start + RandomSize());
      ranges.emplace_back(start, end);
      position = end;
    }
    regionEnd_ = position + 0x10000;
    std::shuffle(ranges.begin(), ranges.end(), random_);
    for (const auto& [start, end] : ranges) Insert(start, end);
  }

  // The model's range holding address, or end().
  std::map<uint64_t, Interval>::const_iterator Holding(uint64_t address) const {
    auto it = model_.upper_bound(address);
    if (it == model_.begin()) return model_.end();
    --it;
    return address < it->second.end ? it : model_.end();
  }

  void ExpectLookup(uint64_t address) {
    uint64_t start = 1, end = 1;
    const uint64_t data = __KyLookupRangeTable(table_, address, &start, &end);
    const auto holding = Holding(address);
    if (holding == model_.end()) {
      ASSERT_EQ(data, 0u) << std::hex << address;
      ASSERT_EQ(start, 0u);
      ASSERT_EQ(end, 0u);
    } else {
      ASSERT_EQ(data, holding->second.data) << std::hex << address;
      ASSERT_EQ(start, holding->first);
      ASSERT_EQ(end, holding->second.end);
    }
  }

  void ExpectBoundaryLookups(uint64_t start, uint64_t end) {
    for (uint64_t address : {start - 1, start, start + (end - start) / 2, end - 1, end}) {
      ExpectLookup(address);
      if (HasFatalFailure()) return;
    }
  }

  void ExpectEveryBoundary() {
    for (const auto& [start, interval] : model_) {
      ExpectBoundaryLookups(start, interval.end);
      if (HasFatalFailure()) return;
    }
  }

  std::map<uint64_t, Interval>::iterator RandomRange() {
    auto it = model_.begin();
    std::advance(it, random_() % model_.size());
    return it;
  }

  void DestroyOrRemoveOne(bool destroy) {
    if (model_.empty()) return;
    const auto it = RandomRange();
    const uint64_t start = it->first, end = it->second.end;
    if (destroy) {
      __KyDestroyRangeTableEntry(table_, start, end);
      expectedReleases_[it->second.data] = 1;
    } else {
      __KyRemoveRangeTableEntry(table_, start, end);
    }
    model_.erase(it);
    ExpectBoundaryLookups(start, end);
  }

  // Span lengths for destroy span and remove first, scaled to the region so
  // that the table keeps most of its ranges over the run.
  uint64_t ShortSpan() const {
    return std::clamp<uint64_t>((regionEnd_ - kRegionBase) / 2000, 64, 16384);
  }
  uint64_t LongSpan() const {
    return std::clamp<uint64_t>((regionEnd_ - kRegionBase) / 200, 256, 256 << 10);
  }

  // Mostly a little before a stored range (so that spans and windows meet
  // ranges in every kind of region), sometimes anywhere in the region.
  uint64_t RandomPosition() {
    if (model_.empty() || random_() % 4 == 0) {
      return kRegionBase + random_() % (regionEnd_ - kRegionBase);
    }
    return RandomRange()->first - random_() % 64;
  }

  void DestroySpan() {
    const uint64_t spanStart = RandomPosition();
    const uint64_t length =
        random_() % 8 == 0 ? random_() % LongSpan() : 1 + random_() % ShortSpan();
    uint64_t reportedStart = 0, reportedEnd = 0;
    __KyDestroyRangeTableSpan(table_, spanStart, length, &reportedStart, &reportedEnd);
    const uint64_t spanEnd = spanStart + length;
    uint64_t expectedStart = spanStart, expectedEnd = spanEnd;
    for (auto it = model_.begin(); it != model_.end();) {
      const bool meets = length != 0 && it->first < spanEnd && spanStart < it->second.end;
      if (!meets) {
        ++it;
        continue;
      }
      expectedStart = std::min(expectedStart, it->first);
      expectedEnd = std::max(expectedEnd, it->second.end);
      expectedReleases_[it->second.data] = 1;
      it = model_.erase(it);
      ++rangesDestroyedBySpans_;
    }
    ASSERT_EQ(reportedStart, expectedStart) << std::hex << spanStart << " +" << length;
    ASSERT_EQ(reportedEnd, expectedEnd) << std::hex << spanStart << " +" << length;
    ExpectBoundaryLookups(expectedStart, expectedEnd);
  }

  // The walk meets ranges by the 32-byte block of their start; ranges
  // sharing that block come newest first.
  void RemoveFirst() {
    const uint64_t low = RandomPosition();
    const uint64_t high =
        low + (random_() % 4 == 0 ? random_() % LongSpan() : random_() % ShortSpan());
    auto best = model_.end();
    for (auto it = model_.lower_bound(low); it != model_.end() && it->first < high; ++it) {
      if (it->second.end > high) continue;
      const uint64_t block = it->first & ~uint64_t{31};
      if (best == model_.end() || block < (best->first & ~uint64_t{31}) ||
          (block == (best->first & ~uint64_t{31}) && it->second.serial > best->second.serial)) {
        best = it;
      }
    }
    const uint64_t data = __KyRemoveFirstRangeTableEntry(table_, low, high);
    if (best == model_.end()) {
      ASSERT_EQ(data, 0u) << std::hex << low << ".." << high;
      return;
    }
    ASSERT_EQ(data, best->second.data) << std::hex << low << ".." << high;
    ++removeFirstHits_;
    const uint64_t start = best->first, end = best->second.end;
    model_.erase(best);
    ExpectBoundaryLookups(start, end);
  }

  // A new range in a random gap between stored ranges.
  void InsertInAGap() {
    const uint64_t probe = model_.empty() || random_() % 4 == 0
                               ? kRegionBase + random_() % (regionEnd_ - kRegionBase)
                               : RandomRange()->second.end + random_() % 64;
    if (Holding(probe) != model_.end()) return;
    const auto next = model_.upper_bound(probe);
    const uint64_t limit = next == model_.end() ? regionEnd_ : next->first;
    const uint64_t start = Align(probe);
    if (start >= limit) return;
    const uint64_t end = std::min(limit, Align(start + RandomSize()));
    if (AlignTo32() && (end & 31) != 0) return;
    if (end <= start) return;
    Insert(start, end);
    ExpectBoundaryLookups(start, end);
  }

  void ExpectReleases() {
    for (const auto& [data, expected] : expectedReleases_) {
      const auto seen = g_releases.find(data);
      const int count = seen == g_releases.end() ? 0 : seen->second;
      ASSERT_EQ(count, expected) << "data " << data;
    }
    ASSERT_LE(g_releases.size(), expectedReleases_.size());
  }

  KyRangeTable* table_ = nullptr;
  std::mt19937_64 random_;
  std::map<uint64_t, Interval> model_;        // start -> range
  std::map<uint64_t, int> expectedReleases_;  // data -> releases due
  uint64_t serial_ = 0;
  uint64_t regionEnd_ = 0;
  int rangesDestroyedBySpans_ = 0;
  int removeFirstHits_ = 0;
};

TEST_P(RangeTableDifferential, RandomRangesAgreeWithASortedIntervalList) {
  InsertInitialRanges();
  ExpectEveryBoundary();
  ASSERT_FALSE(HasFatalFailure());
  for (int operation = 0; operation < kOperations; ++operation) {
    const unsigned choice = random_() % 100;
    if (choice < 15) {
      DestroyOrRemoveOne(true);
    } else if (choice < 20) {
      DestroyOrRemoveOne(false);
    } else if (choice < 30) {
      DestroySpan();
    } else if (choice < 45) {
      RemoveFirst();
    } else {
      InsertInAGap();
    }
    ASSERT_FALSE(HasFatalFailure()) << "operation " << operation;
  }
  ExpectEveryBoundary();
  ExpectReleases();
  // The run did what it is for: spans and remove-first found ranges, and
  // most ranges are still there for the final checks.
  EXPECT_GT(rangesDestroyedBySpans_, 100);
  EXPECT_GT(removeFirstHits_, 100);
  ASSERT_GT(model_.size(), 300u);

  // Emptying releases every range still stored, once.
  for (const auto& [start, interval] : model_) expectedReleases_[interval.data] = 1;
  __KyScanAndEmptyRangeTable(table_);
  ExpectReleases();
  for (int32_t level = table_->baseLevel; level <= table_->topLevel; ++level) {
    const KyHashTable* levelTable = table_->levelTables[level - table_->baseLevel];
    if (levelTable != nullptr) {
      EXPECT_EQ(levelTable->count, 0) << level;
    }
  }
  model_.clear();
  ExpectLookup(kRegionBase + 0x1000);
}

INSTANTIATE_TEST_SUITE_P(Tables, RangeTableDifferential,
                         ::testing::Values(Configuration{1, 0, "Only32Bytes"},
                                           Configuration{4096, 0, "Upto4KiB"},
                                           Configuration{uint64_t{1} << 20, 0, "Upto1MiB"},
                                           Configuration{uint64_t{1} << 40, 0, "Upto128MiB"},
                                           Configuration{4096, KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK,
                                                         "OneRangePerBlock4KiB"},
                                           Configuration{uint64_t{1} << 40,
                                                         KY_RANGE_TABLE_ONE_RANGE_PER_BLOCK,
                                                         "OneRangePerBlock128MiB"}),
                         [](const ::testing::TestParamInfo<Configuration>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
