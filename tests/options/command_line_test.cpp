// Parsing the tool's command line: the syntax, every error report byte for
// byte, and what stays set after an error.
#include <string>

#include "options/options_test_support.h"

namespace {

using kyrt_test::Arguments;
using kyrt_test::LogExists;
using kyrt_test::LogOf;
using kyrt_test::LogText;
using kyrt_test::OptionErrorRecord;
using kyrt_test::OptionsTest;
using kyrt_test::Parse;
using kyrt_test::TextRecord;

constexpr uint32_t kInvalid = KY_OPTION_INVALID_ID;

class OptionCommandLine : public OptionsTest {
 protected:
  void SetUp() override {
    OptionsTest::SetUp();
    parser_ = __KyGetOptionParser("mytool");
    verbose_ = __KyRegisterBooleanOption(parser_, "-verbose", "v", 0, 0, 1);
    count_ = __KyRegisterIntegerOption(parser_, "-count", "n", 5, 0, 1);
    name_ = __KyRegisterStringOption(parser_, "-name", "s", nullptr, 0, 0, 1);
    list_ = __KyRegisterStringOption(parser_, "-list", "l", nullptr, 0, 1, 1);
    mode_ = __KyRegisterStringEnumOption(parser_, "-mode", "m", "slow", 0, 1);
    __KySetValidStringOptionArgumentWithEnum(parser_, mode_, "slow", 1);
    __KySetValidStringOptionArgumentWithEnum(parser_, mode_, "fast", 2);
    out_ = __KyRegisterPathOption(parser_, "-out", "o", nullptr, 0, 0, 1);
  }

  // The two records of a report: the registered message, then the text.
  static std::string Report(int firstId, const char* type, const std::string& option,
                            const std::string& text) {
    return OptionErrorRecord(firstId, type, option) + TextRecord(firstId + 1, "INFO", text);
  }

  uint32_t parser_ = kInvalid;
  uint32_t verbose_ = kInvalid;
  uint32_t count_ = kInvalid;
  uint32_t name_ = kInvalid;
  uint32_t list_ = kInvalid;
  uint32_t mode_ = kInvalid;
  uint32_t out_ = kInvalid;
};

TEST_F(OptionCommandLine, AnEmptyCommandLineSucceeds) {
  EXPECT_EQ(__KyParseOptions2(parser_, 0, nullptr), 1);
  EXPECT_EQ(__KyIsOptionSet(parser_, verbose_), 0);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionCommandLine, AParserIdAbove15IsLogged) {
  const Arguments arguments{"-verbose"};
  EXPECT_EQ(Parse(16, arguments), 0);
  EXPECT_EQ(Parse(kInvalid, arguments), 0);
  EXPECT_EQ(LogText(),
            LogOf(TextRecord(1, "ERROR", "Invalid parser ID passed: 16 (max: 16)") +
                  TextRecord(2, "ERROR", "Invalid parser ID passed: 4294967295 (max: 16)")));
}

TEST_F(OptionCommandLine, TheParserIdIsComparedWithTheFixedBoundOnly) {
  // Parser 15 was never created: nothing of it is found, but the id passes.
  EXPECT_EQ(__KyParseOptions2(15, 0, nullptr), 1);
  EXPECT_EQ(Parse(15, Arguments{"-verbose"}), 0);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_OPTION", "-verbose",
                         "Invalid command line option: -verbose used with tool: (null)")));
}

TEST_F(OptionCommandLine, ABooleanIsSetByItsNameAndClearedByItsNegation) {
  EXPECT_EQ(Parse(parser_, Arguments{"-verbose"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 1);
  EXPECT_EQ(Parse(parser_, Arguments{"-no-verbose"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-no-verbose", "-verbose"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 1);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionCommandLine, ANegatedBooleanIsSetEvenWhenItsDefaultIsZero) {
  EXPECT_EQ(Parse(parser_, Arguments{"-no-verbose"}), 1);
  EXPECT_EQ(__KyIsOptionSet(parser_, verbose_), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 0);
}

TEST_F(OptionCommandLine, NegatingANonBooleanIsAnInvalidNegation) {
  EXPECT_EQ(Parse(parser_, Arguments{"-no-count"}), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, count_), 0);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_OPTION", "-no-count",
                         "Invalid negation for command line option: -no-count used with tool: "
                         "mytool")));
}

TEST_F(OptionCommandLine, IntegersAreReadInBaseZero) {
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "0x10"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 16);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "010"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 8);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "0"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "+12"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 12);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "0X7fffffff"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 2147483647);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "2147483647"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 2147483647);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionCommandLine, ABadIntegerIsReportedWithTheValueAndTheOption) {
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "12abc"}), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, count_), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_ARGUMENT", "-count",
                                    "Bad integer value: 12abc for command line option: -count")));
}

TEST_F(OptionCommandLine, IntegersFrom2147483648OnAreBad) {
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "2147483648"}), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "4294967296"}), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "0x80000000"}), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "99999999999999999999"}), 0);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 5);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_ARGUMENT", "-count",
                         "Bad integer value: 2147483648 for command line option: -count") +
                  Report(3, "BAD_ARGUMENT", "-count",
                         "Bad integer value: 4294967296 for command line option: -count") +
                  Report(5, "BAD_ARGUMENT", "-count",
                         "Bad integer value: 0x80000000 for command line option: -count") +
                  Report(7, "BAD_ARGUMENT", "-count",
                         "Bad integer value: 99999999999999999999 for command line option: "
                         "-count")));
}

TEST_F(OptionCommandLine, EmptyAndSignOnlyIntegersAreBad) {
  EXPECT_EQ(Parse(parser_, Arguments{"-count", ""}), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "+"}), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "0x"}), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "5 "}), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_ARGUMENT", "-count",
                                    "Bad integer value:  for command line option: -count") +
                             Report(3, "BAD_ARGUMENT", "-count",
                                    "Bad integer value: + for command line option: -count") +
                             Report(5, "BAD_ARGUMENT", "-count",
                                    "Bad integer value: 0x for command line option: -count") +
                             Report(7, "BAD_ARGUMENT", "-count",
                                    "Bad integer value: 5  for command line option: -count")));
}

TEST_F(OptionCommandLine, ANegativeNumberBehindBlanksIsOutOfRange) {
  EXPECT_EQ(Parse(parser_, Arguments{"-count", " -5"}), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_ARGUMENT", "-count",
                                    "Bad integer value:  -5 for command line option: -count")));
}

TEST_F(OptionCommandLine, ANegativeValueIsAMissingArgument) {
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "-5"}), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, count_), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_ARGUMENT", "-count",
                                    "No arguments for command line option: -count")));
}

TEST_F(OptionCommandLine, AValueOptionAsTheLastTokenIsAMissingArgument) {
  EXPECT_EQ(Parse(parser_, Arguments{"-verbose", "-name"}), 0);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 1);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_ARGUMENT", "-name",
                                    "No arguments for command line option: -name")));
}

TEST_F(OptionCommandLine, AnOptionCannotBeTheValueOfAnother) {
  EXPECT_EQ(Parse(parser_, Arguments{"-name", "-verbose"}), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, name_), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, verbose_), 0);
}

TEST_F(OptionCommandLine, NameAndValueInOneTokenIsAnInvalidOption) {
  EXPECT_EQ(Parse(parser_, Arguments{"-verbose=1"}), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, verbose_), 0);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_OPTION", "-verbose=1",
                         "Invalid command line option: -verbose=1 used with tool: mytool")));
}

TEST_F(OptionCommandLine, ATokenWithoutADashIsABadOption) {
  EXPECT_EQ(Parse(parser_, Arguments{"verbose"}), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_OPTION", "verbose",
                                    "Bad command line option: verbose used with tool: mytool")));
}

TEST_F(OptionCommandLine, AnEmptyTokenIsABadOption) {
  EXPECT_EQ(Parse(parser_, Arguments{"-verbose", ""}), 0);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 1);
  EXPECT_EQ(LogText(), LogOf(OptionErrorRecord(1, "BAD_OPTION", "") +
                             TextRecord(2, "INFO",
                                        "Bad command line option:  used with tool: "
                                        "mytool")));
}

TEST_F(OptionCommandLine, ANullTokenIsABadOption) {
  char* const arguments[] = {nullptr};
  EXPECT_EQ(__KyParseOptions2(parser_, 1, arguments), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_OPTION", "(null)",
                                    "Bad command line option: (null) used with tool: mytool")));
}

TEST_F(OptionCommandLine, AnUnknownOptionIsInvalid) {
  EXPECT_EQ(Parse(parser_, Arguments{"-verb"}), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_OPTION", "-verb",
                                    "Invalid command line option: -verb used with tool: mytool")));
}

TEST_F(OptionCommandLine, NamesMatchExactlyNotAsPrefixes) {
  const uint32_t verb = __KyRegisterBooleanOption(parser_, "-verb", "v", 0, 0, 1);
  EXPECT_EQ(Parse(parser_, Arguments{"-verb"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verb), 1);
  EXPECT_EQ(__KyIsOptionSet(parser_, verbose_), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-verbos"}), 0);
}

TEST_F(OptionCommandLine, TheNegationOfAnUnknownOptionIsAnInvalidOption) {
  EXPECT_EQ(Parse(parser_, Arguments{"-no-such"}), 0);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_OPTION", "-no-such",
                         "Invalid command line option: -no-such used with tool: mytool")));
}

TEST_F(OptionCommandLine, AnOptionWhoseNameBeginsWithNoCanNeverBeGiven) {
  const uint32_t cache = __KyRegisterBooleanOption(parser_, "-no-cache", "c", 0, 0, 1);
  EXPECT_EQ(Parse(parser_, Arguments{"-no-cache"}), 0);
  EXPECT_EQ(__KyIsOptionSet(parser_, cache), 0);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_OPTION", "-no-cache",
                         "Invalid command line option: -no-cache used with tool: mytool")));
}

TEST_F(OptionCommandLine, TheNegationPrefixAloneLooksUpADash) {
  const uint32_t dash = __KyRegisterBooleanOption(parser_, "-", "dash", 1, 0, 1);
  EXPECT_EQ(Parse(parser_, Arguments{"-no-"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, dash), 0);
  EXPECT_EQ(Parse(parser_, Arguments{"-"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, dash), 1);
}

TEST_F(OptionCommandLine, TwoDashesAreAnOrdinaryName) {
  const uint32_t twoDashes = __KyRegisterStringOption(parser_, "--", "end", nullptr, 0, 0, 1);
  EXPECT_EQ(Parse(parser_, Arguments{"--", "value"}), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, twoDashes), "value");
  EXPECT_EQ(Parse(parser_, Arguments{"--name", "x"}), 0);
}

TEST_F(OptionCommandLine, AnOptionOfAnotherParserIsInvalid) {
  const uint32_t other = __KyGetOptionParser("other");
  const uint32_t foreign = __KyRegisterBooleanOption(other, "-foreign", "f", 0, 0, 1);
  EXPECT_EQ(Parse(parser_, Arguments{"-foreign"}), 0);
  EXPECT_EQ(Parse(other, Arguments{"-verbose"}), 0);
  EXPECT_EQ(Parse(other, Arguments{"-foreign"}), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(other, foreign), 1);
  EXPECT_EQ(LogText(),
            LogOf(Report(1, "BAD_OPTION", "-foreign",
                         "Invalid command line option: -foreign used with tool: mytool") +
                  Report(3, "BAD_OPTION", "-verbose",
                         "Invalid command line option: -verbose used with tool: other")));
}

TEST_F(OptionCommandLine, TheFirstOptionOfAName) {
  const uint32_t again = __KyRegisterIntegerOption(parser_, "-count", "again", 0, 0, 1);
  EXPECT_EQ(Parse(parser_, Arguments{"-count", "3"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 3);
  EXPECT_EQ(__KyIsOptionSet(parser_, again), 0);
}

TEST_F(OptionCommandLine, ValuesOfEveryTypeAreSet) {
  const Arguments arguments{"-name", "alice", "-mode", "fa",  "-out",    "//tmp//o",
                            "-list", "a",     "-list", "b",   "-count",  "7",
                            "-list", "c",     "-name", "bob", "-verbose"};
  EXPECT_EQ(Parse(parser_, arguments), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, name_), "bob");
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, mode_), "fa");
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, mode_), 2u);
  EXPECT_STREQ(__KyGetPathOptionValue(parser_, out_), "/tmp/o");
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, list_), 3u);
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 1), "a");
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 2), "b");
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 3), "c");
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 7);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 1);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionCommandLine, AnEmptyValueIsAValue) {
  EXPECT_EQ(Parse(parser_, Arguments{"-name", ""}), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, name_), "");
}

TEST_F(OptionCommandLine, OptionsSetBeforeAnErrorKeepTheirValues) {
  EXPECT_EQ(Parse(parser_, Arguments{"-name", "kept", "-count", "9", "bogus", "-verbose"}), 0);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, name_), "kept");
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 9);
  EXPECT_EQ(__KyIsOptionSet(parser_, verbose_), 0);
}

TEST_F(OptionCommandLine, OnlyTheGivenCountOfTokensIsRead) {
  const Arguments arguments{"-verbose", "bogus"};
  EXPECT_EQ(__KyParseOptions2(parser_, 1, arguments.vector()), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, verbose_), 1);
  const Arguments valueCut{"-count", "3"};
  EXPECT_EQ(__KyParseOptions2(parser_, 1, valueCut.vector()), 0);
  EXPECT_EQ(LogText(), LogOf(Report(1, "BAD_ARGUMENT", "-count",
                                    "No arguments for command line option: -count")));
}

TEST_F(OptionCommandLine, TheOlderNameForwards) {
  const Arguments arguments{"-count", "11"};
  EXPECT_EQ(__KyParseOptions(parser_, arguments.count(), arguments.vector()), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), 11);
  EXPECT_EQ(__KyParseOptions(17, arguments.count(), arguments.vector()), 0);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "ERROR", "Invalid parser ID passed: 17 (max: 16)")));
}

TEST_F(OptionCommandLine, TokensAreEscapedInTheRecordAndFoldedInTheText) {
  EXPECT_EQ(Parse(parser_, Arguments{"-a<b>&'\"--x"}), 0);
  EXPECT_EQ(LogText(),
            LogOf(OptionErrorRecord(1, "BAD_OPTION", "-a&lt;b&gt;&amp;&apos;&quot;--x") +
                  TextRecord(2, "INFO",
                             "Invalid command line option: -a<b>&'\"-x used with tool: mytool")));
}

TEST_F(OptionCommandLine, AValueOutsideTheValidArgumentsIsADefect) {
  EXPECT_TOOL_DEFECT(Parse(parser_, Arguments{"-mode", "medium"}),
                     "Invalid argument [medium, -1] used to set Option -mode");
}

}  // namespace
