// main() for the benchmark suites, and the ratio table (see bench_ratio.h).
//
// The console reporter of the benchmark library is kept for the usual
// per-benchmark output; a subclass records, as the runs are reported, the
// real time per operation of each benchmark, and the table is built from
// those records once everything has run.
#include "bench_ratio.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "kyrt/posix_host.h"
#include "kyrt/runtime.h"

namespace kyrt::bench {
namespace {

// Settings that make the ratios steady enough to judge on a small, shared
// machine while the whole suite stays short: many short repetitions, run in
// random order across benchmarks so that a slow spell of the machine hits
// ours and the peers alike, and judged by their median. Listed before the
// user's own arguments, which therefore win.
const char* const kDefaultFlags[] = {
    "--benchmark_repetitions=9",
    "--benchmark_enable_random_interleaving=true",
    "--benchmark_display_aggregates_only=true",
    "--benchmark_min_warmup_time=0.1",
    "--benchmark_min_time=0.1",
};

constexpr const char* kOursRole = "ours";

std::vector<Target>& RegisteredTargets() {
  static std::vector<Target> targets;
  return targets;
}

// What the run reported for one benchmark.
struct Measurement {
  std::vector<double> repetitionNs;  // real time per operation, each repetition
  double medianNs = 0;               // the library's median aggregate, when reported
  bool hasMedian = false;
  std::string error;
  int64_t registrationIndex = 0;  // the benchmark's place in registration order

  double representativeNs() const {
    if (hasMedian) return medianNs;
    std::vector<double> sorted = repetitionNs;
    std::sort(sorted.begin(), sorted.end());
    const size_t middle = sorted.size() / 2;
    return sorted.size() % 2 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
  }
};

double RealNanosecondsPerOperation(const benchmark::BenchmarkReporter::Run& run) {
  return run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
}

class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) record(run);
  }

  // In registration order, whatever order the runs came in (repetitions of
  // different benchmarks may be interleaved).
  std::vector<std::pair<std::string, Measurement>> measurements() const {
    std::vector<std::pair<std::string, Measurement>> sorted = measurements_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
      return a.second.registrationIndex < b.second.registrationIndex;
    });
    return sorted;
  }

 private:
  void record(const Run& run) {
    Measurement& measurement = find(run.run_name.function_name);
    measurement.registrationIndex = run.family_index;
    if (run.error_occurred) {
      measurement.error = run.error_message;
    } else if (run.run_type == Run::RT_Iteration) {
      measurement.repetitionNs.push_back(RealNanosecondsPerOperation(run));
    } else if (run.aggregate_name == "median") {
      measurement.medianNs = RealNanosecondsPerOperation(run);
      measurement.hasMedian = true;
    }
  }

  Measurement& find(const std::string& name) {
    for (auto& entry : measurements_) {
      if (entry.first == name) return entry.second;
    }
    measurements_.emplace_back(name, Measurement{});
    return measurements_.back().second;
  }

  std::vector<std::pair<std::string, Measurement>> measurements_;
};

bool IsOursRole(const std::string& role) {
  const std::string ours = kOursRole;
  return role == ours || role.rfind(ours + "_", 0) == 0;
}

const Target* FindTarget(const std::string& family, const std::string& peer) {
  for (const Target& target : RegisteredTargets()) {
    if (target.family == family && target.peer == peer) return &target;
  }
  return nullptr;
}

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string DescribeBound(const Bound& bound) {
  return (bound.kind == Bound::Kind::kAtMost ? "<= " : "< ") + Format("%.2f", bound.limit);
}

// The roles one family reported, each in registration order.
struct Family {
  std::string name;
  std::vector<std::pair<std::string, double>> ours;   // role, ns per operation
  std::vector<std::pair<std::string, double>> peers;  // role, ns per operation
};

std::vector<Family> GroupByFamily(
    const std::vector<std::pair<std::string, Measurement>>& measurements) {
  std::vector<Family> families;
  for (const auto& [name, measurement] : measurements) {
    const size_t slash = name.rfind('/');
    if (slash == std::string::npos || !measurement.error.empty() ||
        (measurement.repetitionNs.empty() && !measurement.hasMedian)) {
      continue;
    }
    const std::string familyName = name.substr(0, slash);
    const std::string role = name.substr(slash + 1);
    auto family = std::find_if(families.begin(), families.end(),
                               [&](const Family& f) { return f.name == familyName; });
    if (family == families.end())
      family = families.insert(families.end(), Family{familyName, {}, {}});
    (IsOursRole(role) ? family->ours : family->peers)
        .emplace_back(role, measurement.representativeNs());
  }
  return families;
}

// Prints rows of cells in aligned columns; the first `textColumns` columns
// are left-aligned, the rest (numbers) right-aligned.
void PrintColumns(std::ostream& out, const std::vector<std::vector<std::string>>& rows,
                  size_t textColumns) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - row[i].size(), ' ');
      line += i < textColumns ? row[i] + padding : padding + row[i];
      if (i + 1 < row.size()) line += "  ";
    }
    out << line << '\n';
  }
}

// The environment variable naming a file to which each suite appends its
// ratio rows as tab-separated values, for the report of all suites
// (scripts/bench-report.sh): suite, family, ours, peer, ours ns, peer ns,
// ratio, target, result.
constexpr const char* kRatioFileVariable = "KYRT_BENCH_RATIO_FILE";

void AppendRatioRows(const std::string& suite, const std::vector<std::vector<std::string>>& rows) {
  const char* path = std::getenv(kRatioFileVariable);
  if (path == nullptr || *path == '\0') return;
  std::ofstream file(path, std::ios::app);
  for (size_t i = 1; i < rows.size(); ++i) {  // row 0 holds the headings
    file << suite;
    for (const std::string& cell : rows[i]) file << '\t' << cell;
    file << '\n';
  }
}

void PrintRatioTable(std::ostream& out, const std::string& suite,
                     const std::vector<std::pair<std::string, Measurement>>& measurements) {
  std::vector<std::vector<std::string>> rows{
      {"family", "ours", "peer", "ours ns", "peer ns", "ratio", "target", "result"}};
  int met = 0;
  int missed = 0;
  for (const Family& family : GroupByFamily(measurements)) {
    for (const auto& [oursRole, oursNs] : family.ours) {
      for (const auto& [peerRole, peerNs] : family.peers) {
        const double ratio = oursNs / peerNs;
        const Target* target = FindTarget(family.name, peerRole);
        std::string bound = "-";
        std::string result = "-";
        if (target != nullptr) {
          bound = DescribeBound(target->bound);
          const bool isMet = target->bound.isMetBy(ratio);
          result = isMet ? "met" : "NOT met";
          ++(isMet ? met : missed);
        }
        rows.push_back({family.name, oursRole, peerRole, Format("%.2f", oursNs),
                        Format("%.2f", peerNs), Format("%.3g", ratio), bound, result});
      }
    }
  }

  std::vector<std::string> failed;
  for (const auto& [name, measurement] : measurements) {
    if (!measurement.error.empty()) failed.push_back(name + ": " + measurement.error);
  }
  if (rows.size() == 1 && failed.empty()) return;  // nothing ran, e.g. --benchmark_list_tests

  AppendRatioRows(suite, rows);
  out << "\nRatios ours / peer: real time per operation, median over repetitions"
         " (below 1: ours is faster)\n\n";
  PrintColumns(out, rows, 3);
  out << "\ntargets: " << met << " met, " << missed << " not met\n";
  for (const std::string& line : failed) out << "not measured, " << line << '\n';
}

std::string CpuModel() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("model name", 0) != 0) continue;
    const size_t colon = line.find(':');
    if (colon == std::string::npos) break;
    const size_t start = line.find_first_not_of(" \t", colon + 1);
    return start == std::string::npos ? std::string() : line.substr(start);
  }
  return "unknown";
}

void PrintMachine(std::ostream& out) {
  out << "machine: " << CpuModel() << "; " << sysconf(_SC_NPROCESSORS_ONLN)
      << " processors online (runtime counts " << __KyGetNProcs() << ")\n";
}

}  // namespace

TargetTable::TargetTable(std::initializer_list<Target> targets) {
  RegisteredTargets().insert(RegisteredTargets().end(), targets.begin(), targets.end());
}

}  // namespace kyrt::bench

int main(int argc, char** argv) {
  // The lock families ask the host for thread ids, and their wait rule reads
  // the processor count taken at start-up.
  KyPosixHostInstall();
  __KyRtStartup();

  std::vector<char*> args{argv[0]};
  for (const char* flag : kyrt::bench::kDefaultFlags) args.push_back(const_cast<char*>(flag));
  args.insert(args.end(), argv + 1, argv + argc);
  args.push_back(nullptr);
  int count = static_cast<int>(args.size()) - 1;
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;

  kyrt::bench::PrintMachine(std::cout);
  kyrt::bench::CollectingReporter reporter(isatty(STDOUT_FILENO)
                                               ? benchmark::ConsoleReporter::OO_ColorTabular
                                               : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const char* slash = std::strrchr(argv[0], '/');
  const std::string suite = slash != nullptr ? slash + 1 : argv[0];
  kyrt::bench::PrintRatioTable(std::cout, suite, reporter.measurements());
  benchmark::Shutdown();
  return 0;
}
