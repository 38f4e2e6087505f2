// Paths of the /proc files the runtime frame reads.
//
// Production code always reads the real files; tests point the readers at
// files of their own through SetProcPathsForTesting. The seam is internal
// (hidden visibility): tests reach it by linking the static archive.
#ifndef KYRT_RUNTIME_PROC_PATHS_H
#define KYRT_RUNTIME_PROC_PATHS_H

namespace kyrt {

struct ProcPaths {
  const char* stat;      // processor count
  const char* cpuinfo;   // processor count when stat cannot be opened
  const char* meminfo;   // total and free memory
  const char* selfMaps;  // the process's memory map (address ranges, stacks)
};

const ProcPaths& CurrentProcPaths();

// Replaces the paths; a null member restores that file's real path. Not
// synchronised: call it before the code under test runs.
void SetProcPathsForTesting(const ProcPaths& paths);

}  // namespace kyrt

#endif  // KYRT_RUNTIME_PROC_PATHS_H
