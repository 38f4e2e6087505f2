// POSIX implementation of the host framework's directory services.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "util/os_services.h"

namespace {

bool IsDirectory(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

extern "C" {

int OS_MkDir(const char* path, int mode) {
  if (path == nullptr) return kyrt::kOsResultFailure;
  if (mkdir(path, static_cast<mode_t>(mode)) == 0) return kyrt::kOsResultSuccess;
  if (errno == EEXIST && IsDirectory(path)) return kyrt::kOsResultSuccess;
  return kyrt::kOsResultFailure;
}

int OS_DeleteDirectory(const char* path) {
  if (path == nullptr || rmdir(path) != 0) return kyrt::kOsResultFailure;
  return kyrt::kOsResultSuccess;
}

int OS_GetFileAttributes(const char* path, uint32_t* attributes) {
  struct stat status;
  if (path == nullptr || attributes == nullptr || stat(path, &status) != 0) {
    return kyrt::kOsResultFailure;
  }
  uint32_t bits = 0;
  if (S_ISREG(status.st_mode)) bits |= kyrt::kOsAttributeFile;
  if (S_ISDIR(status.st_mode)) bits |= kyrt::kOsAttributeDirectory;
  *attributes = bits;
  return kyrt::kOsResultSuccess;
}

}  // extern "C"
