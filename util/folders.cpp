// File access checks and folder services on standard strings.
//
// Folders are created, removed and inspected through the host framework's
// directory services (util/os_services.h), never directly: inside the host
// the framework owns the process's system calls. An empty path is refused
// before the host is asked.
#include <unistd.h>

#include <cstdint>
#include <string>

#include "kyrt/files.h"
#include "util/os_services.h"

namespace {

constexpr int kFolderMode = 0777;

int AccessModeBits(kyrt::KYFACCESSMODE mode) {
  switch (mode) {
    case kyrt::KYFACCESS_READ:
      return R_OK;
    case kyrt::KYFACCESS_WRITE:
      return W_OK;
    case kyrt::KYFACCESS_READWRITE:
      return R_OK | W_OK;
    default:
      return F_OK;
  }
}

bool EndsWithSeparator(const std::string& path) {
  const char last = path.back();
  return last == '/' || last == '\\';
}

}  // namespace

namespace kyrt {

bool CheckFileAccess(const std::string& path, KYFACCESSMODE mode) noexcept {
  if (path.empty()) return false;
  return access(path.c_str(), AccessModeBits(mode)) == 0;
}

bool CreateFolder(const std::string& path) noexcept {
  if (path.empty()) return false;
  // Only the host's failure code counts as a refusal; "already there" and
  // any other answer are success.
  return OS_MkDir(path.c_str(), kFolderMode) != kOsResultFailure;
}

bool DeleteFolder(const std::string& path) noexcept {
  if (path.empty()) return false;
  return OS_DeleteDirectory(path.c_str()) == kOsResultSuccess;
}

bool FolderExists(std::string path) noexcept {
  if (path.empty()) return false;
  if (EndsWithSeparator(path)) path.pop_back();
  uint32_t attributes = 0;
  return OS_GetFileAttributes(path.c_str(), &attributes) == kOsResultSuccess &&
         (attributes & kOsAttributeDirectory) != 0;
}

}  // namespace kyrt
