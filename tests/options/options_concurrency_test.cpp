// Racing registrations: the counters are the only shared state that is
// changed atomically, so ids stay distinct and the tables never overfill
// however the threads interleave.
#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "options/options_test_support.h"

namespace {

using kyrt_test::OptionsTest;

constexpr int kThreads = 4;

// Starts kThreads threads running body(thread index) together and waits for
// them all.
template <typename Body>
void RunTogether(Body body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      body(t);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

using OptionsConcurrency = OptionsTest;

TEST_F(OptionsConcurrency, RacingParsersGetSixteenDistinctIds) {
  std::vector<uint32_t> ids[kThreads];
  RunTogether([&](int t) {
    for (int i = 0; i < 8; ++i) {
      const uint32_t id = __KyGetOptionParser(("p" + std::to_string(t)).c_str());
      if (id != KY_OPTION_INVALID_ID) ids[t].push_back(id);
    }
  });
  std::vector<uint32_t> all;
  for (const auto& mine : ids) all.insert(all.end(), mine.begin(), mine.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), KY_OPTION_MAX_PARSERS);
  for (uint32_t i = 0; i < KY_OPTION_MAX_PARSERS; ++i) EXPECT_EQ(all[i], i);
  EXPECT_EQ(__KyGetOptionParser("late"), KY_OPTION_INVALID_ID);
}

TEST_F(OptionsConcurrency, RacingRegistrationsFillTheTableExactlyOnce) {
  uint32_t parsers[kThreads];
  for (int t = 0; t < kThreads; ++t) parsers[t] = __KyGetOptionParser("tool");
  std::vector<uint32_t> ids[kThreads];
  RunTogether([&](int t) {
    for (int i = 0; i < 100; ++i) {
      const std::string name = "-t" + std::to_string(t) + "o" + std::to_string(i);
      const uint32_t id = __KyRegisterIntegerOption(parsers[t], name.c_str(), "d", i, 0, 1);
      if (id != KY_OPTION_INVALID_ID) ids[t].push_back(id);
    }
  });
  std::vector<uint32_t> all;
  for (int t = 0; t < kThreads; ++t) {
    // Each thread's options are its own, with the values it registered, in
    // the order it registered them.
    for (size_t i = 0; i < ids[t].size(); ++i) {
      const std::string name = "-t" + std::to_string(t) + "o" + std::to_string(i);
      EXPECT_STREQ(__KyGetOptionName(parsers[t], ids[t][i]), name.c_str());
      EXPECT_EQ(__KyGetIntegerOptionValue(parsers[t], ids[t][i]), static_cast<int32_t>(i));
    }
    all.insert(all.end(), ids[t].begin(), ids[t].end());
  }
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), KY_OPTION_MAX_OPTIONS);
  for (uint32_t i = 0; i < KY_OPTION_MAX_OPTIONS; ++i) EXPECT_EQ(all[i], i);
  EXPECT_EQ(__KyRegisterBooleanOption(parsers[0], "-late", "d", 0, 0, 1), KY_OPTION_INVALID_ID);
}

}  // namespace
