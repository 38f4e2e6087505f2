// The controller's side of the collector command channel (kyrt/controller.h).
//
// The tool owns every object of the channel; a controller only reads the
// lock file, attaches the segment and operates the two semaphores:
//   area lock (semaphore 1)  taken with -1 and released with +1, both with
//                            SEM_UNDO, so that a controller killed while
//                            holding it does not leave it taken;
//   wake-up (semaphore 0)    raised by 1 after each group of records, without
//                            SEM_UNDO: an undo would take the announcement
//                            back when the controller exits, possibly before
//                            the tool has seen it.
// Waiting is bounded by one deadline per call: the lock is waited for in the
// kernel (semtimedop with the time left); an area that is not ready yet or
// has no free slot is retried after a short sleep that doubles up to a cap.
#include "kyrt/controller.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>

struct KyController {
  char path[PATH_MAX];
  int sharedMemoryId;
  int semaphoreSetId;
  KyCommandArea* area;
  bool holdsAreaLock;
};

namespace {

constexpr char kSeparator = '/';
constexpr int64_t kNanosecondsPerMillisecond = 1000000;
constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kNoDeadline = -1;

// Retry pauses while the area is not ready or has no free slot.
constexpr int64_t kFirstPauseNanoseconds = 100 * 1000;
constexpr int64_t kLongestPauseNanoseconds = 10 * kNanosecondsPerMillisecond;

// semget without IPC_CREAT: find the tool's set, never make one.
constexpr int kFindExisting = 0;

int64_t MonotonicNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

int64_t DeadlineAfter(int timeoutMilliseconds) {
  if (timeoutMilliseconds < 0) return kNoDeadline;
  return MonotonicNanoseconds() + timeoutMilliseconds * kNanosecondsPerMillisecond;
}

timespec AsTimespec(int64_t nanoseconds) {
  timespec result;
  result.tv_sec = static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
  result.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsPerSecond);
  return result;
}

// The time left before deadline, for semtimedop: null without a deadline,
// zero once it has passed (one last try that does not wait).
const timespec* TimeLeft(int64_t deadline, timespec* storage) {
  if (deadline == kNoDeadline) return nullptr;
  *storage = AsTimespec(std::max<int64_t>(0, deadline - MonotonicNanoseconds()));
  return storage;
}

// What a failed lookup of one of the channel's objects means. missing is
// the status for "that object does not exist".
KyControllerStatus StatusOfFailure(int error, KyControllerStatus missing) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case EINVAL:
    case EIDRM:
      return missing;
    case EACCES:
    case EPERM:
      return KYCTL_PERMISSION_DENIED;
    default:
      return KYCTL_SYSTEM_ERROR;
  }
}

// Returns status with errno set to error (the C library may have changed
// errno while cleaning up after the failing call).
KyControllerStatus FailWith(KyControllerStatus status, int error) {
  errno = error;
  return status;
}

int OperateOnSemaphore(int set, unsigned short number, short operation, short flags,
                       const timespec* timeout) {
  sembuf request{};
  request.sem_num = number;
  request.sem_op = operation;
  request.sem_flg = flags;
  return semtimedop(set, &request, 1, timeout);
}

void ReleaseAreaLock(KyController* controller) {
  OperateOnSemaphore(controller->semaphoreSetId, KYCMD_AREA_LOCK_SEMAPHORE, 1, SEM_UNDO, nullptr);
  controller->holdsAreaLock = false;
}

int PostWakeUp(const KyController* controller) {
  return OperateOnSemaphore(controller->semaphoreSetId, KYCMD_WAKE_UP_SEMAPHORE, 1, 0, nullptr);
}

bool AreaIsReady(const KyCommandArea* area) {
  return __atomic_load_n(&area->state, __ATOMIC_ACQUIRE) == KYCMD_AREA_READY;
}

// The slots in use, as the area's count says; a count out of range (a
// broken controller wrote it) is read as empty below 0 and full above.
int32_t SlotsInUse(const KyCommandArea* area) {
  const int32_t count = __atomic_load_n(&area->pendingCount, __ATOMIC_RELAXED);
  return std::clamp<int32_t>(count, 0, KYCMD_RECORD_COUNT);
}

// Sleeps for the current pause (never past the deadline) and doubles it.
KyControllerStatus PauseBeforeRetry(int64_t deadline, int64_t* pause) {
  int64_t length = *pause;
  if (deadline != kNoDeadline) {
    const int64_t left = deadline - MonotonicNanoseconds();
    if (left <= 0) return FailWith(KYCTL_TIMED_OUT, EAGAIN);
    length = std::min(length, left);
  }
  const timespec interval = AsTimespec(length);
  nanosleep(&interval, nullptr);
  *pause = std::min(*pause * 2, kLongestPauseNanoseconds);
  return KYCTL_OK;
}

// Takes the area lock once the area is ready, by the deadline.
KyControllerStatus TakeReadyArea(KyController* controller, int64_t deadline) {
  int64_t pause = kFirstPauseNanoseconds;
  for (;;) {
    timespec storage;
    if (OperateOnSemaphore(controller->semaphoreSetId, KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO,
                           TimeLeft(deadline, &storage)) == 0) {
      controller->holdsAreaLock = true;
      if (AreaIsReady(controller->area)) return KYCTL_OK;
      ReleaseAreaLock(controller);
      const KyControllerStatus paused = PauseBeforeRetry(deadline, &pause);
      if (paused != KYCTL_OK) return paused;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN) return FailWith(KYCTL_TIMED_OUT, EAGAIN);
    return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  }
}

// A tool whose wake-up was consumed while a controller held the lock leaves
// its records in place until the next wake-up. A sender that finds no free
// slot therefore makes sure one wake-up is outstanding.
void NudgeToolIfIdle(const KyController* controller) {
  if (semctl(controller->semaphoreSetId, KYCMD_WAKE_UP_SEMAPHORE, GETVAL) == 0) {
    PostWakeUp(controller);
  }
}

void WriteRecord(KyCommandRecord* record, const KyControllerCommand& command) {
  record->code = command.code;
  record->argument1 = command.argument1;
  record->argument2 = command.argument2;
  record->argument3 = command.argument3;
  record->argument4 = command.argument4;
  if (command.payloadSize != 0) std::memcpy(record->payload, command.payload, command.payloadSize);
  std::memset(record->payload + command.payloadSize, 0, KYCMD_PAYLOAD_SIZE - command.payloadSize);
}

// Writes up to the free slots' worth of commands behind the pending ones;
// the caller holds the area lock. Returns how many were written.
int WriteIntoFreeSlots(KyCommandArea* area, const KyControllerCommand* commands, int count) {
  const int32_t inUse = SlotsInUse(area);
  const int written = std::min(count, KYCMD_RECORD_COUNT - inUse);
  if (written <= 0) return 0;  // the count stays as found, even out of range
  for (int i = 0; i < written; ++i) WriteRecord(&area->records[inUse + i], commands[i]);
  __atomic_store_n(&area->pendingCount, inUse + written, __ATOMIC_RELAXED);
  return written;
}

KyControllerStatus CheckCommands(const KyControllerCommand* commands, int count) {
  if (count < 0 || (count > 0 && commands == nullptr)) return KYCTL_INVALID_ARGUMENT;
  for (int i = 0; i < count; ++i) {
    if (commands[i].payloadSize > KYCMD_PAYLOAD_SIZE) return KYCTL_PAYLOAD_TOO_LARGE;
    if (commands[i].payloadSize != 0 && commands[i].payload == nullptr) {
      return KYCTL_INVALID_ARGUMENT;
    }
  }
  return KYCTL_OK;
}

// Reads the segment identifier from the lock file.
KyControllerStatus ReadSegmentId(const char* path, int* id) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return StatusOfFailure(errno, KYCTL_NO_LOCK_FILE);
  const ssize_t read = pread(fd, id, sizeof *id, 0);
  const int error = errno;
  close(fd);
  if (read < 0) return FailWith(KYCTL_SYSTEM_ERROR, error);
  // A file without an identifier belongs to no live channel.
  if (read != static_cast<ssize_t>(sizeof *id)) return FailWith(KYCTL_STALE_LOCK_FILE, ENODATA);
  return KYCTL_OK;
}

// The segment must still exist, not be on its way out, and have the
// command area's size: identifiers are reused once a segment is removed.
KyControllerStatus CheckSegment(int id) {
  shmid_ds information;
  if (shmctl(id, IPC_STAT, &information) != 0) {
    return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  }
  if ((information.shm_perm.mode & SHM_DEST) != 0 ||
      information.shm_segsz != sizeof(KyCommandArea)) {
    return FailWith(KYCTL_STALE_LOCK_FILE, EIDRM);
  }
  return KYCTL_OK;
}

KyControllerStatus FindSemaphoreSet(const char* path, int* set) {
  const key_t key = ftok(path, KYCMD_FTOK_PROJECT_ID);
  if (key == -1) return StatusOfFailure(errno, KYCTL_NO_LOCK_FILE);
  // A key of IPC_PRIVATE (possible with project id 0) names no findable set.
  if (key == IPC_PRIVATE) return FailWith(KYCTL_SYSTEM_ERROR, EINVAL);
  *set = semget(key, KYCMD_SEMAPHORE_COUNT, kFindExisting);
  if (*set < 0) return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  return KYCTL_OK;
}

KyControllerStatus AttachArea(KyController* controller) {
  void* attached = shmat(controller->sharedMemoryId, nullptr, 0);
  if (attached == reinterpret_cast<void*>(-1)) {
    return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  }
  controller->area = static_cast<KyCommandArea*>(attached);
  return KYCTL_OK;
}

KyControllerStatus OpenInto(KyController* controller, const char* directory) {
  if (!KyControllerLockFilePath(directory, controller->path, sizeof controller->path)) {
    return FailWith(KYCTL_SYSTEM_ERROR, ENAMETOOLONG);
  }
  KyControllerStatus status = ReadSegmentId(controller->path, &controller->sharedMemoryId);
  if (status == KYCTL_OK) status = CheckSegment(controller->sharedMemoryId);
  if (status == KYCTL_OK) status = FindSemaphoreSet(controller->path, &controller->semaphoreSetId);
  if (status == KYCTL_OK) status = AttachArea(controller);
  return status;
}

}  // namespace

extern "C" {

const char* KyControllerStatusText(KyControllerStatus status) {
  switch (status) {
    case KYCTL_OK:
      return "success";
    case KYCTL_INVALID_ARGUMENT:
      return "invalid argument";
    case KYCTL_NO_LOCK_FILE:
      return "no lock file";
    case KYCTL_STALE_LOCK_FILE:
      return "stale lock file";
    case KYCTL_PERMISSION_DENIED:
      return "permission denied";
    case KYCTL_PAYLOAD_TOO_LARGE:
      return "payload too large";
    case KYCTL_TIMED_OUT:
      return "timed out";
    case KYCTL_SYSTEM_ERROR:
      return "system error";
  }
  return "unknown status";
}

int KyControllerLockFilePath(const char* directory, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return 0;
  buffer[0] = '\0';
  const size_t length = directory != nullptr ? std::strlen(directory) : 0;
  const bool addSeparator = length != 0 && directory[length - 1] != kSeparator;
  const size_t needed = length + (addSeparator ? 1 : 0) + std::strlen(KYCMD_LOCK_FILE_NAME) + 1;
  if (needed > size) return 0;
  if (length != 0) std::memcpy(buffer, directory, length);
  size_t end = length;
  if (addSeparator) buffer[end++] = kSeparator;
  std::strcpy(buffer + end, KYCMD_LOCK_FILE_NAME);
  return 1;
}

KyControllerStatus KyControllerOpen(const char* directory, KyController** controller) {
  if (controller == nullptr) return KYCTL_INVALID_ARGUMENT;
  *controller = nullptr;
  KyController* opened = new (std::nothrow) KyController{};
  if (opened == nullptr) return FailWith(KYCTL_SYSTEM_ERROR, ENOMEM);
  opened->sharedMemoryId = -1;
  opened->semaphoreSetId = -1;
  const KyControllerStatus status = OpenInto(opened, directory);
  if (status != KYCTL_OK) {
    const int error = errno;
    delete opened;
    return FailWith(status, error);
  }
  *controller = opened;
  return KYCTL_OK;
}

void KyControllerClose(KyController* controller) {
  if (controller == nullptr) return;
  if (controller->holdsAreaLock) ReleaseAreaLock(controller);
  if (controller->area != nullptr) shmdt(controller->area);
  delete controller;
}

const char* KyControllerPath(const KyController* controller) {
  return controller != nullptr ? controller->path : "";
}

KyControllerStatus KyControllerSend(KyController* controller, const KyControllerCommand* commands,
                                    int count, int timeoutMilliseconds) {
  if (controller == nullptr || controller->holdsAreaLock) return KYCTL_INVALID_ARGUMENT;
  const KyControllerStatus checked = CheckCommands(commands, count);
  if (checked != KYCTL_OK) return checked;
  const int64_t deadline = DeadlineAfter(timeoutMilliseconds);
  int64_t pause = kFirstPauseNanoseconds;
  int sent = 0;
  while (sent < count) {
    const KyControllerStatus taken = TakeReadyArea(controller, deadline);
    if (taken != KYCTL_OK) return taken;
    const int written = WriteIntoFreeSlots(controller->area, commands + sent, count - sent);
    ReleaseAreaLock(controller);
    if (written == 0) {
      NudgeToolIfIdle(controller);
      const KyControllerStatus paused = PauseBeforeRetry(deadline, &pause);
      if (paused != KYCTL_OK) return paused;
      continue;
    }
    if (PostWakeUp(controller) != 0) return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
    sent += written;
    pause = kFirstPauseNanoseconds;
  }
  return KYCTL_OK;
}

KyControllerStatus KyControllerAcquireArea(KyController* controller, int timeoutMilliseconds) {
  if (controller == nullptr || controller->holdsAreaLock) return KYCTL_INVALID_ARGUMENT;
  return TakeReadyArea(controller, DeadlineAfter(timeoutMilliseconds));
}

KyControllerStatus KyControllerReleaseArea(KyController* controller) {
  if (controller == nullptr || !controller->holdsAreaLock) return KYCTL_INVALID_ARGUMENT;
  ReleaseAreaLock(controller);
  return KYCTL_OK;
}

KyControllerStatus KyControllerAnnounce(KyController* controller) {
  if (controller == nullptr) return KYCTL_INVALID_ARGUMENT;
  if (PostWakeUp(controller) != 0) return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  return KYCTL_OK;
}

KyControllerStatus KyControllerDescribe(const KyController* controller,
                                        KyChannelDescription* description) {
  if (controller == nullptr || description == nullptr) return KYCTL_INVALID_ARGUMENT;
  shmid_ds information;
  if (shmctl(controller->sharedMemoryId, IPC_STAT, &information) != 0) {
    return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  }
  const int wakeUp = semctl(controller->semaphoreSetId, KYCMD_WAKE_UP_SEMAPHORE, GETVAL);
  const int areaLock = semctl(controller->semaphoreSetId, KYCMD_AREA_LOCK_SEMAPHORE, GETVAL);
  if (wakeUp < 0 || areaLock < 0) return StatusOfFailure(errno, KYCTL_STALE_LOCK_FILE);
  const KyCommandArea* area = controller->area;
  description->sharedMemoryId = controller->sharedMemoryId;
  description->semaphoreSetId = controller->semaphoreSetId;
  // This controller's own attachment is not counted.
  description->attachedProcesses =
      information.shm_nattch > 0 ? static_cast<uint32_t>(information.shm_nattch - 1) : 0;
  description->state = __atomic_load_n(&area->state, __ATOMIC_ACQUIRE);
  description->pendingCount = __atomic_load_n(&area->pendingCount, __ATOMIC_RELAXED);
  description->wakeUpValue = wakeUp;
  description->areaLockValue = areaLock;
  return KYCTL_OK;
}

}  // extern "C"
