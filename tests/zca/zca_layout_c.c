/* The annotation records as a C compiler lays them out: the public header
 * compiled as C, every field's offset and every record's size reported to
 * the layout test. */
#include <stddef.h>

#include "kyrt/zca.h"

/* One offset or size, by index; see zca_layout_test.cpp for the order. */
size_t zca_layout_from_c(int index);

size_t zca_layout_from_c(int index) {
  static const size_t layout[] = {
      sizeof(KyZCAArgument),
      offsetof(KyZCAArgument, value),
      offsetof(KyZCAArgument, isRegister),
      offsetof(KyZCAArgument, offset),
      sizeof(KyZCARecord),
      offsetof(KyZCARecord, address),
      offsetof(KyZCARecord, name),
      offsetof(KyZCARecord, expression),
      offsetof(KyZCARecord, probe),
      offsetof(KyZCARecord, argumentCount),
      offsetof(KyZCARecord, arguments),
      sizeof(KyZCADefinition),
      offsetof(KyZCADefinition, offset),
      offsetof(KyZCADefinition, name),
      offsetof(KyZCADefinition, modulePath),
      offsetof(KyZCADefinition, argumentKind),
      offsetof(KyZCADefinition, arguments),
      offsetof(KyZCADefinition, next),
  };
  return layout[index];
}
