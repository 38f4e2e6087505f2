// The system calls through which the command handler creates its channel.
//
// Creation has deliberate, uneven failure paths (which objects are undone
// and which stay depends on the step that failed), and most of those steps
// cannot be made to fail on demand on a healthy system. The handler
// therefore makes these calls through a table that tests can replace; in
// production the table holds the plain calls. The seam is internal (hidden
// visibility): tests reach it by linking the static archive.
#ifndef KYRT_COLLECTOR_CHANNEL_SYSTEM_CALLS_H
#define KYRT_COLLECTOR_CHANNEL_SYSTEM_CALLS_H

#include <sys/types.h>

#include <cstddef>

namespace kyrt::collector {

struct ChannelSystemCalls {
  int (*getSemaphoreSet)(key_t key, int count, int flags);              // semget
  int (*setSemaphoreValue)(int set, int number, int value);             // semctl SETVAL
  int (*removeSemaphoreSet)(int set);                                   // semctl IPC_RMID
  int (*getSharedMemory)(key_t key, std::size_t size, int flags);       // shmget
  void* (*attachSharedMemory)(int id, const void* address, int flags);  // shmat
  int (*removeSharedMemory)(int id);                                    // shmctl IPC_RMID
  ssize_t (*writeFile)(int fd, const void* buffer, std::size_t size);   // write
};

const ChannelSystemCalls& CurrentChannelSystemCalls();

// Replaces the table; a null member restores that call's plain version.
// Not synchronised: call it before the code under test runs.
void SetChannelSystemCallsForTesting(const ChannelSystemCalls& calls);

}  // namespace kyrt::collector

#endif  // KYRT_COLLECTOR_CHANNEL_SYSTEM_CALLS_H
