/* A C tool using KYRT through the umbrella header. Prints "c consumer ok"
 * and exits 0 when every call behaves. */
#include <stdio.h>

#include "kyrt/kyrt.h"
#include "kyrt/posix_host.h"

int kyrt_c_api_smoke(void);

int kyrt_c_api_smoke(void) {
  KySpinLock spin;
  KySharedExclusiveLock rw;
  volatile int32_t counter = 0;
  int ok = 1;

  KyPosixHostInstall();
  ok &= __KyRtStartup() == KY_RT_STARTUP_RESULT;
  ok &= __KyGetStarted() == 1;
  ok &= __KyGetNativeThreadId() != 0;

  __KyInitializeSpinLock(&spin);
  __KyAcquireSpinLock(&spin);
  ok &= __KyIsSpinLockAcquiredByCallingThread(&spin) == 1;
  __KyReleaseSpinLock(&spin);
  ok &= __KyIsSpinLockInAcquiredState(&spin) == 0;

  __KyInitializeSharedExclusiveLockAndSpinCount(&rw, 100);
  __KyAcquireSharedLock(&rw);
  __KyReleaseSharedLock(&rw);
  ok &= __KyTryToAcquireExclusiveLock(&rw, 0) == 1;
  __KyReleaseExclusiveLock(&rw);

  ok &= __KyInterlockedIncrement(&counter) == 1;
  ok &= __KyGetMostSignificantOneIndexLong((uint64_t)1 << 40) == 40;
  return ok;
}

#ifndef KYRT_C_API_NO_MAIN
int main(void) {
  if (!kyrt_c_api_smoke()) {
    puts("c consumer failed");
    return 1;
  }
  puts("c consumer ok");
  return 0;
}
#endif
