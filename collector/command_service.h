// Internal view of the process-wide command channel: the handler the C entry
// points work on and the state of its service thread. The runtime itself
// needs none of this outside collector/; tests reach it by linking the
// static archive (hidden visibility).
#ifndef KYRT_COLLECTOR_COMMAND_SERVICE_H
#define KYRT_COLLECTOR_COMMAND_SERVICE_H

#include <cstdint>

#include "kyrt/command_handler.h"

namespace kyrt::collector {

// The handler built by the library's static initialiser.
CollectorCommandHandler& ProcessCommandHandler();

// The host's handle of the command service thread; 0 when none is running
// (or it was stopped).
uint64_t ServiceThreadHandle();

// The address of that handle, as the thread-wait hook takes it.
uint64_t* ServiceThreadHandleAddress();

// True once a shutdown has been asked for; never false again afterwards.
bool StopRequested();

}  // namespace kyrt::collector

#endif  // KYRT_COLLECTOR_COMMAND_SERVICE_H
