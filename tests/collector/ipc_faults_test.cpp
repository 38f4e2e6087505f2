// The command channel under IPC faults: the lock file and semaphore set of
// an earlier run that was killed, a controller killed while it holds the
// area lock, and channel objects removed by someone else while the channel
// is in use.
//
// A killed process is a real one: a forked child that gets SIGKILL at the
// chosen point, so that the kernel (not the test) decides what its SEM_UNDO
// operations leave behind.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>

#include "collector/command_channel_support.h"
#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "support/fault_child.h"
#include "support/test_files.h"

namespace kyrt_test {
namespace {

constexpr int kNothingPending = 0;
constexpr int kAreaLockBusy = 1;
constexpr int kDispatched = 2;
constexpr int kLockFree = 1;
constexpr int kLockTaken = 0;
constexpr int kStaleWakeUps = 2;
constexpr int kRecordsSent = 2;
constexpr int kFirstCode = 0x700;
constexpr const char* kLockFile = KYCMD_LOCK_FILE_NAME;

void IgnoreCommand(int, int, int, int, int, unsigned char*, void*) {}

// Writes count records into the area as a controller would once it holds
// the area lock.
void WriteRecords(KyCommandArea* area, int count) {
  for (int slot = 0; slot < count; ++slot) {
    KyCommandRecord& record = area->records[slot];
    record.code = kFirstCode + slot;
    record.argument1 = slot;
    record.argument2 = slot + 1;
    record.argument3 = slot + 2;
    record.argument4 = slot + 3;
    const std::vector<unsigned char> payload = PatternPayload(slot);
    std::memcpy(record.payload, payload.data(), payload.size());
  }
  __atomic_store_n(&area->pendingCount, count, __ATOMIC_RELAXED);
}

void ExpectRecordsDelivered(CallbackRecorder& recorder, int count) {
  const std::vector<Delivery> deliveries = recorder.deliveries();
  ASSERT_EQ(deliveries.size(), static_cast<size_t>(count));
  for (int slot = 0; slot < count; ++slot) {
    EXPECT_EQ(deliveries[slot].code, kFirstCode + slot);
    EXPECT_EQ(deliveries[slot].arguments[0], slot);
    EXPECT_EQ(deliveries[slot].arguments[3], slot + 3);
    EXPECT_EQ(deliveries[slot].payload, PatternPayload(slot));
  }
}

class IpcFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    KyPosixHostInstall();
    __KyRtStartup();
  }
  void TearDown() override { handler_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL); }

  int initialize() {
    const int result =
        handler_.initializeCommandHandler("", CallbackRecorder::Callback, &recorder_);
    guard_.addChannelOf(handler_);
    return result;
  }

  int areaLock() { return SemaphoreValue(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE); }

  IpcObjectsGuard guard_;
  CallbackRecorder recorder_;
  CollectorCommandHandler handler_;
};

// ---------------------------------------------------------------------------
// Leftovers of a killed run

// A tool run killed after commands were announced to it but before it took
// them: its lock file, semaphore set and segment stay behind. The kernel
// undoes the run's release of the area lock, so the lock is left taken.
bool OpenChannelAndLeaveCommandsPending() {
  static CollectorCommandHandler earlier;
  if (earlier.initializeCommandHandler("", IgnoreCommand, nullptr) != 1) return false;
  WriteRecords(earlier.sharedArea(), kRecordsSent);
  return OperateOnSemaphore(earlier.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE, kStaleWakeUps) == 0;
}

TEST_F(IpcFaults, ChannelOfAKilledEarlierRunIsTakenOverAndReset) {
  guard_.addLockFile(kLockFile);
  ChildKilledLater earlierRun(OpenChannelAndLeaveCommandsPending);
  ASSERT_TRUE(earlierRun.ready());
  EXPECT_EQ(earlierRun.killNow().signal, SIGKILL);

  const int staleSet = SemaphoreSetOfLockFile(kLockFile);
  const int staleSegment = SegmentIdInLockFile(kLockFile);
  guard_.addSemaphoreSet(staleSet);
  guard_.addSegment(staleSegment);
  ASSERT_TRUE(SemaphoreSetExists(staleSet));
  EXPECT_EQ(SemaphoreValue(staleSet, KYCMD_AREA_LOCK_SEMAPHORE), kLockTaken);
  EXPECT_EQ(SemaphoreValue(staleSet, KYCMD_WAKE_UP_SEMAPHORE), kStaleWakeUps);

  ASSERT_EQ(initialize(), 1);
  EXPECT_EQ(handler_.semaphoreSetId(), staleSet);  // the set is found by its key and reused
  EXPECT_EQ(areaLock(), kLockFree);
  EXPECT_EQ(SemaphoreValue(staleSet, KYCMD_WAKE_UP_SEMAPHORE), 0);
  EXPECT_EQ(SegmentIdInLockFile(kLockFile), handler_.sharedMemoryId());
  EXPECT_NE(handler_.sharedMemoryId(), staleSegment);
  EXPECT_EQ(handler_.sharedArea()->pendingCount, 0);  // the stale commands are not replayed
  EXPECT_EQ(handler_.processCommands(), kNothingPending);

  // The new channel works end to end.
  WriteRecords(handler_.sharedArea(), kRecordsSent);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  ExpectRecordsDelivered(recorder_, kRecordsSent);

  // The earlier run's segment had a private key and is nobody's now: the
  // runtime does not know it, so it stays until removed (here, by the guard).
  EXPECT_TRUE(SharedMemoryExists(staleSegment));
}

TEST_F(IpcFaults, StaleLockFileWithoutASemaphoreSetIsReusedInPlace) {
  const std::string stale(64, '\xEE');
  WriteFile(kLockFile, stale);
  guard_.addLockFile(kLockFile);
  ASSERT_EQ(SemaphoreSetOfLockFile(kLockFile), -1);

  ASSERT_EQ(initialize(), 1);
  const std::string content = ReadFile(kLockFile);
  ASSERT_EQ(content.size(), stale.size());  // not truncated
  EXPECT_EQ(SegmentIdInLockFile(kLockFile), handler_.sharedMemoryId());
  EXPECT_EQ(content.substr(sizeof(int)), stale.substr(sizeof(int)));
  EXPECT_EQ(areaLock(), kLockFree);
}

// ---------------------------------------------------------------------------
// A controller killed while it holds the area lock

TEST_F(IpcFaults, ControllerKilledHoldingTheAreaLockReleasesItThroughUndo) {
  ASSERT_EQ(initialize(), 1);
  KyCommandArea* area = handler_.sharedArea();
  const int set = handler_.semaphoreSetId();
  ChildKilledLater controller([&] {
    if (OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO) != 0) return false;
    WriteRecords(area, kRecordsSent);  // written, but never released or announced
    return true;
  });
  ASSERT_TRUE(controller.ready());
  EXPECT_EQ(areaLock(), kLockTaken);
  EXPECT_EQ(handler_.processCommands(), kAreaLockBusy);
  EXPECT_EQ(recorder_.count(), 0u);
  EXPECT_EQ(area->pendingCount, kRecordsSent);

  EXPECT_EQ(controller.killNow().signal, SIGKILL);
  EXPECT_EQ(areaLock(), kLockFree);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  ExpectRecordsDelivered(recorder_, kRecordsSent);
  EXPECT_EQ(area->pendingCount, 0);
  EXPECT_EQ(areaLock(), kLockFree);
}

TEST_F(IpcFaults, ControllerKilledBeforeRaisingTheCountLeavesNothingPending) {
  ASSERT_EQ(initialize(), 1);
  KyCommandArea* area = handler_.sharedArea();
  const int set = handler_.semaphoreSetId();
  ChildKilledLater controller([&] {
    if (OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO) != 0) return false;
    WriteRecords(area, 0);
    return true;
  });
  ASSERT_TRUE(controller.ready());
  EXPECT_EQ(controller.killNow().signal, SIGKILL);
  EXPECT_EQ(areaLock(), kLockFree);
  EXPECT_EQ(handler_.processCommands(), kNothingPending);
  EXPECT_EQ(recorder_.count(), 0u);
}

// ---------------------------------------------------------------------------
// Objects removed by someone else

TEST_F(IpcFaults, SegmentMarkedForRemovalElsewhereStaysUsableUntilCleanUp) {
  ASSERT_EQ(initialize(), 1);
  ASSERT_EQ(shmctl(handler_.sharedMemoryId(), IPC_RMID, nullptr), 0);
  WriteRecords(handler_.sharedArea(), kRecordsSent);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  ExpectRecordsDelivered(recorder_, kRecordsSent);
  handler_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(handler_.sharedArea(), nullptr);
}

// The process-wide channel: its service thread waits on the semaphore set;
// when the set disappears the wait fails and the thread ends. Shutting down
// and unregistering afterwards must still return and clean up.
TEST_F(IpcFaults, SemaphoreSetRemovedUnderTheServiceThreadEndsItCleanly) {
  guard_.addLockFile(kLockFile);
  ASSERT_EQ(__KyRegisterCommandHandlerWithHeartbeat("", CallbackRecorder::Callback, &recorder_, 0),
            1);
  const int set = SemaphoreSetOfLockFile(kLockFile);
  guard_.addSemaphoreSet(set);
  guard_.addSegment(SegmentIdInLockFile(kLockFile));
  ASSERT_TRUE(SemaphoreSetExists(set));
  ASSERT_EQ(semctl(set, 0, IPC_RMID), 0);

  const Clock::time_point start = Clock::now();
  __KyShutdownCommandHandler();
  EXPECT_LT(Clock::now() - start, kPatience);
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(recorder_.count(), 0u);
}

}  // namespace
}  // namespace kyrt_test
