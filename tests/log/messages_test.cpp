// The message registry and the runtime's own messages.
#include <string>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "log/log_internal.h"
#include "support/log_text.h"

namespace {

using kyrt_test::LogText;

int32_t Register(const char* name, const char* const* arguments = nullptr, uint32_t flags = 0,
                 uint32_t source = 0) {
  const KyLogMessageDefinition definition{name, arguments, flags, source};
  return __KyRegisterLogMessage2(&definition);
}

void Start() {
  KyPosixHostInstall();
  __KyRtStartup();
}

TEST(Messages, BuiltInEntriesExistAtLoad) {
  const kyrt::LogMessage* comment = kyrt::FindLogMessage(0);
  const kyrt::LogMessage* internal = kyrt::FindLogMessage(1);
  ASSERT_NE(comment, nullptr);
  ASSERT_NE(internal, nullptr);
  EXPECT_STREQ(comment->name, "COMMENT");
  EXPECT_EQ(comment->flags, 6u);
  EXPECT_EQ(comment->argumentNames[0], nullptr);
  EXPECT_STREQ(internal->name, "INTERNAL");
  EXPECT_EQ(internal->flags, 1u);
  EXPECT_EQ(kyrt::FindLogMessage(2), nullptr);
}

TEST(Messages, RuntimeIdsAreZeroBeforeStartup) {
  EXPECT_EQ(KYLOG_MSG_ABNORMAL_TERMINATE, 0);
  EXPECT_EQ(KYLOG_MSG_FAIL_READ_FILE_VERBOSE, 0);
}

TEST(Messages, StartupRegistersTheTwelveRuntimeMessagesAsTwoToThirteen) {
  Start();
  const int32_t ids[] = {KYLOG_MSG_ABNORMAL_TERMINATE, KYLOG_MSG_OUT_OF_MEMORY,
                         KYLOG_MSG_COLLECT_MEMORY,     KYLOG_MSG_MEMORY_IS_TIGHT,
                         KYLOG_MSG_FREEING_RESERVES,   KYLOG_MSG_BAD_OPTION,
                         KYLOG_MSG_BAD_ARGUMENT,       KYLOG_MSG_FAIL_CONVERT_FILENAME,
                         KYLOG_MSG_FAIL_OPEN_FILE,     KYLOG_MSG_FAIL_SEEK_FILE,
                         KYLOG_MSG_FAIL_READ_FILE,     KYLOG_MSG_FAIL_READ_FILE_VERBOSE};
  const char* const names[] = {
      "ABNORMAL_TERMINATE", "OUT_OF_MEMORY",  "COLLECT_MEMORY", "MEMORY_IS_TIGHT",
      "FREEING_RESERVES",   "BAD_OPTION",     "BAD_ARGUMENT",   "FAIL_CONVERT_FILENAME",
      "FAIL_OPEN_FILE",     "FAIL_SEEK_FILE", "FAIL_READ_FILE", "FAIL_READ_FILE_VERBOSE"};
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(ids[i], i + 2);
    EXPECT_STREQ(kyrt::FindLogMessage(ids[i])->name, names[i]);
  }
  const kyrt::LogMessage* verbose = kyrt::FindLogMessage(KYLOG_MSG_FAIL_READ_FILE_VERBOSE);
  EXPECT_STREQ(verbose->argumentNames[0], "filename");
  EXPECT_STREQ(verbose->argumentNames[1], "srerror");
  EXPECT_EQ(verbose->argumentNames[2], nullptr);
  EXPECT_EQ(kyrt::FindLogMessage(KYLOG_MSG_FREEING_RESERVES)->flags, 4u);
  EXPECT_STREQ(kyrt::FindLogMessage(KYLOG_MSG_BAD_OPTION)->argumentNames[0], "option");
  // A second start-up registers nothing again.
  __KyRtStartup();
  EXPECT_EQ(Register("NEXT"), 14);
}

TEST(Messages, RegistrationKeepsPrivateCopies) {
  Start();
  char name[] = "MINE";
  char argument[] = "arg";
  const char* arguments[] = {argument, nullptr};
  const int32_t id = Register(name, arguments, 5, 0);
  name[0] = 'X';
  argument[0] = 'X';
  const kyrt::LogMessage* message = kyrt::FindLogMessage(id);
  EXPECT_STREQ(message->name, "MINE");
  EXPECT_STREQ(message->argumentNames[0], "arg");
  EXPECT_EQ(message->argumentNames[1], nullptr);
  EXPECT_EQ(message->flags, 5u);
  EXPECT_EQ(message->source, 0u);
}

TEST(Messages, AnAbsentArgumentListRecordsNoArgElements) {
  Start();
  const int32_t id = Register("BARE");
  __KyLogInternal(KY_LOG_INFO, id, 0, KY_LOG_ARG_INT, 5, KY_LOG_ARG_END);
  EXPECT_EQ(LogText().find("<arg"), std::string::npos);
  EXPECT_NE(LogText().find("<type>BARE</type>"), std::string::npos);
}

TEST(Messages, TheOlderNameRegistersToo) {
  Start();
  const KyLogMessageDefinition definition{"OLD", nullptr, 0, 0};
  EXPECT_EQ(__KyRegisterLogMessage(&definition), 14);
}

TEST(Messages, IdOneHundredTwentySevenIsTheLast) {
  Start();
  for (int32_t expected = 14; expected <= 127; ++expected) {
    ASSERT_EQ(Register(("M" + std::to_string(expected)).c_str()), expected);
  }
  EXPECT_EQ(Register("ONE_TOO_MANY"), -1);
  EXPECT_EQ(Register("STILL_FULL"), -1);
  EXPECT_NE(kyrt::FindLogMessage(127), nullptr);
  EXPECT_EQ(kyrt::FindLogMessage(128), nullptr);
  EXPECT_EQ(LogText().find("ONE_TOO_MANY"), std::string::npos);  // refused silently
}

TEST(Messages, ANullDefinitionIsLoggedAndRefused) {
  Start();
  EXPECT_EQ(__KyRegisterLogMessage2(nullptr), -1);
  EXPECT_NE(LogText().find("<type>INTERNAL</type>\n\t\t<severity>ERROR</severity>"),
            std::string::npos);
  EXPECT_NE(LogText().find("<!-- A valid message must be specified to register it with KYRT -->"),
            std::string::npos);
}

TEST(Messages, AnUnknownSourceIsRefused) {
  Start();
  EXPECT_EQ(Register("FROM_NOWHERE", nullptr, 0, 1), -1);
  EXPECT_NE(LogText().find("A valid message must be specified"), std::string::npos);
  EXPECT_EQ(Register("OK"), 14);  // the refused call took no id
}

TEST(Messages, RuntimeRegistrationThatFailsPartWayPublishesNoId) {
  // Fill the table before start-up so that only six runtime messages fit.
  for (int32_t i = 2; i < 122; ++i) ASSERT_EQ(Register(("EARLY" + std::to_string(i)).c_str()), i);
  Start();
  EXPECT_EQ(KYLOG_MSG_ABNORMAL_TERMINATE, 0);
  EXPECT_EQ(KYLOG_MSG_OUT_OF_MEMORY, 0);
  EXPECT_EQ(__KyRegisterInternalKYRTLogMessages(), 0);
  // Their records then fall back to plain comments.
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, "out of memory");
  EXPECT_EQ(LogText(), kyrt_test::kLogHeader + kyrt_test::kLogRoot + "\n\t<!-- out of memory -->");
}

}  // namespace
