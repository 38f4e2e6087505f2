// The platform utilities from several threads at once: the stamp counter,
// the processor and page size caches, and lock files within one process.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "kyrt/strings.h"
#include "sync/lock_test_support.h"

namespace {

constexpr int kThreads = 4;
constexpr int kStampsPerThread = 20000;

// Starts kThreads threads running body(index) together and waits for them.
template <typename Body>
void RunTogether(Body body) {
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&waiting, &body, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(UtilConcurrency, StampsAreDistinctAndIncreasingAcrossThreads) {
  std::vector<std::vector<uint64_t>> stamps(kThreads);
  RunTogether([&stamps](int index) {
    stamps[index].reserve(kStampsPerThread);
    for (int i = 0; i < kStampsPerThread; ++i) stamps[index].push_back(__KyUpdateTimestamp(0));
  });
  std::vector<uint64_t> all;
  for (const std::vector<uint64_t>& mine : stamps) {
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    EXPECT_EQ(std::adjacent_find(mine.begin(), mine.end()), mine.end());
    all.insert(all.end(), mine.begin(), mine.end());
  }
  std::sort(all.begin(), all.end());
  // Every value from 1 to the total was handed out exactly once.
  ASSERT_EQ(all.size(), static_cast<size_t>(kThreads) * kStampsPerThread);
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i], i + 1);
}

TEST(UtilConcurrency, RacingXsaveQueriesAgree) {
  std::vector<uint32_t> sizes(kThreads);
  RunTogether([&sizes](int index) { sizes[index] = __KyGetXsaveAreaMaxSize(); });
  for (uint32_t size : sizes) EXPECT_EQ(size, sizes[0]);
  EXPECT_GE(sizes[0], 512u);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), sizes[0]);
}

TEST(UtilConcurrency, RacingPageSizeQueriesAgree) {
  std::vector<uint32_t> sizes(kThreads);
  RunTogether([&sizes](int index) { sizes[index] = __KyGetNativePageSize(); });
  for (uint32_t size : sizes) EXPECT_EQ(size, static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
}

class LockFilesInOneProcess : public kyrt_test::RuntimeTest {};

TEST_F(LockFilesInOneProcess, ThreadsOfOneProcessDoNotExcludeEachOther) {
  const int fd = __KyCreateLockFile("lock.dat", 1);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(__KyLockFile(fd), 0);
  // The lock belongs to the process: another of its threads gets it at once.
  int result = -1;
  kyrt_test::OnOtherThread([fd, &result] { result = __KyLockFile(fd); });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(__KyUnlockFile(fd), 0);
  EXPECT_EQ(__KyCloseLockFile(fd), 0);
}

}  // namespace
