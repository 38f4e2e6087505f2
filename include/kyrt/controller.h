/*
 * KYRT - support runtime for analysis tools.
 *
 * The controller's side of the collector command channel, as a small static
 * library (CMake target kyrt::controller, file libkyrt_controller.a) for
 * programs that steer a running tool. It is not part of libkyrt.so and does
 * not need it: a controller is a separate process that never loads the
 * runtime. The kyrtctl command is built on it (see docs/kyrtctl.md).
 *
 * A controller opens the channel a tool registered in some directory
 * (kyrt/command_handler.h describes the lock file, the semaphore set and the
 * command area), then sends commands: each send takes the area lock, writes
 * records at the next free slots, raises the pending count, releases the
 * lock and raises the wake-up semaphore once, so that commands sent together
 * reach the tool's callback in one pass, in order. While all five slots are
 * full the sender waits (nudging the tool with an extra wake-up) and tries
 * again, until its time-out.
 *
 * The area lock is taken with SEM_UNDO: if the controller dies while it
 * holds the lock, the kernel gives it back. Wake-ups are posted without
 * SEM_UNDO, so that a controller that ends at once cannot take back an
 * announcement the tool has not seen yet.
 *
 * Usable from C and C++. A KyController belongs to one thread at a time;
 * separate controllers (in one process or several) may send concurrently,
 * the area lock serialises them.
 */
#ifndef KYRT_CONTROLLER_H
#define KYRT_CONTROLLER_H

#include <stddef.h>
#include <stdint.h>

#include "kyrt/command_handler.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the controller functions. The values are also kyrtctl's exit
 * statuses. */
typedef enum KyControllerStatus {
  KYCTL_OK = 0,
  /* A null pointer or a negative count was passed. */
  KYCTL_INVALID_ARGUMENT = 1,
  /* There is no lock file in the directory: no tool has registered there,
   * or it has cleaned up fully. */
  KYCTL_NO_LOCK_FILE = 2,
  /* The lock file is there but the channel behind it is gone: its shared
   * memory segment or its semaphore set no longer exists (the tool cleaned
   * up partially, or a different segment now has that identifier), or the
   * file holds no identifier. */
  KYCTL_STALE_LOCK_FILE = 3,
  /* The lock file, the segment or the semaphore set may not be used by
   * this user. */
  KYCTL_PERMISSION_DENIED = 4,
  /* A payload is longer than KYCMD_PAYLOAD_SIZE bytes; nothing was sent. */
  KYCTL_PAYLOAD_TOO_LARGE = 5,
  /* The time-out passed while waiting for the area lock, for the area to
   * become ready or for a free slot. Commands of earlier groups of the same
   * send may have been delivered. */
  KYCTL_TIMED_OUT = 6,
  /* Any other failure of a system call; errno tells which. */
  KYCTL_SYSTEM_ERROR = 7
} KyControllerStatus;

/* An open channel (opaque). */
typedef struct KyController KyController;

/* One command to send. payload may be null when payloadSize is 0. The
 * payload is copied into the record and the rest of the record's
 * KYCMD_PAYLOAD_SIZE bytes is zero-filled, so a text shorter than that
 * arrives NUL-terminated. */
typedef struct KyControllerCommand {
  int32_t code;
  int32_t argument1;
  int32_t argument2;
  int32_t argument3;
  int32_t argument4;
  const void* payload;
  size_t payloadSize;
} KyControllerCommand;

/* What KyControllerDescribe reports about an open channel. */
typedef struct KyChannelDescription {
  int32_t sharedMemoryId;
  int32_t semaphoreSetId;
  /* Processes attached to the segment, not counting this controller. 0
   * means the tool is gone without cleaning up (its area lock then stays
   * taken for good). */
  uint32_t attachedProcesses;
  /* The area's state word: KYCMD_AREA_READY once the tool has set it up. */
  uint32_t state;
  /* The area's pending command count. */
  int32_t pendingCount;
  /* The semaphores' values: the wake-ups not yet consumed, and the area
   * lock (1 free, 0 taken). */
  int32_t wakeUpValue;
  int32_t areaLockValue;
} KyChannelDescription;

/* The text of a status, for messages ("no lock file", "timed out" and so
 * on). Never null; static storage. */
const char* KyControllerStatusText(KyControllerStatus status);

/* Writes the lock file path for directory into buffer (size bytes):
 * KYCMD_LOCK_FILE_NAME alone for a null or empty directory, else the
 * directory, a "/" when it does not end in one, and the name. Returns 1, or
 * 0 when buffer is null or too small (buffer then holds an empty string
 * when size allows). */
int KyControllerLockFilePath(const char* directory, char* buffer, size_t size);

/* Opens the channel of the tool that registered in directory (null or ""
 * for the current directory): reads the segment identifier from the lock
 * file, checks and attaches the segment and finds the semaphore set. Does
 * not wait and does not take the lock. On KYCTL_OK *controller receives a
 * new handle, to be released with KyControllerClose; on failure it is set to
 * null and errno holds the cause reported by the failing call. */
KyControllerStatus KyControllerOpen(const char* directory, KyController** controller);

/* Detaches the segment and releases the handle; gives the area lock back
 * if this controller still holds it. Null is ignored. */
void KyControllerClose(KyController* controller);

/* The lock file path the channel was opened from. */
const char* KyControllerPath(const KyController* controller);

/* Sends count commands, in order. Commands that fit into the free slots
 * together are written under one holding of the area lock and announced
 * with one wake-up; the rest follow as slots come free. Payload sizes are
 * checked before anything is sent. timeoutMilliseconds bounds the whole
 * call; 0 tries once without waiting, a negative value waits as long as it
 * takes. Returns KYCTL_OK when every command is in the area, else the
 * failure (KYCTL_TIMED_OUT, KYCTL_STALE_LOCK_FILE when the channel went away
 * meanwhile, and so on). */
KyControllerStatus KyControllerSend(KyController* controller, const KyControllerCommand* commands,
                                    int count, int timeoutMilliseconds);

/* Takes the area lock once the area is ready, waiting up to
 * timeoutMilliseconds (as for KyControllerSend). While a controller holds
 * it, the tool's deliveries are put off. Returns KYCTL_OK when taken. */
KyControllerStatus KyControllerAcquireArea(KyController* controller, int timeoutMilliseconds);

/* Gives back the area lock taken by KyControllerAcquireArea. Returns
 * KYCTL_OK, or KYCTL_INVALID_ARGUMENT when this controller does not hold
 * it. */
KyControllerStatus KyControllerReleaseArea(KyController* controller);

/* Raises the wake-up semaphore by one without writing anything: the tool
 * takes whatever is pending (or nothing) at once. */
KyControllerStatus KyControllerAnnounce(KyController* controller);

/* Fills *description with a snapshot of the channel, read without taking
 * the lock. */
KyControllerStatus KyControllerDescribe(const KyController* controller,
                                        KyChannelDescription* description);

#ifdef __cplusplus
}
#endif

#endif /* KYRT_CONTROLLER_H */
