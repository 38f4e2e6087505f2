// kyheap's figures against the bundled workload's count of its own calls.
//
// A process allocates on its own as well (thread start-up, standard
// output's buffer): those allocations are the same in every run with the
// same threads, so a run without iterations measures them, and the
// difference of two reports must equal the difference of the workload's
// counts exactly.
#include "kyheap_test_support.h"

namespace {

using kyheap_test::CountsLabelled;
using kyheap_test::ReadReport;
using kyheap_test::RunToEnd;
using kyheap_test::UnderTool;
using kyheap_test::WorkloadCounts;

constexpr int kThreads = 4;
constexpr int kLeaksPerThread = 3;

struct Measured {
  kyheap::HeapReport report;
  WorkloadCounts counts;
};

Measured RunWorkload(const std::string& reportPath, int iterations) {
  const kyheap_test::ProcessResult result = RunToEnd(UnderTool(
      {"-out", reportPath, "-top", "0", "-leaks", "0"},
      {kyheap_test::kWorkload, "--threads", std::to_string(kThreads), "--iterations",
       std::to_string(iterations), "--leaks", std::to_string(kLeaksPerThread), "--count"}));
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(kyheap_test::IsWellFormedXml(reportPath));
  return Measured{ReadReport(reportPath), CountsLabelled(result.output, "total")};
}

TEST(KyheapTotals, ReportTotalsEqualTheWorkloadsOwnCount) {
  const Measured idle = RunWorkload("idle.xml", 0);
  const Measured busy = RunWorkload("busy.xml", 6000);
  ASSERT_GT(busy.counts.allocations, 10000u);
  EXPECT_EQ(busy.report.allocations - idle.report.allocations,
            busy.counts.allocations - idle.counts.allocations);
  EXPECT_EQ(busy.report.frees - idle.report.frees, busy.counts.frees - idle.counts.frees);
  EXPECT_EQ(busy.report.reallocations - idle.report.reallocations,
            busy.counts.reallocations - idle.counts.reallocations);
  EXPECT_EQ(busy.report.bytesAllocated - idle.report.bytesAllocated,
            busy.counts.bytesAllocated - idle.counts.bytesAllocated);
  EXPECT_EQ(busy.report.bytesFreed - idle.report.bytesFreed,
            busy.counts.bytesFreed - idle.counts.bytesFreed);
  EXPECT_EQ(busy.report.liveBlocks, idle.report.liveBlocks);
}

TEST(KyheapTotals, CallSitesOfTheWorkloadAddUpToItsCount) {
  const Measured busy = RunWorkload("busy.xml", 3000);
  const auto [allocations, bytes] = kyheap_test::WorkloadSiteSums(busy.report);
  EXPECT_EQ(allocations, busy.counts.allocations);
  EXPECT_EQ(bytes, busy.counts.bytesAllocated);
  EXPECT_EQ(busy.report.topSites.size(), busy.report.callSiteCount);
}

TEST(KyheapTotals, LiveFiguresFollowFromTheTotals) {
  const Measured busy = RunWorkload("busy.xml", 3000);
  EXPECT_EQ(busy.report.allocations - busy.report.frees, busy.report.liveBlocks);
  EXPECT_EQ(busy.report.bytesAllocated - busy.report.bytesFreed, busy.report.liveBytes);
  EXPECT_GE(busy.report.peakLiveBytes, busy.report.liveBytes);
  EXPECT_TRUE(busy.report.hasLeaks);
  EXPECT_EQ(busy.report.leakedBlocks, busy.report.liveBlocks);
}

TEST(KyheapTotals, SizeClassesAddUpToTheTotals) {
  const Measured busy = RunWorkload("busy.xml", 3000);
  uint64_t allocations = 0;
  uint64_t bytes = 0;
  for (const kyheap::ReportSizeClass& row : busy.report.sizeClasses) {
    allocations += row.allocations;
    bytes += row.bytes;
    EXPECT_LE(row.low, row.high);
  }
  EXPECT_EQ(allocations, busy.report.allocations);
  EXPECT_EQ(bytes, busy.report.bytesAllocated);
}

TEST(KyheapTotals, DeliberateLeaksAreAttributedToTheirCallSite) {
  const Measured busy = RunWorkload("busy.xml", 1000);
  ASSERT_EQ(busy.counts.leakedBlocks, static_cast<uint64_t>(kThreads * kLeaksPerThread));
  uint64_t leakedHere = 0;
  uint64_t leakedBytesHere = 0;
  for (const kyheap::ReportSite& site : busy.report.leakSites) {
    for (const kyheap::ReportFrame& frame : site.frames) {
      if (frame.symbol.find("LeakOnPurpose") == std::string::npos) continue;
      leakedHere += site.liveBlocks;
      leakedBytesHere += site.liveBytes;
      EXPECT_NE(frame.module.find("heap_workload"), std::string::npos);
      break;
    }
  }
  EXPECT_EQ(leakedHere, busy.counts.leakedBlocks);
  EXPECT_EQ(leakedBytesHere, busy.counts.leakedBytes);
}

}  // namespace
