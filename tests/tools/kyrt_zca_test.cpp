// kyrt-zca on real modules assembled by the system toolchain: a shared
// library (the one loaded into this test), an executable and an object
// file; text and JSON output, external definitions, the command line.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/test_files.h"
#include "tools/kyrt_zca_test_support.h"
#include "zca/zca_fixture_expected.h"
#include "zca/zca_fixture_layout.h"

namespace {

using kyrt_test::WriteFile;
using kyrt_zca_test::Address;
using kyrt_zca_test::Hex;
using kyrt_zca_test::ModuleText;
using kyrt_zca_test::RunProgram;
using kyrt_zca_test::RunZca;
using kyrt_zca_test::ToolRun;

const std::string kModule = KYRT_ZCA_FIXTURE_MODULE;
const std::string kProgram = KYRT_ZCA_FIXTURE_PROGRAM;
const std::string kObject = KYRT_ZCA_FIXTURE_OBJECT;
const std::string kWithoutSection = KYRT_ZCA_MODULE_WITHOUT_SECTION;

constexpr uint64_t kObjectSectionSize = 228;

// The object file's tables (zca_fixture_object.S) for a load address.
std::vector<zca_test::ExpectedTable> ObjectTables(uint64_t base) {
  return {
      {0, 0x0101, 0, {{base + 0x500, "obj_v11", 3, zca_test::kConstant, 5, 0, 0}}},
      {68, 0x0102, 1, {{base + 68 + 0x40, "obj_pcrel", 0, zca_test::kRegister, 6, 1, 0}}},
      {144,
       0x0102,
       6,
       {{0xFFFFFFFF90000000, "obj_probe32", 0x11, zca_test::kRegisterOffset, 1, 1, 128}}},
  };
}

// The executable's layout, as it prints it when run.
ZcaFixtureLayout RunProgramForItsLayout() {
  const ToolRun run = RunProgram({kProgram});
  EXPECT_EQ(run.status, 0) << run.err;
  ZcaFixtureLayout layout{};
  std::istringstream lines(run.out);
  std::string key;
  std::string value;
  int target = 0;
  while (lines >> key >> value) {
    const uint64_t number = std::strtoull(value.c_str(), nullptr, 16);
    if (key == "load_base") layout.loadBase = number;
    if (key == "section") layout.section = number;
    if (key == "section_size") layout.sectionSize = number;
    if (key == "table7_offset") layout.table7Offset = number;
    if (key == "target" && target < ZCA_FIXTURE_TARGETS) layout.targets[target++] = number;
  }
  EXPECT_EQ(target, ZCA_FIXTURE_TARGETS);
  return layout;
}

TEST(KyrtZca, ASharedLibrarysAnnotationsAreThoseTheRuntimeFindsOnceItIsLoaded) {
  ZcaFixtureLayout layout{};
  zca_fixture_layout(&layout);
  const ToolRun run = RunZca({"--base", Hex(layout.loadBase), kModule});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, ModuleText(kModule, layout.section, zca_test::kFixtureSectionSize,
                                zca_test::FixtureTables(layout)));
}

TEST(KyrtZca, AnExecutablesAnnotationsMatchWhatItsRunShows) {
  const ZcaFixtureLayout layout = RunProgramForItsLayout();
  ASSERT_EQ(layout.sectionSize, zca_test::kFixtureSectionSize);
  const ToolRun run = RunZca({"--base=" + Hex(layout.loadBase), kProgram});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, ModuleText(kProgram, layout.section, zca_test::kFixtureSectionSize,
                                zca_test::FixtureTables(layout)));
}

TEST(KyrtZca, WithoutABaseTheModuleIsTakenAsLoadedAtAddress0) {
  const ZcaFixtureLayout linked = kyrt_zca_test::LinkedFixtureLayout();
  const ToolRun run = RunZca({kModule});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, ModuleText(kModule, linked.section, zca_test::kFixtureSectionSize,
                                zca_test::FixtureTables(linked)));
}

TEST(KyrtZca, AnObjectFilesSectionLiesAtTheBase) {
  const ToolRun run = RunZca({"--base", "0x10000", kObject});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, ModuleText(kObject, 0x10000, kObjectSectionSize, ObjectTables(0x10000)));
}

TEST(KyrtZca, TheBaseMayBeDecimalOrOctal) {
  EXPECT_EQ(RunZca({"--base", "65536", kObject}).out,
            ModuleText(kObject, 0x10000, kObjectSectionSize, ObjectTables(0x10000)));
  EXPECT_EQ(RunZca({"--base", "0200000", kObject}).out,
            ModuleText(kObject, 0x10000, kObjectSectionSize, ObjectTables(0x10000)));
}

TEST(KyrtZca, SeveralModulesArePrintedInOrder) {
  const ToolRun run = RunZca({kObject, kObject});
  EXPECT_EQ(run.status, 0);
  const std::string one = ModuleText(kObject, 0, kObjectSectionSize, ObjectTables(0));
  EXPECT_EQ(run.out, one + one);
}

TEST(KyrtZca, JsonOutputOfAnObjectFile) {
  const ToolRun run = RunZca({"--json", "--base", "0x10000", kObject});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(
      run.out,
      "{\"modules\":[\n"
      "{\"path\":\"" +
          kObject +
          "\",\"status\":\"annotated\",\"sections\":["
          "{\"address\":\"0x10000\",\"size\":228,\"tables\":["
          "{\"offset\":0,\"version\":\"1.1\",\"flags\":\"0x0\",\"entries\":1,\"annotations\":["
          "{\"address\":\"0x10500\",\"name\":\"obj_v11\",\"probe\":3,"
          "\"location\":{\"kind\":\"constant\",\"value\":5}}]},"
          "{\"offset\":68,\"version\":\"1.2\",\"flags\":\"0x1\",\"entries\":1,\"annotations\":["
          "{\"address\":\"0x10084\",\"name\":\"obj_pcrel\",\"probe\":0,"
          "\"location\":{\"kind\":\"register\",\"register\":6}}]},"
          "{\"offset\":144,\"version\":\"1.2\",\"flags\":\"0x6\",\"entries\":1,\"annotations\":["
          "{\"address\":\"0xffffffff90000000\",\"name\":\"obj_probe32\",\"probe\":17,"
          "\"location\":{\"kind\":\"register-offset\",\"register\":1,\"offset\":128}}]}]}],"
          "\"external\":[]}\n"
          "]}\n");
}

TEST(KyrtZca, JsonShowsEveryLocationKind) {
  const ToolRun run = RunZca({"--json", kModule});
  EXPECT_EQ(run.status, 0);
  for (const char* location :
       {"{\"kind\":\"constant\",\"value\":3}", "{\"kind\":\"register\",\"register\":5}",
        "{\"kind\":\"register-offset\",\"register\":7,\"offset\":-4}",
        "{\"kind\":\"unknown-operation\"}", "{\"kind\":\"unsupported\"}"}) {
    EXPECT_NE(run.out.find(location), std::string::npos) << location;
  }
}

TEST(KyrtZca, JsonReportsEveryModuleWithItsStatus) {
  const ToolRun run = RunZca({"--json", kObject, "missing.so", kWithoutSection});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.out.find("{\"path\":\"missing.so\",\"status\":\"error\",\"error\":\"cannot open: "
                         "No such file or directory\",\"sections\":[],\"external\":[]},\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("{\"path\":\"" + kWithoutSection +
                         "\",\"status\":\"no-section\",\"sections\":[],\"external\":[]}\n]}\n"),
            std::string::npos)
      << run.out;
  EXPECT_EQ(
      run.out.rfind("{\"modules\":[\n{\"path\":\"" + kObject + "\",\"status\":\"annotated\"", 0),
      0u);
}

TEST(KyrtZca, NamesAreQuotedWithTheirSpecialBytesEscaped) {
  std::string image = kyrt_test::ReadFile(kObject);
  const kyrt_zca_test::SectionInFile section = kyrt_zca_test::FindAnnotationSection(image);
  ASSERT_TRUE(section.found);
  const uint64_t name = section.offset + 56;  // "obj_v11", the first table's string table
  ASSERT_EQ(image.compare(name, 8, std::string("obj_v11\0", 8)), 0);
  image.replace(name, 7,
                std::string("o\"\\ \x01\xC3"
                            "1"));
  WriteFile("names.o", image);
  const ToolRun text = RunZca({"names.o"});
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("annotation 0x0000000000000500 \"o\\x22\\x5c \\x01\\xc31\" probe 0x3 "
                          "constant 5\n"),
            std::string::npos)
      << text.out;
  const ToolRun json = RunZca({"--json", "names.o"});
  EXPECT_NE(json.out.find("\"name\":\"o\\\"\\\\ \\u0001\\u00c31\""), std::string::npos) << json.out;
}

// ---------------------------------------------------------------------------
// External definitions

TEST(KyrtZca, MatchingDefinitionsArePrintedAfterTheSectionsAnnotations) {
  const std::string objectName = kObject.substr(kObject.rfind('/') + 1);
  WriteFile("defs.txt", "by_path \"" + kObject +
                            "\" 1a0 0x10 400000\n"
                            "by_name \"/elsewhere/" +
                            objectName +
                            "\" 20 7 0\n"
                            "other \"/elsewhere/other.o\" 30 1 0\n"
                            "no_arguments \"" +
                            kObject + "\" 40\n");
  const ToolRun run = RunZca({"--definitions", "defs.txt", "--base", "0x7f0000400000", kObject});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            ModuleText(kObject, 0x7F0000400000, kObjectSectionSize, ObjectTables(0x7F0000400000)) +
                "external 0x00007f00000001a0 \"by_path\" argument 0x10 link-base "
                "0x400000\n");
}

TEST(KyrtZca, ABareModuleNameMatchesDefinitionsByBaseName) {
  WriteFile("annotated.o", kyrt_test::ReadFile(kObject));
  WriteFile("defs.txt",
            "by_name \"/elsewhere/annotated.o\" 20 7 0\n"
            "by_path \"/elsewhere/annotated.o\" 30 7 0\n"
            "other \"/elsewhere/other.o\" 40 7 0\n");
  const ToolRun run = RunZca({"--definitions", "defs.txt", "annotated.o"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, ModuleText("annotated.o", 0, kObjectSectionSize, ObjectTables(0)) +
                         "external 0x0000000000000020 \"by_name\" argument 0x7 link-base 0x0\n"
                         "external 0x0000000000000030 \"by_path\" argument 0x7 link-base 0x0\n");
}

TEST(KyrtZca, DefinitionsAreSearchedForModulesWithoutASection) {
  WriteFile("defs.txt", "lone \"" + kWithoutSection + "\" 10 1 0\n");
  const ToolRun run = RunZca({"--definitions", "defs.txt", "--json", kWithoutSection});
  EXPECT_EQ(run.status, 3);
  EXPECT_EQ(run.out, "{\"modules\":[\n{\"path\":\"" + kWithoutSection +
                         "\",\"status\":\"no-section\",\"sections\":[],\"external\":["
                         "{\"address\":\"0x10\",\"name\":\"lone\",\"argument\":\"0x1\","
                         "\"linkBase\":\"0x0\"}]}\n]}\n");
}

TEST(KyrtZca, AnUnreadableDefinitionsFileIsAnError) {
  const ToolRun run = RunZca({"--definitions", "missing.txt", kObject});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "kyrt-zca: missing.txt: cannot read the definitions file\n");
}

TEST(KyrtZca, TheRuntimesLogGoesToTheLogFileAndOtherwiseNowhere) {
  WriteFile("defs.txt", "six \"/m\" 1 2 3 4\n");
  const ToolRun quiet = RunZca({"--definitions", "defs.txt", kObject});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_NE(access("kylog.log", F_OK), 0);
  const ToolRun logged = RunZca({"--log", "zca.log", "--definitions", "defs.txt", kObject});
  EXPECT_EQ(logged.status, 0);
  EXPECT_NE(kyrt_test::ReadFile("zca.log").find(
                "<!-- zca_file_parser: Unexpected number of annotation arguments: 5 -->"),
            std::string::npos);
}

TEST(KyrtZca, ALogFileThatCannotBeCreatedIsAnError) {
  const ToolRun run = RunZca({"--log", "no/such/folder/zca.log", kObject});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kyrt-zca: no/such/folder/zca.log: cannot create the log file\n");
}

// ---------------------------------------------------------------------------
// Modules that cannot be read, and the exit status

TEST(KyrtZca, AModuleWithoutTheSectionExitsWith3) {
  const ToolRun run = RunZca({kWithoutSection});
  EXPECT_EQ(run.status, 3);
  EXPECT_EQ(run.out, "module \"" + kWithoutSection + "\"\n");
  EXPECT_EQ(run.err, "kyrt-zca: " + kWithoutSection + ": no .qzv_notify_tab section\n");
}

TEST(KyrtZca, AMissingFileIsAnError) {
  const ToolRun run = RunZca({"missing.so"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "module \"missing.so\"\n");
  EXPECT_EQ(run.err, "kyrt-zca: missing.so: cannot open: No such file or directory\n");
}

TEST(KyrtZca, AFileThatIsNotElfIsAnError) {
  WriteFile("text.so", "this is not an ELF file\n");
  WriteFile("empty.so", "");
  const ToolRun run = RunZca({"text.so", "empty.so"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kyrt-zca: text.so: not an ELF file\nkyrt-zca: empty.so: not an ELF file\n");
}

TEST(KyrtZca, AnErrorWinsOverAMissingSectionAndLaterModulesAreStillRead) {
  const ToolRun run = RunZca({kWithoutSection, "missing.so", kObject});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "module \"" + kWithoutSection + "\"\nmodule \"missing.so\"\n" +
                         ModuleText(kObject, 0, kObjectSectionSize, ObjectTables(0)));
}

// ---------------------------------------------------------------------------
// Command line

TEST(KyrtZca, HelpPrintsTheUsageAndSucceeds) {
  const ToolRun run = RunZca({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out.rfind("usage: kyrt-zca [--definitions FILE] [--base ADDR] [--json] "
                          "[--log FILE] MODULE...\n",
                          0),
            0u);
  EXPECT_EQ(RunZca({"-h"}).out, run.out);
}

TEST(KyrtZca, UsageErrorsExitWith2) {
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const Case cases[] = {
      {{}, "no module given"},
      {{"--json"}, "no module given"},
      {{"--frobnicate", kObject}, "unknown option --frobnicate"},
      {{"--json=yes", kObject}, "unknown option --json=yes"},
      {{kObject, "--base"}, "option --base needs a value"},
      {{"--definitions"}, "option --definitions needs a value"},
      {{"--base", "0x1g", kObject}, "bad address for --base: '0x1g'"},
      {{"--base", "-1", kObject}, "bad address for --base: '-1'"},
      {{"--base", "0x10000000000000000", kObject}, "bad address for --base: '0x10000000000000000'"},
      {{"--base=", kObject}, "bad address for --base: ''"},
  };
  for (const Case& c : cases) {
    const ToolRun run = RunZca(c.arguments);
    EXPECT_EQ(run.status, 2) << c.message;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("kyrt-zca: " + c.message + "\nusage: kyrt-zca ", 0), 0u) << run.err;
  }
}

TEST(KyrtZca, ArgumentsAfterADoubleDashAreModules) {
  WriteFile("--json", "not elf");
  const ToolRun run = RunZca({"--", "--json"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "kyrt-zca: --json: not an ELF file\n");
}

}  // namespace
