// The CRC-32's table is built on first use: threads that all make their
// first call at once must all get the right checksum.
#include <zlib.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/vectors.h"
#include "sync/lock_test_support.h"

namespace kyrt_test {
namespace {

constexpr int kThreads = 8;
constexpr int kRoundsPerThread = 200;

class Crc32ConcurrencyTest : public RuntimeTest {};

TEST_F(Crc32ConcurrencyTest, ThreadsMakingTheirFirstCallTogetherAllAgreeWithZlib) {
  std::vector<unsigned char> bytes(1000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 131 + 7);
  const uint32_t expected = static_cast<uint32_t>(crc32(0L, bytes.data(), 1000));

  std::atomic<int> ready{0};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      ready.fetch_add(1);
      WaitUntil([&] { return ready.load() == kThreads; });
      for (int round = 0; round < kRoundsPerThread; ++round) {
        if (__KyCRC32(bytes.data(), 1000) != expected) wrong.fetch_add(1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace kyrt_test
