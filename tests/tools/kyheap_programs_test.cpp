// Programs of the system under kyheap: each must behave exactly as without
// the tool (output and exit status), leave well-formed reports, and leave
// no command channel behind.
#include "kyheap_test_support.h"

namespace {

using kyheap_test::FileExists;
using kyheap_test::IsWellFormedXml;
using kyheap_test::RunToEnd;
using kyheap_test::UnderTool;

constexpr const char* kPython = "/usr/bin/python3";
constexpr const char* kShell = "/bin/sh";

void ExpectSameBehaviour(const std::vector<std::string>& argv) {
  const kyheap_test::ProcessResult bare = RunToEnd(argv);
  const kyheap_test::ProcessResult traced = RunToEnd(UnderTool({"-out", "report.xml"}, argv));
  EXPECT_EQ(traced.status, bare.status);
  EXPECT_EQ(traced.output, bare.output);
  EXPECT_TRUE(IsWellFormedXml("report.xml"));
  EXPECT_FALSE(FileExists(kyheap_test::kLockFileName)) << "the command channel was left behind";
}

// Every report of the run (the main one and one per further process) is
// well-formed; returns how many there are.
std::size_t CheckEveryReport() {
  const std::vector<std::string> reports = kyheap_test::FilesStartingWith("report");
  for (const std::string& name : reports) EXPECT_TRUE(IsWellFormedXml(name)) << name;
  return reports.size();
}

TEST(KyheapPrograms, PythonBehavesAsWithoutTheTool) {
  ExpectSameBehaviour({kPython, "-c",
                       "import json\n"
                       "rows = [{'k': i, 'v': str(i) * 20} for i in range(50000)]\n"
                       "text = json.dumps(rows)\n"
                       "print(len(text), sum(len(r['v']) for r in json.loads(text)))\n"});
  const kyheap::HeapReport report = kyheap_test::ReadReport("report.xml");
  EXPECT_GT(report.allocations, 1000u);
  EXPECT_GT(report.peakLiveBytes, 1000000u);
}

TEST(KyheapPrograms, PythonExitStatusIsKept) {
  ExpectSameBehaviour({kPython, "-c", "import sys; print('bye'); sys.exit(7)"});
}

TEST(KyheapPrograms, SortBehavesAsWithoutTheTool) {
  std::string lines;
  for (int i = 0; i < 30000; ++i) lines += std::to_string((i * 7919) % 30011) + "\n";
  kyheap_test::WriteFile("numbers.txt", lines);
  ExpectSameBehaviour({"sort", "-n", "numbers.txt"});
  EXPECT_GT(kyheap_test::ReadReport("report.xml").allocations, 0u);
}

TEST(KyheapPrograms, ShellPipelineBehavesAsWithoutTheTool) {
  ExpectSameBehaviour({kShell, "-c", "seq 1 3000 | sort -rn | head -n 5; echo done; exit 4"});
  EXPECT_GE(CheckEveryReport(), 3u) << "the shell, seq, sort and head each write a report";
}

TEST(KyheapPrograms, ForkingAndExecutingProgramBehavesAsWithoutTheTool) {
  ExpectSameBehaviour({kPython, "-c",
                       "import os, sys\n"
                       "pid = os.fork()\n"
                       "if pid == 0:\n"
                       "    os.execv('/bin/echo', ['echo', 'child ran'])\n"
                       "_, status = os.waitpid(pid, 0)\n"
                       "pid = os.fork()\n"
                       "if pid == 0:\n"
                       "    data = [bytes(100) for _ in range(1000)]\n"
                       "    os._exit(3)\n"
                       "_, second = os.waitpid(pid, 0)\n"
                       "print('parent', os.waitstatus_to_exitcode(status),\n"
                       "      os.waitstatus_to_exitcode(second))\n"
                       "sys.stdout.flush()\n"});
  EXPECT_EQ(CheckEveryReport(), 3u) << "python, echo after exec, and the forked child";
}

TEST(KyheapPrograms, UnknownOptionIsRefusedBeforeTheProgramRuns) {
  const kyheap_test::ProcessResult result =
      RunToEnd({kyheap_test::kLauncher, "-no-such-option", "--", "true"});
  EXPECT_EQ(result.status, 2);
  EXPECT_FALSE(FileExists("kyheap.xml"));
}

TEST(KyheapPrograms, HelpListsTheOptions) {
  const kyheap_test::ProcessResult result = RunToEnd({kyheap_test::kLauncher, "-help"});
  EXPECT_EQ(result.status, 0);
  for (const char* option :
       {"-out", "-stacks", "-top", "-leaks", "-heartbeat", "-dbg", "-cmddir"}) {
    EXPECT_NE(result.output.find(option), std::string::npos) << option;
  }
}

TEST(KyheapPrograms, ReportCommandSummarisesAReport) {
  ASSERT_EQ(
      RunToEnd(UnderTool({"-out", "report.xml"}, {kyheap_test::kWorkload, "--iterations", "500"}))
          .status,
      0);
  const kyheap_test::ProcessResult summary =
      RunToEnd({kyheap_test::kLauncher, "report", "report.xml"});
  EXPECT_EQ(summary.status, 0);
  for (const char* part : {"allocations", "peak live", "Size classes:", "Top call sites",
                           "Leaks at exit", "workload::LeakOnPurpose"}) {
    EXPECT_NE(summary.output.find(part), std::string::npos) << part << "\n" << summary.output;
  }
  EXPECT_NE(RunToEnd({kyheap_test::kLauncher, "report", "missing.xml"}).status, 0);
}

}  // namespace
