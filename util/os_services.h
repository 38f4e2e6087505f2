// The host framework's directory services, which the folder functions of
// the runtime call. A host framework supplies them; for builds without one
// the runtime carries a POSIX implementation of its own (CMake option
// KYRT_POSIX_OS_SERVICES, on by default), internal and not exported.
//
// Result codes the runtime relies on: OS_MkDir returns kOsResultFailure (9)
// when it could not create the directory; OS_DeleteDirectory and
// OS_GetFileAttributes return kOsResultSuccess (0) on success; attribute
// bit kOsAttributeDirectory (0x4) marks a directory.
#ifndef KYRT_UTIL_OS_SERVICES_H
#define KYRT_UTIL_OS_SERVICES_H

#include <cstdint>

#if defined(KYRT_POSIX_OS_SERVICES) && KYRT_POSIX_OS_SERVICES
#define KYRT_OS_SERVICE_VISIBILITY __attribute__((visibility("hidden")))
#else
#define KYRT_OS_SERVICE_VISIBILITY __attribute__((visibility("default")))
#endif

namespace kyrt {

inline constexpr int kOsResultSuccess = 0;
inline constexpr int kOsResultFailure = 9;
inline constexpr uint32_t kOsAttributeFile = 0x1;
inline constexpr uint32_t kOsAttributeDirectory = 0x4;

}  // namespace kyrt

extern "C" {

// Creates directory path with the given mode. kOsResultSuccess when it was
// created or already exists as a directory, kOsResultFailure otherwise.
KYRT_OS_SERVICE_VISIBILITY int OS_MkDir(const char* path, int mode);

// Removes the empty directory path. kOsResultSuccess on success, else
// kOsResultFailure.
KYRT_OS_SERVICE_VISIBILITY int OS_DeleteDirectory(const char* path);

// Stores the attribute bits of path (following symbolic links) in
// *attributes. kOsResultSuccess on success, else kOsResultFailure and
// *attributes untouched.
KYRT_OS_SERVICE_VISIBILITY int OS_GetFileAttributes(const char* path, uint32_t* attributes);

}  // extern "C"

#endif  // KYRT_UTIL_OS_SERVICES_H
