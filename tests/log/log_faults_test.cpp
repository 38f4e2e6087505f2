// The log under file faults: a log path that cannot be created (occupied by
// a directory, a working directory that was removed, a directory without
// write permission), a full device and a small file system that fills up.
//
// Write failures are never reported to the caller: records are dropped,
// every call returns, and a fatal exit still ends the process with status
// 255. Once the fault is gone, the log is created or written again.
//
// Every scenario runs in a forked child with a fresh runtime; the parent
// reads what the child left in its directory.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "memory/memory_test_support.h"
#include "support/fault_child.h"
#include "support/fault_filesystem.h"
#include "support/log_text.h"
#include "support/test_files.h"

namespace kyrt_test {
namespace {

constexpr int kFatalStatus = 255;
constexpr int kRecordsWhileBroken = 200;
constexpr const char* kRecoveredText = "written after the fault was gone";

void StartRuntime() {
  KyPosixHostInstall();
  __KyRtStartup();
}

void LogTextRecord(const char* text) {
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "%s", text);
}

// Typed, text and comment records: every kind of record the log writes.
void LogEveryKind(int count) {
  for (int i = 0; i < count; ++i) {
    __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_FAIL_OPEN_FILE, 0, KY_LOG_ARG_STRING, "a&b<c>",
                    KY_LOG_ARG_END);
    __KyLogInternal(KY_LOG_WARNING, KY_LOG_MSG_INTERNAL, 0, "text record %d of a broken log", i);
    __KyLogCommentInternal("comment %d", i);
  }
}

std::vector<LogRecord> RecordsIn(const std::string& text) {
  std::vector<LogRecord> records;
  LogRecordReader reader(text);
  for (LogRecord record; reader.next(&record);) records.push_back(record);
  return records;
}

// The log of a child in which only the recovery record got through: a new
// log whose first and only record is it, numbered 1 (dropped records took
// no number).
void ExpectOnlyTheRecoveryRecord(const std::string& logPath) {
  const std::string text = ReadFile(logPath);
  ASSERT_EQ(text.rfind(kLogHeader + kLogRoot, 0), 0u) << text;
  const std::vector<LogRecord> records = RecordsIn(text);
  ASSERT_EQ(records.size(), 1u) << text;
  EXPECT_EQ(records[0].id, "1");
  EXPECT_EQ(records[0].text, kRecoveredText);
}

// Logs while "kylog.log" cannot be created, then removes the cause with
// undo() and logs once more.
template <typename Undo>
int LogThroughAnUncreatableLog(Undo undo) {
  StartRuntime();
  LogEveryKind(kRecordsWhileBroken);
  if (__KyIsLoggerInitialized() != 0) return kChildCheckFailed;
  if (!undo()) return kChildCheckFailed;
  LogTextRecord(kRecoveredText);
  return __KyIsLoggerInitialized() == 1 ? 0 : kChildCheckFailed;
}

TEST(LogFaults, LogPathOccupiedByADirectoryDropsRecordsUntilItIsFree) {
  ChildDirectory child("occupied");
  const ChildEnd end = RunInChild(child.path(), [] {
    if (mkdir(KY_LOG_DEFAULT_FILE, 0700) != 0) return kChildSetUpFailed;
    return LogThroughAnUncreatableLog([] { return rmdir(KY_LOG_DEFAULT_FILE) == 0; });
  });
  ASSERT_TRUE(end.exited && end.status == 0) << Describe(end);
  ExpectOnlyTheRecoveryRecord(child.file(KY_LOG_DEFAULT_FILE));
}

TEST(LogFaults, RemovedWorkingDirectoryDropsRecordsUntilThereIsOneAgain) {
  ChildDirectory child("removed");
  const ChildEnd end = RunInChild(child.path(), [] {
    if (mkdir("gone", 0700) != 0 || chdir("gone") != 0 || rmdir("../gone") != 0) {
      return kChildSetUpFailed;
    }
    return LogThroughAnUncreatableLog([] { return chdir("..") == 0; });
  });
  ASSERT_TRUE(end.exited && end.status == 0) << Describe(end);
  ExpectOnlyTheRecoveryRecord(child.file(KY_LOG_DEFAULT_FILE));
}

TEST(LogFaults, DirectoryWithoutWritePermissionDropsRecordsUntilItIsWritable) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "running as root, which ignores directory permissions; the occupied-path "
                    "and removed-directory cases cover an uncreatable log";
  }
  ChildDirectory child("read-only");
  const ChildEnd end = RunInChild(child.path(), [] {
    if (chmod(".", 0500) != 0) return kChildSetUpFailed;
    return LogThroughAnUncreatableLog([] { return chmod(".", 0700) == 0; });
  });
  chmod(child.path().c_str(), 0700);  // so that the directory can be removed
  ASSERT_TRUE(end.exited && end.status == 0) << Describe(end);
  ExpectOnlyTheRecoveryRecord(child.file(KY_LOG_DEFAULT_FILE));
}

TEST(LogFaults, FatalExitWithAnUncreatableLogStillEndsWithStatus255) {
  ChildDirectory child("fatal-uncreatable");
  const ChildEnd end = RunInChild(child.path(), [] {
    if (mkdir(KY_LOG_DEFAULT_FILE, 0700) != 0) return kChildSetUpFailed;
    StartRuntime();
    __KyLogFatalToolDefect("defect number %d", 7);
  });
  ASSERT_TRUE(end.exited) << Describe(end);
  EXPECT_EQ(end.status, kFatalStatus);
}

// /dev/full accepts the open and refuses every write with ENOSPC.
TEST(LogFaults, LogOnAFullDeviceTakesEveryRecordAndReportsNothing) {
  ChildDirectory child("full-device");
  const ChildEnd end = RunInChild(child.path(), [] {
    StartRuntime();
    if (__KyCreateLogger(KY_LOG_DEFAULT_SOURCE, "/dev/full", 0) != 1) return kChildSetUpFailed;
    LogEveryKind(kRecordsWhileBroken);
    __KyLogCurrentCallstack();
    __KyReopenLogger();
    __KyCloseLogger();
    LogTextRecord("after the root was closed");
    return __KyIsLoggerInitialized() == 1 ? 0 : kChildCheckFailed;
  });
  ASSERT_TRUE(end.exited && end.status == 0) << Describe(end);
}

TEST(LogFaults, FatalExitWithTheLogOnAFullDeviceEndsWithStatus255) {
  ChildDirectory child("fatal-full-device");
  const ChildEnd end = RunInChild(child.path(), [] {
    StartRuntime();
    if (__KyCreateLogger(KY_LOG_DEFAULT_SOURCE, "/dev/full", 0) != 1) return kChildSetUpFailed;
    __KyFatalExit(3);
  });
  ASSERT_TRUE(end.exited) << Describe(end);
  EXPECT_EQ(end.status, kFatalStatus);
}

// A file system of a few kilobytes: the log fills it, then a filler file
// that took the rest of the room goes away and the log goes on.
constexpr size_t kSmallFileSystemKilobytes = 64;
constexpr const char* kFiller = "filler";

// The records before the one the full disk cut off, each whole and numbered
// from 1 without a gap.
void ExpectWholeRecordsBeforeTheCut(const std::string& text) {
  const std::string closing = "\n\t</msg>";
  const size_t lastClosed = text.rfind(closing);
  ASSERT_NE(lastClosed, std::string::npos) << text.substr(0, 400);
  const std::vector<LogRecord> records = RecordsIn(text.substr(0, lastClosed + closing.size()));
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front().text, "first record, while there is room");
  for (size_t at = 0; at < records.size(); ++at) EXPECT_EQ(records[at].id, std::to_string(at + 1));
}

TEST(LogFaults, LogOnAFileSystemThatFillsUpIsCutAtOneRecordAndGoesOnOnceThereIsRoom) {
  SmallFileSystem small("small", kSmallFileSystemKilobytes);
  if (!small.mounted()) GTEST_SKIP() << small.reason();
  ChildDirectory child(small.path() + "/run");
  const ChildEnd end = RunInChild(child.path(), [] {
    StartRuntime();
    LogTextRecord("first record, while there is room");
    if (FillFileSystem(kFiller) == 0) return kChildSetUpFailed;
    LogEveryKind(kRecordsWhileBroken);
    if (unlink(kFiller) != 0) return kChildSetUpFailed;
    __KyReopenLogger();
    LogTextRecord(kRecoveredText);
    return __KyIsLoggerInitialized() == 1 ? 0 : kChildCheckFailed;
  });
  ASSERT_TRUE(end.exited && end.status == 0) << Describe(end);
  const std::string text = ReadFile(child.file(KY_LOG_DEFAULT_FILE));
  ASSERT_EQ(text.rfind(kLogHeader + kLogRoot, 0), 0u) << text.substr(0, 200);
  // The last record is whole again once there was room for it.
  const size_t lastRecord = text.rfind("\n\t<msg ");
  ASSERT_NE(lastRecord, std::string::npos);
  const std::vector<LogRecord> recovered = RecordsIn(text.substr(lastRecord));
  ASSERT_EQ(recovered.size(), 1u) << text.substr(lastRecord);
  EXPECT_EQ(recovered[0].text, kRecoveredText);
  ExpectWholeRecordsBeforeTheCut(text.substr(0, lastRecord));
}

}  // namespace
}  // namespace kyrt_test
