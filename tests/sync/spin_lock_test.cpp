// Recursive spin locks: states, ownership, recursion, try and release rules.
#include "kyrt/spin_lock.h"

#include <atomic>
#include <cstddef>
#include <thread>

#include "sync/lock_test_support.h"

namespace {

using kyrt_test::OnOtherThread;
using kyrt_test::StaysFalse;
using kyrt_test::WaitUntil;

class SpinLock : public kyrt_test::RuntimeTest {
 protected:
  KySpinLock lock_;
  void SetUp() override {
    RuntimeTest::SetUp();
    __KyInitializeSpinLock(&lock_);
  }
  KyThreadId self() const { return __KyGetNativeThreadId(); }
};

TEST(SpinLockLayout, FieldsSitAtTheirFixedOffsets) {
  static_assert(sizeof(KySpinLock) == 24);
  static_assert(offsetof(KySpinLock, ownerThreadId) == 0);
  static_assert(offsetof(KySpinLock, state) == 8);
  static_assert(offsetof(KySpinLock, recursionCount) == 12);
  static_assert(offsetof(KySpinLock, spinCount) == 16);
  SUCCEED();
}

TEST_F(SpinLock, InitialisedLockIsFreeWithSpinCountZero) {
  lock_ = KySpinLock{7, 1, 3, 9};
  __KyInitializeSpinLock(&lock_);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
  EXPECT_EQ(lock_.spinCount, 0u);
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&lock_), 0);
  EXPECT_EQ(__KyIsSpinLockAcquiredByCallingThread(&lock_), 0);
}

TEST_F(SpinLock, InitialiseWithSpinCountOverwritesAHeldLock) {
  __KyAcquireSpinLock(&lock_);
  __KyInitializeSpinLockAndSpinCount(&lock_, 500);
  EXPECT_EQ(lock_.spinCount, 500u);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
}

TEST_F(SpinLock, AcquireRecordsOwnerAndCount) {
  __KyAcquireSpinLock(&lock_);
  EXPECT_EQ(lock_.state, 1u);
  EXPECT_EQ(lock_.ownerThreadId, static_cast<uint64_t>(self()));
  EXPECT_EQ(lock_.recursionCount, 1u);
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&lock_), 1);
  EXPECT_EQ(__KyIsSpinLockAcquiredByCallingThread(&lock_), 1);
  OnOtherThread([&] {
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&lock_), 1);
    EXPECT_EQ(__KyIsSpinLockAcquiredByCallingThread(&lock_), 0);
  });
  __KyReleaseSpinLock(&lock_);
}

TEST_F(SpinLock, ThreeAcquiresNeedThreeReleases) {
  __KyAcquireSpinLock(&lock_);
  __KyAcquireSpinLock(&lock_);
  __KyAcquireSpinLock(&lock_);
  EXPECT_EQ(lock_.recursionCount, 3u);
  __KyReleaseSpinLock(&lock_);
  __KyReleaseSpinLock(&lock_);
  EXPECT_EQ(lock_.state, 1u);
  EXPECT_EQ(lock_.recursionCount, 1u);
  EXPECT_EQ(lock_.ownerThreadId, static_cast<uint64_t>(self()));
  __KyReleaseSpinLock(&lock_);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
}

TEST_F(SpinLock, ReleasingAFreeLockChangesNothing) {
  __KyInitializeSpinLockAndSpinCount(&lock_, 12);
  lock_.recursionCount = 5;  // a stale count must not be touched either
  __KyReleaseSpinLock(&lock_);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.recursionCount, 5u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.spinCount, 12u);
}

TEST_F(SpinLock, AnyThreadMayReleaseAHeldLock) {
  __KyAcquireSpinLock(&lock_);
  OnOtherThread([&] { __KyReleaseSpinLock(&lock_); });
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.ownerThreadId, 0u);
  EXPECT_EQ(lock_.recursionCount, 0u);
}

TEST_F(SpinLock, ReleaseByAnotherThreadOnlyLowersARecursiveCount) {
  __KyAcquireSpinLock(&lock_);
  __KyAcquireSpinLock(&lock_);
  OnOtherThread([&] { __KyReleaseSpinLock(&lock_); });
  EXPECT_EQ(lock_.state, 1u);
  EXPECT_EQ(lock_.recursionCount, 1u);
}

TEST_F(SpinLock, TidVariantsUseTheGivenId) {
  __KyAcquireSpinLockTid(&lock_, 0x1234);
  EXPECT_EQ(lock_.ownerThreadId, 0x1234u);
  EXPECT_EQ(__KyIsSpinLockAcquiredByCallingThread(&lock_), 0);
  __KyAcquireSpinLockTid(&lock_, 0x1234);
  EXPECT_EQ(lock_.recursionCount, 2u);
  EXPECT_EQ(__KyTryToAcquireSpinLockTid(&lock_, 0, 0x1234), 1);
  EXPECT_EQ(lock_.recursionCount, 3u);
  EXPECT_EQ(__KyTryToAcquireSpinLockTid(&lock_, 0, 0x4321), 0);
}

TEST_F(SpinLock, OwnerIdIsZeroExtended) {
  __KyAcquireSpinLockTid(&lock_, 0x80000001u);
  EXPECT_EQ(lock_.ownerThreadId, 0x0000000080000001ull);
  __KyAcquireSpinLockTid(&lock_, 0x80000001u);
  EXPECT_EQ(lock_.recursionCount, 2u);
}

TEST_F(SpinLock, IdZeroMatchesTheEmptyOwnerAndTakesNothing) {
  __KyAcquireSpinLockTid(&lock_, 0);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.recursionCount, 1u);
  EXPECT_EQ(__KyTryToAcquireSpinLockTid(&lock_, 0, 0), 1);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.recursionCount, 2u);
}

TEST_F(SpinLock, WithoutAThreadIdHookTheCallerIsTheEmptyOwner) {
  __KySetGetNativeThreadIdProc(nullptr);
  __KyAcquireSpinLock(&lock_);
  EXPECT_EQ(lock_.state, 0u);
  EXPECT_EQ(lock_.recursionCount, 1u);
}

TEST_F(SpinLock, TryWithZeroAttemptsOnALockHeldElsewhereFails) {
  __KyAcquireSpinLockTid(&lock_, 77);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 0), 0);
  EXPECT_EQ(lock_.ownerThreadId, 77u);
  EXPECT_EQ(lock_.recursionCount, 1u);
}

TEST_F(SpinLock, TryOnALockHeldByTheCallerRaisesTheCount) {
  __KyAcquireSpinLock(&lock_);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 0), 1);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 10), 1);
  EXPECT_EQ(lock_.recursionCount, 3u);
}

TEST_F(SpinLock, TryOnAFreeLockTakesIt) {
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 0), 1);
  EXPECT_EQ(lock_.state, 1u);
  EXPECT_EQ(lock_.ownerThreadId, static_cast<uint64_t>(self()));
  __KyReleaseSpinLock(&lock_);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 5), 1);
  EXPECT_EQ(lock_.recursionCount, 1u);
}

TEST_F(SpinLock, TryWithAttemptsOnALockHeldElsewhereUsesThemUpAndFails) {
  __KyAcquireSpinLockTid(&lock_, 77);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 1000), 0);
  EXPECT_EQ(lock_.ownerThreadId, 77u);
}

TEST_F(SpinLock, OnOneProcessorTryMakesOneSwap) {
  __kyNumberOfProcessors = 1;
  __KyAcquireSpinLockTid(&lock_, 77);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 1000), 0);
  __KyReleaseSpinLock(&lock_);
  EXPECT_EQ(__KyTryToAcquireSpinLock(&lock_, 1000), 1);
}

TEST_F(SpinLock, AWaiterGetsInOnlyAfterTheRelease) {
  for (uint32_t spinCount : {0u, 1u, 50u}) {
    __KyInitializeSpinLockAndSpinCount(&lock_, spinCount);
    __KyAcquireSpinLock(&lock_);
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
      __KyAcquireSpinLock(&lock_);
      acquired = true;
      EXPECT_EQ(__KyIsSpinLockAcquiredByCallingThread(&lock_), 1);
      __KyReleaseSpinLock(&lock_);
    });
    EXPECT_TRUE(StaysFalse(acquired));
    __KyReleaseSpinLock(&lock_);
    waiter.join();
    EXPECT_TRUE(acquired);
    EXPECT_EQ(lock_.state, 0u);
  }
}

TEST_F(SpinLock, AWaiterOnOneProcessorYieldsAndStillGetsIn) {
  __kyNumberOfProcessors = 1;
  __KyAcquireSpinLock(&lock_);
  std::atomic<bool> acquired{false};
  std::thread waiter([&] {
    __KyAcquireSpinLock(&lock_);
    acquired = true;
    __KyReleaseSpinLock(&lock_);
  });
  EXPECT_TRUE(StaysFalse(acquired));
  __KyReleaseSpinLock(&lock_);
  waiter.join();
  EXPECT_TRUE(acquired);
}

TEST_F(SpinLock, ReleaseClearsTheOwnerBeforeFreeingTheState) {
  // A thread that takes the lock right after a release must never see the
  // previous owner's id: it would otherwise count a re-entry it never made.
  __KyAcquireSpinLockTid(&lock_, 11);
  std::atomic<bool> ready{false};
  std::thread taker([&] {
    ready = true;
    __KyAcquireSpinLockTid(&lock_, 22);
    EXPECT_EQ(lock_.ownerThreadId, 22u);
    EXPECT_EQ(lock_.recursionCount, 1u);
    __KyReleaseSpinLock(&lock_);
  });
  WaitUntil([&] { return ready.load(); });
  __KyReleaseSpinLock(&lock_);
  taker.join();
}

int g_lockCalls = 0;
int g_unlockCalls = 0;
void ClientLock() {
  ++g_lockCalls;
}
void ClientUnlock() {
  ++g_unlockCalls;
}

TEST(ClientLockProcedures, StartNull) {
  EXPECT_EQ(__kyTRELLClientLock, nullptr);
  EXPECT_EQ(__kyTRELLClientUnlock, nullptr);
}

TEST(ClientLockProcedures, SetterStoresBothAndCallsNeither) {
  __KySetTrellClientLockProc(ClientLock, ClientUnlock);
  EXPECT_EQ(__kyTRELLClientLock, &ClientLock);
  EXPECT_EQ(__kyTRELLClientUnlock, &ClientUnlock);
  EXPECT_EQ(g_lockCalls, 0);
  EXPECT_EQ(g_unlockCalls, 0);
  __KySetTrellClientLockProc(nullptr, ClientUnlock);
  EXPECT_EQ(__kyTRELLClientLock, nullptr);
  EXPECT_EQ(__kyTRELLClientUnlock, &ClientUnlock);
}

}  // namespace
