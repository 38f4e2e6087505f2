// The environment through which the launcher hands its options to the
// preloaded tool. The variables stay in the environment of the analysed
// program, so every program it runs through exec carries the tool too.
#ifndef KYHEAP_ENVIRONMENT_H
#define KYHEAP_ENVIRONMENT_H

namespace kyheap {

// The tool's option tokens, joined by kOptionSeparator (a character that
// does not occur in paths or numbers typed on a command line).
constexpr const char* kOptionsVariable = "KYHEAP_OPTIONS";
constexpr char kOptionSeparator = '\x1f';
// The process id of the program the launcher started: that process writes
// the report under the name given with -out and owns the command channel;
// every other process (forked children, programs they run) adds its pid.
constexpr const char* kMainPidVariable = "KYHEAP_MAIN_PID";
// Overrides where the launcher finds libkyheap.so.
constexpr const char* kLibraryVariable = "KYHEAP_LIBRARY";
constexpr const char* kPreloadVariable = "LD_PRELOAD";

}  // namespace kyheap

#endif  // KYHEAP_ENVIRONMENT_H
