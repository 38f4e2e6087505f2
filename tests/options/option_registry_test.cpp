// The option registry: parsers, registration, defaults, valid arguments,
// setting and reading values, and the tool defects of each.
#include <cstring>
#include <string>

#include "options/options_test_support.h"

namespace {

using kyrt_test::LogExists;
using kyrt_test::LogOf;
using kyrt_test::LogText;
using kyrt_test::OptionsTest;
using kyrt_test::TextRecord;

constexpr uint32_t kInvalid = KY_OPTION_INVALID_ID;

const char* const kValueAccessDefect =
    "A valid option id and parser id must be specified to get the value of the option";
const char* const kRegistrationDefect =
    "A valid option name, description and parser handle must be specified to register an option "
    "with KYRT";
const char* const kValidArgumentDefect =
    "A valid option id and parser id must be specified to register an option argument for an "
    "option in KYRT";

// ---------------------------------------------------------------- parsers

using OptionParsers = OptionsTest;

TEST_F(OptionParsers, IdsAreHandedOutInOrderFromZero) {
  EXPECT_EQ(__KyGetOptionParser("first"), 0u);
  EXPECT_EQ(__KyGetOptionParser("second"), 1u);
  EXPECT_EQ(__KyGetOptionParser("third"), 2u);
}

TEST_F(OptionParsers, ANullNameIsRefusedWithoutTakingAnId) {
  EXPECT_EQ(__KyGetOptionParser(nullptr), kInvalid);
  EXPECT_EQ(__KyGetOptionParser("tool"), 0u);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionParsers, EveryCallMakesANewParserEvenForAKnownName) {
  const uint32_t first = __KyGetOptionParser("tool");
  const uint32_t second = __KyGetOptionParser("tool");
  EXPECT_EQ(first, 0u);
  EXPECT_EQ(second, 1u);
  // Each has its own options.
  const uint32_t option = __KyRegisterIntegerOption(second, "-n", "count", 1, 0, 1);
  EXPECT_EQ(__KyGetOptionName(second, option), std::string("-n"));
  EXPECT_EQ(__KyGetOptionName(first, option), nullptr);
}

TEST_F(OptionParsers, TheNameIsAPrivateCopy) {
  char name[] = "tool";
  const uint32_t parser = __KyGetOptionParser(name);
  std::strcpy(name, "gone");
  testing::internal::CaptureStdout();
  __KyPrintHelp(parser, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\ntool tool options are the following:\n");
}

TEST_F(OptionParsers, TheSeventeenthParserIsRefusedAndTheCountStaysAtSixteen) {
  for (uint32_t i = 0; i < KY_OPTION_MAX_PARSERS; ++i) {
    EXPECT_EQ(__KyGetOptionParser(("p" + std::to_string(i)).c_str()), i);
  }
  EXPECT_EQ(__KyGetOptionParser("p16"), kInvalid);
  EXPECT_EQ(__KyGetOptionParser("p17"), kInvalid);
  EXPECT_FALSE(LogExists());
  // Sixteen parsers, not more: one heading each.
  testing::internal::CaptureStdout();
  __KyPrintHelpAll(1);
  std::string expected;
  for (int i = 0; i < 16; ++i)
    expected += "\np" + std::to_string(i) + " tool options are the following:\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
  // The last parser works.
  EXPECT_EQ(__KyRegisterBooleanOption(15, "-b", "b", 0, 0, 1), 0u);
}

// ---------------------------------------------------------- registration

using OptionRegistration = OptionsTest;

TEST_F(OptionRegistration, IdsAreDenseInOrderOfRegistrationWhateverTheParser) {
  const uint32_t a = __KyGetOptionParser("a");
  const uint32_t b = __KyGetOptionParser("b");
  EXPECT_EQ(__KyRegisterBooleanOption(a, "-x", "x", 0, 0, 1), 0u);
  EXPECT_EQ(__KyRegisterIntegerOption(b, "-y", "y", 0, 0, 1), 1u);
  EXPECT_EQ(__KyRegisterStringOption(a, "-z", "z", nullptr, 0, 0, 1), 2u);
  EXPECT_EQ(__KyRegisterStringEnumOption(b, "-e", "e", nullptr, 0, 1), 3u);
  EXPECT_EQ(__KyRegisterPathOption(a, "-p", "p", nullptr, 0, 0, 1), 4u);
}

TEST_F(OptionRegistration, BooleanDefaultsAreStoredAsZeroOrOne) {
  const uint32_t p = __KyGetOptionParser("t");
  const uint32_t on = __KyRegisterBooleanOption(p, "-on", "on", 7, 0, 1);
  const uint32_t negative = __KyRegisterBooleanOption(p, "-neg", "neg", -1, 0, 1);
  const uint32_t off = __KyRegisterBooleanOption(p, "-off", "off", 0, 0, 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(p, on), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(p, negative), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(p, off), 0);
}

TEST_F(OptionRegistration, DefaultsAreTheValuesOfUnsetOptions) {
  const uint32_t p = __KyGetOptionParser("t");
  const uint32_t count = __KyRegisterIntegerOption(p, "-count", "n", -3, 0, 1);
  const uint32_t text = __KyRegisterStringOption(p, "-text", "t", "hello", 0, 0, 1);
  const uint32_t none = __KyRegisterStringOption(p, "-none", "t", nullptr, 0, 0, 1);
  const uint32_t mode = __KyRegisterStringEnumOption(p, "-mode", "m", "fast", 0, 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(p, count), -3);
  EXPECT_STREQ(__KyGetStringOptionValue(p, text), "hello");
  EXPECT_EQ(__KyGetStringOptionValue(p, none), nullptr);
  EXPECT_STREQ(__KyGetStringOptionValue(p, mode), "fast");
  for (uint32_t option : {count, text, none, mode}) {
    EXPECT_EQ(__KyIsOptionSet(p, option), 0);
    EXPECT_EQ(__KyGetOptionNumberOfArguments(p, option), 0u);
  }
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionRegistration, PathDefaultsAreSanitised) {
  const uint32_t p = __KyGetOptionParser("t");
  const uint32_t path = __KyRegisterPathOption(p, "-out", "o", "//a//b///c/", 0, 0, 1);
  EXPECT_STREQ(__KyGetPathOptionValue(p, path), "/a/b/c/");
}

TEST_F(OptionRegistration, NamesDescriptionsAndDefaultsAreCopied) {
  char name[] = "-name";
  char description[] = "about";
  char value[] = "value";
  const uint32_t p = __KyGetOptionParser("t");
  const uint32_t option = __KyRegisterStringOption(p, name, description, value, 0, 0, 1);
  std::strcpy(name, "-XXXX");
  std::strcpy(description, "XXXXX");
  std::strcpy(value, "XXXXX");
  EXPECT_STREQ(__KyGetOptionName(p, option), "-name");
  EXPECT_STREQ(__KyGetStringOptionValue(p, option), "value");
  testing::internal::CaptureStdout();
  __KyPrintHelp(p, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nt tool options are the following:\n"
            "   -name                              about default: value\n");
}

TEST_F(OptionRegistration, FlagsAreKeptUninterpreted) {
  const uint32_t p = __KyGetOptionParser("t");
  const uint32_t a = __KyRegisterBooleanOption(p, "-a", "a", 0, 0xDEADBEEF, 1);
  const uint32_t b = __KyRegisterPathOption(p, "-b", "b", nullptr, 0, 1, 0);
  EXPECT_EQ(__KyGetOptionFlags(p, a), 0xDEADBEEFu);
  EXPECT_EQ(__KyGetOptionFlags(p, b), 0u);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionRegistration, TheAppendFlagCountsForStringAndPathOptionsOnly) {
  const uint32_t p = __KyGetOptionParser("t");
  const uint32_t strings = __KyRegisterStringOption(p, "-s", "s", nullptr, 0, 5, 1);
  const uint32_t paths = __KyRegisterPathOption(p, "-p", "p", nullptr, 0, 1, 1);
  const uint32_t single = __KyRegisterStringOption(p, "-one", "s", nullptr, 0, 0, 1);
  __KySetStringOption(p, strings, "a");
  __KySetStringOption(p, strings, "b");
  __KySetPathOption(p, paths, "a");
  __KySetPathOption(p, paths, "b");
  __KySetStringOption(p, single, "a");
  __KySetStringOption(p, single, "b");
  EXPECT_EQ(__KyGetOptionNumberOfArguments(p, strings), 2u);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(p, paths), 2u);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(p, single), 1u);
}

TEST_F(OptionRegistration, The257thOptionIsRefusedSilently) {
  const uint32_t a = __KyGetOptionParser("a");
  const uint32_t b = __KyGetOptionParser("b");
  for (uint32_t i = 0; i < KY_OPTION_MAX_OPTIONS; ++i) {
    const std::string name = "-o" + std::to_string(i);
    ASSERT_EQ(
        __KyRegisterIntegerOption(i % 2 ? b : a, name.c_str(), "d", static_cast<int32_t>(i), 0, 1),
        i);
  }
  EXPECT_EQ(__KyRegisterBooleanOption(a, "-late", "d", 0, 0, 1), kInvalid);
  EXPECT_EQ(__KyRegisterStringOption(b, "-later", "d", nullptr, 0, 0, 1), kInvalid);
  EXPECT_FALSE(LogExists());
  // The table still holds all 256, the last one included.
  EXPECT_EQ(__KyGetIntegerOptionValue(b, 255), 255);
  EXPECT_STREQ(__KyGetOptionName(b, 255), "-o255");
  // A full table still refuses a name without a dash silently: the id is
  // refused before the name is looked at.
  EXPECT_EQ(__KyRegisterBooleanOption(a, "nodash", "d", 0, 0, 1), kInvalid);
}

TEST_F(OptionRegistration, ANullNameIsADefect) {
  const uint32_t p = __KyGetOptionParser("t");
  EXPECT_TOOL_DEFECT(__KyRegisterBooleanOption(p, nullptr, "d", 0, 0, 1), kRegistrationDefect);
}

TEST_F(OptionRegistration, ANullDescriptionIsADefect) {
  const uint32_t p = __KyGetOptionParser("t");
  EXPECT_TOOL_DEFECT(__KyRegisterStringOption(p, "-s", nullptr, nullptr, 0, 0, 1),
                     kRegistrationDefect);
}

TEST_F(OptionRegistration, AParserIdEqualToTheParserCountIsADefect) {
  __KyGetOptionParser("t");
  EXPECT_TOOL_DEFECT(__KyRegisterIntegerOption(1, "-n", "d", 0, 0, 1), kRegistrationDefect);
}

TEST_F(OptionRegistration, ANameNotStartingWithADashIsADefect) {
  const uint32_t p = __KyGetOptionParser("t");
  EXPECT_TOOL_DEFECT(__KyRegisterPathOption(p, "out", "d", nullptr, 0, 0, 1),
                     "A valid option name starting with '-' must be specified to register the "
                     "option with KYRT");
}

// -------------------------------------------------------- valid arguments

class OptionValidArguments : public OptionsTest {
 protected:
  void SetUp() override {
    OptionsTest::SetUp();
    parser_ = __KyGetOptionParser("t");
    mode_ = __KyRegisterStringOption(parser_, "-mode", "m", nullptr, 0, 0, 1);
    EXPECT_EQ(__KySetValidStringOptionArgument(parser_, mode_, "alpha"), 1);
    EXPECT_EQ(__KySetValidStringOptionArgument(parser_, mode_, "beta"), 1);
  }

  uint32_t parser_ = kInvalid;
  uint32_t mode_ = kInvalid;
};

TEST_F(OptionValidArguments, AnAbbreviationIsAcceptedAndStoredAsGiven) {
  EXPECT_EQ(__KySetStringOption(parser_, mode_, "al"), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, mode_), "al");
  EXPECT_EQ(__KySetStringOption(parser_, mode_, "beta"), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, mode_), "beta");
}

TEST_F(OptionValidArguments, TheEmptyStringMatches) {
  EXPECT_EQ(__KySetStringOption(parser_, mode_, ""), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, mode_), "");
}

TEST_F(OptionValidArguments, AValueOutsideTheListIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, mode_, "gamma"),
                     "Invalid argument [gamma, -1] used to set Option -mode");
}

TEST_F(OptionValidArguments, AValueLongerThanEveryEntryIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, mode_, "alphabet"),
                     "Invalid argument [alphabet, -1] used to set Option -mode");
}

TEST_F(OptionValidArguments, TheComparisonIsCaseSensitive) {
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, mode_, "Al"),
                     "Invalid argument [Al, -1] used to set Option -mode");
}

TEST_F(OptionValidArguments, ANullStringWithAListIsShownAsTwoQuotes) {
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, mode_, nullptr),
                     "Invalid argument [\"\", -1] used to set Option -mode");
}

TEST_F(OptionValidArguments, IntegerListsAcceptTheirMembersOnly) {
  const uint32_t level = __KyRegisterIntegerOption(parser_, "-level", "l", 0, 0, 1);
  EXPECT_EQ(__KySetValidIntegerOptionArgument(parser_, level, 3), 1);
  EXPECT_EQ(__KySetValidIntegerOptionArgument(parser_, level, -5), 1);
  EXPECT_EQ(__KySetIntegerOption(parser_, level, -5), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, level), -5);
  EXPECT_EQ(__KySetIntegerOption(parser_, level, 3), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, level), 3);
  EXPECT_TOOL_DEFECT(__KySetIntegerOption(parser_, level, -4),
                     "Invalid argument [\"\", -4] used to set Option -level");
}

TEST_F(OptionValidArguments, TheDefaultIsNotCheckedAgainstTheList) {
  const uint32_t level = __KyRegisterIntegerOption(parser_, "-level", "l", 9, 0, 1);
  __KySetValidIntegerOptionArgument(parser_, level, 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, level), 9);
}

TEST_F(OptionValidArguments, AnEnumerationValueComesFromTheMatchingEntry) {
  const uint32_t e = __KyRegisterStringEnumOption(parser_, "-e", "e", "beta", 0, 1);
  EXPECT_EQ(__KySetValidStringOptionArgumentWithEnum(parser_, e, "alpha", 10), 1);
  EXPECT_EQ(__KySetValidStringOptionArgumentWithEnum(parser_, e, "beta", 20), 1);
  // Unset: the default's value.
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, e), 20u);
  EXPECT_EQ(__KySetStringOption(parser_, e, "al"), 1);
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, e), 10u);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, e), "al");
}

TEST_F(OptionValidArguments, TheFirstMatchingEntryInListOrderGivesTheValue) {
  const uint32_t e = __KyRegisterStringEnumOption(parser_, "-e", "e", nullptr, 0, 1);
  __KySetValidStringOptionArgumentWithEnum(parser_, e, "alps", 1);
  __KySetValidStringOptionArgumentWithEnum(parser_, e, "alpha", 2);
  __KySetStringOption(parser_, e, "alp");
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, e), 1u);
  __KySetStringOption(parser_, e, "alph");
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, e), 2u);
  __KySetStringOption(parser_, e, "");
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, e), 1u);
}

TEST_F(OptionValidArguments, WithoutAValueOrAMatchTheEnumerationValueIsInvalid) {
  const uint32_t none = __KyRegisterStringEnumOption(parser_, "-none", "e", nullptr, 0, 1);
  const uint32_t other = __KyRegisterStringEnumOption(parser_, "-other", "e", "zeta", 0, 1);
  const uint32_t bare = __KyRegisterStringEnumOption(parser_, "-bare", "e", "x", 0, 1);
  __KySetValidStringOptionArgumentWithEnum(parser_, none, "alpha", 1);
  __KySetValidStringOptionArgumentWithEnum(parser_, other, "alpha", 1);
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, none), kInvalid);
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, other), kInvalid);
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, bare), kInvalid);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionValidArguments, AStringEntryWithoutEnumerationValueMapsToInvalid) {
  const uint32_t e = __KyRegisterStringEnumOption(parser_, "-e", "e", "alpha", 0, 1);
  __KySetValidStringOptionArgument(parser_, e, "alpha");
  EXPECT_EQ(__KyGetStringOptionEnumValue(parser_, e), kInvalid);
}

TEST_F(OptionValidArguments, AnEntryIsACopy) {
  char entry[] = "gamma";
  __KySetValidStringOptionArgument(parser_, mode_, entry);
  std::strcpy(entry, "delta");
  EXPECT_EQ(__KySetStringOption(parser_, mode_, "gam"), 1);
}

TEST_F(OptionValidArguments, AppendOptionsAreRefused) {
  const uint32_t list = __KyRegisterStringOption(parser_, "-list", "l", nullptr, 0, 1, 1);
  EXPECT_TOOL_DEFECT(__KySetValidStringOptionArgument(parser_, list, "a"),
                     "Registering valid arguments for append options is not currenctly supported");
}

TEST_F(OptionValidArguments, BooleansAreRefused) {
  const uint32_t flag = __KyRegisterBooleanOption(parser_, "-flag", "f", 0, 0, 1);
  EXPECT_TOOL_DEFECT(__KySetValidIntegerOptionArgument(parser_, flag, 1),
                     "Only string and integer option types can register valid arguments");
}

TEST_F(OptionValidArguments, PathsAreRefused) {
  const uint32_t path = __KyRegisterPathOption(parser_, "-path", "p", nullptr, 0, 0, 1);
  EXPECT_TOOL_DEFECT(__KySetValidStringOptionArgumentWithEnum(parser_, path, "a", 1),
                     "Only string and integer option types can register valid arguments");
}

TEST_F(OptionValidArguments, AnOptionOfAnotherParserIsRefused) {
  const uint32_t other = __KyGetOptionParser("other");
  EXPECT_TOOL_DEFECT(__KySetValidStringOptionArgument(other, mode_, "a"), kValidArgumentDefect);
}

TEST_F(OptionValidArguments, AnIdEqualToTheOptionCountIsRefused) {
  EXPECT_TOOL_DEFECT(__KySetValidIntegerOptionArgument(parser_, mode_ + 1, 1),
                     kValidArgumentDefect);
}

// ----------------------------------------------------------------- values

class OptionValues : public OptionsTest {
 protected:
  void SetUp() override {
    OptionsTest::SetUp();
    parser_ = __KyGetOptionParser("t");
    flag_ = __KyRegisterBooleanOption(parser_, "-flag", "f", 0, 0, 1);
    count_ = __KyRegisterIntegerOption(parser_, "-count", "c", 5, 0, 1);
    text_ = __KyRegisterStringOption(parser_, "-text", "t", "dflt", 0, 0, 1);
    list_ = __KyRegisterStringOption(parser_, "-list", "l", "first", 0, 1, 1);
    path_ = __KyRegisterPathOption(parser_, "-path", "p", nullptr, 0, 1, 1);
  }

  uint32_t parser_ = kInvalid;
  uint32_t flag_ = kInvalid;
  uint32_t count_ = kInvalid;
  uint32_t text_ = kInvalid;
  uint32_t list_ = kInvalid;
  uint32_t path_ = kInvalid;
};

TEST_F(OptionValues, BooleansAndIntegersAreSet) {
  EXPECT_EQ(__KySetBooleanOption(parser_, flag_, 1), 1);
  EXPECT_EQ(__KySetIntegerOption(parser_, count_, -42), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, flag_), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), -42);
  EXPECT_EQ(__KyIsOptionSet(parser_, flag_), 1);
  EXPECT_EQ(__KyIsOptionSet(parser_, count_), 1);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, count_), 1u);
}

TEST_F(OptionValues, ABooleanSetterStoresTheValueAsGiven) {
  EXPECT_EQ(__KySetBooleanOption(parser_, flag_, 5), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, flag_), 5);
}

TEST_F(OptionValues, SettingTheDefaultValueStillMarksTheOptionSet) {
  EXPECT_EQ(__KySetIntegerOption(parser_, count_, 5), 1);
  EXPECT_EQ(__KyIsOptionSet(parser_, count_), 1);
}

TEST_F(OptionValues, ANonAppendStringSetTwiceKeepsOnlyTheSecondValue) {
  EXPECT_EQ(__KySetStringOption(parser_, text_, "one"), 1);
  EXPECT_EQ(__KySetStringOption(parser_, text_, "two"), 1);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, text_), 1u);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, text_), "two");
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, text_, 1), "two");
  EXPECT_EQ(__KyIsOptionSet(parser_, text_), 1);
}

TEST_F(OptionValues, TheStoredStringIsACopy) {
  char value[] = "mine";
  __KySetStringOption(parser_, text_, value);
  std::strcpy(value, "gone");
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, text_), "mine");
}

TEST_F(OptionValues, AnAppendOptionSetThreeTimesHasThreeArguments) {
  EXPECT_EQ(__KySetStringOption(parser_, list_, "a"), 1);
  EXPECT_EQ(__KySetStringOption(parser_, list_, "b"), 1);
  EXPECT_EQ(__KySetStringOption(parser_, list_, "c"), 1);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, list_), 3u);
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 1), "a");
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 2), "b");
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 3), "c");
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, list_), "a");
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionValues, AnArgumentBeyondTheValuesOfASetOptionIsLoggedAndNull) {
  __KySetStringOption(parser_, list_, "a");
  __KySetStringOption(parser_, list_, "b");
  EXPECT_EQ(__KyGetStringOptionArgumentValue(parser_, list_, 3), nullptr);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "ERROR", "Option -list does not have an argument #3")));
}

TEST_F(OptionValues, ArgumentZeroIsLoggedAndNull) {
  EXPECT_EQ(__KyGetStringOptionArgumentValue(parser_, text_, 0), nullptr);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "ERROR", "Option -text does not have an argument #0")));
}

TEST_F(OptionValues, AnArgumentNumberIsShownSigned) {
  EXPECT_EQ(__KyGetPathOptionArgumentValue(parser_, path_, 0xFFFFFFFFu), nullptr);
  __KySetPathOption(parser_, path_, "x");
  EXPECT_EQ(__KyGetPathOptionArgumentValue(parser_, path_, 0xFFFFFFFFu), nullptr);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "ERROR", "Option -path does not have an argument #-1")));
}

TEST_F(OptionValues, AnUnsetOptionHasItsDefaultAsArgumentOneAndNothingBehind) {
  EXPECT_STREQ(__KyGetStringOptionArgumentValue(parser_, list_, 1), "first");
  EXPECT_EQ(__KyGetStringOptionArgumentValue(parser_, list_, 2), nullptr);
  EXPECT_EQ(__KyGetStringOptionArgumentValue(parser_, list_, 100), nullptr);
  EXPECT_EQ(__KyGetPathOptionValue(parser_, path_), nullptr);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionValues, SettingAnAppendOptionReplacesItsDefault) {
  __KySetStringOption(parser_, list_, "x");
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, list_), 1u);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, list_), "x");
}

TEST_F(OptionValues, PathsAreSanitisedWhenSet) {
  EXPECT_EQ(__KySetPathOption(parser_, path_, "//tmp//x///y"), 1);
  EXPECT_EQ(__KySetPathOption(parser_, path_, "a//"), 1);
  EXPECT_STREQ(__KyGetPathOptionValue(parser_, path_), "/tmp/x/y");
  EXPECT_STREQ(__KyGetPathOptionArgumentValue(parser_, path_, 2), "a/");
}

TEST_F(OptionValues, TheStringSetterServesEnumerationOptions) {
  const uint32_t e = __KyRegisterStringEnumOption(parser_, "-e", "e", "x", 0, 1);
  EXPECT_EQ(__KySetStringOption(parser_, e, "y"), 1);
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, e), "y");
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, e), 1u);
}

TEST_F(OptionValues, TheStringSetterServesPathOptionsAsPaths) {
  EXPECT_EQ(__KySetStringOption(parser_, path_, "a//b"), 1);
  EXPECT_STREQ(__KyGetPathOptionValue(parser_, path_), "a/b");
  EXPECT_STREQ(__KyGetStringOptionValue(parser_, path_), "a/b");
}

TEST_F(OptionValues, FlagsOfAForeignOptionAreLoggedAndInvalid) {
  const uint32_t other = __KyGetOptionParser("o");
  EXPECT_EQ(__KyGetOptionFlags(other, flag_), kInvalid);
  EXPECT_EQ(__KyGetOptionFlags(parser_, path_ + 1), kInvalid);
  EXPECT_EQ(LogText(),
            LogOf(TextRecord(1, "ERROR",
                             "Invalid option parser id or option id used to get option flags") +
                  TextRecord(2, "ERROR",
                             "Invalid option parser id or option id used to get option flags")));
}

TEST_F(OptionValues, TheNameOfABadIdIsNull) {
  EXPECT_STREQ(__KyGetOptionName(parser_, count_), "-count");
  EXPECT_EQ(__KyGetOptionName(parser_, path_ + 1), nullptr);
  EXPECT_EQ(__KyGetOptionName(parser_ + 1, count_), nullptr);
  EXPECT_EQ(__KyGetOptionName(kInvalid, count_), nullptr);
  EXPECT_FALSE(LogExists());
}

TEST_F(OptionValues, TheNumberOfArgumentsIgnoresTheParser) {
  __KySetStringOption(parser_, list_, "a");
  __KySetStringOption(parser_, list_, "b");
  EXPECT_EQ(__KyGetOptionNumberOfArguments(12345, list_), 2u);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, path_ + 1), 0u);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, KY_OPTION_MAX_OPTIONS), 0u);
  EXPECT_EQ(__KyGetOptionNumberOfArguments(parser_, kInvalid), 0u);
}

TEST_F(OptionValues, SettingWithTheWrongTypeIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetIntegerOption(parser_, flag_, 1), kValueAccessDefect);
}

TEST_F(OptionValues, SettingAPathAsABooleanIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetBooleanOption(parser_, path_, 1), kValueAccessDefect);
}

TEST_F(OptionValues, SettingAStringWithThePathSetterIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetPathOption(parser_, text_, "x"), kValueAccessDefect);
}

TEST_F(OptionValues, SettingAnOptionOfAnotherParserIsADefect) {
  const uint32_t other = __KyGetOptionParser("o");
  EXPECT_TOOL_DEFECT(__KySetBooleanOption(other, flag_, 1), kValueAccessDefect);
}

TEST_F(OptionValues, TheSetterBoundAdmitsTheOptionCountButTheSlotIsRefused) {
  EXPECT_TOOL_DEFECT(__KySetBooleanOption(parser_, path_ + 1, 1), kValueAccessDefect);
}

TEST_F(OptionValues, AnIdBeyondTheTableIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, KY_OPTION_MAX_OPTIONS, "x"), kValueAccessDefect);
}

TEST_F(OptionValues, ANullStringIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, text_, nullptr),
                     "Null string used to set string option");
}

TEST_F(OptionValues, ANullPathIsADefect) {
  EXPECT_TOOL_DEFECT(__KySetPathOption(parser_, path_, nullptr),
                     "Null string used to set string option");
}

TEST_F(OptionValues, ReadingABooleanAsAnIntegerIsADefect) {
  EXPECT_TOOL_DEFECT(__KyGetIntegerOptionValue(parser_, flag_), kValueAccessDefect);
}

TEST_F(OptionValues, ReadingAnIntegerAsABooleanIsADefect) {
  EXPECT_TOOL_DEFECT(__KyGetBooleanOptionValue(parser_, count_), kValueAccessDefect);
}

TEST_F(OptionValues, TheGetterBoundAdmitsTheOptionCountButTheSlotIsRefused) {
  EXPECT_TOOL_DEFECT(__KyGetBooleanOptionValue(parser_, path_ + 1), kValueAccessDefect);
}

TEST_F(OptionValues, TheArgumentGetterBoundAdmitsTheOptionCountButTheSlotIsRefused) {
  EXPECT_TOOL_DEFECT(__KyGetPathOptionArgumentValue(parser_, path_ + 1, 1), kValueAccessDefect);
}

TEST_F(OptionValues, TheStringSetterGivesABooleanOrIntegerTheStringMarker) {
  EXPECT_EQ(__KySetStringOption(parser_, count_, "7"), 1);
  EXPECT_EQ(__KyGetIntegerOptionValue(parser_, count_), -1);
  EXPECT_EQ(__KyGetStringOptionValue(parser_, count_), nullptr);
  EXPECT_EQ(__KySetStringOption(parser_, flag_, nullptr), 1);
  EXPECT_EQ(__KyGetBooleanOptionValue(parser_, flag_), -1);
}

TEST_F(OptionValues, ReadingAForeignIntegerIsADefect) {
  const uint32_t other = __KyGetOptionParser("o");
  EXPECT_TOOL_DEFECT(__KyGetIntegerOptionValue(other, count_), kValueAccessDefect);
}

TEST_F(OptionValues, ReadingAPathAsAStringArgumentIsADefect) {
  EXPECT_TOOL_DEFECT(__KyGetStringOptionArgumentValue(parser_, path_, 1), kValueAccessDefect);
}

TEST_F(OptionValues, ReadingAStringAsAPathIsADefect) {
  EXPECT_TOOL_DEFECT(__KyGetPathOptionValue(parser_, text_), kValueAccessDefect);
}

TEST_F(OptionValues, ReadingAForeignStringIsADefect) {
  const uint32_t other = __KyGetOptionParser("o");
  EXPECT_TOOL_DEFECT(__KyGetStringOptionValue(other, text_), kValueAccessDefect);
}

TEST_F(OptionValues, TheEnumerationValueOfAPlainStringIsADefect) {
  EXPECT_TOOL_DEFECT(__KyGetStringOptionEnumValue(parser_, text_), kValueAccessDefect);
}

TEST_F(OptionValues, AskingWhetherAForeignOptionIsSetIsADefect) {
  const uint32_t other = __KyGetOptionParser("o");
  EXPECT_TOOL_DEFECT(__KyIsOptionSet(other, flag_),
                     "A valid option id and parser id must be specified to check if an option is "
                     "set");
}

TEST_F(OptionValues, AskingWhetherTheOptionAtTheCountIsSetIsADefect) {
  EXPECT_TOOL_DEFECT(__KyIsOptionSet(parser_, path_ + 1),
                     "A valid option id and parser id must be specified to check if an option is "
                     "set");
}

}  // namespace
