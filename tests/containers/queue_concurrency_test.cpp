// Concurrency of the two-lock queue.
//
// The first cases hold one of the queue's locks on purpose (for an owner
// id no real thread has, or for the test thread itself) and watch a second
// thread's operation: which lock it needs, that a producer lets the tail lock
// go while it waits for the head lock, and that a consumer settling the last
// node under the tail lock notices a value appended meanwhile.
//
// The stress cases run several producers and consumers at once and check
// that every value is delivered exactly once, in each producer's order. Every
// case is bounded by counts, not by time, and the stress sizes shrink under
// ThreadSanitizer so that they end in seconds on two processors.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/memory.h"
#include "kyrt/queue.h"
#include "kyrt/spin_lock.h"
#include "sync/lock_test_support.h"

namespace {

using kyrt_test::StaysFalse;
using kyrt_test::WaitUntil;

// Owner ids no real thread has (Linux thread ids stay below 2^22).
constexpr KyThreadId kOtherOwner = 0x70000001u;

// How long a thread that should get through is given: yields, not time.
constexpr int kFinishYields = 1000000;

#if defined(__SANITIZE_THREAD__)
constexpr int kProducers = 2;
constexpr int kConsumers = 2;
constexpr uint32_t kValuesPerProducer = 2000;
#else
constexpr int kProducers = 3;
constexpr int kConsumers = 3;
constexpr uint32_t kValuesPerProducer = 10000;
#endif

void* Value(uintptr_t number) {
  return reinterpret_cast<void*>(number);
}

uintptr_t Number(void* value) {
  return reinterpret_cast<uintptr_t>(value);
}

int MatchEqual(unsigned, long arg2, void* value) {
  return Number(value) == static_cast<uintptr_t>(arg2) ? 1 : 0;
}

// Runs one operation on a thread of its own, which is running when the
// constructor returns; the destructor joins it.
class Worker {
 public:
  template <typename Body>
  explicit Worker(Body body)
      : thread_([this, body] {
          started_.store(true);
          body();
          done_.store(true);
        }) {
    WaitUntil([this] { return started_.load(); });
  }

  ~Worker() { thread_.join(); }

  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  bool staysBlocked() const { return StaysFalse(done_); }

  bool finishesSoon() const {
    for (int i = 0; i < kFinishYields && !done_.load(); ++i) std::this_thread::yield();
    return done_.load();
  }

 private:
  std::atomic<bool> started_{false};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

class QueueLockingTest : public kyrt_test::RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    queue_ = __KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, KY_MEMORY_CATEGORY_MISC);
  }

  void TearDown() override {
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->headLock), 0);
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->tailLock), 0);
    __KyDestroyQueue(queue_);
    __KyFree(queue_);
  }

  void Enqueue(std::initializer_list<uintptr_t> numbers) {
    for (uintptr_t number : numbers) __KyEnqueue(queue_, Value(number));
  }

  // Drains the queue (the workers are done with it).
  std::vector<uintptr_t> Drain() {
    std::vector<uintptr_t> numbers;
    while (!__KyIsQueueEmpty(queue_)) numbers.push_back(Number(__KyDequeue(queue_)));
    return numbers;
  }

  KyQueue* queue_ = nullptr;
};

// ---------------------------------------------------------------------------
// The locking protocol, one step at a time

TEST_F(QueueLockingTest, EnqueueOnAnEmptyQueueLetsTheTailLockGoWhileItWaitsForTheHeadLock) {
  __KyAcquireSpinLockTid(&queue_->headLock, kOtherOwner);
  {
    Worker producer([this] { __KyEnqueue(queue_, Value(7)); });
    EXPECT_TRUE(producer.staysBlocked());
    // The producer tried the head lock, failed, and let the tail lock go:
    // a waiting acquire of the tail lock gets through.
    __KyAcquireSpinLockTid(&queue_->tailLock, kOtherOwner + 1);
    EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
    __KyReleaseSpinLock(&queue_->tailLock);
    EXPECT_TRUE(producer.staysBlocked());
    __KyReleaseSpinLock(&queue_->headLock);
    EXPECT_TRUE(producer.finishesSoon());
  }
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{7}));
}

TEST_F(QueueLockingTest, EnqueueOnANonEmptyQueueNeedsNoHeadLock) {
  Enqueue({1});
  __KyAcquireSpinLockTid(&queue_->headLock, kOtherOwner);
  {
    Worker producer([this] { __KyEnqueue(queue_, Value(2)); });
    EXPECT_TRUE(producer.finishesSoon());
    __KyReleaseSpinLock(&queue_->headLock);
  }
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{1, 2}));
}

TEST_F(QueueLockingTest, ProducersWaitForEachOtherOnTheTailLock) {
  Enqueue({1});
  __KyAcquireSpinLockTid(&queue_->tailLock, kOtherOwner);
  {
    Worker producer([this] { __KyEnqueue(queue_, Value(2)); });
    EXPECT_TRUE(producer.staysBlocked());
    __KyReleaseSpinLock(&queue_->tailLock);
    EXPECT_TRUE(producer.finishesSoon());
  }
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{1, 2}));
}

TEST_F(QueueLockingTest, ConsumersWaitForEachOtherOnTheHeadLock) {
  Enqueue({1, 2});
  __KyAcquireSpinLockTid(&queue_->headLock, kOtherOwner);
  void* taken = nullptr;
  {
    Worker consumer([this, &taken] { taken = __KyDequeue(queue_); });
    EXPECT_TRUE(consumer.staysBlocked());
    __KyReleaseSpinLock(&queue_->headLock);
    EXPECT_TRUE(consumer.finishesSoon());
  }
  EXPECT_EQ(Number(taken), 1u);
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{2}));
}

TEST_F(QueueLockingTest, DequeueOfOneOfTwoValuesNeedsNoTailLock) {
  Enqueue({1, 2});
  __KyAcquireSpinLockTid(&queue_->tailLock, kOtherOwner);
  void* taken = nullptr;
  {
    Worker consumer([this, &taken] { taken = __KyDequeue(queue_); });
    EXPECT_TRUE(consumer.finishesSoon());
    __KyReleaseSpinLock(&queue_->tailLock);
  }
  EXPECT_EQ(Number(taken), 1u);
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{2}));
}

TEST_F(QueueLockingTest, DequeueOfTheOnlyValueWaitsForTheTailLockHoldingTheHeadLock) {
  Enqueue({1});
  __KyAcquireSpinLockTid(&queue_->tailLock, kOtherOwner);
  void* taken = nullptr;
  {
    Worker consumer([this, &taken] { taken = __KyDequeue(queue_); });
    EXPECT_TRUE(consumer.staysBlocked());
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->headLock), 1);
    __KyReleaseSpinLock(&queue_->tailLock);
    EXPECT_TRUE(consumer.finishesSoon());
  }
  EXPECT_EQ(Number(taken), 1u);
  EXPECT_EQ(queue_->tail, &queue_->sentinel);
  EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
}

// The test thread plays a producer that holds the tail lock while the
// consumer waits for it; being the lock's owner, it can enqueue inside its
// hold (the lock is recursive).
TEST_F(QueueLockingTest, DequeueOfTheOnlyValueSeesAValueAppendedWhileItWaited) {
  Enqueue({1});
  __KyAcquireSpinLock(&queue_->tailLock);
  void* taken = nullptr;
  {
    Worker consumer([this, &taken] { taken = __KyDequeue(queue_); });
    EXPECT_TRUE(consumer.staysBlocked());
    __KyEnqueue(queue_, Value(2));
    __KyReleaseSpinLock(&queue_->tailLock);
    EXPECT_TRUE(consumer.finishesSoon());
  }
  EXPECT_EQ(Number(taken), 1u);
  ASSERT_NE(queue_->sentinel.next, nullptr);
  EXPECT_EQ(queue_->tail, queue_->sentinel.next);
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{2}));
}

TEST_F(QueueLockingTest, PeekRemovalOfTheTailWaitsForTheTailLock) {
  Enqueue({1, 2});
  KyQueueNode* first = queue_->sentinel.next;
  __KyAcquireSpinLockTid(&queue_->tailLock, kOtherOwner);
  void* taken = nullptr;
  {
    Worker consumer([this, &taken] { taken = __KyPeekQueue(queue_, MatchEqual, 0, 2, 1); });
    EXPECT_TRUE(consumer.staysBlocked());
    __KyReleaseSpinLock(&queue_->tailLock);
    EXPECT_TRUE(consumer.finishesSoon());
  }
  EXPECT_EQ(Number(taken), 2u);
  EXPECT_EQ(queue_->tail, first);
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{1}));
}

TEST_F(QueueLockingTest, PeekRemovalOfTheTailSeesAValueAppendedWhileItWaited) {
  Enqueue({1, 2});
  __KyAcquireSpinLock(&queue_->tailLock);
  void* taken = nullptr;
  {
    Worker consumer([this, &taken] { taken = __KyPeekQueue(queue_, MatchEqual, 0, 2, 1); });
    EXPECT_TRUE(consumer.staysBlocked());
    __KyEnqueue(queue_, Value(3));
    __KyReleaseSpinLock(&queue_->tailLock);
    EXPECT_TRUE(consumer.finishesSoon());
  }
  EXPECT_EQ(Number(taken), 2u);
  EXPECT_EQ(Number(queue_->tail->value), 3u);
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{1, 3}));
}

TEST_F(QueueLockingTest, PeekWithoutRemovalNeedsNoTailLockEvenAtTheTail) {
  Enqueue({1});
  __KyAcquireSpinLockTid(&queue_->tailLock, kOtherOwner);
  void* seen = nullptr;
  {
    Worker consumer([this, &seen] { seen = __KyPeekQueue(queue_, MatchEqual, 0, 1, 0); });
    EXPECT_TRUE(consumer.finishesSoon());
    __KyReleaseSpinLock(&queue_->tailLock);
  }
  EXPECT_EQ(Number(seen), 1u);
  EXPECT_EQ(Drain(), (std::vector<uintptr_t>{1}));
}

// ---------------------------------------------------------------------------
// Stress

// A value names its producer and its place in that producer's sequence;
// neither part is 0, so no value is null.
uintptr_t Encode(uint32_t producer, uint32_t sequence) {
  return (uintptr_t{producer} + 1) << 32 | (uintptr_t{sequence} + 1);
}

uint32_t ProducerOf(uintptr_t number) {
  return static_cast<uint32_t>((number >> 32) - 1);
}

uint32_t SequenceOf(uintptr_t number) {
  return static_cast<uint32_t>(number) - 1;
}

// Matches the values of producer arg1.
int MatchProducer(unsigned arg1, long, void* value) {
  return ProducerOf(Number(value)) == arg1 ? 1 : 0;
}

int MatchNothing(unsigned, long, void*) {
  return 0;
}

// How a consumer takes values.
enum class Taking {
  kMixed,       // dequeue mostly, peek-removals by producer, plain peeks
  kByProducer,  // only peek-removals of the first value of a producer
};

// Starts all threads together and joins them.
template <typename Body>
void RunTogether(int threads, Body body) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> pool;
  for (int index = 0; index < threads; ++index) {
    pool.emplace_back([&, index] {
      ready.fetch_add(1);
      WaitUntil([&] { return go.load(); });
      body(index);
    });
  }
  WaitUntil([&] { return ready.load() == threads; });
  go.store(true);
  for (std::thread& thread : pool) thread.join();
}

class QueueStressTest : public kyrt_test::RuntimeTest {
 protected:
  static constexpr uint32_t kTotal = kProducers * kValuesPerProducer;

  void SetUp() override {
    RuntimeTest::SetUp();
    queue_ = __KyCreateQueue(KY_QUEUE_FLAG_THREAD_SAFE, KY_MEMORY_CATEGORY_MISC);
    taken_.resize(kConsumers);
  }

  void TearDown() override {
    __KyDestroyQueue(queue_);
    __KyFree(queue_);
  }

  void Produce(uint32_t producer) {
    for (uint32_t sequence = 0; sequence < kValuesPerProducer; ++sequence) {
      __KyEnqueue(queue_, Value(Encode(producer, sequence)));
    }
  }

  // One consumer's next attempt; returns the value taken, or 0.
  uintptr_t TakeOne(Taking taking, uint32_t step) {
    const unsigned producer = step % kProducers;
    if (taking == Taking::kByProducer) {
      return Number(__KyPeekQueue(queue_, MatchProducer, producer, 0, 1));
    }
    switch (step % 8) {
      case 5:
        return Number(__KyPeekQueue(queue_, MatchProducer, producer, 0, 1));
      case 6:
        // A walk of the whole queue while producers append at its end.
        EXPECT_EQ(__KyPeekQueue(queue_, MatchNothing, 0, 0, 1), nullptr);
        return 0;
      case 7: {
        const uintptr_t seen = Number(__KyPeekQueue(queue_, nullptr, 0, 0, 0));
        if (seen != 0) {
          EXPECT_LT(ProducerOf(seen), static_cast<uint32_t>(kProducers));
        }
        return 0;  // seen, not taken
      }
      default:
        return Number(__KyDequeue(queue_));
    }
  }

  void Consume(int consumer, Taking taking) {
    for (uint32_t step = 0; delivered_.load() < kTotal; ++step) {
      const uintptr_t number = TakeOne(taking, step);
      if (number == 0) {
        std::this_thread::yield();  // two processors: let a producer run
        continue;
      }
      taken_[consumer].push_back(number);
      delivered_.fetch_add(1);
    }
  }

  void Run(Taking taking) {
    std::atomic<bool> finished{false};
    RunTogether(kProducers + kConsumers + 1, [&](int index) {
      if (index < kProducers) {
        Produce(static_cast<uint32_t>(index));
      } else if (index < kProducers + kConsumers) {
        Consume(index - kProducers, taking);
        finished.store(true);
      } else {
        // The lock-free emptiness test, side by side with everything else.
        while (!finished.load()) {
          __KyIsQueueEmpty(queue_);
          std::this_thread::yield();
        }
      }
    });
    ExpectExactlyOnceInProducerOrder();
    EXPECT_EQ(__KyIsQueueEmpty(queue_), 1);
    EXPECT_EQ(queue_->tail, &queue_->sentinel);
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->headLock), 0);
    EXPECT_EQ(__KyIsSpinLockInAcquiredState(&queue_->tailLock), 0);
  }

  // Every value was taken once; and each consumer took each producer's
  // values in that producer's order (every way of taking here takes the
  // oldest remaining value of some producer).
  void ExpectExactlyOnceInProducerOrder() {
    std::vector<uintptr_t> all;
    for (const std::vector<uintptr_t>& numbers : taken_) {
      std::vector<int64_t> lastSequence(kProducers, -1);
      for (uintptr_t number : numbers) {
        const uint32_t producer = ProducerOf(number);
        ASSERT_LT(producer, static_cast<uint32_t>(kProducers));
        EXPECT_GT(static_cast<int64_t>(SequenceOf(number)), lastSequence[producer]);
        lastSequence[producer] = SequenceOf(number);
      }
      all.insert(all.end(), numbers.begin(), numbers.end());
    }
    std::sort(all.begin(), all.end());
    std::vector<uintptr_t> expected;
    for (uint32_t producer = 0; producer < kProducers; ++producer) {
      for (uint32_t sequence = 0; sequence < kValuesPerProducer; ++sequence) {
        expected.push_back(Encode(producer, sequence));
      }
    }
    ASSERT_EQ(all.size(), expected.size());
    EXPECT_TRUE(all == expected) << "a value was lost, duplicated or invented";
  }

  KyQueue* queue_ = nullptr;
  std::atomic<uint32_t> delivered_{0};
  std::vector<std::vector<uintptr_t>> taken_;
};

TEST_F(QueueStressTest, EveryValueIsDeliveredOnceWithDequeuesAndPeeksMixed) {
  Run(Taking::kMixed);
}

// Consumers that take the first value of some producer often take the
// tail from behind another producer's node while producers append to it.
TEST_F(QueueStressTest, EveryValueIsDeliveredOnceWhenConsumersRemoveTheTailByPredicate) {
  Run(Taking::kByProducer);
}

}  // namespace
