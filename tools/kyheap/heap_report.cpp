#include "heap_report.h"

#include <fstream>
#include <sstream>

#include "xml_reader.h"

namespace kyheap {
namespace {

constexpr const char* kRootName = "kyheap";
constexpr uint64_t kBytesPerUnit = 1024;

std::string TextAttribute(const XmlElement& element, const char* name) {
  const std::string* value = element.attribute(name);
  return value != nullptr ? *value : std::string();
}

ReportSite ReadSite(const XmlElement& element) {
  ReportSite site;
  site.allocations = element.number("allocations");
  site.bytes = element.number("bytes");
  site.liveBlocks = element.number("liveBlocks");
  site.liveBytes = element.number("liveBytes");
  for (const XmlElement* frameElement : element.childrenNamed("frame")) {
    ReportFrame frame;
    frame.pc = frameElement->number("pc");
    frame.module = TextAttribute(*frameElement, "module");
    frame.moduleOffset = frameElement->number("moduleOffset");
    frame.symbol = TextAttribute(*frameElement, "symbol");
    frame.symbolOffset = frameElement->number("symbolOffset");
    site.frames.push_back(std::move(frame));
  }
  return site;
}

std::vector<ReportSite> ReadSites(const XmlElement* parent) {
  std::vector<ReportSite> sites;
  if (parent == nullptr) return sites;
  for (const XmlElement* element : parent->childrenNamed("site"))
    sites.push_back(ReadSite(*element));
  return sites;
}

void ReadTotals(const XmlElement& totals, HeapReport* report) {
  report->allocations = totals.number("allocations");
  report->frees = totals.number("frees");
  report->reallocations = totals.number("reallocations");
  report->bytesAllocated = totals.number("bytesAllocated");
  report->bytesFreed = totals.number("bytesFreed");
  report->peakLiveBytes = totals.number("peakLiveBytes");
  report->liveBlocks = totals.number("liveBlocks");
  report->liveBytes = totals.number("liveBytes");
  report->callSiteCount = totals.number("callSites");
}

void ReadSizeClasses(const XmlElement* parent, HeapReport* report) {
  if (parent == nullptr) return;
  for (const XmlElement* element : parent->childrenNamed("class")) {
    report->sizeClasses.push_back(ReportSizeClass{element->number("low"), element->number("high"),
                                                  element->number("allocations"),
                                                  element->number("bytes")});
  }
}

std::string ModuleName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string DescribeFrame(const ReportFrame& frame) {
  char offset[64];
  std::string text;
  if (!frame.symbol.empty()) {
    std::snprintf(offset, sizeof offset, "+0x%llx",
                  static_cast<unsigned long long>(frame.symbolOffset));
    text = frame.symbol + offset;
  } else {
    std::snprintf(offset, sizeof offset, "0x%llx", static_cast<unsigned long long>(frame.pc));
    text = offset;
  }
  if (!frame.module.empty()) {
    std::snprintf(offset, sizeof offset, "+0x%llx",
                  static_cast<unsigned long long>(frame.moduleOffset));
    text += " (" + ModuleName(frame.module) + offset + ")";
  }
  return text;
}

void PrintSites(const std::vector<ReportSite>& sites, bool live, std::FILE* out,
                const SummaryLimits& limits) {
  std::size_t rank = 0;
  for (const ReportSite& site : sites) {
    if (rank == limits.sites) break;
    ++rank;
    if (live) {
      std::fprintf(out, "  #%zu  %llu blocks, %s leaked\n", rank,
                   static_cast<unsigned long long>(site.liveBlocks),
                   HumanBytes(site.liveBytes).c_str());
    } else {
      std::fprintf(out, "  #%zu  %llu allocations, %s (live %llu blocks, %s)\n", rank,
                   static_cast<unsigned long long>(site.allocations),
                   HumanBytes(site.bytes).c_str(), static_cast<unsigned long long>(site.liveBlocks),
                   HumanBytes(site.liveBytes).c_str());
    }
    if (site.frames.empty()) std::fprintf(out, "        at <no frames>\n");
    for (std::size_t i = 0; i < site.frames.size() && i < limits.framesPerSite; ++i) {
      std::fprintf(out, "        at %s\n", DescribeFrame(site.frames[i]).c_str());
    }
  }
}

void PrintSizeClasses(const HeapReport& report, std::FILE* out) {
  std::fprintf(out, "Size classes:\n");
  for (const ReportSizeClass& row : report.sizeClasses) {
    const std::string range = row.low == row.high
                                  ? std::to_string(row.low)
                                  : std::to_string(row.low) + "-" + std::to_string(row.high);
    std::fprintf(out, "  %22s B  %10llu allocations  %s\n", range.c_str(),
                 static_cast<unsigned long long>(row.allocations), HumanBytes(row.bytes).c_str());
  }
}

}  // namespace

std::string HumanBytes(uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= kBytesPerUnit && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
    value /= kBytesPerUnit;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  }
  return text;
}

bool ParseHeapReport(const std::string& document, HeapReport* report, std::string* error) {
  XmlElement root;
  if (!ParseXml(document, &root, error)) return false;
  if (root.name != kRootName) {
    *error = "the root element is '" + root.name + "', not '" + kRootName + "'";
    return false;
  }
  const XmlElement* totals = root.child("totals");
  if (totals == nullptr) {
    *error = "the report has no totals";
    return false;
  }
  *report = HeapReport{};
  report->pid = root.number("pid");
  report->program = TextAttribute(root, "program");
  report->reason = TextAttribute(root, "reason");
  report->paused = root.number("paused") != 0;
  report->resets = root.number("resets");
  ReadTotals(*totals, report);
  ReadSizeClasses(root.child("sizeClasses"), report);
  report->topSites = ReadSites(root.child("callSites"));
  if (const XmlElement* leaks = root.child("leaks")) {
    report->hasLeaks = true;
    report->leakedBlocks = leaks->number("blocks");
    report->leakedBytes = leaks->number("bytes");
    report->leakSiteCount = leaks->number("sites");
    report->leakSites = ReadSites(leaks);
  }
  return true;
}

bool ReadHeapReport(const std::string& path, HeapReport* report, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    *error = "cannot open " + path;
    return false;
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  return ParseHeapReport(contents.str(), report, error);
}

void PrintReportSummary(const HeapReport& report, std::FILE* out, const SummaryLimits& limits) {
  std::fprintf(out, "kyheap report of %s (pid %llu, written at %s%s)\n", report.program.c_str(),
               static_cast<unsigned long long>(report.pid), report.reason.c_str(),
               report.paused ? ", recording paused" : "");
  std::fprintf(out, "  allocations %llu, frees %llu, reallocations %llu, call sites %llu\n",
               static_cast<unsigned long long>(report.allocations),
               static_cast<unsigned long long>(report.frees),
               static_cast<unsigned long long>(report.reallocations),
               static_cast<unsigned long long>(report.callSiteCount));
  std::fprintf(out, "  allocated %s, freed %s, peak live %s, live now %llu blocks (%s)\n",
               HumanBytes(report.bytesAllocated).c_str(), HumanBytes(report.bytesFreed).c_str(),
               HumanBytes(report.peakLiveBytes).c_str(),
               static_cast<unsigned long long>(report.liveBlocks),
               HumanBytes(report.liveBytes).c_str());
  if (report.resets != 0) {
    std::fprintf(out, "  counters reset %llu times\n",
                 static_cast<unsigned long long>(report.resets));
  }
  PrintSizeClasses(report, out);
  std::fprintf(out, "Top call sites (by bytes allocated):\n");
  PrintSites(report.topSites, false, out, limits);
  if (report.hasLeaks) {
    std::fprintf(out, "Leaks at exit: %llu blocks, %s, from %llu call sites\n",
                 static_cast<unsigned long long>(report.leakedBlocks),
                 HumanBytes(report.leakedBytes).c_str(),
                 static_cast<unsigned long long>(report.leakSiteCount));
    PrintSites(report.leakSites, true, out, limits);
  }
}

}  // namespace kyheap
