// Atomic operations, bit scans, yield and busy sleep.
#include <cstdint>
#include <limits>

#include "gtest/gtest.h"
#include "kyrt/runtime.h"
#include "runtime/sleep_rounds.h"

namespace {

TEST(Atomics, CompareExchangeStoresOnMatchAndReturnsPreviousValue) {
  volatile int32_t word = 5;
  EXPECT_EQ(__KyInterlockedCompareExchange(&word, 9, 5), 5);
  EXPECT_EQ(word, 9);
  EXPECT_EQ(__KyInterlockedCompareExchangeInternal(&word, 11, 9), 9);
  EXPECT_EQ(word, 11);
}

TEST(Atomics, CompareExchangeLeavesValueOnMismatch) {
  volatile int32_t word = 5;
  EXPECT_EQ(__KyInterlockedCompareExchange(&word, 9, 4), 5);
  EXPECT_EQ(word, 5);
  EXPECT_EQ(__KyInterlockedCompareExchangeInternal(&word, 9, 4), 5);
  EXPECT_EQ(word, 5);
}

TEST(Atomics, CompareExchange64UsesAllSixtyFourBits) {
  const int64_t high = int64_t{0x12345678} << 32;
  volatile int64_t word = high | 1;
  // A comparand equal in the low half only must not match.
  EXPECT_EQ(__KyInterlockedCompareExchange64(&word, 0, 1), high | 1);
  EXPECT_EQ(word, high | 1);
  EXPECT_EQ(__KyInterlockedCompareExchange64(&word, -1, high | 1), high | 1);
  EXPECT_EQ(word, -1);
  EXPECT_EQ(__KyInterlockedCompareExchange64Internal(&word, high, -1), -1);
  EXPECT_EQ(word, high);
}

TEST(Atomics, IncrementAndDecrementReturnTheNewValue) {
  volatile int32_t word = 0;
  EXPECT_EQ(__KyInterlockedIncrement(&word), 1);
  EXPECT_EQ(__KyInterlockedIncrementInternal(&word), 2);
  EXPECT_EQ(__KyInterlockedDecrement(&word), 1);
  EXPECT_EQ(__KyInterlockedDecrementInternal(&word), 0);
  EXPECT_EQ(__KyInterlockedDecrement(&word), -1);
  EXPECT_EQ(word, -1);
}

TEST(Atomics, IncrementWrapsAtTheTopOfTheRange) {
  volatile int32_t word = std::numeric_limits<int32_t>::max();
  EXPECT_EQ(__KyInterlockedIncrement(&word), std::numeric_limits<int32_t>::min());
}

TEST(Atomics, ExchangeAddAddsAndReturnsTheValueSeenBefore) {
  volatile int32_t word = 40;
  EXPECT_EQ(__KyInterlockedExchangeAdd(&word, 2), 40);
  EXPECT_EQ(word, 42);
  EXPECT_EQ(__KyInterlockedExchangeAddInternal(&word, -50), 42);
  EXPECT_EQ(word, -8);
}

TEST(BitScans, LeastSignificantOneIndex) {
  EXPECT_EQ(__KyGetLeastSignificantOneIndex(1u), 0u);
  EXPECT_EQ(__KyGetLeastSignificantOneIndex(0x18u), 3u);
  EXPECT_EQ(__KyGetLeastSignificantOneIndex(0x80000000u), 31u);
  EXPECT_EQ(__KyGetLeastSignificantOneIndex(0xFFFFFFFFu), 0u);
  EXPECT_EQ(__KyGetLeastSignificantOneIndexInternal(0x00F00000u), 20u);
}

TEST(BitScans, MostSignificantOneIndexOf32Bits) {
  EXPECT_EQ(__KyGetMostSignificantOneIndexInternal(1u), 0u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexInternal(0x18u), 4u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexInternal(0xFFFFFFFFu), 31u);
}

TEST(BitScans, MostSignificantOneIndexLongUsesTheUpperHalfFirst) {
  EXPECT_EQ(__KyGetMostSignificantOneIndexLong(uint64_t{1} << 40), 40u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexLong(0xFFFFFFFFu), 31u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexLong(uint64_t{1} << 32), 32u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexLong((uint64_t{1} << 32) | 0xFFFFFFFFu), 32u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexLong(~uint64_t{0}), 63u);
  EXPECT_EQ(__KyGetMostSignificantOneIndexLong(1u), 0u);
}

TEST(BusySleep, RoundCountIsUnitsTimesFiveMillionModuloTwoToThe32) {
  EXPECT_EQ(kyrt::SleepRounds(0), 0u);
  EXPECT_EQ(kyrt::SleepRounds(1), 5000000u);
  EXPECT_EQ(kyrt::SleepRounds(858), 4290000000u);
  // 859 x 5,000,000 = 4,295,000,000 = 2^32 + 32,704.
  EXPECT_EQ(kyrt::SleepRounds(859), 32704u);
  EXPECT_EQ(kyrt::SleepRounds(1718), 65408u);
}

TEST(BusySleep, ZeroUnitsReturnsAtOnce) {
  __KySleep(0);
}

TEST(BusySleep, WrappedCountRunsItsFewRounds) {
  // 32,704 yields: returns quickly only because the count wraps.
  __KySleep(859);
}

TEST(Yield, ReturnsToTheCaller) {
  for (int i = 0; i < 100; ++i) __KyYield();
}

}  // namespace
