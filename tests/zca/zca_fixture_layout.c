/* The figures of zca_fixture_layout.h for the module this file is linked
 * into. Every symbol is hidden, so each reference is to this module's own
 * copy. */
#include "zca_fixture_layout.h"

#define ZCA_FIXTURE_HIDDEN __attribute__((visibility("hidden")))

extern const unsigned char __ehdr_start[] ZCA_FIXTURE_HIDDEN;
extern const unsigned char zca_fixture_section_start[] ZCA_FIXTURE_HIDDEN;
extern const unsigned char zca_fixture_section_end[] ZCA_FIXTURE_HIDDEN;
extern const uint64_t zca_fixture_table7_offset ZCA_FIXTURE_HIDDEN;
void zca_fixture_target_a(void) ZCA_FIXTURE_HIDDEN;
void zca_fixture_target_b(void) ZCA_FIXTURE_HIDDEN;
void zca_fixture_target_c(void) ZCA_FIXTURE_HIDDEN;
void zca_fixture_target_d(void) ZCA_FIXTURE_HIDDEN;

static uint64_t AddressOf(const void* object) {
  return (uint64_t)(uintptr_t)object;
}

static uint64_t AddressOfFunction(void (*function)(void)) {
  return (uint64_t)(uintptr_t)function;
}

void zca_fixture_layout(ZcaFixtureLayout* layout) {
  layout->loadBase = AddressOf(__ehdr_start);
  layout->section = AddressOf(zca_fixture_section_start);
  layout->sectionSize = AddressOf(zca_fixture_section_end) - layout->section;
  layout->table7Offset = zca_fixture_table7_offset;
  layout->targets[0] = AddressOfFunction(zca_fixture_target_a);
  layout->targets[1] = AddressOfFunction(zca_fixture_target_b);
  layout->targets[2] = AddressOfFunction(zca_fixture_target_c);
  layout->targets[3] = AddressOfFunction(zca_fixture_target_d);
}
