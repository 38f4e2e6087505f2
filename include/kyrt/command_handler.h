/*
 * KYRT - support runtime for analysis tools.
 *
 * The collector command channel: the tool's side of a channel through which
 * a separate controller process steers the tool while it runs (start, pause
 * or stop collection, for example).
 *
 * The channel is made of three operating-system objects:
 *   - a lock file, KYCMD_LOCK_FILE_NAME, in the directory given at
 *     registration. Its first 4 bytes hold the System V shared memory
 *     identifier of the command area (the segment has a private key, so this
 *     is how a controller finds it); the file is also the ftok path, with
 *     project id KYCMD_FTOK_PROJECT_ID, of the semaphore set's key;
 *   - a set of two System V semaphores: KYCMD_WAKE_UP_SEMAPHORE, which a
 *     controller raises by 1 to announce commands, and
 *     KYCMD_AREA_LOCK_SEMAPHORE, a binary mutex over the command area
 *     (0 = taken, 1 = free);
 *   - a System V shared memory segment holding the command area
 *     (KyCommandArea below): a state word, a pending count and five command
 *     records.
 *
 * A command service thread, started through the tool's thread-create hook,
 * sleeps on the wake-up semaphore, copies the pending records out of the
 * area and hands each to the tool's callback, on that thread, one at a time.
 * With a heartbeat period it also calls the callback with KYCMD_HEARTBEAT
 * whenever that many seconds pass without a wake-up. The runtime gives the
 * commands no meaning of its own.
 *
 * Expected order of calls: set the helper-thread hooks (__KySetThreadProcs),
 * register, receive callbacks, __KyShutdownCommandHandler, then
 * __KyUnregisterCommandHandler. All C functions work on the one process-wide
 * handler and are not synchronised with each other: call them from one
 * thread at a time. Nothing is logged; every failure is a result.
 *
 * A controller's side of the contract: find the lock file, read the
 * identifier and attach the segment; get the semaphore set from
 * ftok(lock file path, 0); the area is ready when the area lock can be taken
 * and the state word is KYCMD_AREA_READY. To send: take the area lock
 * (operation -1, with SEM_UNDO), write records at slots pendingCount,
 * pendingCount + 1, ... up to the last slot, raise pendingCount, release the
 * lock (+1), then raise the wake-up semaphore by 1. Never write more than
 * KYCMD_RECORD_COUNT records. The kyrtctl tool and its library
 * (kyrt/controller.h) implement this side.
 */
#ifndef KYRT_COMMAND_HANDLER_H
#define KYRT_COMMAND_HANDLER_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* The code of the heartbeat command; its arguments are all 0 and its
 * payload pointer is null. */
#define KYCMD_HEARTBEAT 0x11010

/* The lock file's name, inside the directory given at registration. */
#define KYCMD_LOCK_FILE_NAME "tsqcmds.dat"

/* The longest directory registration accepts, in characters: with the
 * separator, the file name and the NUL the path fills the handler's
 * KYCMD_LOCK_FILE_PATH_SIZE-byte buffer exactly. */
#define KYCMD_MAX_DIRECTORY_LENGTH 4083
#define KYCMD_LOCK_FILE_PATH_SIZE 4096

/* ftok's project id for the semaphore set's key. */
#define KYCMD_FTOK_PROJECT_ID 0

/* The semaphores of the set, by number. */
#define KYCMD_SEMAPHORE_COUNT 2
#define KYCMD_WAKE_UP_SEMAPHORE 0
#define KYCMD_AREA_LOCK_SEMAPHORE 1

/* The command area's wire format (see KyCommandArea). */
#define KYCMD_PAYLOAD_SIZE 4352
#define KYCMD_RECORD_COUNT 5
#define KYCMD_RECORD_SIZE 4372
#define KYCMD_AREA_SIZE 21868

/* The state word of an area that the runtime has zeroed and handed over;
 * 0 before. */
#define KYCMD_AREA_READY 1u

/* The tool's command callback: (code, argument 1, argument 2, argument 3,
 * argument 4, payload, context). Runs on the command service thread. The
 * payload points into a private copy of the record, valid only during the
 * call (null for KYCMD_HEARTBEAT); context is the value given at
 * registration. */
typedef void (*KyCommandCallback)(int code, int argument1, int argument2, int argument3,
                                  int argument4, unsigned char* payload, void* context);

/* One command slot of the area: 4,372 bytes, offsets code 0, arguments 4 to
 * 16, payload 20. The payload's meaning is agreed between the tool and its
 * controller; the runtime copies all of it. */
typedef struct KyCommandRecord {
  int32_t code;
  int32_t argument1;
  int32_t argument2;
  int32_t argument3;
  int32_t argument4;
  unsigned char payload[KYCMD_PAYLOAD_SIZE];
} KyCommandRecord;

/* The shared command area, a wire format between two processes (the host's
 * little-endian byte order): 21,868 bytes, offsets state 0, pendingCount 4,
 * records 8. Records are filled from slot 0 upward; pendingCount (0 to 5)
 * says how many are filled, and the runtime resets it to 0 once it has
 * copied them. Touch it only while holding the area lock. */
typedef struct KyCommandArea {
  uint32_t state; /* KYCMD_AREA_READY once the runtime has zeroed the area */
  int32_t pendingCount;
  KyCommandRecord records[KYCMD_RECORD_COUNT];
} KyCommandArea;

#ifdef __cplusplus
#define KYCMD_LAYOUT_CHECK(condition, message) static_assert(condition, message)
#else
#define KYCMD_LAYOUT_CHECK(condition, message) _Static_assert(condition, message)
#endif

KYCMD_LAYOUT_CHECK(sizeof(KyCommandRecord) == KYCMD_RECORD_SIZE, "command record size");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandRecord, code) == 0, "command code offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandRecord, argument1) == 4, "argument 1 offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandRecord, argument2) == 8, "argument 2 offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandRecord, argument3) == 12, "argument 3 offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandRecord, argument4) == 16, "argument 4 offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandRecord, payload) == 20, "payload offset");
KYCMD_LAYOUT_CHECK(sizeof(KyCommandArea) == KYCMD_AREA_SIZE, "command area size");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandArea, state) == 0, "state word offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandArea, pendingCount) == 4, "pending count offset");
KYCMD_LAYOUT_CHECK(offsetof(KyCommandArea, records) == 8, "records offset");

/* How much a clean-up removes. Any value other than
 * KYCMDHDLR_CLEAN_PARTIAL behaves as KYCMDHDLR_CLEAN_FULL. 32 bits. */
typedef enum _KYCMDHDLRCLEANEXTENT
#ifdef __cplusplus
    : int32_t
#endif
{
  /* Detach and remove the shared memory, remove the semaphore set, close
   * the lock file and delete it. */
  KYCMDHDLR_CLEAN_FULL = 0,
  /* Detach and remove the shared memory and close the lock file; the
   * semaphore set and the lock file on disk stay. */
  KYCMDHDLR_CLEAN_PARTIAL = 1
} _KYCMDHDLRCLEANEXTENT;

KYCMD_LAYOUT_CHECK(sizeof(_KYCMDHDLRCLEANEXTENT) == 4, "clean-up extent is 32 bits");

/* Registers the tool's command callback and opens the channel, with a
 * heartbeat.
 *   directory         where the lock file goes; "" means the current
 *                     directory. At most KYCMD_MAX_DIRECTORY_LENGTH
 *                     characters; runs of "/" are folded and a "/" is added
 *                     before the file name when missing. Copied.
 *   callback          receives every command, on the service thread.
 *   context           handed back as the callback's last argument.
 *   heartbeatSeconds  when non-zero, the callback also gets KYCMD_HEARTBEAT
 *                     whenever that many seconds pass without a wake-up;
 *                     0 means no heartbeat.
 * Needs all four helper-thread hooks. Starts the command service thread
 * through the thread-create hook and registers a shutdown of it through
 * the add-fini hook, then creates the lock file (mode 0600, kept open on a
 * descriptor above 2), the semaphore set and the shared area.
 * Returns 1 on success; 0 when a hook is missing, the thread cannot be
 * started, callback is null, directory is null or too long, or the lock
 * file or an IPC object cannot be made (whatever was made is removed
 * again). A failure after the thread was started leaves the thread and the
 * add-fini registration in place; such a thread ends by itself when no
 * semaphore set exists, else it waits for __KyShutdownCommandHandler.
 * Not thread-safe; register once per process: after
 * __KyShutdownCommandHandler a new registration's thread ends at its first
 * wake-up or time-out.
 * The service thread's wait is not resumed after a signal: an interrupted
 * wait ends the thread. A host's helper threads normally take none of the
 * application's signals; with a host that lets them through, create the
 * thread with signals blocked. */
KYRT_API int __KyRegisterCommandHandlerWithHeartbeat(const char* directory,
                                                     KyCommandCallback callback, void* context,
                                                     int heartbeatSeconds) KYRT_NOTHROW;

/* __KyRegisterCommandHandlerWithHeartbeat without a heartbeat (period 0). */
KYRT_API int __KyRegisterCommandHandler(const char* directory, KyCommandCallback callback,
                                        void* context) KYRT_NOTHROW;

/* Stops the command service thread if one was started: sets the stop flag
 * (never cleared again in this process), raises the wake-up semaphore and
 * waits up to 1,000 ms for the thread through the thread-wait hook. Does
 * nothing when no thread was started or it was already stopped. Also runs
 * through the add-fini hook when the application finishes. The channel's
 * objects stay until __KyUnregisterCommandHandler. Call it from a thread
 * other than the service thread (not from the callback). */
KYRT_API void __KyShutdownCommandHandler(void) KYRT_NOTHROW;

/* Removes the channel's objects: with KYCMDHDLR_CLEAN_PARTIAL the shared
 * memory is removed and the lock file closed, the semaphore set and the
 * file on disk stay; with any other value everything is removed. Call it
 * after __KyShutdownCommandHandler. */
KYRT_API void __KyUnregisterCommandHandler(_KYCMDHDLRCLEANEXTENT extent) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#ifdef __cplusplus
#include <sys/sem.h>

/* Helpers of the class that are not part of its interface stay inside the
 * library. */
#if defined(__GNUC__)
#define KYCMD_LIBRARY_PRIVATE __attribute__((visibility("hidden")))
#else
#define KYCMD_LIBRARY_PRIVATE
#endif

/* The tool's end of the channel. The runtime keeps one process-wide
 * instance, built at load time and used by the C functions above; a tool
 * may also drive an object of its own through these operations.
 *
 * Layout (no base class, no virtual operations), in order: shared area
 * pointer, lock file path (KYCMD_LOCK_FILE_PATH_SIZE bytes, NUL-terminated),
 * callback, callback context, lock file descriptor, shared memory
 * identifier, a 64-bit word that nothing uses, semaphore set identifier and
 * the semaphore operation record through which acquireLock and releaseLock
 * call semop. Because of that shared record, acquireLock and releaseLock
 * (and the operations that call them: initializeCommandHandler,
 * processCommands) must not run concurrently on one object. */
class KYRT_API CollectorCommandHandler {
 public:
  /* Nothing attached: null area and callback, descriptor and identifiers
   * -1, operation record and unused word 0. */
  CollectorCommandHandler() noexcept;

  /* Does nothing: no operating-system object is removed (see
   * cleanupCommandHandler). */
  ~CollectorCommandHandler() noexcept;

  CollectorCommandHandler(const CollectorCommandHandler&) = delete;
  CollectorCommandHandler& operator=(const CollectorCommandHandler&) = delete;

  /* Builds the lock file path from directory (see
   * __KyRegisterCommandHandlerWithHeartbeat), creates the channel, zeroes
   * the area, marks it ready and releases the area lock, then stores
   * callback and context. Returns 1, or 0 when callback or directory is
   * null, directory is longer than KYCMD_MAX_DIRECTORY_LENGTH, or creation
   * failed. */
  int initializeCommandHandler(const char* directory, KyCommandCallback callback,
                               void* context) noexcept;

  /* Creates the lock file at the current path, the semaphore set (area
   * lock taken, wake-up at 0) and the shared area, and attaches it. Returns
   * 1, or 0 after undoing what it made; on some failures the semaphore set
   * deliberately stays, and after a failed second reset of the wake-up
   * semaphore the shared memory identifier keeps the removed segment's
   * value. */
  int createSharedMemoryAndLockFile() noexcept;

  /* Detaches and removes the shared memory and closes the lock file; unless
   * extent is KYCMDHDLR_CLEAN_PARTIAL also removes the semaphore set and,
   * when the file was still open, deletes it. Safe on a handler with
   * nothing attached. */
  void destroySharedMemoryAndLockFile(_KYCMDHDLRCLEANEXTENT extent) noexcept;

  /* destroySharedMemoryAndLockFile(extent). */
  void cleanupCommandHandler(_KYCMDHDLRCLEANEXTENT extent) noexcept;

  /* Takes the area lock without waiting (SEM_UNDO | IPC_NOWAIT). Returns 1
   * when taken, 0 when busy or on error. */
  int acquireLock() noexcept;

  /* Releases the area lock (+1, SEM_UNDO | IPC_NOWAIT). Returns semop's
   * result: 0, or -1 on error. */
  int releaseLock() noexcept;

  /* Copies the pending records out of the area and calls the callback for
   * each, in slot order, after resetting the count and releasing the lock.
   * At most KYCMD_RECORD_COUNT records are copied, whatever count the area
   * holds. Returns -1 when no area is attached, 0 when nothing is pending
   * (the lock is not taken), 1 when the area lock is busy (the records stay
   * for the next call), 2 when the records were dispatched. The area is
   * attached only by a successful initializeCommandHandler, which also
   * stores the callback. */
  int processCommands() noexcept;

  /* Calls the callback with KYCMD_HEARTBEAT, four zero arguments, a null
   * payload and the context; the lock is not taken. Returns -1 when no area
   * is attached, else 2. */
  int processHeartbeat() noexcept;

  /* Read-only views of the handler's state. */
  KyCommandArea* sharedArea() const noexcept { return sharedArea_; }
  const char* lockFilePath() const noexcept { return lockFilePath_; }
  KyCommandCallback callback() const noexcept { return callback_; }
  void* callbackContext() const noexcept { return callbackContext_; }
  int lockFileDescriptor() const noexcept { return lockFileDescriptor_; }
  int sharedMemoryId() const noexcept { return sharedMemoryId_; }
  int semaphoreSetId() const noexcept { return semaphoreSetId_; }

 private:
  KYCMD_LIBRARY_PRIVATE bool composeLockFilePath(const char* directory) noexcept;
  KYCMD_LIBRARY_PRIVATE int failCreationRemovingSemaphoreSet() noexcept;
  KYCMD_LIBRARY_PRIVATE int failCreationRemovingSharedMemory() noexcept;
  KYCMD_LIBRARY_PRIVATE int failCreationClosingLockFile() noexcept;
  KYCMD_LIBRARY_PRIVATE int operateOnAreaLock(short operation) noexcept;
  KYCMD_LIBRARY_PRIVATE void dispatch(KyCommandRecord* records, int count) noexcept;

  KyCommandArea* sharedArea_;                    /* null when not attached */
  char lockFilePath_[KYCMD_LOCK_FILE_PATH_SIZE]; /* NUL-terminated */
  KyCommandCallback callback_;
  void* callbackContext_;
  int lockFileDescriptor_;               /* -1 when closed */
  int sharedMemoryId_;                   /* -1 when none */
  [[maybe_unused]] uint64_t unusedWord_; /* zeroed by the constructor; nothing else uses it */
  int semaphoreSetId_;                   /* -1 when none */
  struct sembuf semaphoreOperation_;
};

#endif /* __cplusplus */

#endif /* KYRT_COMMAND_HANDLER_H */
