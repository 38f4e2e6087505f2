#!/usr/bin/env bash
# Builds and runs the whole test suite three times: normally, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and (the concurrency cases)
# under ThreadSanitizer; then runs every fuzz target for a bounded time
# (scripts/run-fuzzers.sh). Ends with one summary line per stage and fails
# if any stage failed.
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
stages=(default asan tsan)
declare -A summary=()
status=0

for stage in "${stages[@]}"; do
  echo "==== $stage: configure and build"
  if ! cmake --preset "$stage" >/dev/null || ! cmake --build --preset "$stage"; then
    summary[$stage]="build failed"
    status=1
    continue
  fi
  echo "==== $stage: test"
  log=build/$stage/ctest.log
  ctest --preset "$stage" --parallel "$jobs" 2>&1 | tee "$log"
  result=${PIPESTATUS[0]}
  summary[$stage]=$(grep -E 'tests passed|No tests were found' "$log" | tail -n 1)
  [[ -n ${summary[$stage]} ]] || summary[$stage]="no summary (ctest exit $result)"
  ((result == 0)) || status=1
done

echo "==== fuzz: bounded runs"
if scripts/run-fuzzers.sh 2>&1 | tee build/fuzz.log; then
  summary[fuzz]="$(grep -c '^==== fuzz ' build/fuzz.log) targets ran clean"
else
  summary[fuzz]="FAILED (see above)"
  status=1
fi

echo
echo "==== KYRT test summary"
for stage in "${stages[@]}" fuzz; do
  printf '%-8s %s\n' "$stage" "${summary[$stage]}"
done
if ((status == 0)); then echo "all stages passed"; else echo "SOME STAGES FAILED"; fi
exit $status
