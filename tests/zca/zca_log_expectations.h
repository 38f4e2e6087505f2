// The log records the annotation reader writes, as the log file holds them
// (time stamps masked, see support/log_text.h).
#ifndef KYRT_TESTS_ZCA_ZCA_LOG_EXPECTATIONS_H
#define KYRT_TESTS_ZCA_ZCA_LOG_EXPECTATIONS_H

#include <string>
#include <vector>

#include "support/log_text.h"

namespace zca_test {

inline const std::string kFound11 = "Found ZCA section with version 1.1";
inline const std::string kFound12 = "Found ZCA section with version 1.2";
inline const std::string kUnsupported = "KYRT: Unsupported Dwarf Expression in ZCA";
inline const std::string kInvalidSize = "ZCA parser: invalid zca section size";
inline const std::string kBadHeader = "zca_parser: Incorrect zca header format";
inline const std::string kBadCount = "zca_parser: incorrect number of zca items";
inline const std::string kBadNameOffset = "zca_parser: incorrect zca name offset";
inline const std::string kUnterminatedName = "zca_parser: unterminated zca name";
inline const std::string kBadExpressionOffset = "zca_parser: incorrect zca expression offset";
inline const std::string kBadExpressionLength = "zca_parser: incorrect zca expression length";
inline const std::string kBadTableLayout = "zca_parser: incorrect zca table layout";

// A record as the log writes it; id counts the records of the file from 1.
inline std::string LogRecord(int id, const std::string& type, const std::string& severity,
                             const std::string& body) {
  return "\n\t<msg id='" + std::to_string(id) + "' source='kyrt'>\n\t\t<type>" + type +
         "</type>\n\t\t<severity>" + severity + "</severity>\n\t\t<timestamp>TS</timestamp>" +
         body + "\n\t</msg>";
}

// A text record (message 1, "INTERNAL").
inline std::string TextRecord(int id, const std::string& text,
                              const std::string& severity = "INFO") {
  return LogRecord(id, "INTERNAL", severity, "\n\t\t<!-- " + text + " -->");
}

// The whole log of a run that wrote only INFO text records.
inline std::string InfoLog(const std::vector<std::string>& texts) {
  std::string log = kyrt_test::kLogHeader + kyrt_test::kLogRoot;
  int id = 1;
  for (const std::string& text : texts) log += TextRecord(id++, text);
  return log;
}

}  // namespace zca_test

#endif  // KYRT_TESTS_ZCA_ZCA_LOG_EXPECTATIONS_H
