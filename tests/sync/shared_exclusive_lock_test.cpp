// Shared-exclusive locks: states, the reader pairing, writer preference,
// exclusive recursion and the owner's shared no-ops.
#include "kyrt/shared_exclusive_lock.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <thread>

#include "sync/lock_test_support.h"

namespace {

using kyrt_test::OnOtherThread;
using kyrt_test::StaysFalse;
using kyrt_test::WaitUntil;

uint64_t PairWord(const KySharedExclusiveLock& lock) {
  uint64_t word;
  std::memcpy(&word, &lock, sizeof word);
  return word;
}

class SharedExclusiveLock : public kyrt_test::RuntimeTest {
 protected:
  KySharedExclusiveLock lock_;
  void SetUp() override {
    RuntimeTest::SetUp();
    __KyInitializeSharedExclusiveLock(&lock_);
  }
  uint32_t readers() const { return __atomic_load_n(&lock_.readerCount, __ATOMIC_SEQ_CST); }
  uint32_t state() const { return __atomic_load_n(&lock_.state, __ATOMIC_SEQ_CST); }
  uint32_t writerWaiting() const { return __atomic_load_n(&lock_.writerWaiting, __ATOMIC_SEQ_CST); }
};

TEST(SharedExclusiveLockLayout, FieldsSitAtTheirFixedOffsets) {
  static_assert(sizeof(KySharedExclusiveLock) == 32);
  static_assert(alignof(KySharedExclusiveLock) == 8);
  static_assert(offsetof(KySharedExclusiveLock, state) == 0);
  static_assert(offsetof(KySharedExclusiveLock, readerCount) == 4);
  static_assert(offsetof(KySharedExclusiveLock, ownerThreadId) == 8);
  static_assert(offsetof(KySharedExclusiveLock, writerWaiting) == 16);
  static_assert(offsetof(KySharedExclusiveLock, recursionCount) == 20);
  static_assert(offsetof(KySharedExclusiveLock, spinCount) == 24);
  KySharedExclusiveLock lock{};
  lock.state = 1;
  lock.readerCount = 3;
  EXPECT_EQ(PairWord(lock), (uint64_t{3} << 32) | 1u);  // state low, readers high
}

TEST_F(SharedExclusiveLock, InitialiseClearsEveryFieldButTheSpinCount) {
  lock_ = KySharedExclusiveLock{2, 5, 9, 1, 4, 8};
  __KyInitializeSharedExclusiveLock(&lock_);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.readerCount, 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.writerWaiting, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
  EXPECT_EQ(lock_.spinCount, 0u);
  lock_ = KySharedExclusiveLock{2, 5, 9, 1, 4, 8};
  __KyInitializeSharedExclusiveLockAndSpinCount(&lock_, 300);
  EXPECT_EQ(PairWord(lock_), 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.writerWaiting, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
  EXPECT_EQ(lock_.spinCount, 300u);
}

TEST_F(SharedExclusiveLock, SharedAcquireCountsTheReaderAndLastReleaseFreesTheLock) {
  __KyAcquireSharedLock(&lock_);
  EXPECT_EQ(state(), 1u);
  EXPECT_EQ(readers(), 1u);
  __KyAcquireSharedLock(&lock_);  // a reader may enter again: counted again
  EXPECT_EQ(readers(), 2u);
  __KyReleaseSharedLock(&lock_);
  EXPECT_EQ(state(), 1u);
  EXPECT_EQ(readers(), 1u);
  __KyReleaseSharedLock(&lock_);
  EXPECT_EQ(state(), 0u);
  EXPECT_EQ(readers(), 0u);
  EXPECT_EQ(PairWord(lock_), 0u);
}

TEST_F(SharedExclusiveLock, TwoThreadsHoldItSharedAtOnce) {
  __KyAcquireSharedLock(&lock_);
  std::atomic<bool> entered{false};
  OnOtherThread([&] {
    __KyAcquireSharedLock(&lock_);
    entered = true;
    EXPECT_EQ(readers(), 2u);
    __KyReleaseSharedLock(&lock_);
  });
  EXPECT_TRUE(entered);
  EXPECT_EQ(state(), 1u);
  __KyReleaseSharedLock(&lock_);
  EXPECT_EQ(PairWord(lock_), 0u);
}

TEST_F(SharedExclusiveLock, ACountedReaderKeepsTheLastReleaseFromFreeingTheLock) {
  __KyAcquireSharedLock(&lock_);
  // A second reader has counted itself in but not yet entered.
  __KyInterlockedIncrement(reinterpret_cast<volatile int32_t*>(&lock_.readerCount));
  __KyReleaseSharedLock(&lock_);
  EXPECT_EQ(state(), 1u);
  EXPECT_EQ(readers(), 1u);
}

TEST_F(SharedExclusiveLock, AWriterWaitsForBothReadersAndKeepsNewReadersOut) {
  std::atomic<int> phase{0};
  std::atomic<bool> writerIn{false};
  std::atomic<bool> lateReaderIn{false};
  std::thread reader1([&] {
    __KyAcquireSharedLock(&lock_);
    phase++;
    WaitUntil([&] { return phase.load() >= 10; });
    __KyReleaseSharedLock(&lock_);
  });
  std::thread reader2([&] {
    __KyAcquireSharedLock(&lock_);
    phase++;
    WaitUntil([&] { return phase.load() >= 20; });
    __KyReleaseSharedLock(&lock_);
  });
  WaitUntil([&] { return phase.load() == 2; });
  std::thread writer([&] {
    __KyAcquireExclusiveLock(&lock_);
    writerIn = true;
    EXPECT_EQ(state(), 2u);
    EXPECT_EQ(writerWaiting(), 0u);
    WaitUntil([&] { return phase.load() >= 30; });
    __KyReleaseExclusiveLock(&lock_);
  });
  WaitUntil([&] { return writerWaiting() == 1u; });
  std::thread lateReader([&] {
    __KyAcquireSharedLock(&lock_);
    lateReaderIn = true;
    __KyReleaseSharedLock(&lock_);
  });
  EXPECT_TRUE(StaysFalse(lateReaderIn));
  EXPECT_EQ(readers(), 2u);  // the late reader has not even counted itself
  phase = 10;                // first reader leaves
  reader1.join();
  EXPECT_TRUE(StaysFalse(writerIn));
  EXPECT_EQ(state(), 1u);
  phase = 20;  // second reader leaves: the writer gets in before the late reader
  reader2.join();
  WaitUntil([&] { return writerIn.load(); });
  EXPECT_FALSE(lateReaderIn);
  phase = 30;
  writer.join();
  lateReader.join();
  EXPECT_TRUE(lateReaderIn);
  EXPECT_EQ(PairWord(lock_), 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
}

TEST_F(SharedExclusiveLock, ReaderWaitsWhileTheWriterWaitingFlagIsRaised) {
  lock_.writerWaiting = 1;
  std::atomic<bool> in{false};
  std::thread reader([&] {
    __KyAcquireSharedLock(&lock_);
    in = true;
    __KyReleaseSharedLock(&lock_);
  });
  EXPECT_TRUE(StaysFalse(in));
  EXPECT_EQ(readers(), 0u);
  __atomic_store_n(&lock_.writerWaiting, 0u, __ATOMIC_SEQ_CST);
  reader.join();
  EXPECT_TRUE(in);
}

TEST_F(SharedExclusiveLock, ExclusiveAcquireRecordsTheOwner) {
  __KyAcquireExclusiveLock(&lock_);
  EXPECT_EQ(state(), 2u);
  EXPECT_EQ(lock_.ownerThreadId, static_cast<uint64_t>(__KyGetNativeThreadId()));
  EXPECT_EQ(lock_.recursionCount, 1u);
  EXPECT_EQ(lock_.writerWaiting, 0u);
  EXPECT_EQ(__KyIsExclusiveLockAcquiredByCallingThread(&lock_), 1);
  OnOtherThread([&] { EXPECT_EQ(__KyIsExclusiveLockAcquiredByCallingThread(&lock_), 0); });
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(__KyIsExclusiveLockAcquiredByCallingThread(&lock_), 0);
}

TEST_F(SharedExclusiveLock, ExclusiveTakenThreeTimesNeedsThreeReleases) {
  __KyAcquireExclusiveLock(&lock_);
  __KyAcquireExclusiveLock(&lock_);
  __KyAcquireExclusiveLockTid(&lock_, __KyGetNativeThreadId());
  EXPECT_EQ(lock_.recursionCount, 3u);
  __KyReleaseExclusiveLock(&lock_);
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(state(), 2u);
  EXPECT_EQ(lock_.recursionCount, 1u);
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(state(), 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
}

TEST_F(SharedExclusiveLock, TheExclusiveOwnersSharedCallsAreNoOps) {
  __KyAcquireExclusiveLock(&lock_);
  for (int i = 0; i < 5; ++i) __KyAcquireSharedLock(&lock_);
  EXPECT_EQ(state(), 2u);
  EXPECT_EQ(readers(), 0u);
  for (int i = 0; i < 3; ++i) __KyReleaseSharedLock(&lock_);
  EXPECT_EQ(state(), 2u);
  EXPECT_EQ(readers(), 0u);
  EXPECT_EQ(lock_.recursionCount, 1u);
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(PairWord(lock_), 0u);
}

TEST_F(SharedExclusiveLock, SharedTidVariantsUseTheGivenId) {
  __KyAcquireExclusiveLockTid(&lock_, 55);
  __KyAcquireSharedLockTid(&lock_, 55);  // owner: no-op
  __KyReleaseSharedLockTid(&lock_, 55);
  EXPECT_EQ(readers(), 0u);
  EXPECT_EQ(__KyIsExclusiveLockAcquiredByCallingThread(&lock_), 0);
  __KyReleaseExclusiveLock(&lock_);
  __KyAcquireSharedLockTid(&lock_, 66);
  EXPECT_EQ(readers(), 1u);
  __KyReleaseSharedLockTid(&lock_, 66);
  EXPECT_EQ(PairWord(lock_), 0u);
}

TEST_F(SharedExclusiveLock, ReleaseExclusiveOnAFreeOrSharedLockChangesNothing) {
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(PairWord(lock_), 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  __KyAcquireSharedLock(&lock_);
  lock_.recursionCount = 4;
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(state(), 1u);
  EXPECT_EQ(readers(), 1u);
  EXPECT_EQ(lock_.recursionCount, 4u);
}

TEST_F(SharedExclusiveLock, ReleaseSharedDecrementsWhateverTheState) {
  __KyAcquireExclusiveLockTid(&lock_, 55);
  __KyReleaseSharedLock(&lock_);  // not the owner: counts down blindly
  EXPECT_EQ(readers(), 0xFFFFFFFFu);
  EXPECT_EQ(state(), 2u);
}

TEST_F(SharedExclusiveLock, TryWithZeroAttemptsOnASharedLockFailsAndLeavesTheFlag) {
  __KyAcquireSharedLockTid(&lock_, 66);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 0), 0);
  EXPECT_EQ(writerWaiting(), 0u);
  EXPECT_EQ(state(), 1u);
  lock_.writerWaiting = 1;
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 0), 0);
  EXPECT_EQ(writerWaiting(), 1u);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 100), 0);
  EXPECT_EQ(writerWaiting(), 1u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
}

TEST_F(SharedExclusiveLock, TryOnAFreeLockTakesItAndClearsTheFlag) {
  lock_.writerWaiting = 1;
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 0), 1);
  EXPECT_EQ(state(), 2u);
  EXPECT_EQ(writerWaiting(), 0u);
  EXPECT_EQ(lock_.ownerThreadId, static_cast<uint64_t>(__KyGetNativeThreadId()));
  EXPECT_EQ(lock_.recursionCount, 1u);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 0), 1);  // re-entry
  EXPECT_EQ(lock_.recursionCount, 2u);
  __KyReleaseExclusiveLock(&lock_);
  __KyReleaseExclusiveLock(&lock_);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 10), 1);
}

TEST_F(SharedExclusiveLock, TryOnALockHeldExclusiveElsewhereFails) {
  __KyAcquireExclusiveLockTid(&lock_, 55);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 0), 0);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 1000), 0);
  EXPECT_EQ(lock_.ownerThreadId, 55u);
  EXPECT_EQ(lock_.recursionCount, 1u);
}

TEST_F(SharedExclusiveLock, OnOneProcessorTryMakesOneSwap) {
  __kyNumberOfProcessors = 1;
  __KyAcquireSharedLockTid(&lock_, 66);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 1000), 0);
  __KyReleaseSharedLockTid(&lock_, 66);
  EXPECT_EQ(__KyTryToAcquireExclusiveLock(&lock_, 1000), 1);
}

TEST_F(SharedExclusiveLock, AWriterRaisesTheFlagWhileItWaitsAndClearsItWhenIn) {
  for (uint32_t spinCount : {0u, 100u}) {
    __KyInitializeSharedExclusiveLockAndSpinCount(&lock_, spinCount);
    __KyAcquireSharedLock(&lock_);
    std::atomic<bool> in{false};
    std::thread writer([&] {
      __KyAcquireExclusiveLock(&lock_);
      in = true;
      __KyReleaseExclusiveLock(&lock_);
    });
    WaitUntil([&] { return writerWaiting() == 1u; });
    EXPECT_FALSE(in);
    __KyReleaseSharedLock(&lock_);
    writer.join();
    EXPECT_TRUE(in);
    EXPECT_EQ(writerWaiting(), 0u);
    EXPECT_EQ(PairWord(lock_), 0u);
  }
}

TEST_F(SharedExclusiveLock, AReaderWaitsForTheWriterToLeave) {
  __KyAcquireExclusiveLock(&lock_);
  std::atomic<bool> in{false};
  std::thread reader([&] {
    __KyAcquireSharedLock(&lock_);
    in = true;
    __KyReleaseSharedLock(&lock_);
  });
  WaitUntil([&] { return readers() == 1u; });  // counted in, waiting for the state
  EXPECT_TRUE(StaysFalse(in));
  __KyReleaseExclusiveLock(&lock_);
  reader.join();
  EXPECT_TRUE(in);
  EXPECT_EQ(PairWord(lock_), 0u);
}

}  // namespace
