// Help text, the option log, the append iterator and parser release.
#include <string>
#include <vector>

#include "options/options_test_support.h"

namespace {

using kyrt_test::Arguments;
using kyrt_test::LogExists;
using kyrt_test::LogOf;
using kyrt_test::LogText;
using kyrt_test::OptionsTest;
using kyrt_test::Parse;
using kyrt_test::TextRecord;

constexpr uint32_t kInvalid = KY_OPTION_INVALID_ID;

// "%-33s": the name, padded with blanks to 33 characters.
std::string Padded(const std::string& name) {
  return name.size() >= 33 ? name : name + std::string(33 - name.size(), ' ');
}

std::string HelpLine(const std::string& name, const std::string& description,
                     const std::string& defaultText) {
  return "   " + Padded(name) + "  " + description + " default: " + defaultText + "\n";
}

std::string LogLine(int id, const std::string& name, const std::string& value) {
  return TextRecord(id, "INFO", Padded(name) + "  " + value);
}

template <typename Print>
std::string Printed(Print print) {
  testing::internal::CaptureStdout();
  print();
  return testing::internal::GetCapturedStdout();
}

// ------------------------------------------------------------------- help

using OptionHelp = OptionsTest;

TEST_F(OptionHelp, AnIntegerLineIsNamePaddedTo33ThenDescriptionAndDefault) {
  const uint32_t p = __KyGetOptionParser("tool");
  __KyRegisterIntegerOption(p, "-count", "n", 5, 0, 1);
  EXPECT_EQ(Printed([&] { __KyPrintHelp(p, 0); }),
            "\ntool tool options are the following:\n"
            "   -count                             n default: 5\n");
}

TEST_F(OptionHelp, EveryTypeShowsItsDefault) {
  const uint32_t p = __KyGetOptionParser("tool");
  __KyRegisterBooleanOption(p, "-on", "turns on", 3, 0, 1);
  __KyRegisterBooleanOption(p, "-off", "turns off", 0, 0, 1);
  __KyRegisterIntegerOption(p, "-neg", "negative", -12, 0, 1);
  __KyRegisterStringOption(p, "-text", "some text", "hello world", 0, 0, 1);
  __KyRegisterStringOption(p, "-empty", "no default", nullptr, 0, 1, 1);
  __KyRegisterStringEnumOption(p, "-mode", "a mode", "fast", 0, 1);
  __KyRegisterPathOption(p, "-out", "a path", "a//b", 0, 0, 1);
  __KyRegisterPathOption(p, "-nopath", "no path", nullptr, 0, 0, 1);
  EXPECT_EQ(Printed([&] { __KyPrintHelp(p, 0); }),
            "\ntool tool options are the following:\n" + HelpLine("-on", "turns on", "true") +
                HelpLine("-off", "turns off", "false") + HelpLine("-neg", "negative", "-12") +
                HelpLine("-text", "some text", "hello world") +
                HelpLine("-empty", "no default", "none") + HelpLine("-mode", "a mode", "fast") +
                HelpLine("-out", "a path", "a/b") + HelpLine("-nopath", "no path", "none"));
}

TEST_F(OptionHelp, HiddenOptionsAreListedOnlyWhenAllAreAskedFor) {
  const uint32_t p = __KyGetOptionParser("tool");
  __KyRegisterIntegerOption(p, "-shown", "s", 1, 0, 1);
  __KyRegisterIntegerOption(p, "-hidden", "h", 2, 0, 0);
  __KyRegisterIntegerOption(p, "-also", "a", 3, 0, 1);
  const std::string heading = "\ntool tool options are the following:\n";
  EXPECT_EQ(Printed([&] { __KyPrintHelp(p, 0); }),
            heading + HelpLine("-shown", "s", "1") + HelpLine("-also", "a", "3"));
  EXPECT_EQ(Printed([&] { __KyPrintHelp(p, 1); }), heading + HelpLine("-shown", "s", "1") +
                                                       HelpLine("-hidden", "h", "2") +
                                                       HelpLine("-also", "a", "3"));
}

TEST_F(OptionHelp, DefaultsAreShownNotCurrentValues) {
  const uint32_t p = __KyGetOptionParser("tool");
  const uint32_t count = __KyRegisterIntegerOption(p, "-count", "n", 5, 0, 1);
  __KySetIntegerOption(p, count, 9);
  EXPECT_EQ(Printed([&] { __KyPrintHelp(p, 0); }),
            "\ntool tool options are the following:\n" + HelpLine("-count", "n", "5"));
}

TEST_F(OptionHelp, ALongNameIsNotCut) {
  const uint32_t p = __KyGetOptionParser("tool");
  const std::string name = "-" + std::string(40, 'x');
  __KyRegisterBooleanOption(p, name.c_str(), "d", 0, 0, 1);
  EXPECT_EQ(Printed([&] { __KyPrintHelp(p, 0); }),
            "\ntool tool options are the following:\n   " + name + "  d default: false\n");
}

TEST_F(OptionHelp, OnlyTheParsersOwnOptionsInIdOrder) {
  const uint32_t a = __KyGetOptionParser("a");
  const uint32_t b = __KyGetOptionParser("b");
  __KyRegisterIntegerOption(b, "-b1", "x", 1, 0, 1);
  __KyRegisterIntegerOption(a, "-a1", "x", 2, 0, 1);
  __KyRegisterIntegerOption(b, "-b2", "x", 3, 0, 1);
  EXPECT_EQ(Printed([&] { __KyPrintHelp(b, 0); }), "\nb tool options are the following:\n" +
                                                       HelpLine("-b1", "x", "1") +
                                                       HelpLine("-b2", "x", "3"));
}

TEST_F(OptionHelp, AnUnknownParserPrintsNothing) {
  __KyGetOptionParser("tool");
  EXPECT_EQ(Printed([] { __KyPrintHelp(1, 1); }), "");
  EXPECT_EQ(Printed([] { __KyPrintHelp(kInvalid, 1); }), "");
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionHelp, AllParsersInIdOrder) {
  const uint32_t a = __KyGetOptionParser("a");
  const uint32_t b = __KyGetOptionParser("b");
  __KyRegisterIntegerOption(b, "-b", "x", 1, 0, 0);
  __KyRegisterIntegerOption(a, "-a", "x", 2, 0, 1);
  EXPECT_EQ(Printed([] { __KyPrintHelpAll(0); }), "\na tool options are the following:\n" +
                                                      HelpLine("-a", "x", "2") +
                                                      "\nb tool options are the following:\n");
  EXPECT_EQ(Printed([] { __KyPrintHelpAll(1); }),
            "\na tool options are the following:\n" + HelpLine("-a", "x", "2") +
                "\nb tool options are the following:\n" + HelpLine("-b", "x", "1"));
}

TEST_F(OptionHelp, WithoutParsersNothingIsPrinted) {
  EXPECT_EQ(Printed([] { __KyPrintHelpAll(1); }), "");
}

// ------------------------------------------------------------- option log

using OptionLog = OptionsTest;

TEST_F(OptionLog, EveryTypeIsLoggedWithItsCurrentValue) {
  const uint32_t p = __KyGetOptionParser("tool");
  const uint32_t on = __KyRegisterBooleanOption(p, "-on", "d", 0, 0, 1);
  __KyRegisterBooleanOption(p, "-off", "d", 0, 0, 0);
  const uint32_t count = __KyRegisterIntegerOption(p, "-count", "d", 5, 0, 1);
  __KyRegisterStringOption(p, "-text", "d", "default", 0, 0, 1);
  __KyRegisterStringOption(p, "-none", "d", nullptr, 0, 0, 1);
  const uint32_t mode = __KyRegisterStringEnumOption(p, "-mode", "d", "slow", 0, 1);
  const uint32_t out = __KyRegisterPathOption(p, "-out", "d", nullptr, 0, 0, 1);
  const uint32_t list = __KyRegisterStringOption(p, "-list", "d", nullptr, 0, 1, 1);
  ASSERT_EQ(Parse(p, Arguments{"-on", "-count", "-0", "-mode", "fast", "-out", "a//b", "-list", "a",
                               "-list", "b"}),
            0);  // -0 is a missing argument: the log starts with its report
  ASSERT_EQ(Parse(p, Arguments{"-count", "0x2a", "-mode", "fast", "-out", "a//b", "-list", "a",
                               "-list", "b"}),
            1);
  EXPECT_EQ(__KyGetBooleanOptionValue(p, on), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(p, count), 42);
  EXPECT_EQ(__KyIsOptionSet(p, mode), 1);
  EXPECT_EQ(__KyIsOptionSet(p, out), 1);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(p, list), 2u);
  const std::string before = LogText();
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), before + TextRecord(3, "INFO", "tool's options are the following: ") +
                           LogLine(4, "-on", "true") + LogLine(5, "-off", "false") +
                           LogLine(6, "-count", "42") + LogLine(7, "-text", "default") +
                           LogLine(8, "-none", "(null)") + LogLine(9, "-mode", "fast") +
                           LogLine(10, "-out", "a/b") + LogLine(11, "-list", "a, b, "));
}

TEST_F(OptionLog, AnAppendOptionGivenAAndBIsLoggedAsACommaBComma) {
  const uint32_t p = __KyGetOptionParser("tool");
  __KyRegisterStringOption(p, "-list", "d", nullptr, 0, 1, 1);
  ASSERT_EQ(Parse(p, Arguments{"-list", "a", "-list", "b"}), 1);
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ") +
                             LogLine(2, "-list", "a, b, ")));
}

TEST_F(OptionLog, AnUnsetAppendOptionShowsItsDefault) {
  const uint32_t p = __KyGetOptionParser("tool");
  __KyRegisterPathOption(p, "-paths", "d", "x//y", 0, 1, 1);
  __KyRegisterStringOption(p, "-none", "d", nullptr, 0, 1, 1);
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ") +
                             LogLine(2, "-paths", "x/y, ") + LogLine(3, "-none", "(null), ")));
}

TEST_F(OptionLog, AppendValuesAreCutTo2047Characters) {
  const uint32_t p = __KyGetOptionParser("tool");
  const uint32_t list = __KyRegisterStringOption(p, "-list", "d", nullptr, 0, 1, 1);
  // Each value with its ", " takes 100 characters: twenty fill 2000, the
  // twenty-first is cut after 47, the rest are not looked at.
  std::string expected;
  for (int i = 0; i < 25; ++i) {
    const std::string value(98, static_cast<char>('a' + i));
    __KySetStringOption(p, list, value.c_str());
    expected += value + ", ";
  }
  expected.resize(2047);
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ") +
                             LogLine(2, "-list", expected)));
}

TEST_F(OptionLog, AValueWhoseTextFillsTheBufferExactlyIsWhole) {
  const uint32_t p = __KyGetOptionParser("tool");
  const uint32_t list = __KyRegisterStringOption(p, "-list", "d", nullptr, 0, 1, 1);
  const std::string first(2045, 'x');  // with ", " exactly 2047 characters
  __KySetStringOption(p, list, first.c_str());
  __KySetStringOption(p, list, "never");
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ") +
                             LogLine(2, "-list", first + ", ")));
}

TEST_F(OptionLog, TheSeparatorOfTheLastValueMayBeCut) {
  const uint32_t p = __KyGetOptionParser("tool");
  const uint32_t list = __KyRegisterStringOption(p, "-list", "d", nullptr, 0, 1, 1);
  const std::string first(2043, 'x');  // with ", " 2045 characters
  __KySetStringOption(p, list, first.c_str());
  __KySetStringOption(p, list, "yz");  // "yz, " keeps its first two characters
  __KySetStringOption(p, list, "never");
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ") +
                             LogLine(2, "-list", first + ", yz")));
}

TEST_F(OptionLog, AnUnknownParserLogsNothing) {
  __KyGetOptionParser("tool");
  __KyLogToolOptionValues(1);
  __KyLogToolOptionValues(kInvalid);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionLog, AParserWithoutOptionsLogsItsHeadingOnly) {
  const uint32_t p = __KyGetOptionParser("tool");
  __KyLogToolOptionValues(p);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ")));
}

// ---------------------------------------------------------- append values

struct Collected {
  std::vector<std::string> values;
  int nulls = 0;
};

int Collect(const char* value, void* context) {
  auto* collected = static_cast<Collected*>(context);
  if (value == nullptr) {
    ++collected->nulls;
  } else {
    collected->values.push_back(value);
  }
  return 12345;  // ignored
}

class OptionAppendValues : public OptionsTest {
 protected:
  void SetUp() override {
    OptionsTest::SetUp();
    parser_ = __KyGetOptionParser("tool");
    list_ = __KyRegisterStringOption(parser_, "-list", "d", "dflt", 0, 1, 1);
    paths_ = __KyRegisterPathOption(parser_, "-paths", "d", nullptr, 0, 1, 1);
    single_ = __KyRegisterStringOption(parser_, "-single", "d", nullptr, 0, 0, 1);
  }

  uint32_t parser_ = kInvalid;
  uint32_t list_ = kInvalid;
  uint32_t paths_ = kInvalid;
  uint32_t single_ = kInvalid;
};

TEST_F(OptionAppendValues, EveryValueInOrderWithTheContext) {
  ASSERT_EQ(Parse(parser_, Arguments{"-list", "a", "-paths", "x//y", "-list", "b", "-list", "c"}),
            1);
  Collected strings;
  __KyProcessAppendOptionValues(parser_, list_, Collect, &strings);
  EXPECT_EQ(strings.values, (std::vector<std::string>{"a", "b", "c"}));
  Collected paths;
  __KyProcessAppendOptionValues(parser_, paths_, Collect, &paths);
  EXPECT_EQ(paths.values, (std::vector<std::string>{"x/y"}));
  EXPECT_EQ(strings.nulls + paths.nulls, 0);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionAppendValues, AnUnsetOptionCallsNothingEvenWithADefault) {
  Collected collected;
  __KyProcessAppendOptionValues(parser_, list_, Collect, &collected);
  EXPECT_TRUE(collected.values.empty());
  EXPECT_EQ(collected.nulls, 0);
}

struct Growing {
  uint32_t parser;
  uint32_t option;
  std::vector<std::string> seen;
};

int AddWhileIterating(const char* value, void* context) {
  auto* growing = static_cast<Growing*>(context);
  growing->seen.push_back(value);
  if (growing->seen.size() < 3) __KySetStringOption(growing->parser, growing->option, "more");
  return 0;
}

TEST_F(OptionAppendValues, TheCountIsReadAgainAfterEveryCall) {
  __KySetStringOption(parser_, list_, "first");
  Growing growing{parser_, list_, {}};
  __KyProcessAppendOptionValues(parser_, list_, AddWhileIterating, &growing);
  EXPECT_EQ(growing.seen, (std::vector<std::string>{"first", "more", "more"}));
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, list_), 3u);
}

TEST_F(OptionAppendValues, ANullCallbackCallsNothing) {
  __KySetStringOption(parser_, list_, "a");
  __KyProcessAppendOptionValues(parser_, list_, nullptr, nullptr);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionAppendValues, ANonAppendOptionIsADefect) {
  EXPECT_TOOL_DEFECT(__KyProcessAppendOptionValues(parser_, single_, Collect, nullptr),
                     "A iterator can be applied only to string and path append options.");
}

TEST_F(OptionAppendValues, AForeignOptionIsADefect) {
  const uint32_t other = __KyGetOptionParser("other");
  EXPECT_TOOL_DEFECT(__KyProcessAppendOptionValues(other, list_, Collect, nullptr),
                     "A valid option id and parser id must be specified to check if an option is "
                     "sets");
}

TEST_F(OptionAppendValues, TheIdAtTheOptionCountIsADefect) {
  EXPECT_TOOL_DEFECT(__KyProcessAppendOptionValues(parser_, single_ + 1, Collect, nullptr),
                     "A valid option id and parser id must be specified to check if an option is "
                     "sets");
}

// ---------------------------------------------------------------- release

class OptionParserRelease : public OptionsTest {
 protected:
  void SetUp() override {
    OptionsTest::SetUp();
    parser_ = __KyGetOptionParser("tool");
    other_ = __KyGetOptionParser("other");
    list_ = __KyRegisterStringOption(parser_, "-list", "d", "dflt", 7, 1, 1);
    kept_ = __KyRegisterIntegerOption(other_, "-kept", "d", 1, 0, 1);
    mode_ = __KyRegisterStringEnumOption(parser_, "-mode", "d", "a", 9, 1);
    __KySetValidStringOptionArgumentWithEnum(parser_, mode_, "a", 1);
    __KySetValidStringOptionArgumentWithEnum(parser_, mode_, "b", 2);
    EXPECT_EQ(Parse(parser_, Arguments{"-list", "x", "-list", "y", "-list", "z", "-mode", "b"}), 1);
  }

  uint32_t parser_ = kInvalid;
  uint32_t other_ = kInvalid;
  uint32_t list_ = kInvalid;
  uint32_t kept_ = kInvalid;
  uint32_t mode_ = kInvalid;
};

TEST_F(OptionParserRelease, ReleasedOptionsMatchNoCallAgain) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_EQ(__KyGetOptionName(parser_, list_), nullptr);
  EXPECT_EQ(__KyGetOptionName(parser_, mode_), nullptr);
  EXPECT_EQ(__KyGetOptionName(kInvalid, list_), nullptr);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, list_), 0u);
  EXPECT_EQ(__KyGetOptionFlags(parser_, list_), kInvalid);
  EXPECT_EQ(LogText(),
            LogOf(TextRecord(1, "ERROR",
                             "Invalid option parser id or option id used to get option flags")));
}

TEST_F(OptionParserRelease, OtherParsersAreUntouched) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_STREQ(__KyGetOptionName(other_, kept_), "-kept");
  EXPECT_EQ(Parse(other_, Arguments{"-kept", "4"}), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(other_, kept_), 4);
}

TEST_F(OptionParserRelease, IdsAreNotReused) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_EQ(__KyGetOptionParser("new"), 2u);
  EXPECT_EQ(__KyRegisterBooleanOption(other_, "-new", "d", 0, 0, 1), 3u);
}

TEST_F(OptionParserRelease, TheReleasedParserParsesNothingAndHasANamelessHeading) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_EQ(Printed([&] { __KyPrintHelp(parser_, 1); }),
            "\n(null) tool options are the following:\n");
  EXPECT_EQ(Parse(parser_, Arguments{"-list", "x"}), 0);
  EXPECT_EQ(LogText(), LogOf(kyrt_test::OptionErrorRecord(1, "BAD_OPTION", "-list") +
                             TextRecord(2, "INFO",
                                        "Invalid command line option: -list used with tool: "
                                        "(null)")));
}

TEST_F(OptionParserRelease, TheStoredNameMustBeAPrefixOfTheGivenOne) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "too"), 0);
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "Tool"), 0);
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, nullptr), 0);
  EXPECT_STREQ(__KyGetOptionName(parser_, list_), "-list");
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "toolkit"), 1);
  EXPECT_EQ(__KyGetOptionName(parser_, list_), nullptr);
}

TEST_F(OptionParserRelease, AnUnknownOrReleasedParserIsNotReleased) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(2, "tool"), 0);
  EXPECT_EQ(__KyReleaseOptionParserHandle(kInvalid, "tool"), 0);
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 0);
}

TEST_F(OptionParserRelease, TheReleasedParsersOptionsAreNoLongerLogged) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  __KyLogToolOptionValues(parser_);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "(null)'s options are the following: ")));
}

TEST_F(OptionParserRelease, AReleasedOptionIsADefectToRead) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_TOOL_DEFECT(__KyIsOptionSet(parser_, list_),
                     "A valid option id and parser id must be specified to check if an option is "
                     "set");
}

TEST_F(OptionParserRelease, AReleasedOptionIsADefectToSetEvenWithTheReleasedParserId) {
  EXPECT_EQ(__KyReleaseOptionParserHandle(parser_, "tool"), 1);
  EXPECT_TOOL_DEFECT(__KySetStringOption(kInvalid, list_, "x"),
                     "A valid option id and parser id must be specified to get the value of the "
                     "option");
}

}  // namespace
