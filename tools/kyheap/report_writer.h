// Writes a report, an XML file, with the runtime's XML writer object.
//
// <kyheap version pid program reason paused resets>
//   <totals allocations frees reallocations bytesAllocated bytesFreed
//           peakLiveBytes liveBlocks liveBytes callSites/>
//   <sizeClasses> <class index low high allocations bytes/> ... </sizeClasses>
//   <callSites listed total> <site rank allocations bytes liveBlocks
//       liveBytes> <frame pc module moduleOffset symbol symbolOffset/> ...
//   </site> ... </callSites>
//   <leaks blocks bytes sites listed> <site ...> ... </leaks>   (exit only)
//   <toolMemory> <category name allocated peak/> ... </toolMemory>
// </kyheap>
// (The writer never writes empty-element tags: every element is closed by
// its own end tag.)
#ifndef KYHEAP_REPORT_WRITER_H
#define KYHEAP_REPORT_WRITER_H

#include <string>

#include "heap_recorder.h"
#include "symbolizer.h"
#include "tool_memory.h"

namespace kyheap {

constexpr int kReportFormatVersion = 1;

struct ReportContext {
  std::string reason;  // "exit" or "snapshot"
  int pid = 0;
  std::string program;
  bool withLeaks = false;
  ToolMemory memory{};
};

// Returns false when the file cannot be created.
bool WriteReport(const std::string& path, const HeapSnapshot& snapshot, const Symbolizer& symbols,
                 const ReportContext& context);

// Escapes the five characters XML reserves, for attribute values (the
// writer writes attribute strings as given).
std::string EscapeAttribute(const std::string& text);

}  // namespace kyheap

#endif  // KYHEAP_REPORT_WRITER_H
