#!/usr/bin/env bash
# Runs every benchmark suite (Release build, preset "bench") and writes the
# report of all of them: docs/performance.md, with one table per suite of
# ours against each peer, the ratio, the target and whether it is met, and
# the chart docs/performance.png of the ratios that have a target.
#
# Each suite runs with the settings of bench/bench_ratio.cpp (warm-up, nine
# repetitions in random interleaving, median); sizes and seeds are fixed in
# the suites themselves.
#   KYRT_BENCH_FILTER  a regular expression: run only the matching benchmarks
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

cmake --preset bench >/dev/null
cmake --build --preset bench

work=$(mktemp -d "${TMPDIR:-/tmp}/kyrt-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
ratios=$work/ratios.tsv
: >"$ratios"

{
  echo "started=$(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu=$(grep -m1 'model name' /proc/cpuinfo | sed 's/^[^:]*: *//')"
  echo "processors=$(nproc)"
  echo "memory=$(awk '/MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)"
  echo "kernel=$(uname -sr)"
  echo "compiler=$(c++ --version | head -n 1)"
  echo "load=$(cut -d ' ' -f 1-3 /proc/loadavg)"
  echo "commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
} >"$work/machine.txt"

filter=()
[[ -n ${KYRT_BENCH_FILTER:-} ]] && filter=(--benchmark_filter="$KYRT_BENCH_FILTER")
for suite in build/bench/bench/kyrt_*_bench; do
  echo "==== $suite"
  # Suites that start programs or write logs do so in a scratch directory.
  (cd "$work" && KYRT_BENCH_RATIO_FILE=$ratios "$root/$suite" "${filter[@]}")
done
echo "load_after=$(cut -d ' ' -f 1-3 /proc/loadavg)" >>"$work/machine.txt"

python3 scripts/bench_report.py "$work/machine.txt" "$ratios" docs/performance.md \
  "$work/chart.dat"
gnuplot -e "data='$work/chart.dat'; output='docs/performance.png'" scripts/bench_chart.gp
echo "wrote docs/performance.md and docs/performance.png"
