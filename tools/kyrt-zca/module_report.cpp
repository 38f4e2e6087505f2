// Inspecting a module: the section bytes come from the file, and the parser
// is told where they would lie in the analysed process (load address plus
// the section's address in the module), so that every address it reports,
// PC-relative ones included, is the one the runtime would deliver there.
#include "tools/kyrt-zca/module_report.h"

#include "tools/kyrt-zca/elf_sections.h"
#include "zca/section_messages.h"

namespace kyrt_zca {

namespace {

// Records tables and entries as the parser finds them.
class ReportObserver {
 public:
  explicit ReportObserver(SectionReport* report) : report_(report) {}

  void tableStarted(uint64_t, uint16_t) {}

  void tableRead(const kyrt::zca::TableHeader& table) {
    report_->tables.push_back(
        TableReport{table.offset, table.version, table.flags, table.entryCount, {}});
  }

  void entryFound(const kyrt::zca::TableHeader&, KyZCARecord& record,
                  kyrt::zca::LocationForm form) {
    report_->tables.back().annotations.push_back(
        Annotation{record.address, record.name, record.probe, form, record.arguments[0]});
  }

  void sectionFailed(const kyrt::zca::SectionError& error) {
    char text[kyrt::zca::kSectionMessageSize];
    report_->error = kyrt::zca::DescribeSectionError(error, text, sizeof text);
  }

 private:
  SectionReport* report_;
};

SectionReport ParseSection(const AnnotationSection& section, uint64_t base) {
  SectionReport report{base + section.address, section.bytes.size(), {}, {}};
  const kyrt::zca::SectionPlacement placement{base, report.address};
  ReportObserver observer(&report);
  kyrt::zca::ParseSection(section.bytes.data(), section.bytes.size(), placement, observer);
  return report;
}

int CollectExternal(KyZCARecord* record, void* user) {
  static_cast<std::vector<ExternalAnnotation>*>(user)->push_back(ExternalAnnotation{
      record->address, record->name, record->arguments[0].value, record->arguments[1].value});
  return 0;
}

}  // namespace

ModuleReport InspectModule(const std::string& path, uint64_t base, bool withDefinitions) {
  ModuleReport report;
  report.path = path;
  std::vector<AnnotationSection> sections;
  if (!ReadAnnotationSections(path, &sections, &report.error)) {
    report.status = ModuleStatus::kFailed;
    return report;
  }
  if (sections.empty()) report.status = ModuleStatus::kNoSection;
  for (const AnnotationSection& section : sections) {
    report.sections.push_back(ParseSection(section, base));
    const std::string& damage = report.sections.back().error;
    if (!damage.empty() && report.status != ModuleStatus::kFailed) {
      report.status = ModuleStatus::kFailed;
      report.error = std::string("damaged ") + KY_ZCA_SECTION_NAME + " section: " + damage;
    }
  }
  if (withDefinitions) {
    __KyZCAProcessExternalRecords(path.c_str(), base, CollectExternal, &report.external);
  }
  return report;
}

}  // namespace kyrt_zca
