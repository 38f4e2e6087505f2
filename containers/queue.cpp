// The two-lock queue.
//
// Who touches what, on a thread-safe queue:
//   - consumers (dequeue and peek) hold the head lock while they read the
//     list from the sentinel and unlink a node; only they write the next
//     link of the sentinel or of a node that has a successor;
//   - producers hold the tail lock while they write the tail node's next
//     link and the tail pointer; a producer that finds the queue empty also
//     holds the head lock, because its link is then the sentinel's own;
//   - a consumer that unlinks the tail node moves the tail back under the
//     tail lock, and clears the link of the node before it under that same
//     lock: were the lock let go in between, a producer could append to
//     that node and have its link overwritten.
// Consumers read the tail pointer, and walkers read the tail node's next
// link, while producers may be writing them; these accesses are atomic and
// pair a producer's release with the reader's acquire, so that a node seen
// through a link or through the tail is seen whole. Everything else is
// ordered by the locks.
#include "kyrt/queue.h"

#include <cstddef>
#include <cstdint>

#include "kyrt/memory.h"
#include "kyrt/spin_lock.h"
#include "runtime/atomic_ops.h"
#include "runtime/thread_hooks.h"
#include "sync/spin_lock_inline.h"

static_assert(sizeof(KyQueueNode) == 16 && offsetof(KyQueueNode, value) == 0 &&
                  offsetof(KyQueueNode, next) == 8,
              "queue node layout");
static_assert(sizeof(KyQueue) == 88 && alignof(KyQueue) == 8, "queue record size");
static_assert(offsetof(KyQueue, head) == 0 && offsetof(KyQueue, tail) == 8 &&
                  offsetof(KyQueue, sentinel) == 16 && offsetof(KyQueue, headLock) == 32 &&
                  offsetof(KyQueue, tailLock) == 56 && offsetof(KyQueue, flags) == 80 &&
                  offsetof(KyQueue, userFlag) == 84,
              "queue record field offsets");

namespace kyrt {
namespace {

// The record and the nodes use the smallest slabs.
constexpr uint32_t kQueueSlabShift = 0;

// "Try without waiting": a single compare-and-swap.
constexpr uint32_t kSingleAttempt = 0;

// The predicate's answer for a match.
constexpr int kMatch = 1;

template <typename T>
T* LoadAcquire(T* const* source) {
  return __atomic_load_n(source, __ATOMIC_ACQUIRE);
}

KyQueueNode* NextOf(const KyQueueNode* node) {
  return LoadAcquire(&node->next);
}

void Link(KyQueueNode* node, KyQueueNode* next) {
  StoreRelease(&node->next, next);
}

KyQueueNode* TailOf(const KyQueue* queue) {
  return LoadAcquire(&queue->tail);
}

void SetTail(KyQueue* queue, KyQueueNode* node) {
  StoreRelease(&queue->tail, node);
}

uint32_t CategoryOf(const KyQueue* queue) {
  return (queue->flags & KY_QUEUE_CATEGORY_MASK) >> KY_QUEUE_CATEGORY_SHIFT;
}

bool IsThreadSafe(const KyQueue* queue) {
  return (queue->flags & KY_QUEUE_FLAG_THREAD_SAFE) != 0;
}

// The locks of one operation on one queue: taken only when the queue is
// thread-safe, always for the calling thread, whose id is asked once.
class QueueLocks {
 public:
  explicit QueueLocks(KyQueue* queue)
      : queue_(queue),
        threadSafe_(IsThreadSafe(queue)),
        tid_(threadSafe_ ? CurrentNativeThreadId() : 0) {}

  void takeHead() {
    if (threadSafe_) AcquireSpinLockTid(&queue_->headLock, tid_);
  }

  void giveHead() {
    if (threadSafe_) ReleaseSpinLock(&queue_->headLock);
  }

  void takeTail() {
    if (threadSafe_) AcquireSpinLockTid(&queue_->tailLock, tid_);
  }

  void giveTail() {
    if (threadSafe_) ReleaseSpinLock(&queue_->tailLock);
  }

  // With the tail lock held, takes the head lock too, keeping the lock
  // order: tries it once, and if it is busy lets the tail lock go, waits for
  // the head lock and takes the tail lock again. Returns whether a head
  // lock is now held (never, on a queue that is not thread-safe).
  bool takeHeadAfterTail() {
    if (!threadSafe_) return false;
    if (__KyTryToAcquireSpinLockTid(&queue_->headLock, kSingleAttempt, tid_)) return true;
    giveTail();
    takeHead();
    takeTail();
    return true;
  }

 private:
  KyQueue* queue_;
  bool threadSafe_;
  KyThreadId tid_;
};

KyQueueNode* NewNode(const KyQueue* queue, void* value) {
  auto* node = static_cast<KyQueueNode*>(
      __KyMalloc(CategoryOf(queue), sizeof(KyQueueNode), kQueueSlabShift));
  node->value = value;
  node->next = nullptr;
  return node;
}

bool Matches(KyQueueMatchFunction match, unsigned arg1, long arg2, void* value) {
  return match == nullptr || match(arg1, arg2, value) == kMatch;
}

// The first node from the front whose value matches, or null; *previous
// gets the node before it. Runs under the head lock.
KyQueueNode* FindFirstMatch(KyQueue* queue, KyQueueMatchFunction match, unsigned arg1, long arg2,
                            KyQueueNode** previous) {
  *previous = &queue->sentinel;
  for (KyQueueNode* node = NextOf(*previous); node != nullptr; node = NextOf(node)) {
    if (Matches(match, arg1, arg2, node->value)) return node;
    *previous = node;
  }
  return nullptr;
}

// Takes node, which follows previous, out of the list; runs under the head
// lock. A node that may be the tail is settled under the tail lock: if it
// still is, the tail moves back to previous, and previous's link is
// cleared before any producer can append to previous.
void Unlink(KyQueue* queue, QueueLocks& locks, KyQueueNode* previous, KyQueueNode* node) {
  const bool mayBeTail = node == TailOf(queue);
  if (mayBeTail) {
    locks.takeTail();
    if (node == TailOf(queue)) SetTail(queue, previous);
  }
  Link(previous, NextOf(node));  // null when node was still the tail
  if (mayBeTail) locks.giveTail();
}

}  // namespace
}  // namespace kyrt

extern "C" {

KyQueue* __KyCreateQueue(unsigned flags, unsigned category) noexcept {
  auto* queue = static_cast<KyQueue*>(__KyMalloc(category, sizeof(KyQueue), kyrt::kQueueSlabShift));
  queue->head = &queue->sentinel;
  queue->tail = &queue->sentinel;
  queue->sentinel.value = nullptr;
  queue->sentinel.next = nullptr;
  __KyInitializeSpinLock(&queue->headLock);
  __KyInitializeSpinLock(&queue->tailLock);
  queue->flags = (category << KY_QUEUE_CATEGORY_SHIFT) | (flags & ~KY_QUEUE_CATEGORY_MASK);
  queue->userFlag = 0;
  return queue;
}

void __KyEnqueue(KyQueue* queue, void* value) noexcept {
  if (queue == nullptr) return;
  KyQueueNode* node = kyrt::NewNode(queue, value);
  kyrt::QueueLocks locks(queue);
  locks.takeTail();
  // Linking to the sentinel writes what consumers read under the head lock.
  const bool headTaken = kyrt::TailOf(queue) == &queue->sentinel && locks.takeHeadAfterTail();
  // Read again: the tail lock may have been let go meanwhile.
  KyQueueNode* tail = kyrt::TailOf(queue);
  kyrt::Link(tail, node);
  kyrt::SetTail(queue, node);
  if (headTaken) locks.giveHead();
  locks.giveTail();
}

void* __KyPeekQueue(KyQueue* queue, KyQueueMatchFunction match, unsigned arg1, long arg2,
                    int remove) noexcept {
  if (queue == nullptr) return nullptr;
  kyrt::QueueLocks locks(queue);
  locks.takeHead();
  KyQueueNode* previous = nullptr;
  KyQueueNode* found = kyrt::FindFirstMatch(queue, match, arg1, arg2, &previous);
  void* value = found != nullptr ? found->value : nullptr;
  const bool takeOut = found != nullptr && remove != 0;
  if (takeOut) kyrt::Unlink(queue, locks, previous, found);
  locks.giveHead();
  // Unreachable once unlinked: freed outside the lock.
  if (takeOut) __KyFree(found);
  return value;
}

void* __KyDequeue(KyQueue* queue) noexcept {
  // The front node is the first match of no predicate.
  return __KyPeekQueue(queue, nullptr, 0, 0, 1);
}

int __KyIsQueueEmpty(KyQueue* queue) noexcept {
  return queue == nullptr || kyrt::LoadRelaxed(&queue->sentinel.next) == nullptr;
}

void __KySetQueueFlag(KyQueue* queue, unsigned flag) noexcept {
  if (queue != nullptr) kyrt::StoreRelaxed(&queue->userFlag, flag);
}

void __KyDestroyQueue(KyQueue* queue) noexcept {
  if (queue == nullptr) return;
  for (KyQueueNode* node = kyrt::NextOf(&queue->sentinel); node != nullptr;
       node = kyrt::NextOf(&queue->sentinel)) {
    kyrt::Link(&queue->sentinel, kyrt::NextOf(node));
    __KyFree(node);
  }
}

}  // extern "C"
