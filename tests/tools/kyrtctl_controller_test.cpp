// The controller library (kyrt/controller.h) against a handler object of
// the case's own: opening and what each missing piece is reported as,
// sending and its checks, waiting and its time-outs, the area lock, and the
// channel's description.
#include "kyrt/controller.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "collector/command_channel_support.h"
#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt_test::CallbackRecorder;
using kyrt_test::Clock;
using kyrt_test::IpcObjectsGuard;
using kyrt_test::PatternPayload;
using kyrt_test::SemaphoreValue;
using kyrt_test::WriteFile;

KyControllerCommand Command(int32_t code, const void* payload = nullptr, size_t size = 0) {
  KyControllerCommand command{};
  command.code = code;
  command.argument1 = code + 1;
  command.argument2 = code + 2;
  command.argument3 = code + 3;
  command.argument4 = code + 4;
  command.payload = payload;
  command.payloadSize = size;
  return command;
}

class Controller : public kyrt_test::RuntimeTest {
 protected:
  void TearDown() override {
    KyControllerClose(controller_);
    tool_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  }

  void openChannel() {
    ASSERT_EQ(tool_.initializeCommandHandler("", CallbackRecorder::Callback, &recorder_), 1);
    guard_.addChannelOf(tool_);
    ASSERT_EQ(KyControllerOpen("", &controller_), KYCTL_OK);
    ASSERT_NE(controller_, nullptr);
  }

  KyCommandArea* area() { return tool_.sharedArea(); }
  int wakeUps() { return SemaphoreValue(tool_.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE); }
  int areaLock() { return SemaphoreValue(tool_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE); }

  IpcObjectsGuard guard_;
  CallbackRecorder recorder_;
  CollectorCommandHandler tool_;
  KyController* controller_ = nullptr;
};

TEST(ControllerLockFilePath, JoinsDirectoryAndNameWithOneSlash) {
  char buffer[64];
  ASSERT_EQ(KyControllerLockFilePath(nullptr, buffer, sizeof buffer), 1);
  EXPECT_STREQ(buffer, "tsqcmds.dat");
  ASSERT_EQ(KyControllerLockFilePath("", buffer, sizeof buffer), 1);
  EXPECT_STREQ(buffer, "tsqcmds.dat");
  ASSERT_EQ(KyControllerLockFilePath("run", buffer, sizeof buffer), 1);
  EXPECT_STREQ(buffer, "run/tsqcmds.dat");
  ASSERT_EQ(KyControllerLockFilePath("/tmp/run/", buffer, sizeof buffer), 1);
  EXPECT_STREQ(buffer, "/tmp/run/tsqcmds.dat");
}

TEST(ControllerLockFilePath, RefusesABufferTooSmall) {
  char buffer[16];
  EXPECT_EQ(KyControllerLockFilePath("run", buffer, sizeof("run/tsqcmds.dat")), 1);
  EXPECT_EQ(KyControllerLockFilePath("runs", buffer, sizeof("run/tsqcmds.dat")), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(KyControllerLockFilePath("", nullptr, 64), 0);
  EXPECT_EQ(KyControllerLockFilePath("", buffer, 0), 0);
}

TEST(ControllerStatusText, EveryStatusHasItsOwnText) {
  std::set<std::string> texts;
  for (KyControllerStatus status :
       {KYCTL_OK, KYCTL_INVALID_ARGUMENT, KYCTL_NO_LOCK_FILE, KYCTL_STALE_LOCK_FILE,
        KYCTL_PERMISSION_DENIED, KYCTL_PAYLOAD_TOO_LARGE, KYCTL_TIMED_OUT, KYCTL_SYSTEM_ERROR}) {
    texts.insert(KyControllerStatusText(status));
  }
  EXPECT_EQ(texts.size(), 8u);
  EXPECT_STREQ(KyControllerStatusText(KYCTL_NO_LOCK_FILE), "no lock file");
  EXPECT_STREQ(KyControllerStatusText(static_cast<KyControllerStatus>(99)), "unknown status");
}

// ------------------------------------------------------------------------
// Opening

TEST_F(Controller, OpenWithoutALockFileReportsIt) {
  KyController* controller = reinterpret_cast<KyController*>(1);
  EXPECT_EQ(KyControllerOpen("", &controller), KYCTL_NO_LOCK_FILE);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(controller, nullptr);
  EXPECT_EQ(KyControllerOpen("no/such/dir", &controller), KYCTL_NO_LOCK_FILE);
  EXPECT_EQ(KyControllerOpen("", nullptr), KYCTL_INVALID_ARGUMENT);
}

TEST_F(Controller, OpenOfAFileWithoutIdentifierIsStale) {
  WriteFile("tsqcmds.dat", "xyz");
  KyController* controller = nullptr;
  EXPECT_EQ(KyControllerOpen("", &controller), KYCTL_STALE_LOCK_FILE);
  EXPECT_EQ(controller, nullptr);
}

TEST_F(Controller, OpenAfterThePartialCleanUpIsStale) {
  openChannel();
  KyControllerClose(controller_);
  controller_ = nullptr;
  tool_.cleanupCommandHandler(KYCMDHDLR_CLEAN_PARTIAL);
  KyController* controller = nullptr;
  EXPECT_EQ(KyControllerOpen("", &controller), KYCTL_STALE_LOCK_FILE);
}

TEST_F(Controller, SegmentOfAnotherSizeUnderTheIdentifierIsStale) {
  const int other = shmget(IPC_PRIVATE, 100, IPC_CREAT | 0600);
  ASSERT_GE(other, 0);
  guard_.addSegment(other);
  WriteFile("tsqcmds.dat", std::string(reinterpret_cast<const char*>(&other), sizeof other));
  KyController* controller = nullptr;
  EXPECT_EQ(KyControllerOpen("", &controller), KYCTL_STALE_LOCK_FILE);
}

TEST_F(Controller, OpenWithoutTheSemaphoreSetIsStale) {
  openChannel();
  KyControllerClose(controller_);
  controller_ = nullptr;
  ASSERT_EQ(semctl(tool_.semaphoreSetId(), 0, IPC_RMID), 0);
  KyController* controller = nullptr;
  EXPECT_EQ(KyControllerOpen("", &controller), KYCTL_STALE_LOCK_FILE);
}

TEST_F(Controller, OpenedChannelNamesItsPath) {
  openChannel();
  EXPECT_STREQ(KyControllerPath(controller_), "tsqcmds.dat");
  EXPECT_STREQ(KyControllerPath(nullptr), "");
}

// ------------------------------------------------------------------------
// Sending

TEST_F(Controller, SendWritesRecordsZeroFillsPayloadsAndAnnouncesOnce) {
  openChannel();
  area()->records[1].payload[100] = 0x5A;  // stale bytes of an earlier command
  const std::vector<unsigned char> full = PatternPayload(1);
  const KyControllerCommand commands[] = {Command(10, full.data(), full.size()),
                                          Command(20, "ab", 2), Command(30)};
  ASSERT_EQ(KyControllerSend(controller_, commands, 3, 1000), KYCTL_OK);
  EXPECT_EQ(area()->pendingCount, 3);
  EXPECT_EQ(wakeUps(), 1);
  EXPECT_EQ(areaLock(), 1);
  EXPECT_EQ(std::memcmp(area()->records[0].payload, full.data(), full.size()), 0);
  EXPECT_EQ(area()->records[1].payload[0], 'a');
  EXPECT_EQ(area()->records[1].payload[2], 0);
  EXPECT_EQ(area()->records[1].payload[100], 0);
  EXPECT_EQ(area()->records[2].code, 30);
  EXPECT_EQ(area()->records[2].argument4, 34);
}

TEST_F(Controller, SendChecksEveryPayloadBeforeSendingAny) {
  openChannel();
  const std::vector<unsigned char> large(KYCMD_PAYLOAD_SIZE + 1, 1);
  const KyControllerCommand commands[] = {Command(1), Command(2, large.data(), large.size())};
  EXPECT_EQ(KyControllerSend(controller_, commands, 2, 1000), KYCTL_PAYLOAD_TOO_LARGE);
  const KyControllerCommand missing[] = {Command(3, nullptr, 5)};
  EXPECT_EQ(KyControllerSend(controller_, missing, 1, 1000), KYCTL_INVALID_ARGUMENT);
  EXPECT_EQ(KyControllerSend(controller_, nullptr, 1, 1000), KYCTL_INVALID_ARGUMENT);
  EXPECT_EQ(KyControllerSend(controller_, commands, -1, 1000), KYCTL_INVALID_ARGUMENT);
  EXPECT_EQ(KyControllerSend(nullptr, commands, 1, 1000), KYCTL_INVALID_ARGUMENT);
  EXPECT_EQ(area()->pendingCount, 0);
  EXPECT_EQ(wakeUps(), 0);
}

TEST_F(Controller, SendingNothingDoesNothing) {
  openChannel();
  EXPECT_EQ(KyControllerSend(controller_, nullptr, 0, 0), KYCTL_OK);
  EXPECT_EQ(wakeUps(), 0);
}

TEST_F(Controller, ZeroTimeoutTriesOnceWithoutWaiting) {
  openChannel();
  ASSERT_EQ(tool_.acquireLock(), 1);
  const KyControllerCommand command = Command(1);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(KyControllerSend(controller_, &command, 1, 0), KYCTL_TIMED_OUT);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(tool_.releaseLock(), 0);
  EXPECT_EQ(KyControllerSend(controller_, &command, 1, 0), KYCTL_OK);
}

TEST_F(Controller, CountOutOfRangeReadsAsEmptyBelowAndFullAbove) {
  openChannel();
  const KyControllerCommand command = Command(1);
  area()->pendingCount = -4;
  ASSERT_EQ(KyControllerSend(controller_, &command, 1, 100), KYCTL_OK);
  EXPECT_EQ(area()->pendingCount, 1);
  area()->pendingCount = 9;
  EXPECT_EQ(KyControllerSend(controller_, &command, 1, 100), KYCTL_TIMED_OUT);
  EXPECT_EQ(area()->pendingCount, 9);
}

TEST_F(Controller, MoreCommandsThanSlotsGoOutAsTheToolFreesThem) {
  openChannel();
  std::vector<KyControllerCommand> commands;
  for (int i = 0; i < 12; ++i) commands.push_back(Command(i));
  // The tool drains the area as fast as it can, on its own thread.
  std::atomic<bool> done{false};
  std::thread tool([&] {
    while (!done) {
      tool_.processCommands();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const KyControllerStatus sent = KyControllerSend(controller_, commands.data(), 12, 20000);
  while (__atomic_load_n(&area()->pendingCount, __ATOMIC_RELAXED) != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  done = true;
  tool.join();
  ASSERT_EQ(sent, KYCTL_OK);
  const std::vector<kyrt_test::Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 12u);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(deliveries[i].code, i);
}

TEST_F(Controller, AreaLockCanBeHeldAndIsGivenBackOnClose) {
  openChannel();
  ASSERT_EQ(KyControllerAcquireArea(controller_, 1000), KYCTL_OK);
  EXPECT_EQ(areaLock(), 0);
  EXPECT_EQ(KyControllerAcquireArea(controller_, 0), KYCTL_INVALID_ARGUMENT);
  const KyControllerCommand command = Command(1);
  EXPECT_EQ(KyControllerSend(controller_, &command, 1, 0), KYCTL_INVALID_ARGUMENT);
  EXPECT_EQ(KyControllerReleaseArea(controller_), KYCTL_OK);
  EXPECT_EQ(KyControllerReleaseArea(controller_), KYCTL_INVALID_ARGUMENT);
  EXPECT_EQ(areaLock(), 1);
  ASSERT_EQ(KyControllerAcquireArea(controller_, 1000), KYCTL_OK);
  KyControllerClose(controller_);
  controller_ = nullptr;
  EXPECT_EQ(areaLock(), 1);
}

TEST_F(Controller, AreaNotMarkedReadyIsWaitedForUntilTheTimeOut) {
  openChannel();
  area()->state = 0;
  EXPECT_EQ(KyControllerAcquireArea(controller_, 100), KYCTL_TIMED_OUT);
  EXPECT_EQ(areaLock(), 1);
  area()->state = KYCMD_AREA_READY;
  EXPECT_EQ(KyControllerAcquireArea(controller_, 100), KYCTL_OK);
}

TEST_F(Controller, AnnounceRaisesTheWakeUpOnly) {
  openChannel();
  EXPECT_EQ(KyControllerAnnounce(controller_), KYCTL_OK);
  EXPECT_EQ(wakeUps(), 1);
  EXPECT_EQ(area()->pendingCount, 0);
  EXPECT_EQ(tool_.processCommands(), 0);  // a wake-up with nothing pending
  EXPECT_EQ(KyControllerAnnounce(nullptr), KYCTL_INVALID_ARGUMENT);
}

TEST_F(Controller, DescriptionIsASnapshotOfTheChannel) {
  openChannel();
  const KyControllerCommand command = Command(1);
  ASSERT_EQ(KyControllerSend(controller_, &command, 1, 1000), KYCTL_OK);
  KyChannelDescription description{};
  ASSERT_EQ(KyControllerDescribe(controller_, &description), KYCTL_OK);
  EXPECT_EQ(description.sharedMemoryId, tool_.sharedMemoryId());
  EXPECT_EQ(description.semaphoreSetId, tool_.semaphoreSetId());
  EXPECT_EQ(description.attachedProcesses, 1u);  // the tool (this very process)
  EXPECT_EQ(description.state, KYCMD_AREA_READY);
  EXPECT_EQ(description.pendingCount, 1);
  EXPECT_EQ(description.wakeUpValue, 1);
  EXPECT_EQ(description.areaLockValue, 1);
  EXPECT_EQ(KyControllerDescribe(controller_, nullptr), KYCTL_INVALID_ARGUMENT);
}

TEST_F(Controller, ChannelRemovedUnderAnOpenControllerIsStale) {
  openChannel();
  tool_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  const KyControllerCommand command = Command(1);
  EXPECT_EQ(KyControllerSend(controller_, &command, 1, 100), KYCTL_STALE_LOCK_FILE);
  KyChannelDescription description{};
  EXPECT_EQ(KyControllerDescribe(controller_, &description), KYCTL_STALE_LOCK_FILE);
}

}  // namespace
