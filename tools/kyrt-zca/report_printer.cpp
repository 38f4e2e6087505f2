// Text: one line per module, section, table, annotation and external
// annotation, fields separated by single spaces; names are quoted, with
// '"', '\' and bytes outside printable ASCII written as \xNN, so that every
// line splits unambiguously.
//
// JSON: {"modules":[...]} with one module object per line. 64-bit values
// (addresses, flags, external arguments) are "0x..." strings, since JSON
// readers often keep numbers as doubles; names escape '"', '\' and every
// byte outside printable ASCII as \u00XX.
#include "tools/kyrt-zca/report_printer.h"

#include <cinttypes>
#include <string>

namespace kyrt_zca {

namespace {

using kyrt::zca::LocationForm;

constexpr char kFirstPrintable = 0x20;
constexpr char kLastPrintable = 0x7E;
constexpr unsigned kByteBits = 8;
constexpr unsigned kByteMask = 0xFF;

const char* LocationKind(LocationForm form) {
  switch (form) {
    case LocationForm::kConstant:
      return "constant";
    case LocationForm::kRegister:
      return "register";
    case LocationForm::kRegisterOffset:
      return "register-offset";
    case LocationForm::kUnknownOperation:
      return "unknown-operation";
    case LocationForm::kUnsupported:
      return "unsupported";
  }
  return "unsupported";
}

const char* StatusName(ModuleStatus status) {
  switch (status) {
    case ModuleStatus::kAnnotated:
      return "annotated";
    case ModuleStatus::kNoSection:
      return "no-section";
    case ModuleStatus::kFailed:
      return "error";
  }
  return "error";
}

bool IsPlainCharacter(char c) {
  return c >= kFirstPrintable && c <= kLastPrintable && c != '"' && c != '\\';
}

// The text in double quotes; escape(c) writes a character that is not plain.
template <typename Escape>
std::string Quoted(const std::string& text, Escape escape) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (IsPlainCharacter(c)) {
      quoted += c;
    } else {
      quoted += escape(static_cast<unsigned char>(c));
    }
  }
  return quoted + "\"";
}

std::string Format(const char* format, uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string TextQuoted(const std::string& text) {
  return Quoted(text, [](unsigned char c) { return Format("\\x%02" PRIx64, c); });
}

std::string JsonQuoted(const std::string& text) {
  return Quoted(text, [](unsigned char c) {
    if (c == '"' || c == '\\') return std::string("\\") + static_cast<char>(c);
    return Format("\\u%04" PRIx64, c);
  });
}

std::string Hex(uint64_t value) {
  return Format("0x%" PRIx64, value);
}

std::string Address(uint64_t value) {
  return Format("0x%016" PRIx64, value);
}

std::string Version(uint16_t version) {
  return std::to_string(version >> kByteBits) + "." + std::to_string(version & kByteMask);
}

std::string TextLocation(const Annotation& annotation) {
  const std::string kind = LocationKind(annotation.form);
  const std::string value = std::to_string(annotation.location.value);
  switch (annotation.form) {
    case LocationForm::kConstant:
    case LocationForm::kRegister:
      return kind + " " + value;
    case LocationForm::kRegisterOffset:
      return kind + " " + value + " " + std::to_string(annotation.location.offset);
    default:
      return kind;
  }
}

std::string JsonLocation(const Annotation& annotation) {
  const std::string kind = "{\"kind\":\"" + std::string(LocationKind(annotation.form)) + "\"";
  const std::string value = std::to_string(annotation.location.value);
  switch (annotation.form) {
    case LocationForm::kConstant:
      return kind + ",\"value\":" + value + "}";
    case LocationForm::kRegister:
      return kind + ",\"register\":" + value + "}";
    case LocationForm::kRegisterOffset:
      return kind + ",\"register\":" + value +
             ",\"offset\":" + std::to_string(annotation.location.offset) + "}";
    default:
      return kind + "}";
  }
}

// Joins the JSON texts of items with commas.
template <typename Items, typename ToJson>
std::string JsonList(const Items& items, ToJson toJson) {
  std::string list = "[";
  for (const auto& item : items) {
    if (list.size() > 1) list += ",";
    list += toJson(item);
  }
  return list + "]";
}

std::string JsonAnnotation(const Annotation& annotation) {
  return "{\"address\":\"" + Hex(annotation.address) +
         "\",\"name\":" + JsonQuoted(annotation.name) +
         ",\"probe\":" + std::to_string(annotation.probe) +
         ",\"location\":" + JsonLocation(annotation) + "}";
}

std::string JsonTable(const TableReport& table) {
  return "{\"offset\":" + std::to_string(table.offset) + ",\"version\":\"" +
         Version(table.version) + "\",\"flags\":\"" + Hex(table.flags) +
         "\",\"entries\":" + std::to_string(table.entryCount) +
         ",\"annotations\":" + JsonList(table.annotations, JsonAnnotation) + "}";
}

std::string JsonSection(const SectionReport& section) {
  std::string json = "{\"address\":\"" + Hex(section.address) +
                     "\",\"size\":" + std::to_string(section.size) +
                     ",\"tables\":" + JsonList(section.tables, JsonTable);
  if (!section.error.empty()) json += ",\"error\":" + JsonQuoted(section.error);
  return json + "}";
}

std::string JsonExternal(const ExternalAnnotation& external) {
  return "{\"address\":\"" + Hex(external.address) + "\",\"name\":" + JsonQuoted(external.name) +
         ",\"argument\":\"" + Hex(external.argument) + "\",\"linkBase\":\"" +
         Hex(external.linkBase) + "\"}";
}

std::string JsonModule(const ModuleReport& report) {
  std::string json =
      "{\"path\":" + JsonQuoted(report.path) + ",\"status\":\"" + StatusName(report.status) + "\"";
  if (!report.error.empty()) json += ",\"error\":" + JsonQuoted(report.error);
  json += ",\"sections\":" + JsonList(report.sections, JsonSection);
  json += ",\"external\":" + JsonList(report.external, JsonExternal);
  return json + "}";
}

}  // namespace

void PrintText(const ModuleReport& report, std::FILE* out) {
  std::fprintf(out, "module %s\n", TextQuoted(report.path).c_str());
  for (const SectionReport& section : report.sections) {
    std::fprintf(out, "section address %s size %" PRIu64 "\n", Address(section.address).c_str(),
                 section.size);
    for (const TableReport& table : section.tables) {
      std::fprintf(out, "table offset %s version %s flags %s entries %u\n",
                   Hex(table.offset).c_str(), Version(table.version).c_str(),
                   Hex(table.flags).c_str(), static_cast<unsigned>(table.entryCount));
      for (const Annotation& annotation : table.annotations) {
        std::fprintf(out, "annotation %s %s probe %s %s\n", Address(annotation.address).c_str(),
                     TextQuoted(annotation.name).c_str(), Hex(annotation.probe).c_str(),
                     TextLocation(annotation).c_str());
      }
    }
  }
  for (const ExternalAnnotation& external : report.external) {
    std::fprintf(out, "external %s %s argument %s link-base %s\n",
                 Address(external.address).c_str(), TextQuoted(external.name).c_str(),
                 Hex(external.argument).c_str(), Hex(external.linkBase).c_str());
  }
}

void PrintJson(const std::vector<ModuleReport>& reports, std::FILE* out) {
  std::fprintf(out, "{\"modules\":[\n");
  for (std::size_t i = 0; i < reports.size(); ++i) {
    std::fprintf(out, "%s%s\n", JsonModule(reports[i]).c_str(), i + 1 < reports.size() ? "," : "");
  }
  std::fprintf(out, "]}\n");
}

void PrintDiagnostic(const ModuleReport& report, std::FILE* err) {
  if (report.status == ModuleStatus::kFailed) {
    std::fprintf(err, "kyrt-zca: %s: %s\n", report.path.c_str(), report.error.c_str());
  } else if (report.status == ModuleStatus::kNoSection) {
    std::fprintf(err, "kyrt-zca: %s: no %s section\n", report.path.c_str(), KY_ZCA_SECTION_NAME);
  }
}

}  // namespace kyrt_zca
