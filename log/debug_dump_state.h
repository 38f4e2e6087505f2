// The debug dump channels' process-wide state as the runtime's own tests
// and the option fuzzer see it. Tools reach the channels only through the
// exported functions of kyrt/debug_dump.h.
#ifndef KYRT_LOG_DEBUG_DUMP_STATE_H
#define KYRT_LOG_DEBUG_DUMP_STATE_H

#include <cstdint>

#include "kyrt/debug_dump.h"

namespace kyrt {

// The built-in map: KY_DBG_BUILT_IN_CHANNELS entries and a nameless one
// that ends it; installed at load.
const KyDbgMapEntry* BuiltInDebugDumpMap();

// The installed map and the number of its channels in use.
const KyDbgMapEntry* CurrentDebugDumpMap();
uint32_t DebugDumpChannelCount();

// The enabled mask, and a way to set it outright (the fuzzer starts every
// input from a mask of its own choosing).
uint32_t DebugDumpEnabledMask();
void SetDebugDumpEnabledMask(uint32_t mask);

}  // namespace kyrt

#endif  // KYRT_LOG_DEBUG_DUMP_STATE_H
