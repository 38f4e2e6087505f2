// Processor queries: cpuid and the size of the XSAVE area.
#include <cpuid.h>

#include <cstdint>

#include "gtest/gtest.h"
#include "kyrt/strings.h"
#include "util/cpu.h"

namespace {

// A processor as the fake cpuid below presents it.
struct FakeProcessor {
  uint32_t maximumLeaf;
  uint32_t xsaveAreaSize;  // ECX of leaf 13, subleaf 0
  int queries;
  uint32_t lastLeaf;
  uint32_t lastSubleaf;
};

FakeProcessor g_processor;

void FakeCpuid(uint32_t leaf, uint32_t subleaf, uint32_t out[4]) {
  ++g_processor.queries;
  g_processor.lastLeaf = leaf;
  g_processor.lastSubleaf = subleaf;
  out[0] = out[1] = out[2] = out[3] = 0xDEADBEEF;
  if (leaf == 0) out[0] = g_processor.maximumLeaf;
  if (leaf == 13) out[2] = g_processor.xsaveAreaSize;
}

class XsaveAreaSize : public ::testing::Test {
 protected:
  void SetUp() override { kyrt::SetCpuidForTesting(FakeCpuid); }
  void TearDown() override { kyrt::SetCpuidForTesting(nullptr); }

  static void Present(uint32_t maximumLeaf, uint32_t xsaveAreaSize) {
    g_processor = {maximumLeaf, xsaveAreaSize, 0, 0, 0};
  }
};

TEST(Cpuid, ReturnsTheFourRegistersOfTheLeaf) {
  uint32_t expected[4];
  __cpuid_count(0, 0, expected[0], expected[1], expected[2], expected[3]);
  uint32_t out[4] = {};
  __KyCpuidEx(0, 0, out);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], expected[i]) << "register " << i;
}

TEST(Cpuid, PassesTheSubleafInEcx) {
  uint32_t maximum[4];
  __KyCpuidEx(0, 0, maximum);
  if (maximum[0] < 13) GTEST_SKIP() << "no leaf 13 on this processor";
  for (uint32_t subleaf = 0; subleaf < 2; ++subleaf) {
    uint32_t expected[4];
    __cpuid_count(13, subleaf, expected[0], expected[1], expected[2], expected[3]);
    uint32_t out[4] = {};
    __KyCpuidEx(13, subleaf, out);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], expected[i]) << "subleaf " << subleaf;
  }
}

TEST(XsaveAreaSizeOfThisProcessor, IsLeaf13EcxOr512) {
  uint32_t registers[4];
  __KyCpuidEx(0, 0, registers);
  uint32_t expected = 512;
  if (registers[0] >= 13) {
    __KyCpuidEx(13, 0, registers);
    if (registers[2] != 0) expected = registers[2];
  }
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), expected);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), expected);
}

TEST_F(XsaveAreaSize, IsTheSizeLeaf13Reports) {
  Present(13, 2696);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 2696u);
  EXPECT_EQ(g_processor.lastLeaf, 13u);
  EXPECT_EQ(g_processor.lastSubleaf, 0u);
  EXPECT_EQ(g_processor.queries, 2);
}

TEST_F(XsaveAreaSize, Is512WhenTheMaximumLeafIsBelow13) {
  Present(12, 2696);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 512u);
  EXPECT_EQ(g_processor.queries, 1);  // leaf 13 is never asked
  EXPECT_EQ(g_processor.lastLeaf, 0u);
}

TEST_F(XsaveAreaSize, Is512WhenLeaf13ReportsNothing) {
  Present(0x16, 0);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 512u);
  EXPECT_EQ(g_processor.queries, 2);
}

TEST_F(XsaveAreaSize, IsComputedOnce) {
  Present(0x16, 1088);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 1088u);
  Present(0x16, 4096);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 1088u);
  EXPECT_EQ(g_processor.queries, 0);
}

TEST_F(XsaveAreaSize, TheLegacySizeIsCachedToo) {
  Present(1, 0);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 512u);
  Present(13, 2696);
  EXPECT_EQ(__KyGetXsaveAreaMaxSize(), 512u);
  EXPECT_EQ(g_processor.queries, 0);
}

}  // namespace
