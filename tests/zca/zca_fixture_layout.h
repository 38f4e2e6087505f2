/* Where the test modules' annotation section and target functions lie once
 * loaded (see zca_fixture_tables.S). C, so that the modules need nothing
 * but the C compiler. */
#ifndef KYRT_TESTS_ZCA_ZCA_FIXTURE_LAYOUT_H
#define KYRT_TESTS_ZCA_ZCA_FIXTURE_LAYOUT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZCA_FIXTURE_TARGETS 4

typedef struct ZcaFixtureLayout {
  uint64_t loadBase; /* the module's ELF header, where it was loaded */
  uint64_t section;  /* the first byte of its .qzv_notify_tab section */
  uint64_t sectionSize;
  uint64_t table7Offset;                 /* the header of the "header less 16" table */
  uint64_t targets[ZCA_FIXTURE_TARGETS]; /* zca_fixture_target_a .. _d */
} ZcaFixtureLayout;

/* Fills layout with the calling module's figures. */
void zca_fixture_layout(ZcaFixtureLayout* layout);

#ifdef __cplusplus
}
#endif

#endif /* KYRT_TESTS_ZCA_ZCA_FIXTURE_LAYOUT_H */
