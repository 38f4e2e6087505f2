#!/usr/bin/env bash
# Builds the long stress run (tests/stress) twice, under ThreadSanitizer and
# without sanitizers, and runs each once from a scratch directory (the run
# writes kylog.log and the command channel's lock file there). Fails unless
# both runs exit 0 and ThreadSanitizer reports nothing.
#   KYRT_STRESS_SECONDS    seconds per run (default 120)
#   KYRT_STRESS_PLAIN_DIR  build directory of the plain build (default build/stress)
#   KYRT_STRESS_TSAN_DIR   build directory of the TSan build (default build/stress-tsan)
#   KYRT_STRESS_JOBS       parallel build jobs (default 2)
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${KYRT_STRESS_SECONDS:-120}
plain_dir=${KYRT_STRESS_PLAIN_DIR:-build/stress}
tsan_dir=${KYRT_STRESS_TSAN_DIR:-build/stress-tsan}
jobs=${KYRT_STRESS_JOBS:-2}
common=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKYRT_BUILD_EXAMPLES=OFF
        -DKYRT_BUILD_BENCHMARKS=OFF -DKYRT_BUILD_TOOLS=OFF)

build() {
  local dir=$1
  shift
  cmake -S "$root" -B "$dir" "${common[@]}" "$@" >/dev/null &&
    cmake --build "$dir" -j "$jobs" --target kyrt_stress
}

# run <name> <build dir> [environment...]: one run in a fresh scratch
# directory, removed afterwards unless the run failed.
run() {
  local name=$1 dir=$2
  shift 2
  local scratch
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/kyrt-stress-$name-XXXXXX")
  echo "==== stress $name: $seconds s"
  if (cd "$scratch" && env "$@" KYRT_STRESS_SECONDS="$seconds" "$root/$dir/tests/stress/kyrt_stress") \
       >"$scratch/output.txt" 2>&1 &&
     ! grep -q 'WARNING: ThreadSanitizer' "$scratch/output.txt"; then
    cat "$scratch/output.txt"
    rm -rf "$scratch"
    return 0
  fi
  echo "stress $name FAILED; output kept in $scratch:"
  tail -n 60 "$scratch/output.txt"
  return 1
}

status=0
build "$plain_dir" -DKYRT_SANITIZE= || exit 1
build "$tsan_dir" -DKYRT_SANITIZE=thread || exit 1
run plain "$plain_dir" || status=1
run tsan "$tsan_dir" TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" || status=1
exit $status
