// __KyGetKYRTAddressRange: the mapping of the runtime's writable static
// data, found through the module table's own static storage.
#include <cstdint>
#include <cstdio>
#include <string>

#include "gtest/gtest.h"
#include "kyrt/modules.h"
#include "runtime/module_table.h"
#include "runtime/modules_test_support.h"

namespace {

using kyrt_test::AddressOf;

constexpr uint64_t kUntouched = 0xDEADBEEFCAFEF00Dull;

class KyrtAddressRangeTest : public ::testing::Test {
 protected:
  void TearDown() override { kyrt_test::UseRealMaps(); }
};

TEST_F(KyrtAddressRangeTest, IsTheWritableMappingOfTheModuleTableStorage) {
  const uint64_t storage = AddressOf(kyrt::ModuleTableStorageAddress());
  uint64_t start = kUntouched;
  uint64_t end = kUntouched;
  __KyGetKYRTAddressRange(&start, &end);
  EXPECT_LE(start, storage);
  EXPECT_GE(end, storage);
  const std::string line = kyrt_test::RealMapsLineHolding(storage);
  unsigned long mapStart = 0;
  unsigned long mapEnd = 0;
  ASSERT_EQ(std::sscanf(line.c_str(), "%lx-%lx", &mapStart, &mapEnd), 2) << line;
  EXPECT_EQ(start, mapStart);
  EXPECT_EQ(end, mapEnd);
  EXPECT_EQ(kyrt_test::PermissionsOf(line).substr(0, 2), "rw") << line;
}

TEST_F(KyrtAddressRangeTest, StoresTheBoundsOfTheMapLineHoldingTheStorage) {
  kyrt_test::UseMaps("0-fff r--p 0 0:0 0\n1000-ffffffffffffffff rw-p 0 0:0 0\n");
  uint64_t start = kUntouched;
  uint64_t end = kUntouched;
  __KyGetKYRTAddressRange(&start, &end);
  EXPECT_EQ(start, 0x1000u);
  EXPECT_EQ(end, UINT64_MAX);
}

TEST_F(KyrtAddressRangeTest, EitherNullPointerStoresNothing) {
  uint64_t start = kUntouched;
  uint64_t end = kUntouched;
  __KyGetKYRTAddressRange(&start, nullptr);
  EXPECT_EQ(start, kUntouched);
  __KyGetKYRTAddressRange(nullptr, &end);
  EXPECT_EQ(end, kUntouched);
  __KyGetKYRTAddressRange(nullptr, nullptr);
}

TEST_F(KyrtAddressRangeTest, WithoutAMappingHoldingTheStorageNothingIsStored) {
  kyrt_test::UseMaps("0-fff r--p 0 0:0 0\n");
  uint64_t start = kUntouched;
  uint64_t end = kUntouched;
  __KyGetKYRTAddressRange(&start, &end);
  EXPECT_EQ(start, kUntouched);
  EXPECT_EQ(end, kUntouched);
}

TEST_F(KyrtAddressRangeTest, AnUnreadableMapStoresNothing) {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, nullptr, "no-such-maps"});
  uint64_t start = kUntouched;
  uint64_t end = kUntouched;
  __KyGetKYRTAddressRange(&start, &end);
  EXPECT_EQ(start, kUntouched);
  EXPECT_EQ(end, kUntouched);
}

}  // namespace
