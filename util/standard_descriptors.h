// Keeping the runtime's files off descriptors 0, 1 and 2.
//
// An instrumented program may have closed its standard descriptors. A file
// the runtime opened on one of them would receive whatever the program later
// writes to "standard output", or be closed under the runtime's feet. When an
// open lands low, duplicates of that descriptor are taken until one lands
// above 2. At that point 0 to 2 are all in use, so that duplicate is closed
// and the file opened again lands on its number or higher. The low
// duplicates and the first descriptor are then closed, latest first, which
// leaves the standard slots as free as they were.
#ifndef KYRT_UTIL_STANDARD_DESCRIPTORS_H
#define KYRT_UTIL_STANDARD_DESCRIPTORS_H

#include <unistd.h>

namespace kyrt {

inline constexpr int kHighestStandardDescriptor = 2;

inline bool IsStandardDescriptor(int fd) {
  return fd >= 0 && fd <= kHighestStandardDescriptor;
}

// low is a standard descriptor an open just returned. Fills the standard
// slots, calls reopen() (which opens the same file again and returns the
// caller's result for it) and frees the slots again; low itself is closed
// with close(). Returns reopen()'s result, or failed when no duplicate could
// be taken. Another thread closing standard descriptors meanwhile makes it
// give up as if dup had failed rather than overrun its list.
template <typename Result, typename Reopen>
Result ReopenAboveStandardDescriptors(int low, Result failed, Reopen reopen) {
  // At most every standard descriptor but low can be a filler.
  constexpr int kMaxLowDuplicates = kHighestStandardDescriptor;
  int duplicates[kMaxLowDuplicates];
  int count = 0;
  Result reopened = failed;
  for (;;) {
    const int duplicate = dup(low);
    if (duplicate < 0) break;
    if (!IsStandardDescriptor(duplicate)) {
      close(duplicate);
      reopened = reopen();
      break;
    }
    if (count == kMaxLowDuplicates) {
      close(duplicate);
      break;
    }
    duplicates[count++] = duplicate;
  }
  while (count > 0) close(duplicates[--count]);
  close(low);
  return reopened;
}

}  // namespace kyrt

#endif  // KYRT_UTIL_STANDARD_DESCRIPTORS_H
