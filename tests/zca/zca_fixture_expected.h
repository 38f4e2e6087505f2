// What a reader must find in the annotation section of the test modules
// (zca_fixture_tables.S), given where a module lies once loaded.
#ifndef KYRT_TESTS_ZCA_ZCA_FIXTURE_EXPECTED_H
#define KYRT_TESTS_ZCA_ZCA_FIXTURE_EXPECTED_H

#include <cstdint>
#include <string>
#include <vector>

#include "zca/zca_fixture_layout.h"

namespace zca_test {

// The kinds of location, as kyrt-zca names them.
inline const std::string kConstant = "constant";
inline const std::string kRegister = "register";
inline const std::string kRegisterOffset = "register-offset";
inline const std::string kUnknownOperation = "unknown-operation";
inline const std::string kUnsupportedLocation = "unsupported";

struct ExpectedAnnotation {
  uint64_t address;
  std::string name;
  uint32_t probe;
  std::string kind;
  uint64_t value;  // the first argument
  uint32_t isRegister;
  int32_t offset;
};

struct ExpectedTable {
  uint64_t offset;  // of the header, from the section start
  uint16_t version;
  uint64_t flags;
  std::vector<ExpectedAnnotation> annotations;
};

// The section's size: nine tables, padding of 5, 3 and 4 bytes.
constexpr uint64_t kFixtureSectionSize = 889;
constexpr uint64_t kFixtureTable7Offset = 580;

// The tables in section order. Version 1.1 addresses are module-relative
// constants; version 1.2 addresses are constants or (PC-relative) the
// target functions and table 7's header less 16.
inline std::vector<ExpectedTable> FixtureTables(const ZcaFixtureLayout& layout) {
  const uint64_t base = layout.loadBase;
  const uint64_t* target = layout.targets;
  const uint64_t table7 = layout.section + kFixtureTable7Offset;
  return {
      {0,
       0x0101,
       0,
       {{base + 0x1000, "v11_first", 7, kConstant, 3, 0, 0},
        {base + 0x2040, "v11_second", 0, kRegister, 5, 1, 0}}},
      {106, 0x0102, 0, {{0x401000, "v12_plain", 0, kRegisterOffset, 7, 1, -4}}},
      {184, 0x0102, 1, {{target[0], "v12_pcrel", 0, kRegister, 0, 1, 0}}},
      {260,
       0x0102,
       2,
       {{0x3000, "v12_probe", 0xDEADBEEF, kConstant, 31, 0, 0},
        {0x3010, "v12_unknown_op", 0, kUnknownOperation, 0xFFFFFFFF, 1, 0}}},
      {377, 0x0102, 3, {{target[1], "v12_pcrel_probe", 42, kRegisterOffset, 3, 1, 0}}},
      {463,
       0x0102,
       4,
       {{0x100001234, "v12_32bit_clear", 0, kConstant, 0, 0, 0},
        {0xFFFFFFFF80000000, "v12_32bit_set", 0, kRegister, 31, 1, 0}}},
      {kFixtureTable7Offset,
       0x0102,
       5,
       {{target[2], "v12_pcrel_32bit", 0, kRegisterOffset, 31, 1, 0},
        {table7 - 16, "v12_header_minus_16", 0, kConstant, 1, 0, 0}}},
      {700,
       0x0102,
       6,
       {{0xFFFFFFFFFFFFFFF0, "v12_probe_32bit_unsupported", 1, kUnsupportedLocation, 0, 0, 0}}},
      {799, 0x0102, 7, {{target[3], "v12_all_flags", 0xFFFFFFFF, kRegisterOffset, 31, 1, 100}}},
  };
}

inline std::vector<ExpectedAnnotation> FixtureAnnotations(const ZcaFixtureLayout& layout) {
  std::vector<ExpectedAnnotation> all;
  for (const ExpectedTable& table : FixtureTables(layout)) {
    all.insert(all.end(), table.annotations.begin(), table.annotations.end());
  }
  return all;
}

// The log a parse of the section writes.
inline std::vector<std::string> FixtureLogTexts() {
  const std::string v11 = "Found ZCA section with version 1.1";
  const std::string v12 = "Found ZCA section with version 1.2";
  return {v11, v12, v12, v12, v12, v12, v12, v12, "KYRT: Unsupported Dwarf Expression in ZCA", v12};
}

}  // namespace zca_test

#endif  // KYRT_TESTS_ZCA_ZCA_FIXTURE_EXPECTED_H
