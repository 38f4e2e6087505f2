// Printing module reports: a line-oriented text form, one JSON document, and
// the diagnostics for standard error. docs/kyrt-zca.md describes both
// output forms.
#ifndef KYRT_TOOLS_KYRT_ZCA_REPORT_PRINTER_H
#define KYRT_TOOLS_KYRT_ZCA_REPORT_PRINTER_H

#include <cstdio>
#include <vector>

#include "tools/kyrt-zca/module_report.h"

namespace kyrt_zca {

void PrintText(const ModuleReport& report, std::FILE* out);

void PrintJson(const std::vector<ModuleReport>& reports, std::FILE* out);

// "kyrt-zca: PATH: ..." for a failed module or one without a section;
// nothing otherwise.
void PrintDiagnostic(const ModuleReport& report, std::FILE* err);

}  // namespace kyrt_zca

#endif  // KYRT_TOOLS_KYRT_ZCA_REPORT_PRINTER_H
