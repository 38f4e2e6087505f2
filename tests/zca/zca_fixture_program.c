/* The test executable: carries the annotation section of
 * zca_fixture_tables.S and prints where it lies once loaded, one
 * "name 0xvalue" line per figure of zca_fixture_layout.h. */
#include <inttypes.h>
#include <stdio.h>

#include "zca_fixture_layout.h"

int main(void) {
  ZcaFixtureLayout layout;
  zca_fixture_layout(&layout);
  printf("load_base 0x%" PRIx64 "\n", layout.loadBase);
  printf("section 0x%" PRIx64 "\n", layout.section);
  printf("section_size 0x%" PRIx64 "\n", layout.sectionSize);
  printf("table7_offset 0x%" PRIx64 "\n", layout.table7Offset);
  for (int i = 0; i < ZCA_FIXTURE_TARGETS; ++i) {
    printf("target 0x%" PRIx64 "\n", layout.targets[i]);
  }
  return 0;
}
