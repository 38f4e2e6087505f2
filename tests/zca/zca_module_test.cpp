// The parser on a real module: a shared library assembled by the system
// toolchain with tables of both versions and every flag combination,
// loaded into this process, its section parsed where the loader put it.
#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/zca.h"
#include "support/log_text.h"
#include "sync/lock_test_support.h"
#include "zca/zca_fixture_expected.h"
#include "zca/zca_fixture_layout.h"
#include "zca/zca_log_expectations.h"

namespace {

using zca_test::ExpectedAnnotation;

using ZcaModule = kyrt_test::RuntimeTest;

struct Record {
  uint64_t address;
  std::string name;
  const uint8_t* expression;
  uint32_t probe;
  uint32_t argumentCount;
  KyZCAArgument argument;
};

int Collect(KyZCARecord* record, void* user) {
  static_cast<std::vector<Record>*>(user)->push_back(
      Record{record->address, record->name, record->expression, record->probe,
             record->argumentCount, record->arguments[0]});
  return 0;
}

ZcaFixtureLayout LoadedLayout() {
  ZcaFixtureLayout layout{};
  zca_fixture_layout(&layout);
  return layout;
}

TEST_F(ZcaModule, TheLoadedSectionHasItsAssembledSizeAndTables) {
  const ZcaFixtureLayout layout = LoadedLayout();
  EXPECT_EQ(layout.sectionSize, zca_test::kFixtureSectionSize);
  EXPECT_EQ(layout.table7Offset, zca_test::kFixtureTable7Offset);
  EXPECT_GT(layout.section, layout.loadBase);
}

TEST_F(ZcaModule, EveryAnnotationOfTheLoadedLibraryIsDelivered) {
  const ZcaFixtureLayout layout = LoadedLayout();
  const auto* section = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(layout.section));
  std::vector<Record> records;
  __KyZCAParseAndProcessRecords(layout.loadBase, section, layout.sectionSize, Collect, &records);

  const std::vector<ExpectedAnnotation> expected = zca_test::FixtureAnnotations(layout);
  ASSERT_EQ(records.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(expected[i].name);
    EXPECT_EQ(records[i].address, expected[i].address);
    EXPECT_EQ(records[i].name, expected[i].name);
    EXPECT_EQ(records[i].probe, expected[i].probe);
    EXPECT_EQ(records[i].argumentCount, 1u);
    EXPECT_EQ(records[i].argument.value, expected[i].value);
    EXPECT_EQ(records[i].argument.isRegister, expected[i].isRegister);
    EXPECT_EQ(records[i].argument.offset, expected[i].offset);
    EXPECT_GE(records[i].expression, section);
    EXPECT_LT(records[i].expression, section + layout.sectionSize);
  }
  EXPECT_EQ(kyrt_test::LogText(), zca_test::InfoLog(zca_test::FixtureLogTexts()));
}

TEST_F(ZcaModule, PcRelativeAnnotationsPointAtTheLoadedFunctions) {
  const ZcaFixtureLayout layout = LoadedLayout();
  const auto* section = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(layout.section));
  std::vector<Record> records;
  __KyZCAParseAndProcessRecords(0, section, layout.sectionSize, Collect, &records);
  std::vector<uint64_t> targets;
  for (const Record& record : records) {
    if (record.name == "v12_pcrel" || record.name == "v12_pcrel_probe" ||
        record.name == "v12_pcrel_32bit" || record.name == "v12_all_flags") {
      targets.push_back(record.address);
    }
  }
  EXPECT_EQ(targets, std::vector<uint64_t>(layout.targets, layout.targets + ZCA_FIXTURE_TARGETS));
}

}  // namespace
