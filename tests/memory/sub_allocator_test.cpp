// The underlying allocator: installation, the control record and its bin
// table, and the shutdown of the allocator.
#include <cstdio>
#include <cstdlib>

#include "gtest/gtest.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "memory/memory_test_support.h"
#include "memory/slabs.h"
#include "memory/sub_allocator.h"

namespace kyrt_test {
namespace {

using kyrt::memory::Control;

void StartRuntime() {
  KyPosixHostInstall();
  __KyRtStartup();
}

std::atomic<int> g_otherRequests{0};

void* OtherAllocate(size_t size) {
  g_otherRequests.fetch_add(1);
  return std::malloc(size);
}

void OtherRelease(void* block) {
  std::free(block);
}

TEST(SubAllocatorTest, InstallingFirstCreatesTheRecordWithTheBinTableFromThatAllocator) {
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  EXPECT_NE(kyrt::memory::g_control, nullptr);
  EXPECT_EQ(g_fake.requests.load(), 1u);
  EXPECT_EQ(g_fake.lastRequestSize.load(), kyrt::memory::kBinTableBytes);
  EXPECT_EQ(Control().allocate, FakeAllocate);
  EXPECT_EQ(Control().release, FakeRelease);
  EXPECT_EQ(static_cast<void*>(Control().binTable), g_fake.lastBlock.load());

  StartRuntime();
  void* block = __KyMalloc(0, 100, 0);
  EXPECT_EQ(g_fake.requests.load(), 2u);
  EXPECT_EQ(g_fake.lastRequestSize.load(), kSlabRequest);
  __KyFree(block);
}

TEST(SubAllocatorTest, InstallingLaterChangesTheVariablesOnlyNotTheRecord) {
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  __KyInitializeSubAllocator(OtherAllocate, OtherRelease);
  EXPECT_EQ(Control().allocate, FakeAllocate);
  StartRuntime();
  void* block = __KyMalloc(0, 100, 0);
  EXPECT_EQ(g_otherRequests.load(), 0);
  EXPECT_EQ(g_fake.requests.load(), 2u);
  __KyFree(block);
}

TEST(SubAllocatorTest, WithoutInstallationTheCLibraryAllocatorServes) {
  StartRuntime();
  void* block = __KyMalloc(0, 100, 0);
  EXPECT_EQ(Control().allocate, static_cast<KyAllocateFunction>(&std::malloc));
  EXPECT_EQ(Control().release, static_cast<KyReleaseFunction>(&std::free));
  __KyFree(block);
}

TEST(SubAllocatorTest, TheFirstMemoryFunctionOfAnyKindCreatesTheRecord) {
  StartRuntime();
  EXPECT_EQ(kyrt::memory::g_control, nullptr);
  __KyFree(nullptr);
  EXPECT_NE(kyrt::memory::g_control, nullptr) << "even a free of null";
}

TEST(SubAllocatorTest, APreAllocationCheckCreatesTheRecord) {
  StartRuntime();
  __KyPreVirtualAllocCheck(1);
  EXPECT_NE(kyrt::memory::g_control, nullptr);
  EXPECT_NE(Control().binTable, nullptr);
}

TEST(SubAllocatorTest, AFreeOfNullBeforeInstallationKeepsTheCLibraryAllocator) {
  __KyFree(nullptr);
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  EXPECT_EQ(Control().allocate, static_cast<KyAllocateFunction>(&std::malloc));
  EXPECT_EQ(g_fake.requests.load(), 0u);
}

TEST(SubAllocatorTest, TheCollectorInitialisationCreatesTheRecordToo) {
  StartRuntime();
  __KyInitializeMemoryCollector();
  EXPECT_NE(kyrt::memory::g_control, nullptr);
  EXPECT_NE(Control().binTable, nullptr);
}

TEST(SubAllocatorTest, InternalAllocationBypassesTheSlabs) {
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  const uint64_t requests = g_fake.requests.load();
  void* block = __KyMallocInternal(100);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(g_fake.requests.load(), requests);
  __KyFreeInternal(block);
  __KyFreeInternal(nullptr);
}

void AnnounceExitCode(int32_t code) {
  std::fprintf(stderr, "exit handler called with %d\n", code);
}

TEST(SubAllocatorTest, ABinTableThatCannotBeObtainedEndsTheProcessThroughTheExitHandler) {
  StartRuntime();
  EXPECT_EXIT(
      {
        __KySetExitHandler(AnnounceExitCode);
        FailRequestsFrom(kyrt::memory::kBinTableBytes, 1);
        __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
      },
      ::testing::ExitedWithCode(255), "exit handler called with -1");
}

TEST(SubAllocatorTest, DeinitialisingGivesTheBinTableBackAndFinishesTheRecord) {
  __KyInitializeSubAllocator(FakeAllocate, FakeRelease);
  StartRuntime();
  void* outstanding = __KyMalloc(0, 100, 0);
  kyrt::memory::Bin* table = Control().binTable;
  const uint64_t releases = g_fake.releases.load();
  __KyDeinitializeSubAllocator();
  EXPECT_EQ(g_fake.releases.load(), releases + 1) << "outstanding slabs are not released";
  EXPECT_EQ(g_fake.lastReleased.load(), static_cast<void*>(table));
  EXPECT_NE(kyrt::memory::g_control, nullptr) << "the pointer stays";
  EXPECT_EQ(Control().binTable, nullptr);
  EXPECT_EQ(Control().allocate, nullptr);
  FakeRelease(SlabOf(outstanding));
}

TEST(SubAllocatorTest, DeinitialisingFirstCreatesTheRecordWithTheCLibraryAndFinishesIt) {
  __KyDeinitializeSubAllocator();
  EXPECT_NE(kyrt::memory::g_control, nullptr);
  EXPECT_EQ(Control().binTable, nullptr);
}

}  // namespace
}  // namespace kyrt_test
