// Finding the annotation sections of an ELF module.
#ifndef KYRT_TOOLS_KYRT_ZCA_ELF_SECTIONS_H
#define KYRT_TOOLS_KYRT_ZCA_ELF_SECTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kyrt_zca {

// A copy of one ".qzv_notify_tab" section's bytes, as the file holds them.
struct AnnotationSection {
  uint64_t address;  // the section's address in the module (0 in an object file)
  std::vector<uint8_t> bytes;
};

// Reads every section named ".qzv_notify_tab" of the ELF file at path (an
// executable, a shared library or an object), in section header order; none
// is not an error. Returns false with *error set when the file cannot be
// opened, is not an ELF file, or its section headers or an annotation
// section's bytes cannot be read.
bool ReadAnnotationSections(const std::string& path, std::vector<AnnotationSection>* sections,
                            std::string* error);

}  // namespace kyrt_zca

#endif  // KYRT_TOOLS_KYRT_ZCA_ELF_SECTIONS_H
