// Helpers shared by the option tests: a started runtime, argument vectors
// and the exact text of the log records the option family writes.
#ifndef KYRT_TESTS_OPTIONS_OPTIONS_TEST_SUPPORT_H
#define KYRT_TESTS_OPTIONS_OPTIONS_TEST_SUPPORT_H

#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/options.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "support/log_text.h"

namespace kyrt_test {

// Installs the POSIX hooks and starts the runtime for every case.
class OptionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KyPosixHostInstall();
    __KyRtStartup();
  }
};

// An argument vector of modifiable strings, as a tool receives one.
class Arguments {
 public:
  Arguments(std::initializer_list<std::string> tokens) : tokens_(tokens) {
    for (std::string& token : tokens_) pointers_.push_back(token.data());
    pointers_.push_back(nullptr);
  }

  uint32_t count() const { return static_cast<uint32_t>(tokens_.size()); }
  char* const* vector() const { return pointers_.data(); }

 private:
  std::vector<std::string> tokens_;
  std::vector<char*> pointers_;
};

inline int Parse(uint32_t parser, const Arguments& arguments) {
  return __KyParseOptions2(parser, arguments.count(), arguments.vector());
}

inline bool LogExists() {
  return access("kylog.log", F_OK) == 0;
}

// The record of a text message of the runtime (INTERNAL) at depth 1.
inline std::string TextRecord(int id, const std::string& severity, const std::string& text) {
  return "\n\t<msg id='" + std::to_string(id) + "' source='kyrt'>\n\t\t<type>INTERNAL</type>" +
         "\n\t\t<severity>" + severity + "</severity>\n\t\t<timestamp>TS</timestamp>\n\t\t<!-- " +
         text + " -->\n\t</msg>";
}

// The record of BAD_OPTION or BAD_ARGUMENT naming the offending option.
inline std::string OptionErrorRecord(int id, const std::string& type, const std::string& option) {
  return "\n\t<msg id='" + std::to_string(id) + "' source='kyrt'>\n\t\t<type>" + type +
         "</type>\n\t\t<severity>ERROR</severity>\n\t\t<timestamp>TS</timestamp>" +
         "\n\t\t<arg name='option'>" + option + "</arg>\n\t</msg>";
}

// The whole log of a process whose only records are the given ones.
inline std::string LogOf(const std::string& records) {
  return kLogHeader + kLogRoot + records;
}

// What a fatal tool defect leaves in the log before its call stack.
inline std::string FatalDefectText(const std::string& text) {
  return "<type>INTERNAL</type>\n\t\t<severity>ERROR</severity>\n\t\t<timestamp>TS</timestamp>"
         "\n\t\t<!-- " +
         text + " -->\n\t</msg>\n\t<!-- Frames of trelltool call stack: -->";
}

}  // namespace kyrt_test

// Runs statement in a child process that must end as a fatal tool defect
// (exit status 255) whose record carries exactly text.
#define EXPECT_TOOL_DEFECT(statement, text)                                            \
  do {                                                                                 \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(255), "");                        \
    const std::string kyrtLogText = kyrt_test::LogText();                              \
    EXPECT_NE(kyrtLogText.find(kyrt_test::FatalDefectText(text)), std::string::npos)   \
        << kyrtLogText;                                                                \
    EXPECT_NE(kyrtLogText.find("<type>ABNORMAL_TERMINATE</type>"), std::string::npos); \
  } while (false)

#endif  // KYRT_TESTS_OPTIONS_OPTIONS_TEST_SUPPORT_H
