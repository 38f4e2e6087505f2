// kyrt-zca on damaged copies of the shared test module: a truncated file,
// section headers pointing past the file, a section cut inside its tables,
// and tables whose offsets, magic or version are wrong. Every one gives a
// clean error (exit status 1), after the annotations read before the damage.
#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/test_files.h"
#include "tools/kyrt_zca_test_support.h"
#include "zca/zca_fixture_expected.h"

namespace {

using kyrt_zca_test::ModuleText;
using kyrt_zca_test::RunZca;
using kyrt_zca_test::SectionInFile;
using kyrt_zca_test::ToolRun;

const std::string kDamaged = "damaged.so";

// Offsets of the section header's fields.
constexpr uint64_t kHeaderOffsetField = 24;  // sh_offset
constexpr uint64_t kHeaderSizeField = 32;    // sh_size

class KyrtZcaDamaged : public ::testing::Test {
 protected:
  void SetUp() override {
    image_ = kyrt_test::ReadFile(KYRT_ZCA_FIXTURE_MODULE);
    section_ = kyrt_zca_test::FindAnnotationSection(image_);
    ASSERT_TRUE(section_.found);
    ASSERT_EQ(section_.size, zca_test::kFixtureSectionSize);
    tables_ = zca_test::FixtureTables(kyrt_zca_test::LinkedFixtureLayout());
    sectionAddress_ = kyrt_zca_test::LinkedFixtureLayout().section;
  }

  // Writes the damaged image and runs kyrt-zca on it.
  ToolRun Run() {
    kyrt_test::WriteFile(kDamaged, image_);
    return RunZca({kDamaged});
  }

  void PatchSection32(uint64_t offset, uint32_t value) {
    kyrt_zca_test::Put32(&image_, section_.offset + offset, value);
  }

  // The output for the first count tables of the section, read whole, then
  // the header line of the table the damage stopped (if any).
  std::string TextUpTo(std::size_t count, uint64_t size, const std::string& stoppedTable = "") {
    const std::vector<zca_test::ExpectedTable> read(tables_.begin(), tables_.begin() + count);
    return ModuleText(kDamaged, sectionAddress_, size, read) + stoppedTable;
  }

  static std::string Damage(const std::string& message) {
    return "kyrt-zca: " + kDamaged + ": damaged .qzv_notify_tab section: " + message + "\n";
  }

  std::string image_;
  SectionInFile section_;
  std::vector<zca_test::ExpectedTable> tables_;
  uint64_t sectionAddress_ = 0;
};

TEST_F(KyrtZcaDamaged, TheUndamagedCopyReadsWhole) {
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, TextUpTo(tables_.size(), zca_test::kFixtureSectionSize));
}

TEST_F(KyrtZcaDamaged, AFileCutInsideTheSectionIsADamagedElfFile) {
  image_.resize(section_.offset + 100);
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "module \"" + kDamaged + "\"\n");
  EXPECT_EQ(run.err, "kyrt-zca: " + kDamaged +
                         ": damaged ELF file: the section headers lie past the end of the file\n");
}

TEST_F(KyrtZcaDamaged, ASectionReachingPastTheFileEndIsDamaged) {
  kyrt_zca_test::Put64(&image_, section_.headerOffset + kHeaderSizeField, image_.size());
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "module \"" + kDamaged + "\"\n");
  EXPECT_EQ(run.err.rfind("kyrt-zca: " + kDamaged + ": damaged .qzv_notify_tab section: ", 0), 0u)
      << run.err;
}

TEST_F(KyrtZcaDamaged, ASectionStartingPastTheFileEndIsDamaged) {
  kyrt_zca_test::Put64(&image_, section_.headerOffset + kHeaderOffsetField, 0x7FFFFFFF0000);
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("kyrt-zca: " + kDamaged + ": damaged .qzv_notify_tab section: ", 0), 0u)
      << run.err;
}

TEST_F(KyrtZcaDamaged, ASectionCutInsideATablesEntriesKeepsTheTablesBefore) {
  // Table 4 starts at 260; its two 20-byte entries would end at 348.
  kyrt_zca_test::Put64(&image_, section_.headerOffset + kHeaderSizeField, 330);
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(3, 330, "table offset 0x104 version 1.2 flags 0x2 entries 2\n"));
  EXPECT_EQ(run.err, Damage("zca_parser: incorrect number of zca items"));
}

TEST_F(KyrtZcaDamaged, ASectionCutInsideAHeaderIsAnInvalidSize) {
  kyrt_zca_test::Put64(&image_, section_.headerOffset + kHeaderSizeField, 184 + 20);
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(2, 204));
  EXPECT_EQ(run.err, Damage("ZCA parser: invalid zca section size"));
}

TEST_F(KyrtZcaDamaged, ANameOffsetOutOfRange) {
  PatchSection32(184 + 48 + 8, 0x7FFFFFFF);  // table 3, its entry's name
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(2, zca_test::kFixtureSectionSize,
                              "table offset 0xb8 version 1.2 flags 0x1 entries 1\n"));
  EXPECT_EQ(run.err, Damage("zca_parser: incorrect zca name offset"));
}

TEST_F(KyrtZcaDamaged, AStringTableOffsetOutOfRange) {
  PatchSection32(106 + 24, 0xFFFFFF00);  // table 2's string table
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(1, zca_test::kFixtureSectionSize,
                              "table offset 0x6a version 1.2 flags 0x0 entries 1\n"));
  EXPECT_EQ(run.err, Damage("zca_parser: incorrect zca name offset"));
}

TEST_F(KyrtZcaDamaged, AnExpressionOffsetOutOfRangeKeepsTheEntriesBefore) {
  PatchSection32(36 + 20 + 16, 0xFFFFFF00);  // table 1, its second entry's expression
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  const zca_test::ExpectedTable& first = tables_[0];
  EXPECT_EQ(run.out, TextUpTo(0, zca_test::kFixtureSectionSize,
                              "table offset 0x0 version 1.1 flags 0x0 entries 2\n" +
                                  kyrt_zca_test::AnnotationLine(first.annotations[0])));
  EXPECT_EQ(run.err, Damage("zca_parser: incorrect zca expression offset"));
}

TEST_F(KyrtZcaDamaged, AnExpressionLengthRunningPastTheSection) {
  // Table 9's expression (03 8F E4 00) is 4 bytes before the padding: a
  // length of 0x7F runs past the section end.
  PatchSection32(799 + 48 + 20 + 14, 0x00E48F7F);
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(8, zca_test::kFixtureSectionSize,
                              "table offset 0x31f version 1.2 flags 0x7 entries 1\n"));
  EXPECT_EQ(run.err, Damage("zca_parser: incorrect zca expression length"));
}

TEST_F(KyrtZcaDamaged, AWrongMagicStopsTheSection) {
  image_[section_.offset + 377 + 1] = 'Q';  // table 5
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(4, zca_test::kFixtureSectionSize));
  EXPECT_EQ(run.err, Damage("zca_parser: Incorrect zca header format"));
}

TEST_F(KyrtZcaDamaged, AnUnknownVersionIsReportedAsFound) {
  image_[section_.offset + 463 + 16] = 0x03;  // table 6: version 0x0103
  const ToolRun run = Run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, TextUpTo(5, zca_test::kFixtureSectionSize));
  EXPECT_EQ(run.err, Damage("zca_parser: Expected zca version 1.3"));
}

TEST_F(KyrtZcaDamaged, JsonNamesTheDamageInTheSectionAndTheModule) {
  kyrt_zca_test::Put64(&image_, section_.headerOffset + kHeaderSizeField, 330);
  kyrt_test::WriteFile(kDamaged, image_);
  const ToolRun run = RunZca({"--json", kDamaged});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out.rfind("{\"modules\":[\n{\"path\":\"damaged.so\",\"status\":\"error\","
                          "\"error\":\"damaged .qzv_notify_tab section: zca_parser: incorrect "
                          "number of zca items\",\"sections\":[",
                          0),
            0u)
      << run.out;
  EXPECT_NE(run.out.find("{\"offset\":260,\"version\":\"1.2\",\"flags\":\"0x2\",\"entries\":2,"
                         "\"annotations\":[]}],\"error\":\"zca_parser: incorrect number of zca "
                         "items\"}],\"external\":[]}\n]}\n"),
            std::string::npos)
      << run.out;
}

}  // namespace
