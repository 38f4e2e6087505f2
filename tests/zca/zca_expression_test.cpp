// Location expressions: every accepted form and its boundaries, the
// unsupported ones, and the 32-bit LEB128 decoders.
#include <cstdint>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/zca.h"
#include "support/log_text.h"
#include "sync/lock_test_support.h"
#include "zca/leb128.h"
#include "zca/zca_log_expectations.h"
#include "zca/zca_section_builder.h"

namespace {

using kyrt_test::LogText;
using zca_test::AppendTable;
using zca_test::Collector;
using zca_test::InfoLog;
using zca_test::SectionBytes;

using ZcaExpression = kyrt_test::RuntimeTest;

// The record delivered for an entry whose expression is the given bytes.
zca_test::Delivered DecodeOne(const std::vector<uint8_t>& expression) {
  SectionBytes section;
  AppendTable(section, zca_test::kVersion12, 0, {{0x100, 0, "e", expression}});
  Collector collector;
  collector.parse(0, section);
  EXPECT_EQ(collector.records.size(), 1u);
  if (collector.records.empty()) return zca_test::Delivered{};
  return collector.records[0];
}

void ExpectLocation(const std::vector<uint8_t>& expression, uint64_t value, uint32_t isRegister,
                    int32_t offset) {
  const zca_test::Delivered record = DecodeOne(expression);
  EXPECT_EQ(record.argumentCount, 1u);
  EXPECT_EQ(record.arguments[0].value, value);
  EXPECT_EQ(record.arguments[0].isRegister, isRegister);
  EXPECT_EQ(record.arguments[0].offset, offset);
  EXPECT_EQ(record.arguments[1].value, 0u);
  EXPECT_EQ(record.arguments[1].isRegister, 0u);
  EXPECT_EQ(record.arguments[1].offset, 0);
}

TEST_F(ZcaExpression, Register5) {
  ExpectLocation({0x01, 0x55}, 5, 1, 0);
}

TEST_F(ZcaExpression, Constant3) {
  ExpectLocation({0x01, 0x33}, 3, 0, 0);
}

TEST_F(ZcaExpression, Register7PlusMinus4) {
  ExpectLocation({0x03, 0x77, 0x7C, 0x00}, 7, 1, -4);
}

TEST_F(ZcaExpression, AnUnsupportedExpressionIsLoggedAndStillDeliveredWithAZeroArgument) {
  ExpectLocation({0x02, 0x10, 0x05}, 0, 0, 0);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kUnsupported}));
}

TEST_F(ZcaExpression, ConstantsRangeFromLit0ToLit31) {
  ExpectLocation({0x01, 0x30}, 0, 0, 0);
  ExpectLocation({0x01, 0x4F}, 31, 0, 0);
}

TEST_F(ZcaExpression, RegistersRangeFromReg0ToReg31) {
  ExpectLocation({0x01, 0x50}, 0, 1, 0);
  ExpectLocation({0x01, 0x6F}, 31, 1, 0);
}

TEST_F(ZcaExpression, AOneByteBaseRegisterHasOffset0) {
  ExpectLocation({0x01, 0x70}, 0, 1, 0);
  ExpectLocation({0x01, 0x8F}, 31, 1, 0);
}

TEST_F(ZcaExpression, AnyOtherSingleOperationIsRegisterFFFFFFFF) {
  ExpectLocation({0x01, 0x2F}, 0xFFFFFFFF, 1, 0);
  ExpectLocation({0x01, 0x90}, 0xFFFFFFFF, 1, 0);
  ExpectLocation({0x01, 0x00}, 0xFFFFFFFF, 1, 0);
  ExpectLocation({0x01, 0xFF}, 0xFFFFFFFF, 1, 0);
  // Not logged: only longer expressions are "unsupported".
  EXPECT_EQ(LogText(), InfoLog(std::vector<std::string>(4, zca_test::kFound12)));
}

TEST_F(ZcaExpression, LongerExpressionsOfOtherOperationsAreUnsupported) {
  ExpectLocation({0x02, 0x33, 0x00}, 0, 0, 0);  // a constant operation, but L is 2
  ExpectLocation({0x02, 0x55, 0x00}, 0, 0, 0);
  ExpectLocation({0x03, 0x6F, 0x01, 0x02}, 0, 0, 0);
  ExpectLocation({0x02, 0x90, 0x01}, 0, 0, 0);
  ExpectLocation({0x02, 0x6F, 0x01}, 0, 0, 0);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kUnsupported, zca_test::kFound12,
                                zca_test::kUnsupported, zca_test::kFound12, zca_test::kUnsupported,
                                zca_test::kFound12, zca_test::kUnsupported, zca_test::kFound12,
                                zca_test::kUnsupported}));
}

TEST_F(ZcaExpression, BaseRegistersTakeTheSignedOperandThatFollows) {
  ExpectLocation({0x02, 0x70, 0x00}, 0, 1, 0);
  ExpectLocation({0x02, 0x8F, 0x3F}, 31, 1, 63);
  ExpectLocation({0x02, 0x71, 0x40}, 1, 1, -64);
  ExpectLocation({0x03, 0x72, 0x80, 0x01}, 2, 1, 128);
  ExpectLocation({0x03, 0x73, 0xFF, 0x7E}, 3, 1, -129);
  ExpectLocation({0x06, 0x74, 0xFF, 0xFF, 0xFF, 0xFF, 0x07}, 4, 1, 0x7FFFFFFF);
  ExpectLocation({0x06, 0x75, 0x80, 0x80, 0x80, 0x80, 0x78}, 5, 1, INT32_MIN);
}

TEST_F(ZcaExpression, ALengthOf0StillReadsTheOperationAndItsOperand) {
  // "not 1": the operation byte after L and its operand are read although
  // L says the expression is empty.
  ExpectLocation({0x00, 0x75, 0x7F}, 5, 1, -1);
  ExpectLocation({0x00, 0x55}, 0, 0, 0);
  EXPECT_EQ(LogText(), InfoLog({zca_test::kFound12, zca_test::kFound12, zca_test::kUnsupported}));
}

TEST_F(ZcaExpression, TheLengthIsAnUnsignedLeb128Number) {
  // 0x81 0x00 is 1 written in two bytes: a single-operation expression.
  ExpectLocation({0x81, 0x00, 0x55}, 5, 1, 0);
  // 0x80 0x01 is 128: a base register with operand, 126 filler bytes.
  std::vector<uint8_t> long_expression{0x80, 0x01, 0x76, 0x05};
  long_expression.resize(2 + 128, 0x96);
  ExpectLocation(long_expression, 6, 1, 5);
}

TEST_F(ZcaExpression, TheExpressionPointerIsTheStartOfTheLength) {
  SectionBytes section;
  const zca_test::TableLayout table =
      AppendTable(section, zca_test::kVersion11, 0,
                  {{1, 0, "a", {0x01, 0x33}}, {2, 0, "b", {0x03, 0x77, 0x7C, 0x00}}});
  Collector collector;
  collector.parse(0, section);
  ASSERT_EQ(collector.records.size(), 2u);
  EXPECT_EQ(collector.records[0].expressionOffset,
            static_cast<std::ptrdiff_t>(table.expressionTable));
  EXPECT_EQ(collector.records[1].expressionOffset,
            static_cast<std::ptrdiff_t>(table.expressionTable + 2));
  EXPECT_EQ(collector.sectionStart[table.expressionTable + 2], 0x03);
}

// ---------------------------------------------------------------------------
// The decoders themselves

struct LebCase {
  std::vector<uint8_t> bytes;
  uint32_t unsignedValue;
  int32_t signedValue;
};

TEST(ZcaLeb128, DecodersKeep32BitsAndSignExtendBelowBit32Only) {
  const LebCase cases[] = {
      {{0x00}, 0, 0},
      {{0x7F}, 0x7F, -1},
      {{0x3F}, 0x3F, 63},
      {{0x40}, 0x40, -64},
      {{0x80, 0x01}, 128, 128},
      {{0xE5, 0x8E, 0x26}, 624485, 624485},
      {{0xC0, 0xBB, 0x78}, 0x1E1DC0, -123456},
      // Five bytes: the last one at shift 28 keeps only its low 4 bits, and
      // the final shift (35) is not below 32: no sign extension.
      {{0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, 0xFFFFFFFF, -1},
      {{0x80, 0x80, 0x80, 0x80, 0x7F}, 0xF0000000, static_cast<int32_t>(0xF0000000)},
      {{0x80, 0x80, 0x80, 0x80, 0x40}, 0, 0},
      // Bytes past the fifth add nothing however many there are.
      {{0x81, 0x80, 0x80, 0x80, 0x80, 0xFF, 0xFF, 0x7F}, 1, 1},
      // Four bytes end at shift 28: bit 6 of the last byte extends the sign.
      {{0x80, 0x80, 0x80, 0x40}, 0x8000000, static_cast<int32_t>(0xF8000000)},
  };
  for (const LebCase& c : cases) {
    uint64_t position = 0;
    uint32_t u = 0xDEAD;
    ASSERT_TRUE(kyrt::zca::ReadUleb128(c.bytes.data(), c.bytes.size(), &position, &u));
    EXPECT_EQ(u, c.unsignedValue);
    EXPECT_EQ(position, c.bytes.size());
    position = 0;
    int32_t s = 0;
    ASSERT_TRUE(kyrt::zca::ReadSleb128(c.bytes.data(), c.bytes.size(), &position, &s));
    EXPECT_EQ(s, c.signedValue);
    EXPECT_EQ(position, c.bytes.size());
  }
}

TEST(ZcaLeb128, ANumberRunningIntoTheEndFailsAndChangesNothing) {
  const uint8_t bytes[] = {0x05, 0x81, 0x82};
  uint64_t position = 1;
  uint32_t u = 77;
  int32_t s = 78;
  EXPECT_FALSE(kyrt::zca::ReadUleb128(bytes, sizeof bytes, &position, &u));
  EXPECT_FALSE(kyrt::zca::ReadSleb128(bytes, sizeof bytes, &position, &s));
  EXPECT_EQ(position, 1u);
  EXPECT_EQ(u, 77u);
  EXPECT_EQ(s, 78);
  position = 3;
  EXPECT_FALSE(kyrt::zca::ReadUleb128(bytes, sizeof bytes, &position, &u));
}

TEST(ZcaLeb128, DecodingStopsAfterTheFirstByteWithoutContinuation) {
  const uint8_t bytes[] = {0x85, 0x01, 0x7F, 0x02};
  uint64_t position = 0;
  uint32_t u = 0;
  ASSERT_TRUE(kyrt::zca::ReadUleb128(bytes, sizeof bytes, &position, &u));
  EXPECT_EQ(u, 0x85u);
  EXPECT_EQ(position, 2u);
  int32_t s = 0;
  ASSERT_TRUE(kyrt::zca::ReadSleb128(bytes, sizeof bytes, &position, &s));
  EXPECT_EQ(s, -1);
  EXPECT_EQ(position, 3u);
}

}  // namespace
