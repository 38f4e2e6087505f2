// The module table: lookups with exclusive bounds, first-record-wins loads,
// private name copies, the level rule of the skip list (every record gets
// the table's top level at its insertion, a draw at or below 0x0CCCCCCB
// raises it first, never past level 10) and the lowering of the top level
// on unload.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/modules.h"
#include "runtime/module_table.h"

namespace {

constexpr int kRaiseDraw = 0x0CCCCCCB;     // the highest draw that raises the top level
constexpr int kKeepDraw = kRaiseDraw + 1;  // the lowest draw that does not
constexpr int kTopLevelCap = KY_MODULE_MAX_LEVELS - 1;

// Draws handed out in order to the insertions of a case.
struct DrawScript {
  std::vector<int> values;
  std::size_t used = 0;
};
DrawScript g_drawScript;

int ScriptedDraw() {
  if (g_drawScript.used == g_drawScript.values.size()) {
    ADD_FAILURE() << "more draws than scripted";
    return kKeepDraw;
  }
  return g_drawScript.values[g_drawScript.used++];
}

void ScriptDraws(std::vector<int> values) {
  g_drawScript = DrawScript{std::move(values), 0};
  kyrt::SetModuleLevelDrawForTesting(ScriptedDraw);
}

int AlwaysRaise() {
  ++g_drawScript.used;
  return kRaiseDraw;
}

int NeverRaise() {
  ++g_drawScript.used;
  return kKeepDraw;
}

void UseDraw(kyrt::ModuleLevelDraw draw) {
  g_drawScript = DrawScript();
  kyrt::SetModuleLevelDrawForTesting(draw);
}

const KyModule* Head() {
  return kyrt::ModuleTableHeadForTesting();
}

int32_t TopLevel() {
  return kyrt::ModuleTableTopLevelForTesting();
}

// The low addresses of the records linked on level, in link order.
std::vector<uint64_t> LowsOnLevel(int level) {
  std::vector<uint64_t> lows;
  const KyModule* head = Head();
  if (head == nullptr) return lows;
  for (const KyModule* record = head->next[level]; record != head; record = record->next[level]) {
    lows.push_back(record->low);
  }
  return lows;
}

// Checks that every level links exactly the records whose level reaches it,
// in ascending order, and that all levels above stay empty.
void ExpectLevels(const std::map<uint64_t, int>& levelOfLow) {
  for (int level = 0; level < KY_MODULE_MAX_LEVELS; ++level) {
    std::vector<uint64_t> expected;
    for (const auto& [low, recordLevel] : levelOfLow) {
      if (recordLevel >= level) expected.push_back(low);
    }
    EXPECT_EQ(LowsOnLevel(level), expected) << "level " << level;
  }
}

class ModuleTableTest : public ::testing::Test {
 protected:
  void SetUp() override { UseDraw(NeverRaise); }

  void TearDown() override {
    kyrt::SetModuleLevelDrawForTesting(nullptr);
    for (uint64_t low : LowsOnLevel(0)) __KyUnloadModule(low);
  }
};

// ---------------------------------------------------------------------------
// Before the first load

TEST_F(ModuleTableTest, BeforeTheFirstLoadThereIsNoHeadAndNothingIsFound) {
  EXPECT_EQ(Head(), nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(0x1001), nullptr);
  const char* name = "untouched";
  EXPECT_EQ(__KyGetModuleForVariable(0x1001, &name), 0u);
  EXPECT_STREQ(name, "untouched");
  __KyUnloadModule(0x1000);
  EXPECT_EQ(Head(), nullptr);
}

TEST_F(ModuleTableTest, TheFirstLoadCreatesAHeadWhoseEmptyLevelsPointBackToIt) {
  KyModule* record = __KyLoadModule("a.so", 0x1000, 0x2000);
  const KyModule* head = Head();
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(TopLevel(), 0);
  EXPECT_EQ(head->next[0], record);
  EXPECT_EQ(record->next[0], head);
  for (int level = 1; level < KY_MODULE_MAX_LEVELS; ++level) EXPECT_EQ(head->next[level], head);
}

// ---------------------------------------------------------------------------
// Lookups

TEST_F(ModuleTableTest, AModulesOwnLowAddressIsNotInIt) {
  __KyLoadModule("a.so", 0x1000, 0x2000);
  EXPECT_EQ(__KyFindModuleByAddress(0x1000), nullptr);
}

TEST_F(ModuleTableTest, TheAddressAfterTheLowAddressIsInIt) {
  KyModule* record = __KyLoadModule("a.so", 0x1000, 0x2000);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(0x1001), record);
  EXPECT_EQ(__KyFindModuleByAddress(0x1FFF), record);
}

TEST_F(ModuleTableTest, TheHighAddressIsNotInIt) {
  __KyLoadModule("a.so", 0x1000, 0x2000);
  EXPECT_EQ(__KyFindModuleByAddress(0x2000), nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(0x2001), nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(0xFFF), nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(0), nullptr);
}

TEST_F(ModuleTableTest, ALoadKeepsTheFieldsItWasGiven) {
  KyModule* record = __KyLoadModule("a.so", 0x1000, 0x2000);
  ASSERT_NE(record, nullptr);
  EXPECT_STREQ(record->name, "a.so");
  EXPECT_EQ(record->low, 0x1000u);
  EXPECT_EQ(record->high, 0x2000u);
}

TEST_F(ModuleTableTest, OnlyTheModuleWithTheGreatestLowBelowTheAddressIsConsidered) {
  KyModule* outer = __KyLoadModule("outer.so", 0x1000, 0x9000);
  KyModule* inner = __KyLoadModule("inner.so", 0x2000, 0x3000);
  EXPECT_EQ(__KyFindModuleByAddress(0x1800), outer);
  EXPECT_EQ(__KyFindModuleByAddress(0x2000), outer);
  EXPECT_EQ(__KyFindModuleByAddress(0x2800), inner);
  // inner has the greatest low below 0x4000 and ends before it: outer,
  // which would hold the address, is not looked at.
  EXPECT_EQ(__KyFindModuleByAddress(0x4000), nullptr);
}

TEST_F(ModuleTableTest, RecordsAreOrderedByLowWhateverTheLoadOrder) {
  __KyLoadModule("e", 0x5000, 0x5800);
  __KyLoadModule("a", 0x1000, 0x1800);
  __KyLoadModule("c", 0x3000, 0x3800);
  __KyLoadModule("b", 0x2000, 0x2800);
  EXPECT_EQ(LowsOnLevel(0), (std::vector<uint64_t>{0x1000, 0x2000, 0x3000, 0x5000}));
  EXPECT_STREQ(__KyFindModuleByAddress(0x2001)->name, "b");
  EXPECT_STREQ(__KyFindModuleByAddress(0x57FF)->name, "e");
  EXPECT_EQ(__KyFindModuleByAddress(0x4000), nullptr);
}

TEST_F(ModuleTableTest, TheFullAddressRangeCanBeUsed) {
  KyModule* top = __KyLoadModule("top", UINT64_MAX - 0x1000, UINT64_MAX);
  KyModule* bottom = __KyLoadModule("bottom", 0, 0x1000);
  EXPECT_EQ(__KyFindModuleByAddress(1), bottom);
  EXPECT_EQ(__KyFindModuleByAddress(0), nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(UINT64_MAX - 1), top);
  EXPECT_EQ(__KyFindModuleByAddress(UINT64_MAX), nullptr);
}

TEST_F(ModuleTableTest, ModuleForVariableGivesTheLowAndTheName) {
  KyModule* record = __KyLoadModule("libtool.so", 0x40000, 0x48000);
  const char* name = nullptr;
  EXPECT_EQ(__KyGetModuleForVariable(0x40001, &name), 0x40000u);
  EXPECT_EQ(name, record->name);
  EXPECT_STREQ(name, "libtool.so");
}

TEST_F(ModuleTableTest, ModuleForVariableOutsideEveryModuleGivesZeroAndKeepsTheName) {
  __KyLoadModule("libtool.so", 0x40000, 0x48000);
  for (uint64_t address : {0x40000ull, 0x48000ull, 0x3FFFFull}) {
    const char* name = "untouched";
    EXPECT_EQ(__KyGetModuleForVariable(address, &name), 0u) << std::hex << address;
    EXPECT_STREQ(name, "untouched");
  }
}

// ---------------------------------------------------------------------------
// Loads

TEST_F(ModuleTableTest, LoadingTheSameLowTwiceKeepsTheFirstNameAndHigh) {
  KyModule* first = __KyLoadModule("first.so", 0x1000, 0x2000);
  KyModule* second = __KyLoadModule("second.so", 0x1000, 0x8000);
  EXPECT_EQ(second, first);
  EXPECT_STREQ(first->name, "first.so");
  EXPECT_EQ(first->high, 0x2000u);
  EXPECT_EQ(__KyFindModuleByAddress(0x3000), nullptr);
  EXPECT_EQ(LowsOnLevel(0), std::vector<uint64_t>{0x1000});
}

TEST_F(ModuleTableTest, ARepeatedLoadDrawsNothing) {
  __KyLoadModule("first.so", 0x1000, 0x2000);
  EXPECT_EQ(g_drawScript.used, 1u);
  __KyLoadModule("again.so", 0x1000, 0x2000);
  EXPECT_EQ(g_drawScript.used, 1u);
}

TEST_F(ModuleTableTest, TheNameIsAPrivateCopy) {
  char name[] = "libcopy.so";
  KyModule* record = __KyLoadModule(name, 0x1000, 0x2000);
  name[0] = 'X';
  EXPECT_NE(record->name, name);
  EXPECT_STREQ(record->name, "libcopy.so");
}

TEST_F(ModuleTableTest, ANullNameIsKeptAsNull) {
  KyModule* record = __KyLoadModule(nullptr, 0x1000, 0x2000);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->name, nullptr);
  const char* name = "untouched";
  EXPECT_EQ(__KyGetModuleForVariable(0x1800, &name), 0x1000u);
  EXPECT_EQ(name, nullptr);
}

// ---------------------------------------------------------------------------
// Levels

TEST_F(ModuleTableTest, ADrawAtTheThresholdRaisesTheTopLevel) {
  ScriptDraws({kRaiseDraw});
  __KyLoadModule("a", 0x1000, 0x2000);
  EXPECT_EQ(TopLevel(), 1);
  ExpectLevels({{0x1000, 1}});
}

TEST_F(ModuleTableTest, ADrawJustAboveTheThresholdKeepsTheTopLevel) {
  ScriptDraws({kKeepDraw});
  __KyLoadModule("a", 0x1000, 0x2000);
  EXPECT_EQ(TopLevel(), 0);
  ExpectLevels({{0x1000, 0}});
}

TEST_F(ModuleTableTest, ADrawOfZeroRaisesTheTopLevel) {
  ScriptDraws({0});
  __KyLoadModule("a", 0x1000, 0x2000);
  EXPECT_EQ(TopLevel(), 1);
}

TEST_F(ModuleTableTest, EveryRecordGetsTheTopLevelAtItsInsertion) {
  ScriptDraws({kKeepDraw, kRaiseDraw, kKeepDraw, kRaiseDraw, kKeepDraw});
  __KyLoadModule("e", 0x5000, 0x5800);  // level 0
  __KyLoadModule("a", 0x1000, 0x1800);  // raises to 1
  __KyLoadModule("c", 0x3000, 0x3800);  // 1
  __KyLoadModule("b", 0x2000, 0x2800);  // raises to 2
  __KyLoadModule("d", 0x4000, 0x4800);  // 2
  EXPECT_EQ(TopLevel(), 2);
  ExpectLevels({{0x1000, 1}, {0x2000, 2}, {0x3000, 1}, {0x4000, 2}, {0x5000, 0}});
  for (uint64_t low = 0x1000; low <= 0x5000; low += 0x1000) {
    const KyModule* record = __KyFindModuleByAddress(low + 1);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->low, low);
  }
}

TEST_F(ModuleTableTest, TheTopLevelStopsAtTenAndThenNothingIsDrawn) {
  UseDraw(AlwaysRaise);
  std::map<uint64_t, int> levels;
  for (int i = 1; i <= kTopLevelCap + 2; ++i) {
    const uint64_t low = 0x1000u * static_cast<uint64_t>(i);
    __KyLoadModule("m", low, low + 0x800);
    levels[low] = i < kTopLevelCap ? i : kTopLevelCap;
  }
  EXPECT_EQ(TopLevel(), kTopLevelCap);
  // Draws were made at top levels 0 to 9 only.
  EXPECT_EQ(g_drawScript.used, static_cast<std::size_t>(kTopLevelCap));
  ExpectLevels(levels);
}

TEST_F(ModuleTableTest, AtTopLevelNineTheDrawStillDecides) {
  std::vector<int> draws(kTopLevelCap - 1, kRaiseDraw);
  draws.push_back(kKeepDraw);
  draws.push_back(kRaiseDraw);
  ScriptDraws(draws);
  for (int i = 1; i <= kTopLevelCap - 1; ++i) __KyLoadModule("m", 0x1000u * i, 0x1000u * i + 1);
  EXPECT_EQ(TopLevel(), kTopLevelCap - 1);
  __KyLoadModule("kept", 0x20000, 0x20001);
  EXPECT_EQ(TopLevel(), kTopLevelCap - 1);
  __KyLoadModule("raised", 0x30000, 0x30001);
  EXPECT_EQ(TopLevel(), kTopLevelCap);
  EXPECT_EQ(LowsOnLevel(kTopLevelCap), std::vector<uint64_t>{0x30000});
}

TEST_F(ModuleTableTest, TheDefaultDrawIsTheCLibraryRand) {
  kyrt::SetModuleLevelDrawForTesting(nullptr);
  constexpr unsigned kSeed = 20240611;
  constexpr int kModules = 300;
  // Replays the draws the insertions will make.
  std::srand(kSeed);
  std::map<uint64_t, int> levels;
  std::vector<uint64_t> lows;
  int top = 0;
  for (int i = 0; i < kModules; ++i) {
    const uint64_t low = 0x1000u * static_cast<uint64_t>((i * 7919) % kModules + 1);
    if (top < kTopLevelCap && std::rand() <= kRaiseDraw) ++top;
    levels[low] = top;
    lows.push_back(low);
  }
  std::srand(kSeed);
  for (uint64_t low : lows) ASSERT_NE(__KyLoadModule("m", low, low + 0x800), nullptr);
  EXPECT_EQ(TopLevel(), top);
  ExpectLevels(levels);
}

// ---------------------------------------------------------------------------
// Unloads

TEST_F(ModuleTableTest, UnloadRemovesOnlyTheModuleWithThatLow) {
  __KyLoadModule("a", 0x1000, 0x2000);
  __KyLoadModule("b", 0x3000, 0x4000);
  __KyUnloadModule(0x1000);
  EXPECT_EQ(__KyFindModuleByAddress(0x1800), nullptr);
  ASSERT_NE(__KyFindModuleByAddress(0x3800), nullptr);
  EXPECT_STREQ(__KyFindModuleByAddress(0x3800)->name, "b");
  EXPECT_EQ(LowsOnLevel(0), std::vector<uint64_t>{0x3000});
}

TEST_F(ModuleTableTest, UnloadOfAnUnknownLowChangesNothing) {
  KyModule* record = __KyLoadModule("a", 0x1000, 0x2000);
  __KyUnloadModule(0x1001);
  __KyUnloadModule(0xFFF);
  __KyUnloadModule(0x2000);
  EXPECT_EQ(__KyFindModuleByAddress(0x1800), record);
  EXPECT_EQ(LowsOnLevel(0), std::vector<uint64_t>{0x1000});
}

TEST_F(ModuleTableTest, AnUnloadedLowCanBeLoadedAfresh) {
  __KyLoadModule("old.so", 0x1000, 0x2000);
  __KyUnloadModule(0x1000);
  KyModule* fresh = __KyLoadModule("new.so", 0x1000, 0x3000);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(__KyFindModuleByAddress(0x2800), fresh);
  EXPECT_STREQ(fresh->name, "new.so");
}

TEST_F(ModuleTableTest, UnloadingTheLastRecordOfTheTopLevelLowersIt) {
  ScriptDraws({kKeepDraw, kRaiseDraw});
  __KyLoadModule("a", 0x1000, 0x2000);
  __KyLoadModule("b", 0x3000, 0x4000);
  ASSERT_EQ(TopLevel(), 1);
  __KyUnloadModule(0x3000);
  EXPECT_EQ(TopLevel(), 0);
  EXPECT_EQ(Head()->next[1], Head());
  ExpectLevels({{0x1000, 0}});
}

TEST_F(ModuleTableTest, AnUnloadThatLeavesTheTopLevelOccupiedKeepsIt) {
  ScriptDraws({kRaiseDraw, kKeepDraw});
  __KyLoadModule("a", 0x1000, 0x2000);
  __KyLoadModule("b", 0x3000, 0x4000);
  ASSERT_EQ(TopLevel(), 1);
  __KyUnloadModule(0x1000);
  EXPECT_EQ(TopLevel(), 1);
  ExpectLevels({{0x3000, 1}});
}

TEST_F(ModuleTableTest, TheTopLevelNeverGoesBelowZero) {
  __KyLoadModule("a", 0x1000, 0x2000);
  __KyUnloadModule(0x1000);
  EXPECT_EQ(TopLevel(), 0);
  ASSERT_NE(Head(), nullptr);
  for (int level = 0; level < KY_MODULE_MAX_LEVELS; ++level) EXPECT_EQ(Head()->next[level], Head());
  __KyUnloadModule(0x1000);
  EXPECT_EQ(TopLevel(), 0);
}

TEST_F(ModuleTableTest, EmptyingTheTableLowersTheTopLevelToZero) {
  ScriptDraws({kRaiseDraw, kRaiseDraw, kRaiseDraw});
  __KyLoadModule("one", 0x1000, 0x2000);    // level 1
  __KyLoadModule("two", 0x2000, 0x3000);    // level 2
  __KyLoadModule("three", 0x3000, 0x4000);  // level 3
  ASSERT_EQ(TopLevel(), 3);
  __KyUnloadModule(0x3000);
  EXPECT_EQ(TopLevel(), 2);
  __KyUnloadModule(0x1000);
  EXPECT_EQ(TopLevel(), 2);
  ExpectLevels({{0x2000, 2}});
  __KyUnloadModule(0x2000);
  EXPECT_EQ(TopLevel(), 0);
  ExpectLevels({});
}

TEST_F(ModuleTableTest, AfterUnloadsTheLevelsStillLinkEveryRemainingRecord) {
  kyrt::SetModuleLevelDrawForTesting(nullptr);
  std::srand(7);
  constexpr int kModules = 500;
  for (int i = 0; i < kModules; ++i) {
    const uint64_t low = 0x10000u + 0x1000u * static_cast<uint64_t>((i * 211) % kModules);
    ASSERT_NE(__KyLoadModule("m", low, low + 0x800), nullptr);
  }
  std::map<uint64_t, int> levels;
  for (int level = 0; level < KY_MODULE_MAX_LEVELS; ++level) {
    for (uint64_t low : LowsOnLevel(level)) levels[low] = level;
  }
  ASSERT_EQ(levels.size(), static_cast<std::size_t>(kModules));
  for (int i = 0; i < kModules; i += 2) {
    const uint64_t low = 0x10000u + 0x1000u * static_cast<uint64_t>(i);
    __KyUnloadModule(low);
    levels.erase(low);
  }
  ExpectLevels(levels);
  int highest = 0;
  for (const auto& entry : levels) highest = std::max(highest, entry.second);
  EXPECT_EQ(TopLevel(), highest);
  for (int i = 0; i < kModules; ++i) {
    const uint64_t low = 0x10000u + 0x1000u * static_cast<uint64_t>(i);
    const KyModule* record = __KyFindModuleByAddress(low + 1);
    if (i % 2 == 0) {
      EXPECT_EQ(record, nullptr) << std::hex << low;
    } else {
      ASSERT_NE(record, nullptr) << std::hex << low;
      EXPECT_EQ(record->low, low);
      EXPECT_EQ(__KyFindModuleByAddress(low + 0x7FF), record);
    }
    EXPECT_EQ(__KyFindModuleByAddress(low), nullptr);
    EXPECT_EQ(__KyFindModuleByAddress(low + 0x800), nullptr);
  }
}

}  // namespace
