// Lock files: creation, record locks between processes, the eight-byte
// record, and the fatal failures.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "support/test_files.h"
#include "sync/lock_test_support.h"
#include "util/child_process.h"

namespace {

using kyrt_test::ExitStatusOfChild;
using kyrt_test::ReadFile;
using kyrt_test::WaitForExitStatus;
using kyrt_test::WriteFile;

constexpr int kFatalExitStatus = 255;
constexpr int kAllChecksHeld = 0;

using LockFiles = kyrt_test::RuntimeTest;

// The lock another process would meet on fd's file, as F_GETLK reports it
// when asked from a child.
struct SeenLock {
  short type;
  short whence;
  off_t start;
  off_t length;
  pid_t pid;
};

SeenLock LockSeenFromAnotherProcess(int fd) {
  int channel[2];
  if (pipe(channel) != 0) return {-1, 0, 0, 0, 0};
  const int status = ExitStatusOfChild([fd, &channel] {
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    if (fcntl(fd, F_GETLK, &probe) != 0) return 1;
    const SeenLock seen = {probe.l_type, probe.l_whence, probe.l_start, probe.l_len, probe.l_pid};
    return write(channel[1], &seen, sizeof seen) == sizeof seen ? 0 : 2;
  });
  SeenLock seen = {-1, 0, 0, 0, 0};
  if (status == 0 && read(channel[0], &seen, sizeof seen) != sizeof seen) seen.type = -1;
  close(channel[0]);
  close(channel[1]);
  return seen;
}

bool LogMentions(const std::string& text) {
  return ReadFile("kylog.log").find(text) != std::string::npos;
}

TEST_F(LockFiles, CreateOpensANewFileForReadingAndWritingWithSync) {
  umask(0);
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  const int flags = fcntl(fd, F_GETFL);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_EQ(flags & O_SYNC, O_SYNC);
  struct stat status;
  ASSERT_EQ(fstat(fd, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0777u);
  EXPECT_EQ(status.st_size, 0);
  EXPECT_EQ(__KyCloseLockFile(fd), 0);
}

TEST_F(LockFiles, CreateKeepsTheContentUnlessAskedToTruncate) {
  WriteFile("lock.dat", "0123456789");
  int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  __KyCloseLockFile(fd);
  EXPECT_EQ(ReadFile("lock.dat"), "0123456789");
  fd = __KyCreateLockFile("lock.dat", 1);
  ASSERT_GE(fd, 0);
  __KyCloseLockFile(fd);
  EXPECT_EQ(ReadFile("lock.dat"), "");
}

TEST_F(LockFiles, CreateFailureEndsTheProcessAsAToolDefect) {
  EXPECT_EXIT(__KyCreateLockFile("missing/lock.dat", 0),
              ::testing::ExitedWithCode(kFatalExitStatus), "");
  EXPECT_TRUE(LogMentions("Could not open lock file missing/lock.dat (error 2)"));
}

TEST_F(LockFiles, LockIsAWriteLockOverTheWholeFileSeenByOtherProcesses) {
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(__KyLockFile(fd), 0);
  const SeenLock seen = LockSeenFromAnotherProcess(fd);
  EXPECT_EQ(seen.type, F_WRLCK);
  EXPECT_EQ(seen.whence, SEEK_SET);
  EXPECT_EQ(seen.start, 0);
  EXPECT_EQ(seen.length, 0);  // to the end of the file, however it grows
  EXPECT_EQ(seen.pid, getpid());
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, UnlockReleasesTheLockForOtherProcesses) {
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(__KyLockFile(fd), 0);
  EXPECT_EQ(__KyUnlockFile(fd), 0);
  EXPECT_EQ(LockSeenFromAnotherProcess(fd).type, F_UNLCK);
  // Unlocking what is not locked is no error and does not wait.
  EXPECT_EQ(__KyUnlockFile(fd), 0);
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, LockWaitsUntilAnotherProcessReleasesIt) {
  const int fd = __KyCreateLockFile("lock.dat", 1);
  ASSERT_GE(fd, 0);
  int locked[2];
  ASSERT_EQ(pipe(locked), 0);
  std::fflush(nullptr);
  const pid_t holder = fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    // Holds the lock, writes its record late, and releases by exiting.
    if (__KyLockFile(fd) != 0) _exit(1);
    const char ready = 1;
    if (write(locked[1], &ready, 1) != 1) _exit(2);
    usleep(200 * 1000);
    _exit(__KyWriteLockFile(fd, "holder!!") == 8 ? 0 : 3);
  }
  char ready = 0;
  ASSERT_EQ(read(locked[0], &ready, 1), 1);
  EXPECT_EQ(__KyLockFile(fd), 0);
  // Granted only once the holder was gone, so its record is there.
  char record[KY_LOCK_FILE_RECORD_SIZE] = {};
  EXPECT_EQ(__KyReadLockFile(fd, record), KY_LOCK_FILE_RECORD_SIZE);
  EXPECT_EQ(std::memcmp(record, "holder!!", KY_LOCK_FILE_RECORD_SIZE), 0);
  EXPECT_EQ(WaitForExitStatus(holder), 0);
  close(locked[0]);
  close(locked[1]);
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, LockAndUnlockOfABadDescriptorFail) {
  errno = 0;
  EXPECT_EQ(__KyLockFile(-1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(__KyUnlockFile(-1), -1);
}

TEST_F(LockFiles, ReadTakesTheFirstEightBytesWhereverTheOffsetIs) {
  WriteFile("lock.dat", "0123456789AB");
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lseek(fd, 0, SEEK_END), 12);
  char record[KY_LOCK_FILE_RECORD_SIZE + 1] = {};
  EXPECT_EQ(__KyReadLockFile(fd, record), 8);
  EXPECT_STREQ(record, "01234567");
  EXPECT_EQ(__KyReadLockFile(fd, record), 8);
  EXPECT_STREQ(record, "01234567");
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, ReadOfAShortFileReturnsTheBytesThereAre) {
  WriteFile("lock.dat", "abc");
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  char record[KY_LOCK_FILE_RECORD_SIZE] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(__KyReadLockFile(fd, record), 3);
  EXPECT_EQ(std::memcmp(record, "abcxxxxx", KY_LOCK_FILE_RECORD_SIZE), 0);
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, ReadOfAnEmptyFileReturnsZero) {
  const int fd = __KyCreateLockFile("lock.dat", 1);
  ASSERT_GE(fd, 0);
  char record[KY_LOCK_FILE_RECORD_SIZE] = {};
  EXPECT_EQ(__KyReadLockFile(fd, record), 0);
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, AFailedReadEndsTheProcessAsAToolDefect) {
  WriteFile("lock.dat", "01234567");
  const int writeOnly = open("lock.dat", O_WRONLY);
  ASSERT_GE(writeOnly, 0);
  char record[KY_LOCK_FILE_RECORD_SIZE];
  EXPECT_EXIT(__KyReadLockFile(writeOnly, record), ::testing::ExitedWithCode(kFatalExitStatus), "");
  EXPECT_TRUE(LogMentions("failed to read from lock file"));
  close(writeOnly);
}

TEST_F(LockFiles, WriteReplacesTheFirstEightBytesWhereverTheOffsetIs) {
  WriteFile("lock.dat", "0123456789AB");
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lseek(fd, 0, SEEK_END), 12);
  EXPECT_EQ(__KyWriteLockFile(fd, "abcdefghIGNORED"), 8);
  EXPECT_EQ(ReadFile("lock.dat"), "abcdefgh89AB");
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, WriteToAnEmptyFileMakesItEightBytesLong) {
  const int fd = __KyCreateLockFile("lock.dat", 1);
  ASSERT_GE(fd, 0);
  const unsigned char record[KY_LOCK_FILE_RECORD_SIZE] = {0, 1, 2, 3, 0xFC, 0xFD, 0xFE, 0xFF};
  EXPECT_EQ(__KyWriteLockFile(fd, record), 8);
  EXPECT_EQ(ReadFile("lock.dat"), std::string(reinterpret_cast<const char*>(record), 8));
  unsigned char back[KY_LOCK_FILE_RECORD_SIZE] = {};
  EXPECT_EQ(__KyReadLockFile(fd, back), 8);
  EXPECT_EQ(std::memcmp(back, record, sizeof record), 0);
  __KyCloseLockFile(fd);
}

TEST_F(LockFiles, AFailedWriteEndsTheProcessAsAToolDefect) {
  WriteFile("lock.dat", "01234567");
  const int readOnly = open("lock.dat", O_RDONLY);
  ASSERT_GE(readOnly, 0);
  EXPECT_EXIT(__KyWriteLockFile(readOnly, "abcdefgh"), ::testing::ExitedWithCode(kFatalExitStatus),
              "");
  EXPECT_TRUE(LogMentions("failed to write to lock file"));
  EXPECT_EQ(ReadFile("lock.dat"), "01234567");
  close(readOnly);
}

TEST_F(LockFiles, CloseClosesTheDescriptor) {
  const int fd = __KyCreateLockFile("lock.dat", 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(__KyCloseLockFile(fd), 0);
  EXPECT_TRUE(kyrt_test::IsClosed(fd));
  EXPECT_EQ(__KyCloseLockFile(fd), -1);
}

}  // namespace
