// What kyrt-zca finds in one module: its annotation sections with their
// tables and annotations, the external annotations that match it, and how
// the inspection ended.
#ifndef KYRT_TOOLS_KYRT_ZCA_MODULE_REPORT_H
#define KYRT_TOOLS_KYRT_ZCA_MODULE_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "kyrt/zca.h"
#include "zca/section_parser.h"

namespace kyrt_zca {

struct Annotation {
  uint64_t address;
  std::string name;
  uint32_t probe;
  kyrt::zca::LocationForm form;
  KyZCAArgument location;  // the record's first argument
};

struct TableReport {
  uint64_t offset;  // of the header, from the section start
  uint16_t version;
  uint64_t flags;
  uint16_t entryCount;
  std::vector<Annotation> annotations;
};

struct SectionReport {
  uint64_t address;  // the section's address once loaded (load address included)
  uint64_t size;
  std::vector<TableReport> tables;
  std::string error;  // the parser's message when a damaged table ended the parse
};

struct ExternalAnnotation {
  uint64_t address;
  std::string name;
  uint64_t argument;
  uint64_t linkBase;
};

enum class ModuleStatus {
  kAnnotated,  // read; at least one annotation section, none damaged
  kNoSection,  // read; no annotation section
  kFailed,     // not readable, not ELF, or a damaged section
};

struct ModuleReport {
  std::string path;
  ModuleStatus status = ModuleStatus::kAnnotated;
  std::string error;  // for kFailed: what went wrong
  std::vector<SectionReport> sections;
  std::vector<ExternalAnnotation> external;
};

// Reads the module at path as if loaded at base, parses each annotation
// section and, when withDefinitions, collects the loaded external
// definitions matching path (compared as given).
ModuleReport InspectModule(const std::string& path, uint64_t base, bool withDefinitions);

}  // namespace kyrt_zca

#endif  // KYRT_TOOLS_KYRT_ZCA_MODULE_REPORT_H
