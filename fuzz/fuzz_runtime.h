// Start-up shared by the fuzz targets.
#ifndef KYRT_FUZZ_FUZZ_RUNTIME_H
#define KYRT_FUZZ_FUZZ_RUNTIME_H

#include "kyrt/log.h"
#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"

// Starts the runtime once per fuzzing process, as a tool would, so that the
// code under test formats and writes its log records for real; the records
// go to /dev/null rather than piling up in the working directory.
inline void StartRuntimeWithDiscardedLog() {
  KyPosixHostInstall();
  __KyRtStartup();
  __KyCreateLogger(KY_LOG_DEFAULT_SOURCE, "/dev/null", 0);
}

#endif  // KYRT_FUZZ_FUZZ_RUNTIME_H
