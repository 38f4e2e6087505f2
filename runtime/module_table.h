// Internal view of the module table: the seams through which the tests
// steer and inspect the skip list, and the address of the table's own static
// storage (whose mapping __KyGetKYRTAddressRange reports).
//
// Nothing here is exported; tests reach it by linking the static archive.
#ifndef KYRT_RUNTIME_MODULE_TABLE_H
#define KYRT_RUNTIME_MODULE_TABLE_H

#include <cstdint>

#include "kyrt/modules.h"

namespace kyrt {

// The draw that decides whether an insertion raises the table's top level:
// the C library's rand() unless a test installs its own.
using ModuleLevelDraw = int (*)();

// Installs draw for the insertions that follow; null restores rand(). Not
// synchronised, like the table itself.
void SetModuleLevelDrawForTesting(ModuleLevelDraw draw);

// The table's head record (null before the first load) and its current top
// level index. The head holds KY_MODULE_MAX_LEVELS links; a link that points
// back to the head ends its level.
const KyModule* ModuleTableHeadForTesting();
int32_t ModuleTableTopLevelForTesting();

// The address of the table's static storage, in the runtime's writable
// static data.
const void* ModuleTableStorageAddress();

}  // namespace kyrt

#endif  // KYRT_RUNTIME_MODULE_TABLE_H
