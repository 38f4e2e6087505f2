// CollectorCommandHandler: the lock file, the semaphore set and the shared
// command area of the collector command channel, and the delivery of the
// commands a controller leaves there.
//
// Creation is a fixed sequence whose failure paths are deliberately uneven:
// what each path leaves behind is part of the channel's behaviour.
//   1 open the lock file               fails: nothing to undo
//   2 semaphore set from ftok(file)    fails: path A
//   3 area lock := 0 (taken)           fails: path A
//   4 private shared memory segment    fails: path C
//   5 its identifier into the file     fails: path B
//   6 wake-up := 0, twice; the second result counts
//                                      fails: segment removed (identifier
//                                             kept), then path A
//   7 attach the segment               fails: path B
// Path A closes and deletes the lock file and removes the semaphore set;
// path B removes the segment and continues as path C; path C closes and
// deletes the lock file but leaves the semaphore set in place.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "collector/channel_system_calls.h"
#include "collector/safe_open.h"
#include "kyrt/command_handler.h"
#include "kyrt/files.h"
#include "runtime/atomic_ops.h"

namespace {

using kyrt::collector::CurrentChannelSystemCalls;

// processCommands results.
constexpr int kNoSharedArea = -1;
constexpr int kNothingPending = 0;
constexpr int kAreaLockBusy = 1;
constexpr int kDispatched = 2;

constexpr int kLockFileMode = 0600;
constexpr int kSemaphoreSetMode = 0666;
constexpr int kSharedMemoryMode = 0600;
constexpr char kSeparator = '/';

constexpr short kAreaLockOperationFlags = SEM_UNDO | IPC_NOWAIT;
constexpr short kTakeOne = -1;
constexpr short kGiveOne = 1;

// The area is shared with another process: its words are read and written
// once each, in place, never cached by the compiler.
int32_t PendingCount(const KyCommandArea* area) {
  return kyrt::LoadRelaxed(&area->pendingCount);
}

void SetPendingCount(KyCommandArea* area, int32_t count) {
  kyrt::StoreRelaxed(&area->pendingCount, count);
}

// Copies the pending records, slot by slot from slot 0, into copies; the
// count in the area is read again before each record (it is the controller's
// word), and never more than KYCMD_RECORD_COUNT records are taken, whatever
// the count says. Returns how many were copied.
int CopyPendingRecords(const KyCommandArea* area, KyCommandRecord* copies) {
  int copied = 0;
  while (copied < KYCMD_RECORD_COUNT && copied < PendingCount(area)) {
    std::memcpy(&copies[copied], &area->records[copied], sizeof(KyCommandRecord));
    ++copied;
  }
  return copied;
}

}  // namespace

CollectorCommandHandler::CollectorCommandHandler() noexcept
    : sharedArea_(nullptr),
      lockFilePath_{},
      callback_(nullptr),
      callbackContext_(nullptr),
      lockFileDescriptor_(-1),
      sharedMemoryId_(-1),
      unusedWord_(0),
      semaphoreSetId_(-1),
      semaphoreOperation_{} {
  // The object's layout is part of the library's interface.
  static_assert(offsetof(CollectorCommandHandler, sharedArea_) == 0);
  static_assert(offsetof(CollectorCommandHandler, lockFilePath_) == 8);
  static_assert(offsetof(CollectorCommandHandler, callback_) == 4104);
  static_assert(offsetof(CollectorCommandHandler, callbackContext_) == 4112);
  static_assert(offsetof(CollectorCommandHandler, lockFileDescriptor_) == 4120);
  static_assert(offsetof(CollectorCommandHandler, sharedMemoryId_) == 4124);
  static_assert(offsetof(CollectorCommandHandler, unusedWord_) == 4128);
  static_assert(offsetof(CollectorCommandHandler, semaphoreSetId_) == 4136);
  static_assert(offsetof(CollectorCommandHandler, semaphoreOperation_) == 4140);
  static_assert(sizeof(semaphoreOperation_) == 6);
  static_assert(sizeof(CollectorCommandHandler) == 4152);
}

CollectorCommandHandler::~CollectorCommandHandler() noexcept {}

bool CollectorCommandHandler::composeLockFilePath(const char* directory) noexcept {
  const std::size_t length = strnlen(directory, KYCMD_MAX_DIRECTORY_LENGTH + 1);
  if (length > KYCMD_MAX_DIRECTORY_LENGTH) return false;
  std::memcpy(lockFilePath_, directory, length);
  lockFilePath_[length] = '\0';
  if (length != 0) {
    __KySanitizePath(lockFilePath_);
    const std::size_t sanitized = std::strlen(lockFilePath_);
    if (sanitized != 0 && lockFilePath_[sanitized - 1] != kSeparator) {
      lockFilePath_[sanitized] = kSeparator;
      lockFilePath_[sanitized + 1] = '\0';
    }
  }
  // At most 4083 + 1 + 11 characters and the NUL: the buffer's 4096 bytes.
  std::strcat(lockFilePath_, KYCMD_LOCK_FILE_NAME);
  return true;
}

int CollectorCommandHandler::initializeCommandHandler(const char* directory,
                                                      KyCommandCallback callback,
                                                      void* context) noexcept {
  if (callback == nullptr || directory == nullptr) return 0;
  if (!composeLockFilePath(directory)) return 0;
  if (createSharedMemoryAndLockFile() == 0) return 0;
  std::memset(sharedArea_, 0, sizeof(KyCommandArea));
  kyrt::StoreRelease(&sharedArea_->state, KYCMD_AREA_READY);
  releaseLock();  // the area lock goes from 0 to 1: controllers may now write
  callback_ = callback;
  callbackContext_ = context;
  return 1;
}

int CollectorCommandHandler::createSharedMemoryAndLockFile() noexcept {
  const kyrt::collector::ChannelSystemCalls& calls = CurrentChannelSystemCalls();
  lockFileDescriptor_ = kyrt::safeOpen(lockFilePath_, O_RDWR | O_CREAT, kLockFileMode);
  if (lockFileDescriptor_ == -1) {
    sharedMemoryId_ = -1;
    sharedArea_ = nullptr;
    return 0;
  }
  // An existing set with this key (left by an earlier run) is reused.
  const key_t key = ftok(lockFilePath_, KYCMD_FTOK_PROJECT_ID);
  semaphoreSetId_ =
      calls.getSemaphoreSet(key, KYCMD_SEMAPHORE_COUNT, IPC_CREAT | kSemaphoreSetMode);
  if (semaphoreSetId_ < 0) return failCreationRemovingSemaphoreSet();
  if (calls.setSemaphoreValue(semaphoreSetId_, KYCMD_AREA_LOCK_SEMAPHORE, 0) == -1) {
    return failCreationRemovingSemaphoreSet();
  }
  sharedMemoryId_ =
      calls.getSharedMemory(IPC_PRIVATE, sizeof(KyCommandArea), IPC_CREAT | kSharedMemoryMode);
  if (sharedMemoryId_ == -1) return failCreationClosingLockFile();
  if (calls.writeFile(lockFileDescriptor_, &sharedMemoryId_, sizeof sharedMemoryId_) !=
      static_cast<ssize_t>(sizeof sharedMemoryId_)) {
    return failCreationRemovingSharedMemory();
  }
  // Two resets in a row; only the second result is checked.
  calls.setSemaphoreValue(semaphoreSetId_, KYCMD_WAKE_UP_SEMAPHORE, 0);
  if (calls.setSemaphoreValue(semaphoreSetId_, KYCMD_WAKE_UP_SEMAPHORE, 0) == -1) {
    calls.removeSharedMemory(sharedMemoryId_);  // the identifier keeps its value
    return failCreationRemovingSemaphoreSet();
  }
  void* attached = calls.attachSharedMemory(sharedMemoryId_, nullptr, 0);
  if (attached == reinterpret_cast<void*>(-1)) return failCreationRemovingSharedMemory();
  sharedArea_ = static_cast<KyCommandArea*>(attached);
  return 1;
}

// Path A.
int CollectorCommandHandler::failCreationRemovingSemaphoreSet() noexcept {
  close(lockFileDescriptor_);
  lockFileDescriptor_ = -1;
  unlink(lockFilePath_);
  sharedArea_ = nullptr;
  // Even when the identifier is -1: the call then fails harmlessly.
  CurrentChannelSystemCalls().removeSemaphoreSet(semaphoreSetId_);
  return 0;
}

// Path B.
int CollectorCommandHandler::failCreationRemovingSharedMemory() noexcept {
  CurrentChannelSystemCalls().removeSharedMemory(sharedMemoryId_);
  sharedMemoryId_ = -1;
  return failCreationClosingLockFile();
}

// Path C: the semaphore set stays.
int CollectorCommandHandler::failCreationClosingLockFile() noexcept {
  close(lockFileDescriptor_);
  lockFileDescriptor_ = -1;
  unlink(lockFilePath_);
  sharedArea_ = nullptr;
  return 0;
}

void CollectorCommandHandler::destroySharedMemoryAndLockFile(
    _KYCMDHDLRCLEANEXTENT extent) noexcept {
  if (sharedArea_ != nullptr) {
    shmdt(sharedArea_);
    sharedArea_ = nullptr;
  }
  if (sharedMemoryId_ != -1) {
    CurrentChannelSystemCalls().removeSharedMemory(sharedMemoryId_);
    sharedMemoryId_ = -1;
  }
  if (extent == KYCMDHDLR_CLEAN_PARTIAL) {
    if (lockFileDescriptor_ != -1) {
      close(lockFileDescriptor_);
      lockFileDescriptor_ = -1;
    }
    return;
  }
  if (semaphoreSetId_ != -1) {
    CurrentChannelSystemCalls().removeSemaphoreSet(semaphoreSetId_);
    semaphoreSetId_ = -1;
  }
  // The file is deleted only by whoever still had it open: after a partial
  // clean-up it stays on disk for good.
  if (lockFileDescriptor_ != -1) {
    close(lockFileDescriptor_);
    lockFileDescriptor_ = -1;
    unlink(lockFilePath_);
  }
}

void CollectorCommandHandler::cleanupCommandHandler(_KYCMDHDLRCLEANEXTENT extent) noexcept {
  destroySharedMemoryAndLockFile(extent);
}

int CollectorCommandHandler::operateOnAreaLock(short operation) noexcept {
  semaphoreOperation_.sem_num = KYCMD_AREA_LOCK_SEMAPHORE;
  semaphoreOperation_.sem_op = operation;
  semaphoreOperation_.sem_flg = kAreaLockOperationFlags;
  return semop(semaphoreSetId_, &semaphoreOperation_, 1);
}

int CollectorCommandHandler::acquireLock() noexcept {
  return operateOnAreaLock(kTakeOne) == -1 ? 0 : 1;
}

int CollectorCommandHandler::releaseLock() noexcept {
  return operateOnAreaLock(kGiveOne);
}

void CollectorCommandHandler::dispatch(KyCommandRecord* records, int count) noexcept {
  for (int slot = 0; slot < count; ++slot) {
    KyCommandRecord& record = records[slot];
    callback_(record.code, record.argument1, record.argument2, record.argument3, record.argument4,
              record.payload, callbackContext_);
  }
}

int CollectorCommandHandler::processCommands() noexcept {
  KyCommandArea* area = sharedArea_;
  if (area == nullptr) return kNoSharedArea;
  if (PendingCount(area) == 0) return kNothingPending;
  // Never wait for a controller: if it holds the lock, its records are
  // taken at the next wake-up (the one just consumed is not given back).
  if (acquireLock() == 0) return kAreaLockBusy;
  KyCommandRecord copies[KYCMD_RECORD_COUNT];
  int copied = 0;
  if (PendingCount(area) > 0) copied = CopyPendingRecords(area, copies);
  // Count reset and lock released before any callback runs, so that the
  // controller is never kept waiting while the tool works; the records are
  // safe in the private copies by now.
  SetPendingCount(area, 0);
  releaseLock();
  dispatch(copies, copied);
  return kDispatched;
}

int CollectorCommandHandler::processHeartbeat() noexcept {
  if (sharedArea_ == nullptr) return kNoSharedArea;
  callback_(KYCMD_HEARTBEAT, 0, 0, 0, 0, nullptr, callbackContext_);
  return kDispatched;
}
