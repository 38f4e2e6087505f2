// Side-by-side ratio reporting for the benchmark suites.
//
// Every benchmark of a suite is named "<family>/<role>". The role "ours", or
// "ours_<variant>", marks the runtime's own implementation; any other role
// names a peer measured under the same conditions, for example
// "spin_uncontended/ours", "spin_uncontended/ours_tid" and
// "spin_uncontended/pthread_spin". Give every benchmark instance its own
// name: the family carries the thread count when it matters
// ("spin_contended_2t/ours").
//
// After the run each ours role of a family is set against each peer of the
// same family, and a table shows both times and their ratio, ours / peer
// (below 1 means ours is faster). Times are real (wall-clock) time per
// operation, so a multi-threaded benchmark compares throughput. With
// repetitions the median is used.
//
// A suite attaches bounds to pairs declaratively, at namespace scope:
//
//   const kyrt::bench::TargetTable kTargets{
//       {"spin_uncontended", "pthread_spin", kyrt::bench::AtMost(1.30)},
//       {"spin_uncontended", "std_mutex", kyrt::bench::Below(1.00)},
//   };
//
// A target applies to every ours role of its family. Pairs without one are
// shown for information.
//
// Linking kyrt_bench_ratio supplies main(): it installs the POSIX host,
// starts the runtime, prints the machine, runs the benchmarks and prints the
// table; when the environment variable KYRT_BENCH_RATIO_FILE names a file,
// it also appends the table's rows to it (tab-separated), from which
// scripts/bench-report.sh builds the report of all suites. Its defaults
// (repetitions, warm-up, minimum time, aggregates-only
// console output) come before the user's arguments, so any flag of the
// benchmark library given on the command line overrides them.
#ifndef KYRT_BENCH_BENCH_RATIO_H
#define KYRT_BENCH_BENCH_RATIO_H

#include <initializer_list>
#include <string>

namespace kyrt::bench {

// The bound a ratio must keep to.
struct Bound {
  enum class Kind { kAtMost, kBelow };
  Kind kind;
  double limit;

  bool isMetBy(double ratio) const {
    return kind == Kind::kAtMost ? ratio <= limit : ratio < limit;
  }
};

// ours / peer <= limit: "no slower than limit times the peer".
inline Bound AtMost(double limit) {
  return Bound{Bound::Kind::kAtMost, limit};
}

// ours / peer < limit: with limit 1, "faster than the peer".
inline Bound Below(double limit) {
  return Bound{Bound::Kind::kBelow, limit};
}

// The bound for the pairs (family/ours*, family/peer).
struct Target {
  std::string family;
  std::string peer;
  Bound bound;
};

// Registers its targets when constructed; define one per suite at namespace
// scope (static initialisation runs before main()).
class TargetTable {
 public:
  TargetTable(std::initializer_list<Target> targets);
};

}  // namespace kyrt::bench

#endif  // KYRT_BENCH_BENCH_RATIO_H
