// Opening a file on a descriptor above the standard ones.
#ifndef KYRT_COLLECTOR_SAFE_OPEN_H
#define KYRT_COLLECTOR_SAFE_OPEN_H

namespace kyrt {

// open(path, flags, mode), except that the descriptor returned is never 0,
// 1 or 2: when open lands there (the instrumented program closed its
// standard streams), the low descriptors are filled with duplicates until
// one lands above 2, the file is opened again and the fillers are closed.
// Returns the descriptor, or -1 (errno set by the failing call). Internal to
// the library; thread-safe as far as the descriptor table allows (another
// thread closing standard descriptors meanwhile can make it fail).
int safeOpen(const char* path, int flags, int mode) noexcept;

}  // namespace kyrt

#endif  // KYRT_COLLECTOR_SAFE_OPEN_H
