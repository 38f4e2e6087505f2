// The tool's records in kylog.log and its debug channels.
//
// Every record the tool writes goes through one mutex of the tool's own,
// which the fork handlers hold across fork: a child must not inherit the
// log file's lock taken by a thread that does not exist there.
#ifndef KYHEAP_TOOL_LOG_H
#define KYHEAP_TOOL_LOG_H

#include <cstdint>
#include <string>

namespace kyheap {

// Debug channels (-dbg): names and bits of the tool's own channel map.
enum DebugChannel : unsigned {
  kDebugNone = 0,
  kDebugAlloc = 1,
  kDebugFree = 2,
  kDebugSite = 3,
  kDebugCommand = 4,
  kDebugReport = 5,
  kDebugAll = 6,
};

// Creates the log at path (appending when another process of the run made
// it already), registers the tool's message and installs the channel map
// with the -dbg text applied. Returns false when the -dbg text was not
// understood (the channels understood before the bad item stay on).
bool OpenToolLog(const std::string& path, bool append, const std::string& debugChannels);

void LogInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));

bool DebugEnabled(DebugChannel channel);
void DebugDump(DebugChannel channel, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes the option values of the tool's parser.
void LogOptionValues(uint32_t parser);

void CloseToolLog();

// Fork handlers of the log mutex.
void LockLogForFork();
void UnlockLogInParent();
void ReinitialiseLogInChild();

}  // namespace kyheap

#endif  // KYHEAP_TOOL_LOG_H
