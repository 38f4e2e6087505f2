// Address ranges from the memory map: __KyGetModuleAddressRange and
// __KyGetThreadStackBaseAndSize over synthetic maps (exact bounds, the
// inclusive end, first-match order, malformed and over-long lines) and over
// the process's real map.
#include <pthread.h>

#include <cstdint>
#include <future>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "kyrt/modules.h"
#include "runtime/modules_test_support.h"

namespace {

using kyrt_test::AddressOf;
using kyrt_test::UseMaps;

constexpr uint64_t kUntouched = 0xDEADBEEFCAFEF00Dull;

// The map line buffer holds this many characters (its size less the NUL).
constexpr std::size_t kMapsLineCapacity = 4175;

class MemoryMapTest : public ::testing::Test {
 protected:
  void TearDown() override { kyrt_test::UseRealMaps(); }
};

// __KyGetModuleAddressRange as a pair; end is kUntouched when not written.
struct Range {
  uint64_t start;
  uint64_t end;
};

Range RangeOf(uint64_t address) {
  Range range{0, kUntouched};
  range.start = __KyGetModuleAddressRange(address, &range.end);
  return range;
}

void ExpectRange(uint64_t address, uint64_t start, uint64_t end) {
  const Range range = RangeOf(address);
  EXPECT_EQ(range.start, start) << std::hex << "address 0x" << address;
  EXPECT_EQ(range.end, end) << std::hex << "address 0x" << address;
}

void ExpectNoRange(uint64_t address) {
  ExpectRange(address, 0, kUntouched);
}

const char* const kOneMapping = "1000-2000 r-xp 00000000 08:01 42 /opt/tool/libx.so\n";

TEST_F(MemoryMapTest, TheStartOfAMappingIsInsideIt) {
  UseMaps(kOneMapping);
  ExpectRange(0x1000, 0x1000, 0x2000);
}

TEST_F(MemoryMapTest, TheEndOfAMappingIsTakenAsInside) {
  UseMaps(kOneMapping);
  ExpectRange(0x1FFF, 0x1000, 0x2000);
  ExpectRange(0x2000, 0x1000, 0x2000);
}

TEST_F(MemoryMapTest, AddressesJustOutsideGiveZeroAndLeaveTheEndUntouched) {
  UseMaps(kOneMapping);
  ExpectNoRange(0xFFF);
  ExpectNoRange(0x2001);
  ExpectNoRange(0);
}

TEST_F(MemoryMapTest, TheFirstLineHoldingTheAddressWins) {
  UseMaps("1000-3000 r--p 0 0:0 0\n2000-4000 rw-p 0 0:0 0\n");
  ExpectRange(0x2800, 0x1000, 0x3000);
  ExpectRange(0x3000, 0x1000, 0x3000);
  ExpectRange(0x3001, 0x2000, 0x4000);
}

TEST_F(MemoryMapTest, AnAddressSharedByAdjacentMappingsGoesToTheLowerOne) {
  UseMaps("1000-2000 r-xp 0 0:0 0\n2000-3000 rw-p 0 0:0 0\n");
  ExpectRange(0x2000, 0x1000, 0x2000);
  ExpectRange(0x2001, 0x2000, 0x3000);
}

TEST_F(MemoryMapTest, LinesStartingAboveTheAddressAreSkipped) {
  UseMaps("9000-a000 r--p 0 0:0 0\n5000-6000 r--p 0 0:0 0\n1000-2000 r--p 0 0:0 0\n");
  ExpectRange(0x1800, 0x1000, 0x2000);
  ExpectRange(0x9000, 0x9000, 0xA000);
}

TEST_F(MemoryMapTest, LinesEndingBelowTheAddressAreSkipped) {
  UseMaps("1000-2000 r--p 0 0:0 0\n3000-4000 r--p 0 0:0 0\n");
  ExpectRange(0x3800, 0x3000, 0x4000);
  ExpectNoRange(0x2800);
}

TEST_F(MemoryMapTest, FullWidthAddressesAreParsed) {
  UseMaps(
      "55d4c8a00000-55d4c8a21000 rw-p 00000000 00:00 0 [heap]\n"
      "7ffc0a1b2000-7ffc0a1d3000 rw-p 00000000 00:00 0 [stack]\n"
      "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0 [vsyscall]\n");
  ExpectRange(0x7ffc0a1c0000, 0x7ffc0a1b2000, 0x7ffc0a1d3000);
  ExpectRange(0xffffffffff600800, 0xffffffffff600000, 0xffffffffff601000);
  ExpectRange(0x55d4c8a20fff, 0x55d4c8a00000, 0x55d4c8a21000);
}

TEST_F(MemoryMapTest, LinesWithoutBothBoundsAreNotMappings) {
  UseMaps("garbage line\n\n3000 rw-p 0 0:0 0\n-4000\n1000-2000 r--p 0 0:0 0\n");
  ExpectRange(0x1800, 0x1000, 0x2000);
  ExpectNoRange(0x3000);
}

TEST_F(MemoryMapTest, TheLastLineNeedsNoNewLine) {
  UseMaps("1000-2000 r--p 0 0:0 0\n3000-4000 r--p 0 0:0 0");
  ExpectRange(0x3800, 0x3000, 0x4000);
}

TEST_F(MemoryMapTest, TheRestOfAnOverLongLineIsNotReadAsALine) {
  // The first line is longer than the buffer; what lies beyond the buffer
  // looks like a mapping of its own but is the tail of a path.
  std::string longLine = "1000-2000 r--p 0 0:0 0 /";
  longLine.append(kMapsLineCapacity - longLine.size(), 'p');
  longLine += "3000-4000 rw-p 0 0:0 0";
  UseMaps(longLine + "\n5000-6000 r--p 0 0:0 0\n");
  ExpectNoRange(0x3800);
  ExpectRange(0x1800, 0x1000, 0x2000);
  ExpectRange(0x5800, 0x5000, 0x6000);
}

TEST_F(MemoryMapTest, ALineFillingTheBufferExactlyLeavesTheNextLineWhole) {
  std::string fullLine = "1000-2000 r--p 0 0:0 0 /";
  fullLine.append(kMapsLineCapacity - fullLine.size(), 'p');
  ASSERT_EQ(fullLine.size(), kMapsLineCapacity);
  UseMaps(fullLine + "\n3000-4000 rw-p 0 0:0 0\n");
  ExpectRange(0x3800, 0x3000, 0x4000);
}

TEST_F(MemoryMapTest, AnEmptyMapHoldsNothing) {
  UseMaps("");
  ExpectNoRange(0x1000);
}

TEST_F(MemoryMapTest, AMapThatCannotBeOpenedGivesZeroAndWritesNothing) {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, nullptr, "no-such-maps"});
  ExpectNoRange(0x1000);
  uint64_t base = kUntouched;
  EXPECT_EQ(__KyGetThreadStackBaseAndSize(0x1000, &base), 0u);
  EXPECT_EQ(base, 0u);
}

TEST_F(MemoryMapTest, ANullEndScansNothing) {
  // With the map a FIFO, a scan would block in its open until a writer
  // came; a call that returns at once has not scanned.
  ASSERT_TRUE(kyrt_test::UseMapsFifo());
  auto call = std::async(std::launch::async, [] { return __KyGetModuleAddressRange(0, nullptr); });
  const bool returned = call.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  if (!returned) {
    // Let the blocked scan finish so that the case can end.
    kyrt_test::FeedFifoAndClose(kyrt_test::OpenFifoWriterOnceReaderWaits(kyrt_test::kMapsPath), "");
  }
  EXPECT_TRUE(returned);
  EXPECT_EQ(call.get(), 0u);
}

TEST_F(MemoryMapTest, StackBaseIsTheEndOfTheMappingAndSizeItsLength) {
  UseMaps("1000-5000 rw-p 0 0:0 0 [stack]\n");
  for (uint64_t address : {0x1000ull, 0x2000ull, 0x5000ull}) {
    uint64_t base = kUntouched;
    EXPECT_EQ(__KyGetThreadStackBaseAndSize(address, &base), 0x4000u) << std::hex << address;
    EXPECT_EQ(base, 0x5000u) << std::hex << address;
  }
}

TEST_F(MemoryMapTest, StackBaseAndSizeAreZeroOutsideEveryMapping) {
  UseMaps("1000-5000 rw-p 0 0:0 0 [stack]\n");
  uint64_t base = kUntouched;
  EXPECT_EQ(__KyGetThreadStackBaseAndSize(0x5001, &base), 0u);
  EXPECT_EQ(base, 0u);
  base = kUntouched;
  EXPECT_EQ(__KyGetThreadStackBaseAndSize(0xFFF, &base), 0u);
  EXPECT_EQ(base, 0u);
}

TEST_F(MemoryMapTest, StackSizeIsReturnedEvenWithoutABasePointer) {
  UseMaps("1000-5000 rw-p 0 0:0 0 [stack]\n");
  EXPECT_EQ(__KyGetThreadStackBaseAndSize(0x2000, nullptr), 0x4000u);
}

TEST_F(MemoryMapTest, StackBaseUsesTheFirstLineHoldingTheAddress) {
  UseMaps("1000-3000 rw-p 0 0:0 0\n2000-8000 rw-p 0 0:0 0\n");
  uint64_t base = 0;
  EXPECT_EQ(__KyGetThreadStackBaseAndSize(0x2800, &base), 0x2000u);
  EXPECT_EQ(base, 0x3000u);
}

TEST_F(MemoryMapTest, TheRealMappingOfAStaticVariableHoldsIt) {
  static int staticVariable = 1;
  const uint64_t address = AddressOf(&staticVariable);
  const Range range = RangeOf(address);
  ASSERT_NE(range.end, kUntouched);
  EXPECT_LE(range.start, address);
  EXPECT_GE(range.end, address);
  unsigned long start = 0;
  unsigned long end = 0;
  const std::string line = kyrt_test::RealMapsLineHolding(address);
  ASSERT_EQ(std::sscanf(line.c_str(), "%lx-%lx", &start, &end), 2);
  EXPECT_EQ(range.start, start);
  EXPECT_EQ(range.end, end);
  EXPECT_EQ(kyrt_test::PermissionsOf(line).substr(0, 2), "rw");
}

TEST_F(MemoryMapTest, TheMainThreadStackIsItsStackMapping) {
  int onTheStack = 0;
  const uint64_t address = AddressOf(&onTheStack);
  uint64_t base = 0;
  const uint64_t size = __KyGetThreadStackBaseAndSize(address, &base);
  const std::string line = kyrt_test::RealMapsLineHolding(address);
  ASSERT_NE(line.find("[stack]"), std::string::npos) << line;
  unsigned long start = 0;
  unsigned long end = 0;
  ASSERT_EQ(std::sscanf(line.c_str(), "%lx-%lx", &start, &end), 2);
  EXPECT_EQ(base, end);
  EXPECT_EQ(size, end - start);
  EXPECT_GT(base, address);
}

TEST_F(MemoryMapTest, AThreadStackMappingCoversTheThreadsStack) {
  uint64_t address = 0;
  uint64_t base = 0;
  uint64_t size = 0;
  uint64_t attrLow = 0;
  uint64_t attrSize = 0;
  std::thread([&] {
    int onTheStack = 0;
    address = AddressOf(&onTheStack);
    size = __KyGetThreadStackBaseAndSize(address, &base);
    pthread_attr_t attr;
    void* stackAddress = nullptr;
    size_t stackSize = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      pthread_attr_getstack(&attr, &stackAddress, &stackSize);
      pthread_attr_destroy(&attr);
    }
    attrLow = AddressOf(stackAddress);
    attrSize = stackSize;
  }).join();
  ASSERT_NE(attrSize, 0u);
  EXPECT_GT(base, address);
  EXPECT_LE(base - size, address);
  EXPECT_LE(base - size, attrLow);
  EXPECT_GE(base, attrLow + attrSize);
}

}  // namespace
