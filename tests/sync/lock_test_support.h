// Helpers shared by the lock tests.
#ifndef KYRT_TESTS_SYNC_LOCK_TEST_SUPPORT_H
#define KYRT_TESTS_SYNC_LOCK_TEST_SUPPORT_H

#include <atomic>
#include <thread>

#include "gtest/gtest.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"

namespace kyrt_test {

// Installs the POSIX hooks and starts the runtime for every case.
class RuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KyPosixHostInstall();
    __KyRtStartup();
  }
};

// Runs body on another thread and waits for it.
template <typename Body>
void OnOtherThread(Body body) {
  std::thread(body).join();
}

// Yields a while, then reports whether flag is still false: used to check
// that a waiter has not got through yet.
inline bool StaysFalse(const std::atomic<bool>& flag, int yields = 2000) {
  for (int i = 0; i < yields; ++i) {
    if (flag.load()) return false;
    std::this_thread::yield();
  }
  return !flag.load();
}

template <typename Predicate>
void WaitUntil(Predicate predicate) {
  while (!predicate()) std::this_thread::yield();
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_SYNC_LOCK_TEST_SUPPORT_H
