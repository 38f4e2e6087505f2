// A long run of every thread-safe family at once: eight worker threads take
// turns at spin locks, shared-exclusive locks, the allocator, the log, a
// locking hash table, a thread-safe queue and the CRC-32 table, each with
// private sets and vectors, while a controller thread feeds the command
// channel. Every family keeps its own books, and at the end the books must
// balance: nothing lost, counts add up, structures validate.
//
//   KYRT_STRESS_SECONDS  how long the workers run (default 120)
//
// Exit status 0 when every check held, 1 otherwise. Not part of the test
// suite (minutes long): scripts/run-stress.sh builds and runs it, under
// ThreadSanitizer and without.
#include <poll.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kyrt/command_handler.h"
#include "kyrt/hash_table.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/posix_host.h"
#include "kyrt/queue.h"
#include "kyrt/runtime.h"
#include "kyrt/sets.h"
#include "kyrt/shared_exclusive_lock.h"
#include "kyrt/spin_lock.h"
#include "kyrt/vectors.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWorkers = 8;
constexpr int kDefaultSeconds = 120;
constexpr const char* kDurationVariable = "KYRT_STRESS_SECONDS";
// Log records per worker, at most: the log must stay a readable size.
constexpr uint64_t kLogRecordsPerWorker = 10000;
constexpr uint64_t kKeySpaceShift = 40;
constexpr std::chrono::seconds kDrainPatience{30};

// Books that do not balance are reported here; the run then fails.
std::mutex g_failuresMutex;
std::vector<std::string> g_failures;

void Fail(const std::string& what) {
  std::lock_guard<std::mutex> lock(g_failuresMutex);
  if (g_failures.size() < 20) g_failures.push_back(what);
}

void Check(bool condition, const std::string& what) {
  if (!condition) Fail(what);
}

using Random = std::mt19937_64;

// ---------------------------------------------------------------------------
// Locks

// A counter guarded by a spin lock, taken recursively now and then: the
// counter must end at the number of increments made.
class SpinLockFamily {
 public:
  SpinLockFamily() { __KyInitializeSpinLock(&lock_); }

  void step(int, Random& random) {
    __KyAcquireSpinLock(&lock_);
    const bool nested = random() % 8 == 0;
    if (nested) __KyAcquireSpinLock(&lock_);
    ++guarded_;
    if (nested) __KyReleaseSpinLock(&lock_);
    __KyReleaseSpinLock(&lock_);
    increments_.fetch_add(1, std::memory_order_relaxed);
  }

  void verify() {
    Check(guarded_ == increments_.load(), "spin lock: counter " + std::to_string(guarded_) +
                                              " after " + std::to_string(increments_.load()) +
                                              " increments");
    Check(__KyIsSpinLockInAcquiredState(&lock_) == 0, "spin lock: still held at the end");
  }

  uint64_t operations() const { return increments_.load(); }

 private:
  KySpinLock lock_;
  uint64_t guarded_ = 0;
  std::atomic<uint64_t> increments_{0};
};

// Two words that writers change together under the exclusive lock and
// readers compare under the shared lock.
class SharedExclusiveLockFamily {
 public:
  SharedExclusiveLockFamily() { __KyInitializeSharedExclusiveLock(&lock_); }

  void step(int, Random& random) {
    if (random() % 4 == 0) {
      __KyAcquireExclusiveLock(&lock_);
      ++first_;
      ++second_;
      __KyReleaseExclusiveLock(&lock_);
      writes_.fetch_add(1, std::memory_order_relaxed);
    } else {
      __KyAcquireSharedLock(&lock_);
      const bool torn = first_ != second_;
      __KyReleaseSharedLock(&lock_);
      if (torn) torn_.fetch_add(1, std::memory_order_relaxed);
      reads_.fetch_add(1, std::memory_order_relaxed);
    }
  }

  void verify() {
    Check(torn_.load() == 0, "shared-exclusive lock: a reader saw a half-done write");
    Check(first_ == writes_.load() && second_ == writes_.load(),
          "shared-exclusive lock: writes lost");
  }

  uint64_t operations() const { return reads_.load() + writes_.load(); }

 private:
  KySharedExclusiveLock lock_;
  uint64_t first_ = 0;
  uint64_t second_ = 0;
  std::atomic<uint64_t> reads_{0};
  std::atomic<uint64_t> writes_{0};
  std::atomic<uint64_t> torn_{0};
};

// ---------------------------------------------------------------------------
// Allocator, sets and vectors

// Each worker keeps a pool of blocks of many sizes (small and large), each
// filled with a pattern of its own; a block handed back must still hold it.
class AllocatorFamily {
 public:
  explicit AllocatorFamily(uint32_t category) : category_(category) {}

  void step(int worker, Random& random) {
    Pool& pool = pools_[worker];
    const size_t slot = random() % kPoolSize;
    Block& block = pool.blocks[slot];
    if (block.address != nullptr) {
      Check(Intact(block), "allocator: a block's content changed while it was held");
      __KyFree(block.address);
      block.address = nullptr;
    }
    block.size = SizeFor(random);
    block.seed = static_cast<uint8_t>(random());
    block.address = static_cast<uint8_t*>(__KyMalloc(category_, block.size, 0));
    Fill(block);
    pool.operations++;
  }

  void release(int worker) {
    for (Block& block : pools_[worker].blocks) {
      if (block.address == nullptr) continue;
      Check(Intact(block), "allocator: a block's content changed while it was held");
      __KyFree(block.address);
      block.address = nullptr;
    }
  }

  uint64_t operations() const {
    uint64_t total = 0;
    for (const Pool& pool : pools_) total += pool.operations;
    return total;
  }

 private:
  static constexpr size_t kPoolSize = 64;

  struct Block {
    uint8_t* address = nullptr;
    size_t size = 0;
    uint8_t seed = 0;
  };
  struct Pool {
    Block blocks[kPoolSize];
    uint64_t operations = 0;
  };

  static size_t SizeFor(Random& random) {
    switch (random() % 8) {
      case 0:
        return KY_MALLOC_SMALL_LIMIT + 1 + random() % 4096;  // large
      case 1:
        return random() % KY_MALLOC_SMALL_LIMIT;
      default:
        return random() % 256;
    }
  }

  static void Fill(const Block& block) {
    for (size_t at = 0; at < block.size; at += 61) block.address[at] = PatternAt(block, at);
  }
  static bool Intact(const Block& block) {
    for (size_t at = 0; at < block.size; at += 61) {
      if (block.address[at] != PatternAt(block, at)) return false;
    }
    return true;
  }
  static uint8_t PatternAt(const Block& block, size_t at) {
    return static_cast<uint8_t>(block.seed + at * 7);
  }

  uint32_t category_;
  Pool pools_[kWorkers];
};

// Sets and vectors are for one thread at a time: each worker has its own,
// so they only meet in the allocator. Checked against a reference.
class PrivateSetsAndVectorsFamily {
 public:
  explicit PrivateSetsAndVectorsFamily(uint32_t category) {
    for (Private& mine : private_) {
      mine.set = KySet{KY_SET_HEADER_WORD(category), nullptr};
      mine.vector = __KyCreateVector(category);
    }
  }

  void step(int worker, Random& random) {
    Private& mine = private_[worker];
    const auto element = static_cast<uint32_t>(random() % kElementRange);
    if (__KyIsAnElementOfSet(&mine.set, element) != 0) {
      __KyDeleteAnElementFromSet(&mine.set, element);
      mine.members--;
    } else {
      __KyAddAnElementToSet(&mine.set, element);
      mine.members++;
    }
    const auto index = static_cast<uint32_t>(random() % KY_VECTOR_CAPACITY);
    __KyIncrementVectorElement(mine.vector, index);
    mine.increments++;
  }

  void finish(int worker) {
    Private& mine = private_[worker];
    uint64_t counted = 0;
    __KyScanSet(&mine.set, CountElement, &counted);
    Check(counted == mine.members, "sets: a worker's set lost or gained elements");
    uint64_t sum = 0;
    for (uint32_t index = 0; index < KY_VECTOR_CAPACITY; ++index) {
      sum += __KyGetVectorElement(mine.vector, index);
    }
    Check(sum == mine.increments, "vectors: increments lost");
    __KyDestroySet(&mine.set);
    __KyDestroyVector(mine.vector);
    mine.vector = nullptr;
  }

  uint64_t operations() const {
    uint64_t total = 0;
    for (const Private& mine : private_) total += mine.increments;
    return total;
  }

 private:
  static constexpr uint32_t kElementRange = 1u << 16;

  static void CountElement(uint32_t, void* context) { ++*static_cast<uint64_t*>(context); }

  struct Private {
    KySet set{};
    KyVector* vector = nullptr;
    uint64_t members = 0;
    uint64_t increments = 0;
  };
  Private private_[kWorkers];
};

// The CRC-32 table is built on first use by whichever thread comes first.
class Crc32Family {
 public:
  void step(int, Random& random) {
    const size_t length = random() % sizeof kText;
    Check(__KyCRC32(kText, static_cast<int64_t>(length)) == expected_[length],
          "crc32: a different checksum under concurrency");
    checks_.fetch_add(1, std::memory_order_relaxed);
  }

  // Reference values computed before the workers start, bit by bit.
  Crc32Family() {
    for (size_t length = 0; length < sizeof kText; ++length) {
      expected_[length] = BitwiseCrc32(kText, length);
    }
  }

  uint64_t operations() const { return checks_.load(); }

 private:
  static constexpr char kText[] = "The quick brown fox jumps over the lazy dog, again and again.";

  static uint32_t BitwiseCrc32(const char* data, size_t length) {
    if (length == 0) return 0;  // the runtime's convention for empty input
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t at = 0; at < length; ++at) {
      crc ^= static_cast<uint8_t>(data[at]);
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
  }

  uint32_t expected_[sizeof kText];
  std::atomic<uint64_t> checks_{0};
};

// ---------------------------------------------------------------------------
// Hash table and queue

// One locking, two-level table shared by all. Each worker inserts keys of
// its own key space in sequence and removes each one again kWindow
// insertions later, so that it always owns the last kWindow keys; it looks
// up its own keys, live and removed, and other workers' keys. At the end
// the table holds exactly every worker's last window.
class HashTableFamily {
 public:
  explicit HashTableFamily(uint32_t category)
      : table_(__KyCreateHashTable(KY_HASH_TABLE_1024_BUCKETS, nullptr, 2, nullptr, nullptr,
                                   category, 0)) {}

  ~HashTableFamily() { __KyDestroyHashTable(table_, nullptr); }

  void step(int worker, Random& random) {
    Books& books = books_[worker];
    const uint64_t key = KeyOf(worker, books.inserted);
    __KyInsertHashTableEntry(table_, key, ItemOf(key));
    books.inserted++;
    if (books.inserted > kWindow) {
      const uint64_t oldest = KeyOf(worker, books.inserted - kWindow - 1);
      Check(__KyRemoveHashTableEntry(table_, oldest) == ItemOf(oldest),
            "hash table: removal returned the wrong item");
    }
    const uint64_t sequence = random() % books.inserted;
    const uint64_t mine = KeyOf(worker, sequence);
    Check(__KyLookupHashTable(table_, mine) == (live(books, sequence) ? ItemOf(mine) : nullptr),
          "hash table: a worker's own key looked up wrong");
    const int other = static_cast<int>(random() % kWorkers);
    const uint64_t foreign = KeyOf(other, random() % (2 * kWindow));
    void* found = __KyLookupHashTable(table_, foreign);
    Check(found == nullptr || found == ItemOf(foreign), "hash table: a key maps to another item");
    books.operations += 3;
  }

  void verify() {
    uint64_t expected = 0;
    for (const Books& books : books_) expected += std::min(books.inserted, kWindow);
    uint32_t entries = 0;
    __KyScanHashTable(table_, MatchNothing, nullptr, 0, nullptr, &entries);
    Check(entries == expected, "hash table: " + std::to_string(entries) + " entries, expected " +
                                   std::to_string(expected));
    for (int worker = 0; worker < kWorkers; ++worker) {
      const Books& books = books_[worker];
      const uint64_t first = books.inserted > 2 * kWindow ? books.inserted - 2 * kWindow : 0;
      for (uint64_t sequence = first; sequence < books.inserted; ++sequence) {
        const uint64_t key = KeyOf(worker, sequence);
        if (__KyLookupHashTable(table_, key) != (live(books, sequence) ? ItemOf(key) : nullptr)) {
          Fail("hash table: key " + std::to_string(key) + " wrong at the end");
          return;
        }
      }
    }
  }

  uint64_t operations() const {
    uint64_t total = 0;
    for (const Books& books : books_) total += books.operations;
    return total;
  }

 private:
  static constexpr uint64_t kWindow = 4096;

  struct Books {
    uint64_t inserted = 0;
    uint64_t operations = 0;
  };

  static bool live(const Books& books, uint64_t sequence) {
    return sequence + kWindow >= books.inserted;
  }
  static uint64_t KeyOf(int worker, uint64_t sequence) {
    return (static_cast<uint64_t>(worker + 1) << kKeySpaceShift) | sequence;
  }
  static void* ItemOf(uint64_t key) { return reinterpret_cast<void*>(key ^ 0x5A5A5A5Aull); }
  static uint32_t MatchNothing(void*, void*) { return 0; }

  KyHashTable* table_;
  Books books_[kWorkers];
};

// Every worker both produces and consumes. Each value carries its
// producer and sequence; a consumer must see each producer's values in
// increasing order, and at the end every value was taken exactly once.
class QueueFamily {
 public:
  explicit QueueFamily(uint32_t category)
      : queue_(__KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, category)) {}

  ~QueueFamily() {
    __KyDestroyQueue(queue_);
    __KyFree(queue_);
  }

  void step(int worker, Random& random) {
    Books& books = books_[worker];
    __KyEnqueue(queue_, ValueOf(worker, ++books.produced));
    // One and a half takes per value on average: the queue stays short.
    take(worker);
    if (random() % 2 == 0) take(worker);
  }

  void drain(int worker) {
    while (take(worker)) {
    }
  }

  void verify() {
    uint64_t produced = 0;
    uint64_t consumed = 0;
    uint64_t sums[kWorkers] = {};
    for (const Books& books : books_) {
      produced += books.produced;
      consumed += books.consumed;
      for (int producer = 0; producer < kWorkers; ++producer)
        sums[producer] += books.sums[producer];
    }
    Check(produced == consumed, "queue: " + std::to_string(produced) + " values in, " +
                                    std::to_string(consumed) + " out");
    for (int producer = 0; producer < kWorkers; ++producer) {
      const uint64_t n = books_[producer].produced;
      Check(sums[producer] == n * (n + 1) / 2,
            "queue: a producer's values were not all taken once");
    }
    Check(__KyIsQueueEmpty(queue_) == 1, "queue: not empty after the drain");
  }

  uint64_t operations() const {
    uint64_t total = 0;
    for (const Books& books : books_) total += books.produced + books.consumed;
    return total;
  }

 private:
  static constexpr uint64_t kProducerShift = 48;

  struct Books {
    uint64_t produced = 0;
    uint64_t consumed = 0;
    uint64_t lastSeen[kWorkers] = {};
    uint64_t sums[kWorkers] = {};
  };

  static void* ValueOf(int producer, uint64_t sequence) {
    return reinterpret_cast<void*>((static_cast<uint64_t>(producer) << kProducerShift) | sequence);
  }

  bool take(int worker) {
    void* value = __KyDequeue(queue_);
    if (value == nullptr) return false;
    const auto bits = reinterpret_cast<uint64_t>(value);
    const auto producer = static_cast<int>(bits >> kProducerShift);
    const uint64_t sequence = bits & ((uint64_t{1} << kProducerShift) - 1);
    Books& books = books_[worker];
    Check(producer < kWorkers && sequence > books.lastSeen[producer],
          "queue: a producer's values came out of order");
    if (producer < kWorkers) {
      books.lastSeen[producer] = sequence;
      books.sums[producer] += sequence;
    }
    books.consumed++;
    return true;
  }

  KyQueue* queue_;
  Books books_[kWorkers];
};

// ---------------------------------------------------------------------------
// Log

// Typed records from every worker, at most kLogRecordsPerWorker each, with
// the worker and its sequence as arguments. At the end the log holds each
// exactly once, in each worker's order, and no record was torn.
class LogFamily {
 public:
  LogFamily() {
    static const char* const kArguments[] = {"worker", "sequence", nullptr};
    const KyLogMessageDefinition definition{"STRESS_RECORD", kArguments, 0, 0};
    message_ = __KyRegisterLogMessage2(&definition);
    Check(message_ != KY_LOG_MSG_INVALID, "log: message registration failed");
  }

  void step(int worker, Random& random) {
    uint64_t& written = written_[worker];
    if (written >= kLogRecordsPerWorker || random() % 16 != 0) return;
    __KyLogInternal(KY_LOG_INFO, message_, 0, KY_LOG_ARG_INT, worker, KY_LOG_ARG_INT,
                    static_cast<int>(written), KY_LOG_ARG_END);
    written++;
  }

  void verify() {
    std::ifstream log(KY_LOG_DEFAULT_FILE);
    std::string line;
    uint64_t next[kWorkers] = {};
    uint64_t opened = 0;
    uint64_t closed = 0;
    int worker = -1;
    while (std::getline(log, line)) {
      opened += line.find("<msg ") != std::string::npos;
      closed += line.find("</msg>") != std::string::npos;
      int value = 0;
      if (std::sscanf(line.c_str(), "\t\t<arg name='worker'>%d</arg>", &value) == 1) worker = value;
      if (std::sscanf(line.c_str(), "\t\t<arg name='sequence'>%d</arg>", &value) == 1) {
        if (worker < 0 || worker >= kWorkers || static_cast<uint64_t>(value) != next[worker]) {
          Fail("log: a record is missing, repeated or out of its worker's order");
          return;
        }
        next[worker]++;
        worker = -1;
      }
    }
    Check(opened == closed, "log: a record was torn");
    for (int w = 0; w < kWorkers; ++w) {
      Check(next[w] == written_[w], "log: worker " + std::to_string(w) + " wrote " +
                                        std::to_string(written_[w]) + ", the log holds " +
                                        std::to_string(next[w]));
    }
  }

  uint64_t operations() const {
    uint64_t total = 0;
    for (uint64_t written : written_) total += written;
    return total;
  }

 private:
  int32_t message_ = KY_LOG_MSG_INVALID;
  uint64_t written_[kWorkers] = {};
};

// ---------------------------------------------------------------------------
// Command channel

// A controller process plays the other side of the channel exactly as a
// separate controller program would: it takes the area lock, appends
// records behind those still pending, raises the count, releases the lock
// and announces them. (A process, not a thread: the semaphores that order
// its writes against the runtime's copies are invisible to
// ThreadSanitizer, which would take them for races.) The callback checks
// that commands arrive whole and in order; at the end every command sent
// has arrived.
class CommandChannelFamily {
 public:
  bool open() {
    if (__KyRegisterCommandHandler("", Receive, this) != 1) return false;
    const key_t key = ftok(KYCMD_LOCK_FILE_NAME, KYCMD_FTOK_PROJECT_ID);
    semaphoreSet_ = semget(key, 0, 0);
    int segment = -1;
    std::ifstream file(KYCMD_LOCK_FILE_NAME, std::ios::binary);
    file.read(reinterpret_cast<char*>(&segment), sizeof segment);
    area_ = static_cast<KyCommandArea*>(shmat(segment, nullptr, 0));
    return semaphoreSet_ >= 0 && area_ != reinterpret_cast<KyCommandArea*>(-1);
  }

  bool startController() {
    if (pipe(stopPipe_) != 0 || pipe(resultPipe_) != 0) return false;
    std::fflush(nullptr);
    controller_ = fork();
    if (controller_ == 0) RunController();
    return controller_ > 0;
  }

  // Stops the controller and learns how many commands it sent.
  void stopController() {
    const char stop = 's';
    if (write(stopPipe_[1], &stop, 1) != 1 ||
        read(resultPipe_[0], &sent_, sizeof sent_) != static_cast<ssize_t>(sizeof sent_)) {
      Fail("command channel: the controller did not report");
    }
    int status = 0;
    waitpid(controller_, &status, 0);
    Check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "command channel: the controller failed");
  }

  // Waits until everything sent has been taken, then closes the channel.
  void close() {
    const Clock::time_point deadline = Clock::now() + kDrainPatience;
    while (received_.load() != sent_ && Clock::now() < deadline) {
      announce();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    __KyShutdownCommandHandler();
    shmdt(area_);
    __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  }

  void verify() {
    Check(received_.load() == sent_, "command channel: " + std::to_string(sent_) + " sent, " +
                                         std::to_string(received_.load()) + " received");
    Check(corrupt_.load() == 0, "command channel: a command arrived out of order or damaged");
  }

  uint64_t operations() const { return received_.load(); }

 private:
  static constexpr int kCommandCode = 0x5757;
  static constexpr auto kAreaFullPause = std::chrono::microseconds(200);

  static void Receive(int code, int sequenceLow, int sequenceHigh, int check, int,
                      unsigned char* payload, void* context) {
    auto* self = static_cast<CommandChannelFamily*>(context);
    const uint64_t sequence = (static_cast<uint64_t>(static_cast<uint32_t>(sequenceHigh)) << 32) |
                              static_cast<uint32_t>(sequenceLow);
    const bool whole = code == kCommandCode && check == static_cast<int>(~sequence) &&
                       payload != nullptr && payload[0] == static_cast<unsigned char>(sequence) &&
                       payload[KYCMD_PAYLOAD_SIZE - 1] == static_cast<unsigned char>(sequence >> 8);
    const bool inOrder = sequence == self->received_.load();
    if (!whole || !inOrder) self->corrupt_.fetch_add(1);
    self->received_.fetch_add(1);
  }

  // The controller process: sends until told to stop, reports the count.
  [[noreturn]] void RunController() {
    ::close(stopPipe_[1]);
    ::close(resultPipe_[0]);
    pollfd stop{stopPipe_[0], POLLIN, 0};
    while (poll(&stop, 1, 0) == 0) {
      if (!sendBatch()) std::this_thread::sleep_for(kAreaFullPause);
    }
    const ssize_t written = write(resultPipe_[1], &sent_, sizeof sent_);
    _exit(written == static_cast<ssize_t>(sizeof sent_) ? 0 : 1);
  }

  int operateOnSemaphore(int number, int operation, int flags) {
    sembuf request{};
    request.sem_num = static_cast<unsigned short>(number);
    request.sem_op = static_cast<short>(operation);
    request.sem_flg = static_cast<short>(flags);
    return semop(semaphoreSet_, &request, 1);
  }

  void announce() { operateOnSemaphore(KYCMD_WAKE_UP_SEMAPHORE, 1, 0); }

  // Appends what fits behind the pending records; false when the area was
  // full.
  bool sendBatch() {
    if (operateOnSemaphore(KYCMD_AREA_LOCK_SEMAPHORE, -1, SEM_UNDO) != 0) return false;
    int32_t pending = __atomic_load_n(&area_->pendingCount, __ATOMIC_RELAXED);
    const int32_t before = pending;
    for (; pending < KYCMD_RECORD_COUNT; ++pending) writeRecord(&area_->records[pending], sent_++);
    __atomic_store_n(&area_->pendingCount, pending, __ATOMIC_RELAXED);
    operateOnSemaphore(KYCMD_AREA_LOCK_SEMAPHORE, 1, SEM_UNDO);
    if (pending == before) return false;
    announce();
    return true;
  }

  static void writeRecord(KyCommandRecord* record, uint64_t sequence) {
    record->code = kCommandCode;
    record->argument1 = static_cast<int>(static_cast<uint32_t>(sequence));
    record->argument2 = static_cast<int>(static_cast<uint32_t>(sequence >> 32));
    record->argument3 = static_cast<int>(~sequence);
    record->argument4 = 0;
    record->payload[0] = static_cast<unsigned char>(sequence);
    record->payload[KYCMD_PAYLOAD_SIZE - 1] = static_cast<unsigned char>(sequence >> 8);
  }

  int semaphoreSet_ = -1;
  KyCommandArea* area_ = nullptr;
  int stopPipe_[2] = {-1, -1};
  int resultPipe_[2] = {-1, -1};
  pid_t controller_ = -1;
  uint64_t sent_ = 0;  // the controller's count; the parent learns it at the end
  std::atomic<uint64_t> received_{0};
  std::atomic<uint64_t> corrupt_{0};
};

// ---------------------------------------------------------------------------
// The run

struct Families {
  explicit Families(uint32_t category)
      : allocator(category),
        privateSetsAndVectors(category),
        hashTable(category),
        queue(category) {}

  SpinLockFamily spinLock;
  SharedExclusiveLockFamily sharedExclusiveLock;
  AllocatorFamily allocator;
  PrivateSetsAndVectorsFamily privateSetsAndVectors;
  Crc32Family crc32;
  HashTableFamily hashTable;
  QueueFamily queue;
  LogFamily log;
  CommandChannelFamily commandChannel;
};

void RunWorker(Families& families, int worker, const std::atomic<bool>& stop) {
  Random random(0x9E3779B97F4A7C15ull * static_cast<uint64_t>(worker + 1));
  while (!stop.load(std::memory_order_relaxed)) {
    families.spinLock.step(worker, random);
    families.sharedExclusiveLock.step(worker, random);
    families.allocator.step(worker, random);
    families.privateSetsAndVectors.step(worker, random);
    families.crc32.step(worker, random);
    families.hashTable.step(worker, random);
    families.queue.step(worker, random);
    families.log.step(worker, random);
  }
  families.allocator.release(worker);
  families.privateSetsAndVectors.finish(worker);
}

int DurationSeconds() {
  const char* text = std::getenv(kDurationVariable);
  const int seconds = text != nullptr ? std::atoi(text) : 0;
  return seconds > 0 ? seconds : kDefaultSeconds;
}

void Report(const char* family, uint64_t operations) {
  std::printf("  %-28s %15" PRIu64 " operations\n", family, operations);
}

}  // namespace

int main() {
  const int seconds = DurationSeconds();
  KyPosixHostInstall();
  __KyRtStartup();
  __KyEnableMemoryStatisticsCollection();
  __KyInitializeMemoryCollectorAndReserveMemory(1);
  const uint32_t category = __KyRegisterMemoryCategory("stress");
  auto families = std::make_unique<Families>(category);
  if (!families->commandChannel.open()) {
    std::fprintf(stderr, "stress: cannot open the command channel\n");
    return 1;
  }

  std::printf("stress: %d workers and a controller for %d s\n", kWorkers, seconds);
  if (!families->commandChannel.startController()) {
    std::fprintf(stderr, "stress: cannot start the controller\n");
    return 1;
  }
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int worker = 0; worker < kWorkers; ++worker) {
    workers.emplace_back([&, worker] { RunWorker(*families, worker, stop); });
  }
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  stop.store(true);
  for (std::thread& worker : workers) worker.join();
  families->commandChannel.stopController();
  for (int worker = 0; worker < kWorkers; ++worker) families->queue.drain(worker);
  families->commandChannel.close();

  families->spinLock.verify();
  families->sharedExclusiveLock.verify();
  families->hashTable.verify();
  families->queue.verify();
  families->log.verify();
  families->commandChannel.verify();

  Report("spin lock", families->spinLock.operations());
  Report("shared-exclusive lock", families->sharedExclusiveLock.operations());
  Report("allocator", families->allocator.operations());
  Report("sets and vectors (private)", families->privateSetsAndVectors.operations());
  Report("crc32", families->crc32.operations());
  Report("hash table", families->hashTable.operations());
  Report("queue", families->queue.operations());
  Report("log records", families->log.operations());
  Report("commands", families->commandChannel.operations());
  families.reset();

  if (!g_failures.empty()) {
    for (const std::string& failure : g_failures) std::printf("FAILED: %s\n", failure.c_str());
    return 1;
  }
  std::printf("stress: every check held\n");
  return 0;
}
