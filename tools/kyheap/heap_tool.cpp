#include "heap_tool.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

#include "command_channel.h"
#include "environment.h"
#include "host_hooks.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/runtime.h"
#include "libc_allocator.h"
#include "mutex_hold.h"
#include "reentry_guard.h"
#include "report_paths.h"
#include "report_writer.h"
#include "tool_log.h"

namespace kyheap {

std::atomic<bool> HeapTool::ready_{false};

namespace {

constexpr const char* kLogFileName = "kylog.log";

void* AllocateFromLibc(size_t size) {
  return __libc_malloc(size);
}

void ReleaseToLibc(void* block) {
  __libc_free(block);
}

bool IsMainProcessOfRun() {
  const char* mainPid = std::getenv(kMainPidVariable);
  if (mainPid == nullptr || *mainPid == '\0') return true;
  return std::atol(mainPid) == static_cast<long>(getpid());
}

std::string ProgramPath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

bool FileExists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

void PrepareForkHandler() {
  HeapTool::instance().prepareFork();
}

void ParentForkHandler() {
  HeapTool::instance().resumeParentAfterFork();
}

void ChildForkHandler() {
  HeapTool::instance().resumeChildAfterFork();
}

void FinishAtExit() {
  HeapTool::instance().finish();
}

}  // namespace

HeapTool& HeapTool::instance() {
  alignas(HeapTool) static unsigned char storage[sizeof(HeapTool)];
  static HeapTool* tool = new (storage) HeapTool();
  return *tool;
}

void HeapTool::start() {
  ToolScope scope;
  // The runtime's allocator must take its memory from the C library
  // directly, never through the interposed functions.
  __KyInitializeSubAllocator(AllocateFromLibc, ReleaseToLibc);
  InstallHostHooks();
  __KyRtStartup();
  memory_ = RegisterToolMemory();

  OptionSet optionSet;
  optionParser_ = optionSet.parser();
  const bool optionsUnderstood = optionSet.parse(SplitOptionText(std::getenv(kOptionsVariable)));
  options_ = optionSet.values();
  pid_ = getpid();
  mainProcess_ = IsMainProcessOfRun();
  program_ = ProgramPath();
  reportPath_ = ProcessReportPath(options_.reportPath, mainProcess_, getpid());

  const std::string logPath = DirectoryOf(options_.reportPath) + "/" + kLogFileName;
  const bool appendToLog = !mainProcess_ && FileExists(logPath);
  const bool channelsUnderstood = OpenToolLog(logPath, appendToLog, options_.debugChannels);
  LogInfo("kyheap started in %s (pid %d), report %s", program_.c_str(), getpid(),
          reportPath_.c_str());
  if (!optionsUnderstood) LogWarning("some options were not understood; see the records above");
  if (!channelsUnderstood) {
    LogWarning("debug channel text '%s' not understood", options_.debugChannels.c_str());
  }
  LogOptionValues(optionParser_);

  recorder_.create(memory_);
  pthread_atfork(PrepareForkHandler, ParentForkHandler, ChildForkHandler);
  std::atexit(FinishAtExit);
  if (mainProcess_ && options_.commands) openCommandChannel();
  ready_.store(true, std::memory_order_release);
}

void HeapTool::openCommandChannel() {
  channelOpen_ = OpenCommandChannel(options_.commandDirectory, options_.heartbeatSeconds, this);
  if (channelOpen_) {
    LogInfo("command channel open in '%s'", options_.commandDirectory.c_str());
  } else {
    LogWarning("command channel could not be opened in '%s'", options_.commandDirectory.c_str());
  }
}

void HeapTool::closeCommandChannel() {
  if (!channelOpen_) return;
  channelOpen_ = false;
  RunOwnExitCallbacks();
  CloseCommandChannel();
}

void HeapTool::finish() {
  ToolScope scope;
  if (finished_ || getpid() != pid_) return;
  finished_ = true;
  closeCommandChannel();
  if (!writeReport(reportPath_, "exit", true)) {
    LogWarning("report %s could not be written", reportPath_.c_str());
  }
  const HeapTotals totals = recorder_.totals();
  LogInfo("kyheap finished: %llu allocations, %llu frees, %llu blocks live at exit",
          static_cast<unsigned long long>(totals.allocations),
          static_cast<unsigned long long>(totals.frees),
          static_cast<unsigned long long>(totals.liveBlocks));
  CloseToolLog();
}

bool HeapTool::writeReport(const std::string& path, const char* reason, bool withLeaks) {
  MutexHold hold(&reportMutex_);
  const int leakSites = withLeaks ? options_.leakSites : 1;
  const HeapSnapshot snapshot = recorder_.snapshot(options_.topSites, leakSites);
  symbolizer_.refreshModules();
  ReportContext context;
  context.reason = reason;
  context.pid = getpid();
  context.program = program_;
  context.withLeaks = withLeaks;
  context.memory = memory_;
  const bool written = WriteReport(path, snapshot, symbolizer_, context);
  DebugDump(kDebugReport, "%s report %s: %s", reason, path.c_str(), written ? "written" : "failed");
  return written;
}

std::string HeapTool::writeSnapshot(const std::string& path) {
  ToolScope scope;
  std::string target = path;
  if (target.empty()) {
    MutexHold hold(&reportMutex_);
    target = SnapshotReportPath(reportPath_, ++snapshots_);
  }
  return writeReport(target, "snapshot", false) ? target : std::string();
}

void HeapTool::logProgress() {
  ToolScope scope;
  const HeapTotals totals = recorder_.totals();
  LogInfo(
      "progress: %llu allocations, %llu frees, %llu bytes allocated, %llu live blocks, "
      "%llu live bytes, peak %llu bytes",
      static_cast<unsigned long long>(totals.allocations),
      static_cast<unsigned long long>(totals.frees),
      static_cast<unsigned long long>(totals.bytesAllocated),
      static_cast<unsigned long long>(totals.liveBlocks),
      static_cast<unsigned long long>(totals.liveBytes),
      static_cast<unsigned long long>(totals.peakLiveBytes));
}

// Lock order across fork, as everywhere: report mutex, log mutex,
// recorder mutex. The forking thread is inside the tool meanwhile, so that
// allocations made by other fork handlers go straight to the C library.
void HeapTool::prepareFork() {
  ++t_toolDepth;
  pthread_mutex_lock(&reportMutex_);
  LockLogForFork();
  recorder_.lockForFork();
}

void HeapTool::resumeParentAfterFork() {
  recorder_.unlockInParent();
  UnlockLogInParent();
  pthread_mutex_unlock(&reportMutex_);
  --t_toolDepth;
}

// The child keeps the parent's heap history (its heap is a copy of the
// parent's), writes its own report, and leaves the command channel, which
// belongs to the parent, alone.
void HeapTool::resumeChildAfterFork() {
  recorder_.reinitialiseInChild();
  ReinitialiseLogInChild();
  pthread_mutex_init(&reportMutex_, nullptr);
  pid_ = getpid();
  mainProcess_ = false;
  channelOpen_ = false;
  snapshots_ = 0;
  reportPath_ = ProcessReportPath(options_.reportPath, false, getpid());
  --t_toolDepth;
}

}  // namespace kyheap
