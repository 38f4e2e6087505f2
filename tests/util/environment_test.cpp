// Environment variables.
#include <cstdlib>

#include "gtest/gtest.h"
#include "kyrt/strings.h"

namespace {

constexpr const char* kName = "KYRT_ENVIRONMENT_TEST";

TEST(Environment, GetReturnsTheProcessesOwnStorage) {
  ASSERT_EQ(setenv(kName, "value", 1), 0);
  char* value = __KyGetEnvironmentVariable(kName);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value, "value");
  EXPECT_EQ(value, std::getenv(kName));
}

TEST(Environment, GetOfAnUnsetOrNullNameIsNull) {
  unsetenv(kName);
  EXPECT_EQ(__KyGetEnvironmentVariable(kName), nullptr);
  EXPECT_EQ(__KyGetEnvironmentVariable(nullptr), nullptr);
}

TEST(Environment, SetOverwrites) {
  EXPECT_EQ(__KySetEnvironmentVariable(kName, "first"), 1);
  EXPECT_STREQ(std::getenv(kName), "first");
  EXPECT_EQ(__KySetEnvironmentVariable(kName, "second"), 1);
  EXPECT_STREQ(std::getenv(kName), "second");
}

TEST(Environment, SetExKeepsAnExistingValueWithoutOverwrite) {
  EXPECT_EQ(__KySetEnvironmentVariableEx(kName, "first", 0), 1);
  EXPECT_STREQ(std::getenv(kName), "first");
  EXPECT_EQ(__KySetEnvironmentVariableEx(kName, "second", 0), 1);
  EXPECT_STREQ(std::getenv(kName), "first");
  EXPECT_EQ(__KySetEnvironmentVariableEx(kName, "third", 1), 1);
  EXPECT_STREQ(std::getenv(kName), "third");
}

TEST(Environment, SetRefusesNulls) {
  unsetenv(kName);
  EXPECT_EQ(__KySetEnvironmentVariable(nullptr, "value"), 0);
  EXPECT_EQ(__KySetEnvironmentVariable(kName, nullptr), 0);
  EXPECT_EQ(__KySetEnvironmentVariableEx(nullptr, "value", 1), 0);
  EXPECT_EQ(__KySetEnvironmentVariableEx(kName, nullptr, 1), 0);
  EXPECT_EQ(std::getenv(kName), nullptr);
}

TEST(Environment, SetFailsWhenTheCLibraryRefusesTheName) {
  EXPECT_EQ(__KySetEnvironmentVariable("", "value"), 0);
  EXPECT_EQ(__KySetEnvironmentVariable("A=B", "value"), 0);
  EXPECT_EQ(std::getenv("A"), nullptr);
}

TEST(Environment, SetAcceptsAnEmptyValue) {
  EXPECT_EQ(__KySetEnvironmentVariable(kName, ""), 1);
  ASSERT_NE(std::getenv(kName), nullptr);
  EXPECT_STREQ(std::getenv(kName), "");
}

TEST(Environment, UnsetRemovesTheVariable) {
  ASSERT_EQ(setenv(kName, "value", 1), 0);
  __KyUnsetEnvironmentVariable(kName);
  EXPECT_EQ(std::getenv(kName), nullptr);
  __KyUnsetEnvironmentVariable(kName);  // already gone: nothing happens
  EXPECT_EQ(std::getenv(kName), nullptr);
}

TEST(Environment, UnsetIgnoresNull) {
  ASSERT_EQ(setenv(kName, "value", 1), 0);
  __KyUnsetEnvironmentVariable(nullptr);
  EXPECT_STREQ(std::getenv(kName), "value");
}

}  // namespace
