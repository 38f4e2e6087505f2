// Debug dump channels used from several threads at once, after the options
// were parsed at start-up: every dump of an enabled channel becomes one
// whole record carrying its own thread's id, disabled channels write
// nothing.
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/debug_dump.h"
#include "kyrt/runtime.h"
#include "support/log_text.h"
#include "sync/lock_test_support.h"

namespace {

constexpr int kThreads = 4;
constexpr int kDumpsPerThread = 250;

using DebugDumpConcurrency = kyrt_test::RuntimeTest;

TEST_F(DebugDumpConcurrency, DumpsOfFourThreadsAreWholeRecordsInTheirThreadsOrder) {
  ASSERT_EQ(__KyParseDbgDumpOption("ZCA,MEM"), 1);
  std::vector<KyThreadId> ids(kThreads, 0);
  std::vector<int> enabledAnswers(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &ids, &enabledAnswers] {
      ids[t] = __KyGetNativeThreadId();
      const unsigned channel = t % 2 == 0 ? KY_DBG_CHANNEL_ZCA : KY_DBG_CHANNEL_MEM;
      for (int i = 0; i < kDumpsPerThread; ++i) {
        enabledAnswers[t] +=
            __KyIsDbgDumpEnabled(channel) + __KyIsDbgDumpEnabled(KY_DBG_CHANNEL_API);
        __KyDbgMessageDumpInternal(channel, "t=%d i=%d", t, i);
        __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_API, "disabled t=%d i=%d", t, i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  const std::string text = kyrt_test::LogText();
  std::vector<int> next(kThreads, 0);
  int records = 0;
  for (size_t at = text.find("<!-- ["); at != std::string::npos; at = text.find("<!-- [", at + 1)) {
    char name[8] = {};
    unsigned id = 0;
    int t = -1;
    int i = -1;
    ASSERT_EQ(
        std::sscanf(text.c_str() + at, "<!-- [%7[A-Z ]] [%u ] t=%d i=%d -->", name, &id, &t, &i), 4)
        << text.substr(at, 60);
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_STREQ(name, t % 2 == 0 ? "ZCA " : "MEM ");
    EXPECT_EQ(id, ids[t]);
    EXPECT_EQ(i, next[t]++);
    ++records;
  }
  EXPECT_EQ(records, kThreads * kDumpsPerThread);
  EXPECT_EQ(text.find("disabled"), std::string::npos);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(enabledAnswers[t], kDumpsPerThread);
  // Every record is closed: as many closing tags as records.
  size_t closings = 0;
  for (size_t at = text.find("</msg>"); at != std::string::npos; at = text.find("</msg>", at + 1)) {
    ++closings;
  }
  EXPECT_EQ(closings, static_cast<size_t>(kThreads * kDumpsPerThread));
}

}  // namespace
