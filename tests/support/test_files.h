// Small file helpers for tests. Paths are relative to the case's own
// scratch directory (see test_main.cpp).
#ifndef KYRT_TESTS_SUPPORT_TEST_FILES_H
#define KYRT_TESTS_SUPPORT_TEST_FILES_H

#include <fstream>
#include <sstream>
#include <string>

namespace kyrt_test {

// Writes content to path (replacing it) and returns path.
inline std::string WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  return path;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kyrt_test

#endif  // KYRT_TESTS_SUPPORT_TEST_FILES_H
