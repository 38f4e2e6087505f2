// The registry's records as the family keeps them, the states that no call
// of the interface can produce (a record of an unknown type, a record
// without a current node), and the internal reset that the fuzz target
// relies on to run every input against fresh tables.
#include "options/options_internal.h"
#include "options/options_test_support.h"

namespace {

using kyrt_test::Arguments;
using kyrt_test::LogOf;
using kyrt_test::LogText;
using kyrt_test::OptionsTest;
using kyrt_test::Parse;
using kyrt_test::TextRecord;

using OptionRegistryReset = OptionsTest;

TEST_F(OptionRegistryReset, TheTablesStartAgainFromZero) {
  for (int round = 0; round < 3; ++round) {
    for (uint32_t i = 0; i < KY_OPTION_MAX_PARSERS; ++i) {
      ASSERT_EQ(__KyGetOptionParser("tool"), i);
    }
    for (uint32_t i = 0; i < KY_OPTION_MAX_OPTIONS; ++i) {
      ASSERT_EQ(__KyRegisterStringOption(i % KY_OPTION_MAX_PARSERS, "-list", "d", "x", 0, 1, 1), i);
    }
    ASSERT_EQ(Parse(3, Arguments{"-list", "a", "-list", "b"}), 1);
    EXPECT_EQ(__KyGetOptionNumberOfArguments(3, 3), 2u);
    EXPECT_EQ(__KyReleaseOptionParserHandle(1, "tool"), 1);
    kyrt::ResetOptionRegistry();
    EXPECT_EQ(kyrt::ParserCount(), 0u);
    EXPECT_EQ(kyrt::OptionCount(), 0u);
    EXPECT_EQ(__KyGetOptionName(3, 3), nullptr);
    EXPECT_EQ(__KyGetOptionNumberOfArguments(3, 3), 0u);
  }
}

TEST_F(OptionRegistryReset, FreeSlotsBelongToNoParser) {
  const kyrt::OptionRecord& slot = *kyrt::OptionSlot(0);
  EXPECT_EQ(slot.parserId, kyrt::kNoParser);
  EXPECT_EQ(slot.current, nullptr);
  EXPECT_EQ(kyrt::OptionSlot(KY_OPTION_MAX_OPTIONS), nullptr);
  EXPECT_FALSE(kyrt::IsOwnedBy(slot, kyrt::kNoParser));
}

TEST_F(OptionRegistryReset, ARegisteredRecordStartsOnItsDefaultNode) {
  const uint32_t p = __KyGetOptionParser("tool");
  const uint32_t o = __KyRegisterPathOption(p, "-p", "d", "a//b", 0xF, 1, 0);
  const kyrt::OptionRecord& record = *kyrt::OptionSlot(o);
  EXPECT_EQ(record.type, KY_OPTION_TYPE_PATH);
  EXPECT_EQ(record.append, 1u);
  EXPECT_EQ(record.defaultNode.value, kyrt::kStringNodeValue);
  EXPECT_STREQ(record.defaultNode.string, "a/b");
  EXPECT_EQ(record.current, &record.defaultNode);
  EXPECT_EQ(record.lastNode, nullptr);
  EXPECT_EQ(record.argumentCount, 0u);
  EXPECT_EQ(record.flags, 0xFu);
  EXPECT_EQ(record.listedInHelp, 0u);
  EXPECT_EQ(record.validArguments, nullptr);
  __KySetPathOption(p, o, "c");
  __KySetPathOption(p, o, "d");
  EXPECT_EQ(record.current, &record.setNode);
  EXPECT_EQ(record.lastNode, record.setNode.next);
  EXPECT_STREQ(record.lastNode->string, "d");
  EXPECT_EQ(record.lastNode->next, nullptr);
}

// A registered option whose record has been damaged into a state that the
// interface never produces.
class OptionDamagedRecord : public OptionsTest {
 protected:
  void SetUp() override {
    OptionsTest::SetUp();
    parser_ = __KyGetOptionParser("tool");
    option_ = __KyRegisterStringOption(parser_, "-odd", "odd one", "x", 0, 0, 1);
    record_ = kyrt::OptionSlot(option_);
  }

  uint32_t parser_ = KY_OPTION_INVALID_ID;
  uint32_t option_ = KY_OPTION_INVALID_ID;
  kyrt::OptionRecord* record_ = nullptr;
};

constexpr uint32_t kUnknownType = 9;

TEST_F(OptionDamagedRecord, HelpLogsAnUnknownTypeAfterTheLineItBegan) {
  record_->type = kUnknownType;
  testing::internal::CaptureStdout();
  __KyPrintHelp(parser_, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\ntool tool options are the following:\n"
            "   -odd                               odd one default: ");
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "ERROR", "UNKNOWN OPTION TYPE -odd")));
}

TEST_F(OptionDamagedRecord, TheOptionLogReportsAnUnknownType) {
  record_->type = kUnknownType;
  __KyLogToolOptionValues(parser_);
  EXPECT_EQ(LogText(), LogOf(TextRecord(1, "INFO", "tool's options are the following: ") +
                             TextRecord(2, "ERROR", "UNKNOWN OPTION TYPE for option -odd")));
}

TEST_F(OptionDamagedRecord, ParsingAValueOfAnUnknownTypeFailsSilently) {
  record_->type = kUnknownType;
  EXPECT_EQ(Parse(parser_, Arguments{"-odd", "v"}), 0);
  EXPECT_FALSE(kyrt_test::LogExists());
}

TEST_F(OptionDamagedRecord, SettingAnUnknownTypeIsADefect) {
  record_->type = kUnknownType;
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, option_, "v"), "Invalid option type");
}

TEST_F(OptionDamagedRecord, SettingARecordWithoutCurrentNodeIsADefect) {
  record_->current = nullptr;
  EXPECT_TOOL_DEFECT(__KySetStringOption(parser_, option_, "v"),
                     "Option -odd is not a valid option");
}

TEST_F(OptionDamagedRecord, ReadingARecordWithoutCurrentNodeIsADefect) {
  const uint32_t count = __KyRegisterIntegerOption(parser_, "-count", "n", 1, 0, 1);
  kyrt::OptionSlot(count)->current = nullptr;
  EXPECT_TOOL_DEFECT(__KyGetIntegerOptionValue(parser_, count),
                     "Option -count is not initialized correctly");
}

}  // namespace
