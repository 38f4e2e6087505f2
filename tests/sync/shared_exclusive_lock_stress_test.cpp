// Stress tests of the shared-exclusive lock: readers and writers racing on
// one lock, writer preference, exclusive recursion and try-exclusive.
//
// Every case is bounded by iteration counts, never by elapsed time. The
// protected data is plain (non-atomic): writers move two fields in step and
// readers check that they never see them apart, so a lock that failed to
// exclude or to order shows up as a torn pair or a wrong total, and as a
// data race under ThreadSanitizer. The std::atomic objects belong to the
// harness only: start gates, signals, an occupancy checker that counts
// readers and writers inside independently of the lock under test, and the
// contention forcer.
//
// The ordering cases (writer preference, try-exclusive leaving the flag
// alone) are deterministic: each step waits for a state the lock must reach
// and checks only things that cannot have happened yet.
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "kyrt/shared_exclusive_lock.h"
#include "support/thread_harness.h"

namespace {

using kyrt_test::Peek;
using kyrt_test::RunConcurrently;
using kyrt_test::YieldUntil;

#if defined(__SANITIZE_THREAD__)
constexpr int kIterations = 12000;  // ThreadSanitizer runs 5-15 times slower
#else
constexpr int kIterations = 50000;
#endif

// Every kContentionPeriod-th pass through a critical section, the holder
// keeps the lock until others are kept waiting by it (see Contention).
constexpr int kContentionPeriod = 32;

// Every kReaderTurnPeriod-th write, the writer lets readers in before it
// comes back (see Contention).
constexpr int kReaderTurnPeriod = 4;

// How many times a "has not happened yet" check is repeated, each time after
// giving up the processor, so that the thread that must stay out gets every
// chance to run.
constexpr int kObservationYields = 2000;

// Ids for the Tid variants, above any real Linux thread id (< 2^22).
constexpr KyThreadId kFakeTidBase = 0x70000000u;

constexpr uint32_t kStateFree = 0;
constexpr uint32_t kStateShared = 1;
constexpr uint32_t kStateExclusive = 2;

// Makes readers and writers really meet at the lock. Left to the scheduler,
// a small machine runs the threads mostly one after another, each finishing
// long stretches of its loop within one time slice; and since waiting
// writers keep new readers out, writers running back to back would starve
// the readers until the last write. Here, now and then:
//   - an exclusive holder keeps the lock until every other thread that
//     still has work is at the lock (between arriving() and arrived()), so
//     readers and writers wait behind a writer;
//   - a reader keeps its shared hold until a writer has raised the
//     writer-waiting flag, so writers wait behind readers, and readers
//     arriving meanwhile wait behind the flag;
//   - a writer, between two exclusive holds, waits until a reader is inside
//     or has got in since, so that reads really fall between writes.
// Every wait always ends: a thread with work left can only be on its way to
// the lock, stuck at it, or in one of these waits (where it counts as at the
// lock); a writer that finds the lock shared raises the flag on its first
// busy poll; readers get in once every writer is waiting outside; and
// finished threads no longer count. A thread that only tries stays
// "arriving" the whole time it does not hold the lock, failed tries
// included, for the same reason.
class Contention {
 public:
  enum Role { kReader, kWriter, kTrier };

  // Trying threads are not writers here: they never raise the flag.
  Contention(int readers, int writers, int triers = 0)
      : running_(readers + writers + triers), readersRunning_(readers), writersRunning_(writers) {}

  // Around every acquire: the thread counts as at the lock in between.
  void arriving() { arriving_.fetch_add(1); }
  void arrived() { arriving_.fetch_sub(1); }
  // Readers, right after getting in and right before leaving.
  void readerIn() {
    readersInside_.fetch_add(1);
    readerEntries_.fetch_add(1);
  }
  void readerOut() { readersInside_.fetch_sub(1); }
  // When a thread has done all its work.
  void finished(Role role) {
    if (role == kReader) readersRunning_.fetch_sub(1);
    if (role == kWriter) writersRunning_.fetch_sub(1);
    running_.fetch_sub(1);
  }

  // Called by a thread holding the lock exclusive.
  void holdExclusiveSometimes(int iteration) {
    if (iteration % kContentionPeriod != kContentionPeriod - 1) return;
    while (arriving_.load() < running_.load() - 1) std::this_thread::yield();
  }

  // Called by a thread holding the lock shared.
  void holdSharedSometimes(int iteration, const KySharedExclusiveLock& lock) {
    if (iteration % kContentionPeriod != kContentionPeriod - 1) return;
    while (Peek(lock.writerWaiting) == 0u && writersRunning_.load() > 0) {
      std::this_thread::yield();
    }
    if (Peek(lock.writerWaiting) != 0u) writerSeenWaiting_.fetch_add(1);
  }

  // Called by a writer outside the lock, between two exclusive holds.
  void letReadersInSometimes(int iteration) {
    if (iteration % kReaderTurnPeriod != kReaderTurnPeriod - 1) return;
    const int64_t entriesBefore = readerEntries_.load();
    arriving();
    while (readerEntries_.load() == entriesBefore && readersInside_.load() == 0 &&
           readersRunning_.load() > 0) {
      std::this_thread::yield();
    }
    arrived();
  }

  // How often a reader's hold ended with a writer waiting.
  int64_t writerSeenWaiting() const { return writerSeenWaiting_.load(); }

 private:
  std::atomic<int> arriving_{0};
  std::atomic<int> running_;
  std::atomic<int> readersRunning_;
  std::atomic<int> writersRunning_;
  std::atomic<int> readersInside_{0};
  std::atomic<int64_t> readerEntries_{0};
  std::atomic<int64_t> writerSeenWaiting_{0};
};

// Counts readers and writers inside the lock, independently of it. The
// sequentially consistent operations make overlap visible to at least one
// side: a reader counts itself and then looks for a writer, a writer marks
// itself and then looks for readers.
class OccupancyChecker {
 public:
  void enterShared() {
    readers_.fetch_add(1);
    if (writers_.load() != 0) violations_.fetch_add(1);
  }
  void leaveShared() { readers_.fetch_sub(1); }
  void enterExclusive() {
    if (writers_.exchange(1) != 0) violations_.fetch_add(1);
    if (readers_.load() != 0) violations_.fetch_add(1);
  }
  void leaveExclusive() {
    if (writers_.exchange(0) != 1) violations_.fetch_add(1);
  }
  int readersInside() const { return readers_.load(); }
  int violations() const { return violations_.load(); }

 private:
  std::atomic<int> readers_{0};
  std::atomic<int> writers_{0};
  std::atomic<int> violations_{0};
};

// Two plain fields that writers move in step.
struct Pair {
  int64_t a = 0;
  int64_t b = 0;
};

void ExpectFree(const KySharedExclusiveLock& lock) {
  EXPECT_EQ(kStateFree, Peek(lock.state));
  EXPECT_EQ(0u, Peek(lock.readerCount));
  EXPECT_EQ(0u, Peek(lock.ownerThreadId));
  EXPECT_EQ(0u, Peek(lock.recursionCount));
  EXPECT_EQ(0u, Peek(lock.writerWaiting));
}

class SharedExclusiveLockStress : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(1, KyPosixHostInstall());
    ASSERT_EQ(KY_RT_STARTUP_RESULT, __KyRtStartup());
    ASSERT_GT(__KyGetNProcs(), 0);
    ASSERT_NE(0u, __KyGetNativeThreadId());
  }

  // Writers set a = b = (number of writes so far); readers check a == b and
  // that the value never goes back.
  static void ReadersAndWriters(uint32_t spinCount, int readers, int writers) {
    KySharedExclusiveLock lock;
    __KyInitializeSharedExclusiveLockAndSpinCount(&lock, spinCount);
    Contention contention(readers, writers);
    OccupancyChecker checker;
    Pair pair;
    int64_t writes = 0;
    const int64_t expectedWrites = static_cast<int64_t>(writers) * kIterations;
    std::atomic<int64_t> reads{0};
    std::atomic<int64_t> readsWhileWriting{0};
    std::atomic<int> torn{0};
    std::atomic<int> wentBack{0};
    std::atomic<int> wrongWriterView{0};
    std::atomic<int> wrongReaderView{0};
    RunConcurrently(readers + writers, [&](int index) {
      if (index < writers) {
        const uint64_t self = __KyGetNativeThreadId();
        for (int i = 0; i < kIterations; ++i) {
          contention.arriving();
          __KyAcquireExclusiveLock(&lock);
          contention.arrived();
          checker.enterExclusive();
          if (Peek(lock.state) != kStateExclusive || Peek(lock.ownerThreadId) != self ||
              !__KyIsExclusiveLockAcquiredByCallingThread(&lock)) {
            wrongWriterView.fetch_add(1);
          }
          ++writes;
          pair.a = writes;
          contention.holdExclusiveSometimes(i);
          pair.b = writes;
          checker.leaveExclusive();
          __KyReleaseExclusiveLock(&lock);
          contention.letReadersInSometimes(i);
        }
        contention.finished(Contention::kWriter);
        return;
      }
      int64_t lastSeen = 0;
      int64_t done = 0;
      int64_t midway = 0;
      for (int i = 0; i < kIterations; ++i) {
        contention.arriving();
        __KyAcquireSharedLock(&lock);
        contention.arrived();
        contention.readerIn();
        checker.enterShared();
        if (Peek(lock.state) != kStateShared || Peek(lock.readerCount) == 0 ||
            __KyIsExclusiveLockAcquiredByCallingThread(&lock)) {
          wrongReaderView.fetch_add(1);
        }
        const int64_t a = pair.a;
        contention.holdSharedSometimes(i + index, lock);
        const int64_t b = pair.b;
        if (a != b) torn.fetch_add(1);
        if (a < lastSeen) wentBack.fetch_add(1);
        if (a > 0 && a < expectedWrites) ++midway;
        lastSeen = a;
        ++done;
        checker.leaveShared();
        contention.readerOut();
        __KyReleaseSharedLock(&lock);
      }
      contention.finished(Contention::kReader);
      reads.fetch_add(done);
      readsWhileWriting.fetch_add(midway);
    });
    EXPECT_EQ(expectedWrites, writes);
    EXPECT_EQ(expectedWrites, pair.a);
    EXPECT_EQ(expectedWrites, pair.b);
    EXPECT_EQ(static_cast<int64_t>(readers) * kIterations, reads.load());
    EXPECT_EQ(0, checker.violations());
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(0, wentBack.load());
    EXPECT_EQ(0, wrongWriterView.load());
    EXPECT_EQ(0, wrongReaderView.load());
    ExpectFree(lock);
    // Scheduling-dependent, so reported rather than asserted.
    RecordProperty("writerSeenWaiting", std::to_string(contention.writerSeenWaiting()));
    RecordProperty("readsWhileWriting", std::to_string(readsWhileWriting.load()));
  }
};

TEST_F(SharedExclusiveLockStress, ReadersNeverSeeATornPairSpinCountZero) {
  ReadersAndWriters(0, 4, 2);
}

TEST_F(SharedExclusiveLockStress, ReadersNeverSeeATornPairSpinCountHundred) {
  ReadersAndWriters(100, 4, 2);
}

TEST_F(SharedExclusiveLockStress, ManyWritersFewReaders) {
  ReadersAndWriters(10, 2, 4);
}

// Readers only, entering and leaving all the time, and now and then staying
// until another reader is inside with them: this races the last reader's
// free (one 64-bit swap of state and count from "shared, no readers" to
// "free") against new readers counting themselves in. The lock must never be
// seen other than shared by a reader inside, and must end free.
TEST_F(SharedExclusiveLockStress, ReadersOnlyLeaveTheLockFree) {
  constexpr int kReaders = 6;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 5);
  OccupancyChecker checker;
  std::atomic<int> running{kReaders};
  std::atomic<int> notShared{0};
  std::atomic<int64_t> reads{0};
  std::atomic<int64_t> overlaps{0};
  RunConcurrently(kReaders, [&](int) {
    for (int i = 0; i < kIterations; ++i) {
      __KyAcquireSharedLock(&lock);
      checker.enterShared();
      if (Peek(lock.state) != kStateShared || Peek(lock.readerCount) == 0) notShared.fetch_add(1);
      reads.fetch_add(1);
      if (i % kContentionPeriod == kContentionPeriod - 1) {
        // Readers never keep each other out, so this always ends.
        YieldUntil([&] { return checker.readersInside() > 1 || running.load() == 1; });
      }
      if (checker.readersInside() > 1) overlaps.fetch_add(1);
      checker.leaveShared();
      __KyReleaseSharedLock(&lock);
    }
    running.fetch_sub(1);
  });
  EXPECT_EQ(kReaders * static_cast<int64_t>(kIterations), reads.load());
  EXPECT_EQ(0, notShared.load());
  EXPECT_EQ(0, checker.violations());
  ExpectFree(lock);
  RecordProperty("overlaps", std::to_string(overlaps.load()));
}

// Writers take the lock recursively (acquire, acquire, try) and read under
// their own exclusive hold through the shared entry points, which must be
// no-ops for the owner: any reader count they left behind would show in the
// final lock word.
TEST_F(SharedExclusiveLockStress, ExclusiveRecursionAndOwnerSharedNoOpUnderContention) {
  constexpr int kWriters = 3;
  constexpr int kReaders = 3;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 20);
  Contention contention(kReaders, kWriters);
  OccupancyChecker checker;
  Pair pair;
  int64_t writes = 0;
  std::atomic<int> wrongRecursion{0};
  std::atomic<int> lostOwnership{0};
  std::atomic<int> failedReentryTry{0};
  std::atomic<int> torn{0};
  RunConcurrently(kWriters + kReaders, [&](int index) {
    if (index < kWriters) {
      const uint64_t self = __KyGetNativeThreadId();
      for (int i = 0; i < kIterations; ++i) {
        contention.arriving();
        __KyAcquireExclusiveLock(&lock);
        contention.arrived();
        checker.enterExclusive();
        __KyAcquireExclusiveLock(&lock);
        if (__KyTryToAcquireExclusiveLock(&lock, 0) != 1) failedReentryTry.fetch_add(1);
        if (Peek(lock.recursionCount) != 3) wrongRecursion.fetch_add(1);
        __KyAcquireSharedLock(&lock);  // owner: no-op
        if (pair.a != pair.b) torn.fetch_add(1);
        __KyReleaseSharedLock(&lock);  // owner: no-op
        ++writes;
        pair.a = writes;
        contention.holdExclusiveSometimes(i);
        __KyReleaseExclusiveLock(&lock);
        __KyReleaseExclusiveLock(&lock);
        // One acquisition left: still exclusive and still ours.
        if (Peek(lock.state) != kStateExclusive || Peek(lock.ownerThreadId) != self ||
            !__KyIsExclusiveLockAcquiredByCallingThread(&lock)) {
          lostOwnership.fetch_add(1);
        }
        if (Peek(lock.recursionCount) != 1) wrongRecursion.fetch_add(1);
        pair.b = writes;
        checker.leaveExclusive();
        __KyReleaseExclusiveLock(&lock);
        contention.letReadersInSometimes(i);
      }
      contention.finished(Contention::kWriter);
      return;
    }
    for (int i = 0; i < kIterations; ++i) {
      contention.arriving();
      __KyAcquireSharedLock(&lock);
      contention.arrived();
      contention.readerIn();
      checker.enterShared();
      if (pair.a != pair.b) torn.fetch_add(1);
      contention.holdSharedSometimes(i, lock);
      checker.leaveShared();
      contention.readerOut();
      __KyReleaseSharedLock(&lock);
    }
    contention.finished(Contention::kReader);
  });
  EXPECT_EQ(static_cast<int64_t>(kWriters) * kIterations, writes);
  EXPECT_EQ(writes, pair.a);
  EXPECT_EQ(writes, pair.b);
  EXPECT_EQ(0, checker.violations());
  EXPECT_EQ(0, wrongRecursion.load());
  EXPECT_EQ(0, lostOwnership.load());
  EXPECT_EQ(0, failedReentryTry.load());
  EXPECT_EQ(0, torn.load());
  ExpectFree(lock);
}

// The Tid variants with caller-chosen ids: the owner field holds the id of
// the writer inside, and that id's shared acquires are no-ops.
TEST_F(SharedExclusiveLockStress, TidVariantsUnderContention) {
  constexpr int kWriters = 2;
  constexpr int kReaders = 3;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 10);
  Contention contention(kReaders, kWriters);
  OccupancyChecker checker;
  Pair pair;
  int64_t writes = 0;
  std::atomic<int> wrongOwner{0};
  std::atomic<int> torn{0};
  RunConcurrently(kWriters + kReaders, [&](int index) {
    const KyThreadId tid = kFakeTidBase + static_cast<KyThreadId>(index);
    const bool writer = index < kWriters;
    for (int i = 0; i < kIterations; ++i) {
      if (writer) {
        contention.arriving();
        __KyAcquireExclusiveLockTid(&lock, tid);
        contention.arrived();
        checker.enterExclusive();
        __KyAcquireExclusiveLockTid(&lock, tid);
        __KyAcquireSharedLockTid(&lock, tid);  // owner: no-op
        if (Peek(lock.ownerThreadId) != tid || Peek(lock.recursionCount) != 2) {
          wrongOwner.fetch_add(1);
        }
        __KyReleaseSharedLockTid(&lock, tid);  // owner: no-op
        ++writes;
        pair.a = writes;
        contention.holdExclusiveSometimes(i);
        pair.b = writes;
        __KyReleaseExclusiveLock(&lock);
        checker.leaveExclusive();
        __KyReleaseExclusiveLock(&lock);
        contention.letReadersInSometimes(i);
      } else {
        contention.arriving();
        __KyAcquireSharedLockTid(&lock, tid);
        contention.arrived();
        contention.readerIn();
        checker.enterShared();
        if (pair.a != pair.b) torn.fetch_add(1);
        contention.holdSharedSometimes(i, lock);
        checker.leaveShared();
        contention.readerOut();
        __KyReleaseSharedLockTid(&lock, tid);
      }
    }
    contention.finished(writer ? Contention::kWriter : Contention::kReader);
  });
  EXPECT_EQ(static_cast<int64_t>(kWriters) * kIterations, writes);
  EXPECT_EQ(writes, pair.a);
  EXPECT_EQ(0, checker.violations());
  EXPECT_EQ(0, wrongOwner.load());
  EXPECT_EQ(0, torn.load());
  ExpectFree(lock);
}

// Threads that only try for exclusive access, against readers and a writer
// that acquire normally. A trying thread keeps going until it has won a
// fixed number of times; that always ends, because the other threads finish
// and then the lock is free whenever no trying thread holds it.
TEST_F(SharedExclusiveLockStress, TryExclusiveRaces) {
  constexpr int kTryThreads = 3;
  constexpr uint32_t kAttempts[kTryThreads] = {0, 1, 8};
  constexpr int kReaders = 2;
  constexpr int kWinsPerThread = kIterations / 4;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 10);
  Contention contention(kReaders, 1, kTryThreads);
  OccupancyChecker checker;
  Pair pair;
  int64_t writes = 0;
  std::atomic<int64_t> wins{0};
  std::atomic<int64_t> failures{0};
  std::atomic<int> ownerAfterFailure{0};
  std::atomic<int> wrongOwner{0};
  std::atomic<int> torn{0};
  RunConcurrently(kTryThreads + kReaders + 1, [&](int index) {
    if (index < kTryThreads) {
      const uint64_t self = __KyGetNativeThreadId();
      int won = 0;
      contention.arriving();
      while (won < kWinsPerThread) {
        if (__KyTryToAcquireExclusiveLock(&lock, kAttempts[index]) == 0) {
          failures.fetch_add(1);
          if (__KyIsExclusiveLockAcquiredByCallingThread(&lock)) ownerAfterFailure.fetch_add(1);
          std::this_thread::yield();
          continue;
        }
        contention.arrived();
        checker.enterExclusive();
        if (Peek(lock.ownerThreadId) != self || Peek(lock.recursionCount) != 1) {
          wrongOwner.fetch_add(1);
        }
        ++writes;
        pair.a = writes;
        contention.holdExclusiveSometimes(won);
        pair.b = writes;
        ++won;
        checker.leaveExclusive();
        __KyReleaseExclusiveLock(&lock);
        contention.arriving();
      }
      contention.arrived();
      contention.finished(Contention::kTrier);
      wins.fetch_add(won);
    } else if (index < kTryThreads + kReaders) {
      for (int i = 0; i < kIterations; ++i) {
        contention.arriving();
        __KyAcquireSharedLock(&lock);
        contention.arrived();
        contention.readerIn();
        checker.enterShared();
        if (pair.a != pair.b) torn.fetch_add(1);
        contention.holdSharedSometimes(i, lock);
        checker.leaveShared();
        contention.readerOut();
        __KyReleaseSharedLock(&lock);
      }
      contention.finished(Contention::kReader);
    } else {
      for (int i = 0; i < kIterations / 4; ++i) {
        contention.arriving();
        __KyAcquireExclusiveLock(&lock);
        contention.arrived();
        checker.enterExclusive();
        ++writes;
        pair.a = writes;
        contention.holdExclusiveSometimes(i);
        pair.b = writes;
        checker.leaveExclusive();
        __KyReleaseExclusiveLock(&lock);
        contention.letReadersInSometimes(i);
      }
      contention.finished(Contention::kWriter);
    }
  });
  EXPECT_EQ(static_cast<int64_t>(kTryThreads) * kWinsPerThread, wins.load());
  EXPECT_EQ(wins.load() + kIterations / 4, writes);
  EXPECT_EQ(writes, pair.a);
  EXPECT_EQ(writes, pair.b);
  EXPECT_EQ(0, checker.violations());
  EXPECT_EQ(0, ownerAfterFailure.load());
  EXPECT_EQ(0, wrongOwner.load());
  EXPECT_EQ(0, torn.load());
  ExpectFree(lock);
  RecordProperty("tryFailures", std::to_string(failures.load()));
}

// Rounds of "two readers hold the lock together and leave together, then a
// writer gets in": every round races the two readers' releases (each lowers
// the reader count, then tries the 64-bit swap that frees the lock) and the
// writer must come in after both readers' reads, whichever of them does the
// freeing swap. Readers check that each round shows them the previous
// round's write; the writer's update is plain data, so an ordering gap shows
// up under ThreadSanitizer as a race between a reader's read and the next
// writer's write.
TEST_F(SharedExclusiveLockStress, ReadersLeavingTogetherHandOverToTheWriter) {
  constexpr int kRounds = kIterations / 40;
  constexpr int kReaders = 2;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 0);
  int64_t data = 0;             // written by the writer in round r as r
  std::atomic<int> entered{0};  // reader entries over all rounds
  std::atomic<int> written{0};  // rounds the writer has completed
  std::atomic<int> staleReads{0};
  std::atomic<int> wrongWrites{0};
  std::vector<std::thread> threads;
  for (int reader = 0; reader < kReaders; ++reader) {
    threads.emplace_back([&] {
      for (int round = 1; round <= kRounds; ++round) {
        // Round r starts once the writer is through round r - 1.
        YieldUntil([&] { return written.load() == round - 1; });
        __KyAcquireSharedLock(&lock);
        entered.fetch_add(1);
        // Both readers inside: they leave together.
        YieldUntil([&] { return entered.load() >= kReaders * round; });
        if (data != round - 1) staleReads.fetch_add(1);
        __KyReleaseSharedLock(&lock);
      }
    });
  }
  threads.emplace_back([&] {
    for (int round = 1; round <= kRounds; ++round) {
      // Wait until both readers hold the lock for this round, then queue
      // up behind them.
      YieldUntil([&] { return entered.load() >= kReaders * round; });
      __KyAcquireExclusiveLock(&lock);
      if (data != round - 1) wrongWrites.fetch_add(1);
      data = round;
      __KyReleaseExclusiveLock(&lock);
      written.store(round);
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(kRounds, data);
  EXPECT_EQ(kReaders * kRounds, entered.load());
  EXPECT_EQ(0, staleReads.load());
  EXPECT_EQ(0, wrongWrites.load());
  ExpectFree(lock);
}

// A writer waiting behind two readers raises the writer-waiting flag, and a
// reader that arrives while the flag is up neither counts itself in nor
// enters before the writer has been through.
TEST_F(SharedExclusiveLockStress, WaitingWriterKeepsNewReadersOut) {
  constexpr int kLateReaders = 2;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 0);
  int data = 0;  // written by the writer, read by every reader
  std::atomic<int> order{0};
  std::atomic<int> earlyIn{0};
  std::atomic<bool> releaseEarly{false};
  std::atomic<int> earlySawData{-1};
  std::atomic<int> writerTicket{0};
  std::atomic<uint64_t> writerTid{0};
  std::atomic<bool> releaseWriter{false};
  std::atomic<int> lateStarted{0};
  std::atomic<int> lateTickets[kLateReaders] = {};
  std::atomic<int> lateSawData[kLateReaders] = {};

  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      __KyAcquireSharedLock(&lock);
      earlyIn.fetch_add(1);
      YieldUntil([&] { return releaseEarly.load(); });
      earlySawData.store(data);
      __KyReleaseSharedLock(&lock);
    });
  }
  YieldUntil([&] { return earlyIn.load() == 2; });
  EXPECT_EQ(kStateShared, Peek(lock.state));
  EXPECT_EQ(2u, Peek(lock.readerCount));

  threads.emplace_back([&] {
    writerTid.store(__KyGetNativeThreadId());
    __KyAcquireExclusiveLock(&lock);
    writerTicket.store(order.fetch_add(1) + 1);
    data = 42;
    YieldUntil([&] { return releaseWriter.load(); });
    __KyReleaseExclusiveLock(&lock);
  });
  // The writer finds the lock shared and raises the flag on its first busy
  // poll; it cannot get in while the early readers hold on.
  YieldUntil([&] { return Peek(lock.writerWaiting) == 1u; });

  for (int i = 0; i < kLateReaders; ++i) {
    threads.emplace_back([&, i] {
      lateStarted.fetch_add(1);
      __KyAcquireSharedLock(&lock);
      lateTickets[i].store(order.fetch_add(1) + 1);
      lateSawData[i].store(data);
      __KyReleaseSharedLock(&lock);
    });
  }
  YieldUntil([&] { return lateStarted.load() == kLateReaders; });

  int lateGotIn = 0;
  int readerCountChanged = 0;
  int flagDropped = 0;
  int writerGotIn = 0;
  for (int i = 0; i < kObservationYields; ++i) {
    std::this_thread::yield();
    if (Peek(lock.readerCount) != 2u || Peek(lock.state) != kStateShared) ++readerCountChanged;
    if (Peek(lock.writerWaiting) != 1u) ++flagDropped;
    if (writerTicket.load() != 0) ++writerGotIn;
    for (const std::atomic<int>& ticket : lateTickets) {
      if (ticket.load() != 0) ++lateGotIn;
    }
  }
  EXPECT_EQ(0, lateGotIn);
  EXPECT_EQ(0, readerCountChanged);
  EXPECT_EQ(0, flagDropped);
  EXPECT_EQ(0, writerGotIn);

  // Let the early readers go: the writer, not a late reader, gets in next.
  releaseEarly.store(true);
  YieldUntil([&] { return writerTicket.load() != 0; });
  EXPECT_EQ(1, writerTicket.load());
  EXPECT_EQ(kStateExclusive, Peek(lock.state));
  EXPECT_EQ(writerTid.load(), Peek(lock.ownerThreadId));
  EXPECT_EQ(0u, Peek(lock.writerWaiting));  // cleared by the writer on entry
  for (int i = 0; i < kObservationYields / 4; ++i) {
    std::this_thread::yield();
    for (const std::atomic<int>& ticket : lateTickets) {
      if (ticket.load() != 0) ++lateGotIn;
    }
    // Late readers may have counted themselves in by now, but no more of
    // them than there are.
    if (Peek(lock.readerCount) > static_cast<uint32_t>(kLateReaders)) ++readerCountChanged;
  }
  EXPECT_EQ(0, lateGotIn);
  EXPECT_EQ(0, readerCountChanged);

  releaseWriter.store(true);
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(0, earlySawData.load());  // they left before the writer came in
  for (int i = 0; i < kLateReaders; ++i) {
    EXPECT_GT(lateTickets[i].load(), writerTicket.load()) << "late reader " << i;
    EXPECT_EQ(42, lateSawData[i].load()) << "late reader " << i;
  }
  ExpectFree(lock);
}

// A thread holding the lock exclusive keeps readers and another writer out;
// once it lets go, every one of them gets through.
TEST_F(SharedExclusiveLockStress, ExclusiveHolderKeepsEveryoneOut) {
  constexpr int kReaders = 3;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 3);
  int data = 0;
  __KyAcquireExclusiveLock(&lock);
  ASSERT_EQ(1, __KyIsExclusiveLockAcquiredByCallingThread(&lock));

  std::atomic<int> started{0};
  std::atomic<int> gotIn{0};
  std::atomic<int> readersSawData[kReaders] = {};
  std::atomic<int> writerSawData{-1};
  std::vector<std::thread> threads;
  for (int i = 0; i < kReaders; ++i) {
    threads.emplace_back([&, i] {
      started.fetch_add(1);
      __KyAcquireSharedLock(&lock);
      gotIn.fetch_add(1);
      readersSawData[i].store(data);
      __KyReleaseSharedLock(&lock);
    });
  }
  threads.emplace_back([&] {
    started.fetch_add(1);
    __KyAcquireExclusiveLock(&lock);
    gotIn.fetch_add(1);
    writerSawData.store(data);
    data = 2;
    __KyReleaseExclusiveLock(&lock);
  });
  YieldUntil([&] { return started.load() == kReaders + 1; });

  int intruders = 0;
  int lostOwnership = 0;
  for (int i = 0; i < kObservationYields; ++i) {
    std::this_thread::yield();
    if (gotIn.load() != 0) ++intruders;
    if (!__KyIsExclusiveLockAcquiredByCallingThread(&lock)) ++lostOwnership;
  }
  EXPECT_EQ(0, intruders);
  EXPECT_EQ(0, lostOwnership);
  data = 1;
  __KyReleaseExclusiveLock(&lock);
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(kReaders + 1, gotIn.load());
  // The writer saw the holder's update; each reader saw it, or the waiting
  // writer's if that one came first.
  EXPECT_EQ(1, writerSawData.load());
  for (const std::atomic<int>& seen : readersSawData) {
    EXPECT_TRUE(seen.load() == 1 || seen.load() == 2) << seen.load();
  }
  ExpectFree(lock);
}

// Try-exclusive fails against readers without raising the writer-waiting
// flag, so new readers still get in; once the readers leave it succeeds.
TEST_F(SharedExclusiveLockStress, TryExclusiveNeverRaisesTheWriterFlag) {
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 0);
  std::atomic<int> readersIn{0};
  std::atomic<bool> releaseReaders{false};
  std::vector<std::thread> readers;
  auto reader = [&] {
    __KyAcquireSharedLock(&lock);
    readersIn.fetch_add(1);
    YieldUntil([&] { return releaseReaders.load(); });
    __KyReleaseSharedLock(&lock);
  };
  readers.emplace_back(reader);
  readers.emplace_back(reader);
  YieldUntil([&] { return readersIn.load() == 2; });

  constexpr int kTries = 500;
  std::atomic<int> succeeded{0};
  std::atomic<int> flagSeen{0};
  std::thread trier([&] {
    for (int i = 0; i < kTries; ++i) {
      if (__KyTryToAcquireExclusiveLock(&lock, static_cast<uint32_t>(i % 8)) != 0) {
        succeeded.fetch_add(1);
      }
      if (Peek(lock.writerWaiting) != 0u) flagSeen.fetch_add(1);
    }
  });
  trier.join();
  EXPECT_EQ(0, succeeded.load());
  EXPECT_EQ(0, flagSeen.load());
  EXPECT_EQ(kStateShared, Peek(lock.state));
  EXPECT_EQ(2u, Peek(lock.readerCount));

  // A third reader is not kept out.
  readers.emplace_back(reader);
  YieldUntil([&] { return readersIn.load() == 3; });
  EXPECT_EQ(3u, Peek(lock.readerCount));

  releaseReaders.store(true);
  for (std::thread& thread : readers) thread.join();
  ExpectFree(lock);

  // With nobody in, a try wins at once, and the lock is clean afterwards.
  std::thread winner([&] {
    if (__KyTryToAcquireExclusiveLock(&lock, 0) == 1) {
      if (__KyIsExclusiveLockAcquiredByCallingThread(&lock)) succeeded.fetch_add(1);
      __KyReleaseExclusiveLock(&lock);
    }
  });
  winner.join();
  EXPECT_EQ(1, succeeded.load());
  ExpectFree(lock);
}

// Release carries no owner check: a writer acquires, hands the held lock to
// another thread, which releases it; readers contend throughout.
TEST_F(SharedExclusiveLockStress, ExclusiveReleaseByAnotherThread) {
  constexpr int kRounds = kIterations / 4;
  constexpr int kReaders = 2;
  KySharedExclusiveLock lock;
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock, 10);
  // The releaser never acquires, so it does not take part; A is the writer.
  Contention contention(kReaders, 1);
  OccupancyChecker checker;
  Pair pair;
  std::atomic<int> handedOver{0};
  std::atomic<int> released{0};
  std::atomic<uint64_t> ownerOfA{0};
  std::atomic<int> notHeldByA{0};
  std::atomic<int> torn{0};
  RunConcurrently(2 + kReaders, [&](int index) {
    if (index == 0) {
      ownerOfA.store(__KyGetNativeThreadId());
      for (int round = 1; round <= kRounds; ++round) {
        contention.letReadersInSometimes(round);
        contention.arriving();
        __KyAcquireExclusiveLock(&lock);
        contention.arrived();
        checker.enterExclusive();
        pair.a = round;
        handedOver.store(round);
        YieldUntil([&] { return released.load() == round; });
      }
      contention.finished(Contention::kWriter);
    } else if (index == 1) {
      for (int round = 1; round <= kRounds; ++round) {
        YieldUntil([&] { return handedOver.load() == round; });
        if (Peek(lock.state) != kStateExclusive || Peek(lock.ownerThreadId) != ownerOfA.load() ||
            __KyIsExclusiveLockAcquiredByCallingThread(&lock)) {
          notHeldByA.fetch_add(1);
        }
        pair.b = round;
        checker.leaveExclusive();
        __KyReleaseExclusiveLock(&lock);
        released.store(round);
      }
    } else {
      for (int i = 0; i < kRounds; ++i) {
        contention.arriving();
        __KyAcquireSharedLock(&lock);
        contention.arrived();
        contention.readerIn();
        checker.enterShared();
        if (pair.a != pair.b) torn.fetch_add(1);
        contention.holdSharedSometimes(i, lock);
        checker.leaveShared();
        contention.readerOut();
        __KyReleaseSharedLock(&lock);
      }
      contention.finished(Contention::kReader);
    }
  });
  EXPECT_EQ(kRounds, pair.a);
  EXPECT_EQ(kRounds, pair.b);
  EXPECT_EQ(0, checker.violations());
  EXPECT_EQ(0, notHeldByA.load());
  EXPECT_EQ(0, torn.load());
  ExpectFree(lock);
}

}  // namespace
