// Helpers shared by the command channel tests: System V objects that are
// removed whatever the outcome of a case, callback recording, and kyrtctl
// run as a real second process.
#ifndef KYRT_TESTS_COLLECTOR_COMMAND_CHANNEL_SUPPORT_H
#define KYRT_TESTS_COLLECTOR_COMMAND_CHANNEL_SUPPORT_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/command_handler.h"
#include "support/test_files.h"

extern char** environ;

namespace kyrt_test {

using Clock = std::chrono::steady_clock;

// Generous bound for anything that should happen "at once": the machine
// may be loaded, and no case asserts a tighter timing than this.
constexpr std::chrono::seconds kPatience{20};

// The fourth argument of semctl, which callers must define themselves.
union SemaphoreControlArgument {
  int value;
  semid_ds* status;
  unsigned short* values;
};

inline bool SemaphoreSetExists(int set) {
  semid_ds information;
  SemaphoreControlArgument argument;
  argument.status = &information;
  return set >= 0 && semctl(set, 0, IPC_STAT, argument) == 0;
}

inline bool SharedMemoryExists(int id) {
  shmid_ds information;
  return id >= 0 && shmctl(id, IPC_STAT, &information) == 0;
}

inline int SemaphoreValue(int set, int number) {
  return semctl(set, number, GETVAL);
}

// Applies operation to one semaphore of set, waiting if it must.
inline int OperateOnSemaphore(int set, int number, int operation, int flags = 0) {
  sembuf request{};
  request.sem_num = static_cast<unsigned short>(number);
  request.sem_op = static_cast<short>(operation);
  request.sem_flg = static_cast<short>(flags);
  return semop(set, &request, 1);
}

// The semaphore set a channel's lock file names, or -1.
inline int SemaphoreSetOfLockFile(const std::string& path) {
  const key_t key = ftok(path.c_str(), KYCMD_FTOK_PROJECT_ID);
  if (key == -1) return -1;
  return semget(key, 0, 0);
}

// The first four bytes of the lock file, or -1.
inline int SegmentIdInLockFile(const std::string& path) {
  const std::string content = ReadFile(path);
  int id = -1;
  if (content.size() >= sizeof id) std::memcpy(&id, content.data(), sizeof id);
  return id;
}

inline bool FileExists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

// Waits (polling) until predicate holds or kPatience passes.
template <typename Predicate>
bool Eventually(Predicate predicate, std::chrono::milliseconds patience = kPatience) {
  const Clock::time_point deadline = Clock::now() + patience;
  while (!predicate()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Removes, when it goes out of scope, every semaphore set and segment it
// was told about, whether the case passed or not, and then checks that they
// are gone. Cases register objects as soon as they know their ids.
class IpcObjectsGuard {
 public:
  IpcObjectsGuard() = default;
  IpcObjectsGuard(const IpcObjectsGuard&) = delete;
  IpcObjectsGuard& operator=(const IpcObjectsGuard&) = delete;

  ~IpcObjectsGuard() {
    for (const std::string& path : lockFiles_) {
      addSemaphoreSet(SemaphoreSetOfLockFile(path));
      addSegment(SegmentIdInLockFile(path));
    }
    for (int set : semaphoreSets_) {
      if (set >= 0) semctl(set, 0, IPC_RMID);
    }
    for (int id : segments_) {
      if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    }
    for (int set : semaphoreSets_) EXPECT_FALSE(SemaphoreSetExists(set)) << "semaphore set " << set;
    for (int id : segments_) EXPECT_FALSE(SharedMemoryExists(id)) << "segment " << id;
  }

  void addSemaphoreSet(int set) {
    if (set >= 0) semaphoreSets_.push_back(set);
  }
  void addSegment(int id) {
    if (id >= 0) segments_.push_back(id);
  }
  // The set and the segment behind the lock file at path, looked up when
  // the guard ends (if the file is still there then).
  void addLockFile(const std::string& path) { lockFiles_.push_back(path); }
  void addChannelOf(const CollectorCommandHandler& handler) {
    addSemaphoreSet(handler.semaphoreSetId());
    addSegment(handler.sharedMemoryId());
    lockFiles_.push_back(handler.lockFilePath());
  }

 private:
  std::vector<int> semaphoreSets_;
  std::vector<int> segments_;
  std::vector<std::string> lockFiles_;
};

// One delivered callback, payload copied.
struct Delivery {
  int code = 0;
  int arguments[4] = {0, 0, 0, 0};
  bool hasPayload = false;
  std::vector<unsigned char> payload;
  void* context = nullptr;
  std::thread::id thread;
  int32_t pendingCountSeen = -1;  // the area's count during the call
  int areaLockSeen = -1;          // the area lock's value during the call
  Clock::time_point when;
};

// Records callbacks from any thread. A handler whose area and semaphore
// set the callback should look at can be named with watch().
class CallbackRecorder {
 public:
  static void Callback(int code, int a1, int a2, int a3, int a4, unsigned char* payload,
                       void* context) {
    static_cast<CallbackRecorder*>(context)->record(code, a1, a2, a3, a4, payload, context);
  }

  void watch(const CollectorCommandHandler* handler) { watched_ = handler; }

  // Makes callbacks block until release() (to keep the service thread
  // busy); returns at once for calls after release().
  void blockCallbacks() {
    std::lock_guard<std::mutex> lock(mutex_);
    blocked_ = true;
  }
  void release() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      blocked_ = false;
    }
    changed_.notify_all();
  }

  bool waitForCount(size_t count, std::chrono::milliseconds patience = kPatience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return deliveries_.size() >= count; });
  }

  std::vector<Delivery> deliveries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
  }

  size_t count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_.size();
  }

 private:
  void record(int code, int a1, int a2, int a3, int a4, unsigned char* payload, void* context) {
    Delivery delivery;
    delivery.code = code;
    delivery.arguments[0] = a1;
    delivery.arguments[1] = a2;
    delivery.arguments[2] = a3;
    delivery.arguments[3] = a4;
    delivery.hasPayload = payload != nullptr;
    if (payload != nullptr) delivery.payload.assign(payload, payload + KYCMD_PAYLOAD_SIZE);
    delivery.context = context;
    delivery.thread = std::this_thread::get_id();
    delivery.when = Clock::now();
    if (watched_ != nullptr && watched_->sharedArea() != nullptr) {
      delivery.pendingCountSeen =
          __atomic_load_n(&watched_->sharedArea()->pendingCount, __ATOMIC_RELAXED);
      delivery.areaLockSeen = SemaphoreValue(watched_->semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    deliveries_.push_back(delivery);
    changed_.notify_all();
    changed_.wait(lock, [&] { return !blocked_; });
  }

  const CollectorCommandHandler* watched_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Delivery> deliveries_;
  bool blocked_ = false;
};

// A payload whose every byte depends on its position and on seed, NULs
// included.
inline std::vector<unsigned char> PatternPayload(int seed, size_t size = KYCMD_PAYLOAD_SIZE) {
  std::vector<unsigned char> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>((i * 7 + seed) & 0xFF);
  return bytes;
}

#ifdef KYRT_TEST_KYRTCTL

// kyrtctl's output and exit status.
struct KyrtctlRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Starts kyrtctl with arguments, its output going to files named after
// tag in the case's scratch directory. Returns the pid, or -1.
inline pid_t StartKyrtctl(const std::vector<std::string>& arguments, const std::string& tag) {
  std::vector<std::string> words{KYRT_TEST_KYRTCTL};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::string out = tag + ".out";
  const std::string err = tag + ".err";
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  if (posix_spawn(&pid, KYRT_TEST_KYRTCTL, &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// The exit status (128 + signal when killed), or -1.
inline int WaitForExit(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

inline KyrtctlRun FinishKyrtctl(pid_t pid, const std::string& tag) {
  KyrtctlRun run;
  run.status = WaitForExit(pid);
  run.out = ReadFile(tag + ".out");
  run.err = ReadFile(tag + ".err");
  return run;
}

inline KyrtctlRun RunKyrtctl(const std::vector<std::string>& arguments,
                             const std::string& tag = "kyrtctl") {
  return FinishKyrtctl(StartKyrtctl(arguments, tag), tag);
}

// Kills a kyrtctl started with StartKyrtctl, whatever the case's outcome.
class ChildGuard {
 public:
  explicit ChildGuard(pid_t pid) : pid_(pid) {}
  ChildGuard(const ChildGuard&) = delete;
  ChildGuard& operator=(const ChildGuard&) = delete;
  ~ChildGuard() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      WaitForExit(pid_);
    }
  }
  // Kills it now; returns its exit status.
  int killNow() {
    kill(pid_, SIGKILL);
    const int status = WaitForExit(pid_);
    pid_ = -1;
    return status;
  }
  int wait() {
    const int status = WaitForExit(pid_);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_;
};

#endif  // KYRT_TEST_KYRTCTL

}  // namespace kyrt_test

#endif  // KYRT_TESTS_COLLECTOR_COMMAND_CHANNEL_SUPPORT_H
