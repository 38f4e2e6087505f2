#include "command_channel.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "command_codes.h"
#include "heap_tool.h"
#include "kyrt/command_handler.h"
#include "tool_log.h"

namespace kyheap {
namespace {

std::string LockFilePath(const std::string& directory) {
  if (directory.empty()) return KYCMD_LOCK_FILE_NAME;
  return directory + "/" + KYCMD_LOCK_FILE_NAME;
}

// A program that execs keeps its pid, and its new image opens the channel
// again: the lock file and the semaphore set are reused, but the old
// image's shared memory segment, no longer attached anywhere, would stay
// behind. Remove it.
void RemoveOrphanedSegment(const std::string& directory) {
  const int descriptor = open(LockFilePath(directory).c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return;
  int32_t segment = -1;
  const ssize_t got = read(descriptor, &segment, sizeof segment);
  close(descriptor);
  if (got != static_cast<ssize_t>(sizeof segment) || segment < 0) return;
  struct shmid_ds status;
  if (shmctl(segment, IPC_STAT, &status) != 0 || status.shm_nattch != 0) return;
  if (status.shm_segsz != sizeof(KyCommandArea)) return;
  shmctl(segment, IPC_RMID, nullptr);
}

std::string PayloadText(const unsigned char* payload) {
  if (payload == nullptr) return "";
  const void* end = std::memchr(payload, '\0', KYCMD_PAYLOAD_SIZE);
  const std::size_t length =
      end != nullptr ? static_cast<const unsigned char*>(end) - payload : KYCMD_PAYLOAD_SIZE;
  return std::string(reinterpret_cast<const char*>(payload), length);
}

uintptr_t AddressArgument(int high, int low, const std::string& text) {
  if (!text.empty()) return static_cast<uintptr_t>(std::strtoull(text.c_str(), nullptr, 0));
  return (static_cast<uintptr_t>(static_cast<uint32_t>(high)) << 32) | static_cast<uint32_t>(low);
}

void AnswerWhere(HeapTool* tool, uintptr_t address) {
  BlockLocation location;
  if (!tool->recorder().locate(address, &location)) {
    LogInfo("where 0x%lx: no live block holds it", static_cast<unsigned long>(address));
    return;
  }
  const void* allocatedAt = location.site.frameCount > 0 ? location.site.frames[0] : nullptr;
  LogInfo("where 0x%lx: block 0x%lx of %llu bytes (offset %lu), allocated at %p",
          static_cast<unsigned long>(address), static_cast<unsigned long>(location.start),
          static_cast<unsigned long long>(location.size),
          static_cast<unsigned long>(address - location.start), allocatedAt);
}

void OnCommand(int code, int argument1, int argument2, int, int, unsigned char* payload,
               void* context) {
  HeapTool* tool = static_cast<HeapTool*>(context);
  DebugDump(kDebugCommand, "command %d (%d, %d)", code, argument1, argument2);
  switch (code) {
    case kCommandSnapshot: {
      const std::string path = tool->writeSnapshot(PayloadText(payload));
      LogInfo("snapshot %s", path.empty() ? "could not be written" : path.c_str());
      break;
    }
    case kCommandReset:
      tool->recorder().reset();
      LogInfo("counters reset");
      break;
    case kCommandPause:
      tool->recorder().pause();
      LogInfo("recording paused");
      break;
    case kCommandResume:
      tool->recorder().resume();
      LogInfo("recording resumed");
      break;
    case kCommandWhere:
      AnswerWhere(tool, AddressArgument(argument1, argument2, PayloadText(payload)));
      break;
    case KYCMD_HEARTBEAT:
      tool->logProgress();
      break;
    default:
      LogWarning("unknown command code %d ignored", code);
  }
}

}  // namespace

bool OpenCommandChannel(const std::string& directory, int heartbeatSeconds, HeapTool* tool) {
  RemoveOrphanedSegment(directory);
  return __KyRegisterCommandHandlerWithHeartbeat(directory.c_str(), OnCommand, tool,
                                                 heartbeatSeconds) == 1;
}

void CloseCommandChannel() {
  __KyShutdownCommandHandler();
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
}

}  // namespace kyheap
