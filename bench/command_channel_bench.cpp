// Latency of the collector command channel: from the controller library's
// send (kyrt/controller.h) to the start of the tool's callback on the
// command service thread, one command at a time, against the simplest
// kernel hand-off between two threads of the same shape.
//
//   command_latency  ours: KyControllerSend of one command (area lock, write,
//                    count, release, wake-up post), the service thread's
//                    wake-up on semaphore 0, the copy out of the shared area
//                    and the dispatch; pipe_wakeup: a thread blocked in read
//                    on a pipe woken by a write of the same time stamp
//
// Each iteration is one command; its time is the measured latency (manual
// time), carried in the command itself as a CLOCK_MONOTONIC stamp, so the
// main thread's own wake-up is not counted. Every run is 1,000 commands; the
// median and the 99th percentile of each run are reported as counters
// (microseconds). Target: a median under 200 microseconds.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_ratio.h"
#include "kyrt/command_handler.h"
#include "kyrt/controller.h"

namespace {

constexpr int kCommandsPerRun = 1000;
constexpr int kLatencyCode = 0x4C41;  // any code but the heartbeat's
constexpr int kSendTimeoutMilliseconds = 10000;
constexpr double kNanosecondsPerSecond = 1e9;
constexpr double kNanosecondsPerMicrosecond = 1e3;

int64_t MonotonicNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// One latency at a time, handed from the receiving thread to the sender.
class LatencyMailbox {
 public:
  void post(int64_t latency) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      latency_ = latency;
      full_ = true;
    }
    changed_.notify_one();
  }

  int64_t take() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return full_; });
    full_ = false;
    return latency_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int64_t latency_ = 0;
  bool full_ = false;
};

int64_t StampFrom(int high, int low) {
  return static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32) |
                              static_cast<uint32_t>(low));
}

void ReportRun(benchmark::State& state, std::vector<int64_t> latencies) {
  if (latencies.empty()) return;
  std::sort(latencies.begin(), latencies.end());
  const size_t count = latencies.size();
  state.counters["median_us"] = latencies[count / 2] / kNanosecondsPerMicrosecond;
  state.counters["p99_us"] = latencies[(count * 99) / 100] / kNanosecondsPerMicrosecond;
}

// ------------------------------------------------------------------------
// ours: the process-wide channel, registered once (a handler that has been
// shut down does not come back), opened by the controller library.

LatencyMailbox g_channelMailbox;

void MeasureOnArrival(int code, int stampHigh, int stampLow, int, int, unsigned char*, void*) {
  const int64_t now = MonotonicNanoseconds();
  if (code == kLatencyCode) g_channelMailbox.post(now - StampFrom(stampHigh, stampLow));
}

std::string g_channelDirectory;
KyController* g_controller = nullptr;

void RemoveChannel() {
  KyControllerClose(g_controller);
  __KyShutdownCommandHandler();
  __KyUnregisterCommandHandler(KYCMDHDLR_CLEAN_FULL);
  rmdir(g_channelDirectory.c_str());
}

KyController* OpenChannel() {
  static const bool opened = [] {
    char pattern[] = "/tmp/kyrt-command-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    g_channelDirectory = pattern;
    // The helper-thread hooks come from the POSIX host, installed by main().
    if (__KyRegisterCommandHandler(pattern, MeasureOnArrival, nullptr) != 1) return false;
    std::atexit(RemoveChannel);
    return KyControllerOpen(pattern, &g_controller) == KYCTL_OK;
  }();
  return opened ? g_controller : nullptr;
}

void CommandLatencyOurs(benchmark::State& state) {
  KyController* controller = OpenChannel();
  if (controller == nullptr) {
    state.SkipWithError("cannot open a command channel");
    return;
  }
  std::vector<int64_t> latencies;
  latencies.reserve(kCommandsPerRun);
  for (auto _ : state) {
    KyControllerCommand command{};
    command.code = kLatencyCode;
    const uint64_t stamp = static_cast<uint64_t>(MonotonicNanoseconds());
    command.argument1 = static_cast<int32_t>(stamp >> 32);
    command.argument2 = static_cast<int32_t>(stamp & 0xFFFFFFFFu);
    if (KyControllerSend(controller, &command, 1, kSendTimeoutMilliseconds) != KYCTL_OK) {
      state.SkipWithError("send failed");
      break;
    }
    const int64_t latency = g_channelMailbox.take();
    latencies.push_back(latency);
    state.SetIterationTime(latency / kNanosecondsPerSecond);
  }
  ReportRun(state, std::move(latencies));
}

// ------------------------------------------------------------------------
// pipe_wakeup: the same hand-off through a pipe.

void CommandLatencyPipe(benchmark::State& state) {
  int channel[2];
  if (pipe(channel) != 0) {
    state.SkipWithError("pipe failed");
    return;
  }
  LatencyMailbox mailbox;
  std::thread receiver([&] {
    int64_t stamp = 0;
    while (read(channel[0], &stamp, sizeof stamp) == static_cast<ssize_t>(sizeof stamp)) {
      mailbox.post(MonotonicNanoseconds() - stamp);
    }
  });
  std::vector<int64_t> latencies;
  latencies.reserve(kCommandsPerRun);
  for (auto _ : state) {
    const int64_t stamp = MonotonicNanoseconds();
    if (write(channel[1], &stamp, sizeof stamp) != static_cast<ssize_t>(sizeof stamp)) {
      state.SkipWithError("write failed");
      break;
    }
    const int64_t latency = mailbox.take();
    latencies.push_back(latency);
    state.SetIterationTime(latency / kNanosecondsPerSecond);
  }
  close(channel[1]);
  receiver.join();
  close(channel[0]);
  ReportRun(state, std::move(latencies));
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("command_latency/ours", CommandLatencyOurs)
      ->UseManualTime()
      ->Iterations(kCommandsPerRun)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("command_latency/pipe_wakeup", CommandLatencyPipe)
      ->UseManualTime()
      ->Iterations(kCommandsPerRun)
      ->Unit(benchmark::kMicrosecond);
  return true;
}();

}  // namespace
