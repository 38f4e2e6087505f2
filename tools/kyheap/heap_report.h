// A kyheap report read back from its file, and the short summary that
// `kyheap report FILE` prints.
#ifndef KYHEAP_HEAP_REPORT_H
#define KYHEAP_HEAP_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kyheap {

struct ReportFrame {
  uint64_t pc = 0;
  std::string module;
  uint64_t moduleOffset = 0;
  std::string symbol;
  uint64_t symbolOffset = 0;
};

struct ReportSite {
  uint64_t allocations = 0;
  uint64_t bytes = 0;
  uint64_t liveBlocks = 0;
  uint64_t liveBytes = 0;
  std::vector<ReportFrame> frames;
};

struct ReportSizeClass {
  uint64_t low = 0;
  uint64_t high = 0;
  uint64_t allocations = 0;
  uint64_t bytes = 0;
};

struct HeapReport {
  uint64_t pid = 0;
  std::string program;
  std::string reason;
  bool paused = false;
  uint64_t resets = 0;
  uint64_t allocations = 0;
  uint64_t frees = 0;
  uint64_t reallocations = 0;
  uint64_t bytesAllocated = 0;
  uint64_t bytesFreed = 0;
  uint64_t peakLiveBytes = 0;
  uint64_t liveBlocks = 0;
  uint64_t liveBytes = 0;
  uint64_t callSiteCount = 0;
  std::vector<ReportSizeClass> sizeClasses;
  std::vector<ReportSite> topSites;
  bool hasLeaks = false;
  uint64_t leakedBlocks = 0;
  uint64_t leakedBytes = 0;
  uint64_t leakSiteCount = 0;
  std::vector<ReportSite> leakSites;
};

// Reads the report at path. On failure returns false with the reason.
bool ReadHeapReport(const std::string& path, HeapReport* report, std::string* error);

// Parses a report held in memory.
bool ParseHeapReport(const std::string& document, HeapReport* report, std::string* error);

// "1.5 MiB", "312 B": sizes for people.
std::string HumanBytes(uint64_t bytes);

// Prints the summary: totals, the size classes, the first sites and the
// leaks, each site with its first frames.
struct SummaryLimits {
  std::size_t sites = 5;
  std::size_t framesPerSite = 4;
};
void PrintReportSummary(const HeapReport& report, std::FILE* out, const SummaryLimits& limits);

}  // namespace kyheap

#endif  // KYHEAP_HEAP_REPORT_H
