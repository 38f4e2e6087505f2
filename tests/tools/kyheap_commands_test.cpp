// kyheap's command channel driven through kyrtctl while the workload waits
// between its phases: snapshot, pause, resume, reset and the heartbeat.
#include <unistd.h>

#include "../../tools/kyheap/command_codes.h"
#include "kyheap_test_support.h"

namespace {

using kyheap_test::Child;
using kyheap_test::CountsLabelled;
using kyheap_test::ReadReport;
using kyheap_test::RunToEnd;
using kyheap_test::UnderTool;
using kyheap_test::WaitForReport;
using kyheap_test::WorkloadSiteSums;

std::string CurrentDirectory() {
  char path[4096];
  return getcwd(path, sizeof path) != nullptr ? path : ".";
}

// kyrtctl send CODE [--payload TEXT] [--then CODE ...] in this directory.
int Send(const std::vector<std::string>& commandLine) {
  std::vector<std::string> argv = {kyheap_test::kController, "send", "--timeout", "10000"};
  argv.insert(argv.end(), commandLine.begin(), commandLine.end());
  return RunToEnd(argv).status;
}

std::vector<std::string> PhasedWorkload(int phases, const std::vector<std::string>& options) {
  return UnderTool(options,
                   {kyheap_test::kWorkload, "--threads", "3", "--iterations", "2000", "--phases",
                    std::to_string(phases), "--leaks", "2", "--wait", "--count"});
}

class KyheapCommands : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_FALSE(kyheap_test::FileExists(kyheap_test::kLockFileName))
        << "the command channel was left behind";
  }

  const std::string directory_ = CurrentDirectory();
};

TEST_F(KyheapCommands, SnapshotPauseResumeAndResetShapeTheReports) {
  Child child(PhasedWorkload(3, {"-out", "final.xml", "-top", "0"}));
  ASSERT_TRUE(child.started());

  ASSERT_TRUE(child.waitForLine("phase 1 done"));
  const std::string first = directory_ + "/first.xml";
  ASSERT_EQ(Send({std::to_string(kyheap::kCommandSnapshot), "--payload", first, "--then",
                  std::to_string(kyheap::kCommandPause)}),
            0);
  ASSERT_TRUE(WaitForReport(first));
  child.write("\n");

  ASSERT_TRUE(child.waitForLine("phase 2 done"));
  const std::string second = directory_ + "/second.xml";
  ASSERT_EQ(Send({std::to_string(kyheap::kCommandSnapshot), "--payload", second, "--then",
                  std::to_string(kyheap::kCommandResume), "--then",
                  std::to_string(kyheap::kCommandReset)}),
            0);
  ASSERT_TRUE(WaitForReport(second));
  // Resume and reset travel with the snapshot: once the snapshot is there,
  // wait for the log to show that the reset was applied too.
  ASSERT_TRUE(kyheap_test::WaitForText("kylog.log", "counters reset"));
  child.write("\n");
  const kyheap_test::ProcessResult result = child.finish();
  ASSERT_EQ(result.status, 0) << result.output;

  const kyheap_test::WorkloadCounts phase1 = CountsLabelled(result.output, "phase 1");
  const kyheap_test::WorkloadCounts phase3 = CountsLabelled(result.output, "phase 3");

  const kyheap::HeapReport firstReport = ReadReport(first);
  EXPECT_EQ(firstReport.reason, "snapshot");
  EXPECT_FALSE(firstReport.paused);
  EXPECT_FALSE(firstReport.hasLeaks) << "only the exit report lists leaks";
  EXPECT_EQ(WorkloadSiteSums(firstReport).first, phase1.allocations);
  EXPECT_GE(firstReport.allocations, phase1.allocations);

  // Nothing was recorded while paused.
  const kyheap::HeapReport secondReport = ReadReport(second);
  EXPECT_TRUE(secondReport.paused);
  EXPECT_EQ(secondReport.allocations, firstReport.allocations);
  EXPECT_EQ(WorkloadSiteSums(secondReport).first, phase1.allocations);

  // After the reset only the last phase counts.
  const kyheap::HeapReport finalReport = ReadReport("final.xml");
  EXPECT_EQ(finalReport.reason, "exit");
  EXPECT_FALSE(finalReport.paused);
  EXPECT_EQ(finalReport.resets, 1u);
  const auto [allocations, bytes] = WorkloadSiteSums(finalReport);
  EXPECT_EQ(allocations, phase3.allocations);
  EXPECT_EQ(bytes, phase3.bytesAllocated);
  EXPECT_LT(finalReport.allocations, firstReport.allocations + phase3.allocations);
  EXPECT_GE(finalReport.leakedBlocks, phase3.leakedBlocks);
}

TEST_F(KyheapCommands, SnapshotWithoutPathIsNumbered) {
  Child child(PhasedWorkload(2, {"-out", "run.xml"}));
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(child.waitForLine("phase 1 done"));
  ASSERT_EQ(Send({std::to_string(kyheap::kCommandSnapshot)}), 0);
  ASSERT_TRUE(WaitForReport("run.snapshot-1.xml"));
  ASSERT_EQ(Send({std::to_string(kyheap::kCommandSnapshot)}), 0);
  ASSERT_TRUE(WaitForReport("run.snapshot-2.xml"));
  child.write("\n");
  ASSERT_EQ(child.finish().status, 0);
  EXPECT_TRUE(kyheap_test::IsWellFormedXml("run.snapshot-1.xml"));
  EXPECT_TRUE(kyheap_test::IsWellFormedXml("run.snapshot-2.xml"));
  EXPECT_TRUE(kyheap_test::IsWellFormedXml("run.xml"));
}

TEST_F(KyheapCommands, HeartbeatWritesProgressRecords) {
  Child child(PhasedWorkload(2, {"-out", "run.xml", "-heartbeat", "1"}));
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(child.waitForLine("phase 1 done"));
  EXPECT_TRUE(kyheap_test::WaitForText("kylog.log", "progress: "));
  child.write("\n");
  ASSERT_EQ(child.finish().status, 0);
}

TEST_F(KyheapCommands, WhereAnswersInTheLog) {
  Child child(PhasedWorkload(2, {"-out", "run.xml"}));
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(child.waitForLine("phase 1 done"));
  ASSERT_EQ(Send({std::to_string(kyheap::kCommandWhere), "--payload", "0x10"}), 0);
  EXPECT_TRUE(kyheap_test::WaitForText("kylog.log", "where 0x10: no live block holds it"));
  child.write("\n");
  ASSERT_EQ(child.finish().status, 0);
}

TEST_F(KyheapCommands, NoCommandsOptionOpensNoChannel) {
  Child child(PhasedWorkload(2, {"-out", "run.xml", "-no-commands"}));
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(child.waitForLine("phase 1 done"));
  EXPECT_FALSE(kyheap_test::FileExists(kyheap_test::kLockFileName));
  child.write("\n");
  ASSERT_EQ(child.finish().status, 0);
}

}  // namespace
