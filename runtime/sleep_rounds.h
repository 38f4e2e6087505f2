// The round count of the busy sleep, kept apart so that its 32-bit wrap can
// be tested without sleeping.
#ifndef KYRT_RUNTIME_SLEEP_ROUNDS_H
#define KYRT_RUNTIME_SLEEP_ROUNDS_H

#include <cstdint>

namespace kyrt {

inline constexpr uint32_t kSleepRoundsPerUnit = 5000000u;

// units x 5,000,000 in 32-bit unsigned arithmetic: the product wraps from
// 859 units on, and that wrap is part of the contract.
constexpr uint32_t SleepRounds(uint32_t units) {
  return units * kSleepRoundsPerUnit;
}

}  // namespace kyrt

#endif  // KYRT_RUNTIME_SLEEP_ROUNDS_H
