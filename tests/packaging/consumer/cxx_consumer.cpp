// A C++ tool using KYRT through the umbrella header. Prints "c++ consumer ok"
// and exits 0 when every call behaves.
#include <cstdio>
#include <thread>
#include <vector>

#include "kyrt/kyrt.h"
#include "kyrt/posix_host.h"

int main() {
  KyPosixHostInstall();
  if (__KyRtStartup() != KY_RT_STARTUP_RESULT || __KyGetNProcs() <= 0) return 1;

  KySpinLock lock;
  __KyInitializeSpinLock(&lock);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        __KyAcquireSpinLock(&lock);
        ++counter;
        __KyReleaseSpinLock(&lock);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  kyrt::SystemInformation info;
  if (counter != 40000 || info.totalMemory() == 0 || info.getPageSizeAlignedValue(1) == 0) {
    std::puts("c++ consumer failed");
    return 1;
  }
  std::puts("c++ consumer ok");
  return 0;
}
