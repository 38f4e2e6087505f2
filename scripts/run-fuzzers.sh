#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, ASan + UBSan) and runs
# each for a bounded time, starting from its checked-in seed corpus. New
# inputs go to a scratch copy, never into the repository. Fails when a target
# finds a crash, a leak, undefined behaviour or a time-out.
#   KYRT_FUZZ_SECONDS  seconds per target (default 30)
#   KYRT_FUZZ_RUNS     or a fixed number of executions per target instead
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${KYRT_FUZZ_SECONDS:-30}

cmake --preset fuzz >/dev/null && cmake --build --preset fuzz || exit 1

shopt -s nullglob
targets=(build/fuzz/fuzz/*_fuzzer)
if ((${#targets[@]} == 0)); then
  echo "fuzz: no targets"
  exit 0
fi

status=0
for target in "${targets[@]}"; do
  name=$(basename "$target")
  name=${name%_fuzzer}
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/kyrt-fuzz-$name-XXXXXX")
  mkdir -p "$scratch/corpus"
  [[ -d $root/fuzz/corpus/$name ]] && cp -r "$root/fuzz/corpus/$name/." "$scratch/corpus/"
  limit=(-max_total_time="$seconds")
  [[ -n ${KYRT_FUZZ_RUNS:-} ]] && limit=(-runs="$KYRT_FUZZ_RUNS")
  echo "==== fuzz $name (${limit[*]})"
  # The runtime writes its log into the working directory: run in scratch.
  if (cd "$scratch" && "$root/$target" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$scratch/" corpus) >"$scratch/output.txt" 2>&1; then
    grep -E '^(stat::number_of_executed_units|Done)' "$scratch/output.txt" | tail -n 2
    rm -rf "$scratch"
  else
    echo "fuzz $name FAILED; output and artifacts kept in $scratch:"
    tail -n 40 "$scratch/output.txt"
    status=1
  fi
done
exit $status
