// File-system faults for tests: a small file system that fills up, and a
// filler file that takes all the room left on one.
//
// Mounting needs privileges that a test may not have; a case asks
// SmallFileSystem::mounted() and skips with the reason when it is false.
#ifndef KYRT_TESTS_SUPPORT_FAULT_FILESYSTEM_H
#define KYRT_TESTS_SUPPORT_FAULT_FILESYSTEM_H

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace kyrt_test {

// A tmpfs of a few kilobytes mounted at a new directory, unmounted and
// removed when the object goes, whatever happened in between.
class SmallFileSystem {
 public:
  SmallFileSystem(std::string path, size_t kilobytes) : path_(std::move(path)) {
    if (mkdir(path_.c_str(), 0700) != 0) {
      reason_ = "cannot create " + path_ + ": " + std::strerror(errno);
      return;
    }
    const std::string options = "size=" + std::to_string(kilobytes) + "k";
    if (mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) != 0) {
      reason_ = "cannot mount a small tmpfs: " + std::string(std::strerror(errno));
      return;
    }
    mounted_ = true;
  }
  ~SmallFileSystem() {
    if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    rmdir(path_.c_str());
  }
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& reason() const { return reason_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  bool mounted_ = false;
  std::string reason_;
};

// Writes blocks to path until the file system refuses one; returns the
// bytes written. Plain system calls: no buffer keeps anything back.
inline size_t FillFileSystem(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return 0;
  const std::vector<char> block(512, 'f');
  size_t written = 0;
  for (;;) {
    const ssize_t count = write(fd, block.data(), block.size());
    if (count <= 0) break;
    written += static_cast<size_t>(count);
  }
  close(fd);
  return written;
}

inline size_t FileSize(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_SUPPORT_FAULT_FILESYSTEM_H
