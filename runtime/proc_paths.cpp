#include "runtime/proc_paths.h"

namespace kyrt {
namespace {

constexpr ProcPaths kRealProcPaths = {"/proc/stat", "/proc/cpuinfo", "/proc/meminfo",
                                      "/proc/self/maps"};

ProcPaths g_procPaths = kRealProcPaths;

const char* OrDefault(const char* path, const char* fallback) {
  return path ? path : fallback;
}

}  // namespace

const ProcPaths& CurrentProcPaths() {
  return g_procPaths;
}

void SetProcPathsForTesting(const ProcPaths& paths) {
  g_procPaths.stat = OrDefault(paths.stat, kRealProcPaths.stat);
  g_procPaths.cpuinfo = OrDefault(paths.cpuinfo, kRealProcPaths.cpuinfo);
  g_procPaths.meminfo = OrDefault(paths.meminfo, kRealProcPaths.meminfo);
  g_procPaths.selfMaps = OrDefault(paths.selfMaps, kRealProcPaths.selfMaps);
}

}  // namespace kyrt
