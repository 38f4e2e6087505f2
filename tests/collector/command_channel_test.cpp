// The process-wide channel end to end: the tool registers with the POSIX
// host's helper threads, and kyrtctl, a real second process, is the
// controller. Callbacks arrive on the service thread.
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "collector/command_channel_support.h"
#include "collector/command_service.h"
#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "kyrt/posix_host.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt::collector::ProcessCommandHandler;
using kyrt_test::CallbackRecorder;
using kyrt_test::ChildGuard;
using kyrt_test::Clock;
using kyrt_test::Delivery;
using kyrt_test::Eventually;
using kyrt_test::IpcObjectsGuard;
using kyrt_test::KyrtctlRun;
using kyrt_test::PatternPayload;
using kyrt_test::RunKyrtctl;
using kyrt_test::SemaphoreValue;
using kyrt_test::StartKyrtctl;
using kyrt_test::WriteFile;

constexpr const char* kDirectory = "run";
constexpr int kExitTimedOut = 6;

std::string PayloadFile(const std::string& name, const std::vector<unsigned char>& bytes) {
  return WriteFile(name, std::string(bytes.begin(), bytes.end()));
}

std::vector<unsigned char> TextPayload(const std::string& text) {
  std::vector<unsigned char> bytes(KYCMD_PAYLOAD_SIZE, 0);
  std::copy(text.begin(), text.end(), bytes.begin());
  return bytes;
}

class ChannelWithKyrtctl : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    __KySetThreadProcs(KyPosixHostThreadCreate, KyPosixHostThreadExit, KyPosixHostThreadWait,
                       KyPosixHostAddFini);
    ASSERT_EQ(mkdir(kDirectory, 0700), 0);
  }

  void TearDown() override {
    recorder_.release();
    __KyShutdownCommandHandler();
    __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  }

  void registerTool(int heartbeatSeconds = 0) {
    recorder_.watch(&ProcessCommandHandler());
    ASSERT_EQ(__KyRegisterCommandHandlerWithHeartbeat(kDirectory, CallbackRecorder::Callback,
                                                      &recorder_, heartbeatSeconds),
              1);
    guard_.addChannelOf(ProcessCommandHandler());
  }

  // kyrtctl send --dir run WORDS...
  KyrtctlRun send(std::vector<std::string> words, const std::string& tag = "send") {
    words.insert(words.begin(), {"send", "--dir", kDirectory});
    return RunKyrtctl(words, tag);
  }

  int areaLock() {
    return SemaphoreValue(ProcessCommandHandler().semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE);
  }

  int32_t pendingCount() {
    return __atomic_load_n(&ProcessCommandHandler().sharedArea()->pendingCount, __ATOMIC_RELAXED);
  }

  IpcObjectsGuard guard_;
  CallbackRecorder recorder_;
};

void ExpectCommand(const Delivery& delivery, int code, std::vector<int> arguments,
                   const std::vector<unsigned char>& payload) {
  arguments.resize(4, 0);
  EXPECT_EQ(delivery.code, code);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(delivery.arguments[i], arguments[i]) << "argument " << i;
  ASSERT_TRUE(delivery.hasPayload);
  EXPECT_EQ(delivery.payload, payload);
}

TEST_F(ChannelWithKyrtctl, CommandsArriveInSlotOrderWithArgumentsAndPayloadInOnePass) {
  registerTool();
  const std::vector<unsigned char> binary = PatternPayload(3);  // all 4352 bytes, NULs too
  const KyrtctlRun run =
      send({"11", "1", "2", "3", "4", "--payload-file", PayloadFile("p.bin", binary), "--then",
            "0x12", "-1", "0x7fffffff", "--payload", "collect heap", "--then", "13"});
  ASSERT_EQ(run.status, 0) << run.err;
  ASSERT_TRUE(recorder_.waitForCount(3));
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 3u);
  ExpectCommand(deliveries[0], 11, {1, 2, 3, 4}, binary);
  ExpectCommand(deliveries[1], 0x12, {-1, INT_MAX}, TextPayload("collect heap"));
  ExpectCommand(deliveries[2], 13, {}, TextPayload(""));
  for (const Delivery& delivery : deliveries) {
    // All three were copied before the first call: one pass.
    EXPECT_EQ(delivery.pendingCountSeen, 0);
    EXPECT_EQ(delivery.areaLockSeen, 1);
    EXPECT_EQ(delivery.context, &recorder_);
    EXPECT_NE(delivery.thread, std::this_thread::get_id());
    EXPECT_EQ(delivery.thread, deliveries[0].thread);
  }
}

TEST_F(ChannelWithKyrtctl, FiveCommandsArriveWithOneWakeUp) {
  registerTool();
  const KyrtctlRun run = send({"1", "--then", "2", "--then", "3", "--then", "4", "--then", "5"});
  ASSERT_EQ(run.status, 0) << run.err;
  ASSERT_TRUE(recorder_.waitForCount(5));
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(deliveries[i].code, i + 1);
    EXPECT_EQ(deliveries[i].pendingCountSeen, 0);
  }
  EXPECT_TRUE(Eventually([&] {
    return SemaphoreValue(ProcessCommandHandler().semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE) == 0;
  }));
}

TEST_F(ChannelWithKyrtctl, SixthCommandWaitsForAFreeSlot) {
  registerTool();
  recorder_.blockCallbacks();
  ASSERT_EQ(send({"100"}).status, 0);
  ASSERT_TRUE(recorder_.waitForCount(1));  // the service thread is now busy
  const pid_t sender =
      StartKyrtctl({"send", "--dir", kDirectory, "--timeout", "60000", "1", "--then", "2", "--then",
                    "3", "--then", "4", "--then", "5", "--then", "6"},
                   "six");
  ChildGuard guard(sender);
  ASSERT_TRUE(Eventually([&] { return pendingCount() == KYCMD_RECORD_COUNT; }));
  recorder_.release();
  EXPECT_EQ(guard.wait(), 0) << kyrt_test::ReadFile("six.err");
  ASSERT_TRUE(recorder_.waitForCount(7));
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 7u);
  EXPECT_EQ(deliveries[0].code, 100);
  for (int i = 1; i <= 6; ++i) EXPECT_EQ(deliveries[i].code, i);
}

TEST_F(ChannelWithKyrtctl, SendTimesOutWhileAllSlotsStayFull) {
  registerTool();
  recorder_.blockCallbacks();
  ASSERT_EQ(send({"100"}).status, 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  ASSERT_EQ(send({"1", "--then", "2", "--then", "3", "--then", "4", "--then", "5"}).status, 0);
  const Clock::time_point start = Clock::now();
  const KyrtctlRun late = send({"--timeout", "300", "6"}, "late");
  EXPECT_EQ(late.status, kExitTimedOut);
  EXPECT_NE(late.err.find("timed out after 300 ms"), std::string::npos) << late.err;
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));
  recorder_.release();
  ASSERT_TRUE(recorder_.waitForCount(6));
  EXPECT_FALSE(recorder_.waitForCount(7, std::chrono::milliseconds(500)));
  EXPECT_EQ(recorder_.deliveries().back().code, 5);
}

TEST_F(ChannelWithKyrtctl, ControllerKilledWhileHoldingTheAreaLockGivesItBack) {
  registerTool();
  ChildGuard holder(StartKyrtctl({"hold", "--dir", kDirectory, "600"}, "hold"));
  ASSERT_TRUE(Eventually([&] { return areaLock() == 0; }));
  // Held: another controller cannot get in.
  const KyrtctlRun blocked = send({"--timeout", "200", "7"}, "blocked");
  EXPECT_EQ(blocked.status, kExitTimedOut);
  EXPECT_EQ(holder.killNow(), 128 + SIGKILL);
  EXPECT_EQ(areaLock(), 1);  // SEM_UNDO gave it back
  ASSERT_EQ(send({"8", "80"}).status, 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(recorder_.deliveries()[0].code, 8);
  EXPECT_EQ(recorder_.deliveries()[0].arguments[0], 80);
}

TEST_F(ChannelWithKyrtctl, SeveralControllersAtOnceLoseNothingAndKeepTheirOrder) {
  registerTool();
  constexpr int kControllers = 4;
  constexpr int kCommandsEach = 12;
  std::vector<pid_t> senders;
  for (int controller = 0; controller < kControllers; ++controller) {
    std::vector<std::string> words{"send", "--dir", kDirectory, "--timeout", "60000"};
    for (int i = 0; i < kCommandsEach; ++i) {
      if (i != 0) words.push_back("--then");
      words.push_back(std::to_string(controller));
      words.push_back(std::to_string(i));
    }
    senders.push_back(StartKyrtctl(words, "sender" + std::to_string(controller)));
  }
  for (pid_t sender : senders) EXPECT_EQ(kyrt_test::WaitForExit(sender), 0);
  ASSERT_TRUE(recorder_.waitForCount(kControllers * kCommandsEach));
  std::map<int, int> nextOf;
  for (const Delivery& delivery : recorder_.deliveries()) {
    EXPECT_EQ(delivery.arguments[0], nextOf[delivery.code]++) << "controller " << delivery.code;
  }
  for (int controller = 0; controller < kControllers; ++controller) {
    EXPECT_EQ(nextOf[controller], kCommandsEach);
  }
}

TEST_F(ChannelWithKyrtctl, ShutdownWhileCommandsArriveStopsTheThread) {
  registerTool(1);
  std::vector<std::string> words{"send", "--dir", kDirectory, "--timeout", "3000"};
  for (int i = 0; i < 60; ++i) {
    if (i != 0) words.push_back("--then");
    words.push_back(std::to_string(i));
  }
  ChildGuard sender(StartKyrtctl(words, "flow"));
  ASSERT_TRUE(recorder_.waitForCount(1));
  __KyShutdownCommandHandler();
  EXPECT_TRUE(kyrt::collector::StopRequested());
  EXPECT_EQ(kyrt::collector::ServiceThreadHandle(), 0u);
  const size_t delivered = recorder_.count();
  const int status = sender.wait();
  EXPECT_TRUE(status == 0 || status == kExitTimedOut) << status;
  EXPECT_EQ(recorder_.count(), delivered);  // nothing after the thread ended
  int next = 0;                             // what did arrive, arrived in order
  for (const Delivery& delivery : recorder_.deliveries()) {
    if (delivery.code == KYCMD_HEARTBEAT) continue;
    EXPECT_EQ(delivery.code, next++);
  }
}

TEST_F(ChannelWithKyrtctl, HeartbeatsArriveAtTheirPeriod) {
  const Clock::time_point start = Clock::now();
  registerTool(1);
  ASSERT_TRUE(recorder_.waitForCount(3));
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  // Each heartbeat needs a whole period without a wake-up.
  EXPECT_GE(deliveries[2].when - start, std::chrono::milliseconds(2900));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(deliveries[i].code, KYCMD_HEARTBEAT);
    EXPECT_EQ(deliveries[i].arguments[0], 0);
    EXPECT_EQ(deliveries[i].arguments[3], 0);
    EXPECT_FALSE(deliveries[i].hasPayload);
    EXPECT_EQ(deliveries[i].context, &recorder_);
  }
}

TEST_F(ChannelWithKyrtctl, HeartbeatEveryFiveSecondsAndCommandsBetween) {
  const Clock::time_point start = Clock::now();
  registerTool(5);
  ASSERT_EQ(send({"21"}).status, 0);
  ASSERT_TRUE(recorder_.waitForCount(2, std::chrono::seconds(30)));
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  EXPECT_EQ(deliveries[0].code, 21);
  EXPECT_EQ(deliveries[1].code, 0x11010);
  EXPECT_FALSE(deliveries[1].hasPayload);
  EXPECT_GE(deliveries[1].when - start, std::chrono::milliseconds(4900));
}

TEST_F(ChannelWithKyrtctl, PeriodZeroSendsNoHeartbeat) {
  registerTool(0);
  EXPECT_FALSE(recorder_.waitForCount(1, std::chrono::milliseconds(2500)));
  ASSERT_EQ(send({"31"}).status, 0);
  ASSERT_TRUE(recorder_.waitForCount(1));
  EXPECT_EQ(recorder_.deliveries()[0].code, 31);
}

TEST_F(ChannelWithKyrtctl, StatusShowsAReadyChannel) {
  registerTool();
  const KyrtctlRun run = RunKyrtctl({"status", "--dir", kDirectory});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("lock file: run/tsqcmds.dat\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("state: ready\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("tool processes attached: 1\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("pending commands: 0\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("wake-up semaphore: 0\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("area lock: free (1)\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("shared memory id: " +
                         std::to_string(ProcessCommandHandler().sharedMemoryId()) + "\n"),
            std::string::npos);
}

TEST_F(ChannelWithKyrtctl, CommandsSentAfterShutdownStayPending) {
  registerTool();
  __KyShutdownCommandHandler();
  ASSERT_EQ(send({"41"}).status, 0);
  const KyrtctlRun status = RunKyrtctl({"status", "--dir", kDirectory});
  EXPECT_NE(status.out.find("pending commands: 1\n"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("wake-up semaphore: 1\n"), std::string::npos) << status.out;
  EXPECT_EQ(recorder_.count(), 0u);
}

}  // namespace
