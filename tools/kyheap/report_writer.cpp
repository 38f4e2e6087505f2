#include "report_writer.h"

#include "kyrt/memory.h"
#include "kyrt/xml_writer.h"

namespace kyheap {
namespace {

using Count = unsigned long long;

void WriteTotals(KyXmlWriter& xml, const HeapSnapshot& snapshot) {
  const HeapTotals& totals = snapshot.totals;
  xml.startElement("totals", false)
      .writeAttribute("allocations", Count{totals.allocations})
      .writeAttribute("frees", Count{totals.frees})
      .writeAttribute("reallocations", Count{totals.reallocations})
      .writeAttribute("bytesAllocated", Count{totals.bytesAllocated})
      .writeAttribute("bytesFreed", Count{totals.bytesFreed})
      .writeAttribute("peakLiveBytes", Count{totals.peakLiveBytes})
      .writeAttribute("liveBlocks", Count{totals.liveBlocks})
      .writeAttribute("liveBytes", Count{totals.liveBytes})
      .writeAttribute("callSites", Count{snapshot.siteCount})
      .endElement();
}

void WriteSizeClasses(KyXmlWriter& xml, const HeapSnapshot& snapshot) {
  xml.startElement("sizeClasses", true);
  for (const SizeClassRow& row : snapshot.sizeClasses) {
    xml.startElement("class", false)
        .writeAttribute("index", static_cast<int>(row.sizeClass))
        .writeAttribute("low", Count{row.lowestSize})
        .writeAttribute("high", Count{row.highestSize})
        .writeAttribute("allocations", Count{row.allocations})
        .writeAttribute("bytes", Count{row.bytes})
        .endElement();
  }
  xml.endElement();
}

void WriteFrame(KyXmlWriter& xml, const FrameDescription& frame) {
  xml.startElement("frame", false)
      .writeAttribute("pc", reinterpret_cast<const void*>(frame.pc))
      .writeStrAttribute("module", EscapeAttribute(frame.module))
      .writeAttribute("moduleOffset", Count{frame.moduleOffset})
      .writeStrAttribute("symbol", EscapeAttribute(frame.symbol))
      .writeAttribute("symbolOffset", Count{frame.symbolOffset})
      .endElement();
}

void WriteSite(KyXmlWriter& xml, const SiteSnapshot& site, int rank, const Symbolizer& symbols) {
  xml.startElement("site", false)
      .writeAttribute("rank", rank)
      .writeAttribute("allocations", Count{site.counters.allocations})
      .writeAttribute("bytes", Count{site.counters.bytes})
      .writeAttribute("liveBlocks", Count{site.counters.liveBlocks})
      .writeAttribute("liveBytes", Count{site.counters.liveBytes});
  for (int i = 0; i < site.frameCount; ++i) {
    const FrameDescription frame = symbols.describe(site.frames[i]);
    // In code built without frame pointers the walk can step onto data
    // that passes for a frame; a return address outside every loaded
    // object shows where the real chain ended.
    if (i > 0 && frame.module.empty()) break;
    WriteFrame(xml, frame);
  }
  xml.endElement();
}

void WriteCallSites(KyXmlWriter& xml, const HeapSnapshot& snapshot, const Symbolizer& symbols) {
  xml.startElement("callSites", false)
      .writeAttribute("listed", Count{snapshot.topSites.size()})
      .writeAttribute("total", Count{snapshot.siteCount});
  int rank = 1;
  for (const SiteSnapshot& site : snapshot.topSites) WriteSite(xml, site, rank++, symbols);
  xml.endElement();
}

void WriteLeaks(KyXmlWriter& xml, const HeapSnapshot& snapshot, const Symbolizer& symbols) {
  xml.startElement("leaks", false)
      .writeAttribute("blocks", Count{snapshot.totals.liveBlocks})
      .writeAttribute("bytes", Count{snapshot.totals.liveBytes})
      .writeAttribute("sites", Count{snapshot.leakSiteCount})
      .writeAttribute("listed", Count{snapshot.leakSites.size()});
  int rank = 1;
  for (const SiteSnapshot& site : snapshot.leakSites) WriteSite(xml, site, rank++, symbols);
  xml.endElement();
}

void WriteCategory(KyXmlWriter& xml, uint32_t category) {
  MemoryCategoryInfo info{};
  if (__KyGetMemoryInfoByCategory(category, &info) == 0) return;
  xml.startElement("category", false)
      .writeStrAttribute("name", EscapeAttribute(info.name))
      .writeAttribute("allocated", static_cast<Count>(info.allocated < 0 ? 0 : info.allocated))
      .writeAttribute("peak",
                      static_cast<Count>(info.allocatedAtPeak < 0 ? 0 : info.allocatedAtPeak))
      .endElement();
}

void WriteToolMemory(KyXmlWriter& xml, const ToolMemory& memory) {
  xml.startElement("toolMemory", false)
      .writeAttribute("peakTotal", Count{__KyGetPeakTotalMemoryAllocated()});
  WriteCategory(xml, memory.blocks);
  WriteCategory(xml, memory.sites);
  WriteCategory(xml, memory.indexes);
  xml.endElement();
}

}  // namespace

std::string EscapeAttribute(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '\'':
        escaped += "&apos;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped.push_back(c);
    }
  }
  return escaped;
}

bool WriteReport(const std::string& path, const HeapSnapshot& snapshot, const Symbolizer& symbols,
                 const ReportContext& context) {
  KyXmlWriter xml;
  if (!xml.create(path.c_str(), false)) return false;
  xml.startElement("kyheap", false)
      .writeAttribute("version", kReportFormatVersion)
      .writeAttribute("pid", context.pid)
      .writeStrAttribute("program", EscapeAttribute(context.program))
      .writeStrAttribute("reason", EscapeAttribute(context.reason))
      .writeAttribute("paused", snapshot.paused ? 1 : 0)
      .writeAttribute("resets", Count{snapshot.resets});
  WriteTotals(xml, snapshot);
  WriteSizeClasses(xml, snapshot);
  WriteCallSites(xml, snapshot, symbols);
  if (context.withLeaks) WriteLeaks(xml, snapshot, symbols);
  WriteToolMemory(xml, context.memory);
  xml.close();
  return true;
}

}  // namespace kyheap
