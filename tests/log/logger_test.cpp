// The logger: creation, records byte for byte, sources, closing.
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "support/log_text.h"

namespace {

using kyrt_test::kLogHeader;
using kyrt_test::kLogRoot;
using kyrt_test::LogText;

// A record of a message without arguments, at depth 1.
std::string Record(int id, const char* type, const char* severity, const char* source = "kyrt",
                   const char* extra = "", const char* attributes = "") {
  return std::string("\n\t<msg id='") + std::to_string(id) + "'" + attributes + " source='" +
         source + "'>\n\t\t<type>" + type + "</type>\n\t\t<severity>" + severity +
         "</severity>\n\t\t<timestamp>TS</timestamp>" + extra + "\n\t</msg>";
}

std::string Arg(const char* name, const std::string& value) {
  return std::string("\n\t\t<arg name='") + name + "'>" + value + "</arg>";
}

int32_t Register(const char* name, const char* const* arguments, uint32_t flags = 0,
                 uint32_t source = 0) {
  const KyLogMessageDefinition definition{name, arguments, flags, source};
  return __KyRegisterLogMessage2(&definition);
}

class Logger : public ::testing::Test {
 protected:
  void SetUp() override {
    KyPosixHostInstall();
    __KyRtStartup();
  }
};

TEST(LoggerBeforeStartup, RecordsAreDroppedAndNoFileIsCreated) {
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "dropped %d", 1);
  __KyLogCommentInternal("dropped too");
  EXPECT_EQ(__KyIsLoggerInitialized(), 0);
  EXPECT_NE(access("kylog.log", F_OK), 0);
  EXPECT_EQ(__KyCreateLogger("kyrt", "kylog.log", 0), 0);
  EXPECT_EQ(__KyGetLoggerHandle("tool"), -1);
  EXPECT_EQ(__KyReopenLogger(), 0);
}

TEST_F(Logger, FirstRecordCreatesTheDefaultLogWithItsRoot) {
  EXPECT_EQ(__KyIsLoggerInitialized(), 0);
  __KyLogInternal(KY_LOG_WARNING, KYLOG_MSG_MEMORY_IS_TIGHT, 0, KY_LOG_ARG_END);
  EXPECT_EQ(__KyIsLoggerInitialized(), 1);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + Record(1, "MEMORY_IS_TIGHT", "WARNING"));
}

TEST_F(Logger, RecordIdsCountUpAndSeveritiesAreNamed) {
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  __KyLogInternal(KY_LOG_WARNING, KYLOG_MSG_COLLECT_MEMORY, 0, KY_LOG_ARG_END);
  __KyLogInternal(KY_LOG_INFO, KYLOG_MSG_FAIL_CONVERT_FILENAME, 0, KY_LOG_ARG_END);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + Record(1, "OUT_OF_MEMORY", "ERROR") +
                           Record(2, "COLLECT_MEMORY", "WARNING") +
                           Record(3, "FAIL_CONVERT_FILENAME", "INFO"));
}

TEST_F(Logger, AnInvalidSeverityIsNamedUnknown) {
  __KyLogInternal(7, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + Record(1, "OUT_OF_MEMORY", "UNKNOWN"));
}

TEST_F(Logger, TypedArgumentsOfEveryKind) {
  const char* const names[] = {"i", "u", "p", "s", nullptr};
  const int32_t id = Register("TYPED", names);
  ASSERT_GE(id, 2);
  __KyLogInternal(KY_LOG_INFO, id, 0, KY_LOG_ARG_INT, -42, KY_LOG_ARG_UNSIGNED,
                  uint64_t{0x100000005}, KY_LOG_ARG_POINTER, reinterpret_cast<void*>(0xbeef),
                  KY_LOG_ARG_STRING, "a<b & 'c'", KY_LOG_ARG_END);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot +
                           Record(1, "TYPED", "INFO", "kyrt",
                                  (Arg("i", "-42") + Arg("u", "5") + Arg("p", "0xbeef") +
                                   Arg("s", "a&lt;b &amp; &apos;c&apos;"))
                                      .c_str()));
}

TEST_F(Logger, AnUnknownTagEmptiesThatArgumentAndEveryLaterOne) {
  const char* const names[] = {"first", "second", nullptr};
  const int32_t id = Register("TWO", names);
  __KyLogInternal(KY_LOG_INFO, id, 0, 0x12345678u, 99, KY_LOG_ARG_END);
  EXPECT_EQ(LogText(),
            kLogHeader + kLogRoot +
                Record(1, "TWO", "INFO", "kyrt", (Arg("first", "") + Arg("second", "")).c_str()));
}

TEST_F(Logger, AnUnknownTagAfterAKnownOneEmptiesOnlyTheRest) {
  const char* const names[] = {"first", "second", "third", nullptr};
  const int32_t id = Register("THREE", names);
  __KyLogInternal(KY_LOG_INFO, id, 0, KY_LOG_ARG_INT, 1, 0xBADu, KY_LOG_ARG_INT, 3, KY_LOG_ARG_END);
  EXPECT_EQ(LogText(),
            kLogHeader + kLogRoot +
                Record(1, "THREE", "INFO", "kyrt",
                       (Arg("first", "1") + Arg("second", "") + Arg("third", "")).c_str()));
}

TEST_F(Logger, RuntimeMessageWithItsArgumentIsNotDisplayed) {
  __KyLogInternal(KY_LOG_WARNING, KYLOG_MSG_FREEING_RESERVES, 0, KY_LOG_ARG_INT, 0x1FFFFF0,
                  KY_LOG_ARG_END);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot +
                           Record(1, "FREEING_RESERVES", "WARNING", "kyrt",
                                  Arg("num_bytes", "33554416").c_str(), " display='false'"));
}

TEST_F(Logger, NoDisplayArgumentMarksTheRecord) {
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 1, KY_LOG_ARG_END);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot +
                           Record(1, "OUT_OF_MEMORY", "ERROR", "kyrt", "", " display='false'"));
}

TEST_F(Logger, TextMessageCarriesItsFormattedTextAsAComment) {
  __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, "failed %s after %d tries -- sorry", "x<y",
                  3);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot +
                           Record(1, "INTERNAL", "ERROR", "kyrt",
                                  "\n\t\t<!-- failed x<y after 3 tries - sorry -->"));
}

TEST_F(Logger, UnknownIdsAreWrittenAsCommentsWithoutUsingARecordId) {
  __KyLogInternal(KY_LOG_INFO, 127, 0, "unknown %d", 127);
  __KyLogInternal(KY_LOG_INFO, -1, 0, "negative");
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + "\n\t<!-- unknown 127 -->\n\t<!-- negative -->" +
                           Record(1, "OUT_OF_MEMORY", "ERROR"));
}

TEST_F(Logger, CommentsGoInAsCommentsAtTheCurrentDepth) {
  EXPECT_EQ(__KyLogCommentInternal("note %d", 5), 0);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_COMMENT, 0, "plain");
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + "\n\t<!-- note 5 -->\n\t<!-- plain -->");
}

TEST_F(Logger, MessageOfAnUnknownSourceIsWrittenAsAComment) {
  ASSERT_EQ(__KyCreateLogger("kyrt", "kylog.log", 0), 1);
  const int32_t source = __KyGetLoggerHandle("tool");
  ASSERT_EQ(source, 1);
  const int32_t id = Register("FROM_TOOL", nullptr, KY_LOG_MSG_FLAG_TEXT, 1);
  ASSERT_GE(id, 0);
  __KyLogInternal(KY_LOG_INFO, id, 0, "hello");
  ASSERT_EQ(__KyReleaseLoggerHandle(1, "tool"), 1);
  __KyLogInternal(KY_LOG_INFO, id, 0, "after release");
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot +
                           Record(1, "FROM_TOOL", "INFO", "tool", "\n\t\t<!-- hello -->") +
                           "\n\t<!-- after release -->");
}

TEST_F(Logger, ExplicitCreationUsesThePathSourceAndMode) {
  ASSERT_EQ(__KyCreateLogger("mytool", "tool.log", 0), 1);
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  // The root carries the given source; records carry their message's source.
  EXPECT_EQ(LogText("tool.log"), kLogHeader + "\n<log version='2.0' source='mytool'>" +
                                     Record(1, "OUT_OF_MEMORY", "ERROR"));
  EXPECT_NE(access("kylog.log", F_OK), 0);
}

TEST_F(Logger, AppendModeWritesNoRootAndIndentsRecords) {
  kyrt_test::WriteFile("old.log", "<log>");
  ASSERT_EQ(__KyCreateLogger("kyrt", "old.log", 1), 1);
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  EXPECT_EQ(LogText("old.log"), "<log>" + Record(1, "OUT_OF_MEMORY", "ERROR"));
}

TEST_F(Logger, CreationNeedsASourceAndAPath) {
  EXPECT_EQ(__KyCreateLogger(nullptr, "a.log", 0), 0);
  EXPECT_EQ(__KyCreateLogger("kyrt", nullptr, 0), 0);
  EXPECT_EQ(__KyIsLoggerInitialized(), 0);
}

TEST_F(Logger, ASecondCreationReplacesTheFile) {
  ASSERT_EQ(__KyCreateLogger("kyrt", "first.log", 0), 1);
  ASSERT_EQ(__KyCreateLogger("kyrt", "second.log", 0), 1);
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  EXPECT_EQ(LogText("first.log"), kLogHeader + kLogRoot);
  EXPECT_EQ(LogText("second.log"), kLogHeader + kLogRoot + Record(1, "OUT_OF_MEMORY", "ERROR"));
}

TEST_F(Logger, AFailedCreationLeavesNoLogEvenIfThereWasOne) {
  ASSERT_EQ(__KyCreateLogger("kyrt", "first.log", 0), 1);
  EXPECT_EQ(__KyCreateLogger("kyrt", "missing-dir/x.log", 0), 0);
  EXPECT_EQ(__KyIsLoggerInitialized(), 0);
  // The created flag stays set: handles can still be handed out.
  EXPECT_EQ(__KyGetLoggerHandle("tool"), 1);
}

TEST_F(Logger, ReopenRepairsTheLogInPlace) {
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  EXPECT_EQ(__KyReopenLogger(), 1);
}

TEST_F(Logger, CloseWritesTheRootsClosingTagAndLaterRecordsFollowIt) {
  __KyLogInternal(KY_LOG_ERROR, KYLOG_MSG_OUT_OF_MEMORY, 0, KY_LOG_ARG_END);
  __KyCloseLogger();
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + Record(1, "OUT_OF_MEMORY", "ERROR") + "\n</log>");
  __KyLogCommentInternal("late");
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + Record(1, "OUT_OF_MEMORY", "ERROR") +
                           "\n</log>\n<!-- late -->");
}

TEST_F(Logger, CloseWithoutALogDoesNothing) {
  __KyCloseLogger();
  EXPECT_EQ(__KyIsLoggerInitialized(), 0);
}

TEST_F(Logger, HandlesAreHandedOutFromOneToFifteen) {
  EXPECT_EQ(__KyGetLoggerHandle("early"), -1);  // no log yet
  ASSERT_EQ(__KyCreateLogger("kyrt", "kylog.log", 0), 1);
  EXPECT_EQ(__KyGetLoggerHandle(nullptr), -1);
  for (int32_t expected = 1; expected <= 15; ++expected) {
    EXPECT_EQ(__KyGetLoggerHandle(("source" + std::to_string(expected)).c_str()), expected);
  }
  EXPECT_EQ(__KyGetLoggerHandle("seventeenth"), -1);
  EXPECT_EQ(__KyGetLoggerHandle("again"), -1);
}

TEST_F(Logger, ReleaseChecksIndexAndNamePrefix) {
  ASSERT_EQ(__KyCreateLogger("kyrt", "kylog.log", 0), 1);
  ASSERT_EQ(__KyGetLoggerHandle("tool"), 1);
  EXPECT_EQ(__KyReleaseLoggerHandle(0, "kyrt"), 0);
  EXPECT_EQ(__KyReleaseLoggerHandle(2, "tool"), 0);  // never handed out
  EXPECT_EQ(__KyReleaseLoggerHandle(-1, "tool"), 0);
  EXPECT_EQ(__KyReleaseLoggerHandle(1, "tol"), 0);  // not a match
  EXPECT_EQ(__KyReleaseLoggerHandle(1, nullptr), 0);
  EXPECT_EQ(__KyReleaseLoggerHandle(1, "toolbox"), 1);  // the stored name is a prefix
  EXPECT_EQ(__KyReleaseLoggerHandle(1, "tool"), 0);     // released already
  EXPECT_EQ(__KyGetLoggerHandle("next"), 2);            // a released index is not reused
}

TEST_F(Logger, LogToConsolePrintsALine) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(__KyLogToConsole("value %d", 4), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "value 4\n");
}

}  // namespace
