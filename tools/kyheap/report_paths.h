// Names of the files a run writes.
#ifndef KYHEAP_REPORT_PATHS_H
#define KYHEAP_REPORT_PATHS_H

#include <string>

namespace kyheap {

// path with tag inserted before its extension ("a/kyheap.xml", "7" ->
// "a/kyheap.7.xml"), or appended when it has none.
std::string InsertBeforeExtension(const std::string& path, const std::string& tag);

// The directory part of path ("." when there is none).
std::string DirectoryOf(const std::string& path);

// The report of a process: the path as given for the run's main process,
// with the pid inserted for every other one.
std::string ProcessReportPath(const std::string& path, bool mainProcess, int pid);

// The report of snapshot number (from 1).
std::string SnapshotReportPath(const std::string& processPath, unsigned number);

}  // namespace kyheap

#endif  // KYHEAP_REPORT_PATHS_H
