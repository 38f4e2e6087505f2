// Running kyrt-zca in the tests, the text it is expected to print, and
// finding the annotation section inside a module file (to damage copies).
#ifndef KYRT_TESTS_TOOLS_KYRT_ZCA_TEST_SUPPORT_H
#define KYRT_TESTS_TOOLS_KYRT_ZCA_TEST_SUPPORT_H

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/test_files.h"
#include "util/child_process.h"
#include "zca/zca_fixture_expected.h"
#include "zca/zca_fixture_layout.h"

namespace kyrt_zca_test {

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

// Runs argv[0] with argv, standard output and error going to files of the
// case's scratch directory, and returns its exit status and output.
inline ToolRun RunProgram(const std::vector<std::string>& argv) {
  const int status = kyrt_test::ExitStatusOfChild([&] {
    std::vector<char*> arguments;
    for (const std::string& argument : argv)
      arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const int out = open("tool.out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open("tool.err", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) return 126;
    execv(arguments[0], arguments.data());
    return 127;
  });
  return ToolRun{status, kyrt_test::ReadFile("tool.out"), kyrt_test::ReadFile("tool.err")};
}

inline ToolRun RunZca(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv{KYRT_ZCA_TOOL};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return RunProgram(argv);
}

inline std::string Hex(uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%" PRIx64, value);
  return text;
}

inline std::string Address(uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%016" PRIx64, value);
  return text;
}

inline std::string VersionText(uint16_t version) {
  return std::to_string(version >> 8) + "." + std::to_string(version & 0xFF);
}

inline std::string LocationText(const zca_test::ExpectedAnnotation& annotation) {
  if (annotation.kind == zca_test::kConstant || annotation.kind == zca_test::kRegister) {
    return annotation.kind + " " + std::to_string(annotation.value);
  }
  if (annotation.kind == zca_test::kRegisterOffset) {
    return annotation.kind + " " + std::to_string(annotation.value) + " " +
           std::to_string(annotation.offset);
  }
  return annotation.kind;
}

inline std::string AnnotationLine(const zca_test::ExpectedAnnotation& annotation) {
  return "annotation " + Address(annotation.address) + " \"" + annotation.name + "\" probe " +
         Hex(annotation.probe) + " " + LocationText(annotation) + "\n";
}

inline std::string TableText(const zca_test::ExpectedTable& table) {
  std::string text = "table offset " + Hex(table.offset) + " version " +
                     VersionText(table.version) + " flags " + Hex(table.flags) + " entries " +
                     std::to_string(table.annotations.size()) + "\n";
  for (const zca_test::ExpectedAnnotation& annotation : table.annotations) {
    text += AnnotationLine(annotation);
  }
  return text;
}

// The text kyrt-zca prints for a module with one annotation section.
inline std::string ModuleText(const std::string& path, uint64_t sectionAddress, uint64_t size,
                              const std::vector<zca_test::ExpectedTable>& tables) {
  std::string text = "module \"" + path + "\"\nsection address " + Address(sectionAddress) +
                     " size " + std::to_string(size) + "\n";
  for (const zca_test::ExpectedTable& table : tables) text += TableText(table);
  return text;
}

// The shared test module's figures at its link-time addresses (as loaded
// at address 0), from the copy loaded into the test process.
inline ZcaFixtureLayout LinkedFixtureLayout() {
  ZcaFixtureLayout loaded{};
  zca_fixture_layout(&loaded);
  ZcaFixtureLayout linked = loaded;
  linked.loadBase = 0;
  linked.section -= loaded.loadBase;
  for (uint64_t& target : linked.targets) target -= loaded.loadBase;
  return linked;
}

// Where a module file holds its annotation section.
struct SectionInFile {
  uint64_t offset = 0;  // of the section's bytes
  uint64_t size = 0;
  uint64_t headerOffset = 0;  // of its section header
  bool found = false;
};

// Reads the section headers of a 64-bit little-endian ELF image.
inline SectionInFile FindAnnotationSection(const std::string& image) {
  SectionInFile found;
  Elf64_Ehdr elf;
  if (image.size() < sizeof elf) return found;
  std::memcpy(&elf, image.data(), sizeof elf);
  auto header = [&](unsigned index) {
    Elf64_Shdr section{};
    const uint64_t at = elf.e_shoff + uint64_t{index} * elf.e_shentsize;
    if (at + sizeof section <= image.size())
      std::memcpy(&section, image.data() + at, sizeof section);
    return section;
  };
  const Elf64_Shdr names = header(elf.e_shstrndx);
  for (unsigned i = 0; i < elf.e_shnum; ++i) {
    const Elf64_Shdr section = header(i);
    const uint64_t nameAt = names.sh_offset + section.sh_name;
    if (nameAt < image.size() && std::strcmp(image.c_str() + nameAt, ".qzv_notify_tab") == 0) {
      found = SectionInFile{section.sh_offset, section.sh_size,
                            elf.e_shoff + uint64_t{i} * elf.e_shentsize, true};
    }
  }
  return found;
}

inline void Put32(std::string* image, uint64_t offset, uint32_t value) {
  std::memcpy(&(*image)[offset], &value, sizeof value);
}

inline void Put64(std::string* image, uint64_t offset, uint64_t value) {
  std::memcpy(&(*image)[offset], &value, sizeof value);
}

}  // namespace kyrt_zca_test

#endif  // KYRT_TESTS_TOOLS_KYRT_ZCA_TEST_SUPPORT_H
