// The wait rule shared by every lock.
#include "gtest/gtest.h"
#include "kyrt/runtime.h"
#include "sync/lock_common.h"

namespace {

TEST(PollBackoff, YieldsAfterEverySpinCountPollsOnSeveralProcessors) {
  __kyNumberOfProcessors = 4;
  kyrt::PollBackoff backoff(3);
  // The count restarts at 0 after each yield: polls 1 and 2 stay busy-polling.
  const bool expected[] = {false, false, true, false, false, true, false, false, true};
  for (bool yielded : expected) EXPECT_EQ(backoff.onBusyPoll(), yielded);
}

TEST(PollBackoff, SpinCountZeroOrOneYieldsOnEveryPoll) {
  __kyNumberOfProcessors = 4;
  kyrt::PollBackoff zero(0);
  kyrt::PollBackoff one(1);
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(zero.onBusyPoll());
    EXPECT_TRUE(one.onBusyPoll());
  }
}

TEST(PollBackoff, OneProcessorYieldsOnEveryPollWhateverTheSpinCount) {
  __kyNumberOfProcessors = 1;
  kyrt::PollBackoff backoff(1000);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(backoff.onBusyPoll());
}

TEST(PollBackoff, BeforeStartupTheCountIsZeroAndCountsAsSeveral) {
  ASSERT_EQ(__kyNumberOfProcessors, 0);
  kyrt::PollBackoff backoff(2);
  EXPECT_FALSE(backoff.onBusyPoll());
  EXPECT_TRUE(backoff.onBusyPoll());
}

TEST(PollBackoff, WaitWhileReturnsOnceTheConditionIsFalse) {
  kyrt::PollBackoff backoff(4);
  int polls = 0;
  backoff.waitWhile([&] { return ++polls < 10; });
  EXPECT_EQ(polls, 10);
}

TEST(TryAcquireStateWord, ZeroAttemptsMakesOneSwap) {
  uint32_t state = 0;
  EXPECT_TRUE(kyrt::TryAcquireStateWord(&state, 2, 0));
  EXPECT_EQ(state, 2u);
  EXPECT_FALSE(kyrt::TryAcquireStateWord(&state, 2, 0));
  EXPECT_FALSE(kyrt::TryAcquireStateWord(&state, 2, 50));
  EXPECT_EQ(state, 2u);
}

}  // namespace
