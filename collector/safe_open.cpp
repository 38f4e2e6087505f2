// safeOpen: a descriptor the instrumented program's output cannot reach
// (see util/standard_descriptors.h).
#include "collector/safe_open.h"

#include <fcntl.h>

#include "util/standard_descriptors.h"

namespace kyrt {

int safeOpen(const char* path, int flags, int mode) noexcept {
  const int fd = open(path, flags, mode);
  if (!IsStandardDescriptor(fd)) return fd;  // a failed open (-1) is returned as is
  return ReopenAboveStandardDescriptors(fd, -1, [=] { return open(path, flags, mode); });
}

}  // namespace kyrt
