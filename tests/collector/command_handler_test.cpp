// CollectorCommandHandler on objects of the test's own: the wire format, the
// lock file path, creation with its failure paths A, B and C, clean-up, the
// area lock, the processing of commands and heartbeats, and safeOpen.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "collector/channel_system_calls.h"
#include "collector/command_channel_support.h"
#include "collector/safe_open.h"
#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "support/test_files.h"
#include "sync/lock_test_support.h"
#include "util/child_process.h"

namespace {

using kyrt::collector::ChannelSystemCalls;
using kyrt::collector::SetChannelSystemCallsForTesting;
using kyrt_test::CallbackRecorder;
using kyrt_test::Delivery;
using kyrt_test::ExitStatusOfChild;
using kyrt_test::FileExists;
using kyrt_test::IpcObjectsGuard;
using kyrt_test::IsClosed;
using kyrt_test::OperateOnSemaphore;
using kyrt_test::PatternPayload;
using kyrt_test::ReadFile;
using kyrt_test::SegmentIdInLockFile;
using kyrt_test::SemaphoreSetExists;
using kyrt_test::SemaphoreSetOfLockFile;
using kyrt_test::SemaphoreValue;
using kyrt_test::SharedMemoryExists;
using kyrt_test::WriteFile;

constexpr int kAllChecksHeld = 0;
constexpr const char* kLockFile = KYCMD_LOCK_FILE_NAME;

// processCommands and processHeartbeat results.
constexpr int kNoSharedArea = -1;
constexpr int kNothingPending = 0;
constexpr int kAreaLockBusy = 1;
constexpr int kDispatched = 2;

// ------------------------------------------------------------------------
// The system-call seam: every call is logged, chosen calls fail.

struct SeamCall {
  std::string name;
  long long first;
  long long second;
  long long third;
};

struct SeamScript {
  std::vector<SeamCall> calls;
  int failSetValueCall = 0;  // 1-based index of the setSemaphoreValue call that fails
  int setValueCalls = 0;
  bool failGetSharedMemory = false;
  bool shortWrite = false;
  bool failAttach = false;
  bool dirtyAttachedArea = false;
};

SeamScript g_script;

int LoggedGetSemaphoreSet(key_t key, int count, int flags) {
  g_script.calls.push_back({"semget", key, count, flags});
  return semget(key, count, flags);
}

int LoggedSetSemaphoreValue(int set, int number, int value) {
  g_script.calls.push_back({"setval", set, number, value});
  if (++g_script.setValueCalls == g_script.failSetValueCall) {
    errno = EINVAL;
    return -1;
  }
  return semctl(set, number, SETVAL, value);
}

int LoggedRemoveSemaphoreSet(int set) {
  g_script.calls.push_back({"semrm", set, 0, 0});
  return semctl(set, 0, IPC_RMID);
}

int LoggedGetSharedMemory(key_t key, size_t size, int flags) {
  g_script.calls.push_back({"shmget", key, static_cast<long long>(size), flags});
  if (g_script.failGetSharedMemory) {
    errno = ENOSPC;
    return -1;
  }
  return shmget(key, size, flags);
}

void* LoggedAttachSharedMemory(int id, const void* address, int flags) {
  g_script.calls.push_back({"shmat", id, address == nullptr ? 0 : 1, flags});
  if (g_script.failAttach) {
    errno = ENOMEM;
    return reinterpret_cast<void*>(-1);
  }
  void* area = shmat(id, address, flags);
  if (g_script.dirtyAttachedArea && area != reinterpret_cast<void*>(-1)) {
    std::memset(area, 0xAB, KYCMD_AREA_SIZE);
  }
  return area;
}

int LoggedRemoveSharedMemory(int id) {
  g_script.calls.push_back({"shmrm", id, 0, 0});
  return shmctl(id, IPC_RMID, nullptr);
}

ssize_t LoggedWrite(int fd, const void* buffer, size_t size) {
  g_script.calls.push_back({"write", fd, static_cast<long long>(size), 0});
  if (g_script.shortWrite) return write(fd, buffer, size / 2);
  return write(fd, buffer, size);
}

// Puts the logging calls in place for one case and the plain ones back
// afterwards.
class SeamInPlace {
 public:
  SeamInPlace() {
    g_script = SeamScript{};
    SetChannelSystemCallsForTesting(ChannelSystemCalls{
        LoggedGetSemaphoreSet, LoggedSetSemaphoreValue, LoggedRemoveSemaphoreSet,
        LoggedGetSharedMemory, LoggedAttachSharedMemory, LoggedRemoveSharedMemory, LoggedWrite});
  }
  ~SeamInPlace() { SetChannelSystemCallsForTesting(ChannelSystemCalls{}); }
  SeamInPlace(const SeamInPlace&) = delete;
  SeamInPlace& operator=(const SeamInPlace&) = delete;
};

size_t CallsNamed(const std::string& name) {
  size_t count = 0;
  for (const SeamCall& call : g_script.calls) count += call.name == name ? 1 : 0;
  return count;
}

// ------------------------------------------------------------------------

// A handler object of the case's own. Whatever it created is cleaned up
// and its System V objects removed, also when the case fails.
class CommandHandlerObject : public kyrt_test::RuntimeTest {
 protected:
  void TearDown() override { handler_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL); }

  int initialize(const char* directory = "") {
    const int result =
        handler_.initializeCommandHandler(directory, CallbackRecorder::Callback, &recorder_);
    guard_.addChannelOf(handler_);
    recorder_.watch(&handler_);
    return result;
  }

  KyCommandArea* area() { return handler_.sharedArea(); }

  // Writes records as a controller would, holding the area lock.
  void writeRecords(int count, int32_t countWritten) {
    ASSERT_EQ(
        OperateOnSemaphore(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO), 0);
    for (int slot = 0; slot < count; ++slot) {
      KyCommandRecord& record = area()->records[slot];
      record.code = 100 + slot;
      record.argument1 = slot;
      record.argument2 = -slot;
      record.argument3 = INT_MAX - slot;
      record.argument4 = INT_MIN + slot;
      const std::vector<unsigned char> payload = PatternPayload(slot);
      std::memcpy(record.payload, payload.data(), payload.size());
    }
    area()->pendingCount = countWritten;
    ASSERT_EQ(OperateOnSemaphore(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE, 1, SEM_UNDO),
              0);
  }

  void expectRecordDelivered(const Delivery& delivery, int slot) {
    EXPECT_EQ(delivery.code, 100 + slot);
    EXPECT_EQ(delivery.arguments[0], slot);
    EXPECT_EQ(delivery.arguments[1], -slot);
    EXPECT_EQ(delivery.arguments[2], INT_MAX - slot);
    EXPECT_EQ(delivery.arguments[3], INT_MIN + slot);
    ASSERT_TRUE(delivery.hasPayload);
    EXPECT_EQ(delivery.payload, PatternPayload(slot));
    EXPECT_EQ(delivery.context, &recorder_);
  }

  IpcObjectsGuard guard_;
  CallbackRecorder recorder_;
  CollectorCommandHandler handler_;
};

using CommandChannelLayout = CommandHandlerObject;
using LockFilePath = CommandHandlerObject;
using ChannelCreation = CommandHandlerObject;
using ChannelCleanUp = CommandHandlerObject;
using AreaLock = CommandHandlerObject;
using ProcessCommands = CommandHandlerObject;
using ProcessHeartbeat = CommandHandlerObject;

// ------------------------------------------------------------------------
// Layout

TEST(CommandChannelWireFormat, RecordAndAreaHaveTheirFixedSizesAndOffsets) {
  EXPECT_EQ(sizeof(KyCommandRecord), 4372u);
  EXPECT_EQ(offsetof(KyCommandRecord, code), 0u);
  EXPECT_EQ(offsetof(KyCommandRecord, argument1), 4u);
  EXPECT_EQ(offsetof(KyCommandRecord, argument2), 8u);
  EXPECT_EQ(offsetof(KyCommandRecord, argument3), 12u);
  EXPECT_EQ(offsetof(KyCommandRecord, argument4), 16u);
  EXPECT_EQ(offsetof(KyCommandRecord, payload), 20u);
  EXPECT_EQ(sizeof(KyCommandRecord::payload), 4352u);
  EXPECT_EQ(sizeof(KyCommandArea), 21868u);
  EXPECT_EQ(sizeof(KyCommandArea), 0x556Cu);
  EXPECT_EQ(offsetof(KyCommandArea, state), 0u);
  EXPECT_EQ(offsetof(KyCommandArea, pendingCount), 4u);
  EXPECT_EQ(offsetof(KyCommandArea, records), 8u);
  EXPECT_EQ(offsetof(KyCommandArea, records[4]), 8u + 4 * 4372u);
}

TEST(CommandChannelWireFormat, ConstantsAndCleanUpExtents) {
  EXPECT_EQ(KYCMD_HEARTBEAT, 0x11010);
  EXPECT_EQ(KYCMD_HEARTBEAT, 69648);
  EXPECT_STREQ(KYCMD_LOCK_FILE_NAME, "tsqcmds.dat");
  EXPECT_EQ(sizeof(_KYCMDHDLRCLEANEXTENT), 4u);
  EXPECT_EQ(KYCMDHDLR_CLEAN_FULL, 0);
  EXPECT_EQ(KYCMDHDLR_CLEAN_PARTIAL, 1);
}

TEST(CommandChannelWireFormat, HandlerObjectHasTheDocumentedSize) {
  // Pointer, 4096-byte path, callback, context, descriptor, two ids around
  // a 64-bit word, and a six-byte semaphore operation, padded to 8.
  EXPECT_EQ(sizeof(CollectorCommandHandler), 4152u);
}

TEST_F(CommandChannelLayout, NewHandlerHasNothingAttached) {
  CollectorCommandHandler handler;
  EXPECT_EQ(handler.sharedArea(), nullptr);
  EXPECT_EQ(handler.callback(), nullptr);
  EXPECT_EQ(handler.callbackContext(), nullptr);
  EXPECT_EQ(handler.lockFileDescriptor(), -1);
  EXPECT_EQ(handler.sharedMemoryId(), -1);
  EXPECT_EQ(handler.semaphoreSetId(), -1);
  EXPECT_STREQ(handler.lockFilePath(), "");
}

// ------------------------------------------------------------------------
// Lock file path

TEST_F(LockFilePath, EmptyDirectoryMeansTheBareNameInTheCurrentDirectory) {
  ASSERT_EQ(initialize(""), 1);
  EXPECT_STREQ(handler_.lockFilePath(), "tsqcmds.dat");
  EXPECT_TRUE(FileExists("tsqcmds.dat"));
}

TEST_F(LockFilePath, DirectoryWithoutTrailingSlashGetsOne) {
  ASSERT_EQ(mkdir("sub", 0700), 0);
  ASSERT_EQ(initialize("sub"), 1);
  EXPECT_STREQ(handler_.lockFilePath(), "sub/tsqcmds.dat");
  EXPECT_TRUE(FileExists("sub/tsqcmds.dat"));
}

TEST_F(LockFilePath, RunsOfSlashesAreFoldedAndATrailingOneIsKept) {
  ASSERT_EQ(mkdir("a", 0700), 0);
  ASSERT_EQ(mkdir("a/b", 0700), 0);
  ASSERT_EQ(initialize("a//b///"), 1);
  EXPECT_STREQ(handler_.lockFilePath(), "a/b/tsqcmds.dat");
  EXPECT_TRUE(FileExists("a/b/tsqcmds.dat"));
}

// "./././..." names the current directory at any length.
std::string CurrentDirectorySpelledWith(size_t length) {
  std::string directory;
  while (directory.size() + 2 <= length) directory += "./";
  if (directory.size() < length) directory += ".";
  return directory;
}

TEST_F(LockFilePath, DirectoryOf4083CharactersIsAccepted) {
  const std::string directory = CurrentDirectorySpelledWith(KYCMD_MAX_DIRECTORY_LENGTH);
  ASSERT_EQ(directory.size(), 4083u);
  ASSERT_EQ(initialize(directory.c_str()), 1);
  EXPECT_EQ(std::strlen(handler_.lockFilePath()), 4083u + 1 + 11);
  EXPECT_EQ(std::string(handler_.lockFilePath()), directory + "/tsqcmds.dat");
  EXPECT_TRUE(FileExists(kLockFile));
}

TEST_F(LockFilePath, DirectoryOf4084CharactersIsRefusedBeforeAnythingIsMade) {
  SeamInPlace seam;
  // Ends in "/", so the path would still be short enough for the system.
  const std::string directory = CurrentDirectorySpelledWith(4084);
  ASSERT_EQ(directory.size(), 4084u);
  EXPECT_EQ(initialize(directory.c_str()), 0);
  EXPECT_TRUE(g_script.calls.empty());
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_EQ(handler_.callback(), nullptr);
}

TEST_F(LockFilePath, NullCallbackOrDirectoryIsRefusedBeforeAnythingIsMade) {
  SeamInPlace seam;
  EXPECT_EQ(handler_.initializeCommandHandler("", nullptr, &recorder_), 0);
  EXPECT_EQ(handler_.initializeCommandHandler(nullptr, CallbackRecorder::Callback, &recorder_), 0);
  EXPECT_TRUE(g_script.calls.empty());
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(handler_.sharedArea(), nullptr);
}

// ------------------------------------------------------------------------
// Creation

TEST_F(ChannelCreation, InitializedChannelIsReadyForAController) {
  SeamInPlace seam;
  g_script.dirtyAttachedArea = true;  // the area must be zeroed whatever it held
  ASSERT_EQ(initialize(), 1);
  ASSERT_NE(area(), nullptr);
  EXPECT_EQ(area()->state, KYCMD_AREA_READY);
  EXPECT_EQ(area()->pendingCount, 0);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(area()->records);
  size_t nonZero = 0;
  for (size_t i = 0; i < sizeof area()->records; ++i) nonZero += bytes[i] != 0 ? 1 : 0;
  EXPECT_EQ(nonZero, 0u);
  EXPECT_EQ(SemaphoreValue(handler_.semaphoreSetId(), KYCMD_WAKE_UP_SEMAPHORE), 0);
  EXPECT_EQ(SemaphoreValue(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE), 1);
  EXPECT_EQ(handler_.callback(), &CallbackRecorder::Callback);
  EXPECT_EQ(handler_.callbackContext(), &recorder_);
}

TEST_F(ChannelCreation, LockFileHoldsTheSegmentIdAndStaysOpenReadWrite) {
  umask(0);
  WriteFile(kLockFile, "0123456789");  // an old file is reused, not truncated
  ASSERT_EQ(initialize(), 1);
  EXPECT_EQ(SegmentIdInLockFile(kLockFile), handler_.sharedMemoryId());
  EXPECT_EQ(ReadFile(kLockFile).substr(4), "456789");
  const int fd = handler_.lockFileDescriptor();
  EXPECT_GT(fd, 2);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
  struct stat status;
  ASSERT_EQ(stat(kLockFile, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);  // the old file keeps its mode
}

TEST_F(ChannelCreation, NewLockFileHasMode0600) {
  umask(0);
  ASSERT_EQ(initialize(), 1);
  struct stat status;
  ASSERT_EQ(stat(kLockFile, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(ChannelCreation, MakesItsCallsInTheFixedOrder) {
  SeamInPlace seam;
  ASSERT_EQ(initialize(), 1);
  const key_t key = ftok(kLockFile, 0);
  const int set = handler_.semaphoreSetId();
  const int id = handler_.sharedMemoryId();
  ASSERT_EQ(g_script.calls.size(), 7u);
  const std::vector<SeamCall>& calls = g_script.calls;
  EXPECT_EQ(calls[0].name, "semget");
  EXPECT_EQ(calls[0].first, key);
  EXPECT_EQ(calls[0].second, 2);
  EXPECT_EQ(calls[0].third, IPC_CREAT | 0666);
  EXPECT_EQ(calls[1].name, "setval");
  EXPECT_EQ(calls[1].first, set);
  EXPECT_EQ(calls[1].second, KYCMD_AREA_LOCK_SEMAPHORE);
  EXPECT_EQ(calls[1].third, 0);
  EXPECT_EQ(calls[2].name, "shmget");
  EXPECT_EQ(calls[2].first, IPC_PRIVATE);
  EXPECT_EQ(calls[2].second, 21868);
  EXPECT_EQ(calls[2].third, IPC_CREAT | 0600);
  EXPECT_EQ(calls[3].name, "write");
  EXPECT_EQ(calls[3].first, handler_.lockFileDescriptor());
  EXPECT_EQ(calls[3].second, 4);
  for (int i : {4, 5}) {
    EXPECT_EQ(calls[i].name, "setval");
    EXPECT_EQ(calls[i].first, set);
    EXPECT_EQ(calls[i].second, KYCMD_WAKE_UP_SEMAPHORE);
    EXPECT_EQ(calls[i].third, 0);
  }
  EXPECT_EQ(calls[6].name, "shmat");
  EXPECT_EQ(calls[6].first, id);
  EXPECT_EQ(calls[6].second, 0);  // no address asked for
  EXPECT_EQ(calls[6].third, 0);
}

TEST_F(ChannelCreation, ExistingSemaphoreSetWithTheKeyIsReusedAndReset) {
  WriteFile(kLockFile, "");
  const int existing = semget(ftok(kLockFile, 0), 2, IPC_CREAT | 0600);
  ASSERT_GE(existing, 0);
  guard_.addSemaphoreSet(existing);
  ASSERT_EQ(semctl(existing, 0, SETVAL, 5), 0);
  ASSERT_EQ(semctl(existing, 1, SETVAL, 5), 0);
  ASSERT_EQ(initialize(), 1);
  EXPECT_EQ(handler_.semaphoreSetId(), existing);
  EXPECT_EQ(SemaphoreValue(existing, KYCMD_WAKE_UP_SEMAPHORE), 0);
  EXPECT_EQ(SemaphoreValue(existing, KYCMD_AREA_LOCK_SEMAPHORE), 1);
}

TEST_F(ChannelCreation, LockFileThatCannotBeOpenedLeavesNothing) {
  SeamInPlace seam;
  EXPECT_EQ(initialize("no/such/directory"), 0);
  EXPECT_TRUE(g_script.calls.empty());
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_EQ(handler_.sharedMemoryId(), -1);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_EQ(handler_.semaphoreSetId(), -1);
  EXPECT_EQ(handler_.callback(), nullptr);
}

TEST_F(ChannelCreation, RefusedSemaphoreSetTakesPathA) {
  SeamInPlace seam;
  // A set with one semaphore under the key makes semget(key, 2) fail.
  WriteFile(kLockFile, "");
  const int narrow = semget(ftok(kLockFile, 0), 1, IPC_CREAT | 0600);
  ASSERT_GE(narrow, 0);
  guard_.addSemaphoreSet(narrow);
  EXPECT_EQ(initialize(), 0);
  EXPECT_EQ(handler_.semaphoreSetId(), -1);
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_FALSE(FileExists(kLockFile));
  // Path A removes "the set" even though the identifier is -1.
  ASSERT_EQ(CallsNamed("semrm"), 1u);
  EXPECT_EQ(g_script.calls.back().first, -1);
  EXPECT_EQ(CallsNamed("shmget"), 0u);
  EXPECT_TRUE(SemaphoreSetExists(narrow));
}

TEST_F(ChannelCreation, FailedAreaLockResetTakesPathA) {
  SeamInPlace seam;
  g_script.failSetValueCall = 1;
  EXPECT_EQ(initialize(), 0);
  const int set = handler_.semaphoreSetId();
  ASSERT_GE(set, 0);  // the member keeps the removed set's identifier
  EXPECT_FALSE(SemaphoreSetExists(set));
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_EQ(CallsNamed("shmget"), 0u);
}

TEST_F(ChannelCreation, RefusedSegmentTakesPathCAndKeepsTheSemaphoreSet) {
  SeamInPlace seam;
  g_script.failGetSharedMemory = true;
  EXPECT_EQ(initialize(), 0);
  EXPECT_EQ(handler_.sharedMemoryId(), -1);
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_TRUE(SemaphoreSetExists(handler_.semaphoreSetId()));
  EXPECT_EQ(SemaphoreValue(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE), 0);
  EXPECT_EQ(CallsNamed("semrm"), 0u);
}

TEST_F(ChannelCreation, ShortIdentifierWriteTakesPathB) {
  SeamInPlace seam;
  g_script.shortWrite = true;
  EXPECT_EQ(initialize(), 0);
  ASSERT_EQ(CallsNamed("shmget"), 1u);
  ASSERT_EQ(CallsNamed("shmrm"), 1u);
  int removed = -1;
  for (const auto& call : g_script.calls) {
    if (call.name == "shmrm") removed = static_cast<int>(call.first);
  }
  guard_.addSegment(removed);
  EXPECT_FALSE(SharedMemoryExists(removed));
  EXPECT_EQ(handler_.sharedMemoryId(), -1);
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_TRUE(SemaphoreSetExists(handler_.semaphoreSetId()));  // path C keeps it
  EXPECT_EQ(CallsNamed("semrm"), 0u);
}

TEST_F(ChannelCreation, FirstWakeUpResetResultIsIgnored) {
  SeamInPlace seam;
  g_script.failSetValueCall = 2;  // call 1 is the area lock, 2 and 3 the wake-up
  EXPECT_EQ(initialize(), 1);
  EXPECT_NE(area(), nullptr);
  EXPECT_EQ(g_script.setValueCalls, 3);
}

TEST_F(ChannelCreation, FailedSecondWakeUpResetRemovesSegmentKeepsItsIdAndTakesPathA) {
  SeamInPlace seam;
  g_script.failSetValueCall = 3;
  EXPECT_EQ(initialize(), 0);
  const int id = handler_.sharedMemoryId();
  ASSERT_GE(id, 0);  // not reset to -1 on this path
  EXPECT_FALSE(SharedMemoryExists(id));
  EXPECT_FALSE(SemaphoreSetExists(handler_.semaphoreSetId()));
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_EQ(CallsNamed("shmat"), 0u);
}

TEST_F(ChannelCreation, FailedAttachTakesPathB) {
  SeamInPlace seam;
  g_script.failAttach = true;
  EXPECT_EQ(initialize(), 0);
  int attempted = -1;
  for (const auto& call : g_script.calls) {
    if (call.name == "shmat") attempted = static_cast<int>(call.first);
  }
  guard_.addSegment(attempted);
  ASSERT_GE(attempted, 0);
  EXPECT_FALSE(SharedMemoryExists(attempted));
  EXPECT_EQ(handler_.sharedMemoryId(), -1);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_TRUE(SemaphoreSetExists(handler_.semaphoreSetId()));
}

// ------------------------------------------------------------------------
// Clean-up

TEST_F(ChannelCleanUp, FullCleanUpRemovesEverything) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  const int id = handler_.sharedMemoryId();
  const int fd = handler_.lockFileDescriptor();
  handler_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_EQ(handler_.sharedMemoryId(), -1);
  EXPECT_EQ(handler_.semaphoreSetId(), -1);
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_TRUE(IsClosed(fd));
  EXPECT_FALSE(FileExists(kLockFile));
  EXPECT_FALSE(SharedMemoryExists(id));
  EXPECT_FALSE(SemaphoreSetExists(set));
}

TEST_F(ChannelCleanUp, PartialCleanUpKeepsTheSemaphoreSetAndTheFile) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  const int id = handler_.sharedMemoryId();
  const int fd = handler_.lockFileDescriptor();
  handler_.destroySharedMemoryAndLockFile(KYCMDHDLR_CLEAN_PARTIAL);
  EXPECT_EQ(handler_.sharedArea(), nullptr);
  EXPECT_EQ(handler_.sharedMemoryId(), -1);
  EXPECT_FALSE(SharedMemoryExists(id));
  EXPECT_EQ(handler_.lockFileDescriptor(), -1);
  EXPECT_TRUE(IsClosed(fd));
  EXPECT_EQ(handler_.semaphoreSetId(), set);
  EXPECT_TRUE(SemaphoreSetExists(set));
  EXPECT_TRUE(FileExists(kLockFile));
}

TEST_F(ChannelCleanUp, FullCleanUpAfterPartialRemovesTheSetButNotTheFile) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  handler_.cleanupCommandHandler(KYCMDHDLR_CLEAN_PARTIAL);
  handler_.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  EXPECT_EQ(handler_.semaphoreSetId(), -1);
  EXPECT_FALSE(SemaphoreSetExists(set));
  EXPECT_TRUE(FileExists(kLockFile));  // the descriptor was already closed
}

TEST_F(ChannelCleanUp, AnyExtentOtherThanPartialCleansFully) {
  for (int32_t extent : {2, 7, -1, INT32_MAX}) {
    ASSERT_EQ(initialize(), 1);
    const int set = handler_.semaphoreSetId();
    handler_.cleanupCommandHandler(static_cast<_KYCMDHDLRCLEANEXTENT>(extent));
    EXPECT_FALSE(SemaphoreSetExists(set)) << extent;
    EXPECT_FALSE(FileExists(kLockFile)) << extent;
    EXPECT_EQ(handler_.lockFileDescriptor(), -1) << extent;
  }
}

TEST_F(ChannelCleanUp, CleanUpOfAHandlerWithNothingAttachedTouchesNothing) {
  WriteFile(kLockFile, "somebody else's");
  CollectorCommandHandler handler;
  handler.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  handler.cleanupCommandHandler(KYCMDHDLR_CLEAN_PARTIAL);
  EXPECT_EQ(ReadFile(kLockFile), "somebody else's");
  EXPECT_EQ(handler.semaphoreSetId(), -1);
  EXPECT_EQ(handler.lockFileDescriptor(), -1);
}

TEST_F(ChannelCleanUp, DestructorRemovesNothing) {
  int set = -1;
  int id = -1;
  int fd = -1;
  KyCommandArea* attached = nullptr;
  {
    CollectorCommandHandler handler;
    ASSERT_EQ(handler.initializeCommandHandler("", CallbackRecorder::Callback, &recorder_), 1);
    guard_.addChannelOf(handler);
    set = handler.semaphoreSetId();
    id = handler.sharedMemoryId();
    fd = handler.lockFileDescriptor();
    attached = handler.sharedArea();
  }
  EXPECT_TRUE(SemaphoreSetExists(set));
  EXPECT_TRUE(SharedMemoryExists(id));
  EXPECT_TRUE(FileExists(kLockFile));
  EXPECT_FALSE(IsClosed(fd));
  EXPECT_EQ(attached->state, KYCMD_AREA_READY);  // still attached
  shmdt(attached);
  close(fd);
}

// ------------------------------------------------------------------------
// Area lock

TEST_F(AreaLock, AcquireNeverWaitsAndReleaseGivesTheLockBack) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  EXPECT_EQ(handler_.acquireLock(), 1);
  EXPECT_EQ(SemaphoreValue(set, KYCMD_AREA_LOCK_SEMAPHORE), 0);
  EXPECT_EQ(handler_.acquireLock(), 0);  // busy: returns at once
  EXPECT_EQ(handler_.releaseLock(), 0);
  EXPECT_EQ(SemaphoreValue(set, KYCMD_AREA_LOCK_SEMAPHORE), 1);
}

TEST_F(AreaLock, OperationsWithoutASemaphoreSetFail) {
  CollectorCommandHandler handler;
  EXPECT_EQ(handler.acquireLock(), 0);
  EXPECT_EQ(handler.releaseLock(), -1);
}

TEST_F(AreaLock, LockTakenByAProcessThatEndsIsGivenBack) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  EXPECT_EQ(ExitStatusOfChild([this] { return handler_.acquireLock() == 1 ? 0 : 1; }),
            kAllChecksHeld);
  EXPECT_EQ(SemaphoreValue(set, KYCMD_AREA_LOCK_SEMAPHORE), 1);  // SEM_UNDO
}

TEST_F(AreaLock, ToolProcessThatEndsLeavesTheAreaLockTaken) {
  ASSERT_EQ(mkdir("tool", 0700), 0);
  // The tool's own release carries SEM_UNDO too: undoing it at exit takes
  // the lock again, whether or not the tool held it then.
  EXPECT_EQ(ExitStatusOfChild([this] {
              CollectorCommandHandler tool;
              return tool.initializeCommandHandler("tool", CallbackRecorder::Callback,
                                                   &recorder_) == 1
                         ? 0
                         : 1;
            }),
            kAllChecksHeld);
  guard_.addLockFile("tool/tsqcmds.dat");
  const int set = SemaphoreSetOfLockFile("tool/tsqcmds.dat");
  ASSERT_GE(set, 0);
  EXPECT_EQ(SemaphoreValue(set, KYCMD_AREA_LOCK_SEMAPHORE), 0);
  EXPECT_TRUE(SharedMemoryExists(SegmentIdInLockFile("tool/tsqcmds.dat")));
}

// ------------------------------------------------------------------------
// processCommands

TEST_F(ProcessCommands, WithoutASharedAreaReturnsMinusOne) {
  EXPECT_EQ(handler_.processCommands(), kNoSharedArea);
  EXPECT_EQ(recorder_.count(), 0u);
}

TEST_F(ProcessCommands, WakeUpWithCountZeroCallsNothingAndLeavesTheLockAlone) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  // Held by "a controller": with nothing pending the lock is not even tried.
  ASSERT_EQ(OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO), 0);
  EXPECT_EQ(handler_.processCommands(), kNothingPending);
  EXPECT_EQ(recorder_.count(), 0u);
  EXPECT_EQ(SemaphoreValue(set, KYCMD_AREA_LOCK_SEMAPHORE), 0);
  ASSERT_EQ(OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, 1, SEM_UNDO), 0);
}

TEST_F(ProcessCommands, BusyAreaLockLeavesTheCommandsForTheNextCall) {
  ASSERT_EQ(initialize(), 1);
  writeRecords(2, 2);
  const int set = handler_.semaphoreSetId();
  ASSERT_EQ(OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO), 0);
  EXPECT_EQ(handler_.processCommands(), kAreaLockBusy);
  EXPECT_EQ(recorder_.count(), 0u);
  EXPECT_EQ(area()->pendingCount, 2);
  ASSERT_EQ(OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, 1, SEM_UNDO), 0);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  ASSERT_EQ(recorder_.count(), 2u);
  expectRecordDelivered(recorder_.deliveries()[0], 0);
  expectRecordDelivered(recorder_.deliveries()[1], 1);
}

TEST_F(ProcessCommands, ThreeRecordsArriveInSlotOrderAfterTheCountIsReset) {
  ASSERT_EQ(initialize(), 1);
  writeRecords(3, 3);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 3u);
  for (int slot = 0; slot < 3; ++slot) {
    expectRecordDelivered(deliveries[slot], slot);
    EXPECT_EQ(deliveries[slot].pendingCountSeen, 0);  // reset before the first call
    EXPECT_EQ(deliveries[slot].areaLockSeen, 1);      // and the lock given back
  }
  EXPECT_EQ(area()->pendingCount, 0);
  EXPECT_EQ(SemaphoreValue(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE), 1);
}

TEST_F(ProcessCommands, FiveRecordsArriveInOnePass) {
  ASSERT_EQ(initialize(), 1);
  writeRecords(5, 5);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 5u);
  for (int slot = 0; slot < 5; ++slot) expectRecordDelivered(deliveries[slot], slot);
}

// The payload handed to the callback is the tool's private copy, so that a
// controller may reuse the slot while the tool works.
unsigned char* g_payloadSeen = nullptr;
void RememberPayload(int, int, int, int, int, unsigned char* payload, void*) {
  g_payloadSeen = payload;
}

TEST_F(ProcessCommands, PayloadIsAPrivateCopyNotTheSharedSlot) {
  ASSERT_EQ(handler_.initializeCommandHandler("", RememberPayload, nullptr), 1);
  guard_.addChannelOf(handler_);
  writeRecords(1, 1);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  const unsigned char* begin = reinterpret_cast<unsigned char*>(area());
  ASSERT_NE(g_payloadSeen, nullptr);
  EXPECT_TRUE(g_payloadSeen < begin || g_payloadSeen >= begin + KYCMD_AREA_SIZE);
}

TEST_F(ProcessCommands, CountBelowOneIsResetWithoutACall) {
  ASSERT_EQ(initialize(), 1);
  writeRecords(1, -3);
  EXPECT_EQ(handler_.processCommands(), kDispatched);
  EXPECT_EQ(recorder_.count(), 0u);
  EXPECT_EQ(area()->pendingCount, 0);
  EXPECT_EQ(SemaphoreValue(handler_.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE), 1);
}

TEST_F(ProcessCommands, GarbageCountIsClampedToFiveRecords) {
  ASSERT_EQ(initialize(), 1);
  for (int32_t garbage : {6, 1000, INT32_MAX}) {
    writeRecords(5, garbage);
    EXPECT_EQ(handler_.processCommands(), kDispatched) << garbage;
    EXPECT_EQ(area()->pendingCount, 0) << garbage;
  }
  const std::vector<Delivery> deliveries = recorder_.deliveries();
  ASSERT_EQ(deliveries.size(), 15u);
  for (size_t i = 0; i < deliveries.size(); ++i) {
    expectRecordDelivered(deliveries[i], static_cast<int>(i % 5));
  }
}

// ------------------------------------------------------------------------
// processHeartbeat

TEST_F(ProcessHeartbeat, WithoutASharedAreaReturnsMinusOne) {
  EXPECT_EQ(handler_.processHeartbeat(), kNoSharedArea);
  EXPECT_EQ(recorder_.count(), 0u);
}

TEST_F(ProcessHeartbeat, CallsTheCallbackWithTheHeartbeatAndNoPayloadWithoutTheLock) {
  ASSERT_EQ(initialize(), 1);
  const int set = handler_.semaphoreSetId();
  ASSERT_EQ(OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO), 0);
  EXPECT_EQ(handler_.processHeartbeat(), kDispatched);
  ASSERT_EQ(recorder_.count(), 1u);
  const Delivery heartbeat = recorder_.deliveries()[0];
  EXPECT_EQ(heartbeat.code, 0x11010);
  EXPECT_EQ(heartbeat.arguments[0], 0);
  EXPECT_EQ(heartbeat.arguments[1], 0);
  EXPECT_EQ(heartbeat.arguments[2], 0);
  EXPECT_EQ(heartbeat.arguments[3], 0);
  EXPECT_FALSE(heartbeat.hasPayload);
  EXPECT_EQ(heartbeat.context, &recorder_);
  EXPECT_EQ(SemaphoreValue(set, KYCMD_AREA_LOCK_SEMAPHORE), 0);
  ASSERT_EQ(OperateOnSemaphore(set, KYCMD_AREA_LOCK_SEMAPHORE, 1, SEM_UNDO), 0);
}

// ------------------------------------------------------------------------
// safeOpen and descriptors 0 to 2

using SafeOpen = kyrt_test::RuntimeTest;

TEST_F(SafeOpen, OrdinaryDescriptorIsReturnedAsOpenGaveIt) {
  const int fd = kyrt::safeOpen("file", O_RDWR | O_CREAT, 0600);
  ASSERT_GT(fd, 2);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
  const int next = open("file", O_RDONLY);
  EXPECT_GT(next, fd);  // nothing else was left open
  close(next);
  close(fd);
}

TEST_F(SafeOpen, FailedOpenReturnsMinusOne) {
  errno = 0;
  EXPECT_EQ(kyrt::safeOpen("no/such/file", O_RDONLY, 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SafeOpen, NeverReturnsAStandardDescriptorAndLeavesThemClosed) {
  WriteFile("file", "x");
  EXPECT_EQ(ExitStatusOfChild([] {
              close(0);
              close(1);
              close(2);
              const int fd = kyrt::safeOpen("file", O_RDONLY, 0);
              if (fd <= 2) return 1;
              if (!IsClosed(0) || !IsClosed(1) || !IsClosed(2)) return 2;
              char byte = 0;
              return read(fd, &byte, 1) == 1 && byte == 'x' ? 0 : 3;
            }),
            kAllChecksHeld);
}

TEST_F(SafeOpen, OneClosedStandardDescriptorIsLeftClosed) {
  WriteFile("file", "x");
  EXPECT_EQ(ExitStatusOfChild([] {
              close(1);
              const int fd = kyrt::safeOpen("file", O_RDONLY, 0);
              if (fd <= 2) return 1;
              return IsClosed(1) && !IsClosed(0) && !IsClosed(2) ? 0 : 2;
            }),
            kAllChecksHeld);
}

TEST_F(SafeOpen, GivesUpWhenNoDescriptorAboveTwoIsLeft) {
  WriteFile("file", "x");
  EXPECT_EQ(ExitStatusOfChild([] {
              for (int fd = 3; fd < 1024; ++fd) close(fd);
              close(0);
              const rlimit three = {3, 3};
              if (setrlimit(RLIMIT_NOFILE, &three) != 0) return 1;
              if (kyrt::safeOpen("file", O_RDONLY, 0) != -1) return 2;
              return IsClosed(0) ? 0 : 3;
            }),
            kAllChecksHeld);
}

TEST_F(CommandHandlerObject, LockFileDescriptorIsAboveTwoWhenStandardDescriptorsAreClosed) {
  guard_.addLockFile(kLockFile);
  EXPECT_EQ(ExitStatusOfChild([this] {
              close(0);
              close(1);
              close(2);
              CollectorCommandHandler tool;
              if (tool.initializeCommandHandler("", CallbackRecorder::Callback, &recorder_) != 1) {
                return 1;
              }
              const bool above = tool.lockFileDescriptor() > 2;
              const bool stillClosed = IsClosed(0) && IsClosed(1) && IsClosed(2);
              tool.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
              return above && stillClosed ? 0 : 2;
            }),
            kAllChecksHeld);
  EXPECT_FALSE(FileExists(kLockFile));
}

}  // namespace
