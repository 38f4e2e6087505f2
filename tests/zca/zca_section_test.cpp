// The section walk: tables of versions 1.1 and 1.2, padding, the flags, the
// next-table rule, the header checks, and the bounds kept for damaged
// sections. Sections are built byte by byte (zca_section_builder.h).
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/zca.h"
#include "support/log_text.h"
#include "sync/lock_test_support.h"
#include "zca/zca_log_expectations.h"
#include "zca/zca_section_builder.h"

namespace {

using kyrt_test::LogText;
using zca_test::AppendTable;
using zca_test::Collector;
using zca_test::Entry;
using zca_test::InfoLog;
using zca_test::SectionBytes;
using zca_test::TableLayout;
using zca_test::TableOrder;

using ZcaSection = kyrt_test::RuntimeTest;

constexpr uint64_t kBase = 0x7F0000000000;

// Expressions used throughout.
const std::vector<uint8_t> kLit3{0x01, 0x33};
const std::vector<uint8_t> kReg5{0x01, 0x55};
const std::vector<uint8_t> kBreg7Minus4{0x03, 0x77, 0x7C, 0x00};

bool LogExists() {
  return access("kylog.log", F_OK) == 0;
}

void ExpectArgument(const KyZCAArgument& argument, uint64_t value, uint32_t isRegister,
                    int32_t offset) {
  EXPECT_EQ(argument.value, value);
  EXPECT_EQ(argument.isRegister, isRegister);
  EXPECT_EQ(argument.offset, offset);
}

void ExpectZeroArgument(const KyZCAArgument& argument) {
  ExpectArgument(argument, 0, 0, 0);
}

// ---------------------------------------------------------------------------
// Empty sections and padding

TEST_F(ZcaSection, ASectionOfZeroBytesDeliversNothingAndLogsNothing) {
  Collector collector;
  const uint8_t byte = 0x2E;
  collector.parse(kBase, &byte, 0);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_FALSE(LogExists());
}

TEST_F(ZcaSection, ANullSectionDeliversNothingAndLogsNothing) {
  Collector collector;
  __KyZCAParseAndProcessRecords(kBase, nullptr, 100, Collector::Collect, &collector);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_FALSE(LogExists());
}

TEST_F(ZcaSection, ASectionEndingPastTheAddressSpaceIsIgnored) {
  Collector collector;
  const uint8_t bytes[4] = {1, 2, 3, 4};
  __KyZCAParseAndProcessRecords(kBase, bytes, UINT64_MAX, Collector::Collect, &collector);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_FALSE(LogExists());
}

TEST_F(ZcaSection, ASectionOfOnlyZeroBytesDeliversNothingAndLogsNothing) {
  SectionBytes section;
  section.zeros(4096);
  Collector collector;
  collector.parse(kBase, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_FALSE(LogExists());
}

TEST_F(ZcaSection, ZeroPaddingBeforeBetweenAndAfterTablesIsSkipped) {
  SectionBytes section;
  section.zeros(3);
  const TableLayout first = AppendTable(section, zca_test::kVersion11, 0, {{0x10, 1, "a", kLit3}});
  section.zeros(7);
  const TableLayout second = AppendTable(section, zca_test::kVersion12, 0, {{0x20, 0, "b", kReg5}});
  section.zeros(5);
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].address, kBase + 0x10);
  EXPECT_EQ(collector.records[0].name, "a");
  EXPECT_EQ(collector.records[1].address, 0x20u);
  EXPECT_EQ(collector.records[1].name, "b");
  EXPECT_EQ(first.headerOffset, 3u);
  EXPECT_EQ(second.headerOffset, first.end + 7);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kFound12}));
}

// ---------------------------------------------------------------------------
// Version 1.1

TEST_F(ZcaSection, Version11EntriesAreDeliveredInOrderRelocatedByTheModuleBase) {
  SectionBytes section;
  const TableLayout table = AppendTable(section, zca_test::kVersion11, 0,
                                        {{0x1000, 7, "first", kLit3},
                                         {0x2040, 0, "second", kReg5},
                                         {0xFFFFFFFFFFFFFFFF, 0xCAFEF00D, "third", kBreg7Minus4}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 3u);
  const auto& r = collector.records;
  EXPECT_EQ(r[0].address, kBase + 0x1000);
  EXPECT_EQ(r[0].name, "first");
  EXPECT_EQ(r[0].probe, 7u);
  EXPECT_EQ(r[0].argumentCount, 1u);
  EXPECT_EQ(r[0].expressionOffset, static_cast<std::ptrdiff_t>(table.expressionTable));
  ExpectArgument(r[0].arguments[0], 3, 0, 0);
  ExpectZeroArgument(r[0].arguments[1]);

  EXPECT_EQ(r[1].address, kBase + 0x2040);
  EXPECT_EQ(r[1].name, "second");
  EXPECT_EQ(r[1].probe, 0u);
  EXPECT_EQ(r[1].expressionOffset, static_cast<std::ptrdiff_t>(table.expressionTable + 2));
  ExpectArgument(r[1].arguments[0], 5, 1, 0);

  // Relocation wraps around modulo 2^64.
  EXPECT_EQ(r[2].address, kBase - 1);
  EXPECT_EQ(r[2].name, "third");
  EXPECT_EQ(r[2].probe, 0xCAFEF00Du);
  ExpectArgument(r[2].arguments[0], 7, 1, -4);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11}));
}

TEST_F(ZcaSection, Version11HeaderIs36BytesAndItsEntries20) {
  // Written by hand: header, one entry, string table, expression table.
  SectionBytes section;
  section.magic().u16(0x0101).u16(1).u32(56).u32(2).u32(58).u32(2);
  section.u64(0x1234).u32(0x99).u32(0).u32(0);
  section.text("n").raw({0x01, 0x52});
  ASSERT_EQ(section.size(), 60u);
  Collector collector;
  collector.parse(0x1000000, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].address, 0x1001234u);
  EXPECT_EQ(collector.records[0].probe, 0x99u);
  EXPECT_EQ(collector.records[0].name, "n");
  EXPECT_EQ(collector.records[0].expressionOffset, 58);
  ExpectArgument(collector.records[0].arguments[0], 2, 1, 0);
}

TEST_F(ZcaSection, ATableWithoutEntriesLogsItsVersionOnly) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0, {});
  Collector collector;
  collector.parse(kBase, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11}));
}

// ---------------------------------------------------------------------------
// Version 1.2 and its flags

TEST_F(ZcaSection, Version12WithoutFlagsUsesTheAddressAsReadAndIgnoresTheModuleBase) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, 0,
              {{0x401000, 0xFFFF, "plain", kLit3}, {0xFFFFFFFF80000000, 0, "high", kReg5}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].address, 0x401000u);
  EXPECT_EQ(collector.records[0].probe, 0u);  // no probe word without the flag
  EXPECT_EQ(collector.records[0].name, "plain");
  ExpectArgument(collector.records[0].arguments[0], 3, 0, 0);
  EXPECT_EQ(collector.records[1].address, 0xFFFFFFFF80000000u);
  EXPECT_EQ(collector.records[1].name, "high");
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12}));
}

TEST_F(ZcaSection, Version12HeaderIs48BytesAndEntriesWithoutProbe16) {
  SectionBytes section;
  section.magic().u16(0x0102).u16(0xFFFF).u16(2).u16(0xFFFF);
  section.u32(80).u32(4).u32(84).u32(4).u64(0);
  section.u64(0x10).u32(0).u32(0);  // entry 0 at 48
  section.u64(0x20).u32(2).u32(2);  // entry 1 at 64
  section.text("a").text("b").raw({0x01, 0x40, 0x01, 0x60});
  ASSERT_EQ(section.size(), 88u);
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].address, 0x10u);
  EXPECT_EQ(collector.records[0].name, "a");
  ExpectArgument(collector.records[0].arguments[0], 16, 0, 0);
  EXPECT_EQ(collector.records[1].address, 0x20u);
  EXPECT_EQ(collector.records[1].name, "b");
  EXPECT_EQ(collector.records[1].expressionOffset, 86);
  ExpectArgument(collector.records[1].arguments[0], 16, 1, 0);
}

TEST_F(ZcaSection, TheProbeFlagMakesEntries20BytesWithAProbeWord) {
  SectionBytes section;
  section.magic().u16(0x0102).u16(0).u16(2).u16(0);
  section.u32(88).u32(4).u32(92).u32(2).u64(2);
  section.u64(0x10).u32(0xDEADBEEF).u32(0).u32(0);  // entry 0 at 48
  section.u64(0x20).u32(42).u32(2).u32(0);          // entry 1 at 68
  section.text("p").text("q").raw({0x01, 0x31});
  ASSERT_EQ(section.size(), 94u);
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].probe, 0xDEADBEEFu);
  EXPECT_EQ(collector.records[0].name, "p");
  EXPECT_EQ(collector.records[1].probe, 42u);
  EXPECT_EQ(collector.records[1].name, "q");
  EXPECT_EQ(collector.records[1].address, 0x20u);
}

TEST_F(ZcaSection, PcRelativeAddressesAreAddedToTheirHeadersAddress) {
  SectionBytes section;
  section.zeros(9);
  const TableLayout table =
      AppendTable(section, zca_test::kVersion12, KY_ZCA_FLAG_PCREL, {{0x400, 0, "pc", kLit3}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].address, collector.addressOf(table.headerOffset) + 0x400);
}

TEST_F(ZcaSection, ThirtyTwoBitAddressesWithBit31SetGetTheirUpperHalfFilled) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, KY_ZCA_FLAG_32BIT,
              {{0x0000000080000000, 0, "set", kLit3}, {0x12345678FFFFFFF0, 0, "set_junk", kLit3}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].address, 0xFFFFFFFF80000000u);
  EXPECT_EQ(collector.records[1].address, 0xFFFFFFFFFFFFFFF0u);
}

TEST_F(ZcaSection, ThirtyTwoBitAddressesWithBit31ClearAreUsedAsRead) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, KY_ZCA_FLAG_32BIT,
              {{0x000000007FFFFFFF, 0, "max", kLit3}, {0x0000000100001234, 0, "junk", kLit3}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].address, 0x7FFFFFFFu);
  EXPECT_EQ(collector.records[1].address, 0x100001234u);
}

TEST_F(ZcaSection, Flags5WithAddressFFFFFFF0YieldTheHeaderAddressLess16) {
  SectionBytes section;
  section.zeros(32);
  const TableLayout table =
      AppendTable(section, zca_test::kVersion12, 0x5, {{0x00000000FFFFFFF0, 0, "back", kLit3}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].address, collector.addressOf(table.headerOffset) - 16);
  EXPECT_EQ(collector.records[0].probe, 0u);
}

TEST_F(ZcaSection, AllThreeFlagsTogether) {
  SectionBytes section;
  section.zeros(1);
  const TableLayout table =
      AppendTable(section, zca_test::kVersion12, 0x7,
                  {{0x00000000FFFFFFFE, 77, "all", kReg5}, {0xAAAA000000000100, 5, "up", kLit3}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].address, collector.addressOf(table.headerOffset) - 2);
  EXPECT_EQ(collector.records[0].probe, 77u);
  EXPECT_EQ(collector.records[1].address,
            collector.addressOf(table.headerOffset) + 0xAAAA000000000100);
  EXPECT_EQ(collector.records[1].probe, 5u);
}

TEST_F(ZcaSection, UnknownFlagBitsAreIgnored) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, 0xFFFFFFFFFFFFFFF8, {{0x80000000, 9, "x", kLit3}});
  Collector collector;
  collector.parse(kBase, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].address, 0x80000000u);
  EXPECT_EQ(collector.records[0].probe, 0u);
}

TEST_F(ZcaSection, TheFlagConstantsHaveTheirValues) {
  EXPECT_EQ(KY_ZCA_FLAG_PCREL, 1u);
  EXPECT_EQ(KY_ZCA_FLAG_PROBE, 2u);
  EXPECT_EQ(KY_ZCA_FLAG_32BIT, 4u);
}

// ---------------------------------------------------------------------------
// The next-table rule

TEST_F(ZcaSection, TablesOfBothVersionsFollowOneAnother) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, KY_ZCA_FLAG_PROBE, {{1, 1, "one", kLit3}});
  AppendTable(section, zca_test::kVersion11, 0, {{2, 2, "two", kLit3}});
  AppendTable(section, zca_test::kVersion12, 0, {{3, 3, "three", kLit3}});
  Collector collector;
  collector.parse(0x100, section);
  ASSERT_EQ(collector.records.size(), 3u);
  EXPECT_EQ(collector.records[0].name, "one");
  EXPECT_EQ(collector.records[1].name, "two");
  EXPECT_EQ(collector.records[1].address, 0x102u);
  EXPECT_EQ(collector.records[2].name, "three");
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kFound11, zca_test::kFound12}));
}

TEST_F(ZcaSection, AStringTableAfterTheExpressionTableIsWhereTheNextTableStarts) {
  SectionBytes section;
  const TableLayout first = AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "s", kLit3}},
                                        TableOrder::kExpressionsFirst);
  EXPECT_LT(first.expressionTable, first.stringTable);
  AppendTable(section, zca_test::kVersion11, 0, {{2, 0, "t", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[1].name, "t");
}

TEST_F(ZcaSection, TheLaterTableDecidesEvenWhenItsEndIsTheEarlierOne) {
  // The expression table lies after the string table but ends first: the
  // walk goes on at its end, inside the string table's bytes, where a second
  // table has been placed.
  SectionBytes section;
  section.magic().u16(0x0101).u16(1).u32(56).u32(200).u32(60).u32(2);
  section.u64(0x1).u32(0).u32(0).u32(0);
  section.text("nm").zeros(1).raw({0x01, 0x33});  // string table bytes 56.., expressions at 60
  ASSERT_EQ(section.size(), 62u);
  AppendTable(section, zca_test::kVersion11, 0, {{0x2, 0, "inner", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].name, "nm");
  EXPECT_EQ(collector.records[1].name, "inner");
}

TEST_F(ZcaSection, EqualTableOffsetsContinueAfterTheStringTable) {
  SectionBytes section;
  // String and expression tables both at 56; the string table (size 8) ends
  // later than the expression table (size 2) would.
  section.magic().u16(0x0101).u16(1).u32(56).u32(8).u32(56).u32(2);
  section.u64(0x1).u32(0).u32(3).u32(0);
  section.raw({0x01, 0x33, 0x00}).text("abcd");  // expression 01 33, name "abcd" at 3
  ASSERT_EQ(section.size(), 64u);
  AppendTable(section, zca_test::kVersion11, 0, {{0x2, 0, "next", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].name, "abcd");
  ExpectArgument(collector.records[0].arguments[0], 3, 0, 0);
  EXPECT_EQ(collector.records[1].name, "next");
}

TEST_F(ZcaSection, BytesInsideALongerStringTableAreSkippedNotParsed) {
  // The string table, after the expression table, declares 6 bytes of
  // non-zero garbage past its one name: they belong to the table and are
  // stepped over, not taken for a header.
  SectionBytes section;
  section.magic().u16(0x0101).u16(1).u32(58).u32(8).u32(56).u32(2);
  section.u64(0x1).u32(0).u32(0).u32(0);
  section.raw({0x01, 0x33}).text("x").raw({0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});
  ASSERT_EQ(section.size(), 66u);
  AppendTable(section, zca_test::kVersion12, 0, {{5, 0, "after", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].name, "x");
  EXPECT_EQ(collector.records[1].name, "after");
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kFound12}));
}

TEST_F(ZcaSection, ANextTablePastTheSectionEndEndsTheWalkQuietly) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "x", kLit3}});
  section.patch32(32, 0x10000);  // expression table size runs far past the end
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11}));
}

// ---------------------------------------------------------------------------
// Header checks

TEST_F(ZcaSection, FewerThan36BytesLeftForAHeaderIsAnInvalidSize) {
  SectionBytes section;
  section.magic().u16(0x0101).u16(0).u32(36).u32(0).u32(36).u32(0);
  section.bytes().resize(35);
  Collector collector;
  collector.parse(kBase, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kInvalidSize}));
}

TEST_F(ZcaSection, Exactly36BytesHoldAnEmptyVersion11Table) {
  SectionBytes section;
  section.magic().u16(0x0101).u16(0).u32(36).u32(0).u32(36).u32(0);
  ASSERT_EQ(section.size(), 36u);
  Collector collector;
  collector.parse(kBase, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11}));
}

TEST_F(ZcaSection, ASingleNonZeroByteIsAnInvalidSize) {
  SectionBytes section;
  section.zeros(100).u8(1).zeros(10);
  Collector collector;
  collector.parse(kBase, section);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kInvalidSize}));
}

TEST_F(ZcaSection, ShortTrailingBytesAfterAGoodTableAreAnInvalidSize) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "kept", kLit3}});
  section.raw({0x2E, 0x71, 0x7A});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].name, "kept");
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kInvalidSize}));
}

TEST_F(ZcaSection, EveryMagicByteMustMatch) {
  for (std::size_t i = 0; i < 16; ++i) {
    SectionBytes section;
    AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "x", kLit3}});
    section.bytes()[i] ^= 0x20;  // never turns a magic byte into a zero
    Collector collector;
    collector.parse(0, section);
    EXPECT_TRUE(collector.records.empty()) << "magic byte " << i;
  }
  std::vector<std::string> expected(16, zca_test::kBadHeader);
  EXPECT_EQ(LogText(), InfoLog(expected));
}

TEST_F(ZcaSection, AnUnknownVersionIsReportedAsTheVersionFoundUnderExpected) {
  const uint16_t versions[] = {0x0103, 0x0201, 0x0100, 0xFF0A};
  for (const uint16_t version : versions) {
    SectionBytes section;
    AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "x", kLit3}});
    section.patch16(16, version);
    Collector collector;
    collector.parse(0, section);
    EXPECT_TRUE(collector.records.empty());
  }
  EXPECT_EQ(
      LogText(),
      InfoLog({"zca_parser: Expected zca version 1.3", "zca_parser: Expected zca version 2.1",
               "zca_parser: Expected zca version 1.0", "zca_parser: Expected zca version 255.10"}));
}

TEST_F(ZcaSection, Version11EntriesMustFitBeforeTheSectionEnd) {
  SectionBytes section;
  section.magic().u16(0x0101).u16(2).u32(0).u32(0).u32(0).u32(0);
  section.u64(0x1).u32(0).u32(16).u32(0);  // one entry; the second is 1 byte short
  section.zeros(19);
  Collector collector;
  collector.parse(0, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kBadCount}));
}

TEST_F(ZcaSection, Version11EntriesEndingExactlyAtTheSectionEndAreRead) {
  // Names and expressions point back into the header: "qzv_notify_tab"
  // (from magic byte 1) and the byte 0x01 0x01 of the version, read as
  // L = 1, operation 0x01 (unknown).
  SectionBytes section;
  section.magic().u16(0x0101).u16(1).u32(0).u32(0).u32(0).u32(0);
  section.u64(0x1).u32(0).u32(1).u32(16);
  ASSERT_EQ(section.size(), 56u);
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].name, "qzv_notify_tab");
  ExpectArgument(collector.records[0].arguments[0], 0xFFFFFFFF, 1, 0);
  // Both tables at offset 0 with a zero-size string table: the walk would
  // not move on.
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kBadTableLayout}));
}

TEST_F(ZcaSection, Version12EntriesMustFitBeforeTheSectionEnd) {
  for (const uint64_t flags : {uint64_t{0}, uint64_t{2}}) {
    SectionBytes section;
    AppendTable(section, zca_test::kVersion12, flags, {{1, 0, "a", kLit3}, {2, 0, "b", kLit3}});
    const std::size_t entrySize = flags == 2 ? 20 : 16;
    section.bytes().resize(48 + 2 * entrySize - 1);
    Collector collector;
    collector.parse(0, section);
    EXPECT_TRUE(collector.records.empty());
  }
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadCount, zca_test::kFound12,
                                zca_test::kBadCount}));
}

TEST_F(ZcaSection, AVersion12HeaderCutByTheSectionEndLeavesNoRoomForEntries) {
  for (const std::size_t size : {std::size_t{36}, std::size_t{47}}) {
    SectionBytes section;
    AppendTable(section, zca_test::kVersion12, 0, {});
    section.bytes().resize(size);
    Collector collector;
    collector.parse(0, section);
    EXPECT_TRUE(collector.records.empty());
  }
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadCount, zca_test::kFound12,
                                zca_test::kBadCount}));
}

TEST_F(ZcaSection, Exactly48BytesHoldAnEmptyVersion12Table) {
  SectionBytes section;
  section.magic().u16(0x0102).u16(0).u16(0).u16(0).u32(48).u32(0).u32(48).u32(0).u64(7);
  ASSERT_EQ(section.size(), 48u);
  Collector collector;
  collector.parse(0, section);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12}));
}

TEST_F(ZcaSection, AnErrorStopsTheSectionButKeepsWhatWasDelivered) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "before", kLit3}});
  const std::size_t bad = section.size();
  AppendTable(section, zca_test::kVersion12, 0, {{2, 0, "bad", kLit3}});
  section.bytes()[bad + 3] = 'X';
  AppendTable(section, zca_test::kVersion12, 0, {{3, 0, "after", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].name, "before");
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kBadHeader}));
}

// ---------------------------------------------------------------------------
// Bounds kept for damaged sections

TEST_F(ZcaSection, ANameOffsetOutsideTheSectionStopsTheParseAfterEarlierEntries) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "ok", kLit3}, {2, 0, "bad", kLit3}});
  section.patch32(36 + 20 + 12, 0x7FFFFFF0);  // the second entry's name offset
  AppendTable(section, zca_test::kVersion11, 0, {{3, 0, "never", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].name, "ok");
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kBadNameOffset}));
}

TEST_F(ZcaSection, ANameStartingAtTheSectionEndIsOutside) {
  SectionBytes section;
  const TableLayout table = AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "", kLit3}});
  // Name offset so that the name starts exactly at the section end.
  section.patch32(36 + 12, static_cast<uint32_t>(section.size() - table.stringTable));
  Collector collector;
  collector.parse(0, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kBadNameOffset}));
}

TEST_F(ZcaSection, ANameWhoseNulIsTheLastSectionByteIsRead) {
  SectionBytes section;
  section.magic().u16(0x0101).u16(1).u32(58).u32(4).u32(56).u32(2);
  section.u64(0x1).u32(0).u32(0).u32(0);
  section.raw({0x01, 0x33}).text("end");
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].name, "end");
}

TEST_F(ZcaSection, ANameWithoutItsNulInsideTheSectionIsUnterminated) {
  SectionBytes section;
  section.magic().u16(0x0101).u16(1).u32(58).u32(4).u32(56).u32(2);
  section.u64(0x1).u32(0).u32(0).u32(0);
  section.raw({0x01, 0x33}).raw({'e', 'n', 'd'});
  Collector collector;
  collector.parse(0, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kUnterminatedName}));
}

TEST_F(ZcaSection, OffsetsNearTheTopOf32BitsDoNotWrapBackIntoTheSection) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, 0, {{1, 0, "x", kLit3}});
  section.patch32(24, 0xFFFFFFFF);      // string table offset
  section.patch32(48 + 8, 0xFFFFFFFF);  // name offset
  Collector collector;
  collector.parse(0, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadNameOffset}));
}

TEST_F(ZcaSection, AnExpressionOffsetOutsideTheSectionStopsTheParse) {
  SectionBytes section;
  const TableLayout table = AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "x", kLit3}});
  section.patch32(36 + 16, static_cast<uint32_t>(section.size() - table.expressionTable));
  Collector collector;
  collector.parse(0, section);
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound11, zca_test::kBadExpressionOffset}));
}

// A version 1.2 table whose only entry's expression is the given bytes,
// placed last in the section.
SectionBytes SectionEndingWithExpression(const std::vector<uint8_t>& expression) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, 0, {{1, 0, "e", expression}});
  return section;
}

TEST_F(ZcaSection, AnExpressionLengthRunningPastTheSectionEndStopsTheParse) {
  Collector fits;
  fits.parse(0, SectionEndingWithExpression({0x03, 0x77, 0x7C, 0x00}));
  ASSERT_EQ(fits.records.size(), 1u);
  Collector past;
  past.parse(0, SectionEndingWithExpression({0x04, 0x77, 0x7C, 0x00}));
  EXPECT_TRUE(past.records.empty());
  EXPECT_EQ(LogText(),
            InfoLog({zca_test::kFound12, zca_test::kFound12, zca_test::kBadExpressionLength}));
}

TEST_F(ZcaSection, AnUnterminatedLengthAtTheSectionEndStopsTheParse) {
  Collector collector;
  collector.parse(0, SectionEndingWithExpression({0x81, 0x80}));
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadExpressionLength}));
}

TEST_F(ZcaSection, AnEmptyExpressionWhoseOperationWouldLiePastTheEndStopsTheParse) {
  Collector collector;
  collector.parse(0, SectionEndingWithExpression({0x00}));
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadExpressionLength}));
}

TEST_F(ZcaSection, AnOffsetOperandRunningPastTheSectionEndStopsTheParse) {
  // L = 2 covers the operation and one operand byte, whose continuation bit
  // asks for a third byte that is not there.
  Collector collector;
  collector.parse(0, SectionEndingWithExpression({0x02, 0x75, 0x80}));
  EXPECT_TRUE(collector.records.empty());
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadExpressionLength}));
}

TEST_F(ZcaSection, ATableThatWouldNotMoveTheWalkForwardStopsIt) {
  SectionBytes section;
  section.magic().u16(0x0102).u16(0).u16(0).u16(0).u32(0).u32(0).u32(0).u32(9).u64(0);
  Collector collector;
  collector.parse(0, section);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kBadTableLayout}));
}

// ---------------------------------------------------------------------------
// Callback

TEST_F(ZcaSection, ANullCallbackParsesAndLogsWithoutDelivering) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, 0,
              {{1, 0, "x", {0x02, 0x10, 0x05}}, {2, 0, "y", kLit3}});
  __KyZCAParseAndProcessRecords(0, section.data(), section.size(), nullptr, nullptr);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kUnsupported}));
}

int CountAndFail(KyZCARecord*, void* user) {
  ++*static_cast<int*>(user);
  return -1;
}

TEST_F(ZcaSection, TheUserPointerIsPassedAndTheCallbacksResultIgnored) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0,
              {{1, 0, "a", kLit3}, {2, 0, "b", kLit3}, {3, 0, "c", kLit3}});
  int calls = 0;
  __KyZCAParseAndProcessRecords(0, section.data(), section.size(), CountAndFail, &calls);
  EXPECT_EQ(calls, 3);
}

struct Nested {
  const SectionBytes* inner;
  Collector innerRecords;
  int outerCalls = 0;
};

int ParseInnerSection(KyZCARecord* record, void* user) {
  auto* nested = static_cast<Nested*>(user);
  ++nested->outerCalls;
  EXPECT_STREQ(record->name, "outer");
  nested->innerRecords.parse(0x5000, *nested->inner);
  EXPECT_STREQ(record->name, "outer");  // the outer record is untouched
  return 0;
}

TEST_F(ZcaSection, ParsingIsReentrantFromInsideACallback) {
  SectionBytes outer;
  AppendTable(outer, zca_test::kVersion12, 0, {{1, 0, "outer", kLit3}});
  SectionBytes inner;
  AppendTable(inner, zca_test::kVersion11, 0, {{2, 0, "inner", kReg5}});
  Nested nested{&inner, {}, 0};
  __KyZCAParseAndProcessRecords(0, outer.data(), outer.size(), ParseInnerSection, &nested);
  EXPECT_EQ(nested.outerCalls, 1);
  ASSERT_EQ(nested.innerRecords.records.size(), 1u);
  EXPECT_EQ(nested.innerRecords.records[0].address, 0x5002u);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kFound11}));
}

TEST(ZcaSectionBeforeStartup, ParsingWorksAndLogsNothingBeforeTheRuntimeStarts) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion11, 0, {{1, 0, "early", kLit3}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 1u);
  EXPECT_EQ(collector.records[0].name, "early");
  EXPECT_FALSE(LogExists());
}

}  // namespace
