// kyrtctl as a user meets it: the manual page, command-line errors, every
// failure with its message and exit status, and what send, status and hold
// do to a channel. The tool's side is a handler object of the case's own,
// driven by hand (no service thread), so that every effect can be seen.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <string>
#include <vector>

#include "collector/command_channel_support.h"
#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "sync/lock_test_support.h"
#include "util/child_process.h"

namespace {

using kyrt_test::CallbackRecorder;
using kyrt_test::ChildGuard;
using kyrt_test::Clock;
using kyrt_test::Delivery;
using kyrt_test::Eventually;
using kyrt_test::ExitStatusOfChild;
using kyrt_test::IpcObjectsGuard;
using kyrt_test::KyrtctlRun;
using kyrt_test::OperateOnSemaphore;
using kyrt_test::PatternPayload;
using kyrt_test::RunKyrtctl;
using kyrt_test::SemaphoreValue;
using kyrt_test::StartKyrtctl;
using kyrt_test::WriteFile;

// kyrtctl's exit statuses.
constexpr int kExitUsage = 1;
constexpr int kExitNoLockFile = 2;
constexpr int kExitStaleLockFile = 3;
constexpr int kExitPermissionDenied = 4;
constexpr int kExitPayloadTooLarge = 5;
constexpr int kExitTimedOut = 6;
constexpr int kExitNotReady = 8;

constexpr uid_t kNobody = 65534;

bool Mentions(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class Kyrtctl : public kyrt_test::RuntimeTest {
 protected:
  void TearDown() override { tool_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL); }

  void openChannel(const char* directory = "") {
    ASSERT_EQ(tool_.initializeCommandHandler(directory, CallbackRecorder::Callback, &recorder_), 1);
    guard_.addChannelOf(tool_);
  }

  int wakeUps() { return SemaphoreValue(tool_.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE); }
  int areaLock() { return SemaphoreValue(tool_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE); }
  int32_t pending() { return __atomic_load_n(&tool_.sharedArea()->pendingCount, __ATOMIC_RELAXED); }

  IpcObjectsGuard guard_;
  CallbackRecorder recorder_;
  CollectorCommandHandler tool_;
};

// ------------------------------------------------------------------------
// Command line

TEST_F(Kyrtctl, HelpPrintsTheManualPage) {
  for (const char* help : {"--help", "-h", "help"}) {
    const KyrtctlRun run = RunKyrtctl({help});
    EXPECT_EQ(run.status, 0) << help;
    for (const char* section :
         {"NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "EXIT STATUS", "EXAMPLES"}) {
      EXPECT_TRUE(Mentions(run.out, section)) << help << " lacks " << section;
    }
    EXPECT_TRUE(run.err.empty());
  }
  EXPECT_EQ(RunKyrtctl({"send", "--help"}).status, 0);
}

TEST_F(Kyrtctl, BadCommandLinesAreUsageErrors) {
  const std::vector<std::vector<std::string>> badLines = {
      {},
      {"launch"},
      {"send"},
      {"send", "1", "2", "3", "4", "5", "6"},
      {"send", "twelve"},
      {"send", "0x100000000"},
      {"send", "-2147483649"},
      {"send", "1", "--payload", "a", "--payload", "b"},
      {"send", "1", "--payload", "a", "--payload-file", "f"},
      {"send", "--then", "1"},
      {"send", "1", "--then"},
      {"send", "1", "--timeout", "-5"},
      {"send", "1", "--timeout"},
      {"send", "1", "--colour"},
      {"status", "3"},
      {"status", "--timeout", "5"},
      {"status", "--payload", "x"},
      {"hold"},
      {"hold", "1", "2"},
      {"hold", "-1"},
  };
  for (const std::vector<std::string>& line : badLines) {
    const KyrtctlRun run = RunKyrtctl(line);
    std::string shown;
    for (const std::string& word : line) shown += word + " ";
    EXPECT_EQ(run.status, kExitUsage) << shown;
    EXPECT_TRUE(Mentions(run.err, "Try 'kyrtctl --help'.")) << shown << run.err;
  }
}

TEST_F(Kyrtctl, UnreadablePayloadFileIsAUsageError) {
  openChannel();
  const KyrtctlRun run = RunKyrtctl({"send", "1", "--payload-file", "missing.bin"});
  EXPECT_EQ(run.status, kExitUsage);
  EXPECT_TRUE(Mentions(run.err, "cannot read payload file missing.bin")) << run.err;
  EXPECT_EQ(pending(), 0);
}

// ------------------------------------------------------------------------
// Failures

TEST_F(Kyrtctl, NoLockFile) {
  ASSERT_EQ(mkdir("empty", 0700), 0);
  for (const char* action : {"send", "status"}) {
    std::vector<std::string> line{action, "--dir", "empty"};
    if (std::string(action) == "send") line.push_back("1");
    const KyrtctlRun run = RunKyrtctl(line);
    EXPECT_EQ(run.status, kExitNoLockFile) << action;
    EXPECT_TRUE(Mentions(run.err, "kyrtctl: no lock file: empty/tsqcmds.dat does not exist"))
        << run.err;
  }
}

TEST_F(Kyrtctl, StaleLockFileAfterAPartialCleanUp) {
  openChannel();
  tool_.cleanupCommandHandler(KYCMDHDLR_CLEAN_PARTIAL);
  ASSERT_TRUE(kyrt_test::FileExists("tsqcmds.dat"));
  for (const char* action : {"send", "status"}) {
    std::vector<std::string> line{action};
    if (std::string(action) == "send") line.push_back("1");
    const KyrtctlRun run = RunKyrtctl(line);
    EXPECT_EQ(run.status, kExitStaleLockFile) << action;
    EXPECT_TRUE(Mentions(run.err, "kyrtctl: stale lock file: tsqcmds.dat")) << run.err;
  }
}

TEST_F(Kyrtctl, StaleLockFileWithoutAnIdentifier) {
  WriteFile("tsqcmds.dat", "ab");
  EXPECT_EQ(RunKyrtctl({"send", "1"}).status, kExitStaleLockFile);
}

TEST_F(Kyrtctl, StaleLockFileWhoseSemaphoreSetIsGone) {
  openChannel();
  semctl(tool_.semaphoreSetId(), 0, IPC_RMID);
  EXPECT_EQ(RunKyrtctl({"status"}).status, kExitStaleLockFile);
}

TEST_F(Kyrtctl, PermissionDenied) {
  openChannel();
  std::fflush(nullptr);
  int status = -1;
  if (geteuid() == 0) {
    // As another user, the scratch directory (mode 0700) and the lock file
    // (mode 0600) are out of reach.
    const pid_t child = fork();
    if (child == 0) {
      if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(100);
      const char* argv[] = {KYRT_TEST_KYRTCTL, "send", "1", nullptr};
      execv(KYRT_TEST_KYRTCTL, const_cast<char* const*>(argv));
      _exit(101);
    }
    status = kyrt_test::WaitForExit(child);
    if (status == 100) GTEST_SKIP() << "cannot switch to user nobody here";
  } else {
    ASSERT_EQ(chmod("tsqcmds.dat", 0), 0);
    status = RunKyrtctl({"send", "1"}).status;
  }
  EXPECT_EQ(status, kExitPermissionDenied);
  EXPECT_EQ(pending(), 0);
}

TEST_F(Kyrtctl, PayloadOver4352BytesIsRefusedBeforeAnythingIsSent) {
  openChannel();
  const std::string tooLarge(KYCMD_PAYLOAD_SIZE + 1, 'x');
  WriteFile("large.bin", tooLarge);
  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"send", "1", "--then", "2", "--payload-file", "large.bin"},
        std::vector<std::string>{"send", "1", "--payload", tooLarge}}) {
    const KyrtctlRun run = RunKyrtctl(line);
    EXPECT_EQ(run.status, kExitPayloadTooLarge);
    EXPECT_TRUE(Mentions(run.err, "kyrtctl: payload too large: 4353 bytes, at most 4352"))
        << run.err;
  }
  EXPECT_EQ(pending(), 0);
  EXPECT_EQ(wakeUps(), 0);
}

TEST_F(Kyrtctl, PayloadOfExactly4352BytesIsSentWhole) {
  openChannel();
  const std::vector<unsigned char> bytes = PatternPayload(9);
  WriteFile("full.bin", std::string(bytes.begin(), bytes.end()));
  ASSERT_EQ(RunKyrtctl({"send", "5", "--payload-file", "full.bin"}).status, 0);
  EXPECT_EQ(tool_.processCommands(), 2);
  ASSERT_EQ(recorder_.count(), 1u);
  EXPECT_EQ(recorder_.deliveries()[0].payload, bytes);
}

TEST_F(Kyrtctl, TimesOutWhileTheToolHoldsTheAreaLock) {
  openChannel();
  ASSERT_EQ(tool_.acquireLock(), 1);
  const Clock::time_point start = Clock::now();
  const KyrtctlRun run = RunKyrtctl({"send", "--timeout", "250", "1"});
  EXPECT_EQ(run.status, kExitTimedOut);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(250));
  EXPECT_TRUE(Mentions(run.err,
                       "kyrtctl: timed out after 250 ms waiting for the command area "
                       "of tsqcmds.dat"))
      << run.err;
  EXPECT_EQ(tool_.releaseLock(), 0);
  EXPECT_EQ(pending(), 0);
}

TEST_F(Kyrtctl, ChannelOfAToolThatEndedWithoutCleaningUpIsAbandoned) {
  ASSERT_EQ(mkdir("gone", 0700), 0);
  guard_.addLockFile("gone/tsqcmds.dat");
  ASSERT_EQ(ExitStatusOfChild([this] {
              CollectorCommandHandler tool;
              return tool.initializeCommandHandler("gone", CallbackRecorder::Callback,
                                                   &recorder_) == 1
                         ? 0
                         : 1;
            }),
            0);
  const KyrtctlRun status = RunKyrtctl({"status", "--dir", "gone"});
  EXPECT_EQ(status.status, kExitNotReady);
  EXPECT_TRUE(Mentions(status.out, "state: abandoned\n")) << status.out;
  EXPECT_TRUE(Mentions(status.out, "tool processes attached: 0\n")) << status.out;
  EXPECT_TRUE(Mentions(status.out, "area lock: taken (0)\n")) << status.out;
  EXPECT_EQ(RunKyrtctl({"send", "--dir", "gone", "--timeout", "100", "1"}).status, kExitTimedOut);
}

TEST_F(Kyrtctl, AreaNotYetMarkedReadyIsNotReady) {
  openChannel();
  tool_.sharedArea()->state = 0;
  const KyrtctlRun status = RunKyrtctl({"status"});
  EXPECT_EQ(status.status, kExitNotReady);
  EXPECT_TRUE(Mentions(status.out, "state: not ready\n")) << status.out;
  EXPECT_EQ(RunKyrtctl({"send", "--timeout", "100", "1"}).status, kExitTimedOut);
  EXPECT_EQ(areaLock(), 1);  // tried and given back
}

// ------------------------------------------------------------------------
// What send, status and hold do

TEST_F(Kyrtctl, SendWritesOneGroupAndPostsOneWakeUp) {
  openChannel("");
  const KyrtctlRun run = RunKyrtctl(
      {"send", "7", "70", "--then", "8", "--then", "9", "1", "2", "3", "4", "--payload", "text"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out.empty());
  EXPECT_EQ(pending(), 3);
  EXPECT_EQ(wakeUps(), 1);
  EXPECT_EQ(areaLock(), 1);
  const KyCommandRecord& last = tool_.sharedArea()->records[2];
  EXPECT_EQ(last.code, 9);
  EXPECT_EQ(last.argument4, 4);
  EXPECT_STREQ(reinterpret_cast<const char*>(last.payload), "text");
  EXPECT_EQ(tool_.processCommands(), 2);
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 3u);
  EXPECT_EQ(deliveries[0].code, 7);
  EXPECT_EQ(deliveries[0].arguments[0], 70);
  EXPECT_EQ(deliveries[0].arguments[1], 0);
  EXPECT_EQ(deliveries[1].code, 8);
  EXPECT_EQ(deliveries[2].code, 9);
}

TEST_F(Kyrtctl, SecondSendGoesBehindThePendingCommands) {
  openChannel();
  ASSERT_EQ(RunKyrtctl({"send", "1", "--then", "2"}).status, 0);
  ASSERT_EQ(RunKyrtctl({"send", "3", "--payload", "after"}).status, 0);
  EXPECT_EQ(pending(), 3);
  EXPECT_EQ(wakeUps(), 2);
  EXPECT_EQ(tool_.sharedArea()->records[2].code, 3);
}

TEST_F(Kyrtctl, NumbersMayBeHexadecimalOctalNegativeOrUnsigned) {
  openChannel();
  ASSERT_EQ(RunKyrtctl({"send", "0xFFFFFFFF", "-1", "0x80000000", "017", "-2147483648"}).status, 0);
  const KyCommandRecord& record = tool_.sharedArea()->records[0];
  EXPECT_EQ(record.code, -1);
  EXPECT_EQ(record.argument1, -1);
  EXPECT_EQ(record.argument2, INT_MIN);
  EXPECT_EQ(record.argument3, 15);
  EXPECT_EQ(record.argument4, INT_MIN);
}

TEST_F(Kyrtctl, OptionsTakeEqualsFormsAndMayComeAnywhere) {
  ASSERT_EQ(mkdir("d", 0700), 0);
  openChannel("d");
  ASSERT_EQ(RunKyrtctl({"send", "4", "--payload=a=b", "--dir=d", "--timeout=1000"}).status, 0);
  EXPECT_STREQ(reinterpret_cast<const char*>(tool_.sharedArea()->records[0].payload), "a=b");
}

TEST_F(Kyrtctl, FullAreaMakesTheSenderNudgeTheToolAndWait) {
  openChannel();
  ASSERT_EQ(
      RunKyrtctl({"send", "1", "--then", "2", "--then", "3", "--then", "4", "--then", "5"}).status,
      0);
  // The tool consumed the wake-up while "a controller held the lock": the
  // records sit there with nobody to announce them.
  ASSERT_EQ(OperateOnSemaphore(tool_.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE, -1), 0);
  ChildGuard sender(StartKyrtctl({"send", "--timeout", "60000", "6"}, "sixth"));
  ASSERT_TRUE(Eventually([&] { return wakeUps() == 1; }));  // the nudge
  EXPECT_EQ(pending(), 5);
  EXPECT_EQ(tool_.processCommands(), 2);
  EXPECT_EQ(sender.wait(), 0);
  EXPECT_EQ(pending(), 1);
  EXPECT_EQ(tool_.sharedArea()->records[0].code, 6);
}

TEST_F(Kyrtctl, StatusCountsPendingCommandsAndWakeUps) {
  openChannel();
  ASSERT_EQ(RunKyrtctl({"send", "1", "--then", "2"}).status, 0);
  const KyrtctlRun run = RunKyrtctl({"status"});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(Mentions(run.out, "state: ready\n")) << run.out;
  EXPECT_TRUE(Mentions(run.out, "pending commands: 2\n")) << run.out;
  EXPECT_TRUE(Mentions(run.out, "wake-up semaphore: 1\n")) << run.out;
  EXPECT_TRUE(Mentions(run.out, "semaphore set id: " + std::to_string(tool_.semaphoreSetId())))
      << run.out;
}

TEST_F(Kyrtctl, HoldTakesTheLockForItsTimeAndGivesItBack) {
  openChannel();
  const KyrtctlRun run = RunKyrtctl({"hold", "0"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Mentions(run.out, "holding the area lock of tsqcmds.dat for 0 s")) << run.out;
  EXPECT_EQ(areaLock(), 1);
  ChildGuard holder(StartKyrtctl({"hold", "600"}, "hold"));
  ASSERT_TRUE(Eventually([&] { return areaLock() == 0; }));
  EXPECT_EQ(tool_.acquireLock(), 0);
  holder.killNow();
  EXPECT_EQ(areaLock(), 1);
  EXPECT_EQ(tool_.acquireLock(), 1);
  EXPECT_EQ(tool_.releaseLock(), 0);
}

TEST_F(Kyrtctl, HoldTimesOutWhenTheLockStaysTaken) {
  openChannel();
  ASSERT_EQ(tool_.acquireLock(), 1);
  EXPECT_EQ(RunKyrtctl({"hold", "--timeout", "100", "5"}).status, kExitTimedOut);
  EXPECT_EQ(tool_.releaseLock(), 0);
}

}  // namespace
