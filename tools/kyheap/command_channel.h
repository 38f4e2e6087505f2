// The tool's side of the command channel: opening it (after removing what a
// previous program image of the same process left behind) and dispatching
// the codes of command_codes.h.
#ifndef KYHEAP_COMMAND_CHANNEL_H
#define KYHEAP_COMMAND_CHANNEL_H

#include <string>

namespace kyheap {

class HeapTool;

// Opens the channel in directory ("" for the current one). Returns false
// when the runtime could not register it.
bool OpenCommandChannel(const std::string& directory, int heartbeatSeconds, HeapTool* tool);

// Stops the service thread and removes the lock file, the semaphore set
// and the shared memory.
void CloseCommandChannel();

}  // namespace kyheap

#endif  // KYHEAP_COMMAND_CHANNEL_H
