// Lock files: a small file whose first KY_LOCK_FILE_RECORD_SIZE bytes two
// processes share, guarded by an fcntl record lock over the whole file.
//
// Record locks belong to the process, so they exclude other processes only;
// threads of one process must not rely on them among themselves. A lock file
// that cannot be opened, read or written leaves the tool without its
// protocol, which is a defect of the tool's set-up: the process ends.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/runtime.h"

namespace {

constexpr int kLockFileOpenFlags = O_RDWR | O_CREAT | O_SYNC;
constexpr mode_t kLockFileMode = 0777;

// Applies a lock of the given type to the whole file (from its start, of
// length 0: to its end however it grows).
int ApplyWholeFileLock(int fd, int command, short type) {
  struct flock record {};
  record.l_type = type;
  record.l_whence = SEEK_SET;
  record.l_start = 0;
  record.l_len = 0;
  record.l_pid = __KyGetPid();
  return fcntl(fd, command, &record);
}

}  // namespace

extern "C" {

int __KyCreateLockFile(const char* path, int truncate) noexcept {
  const int flags = truncate != 0 ? kLockFileOpenFlags | O_TRUNC : kLockFileOpenFlags;
  const int fd = open(path, flags, kLockFileMode);
  if (fd < 0) __KyLogFatalToolDefect("Could not open lock file %s (error %d)", path, errno);
  return fd;
}

int __KyLockFile(int fd) noexcept {
  return ApplyWholeFileLock(fd, F_SETLKW, F_WRLCK);
}

int __KyUnlockFile(int fd) noexcept {
  return ApplyWholeFileLock(fd, F_SETLK, F_UNLCK);
}

int __KyReadLockFile(int fd, void* buffer) noexcept {
  lseek(fd, 0, SEEK_SET);
  const ssize_t count = read(fd, buffer, KY_LOCK_FILE_RECORD_SIZE);
  if (count < 0) __KyLogFatalToolDefect("failed to read from lock file");
  return static_cast<int>(count);
}

long __KyWriteLockFile(int fd, const void* buffer) noexcept {
  lseek(fd, 0, SEEK_SET);
  const ssize_t count = write(fd, buffer, KY_LOCK_FILE_RECORD_SIZE);
  if (count < 0) __KyLogFatalToolDefect("failed to write to lock file");
  return static_cast<long>(count);
}

int __KyCloseLockFile(int fd) noexcept {
  return close(fd);
}

}  // extern "C"
