// Debug dump channels: the built-in map, tool maps, the option text, the
// enabled test and the trace records, byte for byte in kylog.log.
#include "kyrt/debug_dump.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"
#include "log/debug_dump_state.h"
#include "support/log_text.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt::DebugDumpEnabledMask;
using kyrt::SetDebugDumpEnabledMask;
using kyrt_test::kLogHeader;
using kyrt_test::kLogRoot;
using kyrt_test::LogText;

struct ExpectedChannel {
  unsigned channel;
  const char* name;
  uint64_t mask;
};

const ExpectedChannel kExpectedBuiltInMap[] = {
    {KY_DBG_CHANNEL_NONE, "NONE", 0x0},
    {KY_DBG_CHANNEL_API, "API", 0x1},
    {KY_DBG_CHANNEL_CAL, "CAL", 0x2},
    {KY_DBG_CHANNEL_MEM, "MEM", 0x4},
    {KY_DBG_CHANNEL_BUF, "BUF", 0x8},
    {KY_DBG_CHANNEL_MOD, "MOD", 0x10},
    {KY_DBG_CHANNEL_CFG, "CFG", 0x20},
    {KY_DBG_CHANNEL_CHK, "CHK", 0x40},
    {KY_DBG_CHANNEL_ZCA, "ZCA", 0x80},
    {KY_DBG_CHANNEL_SCR, "SCR", 0x100},
    {KY_DBG_CHANNEL_KYCORE, "KYCORE", 0x1FF},
    {KY_DBG_CHANNEL_TRC, "TRC", 0x200},
    {KY_DBG_CHANNEL_IMG, "IMG", 0x400},
    {KY_DBG_CHANNEL_RTN, "RTN", 0x800},
    {KY_DBG_CHANNEL_BBL, "BBL", 0x1000},
    {KY_DBG_CHANNEL_INS, "INS", 0x2000},
    {KY_DBG_CHANNEL_THR, "THR", 0x4000},
    {KY_DBG_CHANNEL_RTL, "RTL", 0x8000},
    {KY_DBG_CHANNEL_TRA, "TRA", 0x10000},
    {KY_DBG_CHANNEL_ANT, "ANT", 0x20000},
    {KY_DBG_CHANNEL_KYET, "KYET", 0x3FE00},
    {KY_DBG_CHANNEL_DOTNET_GC, "DOTNET_GC", 0x40000},
    {KY_DBG_CHANNEL_DOTNET_API, "DOTNET_API", 0x80000},
    {KY_DBG_CHANNEL_DOTNET_MEM, "DOTNET_MEM", 0x100000},
    {KY_DBG_CHANNEL_DOTNET_JIT, "DOTNET_JIT", 0x200000},
    {KY_DBG_CHANNEL_DOTNET_GEN, "DOTNET_GEN", 0x400000},
    {KY_DBG_CHANNEL_DOTNET, "DOTNET", 0x7C0000},
    {KY_DBG_CHANNEL_ALL, "ALL", 0x7FFFFF},
};

// A value that would fault if it were ever formatted with "%s".
const char* const kNeverFormatted = reinterpret_cast<const char*>(uintptr_t{1});

// Parses text starting from the given enabled mask; returns the result.
int ParseFrom(uint32_t mask, const char* text) {
  SetDebugDumpEnabledMask(mask);
  return __KyParseDbgDumpOption(text);
}

// The text of a dump record, at depth 1, with its time stamp masked.
std::string DumpRecord(int id, const std::string& text) {
  return "\n\t<msg id='" + std::to_string(id) +
         "' source='kyrt'>\n\t\t<type>INTERNAL</type>\n\t\t<severity>INFO</severity>"
         "\n\t\t<timestamp>TS</timestamp>\n\t\t<!-- " +
         text + " -->\n\t</msg>";
}

bool LogExists() {
  return access("kylog.log", F_OK) == 0;
}

KyThreadId ThreadFortyTwo() {
  return 42;
}

KyThreadId ThreadWithSevenDigits() {
  return 1234567;
}

// ---------------------------------------------------------------------------
// Layout and the built-in map

TEST(DebugDumpMapEntry, IsAMaskThenANamePointer) {
  static_assert(sizeof(KyDbgMapEntry) == 16);
  static_assert(offsetof(KyDbgMapEntry, mask) == 0);
  static_assert(offsetof(KyDbgMapEntry, name) == 8);
  const KyDbgMapEntry entry{0x1122334455667788ull, "n"};
  uint64_t firstWord = 0;
  std::memcpy(&firstWord, &entry, sizeof firstWord);
  EXPECT_EQ(firstWord, 0x1122334455667788ull);
  EXPECT_EQ(KY_DBG_MAX_CHANNELS, 32);
  EXPECT_EQ(KY_DBG_MESSAGE_BUFFER_SIZE, 1024);
}

TEST(DebugDumpBuiltInMap, HasItsTwentyEightChannelsInOrder) {
  ASSERT_EQ(std::size(kExpectedBuiltInMap), 28u);
  EXPECT_EQ(KY_DBG_BUILT_IN_CHANNELS, 28);
  EXPECT_EQ(kyrt::CurrentDebugDumpMap(), kyrt::BuiltInDebugDumpMap());
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 28u);
  const KyDbgMapEntry* map = kyrt::BuiltInDebugDumpMap();
  for (unsigned i = 0; i < std::size(kExpectedBuiltInMap); ++i) {
    const ExpectedChannel& expected = kExpectedBuiltInMap[i];
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(expected.channel, i);
    EXPECT_STREQ(map[i].name, expected.name);
    EXPECT_EQ(map[i].mask, expected.mask);
  }
}

TEST(DebugDumpBuiltInMap, CompositeChannelsGroupTheChannelsBeforeThem) {
  const KyDbgMapEntry* map = kyrt::BuiltInDebugDumpMap();
  auto orOf = [map](unsigned first, unsigned last) {
    uint64_t mask = 0;
    for (unsigned channel = first; channel <= last; ++channel) mask |= map[channel].mask;
    return mask;
  };
  EXPECT_EQ(map[KY_DBG_CHANNEL_KYCORE].mask, orOf(1, 9));
  EXPECT_EQ(map[KY_DBG_CHANNEL_KYET].mask, orOf(11, 19));
  EXPECT_EQ(map[KY_DBG_CHANNEL_DOTNET].mask, orOf(21, 25));
  EXPECT_EQ(map[KY_DBG_CHANNEL_ALL].mask, orOf(0, 26));
}

TEST(DebugDumpBuiltInMap, NothingIsEnabledAtLoad) {
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
  for (unsigned channel = 0; channel < 28; ++channel) {
    EXPECT_EQ(__KyIsDbgDumpEnabled(channel), 0) << channel;
  }
}

// ---------------------------------------------------------------------------
// The hexadecimal form

TEST(DebugDumpHexadecimalOption, IsOredIntoTheMask) {
  EXPECT_EQ(ParseFrom(0x1, "0x10"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x11u);
  EXPECT_EQ(__KyParseDbgDumpOption("0X20"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x31u);
  EXPECT_EQ(__KyParseDbgDumpOption("0xAbC"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0xABDu);
}

TEST(DebugDumpHexadecimalOption, ZeroClearsTheMask) {
  EXPECT_EQ(ParseFrom(0x7FFFFF, "0x0"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
  EXPECT_EQ(ParseFrom(0x5, "0X00000000"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
}

TEST(DebugDumpHexadecimalOption, AllThirtyTwoBitsCanBeSet) {
  EXPECT_EQ(ParseFrom(0, "0xffffffff"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0xFFFFFFFFu);
  EXPECT_EQ(ParseFrom(0, "0x80000000"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80000000u);
}

TEST(DebugDumpHexadecimalOption, ALoneZeroAndAnOctalLookingTextAreRefused) {
  for (const char* text : {"0", "010", "0,API", "00x1", "0API"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(ParseFrom(0x5, text), 0);
    EXPECT_EQ(DebugDumpEnabledMask(), 0x5u);
  }
}

TEST(DebugDumpHexadecimalOption, APrefixWithoutDigitsIsRefused) {
  for (const char* text : {"0x", "0X", "0xg", "0x,API", "0xz1"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(ParseFrom(0x5, text), 0);
    EXPECT_EQ(DebugDumpEnabledMask(), 0x5u);
  }
}

TEST(DebugDumpHexadecimalOption, WhatFollowsTheDigitsIsIgnored) {
  EXPECT_EQ(ParseFrom(0, "0x1fzz"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1Fu);
  EXPECT_EQ(ParseFrom(0, "0x10,API,BOGUS"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x10u);
}

TEST(DebugDumpHexadecimalOption, TheDigitsAreReadAsSscanfReadsThem) {
  // "%x" skips white space and takes a sign or a second "0x" prefix.
  EXPECT_EQ(ParseFrom(0, "0x 10"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x10u);
  EXPECT_EQ(ParseFrom(0, "0x+1f"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1Fu);
  EXPECT_EQ(ParseFrom(0, "0x0x40"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x40u);
}

// ---------------------------------------------------------------------------
// Channel names

TEST(DebugDumpNamedOption, AnEmptyTextChangesNothing) {
  EXPECT_EQ(ParseFrom(0x5, ""), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x5u);
}

TEST(DebugDumpNamedOption, ANullTextIsRefused) {
  EXPECT_EQ(ParseFrom(0x5, nullptr), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x5u);
}

TEST(DebugDumpNamedOption, ZcaAndMemThenNoMem) {
  EXPECT_EQ(ParseFrom(0, "ZCA,MEM"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x84u);
  EXPECT_EQ(__KyParseDbgDumpOption("no-mem"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80u);
}

TEST(DebugDumpNamedOption, KycoreThenNoKycoreClearsItsNineBitsOnly) {
  EXPECT_EQ(ParseFrom(0, "KYCORE"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1FFu);
  EXPECT_EQ(__KyParseDbgDumpOption("TRC"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x3FFu);
  EXPECT_EQ(__KyParseDbgDumpOption("no-KYCORE"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x200u);
}

TEST(DebugDumpNamedOption, NamesAndTheRemovalPrefixIgnoreCase) {
  EXPECT_EQ(ParseFrom(0, "zCa,Mem,dotnet_JIT"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x200084u);
  EXPECT_EQ(__KyParseDbgDumpOption("NO-zca,No-MEM,nO-DotNet_Jit"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
}

TEST(DebugDumpNamedOption, NoneClearsTheMask) {
  EXPECT_EQ(ParseFrom(0x7FFFFF, "NONE"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
  EXPECT_EQ(ParseFrom(0x5, "ZCA,NONE,API"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1u);
}

TEST(DebugDumpNamedOption, AllEnablesEveryBuiltInBit) {
  EXPECT_EQ(ParseFrom(0, "ALL"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x7FFFFFu);
}

TEST(DebugDumpNamedOption, AnUnknownItemEndsTheParseWithEarlierItemsApplied) {
  EXPECT_EQ(ParseFrom(0, "API,BOGUS"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1u);
  EXPECT_EQ(ParseFrom(0, "API,BOGUS,MEM"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1u);
  EXPECT_EQ(ParseFrom(0x80, "BOGUS,API"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80u);
}

TEST(DebugDumpNamedOption, AnEmptyItemMatchesNoneAndClearsTheMask) {
  EXPECT_EQ(ParseFrom(0, "API,,MEM"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x4u);
  EXPECT_EQ(ParseFrom(0x80, ",MEM"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x4u);
  EXPECT_EQ(ParseFrom(0x80, ","), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
}

TEST(DebugDumpNamedOption, ATrailingCommaAddsNothing) {
  EXPECT_EQ(ParseFrom(0x80, "API,"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x81u);
}

TEST(DebugDumpNamedOption, APrefixSelectsTheFirstChannelInMapOrder) {
  struct Case {
    const char* item;
    uint32_t mask;
  };
  const Case cases[] = {
      {"dot", 0x40000},                     // DOTNET_GC, not DOTNET_API or DOTNET
      {"DOTNET", 0x40000},                  // channel 21 comes before channel 26
      {"DOTNET_", 0x40000},                 // still DOTNET_GC
      {"DOTNET_A", 0x80000}, {"A", 0x1},    // API before ANT and ALL
      {"AL", 0x7FFFFF},      {"K", 0x1FF},  // KYCORE before KYET
      {"KYE", 0x3FE00},      {"T", 0x200},  // TRC before THR, TRA
      {"TH", 0x4000},        {"DOTNET_G", 0x40000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.item);
    EXPECT_EQ(ParseFrom(0, c.item), 1);
    EXPECT_EQ(DebugDumpEnabledMask(), c.mask);
  }
}

TEST(DebugDumpNamedOption, NoAloneAbbreviatesNone) {
  EXPECT_EQ(ParseFrom(0x84, "no"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
  EXPECT_EQ(ParseFrom(0x84, "n"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
}

TEST(DebugDumpNamedOption, RemovalFollowsTheSamePrefixRule) {
  EXPECT_EQ(ParseFrom(0, "DOTNET_GC,DOTNET_API"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0xC0000u);
  EXPECT_EQ(__KyParseDbgDumpOption("no-dot"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80000u);
  EXPECT_EQ(ParseFrom(0x7FFFFF, "no-a"), 1);  // API
  EXPECT_EQ(DebugDumpEnabledMask(), 0x7FFFFEu);
}

TEST(DebugDumpNamedOption, TheRemovalPrefixAloneIsUnknown) {
  EXPECT_EQ(ParseFrom(0x84, "no-"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x84u);
  EXPECT_EQ(ParseFrom(0x84, "NO-"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x84u);
}

TEST(DebugDumpNamedOption, RemovingNoneRemovesNothing) {
  EXPECT_EQ(ParseFrom(0x84, "no-none"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x84u);
}

TEST(DebugDumpNamedOption, RemovingAllClearsEveryBuiltInBitOnly) {
  EXPECT_EQ(ParseFrom(0xFF800001u, "no-all"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0xFF800000u);
}

TEST(DebugDumpNamedOption, ItemsThatAreNoPrefixOfANameAreUnknown) {
  for (const char* text : {"APIX", "ZCA ", " ZCA", "no-bogus", "no-APIX", "DOTNET_GCX", "x"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(ParseFrom(0x84, text), 0);
    EXPECT_EQ(DebugDumpEnabledMask(), 0x84u);
  }
}

TEST(DebugDumpNamedOption, SuccessiveOptionsAccumulate) {
  EXPECT_EQ(ParseFrom(0, "API"), 1);
  EXPECT_EQ(__KyParseDbgDumpOption("0x100"), 1);
  EXPECT_EQ(__KyParseDbgDumpOption("dotnet_mem"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x100101u);
}

// ---------------------------------------------------------------------------
// The enabled test

TEST(DebugDumpEnabled, ChannelZeroIsNeverEnabled) {
  SetDebugDumpEnabledMask(0xFFFFFFFFu);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_NONE), 0);
  EXPECT_EQ(ParseFrom(0, "ALL"), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_NONE), 0);
}

TEST(DebugDumpEnabled, ChannelsBeyondTheMapAreDisabled) {
  SetDebugDumpEnabledMask(0xFFFFFFFFu);
  EXPECT_EQ(__KyIsDbgDumpEnabled(27), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(28), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(31), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(32), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(0xFFFFFFFFu), 0);
}

TEST(DebugDumpEnabled, AChannelIsEnabledWhenItsMaskSharesABit) {
  EXPECT_EQ(ParseFrom(0, "MEM"), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_MEM), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_KYCORE), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_ALL), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_API), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_KYET), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_DOTNET), 0);
}

TEST(DebugDumpEnabled, EveryBuiltInChannelFollowsItsOwnBits) {
  for (const ExpectedChannel& expected : kExpectedBuiltInMap) {
    SCOPED_TRACE(expected.name);
    const uint32_t bits = static_cast<uint32_t>(expected.mask);
    SetDebugDumpEnabledMask(bits);
    EXPECT_EQ(__KyIsDbgDumpEnabled(expected.channel), bits != 0 ? 1 : 0);
    SetDebugDumpEnabledMask(~bits);
    EXPECT_EQ(__KyIsDbgDumpEnabled(expected.channel), 0);
  }
}

// ---------------------------------------------------------------------------
// Tool maps

TEST(DebugDumpToolMap, ANullMapIsRefusedAndTheCurrentMapKept) {
  EXPECT_EQ(__KyDbgRegisterDbgMap(nullptr), 0);
  EXPECT_EQ(kyrt::CurrentDebugDumpMap(), kyrt::BuiltInDebugDumpMap());
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 28u);
}

TEST(DebugDumpToolMap, TheBuiltInMapCanBeInstalledAgain) {
  // Found by fuzzing: the built-in map had no ending entry, and installing
  // it again counted past its 28 entries.
  EXPECT_EQ(kyrt::BuiltInDebugDumpMap()[KY_DBG_BUILT_IN_CHANNELS].name, nullptr);
  static const KyDbgMapEntry map[] = {{0x1, "alpha"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 1u);
  ASSERT_EQ(__KyDbgRegisterDbgMap(kyrt::BuiltInDebugDumpMap()), 1);
  EXPECT_EQ(kyrt::CurrentDebugDumpMap(), kyrt::BuiltInDebugDumpMap());
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 28u);
  EXPECT_EQ(ParseFrom(0, "ALL"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x7FFFFFu);
}

TEST(DebugDumpToolMap, CountsItsLeadingNamedEntries) {
  static const KyDbgMapEntry map[] = {
      {0x1, "alpha"}, {0x2, "beta"}, {0x4, "gamma"}, {0x8, nullptr}, {0x10, "after"},
  };
  EXPECT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(kyrt::CurrentDebugDumpMap(), map);
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 3u);
  EXPECT_EQ(ParseFrom(0, "gamma,Alpha"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x5u);
  EXPECT_EQ(ParseFrom(0, "after"), 0);
  SetDebugDumpEnabledMask(0xFFu);
  EXPECT_EQ(__KyIsDbgDumpEnabled(2), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(3), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(4), 0);
}

TEST(DebugDumpToolMap, BuiltInNamesAreUnknownUnderAToolMap) {
  static const KyDbgMapEntry map[] = {{0x1, "alpha"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(ParseFrom(0, "ZCA"), 0);
  EXPECT_EQ(ParseFrom(0, "NONE"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
}

TEST(DebugDumpToolMap, InstallingAMapKeepsTheEnabledMask) {
  ASSERT_EQ(ParseFrom(0, "ZCA"), 1);
  static const KyDbgMapEntry map[] = {{0x80, "zeta"}, {0x1, "other"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80u);
  EXPECT_EQ(__KyIsDbgDumpEnabled(0), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(1), 0);
}

TEST(DebugDumpToolMap, AnEmptyItemMatchesChannelZeroWhateverItsMask) {
  static const KyDbgMapEntry map[] = {{0x10, "first"}, {0x20, "second"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(ParseFrom(0x1, ","), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x11u);
  EXPECT_EQ(ParseFrom(0x1, "second,,"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x31u);
}

TEST(DebugDumpToolMap, IsCappedAtThirtyTwoChannels) {
  static std::vector<std::string> names;
  static std::vector<KyDbgMapEntry> map;
  for (unsigned i = 0; i < 40; ++i) names.push_back("c" + std::to_string(i));
  for (unsigned i = 0; i < 40; ++i) map.push_back({uint64_t{1} << (i % 32), names[i].c_str()});
  ASSERT_EQ(__KyDbgRegisterDbgMap(map.data()), 1);
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 32u);
  EXPECT_EQ(ParseFrom(0, "c31"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80000000u);
  EXPECT_EQ(__KyIsDbgDumpEnabled(31), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(32), 0);  // shares bit 0 with channel 0, but is not counted
  EXPECT_EQ(ParseFrom(0, "c32"), 0);
  EXPECT_EQ(ParseFrom(0, "c39"), 0);
}

TEST(DebugDumpToolMap, AFullMapNeedsNoTerminatorAndIsNotReadPastItsEnd) {
  // Exactly 32 entries on the heap: a read of a 33rd would be an overflow
  // that AddressSanitizer reports.
  static std::vector<std::string> names;
  for (unsigned i = 0; i < 32; ++i) names.push_back("bit" + std::to_string(i));
  static std::vector<KyDbgMapEntry> map;
  for (unsigned i = 0; i < 32; ++i) map.push_back({uint64_t{1} << i, names[i].c_str()});
  map.shrink_to_fit();
  ASSERT_EQ(__KyDbgRegisterDbgMap(map.data()), 1);
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 32u);
  EXPECT_EQ(ParseFrom(0, "bit31,bit0"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x80000001u);
  EXPECT_EQ(ParseFrom(0, "nothing"), 0);
}

TEST(DebugDumpToolMap, AMapWithoutANamedEntryHasNoChannels) {
  static const KyDbgMapEntry map[] = {{0x1, nullptr}, {0x2, "hidden"}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(kyrt::DebugDumpChannelCount(), 0u);
  SetDebugDumpEnabledMask(0xFFFFFFFFu);
  EXPECT_EQ(__KyIsDbgDumpEnabled(0), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(1), 0);
  EXPECT_EQ(ParseFrom(0x5, ""), 1);
  EXPECT_EQ(ParseFrom(0x5, ","), 0);  // the empty item finds no channel 0
  EXPECT_EQ(ParseFrom(0x5, "hidden"), 0);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x5u);
  EXPECT_EQ(ParseFrom(0x5, "0x8"), 1);  // the hexadecimal form needs no map
  EXPECT_EQ(DebugDumpEnabledMask(), 0xDu);
}

TEST(DebugDumpToolMap, OnlyTheLowHalfOfAMaskTakesPart) {
  static const KyDbgMapEntry map[] = {
      {0x100000001ull, "low"}, {0x200000000ull, "high"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(ParseFrom(0, "low"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1u);
  // Its low half is 0: naming it clears, removing it removes nothing, and
  // it is never enabled.
  EXPECT_EQ(ParseFrom(0x7, "no-high"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x7u);
  EXPECT_EQ(ParseFrom(0x7, "high"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0u);
  SetDebugDumpEnabledMask(0xFFFFFFFFu);
  EXPECT_EQ(__KyIsDbgDumpEnabled(1), 0);
  EXPECT_EQ(__KyIsDbgDumpEnabled(0), 1);
}

TEST(DebugDumpToolMap, AnEmptyNameMatchesOnlyTheEmptyItem) {
  static const KyDbgMapEntry map[] = {{0x1, "one"}, {0x2, ""}, {0x4, "x"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(ParseFrom(0, "x"), 1);
  EXPECT_EQ(DebugDumpEnabledMask(), 0x4u);
  EXPECT_EQ(ParseFrom(0, ","), 1);  // channel 0 comes first
  EXPECT_EQ(DebugDumpEnabledMask(), 0x1u);
}

// ---------------------------------------------------------------------------
// Trace records

class DebugDumpRecord : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    __KySetGetNativeThreadIdProc(ThreadFortyTwo);
  }
};

TEST_F(DebugDumpRecord, ChannelEightFromThreadFortyTwoIsPaddedInBrackets) {
  ASSERT_EQ(__KyParseDbgDumpOption("ZCA"), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_ZCA, "found %d tables in %s", 3, "libc.so");
  EXPECT_EQ(LogText(),
            kLogHeader + kLogRoot + DumpRecord(1, "[ZCA ] [42   ] found 3 tables in libc.so"));
}

TEST_F(DebugDumpRecord, LongNamesAndThreadIdsAreNotCut) {
  __KySetGetNativeThreadIdProc(ThreadWithSevenDigits);
  ASSERT_EQ(__KyParseDbgDumpOption("MEM"), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_KYCORE, "x");
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_DOTNET_MEM, "y");
  ASSERT_EQ(__KyParseDbgDumpOption("DOTNET_MEM"), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_DOTNET_MEM, "z");
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + DumpRecord(1, "[KYCORE] [1234567] x") +
                           DumpRecord(2, "[DOTNET_MEM] [1234567] z"));
}

TEST_F(DebugDumpRecord, ADisabledChannelWritesAndFormatsNothing) {
  ASSERT_EQ(__KyParseDbgDumpOption("API"), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_MEM, "%s", kNeverFormatted);
  EXPECT_FALSE(LogExists());
}

TEST_F(DebugDumpRecord, ChannelZeroNeverDumpsWhateverTheMask) {
  SetDebugDumpEnabledMask(0xFFFFFFFFu);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_NONE, "%s", kNeverFormatted);
  EXPECT_FALSE(LogExists());
}

TEST_F(DebugDumpRecord, AChannelBeyondTheBuiltInMapNeverDumps) {
  SetDebugDumpEnabledMask(0xFFFFFFFFu);
  __KyDbgMessageDumpInternal(KY_DBG_BUILT_IN_CHANNELS, "%s", kNeverFormatted);
  __KyDbgMessageDumpInternal(0xFFFFFFFFu, "%s", kNeverFormatted);
  EXPECT_FALSE(LogExists());
}

TEST_F(DebugDumpRecord, TheTextIsCutTo1023Characters) {
  ASSERT_EQ(__KyParseDbgDumpOption("ZCA"), 1);
  const std::string longText(1500, 'x');
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_ZCA, "%s", longText.c_str());
  const std::string exact(1023, 'y');
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_ZCA, "%s", exact.c_str());
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot +
                           DumpRecord(1, "[ZCA ] [42   ] " + std::string(1023, 'x')) +
                           DumpRecord(2, "[ZCA ] [42   ] " + exact));
}

TEST_F(DebugDumpRecord, ANullFormatIsAnEmptyText) {
  ASSERT_EQ(__KyParseDbgDumpOption("ZCA"), 1);
  const char* const noFormat = nullptr;
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_ZCA, noFormat);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + DumpRecord(1, "[ZCA ] [42   ] "));
}

TEST_F(DebugDumpRecord, TheTextIsWrittenAsACommentUnescaped) {
  ASSERT_EQ(__KyParseDbgDumpOption("CFG"), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_CFG, "a<b & 'c' %d%% -- done", 5);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + DumpRecord(1, "[CFG ] [42   ] a<b & 'c' 5% - done"));
}

TEST_F(DebugDumpRecord, RecordsOfAToolMapCarryItsChannelNames) {
  static const KyDbgMapEntry map[] = {{0x1, "io"}, {0x2, "parser"}, {0, nullptr}};
  ASSERT_EQ(__KyDbgRegisterDbgMap(map), 1);
  ASSERT_EQ(__KyParseDbgDumpOption("io,parser"), 1);
  __KyDbgMessageDumpInternal(0, "read %u bytes", 16u);
  __KyDbgMessageDumpInternal(1, "token");
  __KyDbgMessageDumpInternal(2, "%s", kNeverFormatted);
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + DumpRecord(1, "[io  ] [42   ] read 16 bytes") +
                           DumpRecord(2, "[parser] [42   ] token"));
}

TEST_F(DebugDumpRecord, DumpsShareTheRecordCounterWithOtherRecords) {
  ASSERT_EQ(__KyParseDbgDumpOption("API"), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_API, "one");
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, "between");
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_API, "two");
  EXPECT_EQ(LogText(), kLogHeader + kLogRoot + DumpRecord(1, "[API ] [42   ] one") +
                           DumpRecord(2, "between") + DumpRecord(3, "[API ] [42   ] two"));
}

TEST(DebugDumpBeforeStartup, RecordsAreDropped) {
  KyPosixHostInstall();
  ASSERT_EQ(__KyParseDbgDumpOption("ZCA"), 1);
  EXPECT_EQ(__KyIsDbgDumpEnabled(KY_DBG_CHANNEL_ZCA), 1);
  __KyDbgMessageDumpInternal(KY_DBG_CHANNEL_ZCA, "too early");
  EXPECT_FALSE(LogExists());
}

}  // namespace
