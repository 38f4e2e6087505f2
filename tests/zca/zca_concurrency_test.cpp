// Section parsing keeps no state: threads parsing at once each get every
// record, and the log gets every record whole.
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/zca.h"
#include "support/log_text.h"
#include "sync/lock_test_support.h"
#include "zca/zca_section_builder.h"

namespace {

using ZcaConcurrency = kyrt_test::RuntimeTest;

constexpr int kThreads = 4;
constexpr int kRounds = 50;

struct Sum {
  uint64_t addresses = 0;
  uint64_t records = 0;
};

int AddUp(KyZCARecord* record, void* user) {
  auto* sum = static_cast<Sum*>(user);
  sum->addresses += record->address + record->arguments[0].value;
  ++sum->records;
  return 0;
}

TEST_F(ZcaConcurrency, ThreadsParsingTheSameSectionEachGetEveryRecord) {
  zca_test::SectionBytes section;
  zca_test::AppendTable(section, zca_test::kVersion11, 0,
                        {{0x10, 1, "a", {0x01, 0x31}}, {0x20, 2, "b", {0x01, 0x55}}});
  zca_test::AppendTable(section, zca_test::kVersion12, KY_ZCA_FLAG_PROBE,
                        {{0x30, 3, "c", {0x03, 0x77, 0x7C, 0x00}}});
  const uint64_t base = 0x1000;
  const uint64_t expectedAddresses = (base + 0x10 + 1) + (base + 0x20 + 5) + (0x30 + 7);

  std::vector<Sum> sums(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        __KyZCAParseAndProcessRecords(base, section.data(), section.size(), AddUp, &sums[t]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const Sum& sum : sums) {
    EXPECT_EQ(sum.records, 3u * kRounds);
    EXPECT_EQ(sum.addresses, expectedAddresses * kRounds);
  }
  const std::string log = kyrt_test::LogText();
  std::size_t found = 0;
  for (std::size_t at = log.find("<!-- Found ZCA section with version 1."); at != std::string::npos;
       at = log.find("<!-- Found ZCA section with version 1.", at + 1)) {
    ++found;
  }
  EXPECT_EQ(found, 2u * kThreads * kRounds);
}

}  // namespace
