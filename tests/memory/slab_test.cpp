// Slabs, chunk words, bins and large blocks, read from real blocks.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "memory/large_blocks.h"
#include "memory/memory_test_support.h"
#include "memory/slabs.h"
#include "memory/sub_allocator.h"

namespace kyrt_test {
namespace {

using kyrt::memory::Bin;
using kyrt::memory::ChunkWord;
using kyrt::memory::SlabHeader;
using SlabTest = MemoryTest;

uintptr_t Address(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

const Bin& BinOf(uint32_t category, uint32_t units) {
  return kyrt::memory::Control().binTable[category * 2046u + units - 1];
}

TEST(SizeClassTest, UnitsAreTheBytesPlusTheChunkWordRoundedUpTo16) {
  using kyrt::memory::SizeClassUnits;
  EXPECT_EQ(SizeClassUnits(0), 1u);
  EXPECT_EQ(SizeClassUnits(8), 1u);
  EXPECT_EQ(SizeClassUnits(9), 2u);
  EXPECT_EQ(SizeClassUnits(24), 2u);
  EXPECT_EQ(SizeClassUnits(25), 3u);
  EXPECT_EQ(SizeClassUnits(32728), 2046u);
  EXPECT_EQ(SizeClassUnits(32729), 2047u);
}

TEST(SizeClassTest, SmallMeansOneTo2046UnitsCountedIn32Bits) {
  using kyrt::memory::IsSmallSizeClass;
  using kyrt::memory::SizeClassUnits;
  EXPECT_TRUE(IsSmallSizeClass(1));
  EXPECT_TRUE(IsSmallSizeClass(2046));
  EXPECT_FALSE(IsSmallSizeClass(2047));
  EXPECT_FALSE(IsSmallSizeClass(0));
  // 64 GiB - 23 bytes is 2^32 units: the 32-bit count wraps to 0, which is
  // no size class.
  EXPECT_EQ(SizeClassUnits((uint64_t{1} << 36) - 23), 0u);
  EXPECT_FALSE(IsSmallSizeClass(SizeClassUnits((uint64_t{1} << 36) - 23)));
}

TEST(SizeClassTest, ChunksPerSlab) {
  using kyrt::memory::ChunksPerSlab;
  using kyrt::memory::SlabBytes;
  EXPECT_EQ(ChunksPerSlab(SlabBytes(0), 1), 4092u);
  EXPECT_EQ(ChunksPerSlab(SlabBytes(0), 2046), 2u);
  EXPECT_EQ(ChunksPerSlab(SlabBytes(0), 3), 1364u);
  EXPECT_EQ(ChunksPerSlab(SlabBytes(14), 1), (((uint64_t{1} << 30) - 16) / 16 - 3));
  EXPECT_EQ(SlabBytes(14), uint64_t{1} << 30);
}

TEST_F(SlabTest, ZeroBytesGetAUsableBlockOfSizeClassOne) {
  void* block = __KyMalloc(0, 0, 0);
  ASSERT_NE(block, nullptr);
  SlabHeader* slab = SlabOf(block);
  EXPECT_EQ(slab->chunkUnits, 1u);
  EXPECT_EQ(slab->chunkCount, kChunksOfOneUnit);
  EXPECT_EQ(Address(block) % 16, 8u);
  EXPECT_EQ(Address(block), Address(slab) + 48 + 8) << "the first chunk follows the header";
  std::memset(block, 0xA5, 8);  // the 8 usable bytes
  EXPECT_EQ(SlabOf(block), slab) << "the chunk word is left alone";
  __KyFree(block);
}

TEST_F(SlabTest, SlabHeaderFieldsOfANewSlab) {
  const uint32_t category = __KyRegisterMemoryCategory("headers");
  const uint64_t requestsBefore = g_fake.requests.load();
  void* block = __KyMalloc(category, 100, 0);  // 7 units
  EXPECT_EQ(g_fake.requests.load(), requestsBefore + 1);
  EXPECT_EQ(g_fake.lastRequestSize.load(), kSlabRequest);
  SlabHeader* slab = SlabOf(block);
  EXPECT_EQ(slab, g_fake.lastBlock.load());
  EXPECT_EQ(slab->next, nullptr);
  EXPECT_EQ(slab->previous, nullptr);
  EXPECT_EQ(slab->chunkUnits, 7u);
  EXPECT_EQ(slab->chunkCount, 584u);
  EXPECT_EQ(slab->freeChunks, 583u);
  EXPECT_EQ(slab->marker, 0xBEEF);
  EXPECT_EQ(slab->category, category);
  EXPECT_EQ(slab->slabShift, 0u);
  EXPECT_EQ(Address(slab->firstFree), Address(slab) + 48 + 7 * 16);
  EXPECT_EQ(BinOf(category, 7).firstSlab, slab);
  __KyFree(block);
}

TEST_F(SlabTest, FreeListOfANewSlabRunsInAscendingOrderWithBitZeroSet) {
  void* block = __KyMalloc(0, 56, 0);  // 4 units
  SlabHeader* slab = SlabOf(block);
  uint32_t listed = 0;
  ChunkWord* chunk = slab->firstFree;
  uintptr_t expected = Address(slab) + 48 + 64;
  while (true) {
    ASSERT_EQ(Address(chunk), expected) << "chunk " << listed;
    ++listed;
    const ChunkWord word = *chunk;
    ASSERT_EQ(word & 1, 1u);
    if (word == 1) break;
    expected += 64;
    chunk = reinterpret_cast<ChunkWord*>(word & ~ChunkWord{1});
  }
  EXPECT_EQ(listed, slab->chunkCount - 1);
  EXPECT_EQ(listed, slab->freeChunks);
  EXPECT_LE(expected + 64, Address(slab) + kSlabRequest) << "the last chunk fits the slab";
  __KyFree(block);
}

TEST_F(SlabTest, LargestSmallRequestAndSmallestLargeRequest) {
  void* small = __KyMalloc(0, 32728, 0);
  EXPECT_EQ(SlabOf(small)->chunkUnits, 2046u);
  EXPECT_EQ(SlabOf(small)->chunkCount, 2u);
  std::memset(small, 0x11, 32728);

  void* large = __KyMalloc(0, 32729, 0);
  EXPECT_EQ(g_fake.lastRequestSize.load(), 32729u + 8u);
  const ChunkWord word = *kyrt::memory::ChunkWordOf(large);
  EXPECT_EQ(word, 0xBEEFu);
  EXPECT_EQ(word >> 32, 0u);
  EXPECT_EQ(Address(large), Address(g_fake.lastBlock.load()) + 8);
  std::memset(large, 0x22, 32729);
  __KyFree(small);
  __KyFree(large);
}

TEST_F(SlabTest, LargeBlockGoesBackToTheReleaseFunctionWithoutABinLock) {
  void* large = __KyMalloc(0, 100000, 0);
  void* underlying = g_fake.lastBlock.load();
  const uint64_t releasesBefore = g_fake.releases.load();
  __KyFree(large);
  EXPECT_EQ(g_fake.releases.load(), releasesBefore + 1);
  EXPECT_EQ(g_fake.lastReleased.load(), underlying);
}

TEST_F(SlabTest, LargeBlocksAreNotCounted) {
  __KyEnableMemoryStatisticsCollection();
  void* large = __KyMalloc(0, 1000000, 0);
  EXPECT_EQ(__kyTotalMemoryAllocated, 0u);
  __KyFree(large);
}

TEST_F(SlabTest, SlabShiftSetsTheSlabSize) {
  void* block = __KyMalloc(0, 100, 2);
  EXPECT_EQ(g_fake.lastRequestSize.load(), (uint64_t{1} << 18) - 16);
  SlabHeader* slab = SlabOf(block);
  EXPECT_EQ(slab->slabShift, 2u);
  EXPECT_EQ(slab->chunkCount, (((uint64_t{1} << 18) - 16) / 16 - 3) / 7);
  __KyFree(block);
}

TEST_F(SlabTest, ASizeClassSharesItsSlabsWhateverShiftLaterCallersAsk) {
  void* first = __KyMalloc(0, 100, 1);
  const uint64_t requests = g_fake.requests.load();
  void* second = __KyMalloc(0, 100, 0);
  EXPECT_EQ(g_fake.requests.load(), requests);
  EXPECT_EQ(SlabOf(second), SlabOf(first));
  __KyFree(first);
  __KyFree(second);
}

TEST_F(SlabTest, ChunkWordOfABlockInUseIsItsSlab) {
  void* a = __KyMalloc(0, 200, 0);
  void* b = __KyMalloc(0, 200, 0);
  EXPECT_EQ(SlabOf(a), SlabOf(b));
  EXPECT_EQ(Address(b) - Address(a), 13u * 16u) << "consecutive chunks of 13 units";
  EXPECT_EQ(Address(SlabOf(a)) % 2, 0u);
  __KyFree(a);
  __KyFree(b);
}

TEST_F(SlabTest, TheLastChunkFreedIsTheFirstHandedOut) {
  void* a = __KyMalloc(0, 64, 0);
  void* b = __KyMalloc(0, 64, 0);
  __KyFree(a);
  const ChunkWord freedWord = *kyrt::memory::ChunkWordOf(a);
  EXPECT_EQ(freedWord & 1, 1u);
  EXPECT_EQ(Address(SlabOf(b)->firstFree), Address(kyrt::memory::ChunkWordOf(a)));
  EXPECT_EQ(__KyMalloc(0, 64, 0), a);
  __KyFree(a);
  __KyFree(b);
}

TEST_F(SlabTest, CategoriesNeverShareSlabs) {
  const uint32_t other = __KyRegisterMemoryCategory("other");
  void* a = __KyMalloc(0, 300, 0);
  void* b = __KyMalloc(other, 300, 0);
  EXPECT_NE(SlabOf(a), SlabOf(b));
  EXPECT_EQ(SlabOf(b)->category, other);
  __KyFree(a);
  __KyFree(b);
}

TEST_F(SlabTest, DoubleFreeIsLoggedOnceAndChangesNothing) {
  void* keep = __KyMalloc(0, 500, 0);
  void* block = __KyMalloc(0, 500, 0);
  SlabHeader* slab = SlabOf(block);
  __KyFree(block);
  const uint32_t freeChunks = slab->freeChunks;
  ChunkWord* firstFree = slab->firstFree;
  const ChunkWord word = *kyrt::memory::ChunkWordOf(block);

  __KyFree(block);
  EXPECT_EQ(slab->freeChunks, freeChunks);
  EXPECT_EQ(slab->firstFree, firstFree);
  EXPECT_EQ(*kyrt::memory::ChunkWordOf(block), word);
  const std::vector<LogRecord> records = ReadLogRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].type, "INTERNAL");
  EXPECT_EQ(records[0].severity, "INFO");
  EXPECT_EQ(records[0].text, "Tried to free a memory chunk that has already been freed");
  __KyFree(keep);
}

TEST_F(SlabTest, NullIsIgnored) {
  const uint64_t releases = g_fake.releases.load();
  __KyFree(nullptr);
  EXPECT_EQ(g_fake.releases.load(), releases);
  EXPECT_TRUE(ReadLogRecords().empty());
}

TEST_F(SlabTest, TheOnlySlabOfABinIsKeptWhenItEmpties) {
  std::vector<void*> blocks;
  for (int block = 0; block < 10; ++block) blocks.push_back(__KyMalloc(0, 1000, 0));
  SlabHeader* slab = SlabOf(blocks[0]);
  const uint64_t releases = g_fake.releases.load();
  for (void* block : blocks) __KyFree(block);
  EXPECT_EQ(g_fake.releases.load(), releases);
  EXPECT_EQ(slab->freeChunks, slab->chunkCount);
  EXPECT_EQ(BinOf(0, kyrt::memory::SizeClassUnits(1000)).firstSlab, slab);

  const uint64_t requests = g_fake.requests.load();
  void* again = __KyMalloc(0, 1000, 0);
  EXPECT_EQ(g_fake.requests.load(), requests) << "the cached slab serves the next request";
  EXPECT_EQ(SlabOf(again), slab);
  __KyFree(again);
}

TEST_F(SlabTest, AFullSlabLeavesTheListAndComesBackToItsFrontWithAFreeChunk) {
  const uint32_t id = __KyRegisterMemoryCategory("full");
  const Bin& bin = BinOf(id, 2046);
  void* a = __KyMalloc(id, kTwoChunkSize, 0);
  void* b = __KyMalloc(id, kTwoChunkSize, 0);
  SlabHeader* first = SlabOf(a);
  EXPECT_EQ(first->freeChunks, 0u);
  EXPECT_EQ(bin.firstSlab, nullptr) << "a full slab is off the list";

  void* c = __KyMalloc(id, kTwoChunkSize, 0);
  SlabHeader* second = SlabOf(c);
  EXPECT_NE(second, first);
  EXPECT_EQ(bin.firstSlab, second);

  __KyFree(a);
  EXPECT_EQ(bin.firstSlab, first);
  EXPECT_EQ(first->next, second);
  EXPECT_EQ(second->previous, first);
  EXPECT_EQ(first->previous, nullptr);
  __KyFree(b);
  __KyFree(c);
}

TEST_F(SlabTest, ASlabThatEmptiesBesideAnotherGoesBackAndIsUncounted) {
  __KyEnableMemoryStatisticsCollection();
  const uint32_t id = __KyRegisterMemoryCategory("two slabs");
  const Bin& bin = BinOf(id, 2046);
  void* a = __KyMalloc(id, kTwoChunkSize, 0);
  void* b = __KyMalloc(id, kTwoChunkSize, 0);
  void* c = __KyMalloc(id, kTwoChunkSize, 0);
  SlabHeader* first = SlabOf(a);
  SlabHeader* second = SlabOf(c);
  EXPECT_EQ(CategoryInfo(id).allocated, 131072);

  const uint64_t releases = g_fake.releases.load();
  __KyFree(a);
  __KyFree(b);
  EXPECT_EQ(g_fake.releases.load(), releases + 1);
  EXPECT_EQ(g_fake.lastReleased.load(), first);
  EXPECT_EQ(CategoryInfo(id).allocated, 65536);
  EXPECT_EQ(bin.firstSlab, second);
  EXPECT_EQ(second->previous, nullptr);
  EXPECT_EQ(second->next, nullptr);

  __KyFree(c);  // now the only slab: kept
  EXPECT_EQ(g_fake.releases.load(), releases + 1);
  EXPECT_EQ(CategoryInfo(id).allocated, 65536);
}

TEST_F(SlabTest, AnEmptySlabBehindTheHeadIsGivenBack) {
  const uint32_t id = __KyRegisterMemoryCategory("behind");
  const Bin& bin = BinOf(id, 2046);
  void* a = __KyMalloc(id, kTwoChunkSize, 0);
  void* b = __KyMalloc(id, kTwoChunkSize, 0);  // first slab full
  void* c = __KyMalloc(id, kTwoChunkSize, 0);  // second slab, head of the list
  void* d = __KyMalloc(id, kTwoChunkSize, 0);  // second slab full
  void* e = __KyMalloc(id, kTwoChunkSize, 0);  // third slab, head
  SlabHeader* second = SlabOf(c);
  SlabHeader* third = SlabOf(e);
  __KyFree(a);  // first slab back to the head: first, third
  __KyFree(c);  // second slab to the head: second, first, third
  EXPECT_EQ(bin.firstSlab, second);
  __KyFree(b);  // the first slab empties in the middle of the list
  EXPECT_EQ(second->next, third);
  EXPECT_EQ(third->previous, second);
  __KyFree(d);
  __KyFree(e);
}

// While a slab is being obtained its bin is unlocked, and another request
// may add a slab to the bin meanwhile; here the same thread does so from
// inside the underlying allocator.
std::atomic<void*> g_blockAddedMeanwhile{nullptr};

void AllocateFromTheSameBinOnce(size_t size) {
  if (size != kSlabRequest || g_blockAddedMeanwhile.load() != nullptr) return;
  g_blockAddedMeanwhile.store(reinterpret_cast<void*>(1));
  g_blockAddedMeanwhile.store(__KyMalloc(0, 2000, 0));
}

TEST_F(SlabTest, ANewSlabGoesInFrontOfOneAddedMeanwhile) {
  const Bin& bin = BinOf(0, kyrt::memory::SizeClassUnits(2000));
  g_fake.onRequest.store(AllocateFromTheSameBinOnce);
  void* block = __KyMalloc(0, 2000, 0);
  g_fake.onRequest.store(nullptr);
  SlabHeader* outer = SlabOf(block);
  SlabHeader* inner = SlabOf(g_blockAddedMeanwhile.load());
  ASSERT_NE(outer, inner);
  EXPECT_EQ(bin.firstSlab, outer);
  EXPECT_EQ(outer->next, inner);
  EXPECT_EQ(outer->previous, nullptr);
  EXPECT_EQ(inner->previous, outer);
  EXPECT_EQ(outer->freeChunks, outer->chunkCount - 1) << "the chunk came from the new head";
  EXPECT_EQ(inner->freeChunks, inner->chunkCount - 1);
  __KyFree(block);
  __KyFree(g_blockAddedMeanwhile.load());
}

// The underlying allocator is entered under the memory lock and never under
// a bin lock; large blocks go back under no lock, slabs under their bin's.
std::atomic<int> g_requestsOutsideMemoryLock{0};
std::atomic<int> g_requestsUnderBinLock{0};
std::atomic<int> g_releasesUnderMemoryLock{0};
std::atomic<int> g_slabReleasesOutsideBinLock{0};
const KySpinLock* g_watchedBinLock = nullptr;

void CheckLocksAtRequest(size_t) {
  if (!__KyIsSpinLockAcquiredByCallingThread(&kyrt::memory::g_memoryLock)) {
    g_requestsOutsideMemoryLock.fetch_add(1);
  }
  if (g_watchedBinLock != nullptr &&
      __KyIsSpinLockInAcquiredState(const_cast<KySpinLock*>(g_watchedBinLock))) {
    g_requestsUnderBinLock.fetch_add(1);
  }
}

void CheckLocksAtRelease(size_t size) {
  if (__KyIsSpinLockInAcquiredState(&kyrt::memory::g_memoryLock)) {
    g_releasesUnderMemoryLock.fetch_add(1);
  }
  if (size == kSlabRequest && g_watchedBinLock != nullptr &&
      !__KyIsSpinLockAcquiredByCallingThread(const_cast<KySpinLock*>(g_watchedBinLock))) {
    g_slabReleasesOutsideBinLock.fetch_add(1);
  }
}

TEST_F(SlabTest, LockDisciplineAroundTheUnderlyingAllocator) {
  const uint32_t id = __KyRegisterMemoryCategory("locks");
  g_watchedBinLock = &BinOf(id, 2046).lock;
  g_fake.onRequest.store(CheckLocksAtRequest);
  g_fake.onRelease.store(CheckLocksAtRelease);
  const uint64_t requests = g_fake.requests.load();
  const uint64_t releases = g_fake.releases.load();
  void* blocks[3];
  for (void*& block : blocks) block = __KyMalloc(id, kTwoChunkSize, 0);
  void* large = __KyMalloc(id, kLargeSize, 0);
  __KyFree(large);
  __KyFree(blocks[0]);
  __KyFree(blocks[1]);  // the first slab goes back
  g_fake.onRequest.store(nullptr);
  g_fake.onRelease.store(nullptr);
  EXPECT_EQ(g_fake.requests.load(), requests + 3);
  EXPECT_EQ(g_fake.releases.load(), releases + 2);
  EXPECT_EQ(g_requestsOutsideMemoryLock.load(), 0);
  EXPECT_EQ(g_requestsUnderBinLock.load(), 0);
  EXPECT_EQ(g_releasesUnderMemoryLock.load(), 0);
  EXPECT_EQ(g_slabReleasesOutsideBinLock.load(), 0);
  __KyFree(blocks[2]);
}

TEST_F(SlabTest, BinTableIsOneBlockOf64By2046RecordsOf40Bytes) {
  static_assert(sizeof(Bin) == 40);
  static_assert(sizeof(SlabHeader) == 48);
  const Bin* table = kyrt::memory::Control().binTable;
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(kyrt::memory::kBinTableBytes, 64u * 2046u * 40u);
  EXPECT_EQ(kyrt::memory::kBinTableBytes, 5237760u);
  for (size_t index = 0; index < kyrt::memory::kBinCount; ++index) {
    ASSERT_EQ(table[index].chunkUnits, index % 2046 + 1) << "bin " << index;
    ASSERT_EQ(__KyIsSpinLockInAcquiredState(const_cast<KySpinLock*>(&table[index].lock)), 0);
  }
  EXPECT_EQ(table[63 * 2046 + 2045].chunkUnits, 2046u);
}

}  // namespace
}  // namespace kyrt_test
