// safeOpen: a descriptor the instrumented program's output cannot reach.
//
// A lock file opened on descriptor 1 would receive whatever the program
// later prints, and could be closed under the runtime's feet. When open
// lands on 0, 1 or 2, duplicates of it are taken until one lands above 2.
// At that point 0 to 2 are all in use, so that duplicate is closed and the
// file opened again lands on its number or higher. The low duplicates and
// the first descriptor are then closed, latest first, which leaves the
// standard slots as free as they were.
#include "collector/safe_open.h"

#include <fcntl.h>
#include <unistd.h>

namespace kyrt {
namespace {

constexpr int kHighestStandardDescriptor = 2;

// At most every standard descriptor but the first one can be a filler.
constexpr int kMaxLowDuplicates = kHighestStandardDescriptor;

bool IsStandardDescriptor(int fd) {
  return fd >= 0 && fd <= kHighestStandardDescriptor;
}

void CloseLatestFirst(const int* descriptors, int count) {
  while (count > 0) close(descriptors[--count]);
}

// low is the standard descriptor open just returned for path.
int ReopenAboveStandardDescriptors(const char* path, int flags, int mode, int low) {
  int duplicates[kMaxLowDuplicates];
  int count = 0;
  int reopened = -1;
  for (;;) {
    const int duplicate = dup(low);
    if (duplicate < 0) break;
    if (!IsStandardDescriptor(duplicate)) {
      close(duplicate);
      reopened = open(path, flags, mode);
      break;
    }
    if (count == kMaxLowDuplicates) {
      // Only another thread closing standard descriptors meanwhile gets
      // here: give up as if dup had failed rather than overrun the list.
      close(duplicate);
      break;
    }
    duplicates[count++] = duplicate;
  }
  CloseLatestFirst(duplicates, count);
  close(low);
  return reopened;
}

}  // namespace

int safeOpen(const char* path, int flags, int mode) noexcept {
  const int fd = open(path, flags, mode);
  // Taken as unsigned, -1 is above 2 too: a failed open is returned as is.
  if (static_cast<unsigned>(fd) > kHighestStandardDescriptor) return fd;
  return ReopenAboveStandardDescriptors(path, flags, mode, fd);
}

}  // namespace kyrt
