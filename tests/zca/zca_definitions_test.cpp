// External definitions: the line parser, loading files into the list,
// matching modules and relocating, clean-up.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/zca.h"
#include "support/log_text.h"
#include "support/test_files.h"
#include "sync/lock_test_support.h"
#include "zca/zca_definitions.h"
#include "zca/zca_log_expectations.h"

namespace {

using kyrt_test::LogText;
using kyrt_test::WriteFile;

using ZcaDefinitionLine = kyrt_test::RuntimeTest;
using ZcaDefinitionFile = kyrt_test::RuntimeTest;
using ZcaExternalRecords = kyrt_test::RuntimeTest;

const std::string kSixFields = "zca_file_parser: Unexpected number of annotation arguments: 5";

// A parsed line that releases what the parser allocated.
struct ParsedLine {
  std::vector<char> text;
  KyZCADefinition definition{};
  int result = -1;

  explicit ParsedLine(const std::string& line) : text(line.begin(), line.end()) {
    text.push_back('\0');
    result = __KyZCAParseDefinition(text.data(), &definition);
  }
  ~ParsedLine() {
    __KyFree(definition.name);
    __KyFree(definition.modulePath);
    __KyFree(definition.arguments);
  }
  ParsedLine(const ParsedLine&) = delete;
  ParsedLine& operator=(const ParsedLine&) = delete;

  std::string name() const { return definition.name ? definition.name : "<null>"; }
  std::string path() const { return definition.modulePath ? definition.modulePath : "<null>"; }
};

// ---------------------------------------------------------------------------
// One line

TEST_F(ZcaDefinitionLine, TheDocumentedExampleLine) {
  ParsedLine line("start \"/opt/app/lib.so\" 1a0 0x10 400000");
  EXPECT_EQ(line.result, 1);
  EXPECT_EQ(line.name(), "start");
  EXPECT_EQ(line.path(), "/opt/app/lib.so");
  EXPECT_EQ(line.definition.offset, 0x1A0u);
  EXPECT_EQ(line.definition.argumentKind, 2);
  ASSERT_NE(line.definition.arguments, nullptr);
  EXPECT_EQ(line.definition.arguments[0].value, 16u);
  EXPECT_EQ(line.definition.arguments[0].isRegister, 0u);
  EXPECT_EQ(line.definition.arguments[0].offset, 0);
  EXPECT_EQ(line.definition.arguments[1].value, 0x400000u);
  EXPECT_EQ(line.definition.arguments[1].isRegister, 0u);
  EXPECT_EQ(line.definition.arguments[1].offset, 0);
  EXPECT_EQ(line.definition.next, nullptr);
  EXPECT_EQ(LogText(), "");
}

TEST_F(ZcaDefinitionLine, TrailingWhiteSpaceIsCutInPlace) {
  ParsedLine line("  a \"/b\" 1 2 3 \t\r\n");
  EXPECT_EQ(line.result, 1);
  EXPECT_STREQ(line.text.data(), "  a \"/b\" 1 2 3");
  EXPECT_EQ(line.name(), "a");
}

TEST_F(ZcaDefinitionLine, BlankLinesDefineNothing) {
  for (const char* blank : {"", " ", "\n", " \t \r\n"}) {
    ParsedLine line(blank);
    EXPECT_EQ(line.result, 0);
    EXPECT_EQ(line.definition.name, nullptr);
    EXPECT_EQ(line.definition.modulePath, nullptr);
    EXPECT_EQ(line.definition.arguments, nullptr);
    EXPECT_EQ(line.definition.argumentKind, 0);
    EXPECT_EQ(line.definition.offset, 0u);
  }
}

TEST_F(ZcaDefinitionLine, AnyWhiteSpaceSeparatesAndRunsMakeNoEmptyFields) {
  ParsedLine line("\tname\t\t\"/p\"  \v10\f 7 \t 8\n");
  EXPECT_EQ(line.result, 1);
  EXPECT_EQ(line.name(), "name");
  EXPECT_EQ(line.path(), "/p");
  EXPECT_EQ(line.definition.offset, 0x10u);
  EXPECT_EQ(line.definition.arguments[0].value, 7u);
  EXPECT_EQ(line.definition.arguments[1].value, 8u);
}

TEST_F(ZcaDefinitionLine, WhiteSpaceInsideQuotesDoesNotSeparate) {
  ParsedLine line("n \"/opt/my app/lib one.so\" 10 1 0");
  EXPECT_EQ(line.result, 1);
  EXPECT_EQ(line.path(), "/opt/my app/lib one.so");
}

TEST_F(ZcaDefinitionLine, EachQuoteTogglesQuotingAndStaysInTheField) {
  ParsedLine line("na\"me x\"y \"/a b\"\"c d\" 10 1 0");
  EXPECT_EQ(line.result, 1);
  EXPECT_EQ(line.name(), "na\"me x\"y");
  EXPECT_EQ(line.path(), "/a b\"\"c d");
}

TEST_F(ZcaDefinitionLine, AnUnclosedQuoteRunsToTheEndOfTheLine) {
  ParsedLine line("n \"/a 1 2 3");
  EXPECT_EQ(line.result, 0);
  EXPECT_EQ(line.path(), "/a 1 2 ");
  EXPECT_EQ(line.definition.arguments, nullptr);
}

TEST_F(ZcaDefinitionLine, TheModulePathLosesItsFirstAndLastCharactersAndRunsOfSlashes) {
  ParsedLine quoted("n \"//opt///app//lib.so\" 1 2 3");
  EXPECT_EQ(quoted.path(), "/opt/app/lib.so");
  ParsedLine unquoted("n /opt/lib.so 1 2 3");
  EXPECT_EQ(unquoted.path(), "opt/lib.s");
  ParsedLine empty("n \"\" 1 2 3");
  EXPECT_EQ(empty.result, 1);
  EXPECT_EQ(empty.path(), "");
}

TEST_F(ZcaDefinitionLine, AModulePathFieldShorterThanTwoCharactersDefinesNoPath) {
  ParsedLine line("n x 10 1 2");
  EXPECT_EQ(line.result, 1);
  EXPECT_EQ(line.definition.modulePath, nullptr);
  EXPECT_EQ(line.name(), "n");
  EXPECT_EQ(line.definition.offset, 0x10u);
  ASSERT_NE(line.definition.arguments, nullptr);
  EXPECT_EQ(line.definition.arguments[1].value, 2u);
}

TEST_F(ZcaDefinitionLine, FewerThanFiveFieldsStoreWhatTheyHaveAndReturn0) {
  ParsedLine one("only");
  EXPECT_EQ(one.result, 0);
  EXPECT_EQ(one.name(), "only");
  EXPECT_EQ(one.definition.modulePath, nullptr);

  ParsedLine three("n \"/m\" ff");
  EXPECT_EQ(three.result, 0);
  EXPECT_EQ(three.path(), "/m");
  EXPECT_EQ(three.definition.offset, 0xFFu);
  EXPECT_EQ(three.definition.argumentKind, 0);
  EXPECT_EQ(three.definition.arguments, nullptr);

  ParsedLine four("n \"/m\" ff 9");
  EXPECT_EQ(four.result, 0);
  EXPECT_EQ(four.definition.argumentKind, 2);
  ASSERT_NE(four.definition.arguments, nullptr);
  EXPECT_EQ(four.definition.arguments[0].value, 9u);
  EXPECT_EQ(four.definition.arguments[1].value, 0u);
  EXPECT_EQ(LogText(), "");
}

TEST_F(ZcaDefinitionLine, ASixthFieldIsLoggedWith5AndKeepsTheFiveStored) {
  ParsedLine line("n \"/m\" 10 1 2 extra more");
  EXPECT_EQ(line.result, 0);
  EXPECT_EQ(line.name(), "n");
  EXPECT_EQ(line.path(), "/m");
  EXPECT_EQ(line.definition.offset, 0x10u);
  EXPECT_EQ(line.definition.arguments[0].value, 1u);
  EXPECT_EQ(line.definition.arguments[1].value, 2u);
  EXPECT_EQ(LogText(), zca_test::InfoLog({kSixFields}));
}

TEST_F(ZcaDefinitionLine, NumbersAreConvertedAsEachFieldSays) {
  ParsedLine hex("n \"/m\" 0x1A0 0x1F 0x400000");
  EXPECT_EQ(hex.definition.offset, 0x1A0u);
  EXPECT_EQ(hex.definition.arguments[0].value, 31u);
  EXPECT_EQ(hex.definition.arguments[1].value, 0x400000u);

  ParsedLine octal("n \"/m\" 10 010 10");
  EXPECT_EQ(octal.definition.offset, 0x10u);
  EXPECT_EQ(octal.definition.arguments[0].value, 8u);
  EXPECT_EQ(octal.definition.arguments[1].value, 0x10u);

  ParsedLine decimal("n \"/m\" 10 12 FFFFFFFFFFFF");
  EXPECT_EQ(decimal.definition.arguments[0].value, 12u);
  EXPECT_EQ(decimal.definition.arguments[1].value, 0xFFFFFFFFFFFFu);

  // The offset keeps 32 bits; text that is no number gives 0.
  ParsedLine wide("n \"/m\" 123456789 zz \"1\"");
  EXPECT_EQ(wide.definition.offset, 0x23456789u);
  EXPECT_EQ(wide.definition.arguments[0].value, 0u);
  EXPECT_EQ(wide.definition.arguments[1].value, 0u);

  // A number stops at a quote inside its field.
  ParsedLine quoted("n \"/m\" 1a\"0 0\" 5 6");
  EXPECT_EQ(quoted.definition.offset, 0x1Au);
  EXPECT_EQ(quoted.definition.arguments[0].value, 5u);
}

TEST_F(ZcaDefinitionLine, NullArgumentsReturn0) {
  KyZCADefinition definition{};
  EXPECT_EQ(__KyZCAParseDefinition(nullptr, &definition), 0);
  char line[] = "a \"/b\" 1 2 3";
  EXPECT_EQ(__KyZCAParseDefinition(line, nullptr), 0);
  EXPECT_STREQ(line, "a \"/b\" 1 2 3");
}

// ---------------------------------------------------------------------------
// Files

std::vector<const KyZCADefinition*> ListNodes() {
  std::vector<const KyZCADefinition*> nodes;
  for (const KyZCADefinition* node = kyrt::zca::DefinitionList(); node != nullptr;
       node = node->next) {
    nodes.push_back(node);
  }
  return nodes;
}

std::string NameOf(const KyZCADefinition* node) {
  return node->name != nullptr ? node->name : "<null>";
}

TEST_F(ZcaDefinitionFile, AnUnreadableFileReturns0LogsTheFailureAndAddsNothing) {
  EXPECT_EQ(__KyZCALoadExternalDefinitions("missing/definitions.txt"), 0);
  EXPECT_EQ(kyrt::zca::DefinitionList(), nullptr);
  EXPECT_EQ(LogText(), kyrt_test::kLogHeader + kyrt_test::kLogRoot +
                           zca_test::LogRecord(1, "FAIL_OPEN_FILE", "ERROR",
                                               "\n\t\t<arg name='filename'>missing/"
                                               "definitions.txt</arg>"));
}

TEST_F(ZcaDefinitionFile, ANullPathIsAFileThatCannotBeOpened) {
  EXPECT_EQ(__KyZCALoadExternalDefinitions(nullptr), 0);
  EXPECT_EQ(kyrt::zca::DefinitionList(), nullptr);
  EXPECT_EQ(LogText(), kyrt_test::kLogHeader + kyrt_test::kLogRoot +
                           zca_test::LogRecord(1, "FAIL_OPEN_FILE", "ERROR",
                                               "\n\t\t<arg name='filename'></arg>"));
}

TEST_F(ZcaDefinitionFile, AnEmptyFileIsReadAndAddsNothing) {
  EXPECT_EQ(__KyZCALoadExternalDefinitions(WriteFile("empty.txt", "").c_str()), 1);
  EXPECT_EQ(kyrt::zca::DefinitionList(), nullptr);
  EXPECT_EQ(LogText(), "");
}

TEST_F(ZcaDefinitionFile, EveryNonBlankLineKeepsANodeInLineOrder) {
  const std::string text =
      "first \"/m\" 10 1 0\n"
      "short\n"
      "six \"/m\" 1 2 3 4\n"
      "last \"/n\" 20 2 0";  // no new-line at the end
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("defs.txt", text).c_str()), 1);
  const auto nodes = ListNodes();
  ASSERT_EQ(nodes.size(), 4u);
  EXPECT_EQ(NameOf(nodes[0]), "first");
  EXPECT_EQ(NameOf(nodes[1]), "short");
  EXPECT_EQ(nodes[1]->modulePath, nullptr);
  EXPECT_EQ(NameOf(nodes[2]), "six");
  EXPECT_EQ(nodes[2]->arguments[1].value, 3u);
  EXPECT_EQ(NameOf(nodes[3]), "last");
  EXPECT_STREQ(nodes[3]->modulePath, "/n");
  EXPECT_EQ(nodes[3]->offset, 0x20u);
  EXPECT_EQ(LogText(), zca_test::InfoLog({kSixFields}));
}

TEST_F(ZcaDefinitionFile, ABlankLineLeavesItsNodeForTheNextLine) {
  const std::string text = "\n\n  \na \"/m\" 1 2 3\n\n\t\nb \"/m\" 4 5 6\n\n";
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("defs.txt", text).c_str()), 1);
  const auto nodes = ListNodes();
  // a, b, and the node the trailing blank line left empty.
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(NameOf(nodes[0]), "a");
  EXPECT_EQ(NameOf(nodes[1]), "b");
  EXPECT_EQ(nodes[2]->name, nullptr);
  EXPECT_EQ(nodes[2]->modulePath, nullptr);
  EXPECT_EQ(nodes[2]->arguments, nullptr);
  EXPECT_EQ(nodes[2]->offset, 0u);
  EXPECT_EQ(nodes[2]->next, nullptr);
}

TEST_F(ZcaDefinitionFile, AFileOfBlankLinesLeavesOneEmptyNode) {
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("blank.txt", "\n \n\t\n").c_str()), 1);
  const auto nodes = ListNodes();
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(nodes[0]->name, nullptr);
}

TEST_F(ZcaDefinitionFile, CarriageReturnsAreWhiteSpace) {
  ASSERT_EQ(__KyZCALoadExternalDefinitions(
                WriteFile("crlf.txt", "a \"/m\" 1 2 3\r\nb \"/m\" 4 5 6\r\n").c_str()),
            1);
  const auto nodes = ListNodes();
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[1]->arguments[1].value, 6u);
}

TEST_F(ZcaDefinitionFile, ALineLongerThanTheBufferKeepsItsStartAndSkipsItsRest) {
  const std::string longName(70000, 'a');
  const std::string text = longName + " \"/p\" 1 2 3\nnext \"/m\" 10 1 0\n";
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("long.txt", text).c_str()), 1);
  const auto nodes = ListNodes();
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(std::strlen(nodes[0]->name), 65534u);
  EXPECT_EQ(nodes[0]->modulePath, nullptr);
  EXPECT_EQ(NameOf(nodes[1]), "next");
}

TEST_F(ZcaDefinitionFile, ALineFillingTheBufferExactlyIsNotCut) {
  // 65,533 characters and the new-line fill the 65,534 bytes fgets reads.
  const std::string line = "n \"/m\" 1 2 " + std::string(65533 - 11, '3');
  ASSERT_EQ(line.size(), 65533u);
  const std::string text = line + "\nafter \"/m\" 1 2 3\n";
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("exact.txt", text).c_str()), 1);
  const auto nodes = ListNodes();
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(NameOf(nodes[0]), "n");
  EXPECT_EQ(NameOf(nodes[1]), "after");
}

TEST_F(ZcaDefinitionFile, LaterFilesAreAppendedAtTheTail) {
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("one.txt", "a \"/m\" 1 2 3\n").c_str()), 1);
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("none.txt", "").c_str()), 1);
  ASSERT_EQ(__KyZCALoadExternalDefinitions(
                WriteFile("two.txt", "b \"/m\" 1 2 3\nc \"/m\" 1 2 3\n").c_str()),
            1);
  const auto nodes = ListNodes();
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(NameOf(nodes[0]), "a");
  EXPECT_EQ(NameOf(nodes[1]), "b");
  EXPECT_EQ(NameOf(nodes[2]), "c");
}

TEST_F(ZcaDefinitionFile, CleanUpLeavesTheHeadAsItWas) {
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("d.txt", "a \"/m\" 1 2 3\n\nb\n").c_str()), 1);
  const KyZCADefinition* head = kyrt::zca::DefinitionList();
  ASSERT_NE(head, nullptr);
  __KyZCACleanupDefinitions();
  EXPECT_EQ(kyrt::zca::DefinitionList(), head);
}

TEST_F(ZcaDefinitionFile, CleanUpOfAnEmptyListDoesNothing) {
  __KyZCACleanupDefinitions();
  EXPECT_EQ(kyrt::zca::DefinitionList(), nullptr);
  EXPECT_EQ(LogText(), "");
}

// ---------------------------------------------------------------------------
// Processing

struct ExternalRecord {
  uint64_t address;
  std::string name;
  bool hasExpression;
  uint32_t probe;
  uint32_t argumentCount;
  KyZCAArgument arguments[2];
};

int CollectExternal(KyZCARecord* record, void* user) {
  ExternalRecord copy{
      record->address, record->name,          record->expression != nullptr,
      record->probe,   record->argumentCount, {record->arguments[0], record->arguments[1]}};
  static_cast<std::vector<ExternalRecord>*>(user)->push_back(copy);
  return 0;
}

std::vector<ExternalRecord> Process(const char* module, uint64_t base) {
  std::vector<ExternalRecord> records;
  __KyZCAProcessExternalRecords(module, base, CollectExternal, &records);
  return records;
}

void Load(const std::string& text) {
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("defs.txt", text).c_str()), 1);
}

TEST_F(ZcaExternalRecords, TheDocumentedExampleIsRelocatedToTheLoadAddress) {
  Load("start \"/opt/app/lib.so\" 1a0 0x10 400000\n");
  const auto records = Process("/opt/app/lib.so", 0x7F0000400000);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].address, 0x7F00000001A0u);
  EXPECT_EQ(records[0].name, "start");
  EXPECT_FALSE(records[0].hasExpression);
  EXPECT_EQ(records[0].probe, 0u);
  EXPECT_EQ(records[0].argumentCount, 2u);
  EXPECT_EQ(records[0].arguments[0].value, 16u);
  EXPECT_EQ(records[0].arguments[0].isRegister, 0u);
  EXPECT_EQ(records[0].arguments[0].offset, 0);
  EXPECT_EQ(records[0].arguments[1].value, 0x400000u);
  EXPECT_EQ(records[0].arguments[1].isRegister, 0u);
  EXPECT_EQ(records[0].arguments[1].offset, 0);
  EXPECT_EQ(LogText(), "");
}

TEST_F(ZcaExternalRecords, ModulesMatchByWholePathOrByBaseName) {
  Load("start \"/opt/app/lib.so\" 1a0 0x10 400000\n");
  EXPECT_EQ(Process("lib.so", 0x400000).size(), 1u);
  EXPECT_EQ(Process("/opt/app/lib.so", 0x400000).size(), 1u);
  EXPECT_EQ(Process("/other/lib.so", 0x400000).size(), 0u);
  EXPECT_EQ(Process("app/lib.so", 0x400000).size(), 0u);
  EXPECT_EQ(Process("lib", 0x400000).size(), 0u);
  EXPECT_EQ(Process("", 0x400000).size(), 0u);
}

TEST_F(ZcaExternalRecords, TheModuleNameIsNormalisedButNeverReducedToItsBaseName) {
  Load("a \"/opt/app/lib.so\" 10 1 0\nb \"lib.so\" 20 1 0\n");
  const auto full = Process("//opt//app///lib.so", 0);
  ASSERT_EQ(full.size(), 1u);
  EXPECT_EQ(full[0].name, "a");
  const auto bare = Process("lib.so", 0);
  ASSERT_EQ(bare.size(), 2u);
  EXPECT_EQ(bare[0].name, "a");
  EXPECT_EQ(bare[1].name, "b");
}

TEST_F(ZcaExternalRecords, ABaseNameStartingWithTheOnlySlashIsTheWholePath) {
  // "/lib.so" has no separator past its first character: its base name is
  // "/lib.so" itself, so "lib.so" does not match it.
  Load("a \"/lib.so\" 10 1 0\n");
  EXPECT_EQ(Process("lib.so", 0).size(), 0u);
  EXPECT_EQ(Process("/lib.so", 0).size(), 1u);
}

TEST_F(ZcaExternalRecords, MatchesAreDeliveredInListOrderAcrossFiles) {
  Load("one \"/m/x.so\" 1 0 0\nother \"/m/y.so\" 2 0 0\ntwo \"/m/x.so\" 3 0 0\n");
  ASSERT_EQ(__KyZCALoadExternalDefinitions(WriteFile("more.txt", "three \"x.so\" 4 0 0\n").c_str()),
            1);
  const auto records = Process("x.so", 0x1000);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].name, "one");
  EXPECT_EQ(records[0].address, 0x1001u);
  EXPECT_EQ(records[1].name, "two");
  EXPECT_EQ(records[2].name, "three");
  EXPECT_EQ(records[2].address, 0x1004u);
}

TEST_F(ZcaExternalRecords, AddressesWrapAroundWhenTheBaseIsBelowTheLinkTimeBase) {
  Load("w \"/m\" 10 0 1000\n");
  const auto records = Process("/m", 0x100);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].address, uint64_t{0x10} + 0x100 - 0x1000);
}

TEST_F(ZcaExternalRecords, DefinitionsWithoutAFourthFieldAreSkipped) {
  Load("three \"/m\" 10\nfour \"/m\" 10 1\nfive \"/m\" 10 1 0\n");
  const auto records = Process("/m", 0x5000);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].name, "four");
  EXPECT_EQ(records[0].address, 0x5010u);
  EXPECT_EQ(records[0].argumentCount, 2u);
  EXPECT_EQ(records[1].name, "five");
}

TEST_F(ZcaExternalRecords, DefinitionsWithoutAModulePathMatchNothing) {
  Load("short x 10 1 0\nname\n\n");
  EXPECT_EQ(Process("x", 0).size(), 0u);
  EXPECT_EQ(Process("", 0).size(), 0u);
}

TEST_F(ZcaExternalRecords, ALineWithASixthFieldStillDefinesItsFirstFive) {
  Load("six \"/m\" 10 1 0 extra\n");
  const auto records = Process("/m", 0);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "six");
}

TEST_F(ZcaExternalRecords, ANullModuleNameIsLoggedAsAnErrorAndDeliversNothing) {
  Load("a \"/m\" 10 1 0\n");
  EXPECT_EQ(Process(nullptr, 0).size(), 0u);
  EXPECT_EQ(LogText(),
            kyrt_test::kLogHeader + kyrt_test::kLogRoot +
                zca_test::TextRecord(1, "Cannot allocate memory to copy module name", "ERROR"));
}

TEST_F(ZcaExternalRecords, ANullCallbackDeliversNothing) {
  Load("a \"/m\" 10 1 0\n");
  __KyZCAProcessExternalRecords("/m", 0, nullptr, nullptr);
  EXPECT_EQ(LogText(), "");
}

TEST_F(ZcaExternalRecords, AnEmptyListDeliversNothing) {
  EXPECT_EQ(Process("/m", 0).size(), 0u);
}

}  // namespace
