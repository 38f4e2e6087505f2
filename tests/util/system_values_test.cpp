// The cached page size and the process-wide stamp counter.
#include <unistd.h>

#include <cstdint>

#include "gtest/gtest.h"
#include "kyrt/files.h"
#include "util/page_size.h"

namespace {

int g_queries = 0;

long FailingQuery() {
  ++g_queries;
  return -1;
}

long SixtyFourKilobytes() {
  ++g_queries;
  return 65536;
}

class PageSize : public ::testing::Test {
 protected:
  void TearDown() override { kyrt::SetPageSizeQueryForTesting(nullptr); }
};

TEST_F(PageSize, IsTheSystemsPageSize) {
  EXPECT_EQ(__KyGetNativePageSize(), static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
  EXPECT_EQ(__KyGetNativePageSize(), static_cast<uint32_t>(sysconf(_SC_PAGESIZE)));
}

TEST_F(PageSize, IsAskedOnceAndCached) {
  kyrt::SetPageSizeQueryForTesting(SixtyFourKilobytes);
  EXPECT_EQ(__KyGetNativePageSize(), 65536u);
  kyrt::SetPageSizeQueryForTesting(FailingQuery);
  EXPECT_EQ(__KyGetNativePageSize(), 65536u);
  EXPECT_EQ(g_queries, 1);
}

TEST_F(PageSize, Is4096WhenTheSystemCannotSayAndThatIsCachedToo) {
  kyrt::SetPageSizeQueryForTesting(FailingQuery);
  EXPECT_EQ(__KyGetNativePageSize(), 4096u);
  kyrt::SetPageSizeQueryForTesting(SixtyFourKilobytes);
  EXPECT_EQ(__KyGetNativePageSize(), 4096u);
  EXPECT_EQ(g_queries, 1);
}

TEST(Timestamp, ZeroAddsOneFromAFreshStart) {
  EXPECT_EQ(__KyUpdateTimestamp(0), 1u);
  EXPECT_EQ(__KyUpdateTimestamp(0), 2u);
  EXPECT_EQ(__KyUpdateTimestamp(10), 12u);
}

TEST(Timestamp, AddsTheIncrementGiven) {
  EXPECT_EQ(__KyUpdateTimestamp(1), 1u);
  EXPECT_EQ(__KyUpdateTimestamp(1000), 1001u);
  EXPECT_EQ(__KyUpdateTimestamp(INT32_MAX), 1001u + INT32_MAX);
}

TEST(Timestamp, ANegativeIncrementMovesTheCounterBack) {
  EXPECT_EQ(__KyUpdateTimestamp(10), 10u);
  EXPECT_EQ(__KyUpdateTimestamp(-3), 7u);
  // Modulo 2^64 below zero.
  EXPECT_EQ(__KyUpdateTimestamp(-8), UINT64_MAX);
  EXPECT_EQ(__KyUpdateTimestamp(0), 0u);
}

}  // namespace
