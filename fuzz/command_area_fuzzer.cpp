// The shared command area as a controller, faulty or hostile, could leave
// it: any state word, any pending count (negative and huge included) and
// any record bytes, with the area lock free or held by the controller.
// CollectorCommandHandler::processCommands must then:
//   - with nothing pending, return 0, call nothing and touch nothing;
//   - with the lock held by the controller, return 1 and leave the area as
//     it was (the records wait for the next wake-up);
//   - otherwise return 2 and hand the callback at most five records, in slot
//     order, each with exactly the bytes the slot held, from a private copy,
//     after the count was reset and the lock released; nothing else in the
//     area changes, and the lock is free again afterwards.
//
// One handler and one real System V semaphore set serve the whole run: they
// are made once per process in a private directory and removed at exit.
// The segment itself is replaced, through the handler's system-call seam,
// by a heap block of exactly the area's size, so that AddressSanitizer
// reports any read past the last slot.
//
// Input layout: byte 0, bit 0 set = the controller holds the area lock;
// the following bytes overlay the area from its first byte (state word,
// pending count, records); the rest of the area is a fixed pattern.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "collector/channel_system_calls.h"
#include "kyrt/command_handler.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"

namespace {

constexpr int kNothingPending = 0;
constexpr int kAreaLockBusy = 1;
constexpr int kDispatched = 2;
constexpr uint8_t kControllerHoldsLock = 0x01;
constexpr int kFakeSegmentId = 0x4B59;  // never passed to the kernel
constexpr int kLockFree = 1;
constexpr int kLockTaken = 0;

void Require(bool condition) {
  if (!condition) std::abort();
}

struct Delivery {
  int code;
  int arguments[4];
  const unsigned char* payloadAddress;
  std::vector<unsigned char> payload;
  int32_t pendingCountSeen;
  int areaLockSeen;
};

// Everything the process keeps between inputs.
struct Channel {
  std::string directory;
  KyCommandArea* area = nullptr;  // the fake segment
  CollectorCommandHandler handler;
  std::vector<Delivery> deliveries;
};

Channel* g_channel = nullptr;

int FakeGetSharedMemory(key_t, std::size_t size, int) {
  Require(size == sizeof(KyCommandArea));
  return kFakeSegmentId;
}

void* FakeAttachSharedMemory(int id, const void*, int) {
  Require(id == kFakeSegmentId);
  return g_channel->area;
}

int FakeRemoveSharedMemory(int) {
  return 0;
}

int AreaLockValue() {
  return semctl(g_channel->handler.semaphoreSetId(), KYCMD_AREA_LOCK_SEMAPHORE, GETVAL);
}

int OperateOnAreaLock(short operation) {
  sembuf request{};
  request.sem_num = KYCMD_AREA_LOCK_SEMAPHORE;
  request.sem_op = operation;
  request.sem_flg = SEM_UNDO | IPC_NOWAIT;
  return semop(g_channel->handler.semaphoreSetId(), &request, 1);
}

void Record(int code, int a1, int a2, int a3, int a4, unsigned char* payload, void* context) {
  Require(context == g_channel);
  Delivery delivery{code, {a1, a2, a3, a4}, payload, {}, 0, 0};
  Require(payload != nullptr);
  delivery.payload.assign(payload, payload + KYCMD_PAYLOAD_SIZE);
  delivery.pendingCountSeen = __atomic_load_n(&g_channel->area->pendingCount, __ATOMIC_RELAXED);
  delivery.areaLockSeen = AreaLockValue();
  g_channel->deliveries.push_back(std::move(delivery));
}

void RemoveChannel() {
  if (g_channel == nullptr) return;
  g_channel->handler.cleanupCommandHandler(KYCMDHDLR_CLEAN_FULL);
  rmdir(g_channel->directory.c_str());
  delete g_channel->area;
  delete g_channel;
  g_channel = nullptr;
}

void CreateChannel() {
  char pattern[] = "/tmp/kyrt-fuzz-command-area-XXXXXX";
  Require(mkdtemp(pattern) != nullptr);
  g_channel = new Channel;
  g_channel->directory = pattern;
  g_channel->area = new KyCommandArea;
  kyrt::collector::SetChannelSystemCallsForTesting(
      kyrt::collector::ChannelSystemCalls{nullptr, nullptr, nullptr, FakeGetSharedMemory,
                                          FakeAttachSharedMemory, FakeRemoveSharedMemory, nullptr});
  std::atexit(RemoveChannel);
  Require(g_channel->handler.initializeCommandHandler(g_channel->directory.c_str(), Record,
                                                      g_channel) == 1);
  Require(g_channel->handler.sharedArea() == g_channel->area);
  Require(AreaLockValue() == kLockFree);
}

// The input over the area's first bytes, a fixed pattern after them.
void FillArea(const uint8_t* bytes, std::size_t size) {
  auto* area = reinterpret_cast<unsigned char*>(g_channel->area);
  const std::size_t copied = size < sizeof(KyCommandArea) ? size : sizeof(KyCommandArea);
  std::memcpy(area, bytes, copied);
  for (std::size_t at = copied; at < sizeof(KyCommandArea); ++at) {
    area[at] = static_cast<unsigned char>(at * 7 + 13);
  }
}

int ExpectedDeliveries(int32_t pendingCount) {
  if (pendingCount <= 0) return 0;
  return pendingCount < KYCMD_RECORD_COUNT ? pendingCount : KYCMD_RECORD_COUNT;
}

void RequireDelivered(const Delivery& delivery, const KyCommandRecord& slot) {
  Require(delivery.code == slot.code);
  Require(delivery.arguments[0] == slot.argument1 && delivery.arguments[1] == slot.argument2);
  Require(delivery.arguments[2] == slot.argument3 && delivery.arguments[3] == slot.argument4);
  Require(std::memcmp(delivery.payload.data(), slot.payload, KYCMD_PAYLOAD_SIZE) == 0);
  const auto* areaStart = reinterpret_cast<const unsigned char*>(g_channel->area);
  const bool insideArea = delivery.payloadAddress >= areaStart &&
                          delivery.payloadAddress < areaStart + sizeof(KyCommandArea);
  Require(!insideArea);  // a private copy, not the controller's slot
  Require(delivery.pendingCountSeen == 0 && delivery.areaLockSeen == kLockFree);
}

// The area after a dispatch: the count reset, every other byte as before.
void RequireOnlyCountReset(const KyCommandArea& before) {
  KyCommandArea expected = before;
  expected.pendingCount = 0;
  Require(std::memcmp(&expected, g_channel->area, sizeof(KyCommandArea)) == 0);
}

void RequireUntouched(const KyCommandArea& before) {
  Require(std::memcmp(&before, g_channel->area, sizeof(KyCommandArea)) == 0);
}

void CheckWithControllerHoldingTheLock(const KyCommandArea& before) {
  Require(OperateOnAreaLock(-1) == 0);
  const int result = g_channel->handler.processCommands();
  Require(AreaLockValue() == kLockTaken);
  Require(OperateOnAreaLock(+1) == 0);
  Require(result == (before.pendingCount == 0 ? kNothingPending : kAreaLockBusy));
  Require(g_channel->deliveries.empty());
  RequireUntouched(before);
}

void CheckWithTheLockFree(const KyCommandArea& before) {
  const int result = g_channel->handler.processCommands();
  Require(AreaLockValue() == kLockFree);
  if (before.pendingCount == 0) {
    Require(result == kNothingPending && g_channel->deliveries.empty());
    RequireUntouched(before);
    return;
  }
  Require(result == kDispatched);
  const int expected = ExpectedDeliveries(before.pendingCount);
  Require(g_channel->deliveries.size() == static_cast<std::size_t>(expected));
  for (int slot = 0; slot < expected; ++slot) {
    RequireDelivered(g_channel->deliveries[slot], before.records[slot]);
  }
  RequireOnlyCountReset(before);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  KyPosixHostInstall();
  __KyRtStartup();
  CreateChannel();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool controllerHoldsLock = (data[0] & kControllerHoldsLock) != 0;
  FillArea(data + 1, size - 1);
  g_channel->deliveries.clear();
  static KyCommandArea before;
  std::memcpy(&before, g_channel->area, sizeof before);
  if (controllerHoldsLock) {
    CheckWithControllerHoldingTheLock(before);
  } else {
    CheckWithTheLockFree(before);
  }
  return 0;
}
