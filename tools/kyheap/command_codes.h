// The command codes kyheap answers on its command channel (kyrtctl send
// CODE ...). docs/kyheap.md describes what each one does to the reports.
#ifndef KYHEAP_COMMAND_CODES_H
#define KYHEAP_COMMAND_CODES_H

namespace kyheap {

// Writes a snapshot report now. The payload, when not empty, is the path of
// the report; otherwise the snapshot goes to <out>.snapshot-<N>.xml.
constexpr int kCommandSnapshot = 1;
// Clears the event counters (totals, size classes, call-site counts); the
// live blocks and the live figures stay, the peak restarts at live now.
constexpr int kCommandReset = 2;
// Stops recording new allocations; frees of recorded blocks still count.
constexpr int kCommandPause = 3;
// Starts recording again.
constexpr int kCommandResume = 4;
// Logs which live block holds an address: argument 1 is its high 32 bits,
// argument 2 its low 32 bits, or the payload holds it as text ("0x...").
constexpr int kCommandWhere = 5;

}  // namespace kyheap

#endif  // KYHEAP_COMMAND_CODES_H
