// The tool as one object: start-up from the preloaded library's
// constructor, the report at exit, snapshots, fork handling, and the state
// the interposed functions consult.
#ifndef KYHEAP_HEAP_TOOL_H
#define KYHEAP_HEAP_TOOL_H

#include <pthread.h>

#include <atomic>
#include <string>

#include "heap_options.h"
#include "heap_recorder.h"
#include "symbolizer.h"
#include "tool_memory.h"

namespace kyheap {

class HeapTool {
 public:
  // The one instance; it lives in static storage and is never destroyed
  // (threads of the program may allocate until the very end).
  static HeapTool& instance();

  // Whether start-up has finished: before, allocations are not recorded.
  static bool ready() { return ready_.load(std::memory_order_acquire); }

  void start();
  // Writes the exit report and closes the command channel, once. Does
  // nothing in a process that shares the tool's memory without being its
  // owner (the child of vfork, before it execs or ends).
  void finish();

  HeapRecorder& recorder() { return recorder_; }
  int stackFrames() const { return options_.stackFrames; }

  // Writes a snapshot report to path, or to the next numbered snapshot
  // path when path is empty. Returns the path written, "" on failure.
  std::string writeSnapshot(const std::string& path);

  // Writes a progress record to the log.
  void logProgress();

  void prepareFork();
  void resumeParentAfterFork();
  void resumeChildAfterFork();

 private:
  HeapTool() = default;

  bool writeReport(const std::string& path, const char* reason, bool withLeaks);
  void openCommandChannel();
  void closeCommandChannel();

  static std::atomic<bool> ready_;

  HeapOptions options_;
  uint32_t optionParser_ = 0;
  ToolMemory memory_{};
  HeapRecorder recorder_;
  Symbolizer symbolizer_;
  // Serialises reports (the module table and the snapshot numbering).
  pthread_mutex_t reportMutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::string reportPath_;
  std::string program_;
  unsigned snapshots_ = 0;
  int pid_ = 0;  // the process the state belongs to
  bool mainProcess_ = true;
  bool channelOpen_ = false;
  bool finished_ = false;
};

}  // namespace kyheap

#endif  // KYHEAP_HEAP_TOOL_H
