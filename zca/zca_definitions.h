// Internal seams of the external definition list, for the test suite and
// the fuzz targets (reachable through the static archive only).
#ifndef KYRT_ZCA_ZCA_DEFINITIONS_H
#define KYRT_ZCA_ZCA_DEFINITIONS_H

#include <cstdint>

#include "kyrt/zca.h"

namespace kyrt::zca {

// The head of the process-wide definition list (null until a file with at
// least one line is loaded).
const KyZCADefinition* DefinitionList();

// Calls callback for every definition of list that has a module path and
// arguments and matches moduleName (already normalised): the module path
// equals it, or the module path's base name does. Nothing for a null
// callback.
void DeliverMatchingDefinitions(const KyZCADefinition* list, const char* moduleName,
                                uint64_t moduleBase, KyZCARecordCallback callback, void* user);

}  // namespace kyrt::zca

#endif  // KYRT_ZCA_ZCA_DEFINITIONS_H
