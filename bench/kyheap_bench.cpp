// kyheap's slowdown of a whole program against heaptrack's.
//
// Each iteration runs the bundled workload to its end in a process of its
// own: bare ("kyheap_workload/bare"), under kyheap ("kyheap_workload/ours")
// and under heaptrack ("kyheap_workload/heaptrack"). The ratio table shows
// ours / heaptrack (below 1: kyheap costs less) and ours / bare (kyheap's
// slowdown). Both profilers write their output into a scratch directory
// that is emptied after every run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_ratio.h"

namespace {

const kyrt::bench::TargetTable kTargets{
    {"kyheap_workload", "heaptrack", kyrt::bench::Below(1.00)},
};

// Enough work that start-up costs do not dominate: about 0.2 s bare on two cores.
const std::vector<std::string> kWorkload = {
    KYHEAP_BENCH_WORKLOAD, "--threads", "4", "--iterations", "250000", "--leaks", "8"};

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  return std::remove(path);
}

class ScratchDirectory {
 public:
  ScratchDirectory() {
    const char* tmp = std::getenv("TMPDIR");
    path_ = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/kyheap-bench-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) path_.clear();
  }
  ~ScratchDirectory() {
    if (!path_.empty()) nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return path_; }

  // Removes what a run left, keeping the directory.
  void empty() const {
    nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    mkdir(path_.c_str(), 0700);
  }

 private:
  std::string path_;
};

// Runs argv in directory with its output discarded; returns its exit status.
int RunToCompletion(const std::vector<std::string>& argv, const std::string& directory) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    if (chdir(directory.c_str()) != 0) _exit(126);
    std::vector<char*> arguments;
    for (const std::string& argument : argv)
      arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void RunVariant(benchmark::State& state, const std::vector<std::string>& prefix) {
  ScratchDirectory scratch;
  std::vector<std::string> argv = prefix;
  argv.insert(argv.end(), kWorkload.begin(), kWorkload.end());
  for (auto _ : state) {
    if (RunToCompletion(argv, scratch.path()) != 0) {
      state.SkipWithError("the workload failed");
      break;
    }
    state.PauseTiming();
    scratch.empty();
    state.ResumeTiming();
  }
}

void Bare(benchmark::State& state) {
  RunVariant(state, {});
}

void UnderKyheap(benchmark::State& state) {
  RunVariant(state, {KYHEAP_BENCH_LAUNCHER, "-out", "kyheap.xml", "--"});
}

void UnderHeaptrack(benchmark::State& state) {
  RunVariant(state, {KYHEAP_BENCH_HEAPTRACK, "-o", "heaptrack.data"});
}

BENCHMARK(Bare)->Name("kyheap_workload/bare")->UseRealTime()->Iterations(1);
BENCHMARK(UnderKyheap)->Name("kyheap_workload/ours")->UseRealTime()->Iterations(1);
BENCHMARK(UnderHeaptrack)->Name("kyheap_workload/heaptrack")->UseRealTime()->Iterations(1);

}  // namespace
