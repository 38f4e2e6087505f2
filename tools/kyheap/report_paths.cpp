#include "report_paths.h"

namespace kyheap {

std::string InsertBeforeExtension(const std::string& path, const std::string& tag) {
  const std::size_t slash = path.rfind('/');
  const std::size_t dot = path.rfind('.');
  const bool hasExtension =
      dot != std::string::npos && dot != 0 && (slash == std::string::npos || dot > slash + 1);
  if (!hasExtension) return path + "." + tag;
  return path.substr(0, dot) + "." + tag + path.substr(dot);
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string ProcessReportPath(const std::string& path, bool mainProcess, int pid) {
  return mainProcess ? path : InsertBeforeExtension(path, std::to_string(pid));
}

std::string SnapshotReportPath(const std::string& processPath, unsigned number) {
  return InsertBeforeExtension(processPath, "snapshot-" + std::to_string(number));
}

}  // namespace kyheap
