// Frame-pointer walks: synthetic frame chains laid out in an array whose
// bounds the test chooses (every stop rule and the 25-entry cap, boundaries
// first), real captures from nested functions checked against the C
// library's unwinder, and the symbol texts behind the host's client lock.
#include <execinfo.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/modules.h"
#include "kyrt/spin_lock.h"
#include "runtime/modules_test_support.h"

#define NOINLINE __attribute__((noinline))

namespace {

using kyrt_test::AddressOf;

constexpr int kMaxFrames = KY_MAX_BACKTRACE_FRAMES;
constexpr uint64_t kFirstPc = 0x401000;
void* const kUnwritten = reinterpret_cast<void*>(0x5A5A5A5A);

// Room for more entries than a walk may store, so that a write past the
// cap shows up as an overwritten sentinel.
struct Trace {
  Trace() {
    for (void*& entry : frames) entry = kUnwritten;
  }
  void* frames[kMaxFrames + 8];
  uint16_t count = 0;
  uint64_t At(int index) const { return AddressOf(frames[index]); }
};

// A region of words standing in for a stack. Frame records are placed at
// word indexes: word i holds the saved frame pointer and word i + 1 the
// return address. The stack bounds are the addresses of the first word and
// of the word kHighIndex, so the record at the high bound is still readable.
class SyntheticStack {
 public:
  static constexpr int kWords = 128;
  static constexpr int kHighIndex = kWords - 2;

  SyntheticStack() {
    for (uint64_t& word : words_) word = 0;
  }

  uint64_t Address(int index) const { return AddressOf(&words_[index]); }
  uint64_t High() const { return Address(kHighIndex); }
  uint64_t Low() const { return Address(0); }

  // A frame record at index whose saved frame pointer is savedFramePointer.
  void Frame(int index, uint64_t savedFramePointer, uint64_t returnAddress) {
    words_[index] = savedFramePointer;
    words_[index + 1] = returnAddress;
  }

  // A chain of count records at indexes 0, 2, 4 ... from the top of the
  // chain (index 0) outwards; the last one saves 0. Return addresses are
  // ReturnAddressOf(0), ReturnAddressOf(1) ...
  void Chain(int count) {
    for (int i = 0; i < count; ++i) {
      const bool last = i == count - 1;
      Frame(2 * i, last ? 0 : Address(2 * (i + 1)), ReturnAddressOf(i));
    }
  }

  static uint64_t ReturnAddressOf(int frame) { return 0x7000 + static_cast<uint64_t>(frame); }

  Trace Walk(uint64_t framePointer, uint64_t firstPc, uint64_t ignored = 0) const {
    Trace trace;
    trace.count =
        __KyCaptureStackBackTrace(High(), Low(), framePointer, firstPc, ignored, trace.frames);
    return trace;
  }

 private:
  alignas(16) uint64_t words_[kWords];
};

void ExpectUnwrittenFrom(const Trace& trace, int index) {
  for (int i = index; i < kMaxFrames + 8; ++i) EXPECT_EQ(trace.frames[i], kUnwritten) << i;
}

// ---------------------------------------------------------------------------
// Synthetic chains

TEST(FramePointerWalk, NullFramePointerGivesTheFirstPcAlone) {
  SyntheticStack stack;
  const Trace trace = stack.Walk(0, kFirstPc);
  ASSERT_EQ(trace.count, 1);
  EXPECT_EQ(trace.At(0), kFirstPc);
  ExpectUnwrittenFrom(trace, 1);
}

TEST(FramePointerWalk, NullFramePointerWithoutFirstPcGivesNothing) {
  SyntheticStack stack;
  const Trace trace = stack.Walk(0, 0);
  EXPECT_EQ(trace.count, 0);
  ExpectUnwrittenFrom(trace, 0);
}

TEST(FramePointerWalk, AFirstPcOfZeroIsNotStored) {
  SyntheticStack stack;
  stack.Chain(1);
  const Trace trace = stack.Walk(stack.Address(0), 0);
  ASSERT_EQ(trace.count, 1);
  EXPECT_EQ(trace.At(0), SyntheticStack::ReturnAddressOf(0));
}

TEST(FramePointerWalk, FramePointerJustAboveTheHighBoundIsNotFollowed) {
  SyntheticStack stack;
  stack.Frame(SyntheticStack::kHighIndex, 0, 0x7001);
  const Trace trace = stack.Walk(stack.High() + 1, kFirstPc);
  ASSERT_EQ(trace.count, 1);
  EXPECT_EQ(trace.At(0), kFirstPc);
  ExpectUnwrittenFrom(trace, 1);
}

TEST(FramePointerWalk, FramePointerJustBelowTheLowBoundIsNotFollowed) {
  SyntheticStack stack;
  const Trace trace = stack.Walk(stack.Low() - 1, kFirstPc);
  ASSERT_EQ(trace.count, 1);
  EXPECT_EQ(trace.At(0), kFirstPc);
}

TEST(FramePointerWalk, FramePointerOnEitherBoundIsFollowed) {
  SyntheticStack stack;
  stack.Frame(SyntheticStack::kHighIndex, 0, 0x7001);
  stack.Frame(0, 0, 0x7002);
  Trace atHigh = stack.Walk(stack.High(), 0);
  ASSERT_EQ(atHigh.count, 1);
  EXPECT_EQ(atHigh.At(0), 0x7001u);
  Trace atLow = stack.Walk(stack.Low(), 0);
  ASSERT_EQ(atLow.count, 1);
  EXPECT_EQ(atLow.At(0), 0x7002u);
}

TEST(FramePointerWalk, FollowsTheChainUntilASavedZero) {
  SyntheticStack stack;
  stack.Chain(3);
  const Trace trace = stack.Walk(stack.Address(0), kFirstPc);
  ASSERT_EQ(trace.count, 4);
  EXPECT_EQ(trace.At(0), kFirstPc);
  EXPECT_EQ(trace.At(1), SyntheticStack::ReturnAddressOf(0));
  EXPECT_EQ(trace.At(2), SyntheticStack::ReturnAddressOf(1));
  EXPECT_EQ(trace.At(3), SyntheticStack::ReturnAddressOf(2));
  ExpectUnwrittenFrom(trace, 4);
}

TEST(FramePointerWalk, FramesNeedNotBeAdjacent) {
  SyntheticStack stack;
  stack.Frame(4, stack.Address(40), 0x7100);
  stack.Frame(40, stack.Address(90), 0x7200);
  stack.Frame(90, 0, 0x7300);
  const Trace trace = stack.Walk(stack.Address(4), 0);
  ASSERT_EQ(trace.count, 3);
  EXPECT_EQ(trace.At(0), 0x7100u);
  EXPECT_EQ(trace.At(1), 0x7200u);
  EXPECT_EQ(trace.At(2), 0x7300u);
}

TEST(FramePointerWalk, StopsAfterAFrameWhoseSavedPointerIsAboveTheStack) {
  SyntheticStack stack;
  stack.Frame(0, stack.Address(10), 0x7100);
  stack.Frame(10, stack.High() + 1, 0x7200);
  const Trace trace = stack.Walk(stack.Address(0), kFirstPc);
  ASSERT_EQ(trace.count, 3);
  EXPECT_EQ(trace.At(1), 0x7100u);
  EXPECT_EQ(trace.At(2), 0x7200u);
  ExpectUnwrittenFrom(trace, 3);
}

TEST(FramePointerWalk, StopsAfterAFrameWhoseSavedPointerIsBelowTheStack) {
  SyntheticStack stack;
  stack.Frame(10, stack.Low() - 1, 0x7200);
  const Trace trace = stack.Walk(stack.Address(10), 0);
  ASSERT_EQ(trace.count, 1);
  EXPECT_EQ(trace.At(0), 0x7200u);
}

TEST(FramePointerWalk, ASavedPointerOnTheHighBoundIsFollowed) {
  SyntheticStack stack;
  stack.Frame(0, stack.High(), 0x7100);
  stack.Frame(SyntheticStack::kHighIndex, 0, 0x7200);
  const Trace trace = stack.Walk(stack.Address(0), 0);
  ASSERT_EQ(trace.count, 2);
  EXPECT_EQ(trace.At(1), 0x7200u);
}

TEST(FramePointerWalk, TwentyFiveFramesAreStoredWhole) {
  SyntheticStack stack;
  stack.Chain(kMaxFrames);
  const Trace trace = stack.Walk(stack.Address(0), 0);
  ASSERT_EQ(trace.count, kMaxFrames);
  for (int i = 0; i < kMaxFrames; ++i) EXPECT_EQ(trace.At(i), SyntheticStack::ReturnAddressOf(i));
  ExpectUnwrittenFrom(trace, kMaxFrames);
}

TEST(FramePointerWalk, TheTwentySixthFrameIsCut) {
  SyntheticStack stack;
  stack.Chain(kMaxFrames + 1);
  const Trace trace = stack.Walk(stack.Address(0), 0);
  ASSERT_EQ(trace.count, kMaxFrames);
  EXPECT_EQ(trace.At(kMaxFrames - 1), SyntheticStack::ReturnAddressOf(kMaxFrames - 1));
  ExpectUnwrittenFrom(trace, kMaxFrames);
}

TEST(FramePointerWalk, TheFirstPcCountsTowardsTheCap) {
  SyntheticStack stack;
  stack.Chain(kMaxFrames - 1);
  Trace trace = stack.Walk(stack.Address(0), kFirstPc);
  ASSERT_EQ(trace.count, kMaxFrames);
  EXPECT_EQ(trace.At(0), kFirstPc);
  EXPECT_EQ(trace.At(kMaxFrames - 1), SyntheticStack::ReturnAddressOf(kMaxFrames - 2));

  stack.Chain(kMaxFrames);
  trace = stack.Walk(stack.Address(0), kFirstPc);
  ASSERT_EQ(trace.count, kMaxFrames);
  EXPECT_EQ(trace.At(kMaxFrames - 1), SyntheticStack::ReturnAddressOf(kMaxFrames - 2));
  ExpectUnwrittenFrom(trace, kMaxFrames);
}

TEST(FramePointerWalk, ALoopingChainEndsAtTheCap) {
  SyntheticStack stack;
  stack.Frame(8, stack.Address(8), 0x7100);
  Trace trace = stack.Walk(stack.Address(8), 0);
  ASSERT_EQ(trace.count, kMaxFrames);
  for (int i = 0; i < kMaxFrames; ++i) EXPECT_EQ(trace.At(i), 0x7100u);
  ExpectUnwrittenFrom(trace, kMaxFrames);

  trace = stack.Walk(stack.Address(8), kFirstPc);
  ASSERT_EQ(trace.count, kMaxFrames);
  EXPECT_EQ(trace.At(0), kFirstPc);
  ExpectUnwrittenFrom(trace, kMaxFrames);
}

TEST(FramePointerWalk, TheFifthArgumentChangesNothing) {
  SyntheticStack stack;
  stack.Chain(5);
  const Trace plain = stack.Walk(stack.Address(0), kFirstPc, 0);
  const Trace other = stack.Walk(stack.Address(0), kFirstPc, ~0ull);
  ASSERT_EQ(plain.count, 6);
  ASSERT_EQ(other.count, 6);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(plain.frames[i], other.frames[i]);
}

// ---------------------------------------------------------------------------
// Captures of the real stack

// The return address of this call: a pc in the caller just after the call.
NOINLINE void* PcAfterThisCall() {
  return __builtin_return_address(0);
}

// Nested frames: Outer -> Middle -> Inner, Inner capturing. Each records
// where it returns to, and Inner asks the C library's unwinder for the same
// stack right after the capture.
struct Capture {
  Trace trace;
  void* innerStart = nullptr;      // Inner's entry point
  void* pcAfterCapture = nullptr;  // in Inner, just after the capture call
  void* innerReturn = nullptr;     // in Middle, after its call of Inner
  void* middleReturn = nullptr;    // in Outer, after its call of Middle
  void* unwound[12] = {};
  int unwoundCount = 0;
};

NOINLINE void Inner(Capture* capture) {
  capture->trace.count = __KyCaptureCurrentStackBackTrace(capture->trace.frames);
  capture->pcAfterCapture = PcAfterThisCall();
  capture->innerReturn = __builtin_return_address(0);
  capture->unwoundCount = backtrace(capture->unwound, 12);
  asm volatile("" ::: "memory");  // keeps the calls above out of tail position
}

NOINLINE void Middle(Capture* capture) {
  Inner(capture);
  capture->middleReturn = __builtin_return_address(0);
  asm volatile("" ::: "memory");
}

NOINLINE void Outer(Capture* capture) {
  Middle(capture);
  asm volatile("" ::: "memory");
}

void ExpectNestedCapture(const Capture& capture) {
  ASSERT_GE(capture.trace.count, 4);
  ASSERT_LE(capture.trace.count, kMaxFrames);
  // Entry 0 is the pc in Inner after its call of the capture.
  EXPECT_GT(capture.trace.At(0), AddressOf(reinterpret_cast<const void*>(&Inner)));
  EXPECT_LT(capture.trace.At(0), AddressOf(capture.pcAfterCapture));
  // Then one entry per calling frame, outwards, each exactly once.
  EXPECT_EQ(capture.trace.frames[1], capture.innerReturn);
  EXPECT_EQ(capture.trace.frames[2], capture.middleReturn);
  // The unwinder starts at its own call site in Inner (one frame further
  // in when a sanitizer interposes it); from the return into Middle on, it
  // must agree with the walk.
  int unwoundMiddle = 0;
  while (unwoundMiddle < capture.unwoundCount &&
         capture.unwound[unwoundMiddle] != capture.innerReturn) {
    ++unwoundMiddle;
  }
  ASSERT_LE(unwoundMiddle + 3, capture.unwoundCount);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(capture.trace.frames[1 + i], capture.unwound[unwoundMiddle + i]) << i;
  }
  ExpectUnwrittenFrom(capture.trace, capture.trace.count);
}

TEST(CurrentStackBackTrace, NestedCallsAppearInOrderFromTheCaller) {
  Capture capture;
  Outer(&capture);
  ExpectNestedCapture(capture);
}

TEST(CurrentStackBackTrace, WorksOnAThreadOfItsOwnStack) {
  Capture capture;
  std::thread([&capture] { Outer(&capture); }).join();
  ExpectNestedCapture(capture);
}

NOINLINE uint16_t CaptureAtDepth(int depth, Trace* trace) {
  uint16_t count = depth == 0 ? __KyCaptureCurrentStackBackTrace(trace->frames)
                              : CaptureAtDepth(depth - 1, trace);
  asm volatile("" ::: "memory");  // no tail call: each level keeps its frame
  return count;
}

TEST(CurrentStackBackTrace, ADeepStackIsCutAtTwentyFiveEntries) {
  Trace trace;
  trace.count = CaptureAtDepth(40, &trace);
  EXPECT_EQ(trace.count, kMaxFrames);
  ExpectUnwrittenFrom(trace, kMaxFrames);
  // Entries 1 to 24 are all returns into CaptureAtDepth at the same pc.
  for (int i = 2; i < kMaxFrames; ++i) EXPECT_EQ(trace.frames[i], trace.frames[1]) << i;
}

TEST(CurrentStackBackTrace, WithoutStackBoundsOnlyTheCallersPcIsStored) {
  kyrt::SetProcPathsForTesting({nullptr, nullptr, nullptr, "no-such-maps"});
  Capture capture;
  Outer(&capture);
  kyrt_test::UseRealMaps();
  ASSERT_EQ(capture.trace.count, 1);
  EXPECT_LT(capture.trace.At(0), AddressOf(capture.pcAfterCapture));
  ExpectUnwrittenFrom(capture.trace, 1);
}

// ---------------------------------------------------------------------------
// Symbol texts

// Records the calls of the client lock procedures and where the symbol
// lookup happened relative to them.
struct ClientLockLog {
  int locks = 0;
  int unlocks = 0;
  bool unlockedWhileLocked = false;
};
ClientLockLog g_lockLog;

void RecordLock() {
  ++g_lockLog.locks;
}

void RecordUnlock() {
  g_lockLog.unlockedWhileLocked = g_lockLog.locks == g_lockLog.unlocks + 1;
  ++g_lockLog.unlocks;
}

class StackSymbolsTest : public ::testing::Test {
 protected:
  void SetUp() override { g_lockLog = ClientLockLog(); }
  void TearDown() override { __KySetTrellClientLockProc(nullptr, nullptr); }

  void* frames_[2] = {reinterpret_cast<void*>(&RecordLock), reinterpret_cast<void*>(&RecordUnlock)};
};

TEST_F(StackSymbolsTest, WithoutClientLockProceduresThereAreNoTexts) {
  EXPECT_EQ(__KyGetStackBackTraceSymbols(frames_, 2), nullptr);
}

TEST_F(StackSymbolsTest, WithOnlyTheLockProcedureThereAreNoTexts) {
  __KySetTrellClientLockProc(RecordLock, nullptr);
  EXPECT_EQ(__KyGetStackBackTraceSymbols(frames_, 2), nullptr);
  EXPECT_EQ(g_lockLog.locks, 0);
}

TEST_F(StackSymbolsTest, WithOnlyTheUnlockProcedureThereAreNoTexts) {
  __KySetTrellClientLockProc(nullptr, RecordUnlock);
  EXPECT_EQ(__KyGetStackBackTraceSymbols(frames_, 2), nullptr);
  EXPECT_EQ(g_lockLog.unlocks, 0);
}

std::string AddressText(const void* address) {
  char text[32];
  std::snprintf(text, sizeof text, "[%p]", address);
  return text;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

TEST_F(StackSymbolsTest, WithBothProceduresTheTextsComeUnderTheLock) {
  __KySetTrellClientLockProc(RecordLock, RecordUnlock);
  char** symbols = __KyGetStackBackTraceSymbols(frames_, 2);
  ASSERT_NE(symbols, nullptr);
  EXPECT_EQ(g_lockLog.locks, 1);
  EXPECT_EQ(g_lockLog.unlocks, 1);
  EXPECT_TRUE(g_lockLog.unlockedWhileLocked);
  for (int i = 0; i < 2; ++i) {
    ASSERT_NE(symbols[i], nullptr);
    EXPECT_TRUE(EndsWith(symbols[i], AddressText(frames_[i]))) << symbols[i];
  }
  std::free(symbols);
}

TEST_F(StackSymbolsTest, TextsOfACapturedStackOneForEachFrame) {
  __KySetTrellClientLockProc(RecordLock, RecordUnlock);
  Capture capture;
  Outer(&capture);
  char** symbols = __KyGetStackBackTraceSymbols(capture.trace.frames, capture.trace.count);
  ASSERT_NE(symbols, nullptr);
  for (int i = 0; i < capture.trace.count; ++i) {
    ASSERT_NE(symbols[i], nullptr);
    EXPECT_TRUE(EndsWith(symbols[i], AddressText(capture.trace.frames[i]))) << symbols[i];
  }
  std::free(symbols);
}

// ---------------------------------------------------------------------------
// Architecture names

TEST(ModuleArchString, ElevenGenerationNames) {
  for (uint32_t index = 0; index <= 10; ++index) {
    EXPECT_EQ(std::string(__KyGetModuleArchString(index)), "gpu-gen-" + std::to_string(index));
  }
}

TEST(ModuleArchString, IndexesAboveTenAreUnknown) {
  EXPECT_STREQ(__KyGetModuleArchString(11), "unknown");
  EXPECT_STREQ(__KyGetModuleArchString(12), "unknown");
  EXPECT_STREQ(__KyGetModuleArchString(UINT32_MAX), "unknown");
}

TEST(ModuleArchString, NamesAreStatic) {
  EXPECT_EQ(__KyGetModuleArchString(3), __KyGetModuleArchString(3));
  EXPECT_EQ(__KyGetModuleArchString(11), __KyGetModuleArchString(UINT32_MAX));
}

}  // namespace
