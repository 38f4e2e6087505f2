// Unit tests of the two-lock queue: record layout, creation and its flags
// word, first-in first-out order, peek with and without a predicate and
// with removal, the tail's moves, destroy, null handles, and where the
// queue's memory comes from and goes back to. Every behaviour is checked on
// a queue with and without the thread-safe bit.
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/queue.h"
#include "kyrt/spin_lock.h"
#include "memory/slabs.h"
#include "sync/lock_test_support.h"

namespace {

// An id no real thread has (Linux thread ids stay below 2^22): a lock held
// for it is held by "somebody else".
constexpr KyThreadId kOtherOwner = 0x70000001u;

void* Value(uintptr_t number) {
  return reinterpret_cast<void*>(number);
}

uintptr_t Number(void* value) {
  return reinterpret_cast<uintptr_t>(value);
}

bool IsFreedBlock(void* block) {
  return (*kyrt::memory::ChunkWordOf(block) & kyrt::memory::kFreeChunkBit) != 0;
}

kyrt::memory::SlabHeader* SlabOf(void* block) {
  return reinterpret_cast<kyrt::memory::SlabHeader*>(*kyrt::memory::ChunkWordOf(block));
}

// The calls of the recording predicate: (arg1, arg2, value).
std::vector<std::tuple<unsigned, long, uintptr_t>> g_matchCalls;

// Matches values at least arg2, recording every call.
int MatchAtLeast(unsigned arg1, long arg2, void* value) {
  g_matchCalls.emplace_back(arg1, arg2, Number(value));
  return Number(value) >= static_cast<uintptr_t>(arg2) ? 1 : 0;
}

// Matches value arg2 exactly.
int MatchEqual(unsigned, long arg2, void* value) {
  return Number(value) == static_cast<uintptr_t>(arg2) ? 1 : 0;
}

// Answers arg1 for every value: a true value other than 1 is no match.
int AnswerArg1(unsigned arg1, long, void*) {
  return static_cast<int>(arg1);
}

class QueueTest : public kyrt_test::RuntimeTest, public ::testing::WithParamInterface<unsigned> {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    g_matchCalls.clear();
    queue_ = __KyCreateQueue(GetParam(), KY_MEMORY_CATEGORY_MISC);
  }

  void TearDown() override {
    __KyDestroyQueue(queue_);
    __KyFree(queue_);
  }

  void Enqueue(std::initializer_list<uintptr_t> numbers) {
    for (uintptr_t number : numbers) __KyEnqueue(queue_, Value(number));
  }

  // The values from the front to the tail, read from the links.
  std::vector<uintptr_t> Contents() const {
    std::vector<uintptr_t> numbers;
    for (const KyQueueNode* node = queue_->sentinel.next; node != nullptr; node = node->next) {
      numbers.push_back(Number(node->value));
    }
    return numbers;
  }

  KyQueueNode* LastNode() const {
    KyQueueNode* last = &queue_->sentinel;
    while (last->next != nullptr) last = last->next;
    return last;
  }

  // The invariants between operations: the head is the sentinel, the tail
  // is the last node and the sentinel exactly when the queue is empty, and
  // both locks are free.
  void ExpectIntact() const {
    EXPECT_EQ(queue_->head, &queue_->sentinel);
    EXPECT_EQ(queue_->tail, LastNode());
    EXPECT_EQ(queue_->tail->next, nullptr);
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->headLock), 0);
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->tailLock), 0);
  }

  KyQueue* queue_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Flags, QueueTest, ::testing::Values(0u, KY_QUEUE_FLAG_THREAD_SAFE),
                         [](const ::testing::TestParamInfo<unsigned>& info) {
                           return info.param ? std::string("ThreadSafe") : std::string("OneThread");
                         });

// ---------------------------------------------------------------------------
// Layout and creation

TEST(QueueLayout, RecordAndNodeFieldsSitAtTheirFixedOffsets) {
  EXPECT_EQ(sizeof(KyQueueNode), 16u);
  EXPECT_EQ(offsetof(KyQueueNode, value), 0u);
  EXPECT_EQ(offsetof(KyQueueNode, next), 8u);
  EXPECT_EQ(sizeof(KyQueue), 88u);
  EXPECT_EQ(offsetof(KyQueue, head), 0u);
  EXPECT_EQ(offsetof(KyQueue, tail), 8u);
  EXPECT_EQ(offsetof(KyQueue, sentinel), 16u);
  EXPECT_EQ(offsetof(KyQueue, headLock), 32u);
  EXPECT_EQ(offsetof(KyQueue, tailLock), 56u);
  EXPECT_EQ(offsetof(KyQueue, flags), 80u);
  EXPECT_EQ(offsetof(KyQueue, userFlag), 84u);
  EXPECT_EQ(KY_QUEUE_FLAG_THREAD_SAFE, 0x2u);
}

class QueueCreateTest : public kyrt_test::RuntimeTest {};

TEST_F(QueueCreateTest, FlagsWordCarriesTheCategoryInBitsFourToEleven) {
  const struct {
    unsigned flags;
    unsigned category;
    uint32_t stored;
  } cases[] = {
      {0xFF2u, 5, 0x52u},    {0u, 0, 0u},        {0x2u, 0, 0x2u},
      {0xFF0u, 1, 0x10u},    {0x1u, 63, 0x3F1u}, {0xFFFFFFFFu, 63, 0xFFFFF3FFu},
      {0xF000u, 0, 0xF000u},
  };
  for (const auto& c : cases) {
    KyQueue* queue = __KyCreateQueue(c.flags, c.category);
    EXPECT_EQ(queue->flags, c.stored) << std::hex << c.flags << " " << c.category;
    __KyFree(queue);
  }
}

TEST_F(QueueCreateTest, NewQueueIsEmptyWithFreeLocksAndAZeroUserFlag) {
  KyQueue* queue = __KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, KY_MEMORY_CATEGORY_MISC);
  EXPECT_EQ(queue->head, &queue->sentinel);
  EXPECT_EQ(queue->tail, &queue->sentinel);
  EXPECT_EQ(queue->sentinel.next, nullptr);
  EXPECT_EQ(queue->userFlag, 0u);
  for (const KySpinLock* lock : {&queue->headLock, &queue->tailLock}) {
    EXPECT_EQ(lock->ownerThreadId, 0u);
    EXPECT_EQ(lock->state, 0u);
    EXPECT_EQ(lock->recursionCount, 0u);
    EXPECT_EQ(lock->spinCount, 0u);
  }
  EXPECT_EQ(__KyIsQueueEmpty(queue), 1);
  __KyFree(queue);
}

TEST_F(QueueCreateTest, RecordAndNodesComeFromTheQueueCategoryWithTheSmallestSlabs) {
  const uint32_t category = __KyRegisterMemoryCategory("queue-slabs");
  KyQueue* queue = __KyCreateQueue(0, category);
  __KyEnqueue(queue, Value(1));
  for (void* block : {static_cast<void*>(queue), static_cast<void*>(queue->sentinel.next)}) {
    EXPECT_EQ(SlabOf(block)->category, category);
    EXPECT_EQ(SlabOf(block)->slabShift, 0u);
  }
  __KyDestroyQueue(queue);
  __KyFree(queue);
}

// ---------------------------------------------------------------------------
// Enqueue and dequeue

TEST_P(QueueTest, DequeueReturnsTheValuesInArrivalOrderThenNull) {
  Enqueue({1, 2, 3});
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{1, 2, 3}));
  ExpectIntact();
  EXPECT_EQ(Number(__KyDequeue(queue_)), 1u);
  EXPECT_EQ(Number(__KyDequeue(queue_)), 2u);
  EXPECT_EQ(Number(__KyDequeue(queue_)), 3u);
  EXPECT_EQ(__KyDequeue(queue_), nullptr);
  ExpectIntact();
}

TEST_P(QueueTest, FirstEnqueueLinksTheSentinelAndBecomesTheTail) {
  Enqueue({7});
  KyQueueNode* node = queue_->sentinel.next;
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(queue_->tail, node);
  EXPECT_EQ(Number(node->value), 7u);
  EXPECT_EQ(node->next, nullptr);
}

TEST_P(QueueTest, LastDequeueMovesTheTailBackAndTheNextEnqueueIsTheFront) {
  Enqueue({1, 2});
  __KyDequeue(queue_);
  EXPECT_NE(queue_->tail, &queue_->sentinel);
  __KyDequeue(queue_);
  EXPECT_EQ(queue_->tail, &queue_->sentinel);
  EXPECT_EQ(queue_->sentinel.next, nullptr);
  Enqueue({9});
  EXPECT_EQ(queue_->sentinel.next, queue_->tail);
  EXPECT_EQ(Number(__KyDequeue(queue_)), 9u);
  ExpectIntact();
}

TEST_P(QueueTest, DequeueFreesTheNode) {
  Enqueue({1, 2});
  KyQueueNode* first = queue_->sentinel.next;
  KyQueueNode* second = first->next;
  __KyDequeue(queue_);
  EXPECT_TRUE(IsFreedBlock(first));
  EXPECT_FALSE(IsFreedBlock(second));
  __KyDequeue(queue_);
  EXPECT_TRUE(IsFreedBlock(second));
}

TEST_P(QueueTest, AStoredNullComesOutAsNullAndOnlyIsEmptyTellsItApart) {
  Enqueue({0});
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 0);
  EXPECT_EQ(__KyDequeue(queue_), nullptr);
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
  ExpectIntact();
}

TEST_P(QueueTest, IsEmptyFollowsTheSentinelLink) {
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
  Enqueue({1});
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 0);
  Enqueue({2});
  __KyDequeue(queue_);
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 0);
  __KyDequeue(queue_);
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
}

TEST_P(QueueTest, PointerSizedValuesPassUnchanged) {
  const uintptr_t big = ~uintptr_t{0} - 1;
  Enqueue({big, uintptr_t{1} << 63});
  EXPECT_EQ(Number(__KyDequeue(queue_)), big);
  EXPECT_EQ(Number(__KyDequeue(queue_)), uintptr_t{1} << 63);
}

// ---------------------------------------------------------------------------
// Peek

TEST_P(QueueTest, PeekWithoutPredicateOrRemovalReturnsTheFrontAndChangesNothing) {
  Enqueue({4, 5});
  KyQueueNode* front = queue_->sentinel.next;
  EXPECT_EQ(Number(__KyPeekQueue(queue_, nullptr, 0, 0, 0)), 4u);
  EXPECT_EQ(queue_->sentinel.next, front);
  EXPECT_FALSE(IsFreedBlock(front));
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{4, 5}));
  ExpectIntact();
}

TEST_P(QueueTest, PeekWithoutPredicateWithRemovalActsAsDequeue) {
  Enqueue({4, 5});
  KyQueueNode* front = queue_->sentinel.next;
  EXPECT_EQ(Number(__KyPeekQueue(queue_, nullptr, 0, 0, 1)), 4u);
  EXPECT_TRUE(IsFreedBlock(front));
  EXPECT_EQ(Number(__KyPeekQueue(queue_, nullptr, 0, 0, 1)), 5u);
  EXPECT_EQ(queue_->tail, &queue_->sentinel);
  EXPECT_EQ(__KyPeekQueue(queue_, nullptr, 0, 0, 1), nullptr);
  ExpectIntact();
}

TEST_P(QueueTest, AnyNonZeroRemoveArgumentRemoves) {
  Enqueue({4, 5});
  EXPECT_EQ(Number(__KyPeekQueue(queue_, nullptr, 0, 0, -7)), 4u);
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{5}));
}

TEST_P(QueueTest, PeekStopsAtTheFirstMatchPassingItsArgumentsThrough) {
  Enqueue({1, 2, 3, 4, 5});
  EXPECT_EQ(Number(__KyPeekQueue(queue_, MatchAtLeast, 77, 3, 0)), 3u);
  using Call = std::tuple<unsigned, long, uintptr_t>;
  EXPECT_EQ(g_matchCalls, (std::vector<Call>{{77, 3, 1}, {77, 3, 2}, {77, 3, 3}}));
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{1, 2, 3, 4, 5}));
}

TEST_P(QueueTest, PeekRemovingAMiddleMatchKeepsTheOrderAndTheTail) {
  Enqueue({1, 2, 3});
  KyQueueNode* tail = queue_->tail;
  KyQueueNode* middle = queue_->sentinel.next->next;
  EXPECT_EQ(Number(__KyPeekQueue(queue_, MatchEqual, 0, 2, 1)), 2u);
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{1, 3}));
  EXPECT_EQ(queue_->tail, tail);
  EXPECT_TRUE(IsFreedBlock(middle));
  ExpectIntact();
}

TEST_P(QueueTest, PeekRemovingTheLastNodeMovesTheTailToTheNodeBefore) {
  Enqueue({1, 2, 3});
  KyQueueNode* second = queue_->sentinel.next->next;
  EXPECT_EQ(Number(__KyPeekQueue(queue_, MatchEqual, 0, 3, 1)), 3u);
  EXPECT_EQ(queue_->tail, second);
  EXPECT_EQ(second->next, nullptr);
  Enqueue({4});
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{1, 2, 4}));
  ExpectIntact();
}

TEST_P(QueueTest, PeekRemovingTheOnlyNodeMovesTheTailToTheSentinel) {
  Enqueue({8});
  EXPECT_EQ(Number(__KyPeekQueue(queue_, MatchEqual, 0, 8, 1)), 8u);
  EXPECT_EQ(queue_->tail, &queue_->sentinel);
  EXPECT_EQ(queue_->sentinel.next, nullptr);
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
  Enqueue({9});
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{9}));
  ExpectIntact();
}

TEST_P(QueueTest, PeekWithoutAMatchReturnsNullAndChangesNothing) {
  Enqueue({1, 2});
  EXPECT_EQ(__KyPeekQueue(queue_, MatchAtLeast, 0, 3, 1), nullptr);
  EXPECT_EQ(g_matchCalls.size(), 2u);
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{1, 2}));
  ExpectIntact();
}

TEST_P(QueueTest, OnlyAnAnswerOfExactlyOneIsAMatch) {
  Enqueue({1});
  EXPECT_EQ(__KyPeekQueue(queue_, AnswerArg1, 2, 0, 1), nullptr);
  EXPECT_EQ(__KyPeekQueue(queue_, AnswerArg1, static_cast<unsigned>(-1), 0, 1), nullptr);
  EXPECT_EQ(Contents(), (std::vector<uintptr_t>{1}));
  EXPECT_EQ(Number(__KyPeekQueue(queue_, AnswerArg1, 1, 0, 1)), 1u);
}

TEST_P(QueueTest, PeekOnAnEmptyQueueNeverCallsThePredicate) {
  EXPECT_EQ(__KyPeekQueue(queue_, MatchAtLeast, 0, 0, 0), nullptr);
  EXPECT_EQ(__KyPeekQueue(queue_, MatchAtLeast, 0, 0, 1), nullptr);
  EXPECT_EQ(__KyPeekQueue(queue_, nullptr, 0, 0, 1), nullptr);
  EXPECT_TRUE(g_matchCalls.empty());
  ExpectIntact();
}

// ---------------------------------------------------------------------------
// User flag, destroy and null handles

TEST_P(QueueTest, SetQueueFlagStoresTheUserFlagOnly) {
  const uint32_t flags = queue_->flags;
  __KySetQueueFlag(queue_, 0xDEADBEEFu);
  EXPECT_EQ(queue_->userFlag, 0xDEADBEEFu);
  EXPECT_EQ(queue_->flags, flags);
  Enqueue({1});
  EXPECT_EQ(Number(__KyDequeue(queue_)), 1u);
  __KySetQueueFlag(queue_, 0);
  EXPECT_EQ(queue_->userFlag, 0u);
}

TEST_P(QueueTest, DestroyFreesEveryNodeButLeavesTheTailAndTheRecord) {
  Enqueue({1, 2, 3});
  std::vector<KyQueueNode*> nodes;
  for (KyQueueNode* node = queue_->sentinel.next; node != nullptr; node = node->next) {
    nodes.push_back(node);
  }
  KyQueueNode* tail = queue_->tail;
  __KyDestroyQueue(queue_);
  for (KyQueueNode* node : nodes) EXPECT_TRUE(IsFreedBlock(node));
  EXPECT_EQ(queue_->sentinel.next, nullptr);
  EXPECT_EQ(queue_->tail, tail);  // deliberately not reset
  EXPECT_FALSE(IsFreedBlock(queue_));
  // TearDown destroys again (nothing left to free) and frees the record.
}

TEST_P(QueueTest, DestroyOfAnEmptyQueueChangesNothing) {
  __KyDestroyQueue(queue_);
  EXPECT_EQ(queue_->tail, &queue_->sentinel);
  EXPECT_EQ(queue_->sentinel.next, nullptr);
}

// Every other bit of the flags is set: none of them selects locking.
TEST_F(QueueCreateTest, WithoutTheThreadSafeBitNoLockIsTaken) {
  KyQueue* queue = __KyCreateQueue(~KY_QUEUE_FLAG_THREAD_SAFE, KY_MEMORY_CATEGORY_MISC);
  // Locks held by somebody else would stop every operation of a queue that
  // used them.
  __KyAcquireSpinLockTid(&queue->headLock, kOtherOwner);
  __KyAcquireSpinLockTid(&queue->tailLock, kOtherOwner);
  for (uintptr_t number : {1, 2, 3}) __KyEnqueue(queue, Value(number));
  EXPECT_EQ(Number(__KyDequeue(queue)), 1u);
  EXPECT_EQ(Number(__KyPeekQueue(queue, MatchEqual, 0, 3, 1)), 3u);
  EXPECT_EQ(Number(__KyPeekQueue(queue, nullptr, 0, 0, 0)), 2u);
  for (const KySpinLock* lock : {&queue->headLock, &queue->tailLock}) {
    EXPECT_EQ(lock->ownerThreadId, kOtherOwner);
    EXPECT_EQ(lock->recursionCount, 1u);
  }
  __KyReleaseSpinLock(&queue->headLock);
  __KyReleaseSpinLock(&queue->tailLock);
  __KyDestroyQueue(queue);
  __KyFree(queue);
}

// Records, for the queue passed in arg2, whether the calling thread holds
// its head lock and its tail lock while the predicate runs.
std::vector<std::pair<int, int>> g_locksSeen;

int RecordLocksHeld(unsigned, long arg2, void*) {
  auto* queue = reinterpret_cast<KyQueue*>(arg2);
  g_locksSeen.emplace_back(__KyIsSpinLockAcquiredByCallingThread(&queue->headLock),
                           __KyIsSpinLockAcquiredByCallingThread(&queue->tailLock));
  return 1;
}

TEST_F(QueueCreateTest, ThePredicateOfAThreadSafeQueueRunsUnderTheHeadLockAlone) {
  KyQueue* queue = __KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, KY_MEMORY_CATEGORY_MISC);
  __KyEnqueue(queue, Value(1));
  __KyEnqueue(queue, Value(2));
  const long self = reinterpret_cast<long>(queue);
  EXPECT_EQ(Number(__KyPeekQueue(queue, RecordLocksHeld, 0, self, 0)), 1u);
  EXPECT_EQ(Number(__KyPeekQueue(queue, RecordLocksHeld, 0, self, 1)), 1u);
  EXPECT_EQ(g_locksSeen, (std::vector<std::pair<int, int>>{{1, 0}, {1, 0}}));
  EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue->headLock), 0);
  __KyDestroyQueue(queue);
  __KyFree(queue);
}

class QueueNullTest : public kyrt_test::RuntimeTest {};

TEST_F(QueueNullTest, EveryOperationAcceptsANullQueue) {
  __KyEnqueue(nullptr, Value(1));
  EXPECT_EQ(__KyDequeue(nullptr), nullptr);
  EXPECT_EQ(__KyPeekQueue(nullptr, nullptr, 0, 0, 1), nullptr);
  EXPECT_EQ(__KyPeekQueue(nullptr, MatchAtLeast, 0, 0, 0), nullptr);
  EXPECT_EQ(__KyIsQueueEmpty(nullptr), 1);
  __KySetQueueFlag(nullptr, 1);
  __KyDestroyQueue(nullptr);
  EXPECT_TRUE(g_matchCalls.empty());
}

}  // namespace
