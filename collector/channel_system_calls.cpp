// The plain system calls behind the command handler's seam.
#include "collector/channel_system_calls.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace kyrt::collector {
namespace {

int SetSemaphoreValue(int set, int number, int value) {
  return semctl(set, number, SETVAL, value);
}

int RemoveSemaphoreSet(int set) {
  return semctl(set, 0, IPC_RMID);
}

int RemoveSharedMemory(int id) {
  return shmctl(id, IPC_RMID, nullptr);
}

constexpr ChannelSystemCalls kPlainCalls = {
    semget, SetSemaphoreValue, RemoveSemaphoreSet, shmget, shmat, RemoveSharedMemory, write,
};

ChannelSystemCalls g_calls = kPlainCalls;

template <typename Call>
Call OrPlain(Call call, Call plain) {
  return call != nullptr ? call : plain;
}

}  // namespace

const ChannelSystemCalls& CurrentChannelSystemCalls() {
  return g_calls;
}

void SetChannelSystemCallsForTesting(const ChannelSystemCalls& calls) {
  g_calls = ChannelSystemCalls{
      OrPlain(calls.getSemaphoreSet, kPlainCalls.getSemaphoreSet),
      OrPlain(calls.setSemaphoreValue, kPlainCalls.setSemaphoreValue),
      OrPlain(calls.removeSemaphoreSet, kPlainCalls.removeSemaphoreSet),
      OrPlain(calls.getSharedMemory, kPlainCalls.getSharedMemory),
      OrPlain(calls.attachSharedMemory, kPlainCalls.attachSharedMemory),
      OrPlain(calls.removeSharedMemory, kPlainCalls.removeSharedMemory),
      OrPlain(calls.writeFile, kPlainCalls.writeFile),
  };
}

}  // namespace kyrt::collector
