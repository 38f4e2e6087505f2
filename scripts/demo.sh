#!/usr/bin/env bash
# kyheap demonstration: builds the default preset, profiles the bundled
# workload (taking a snapshot through the command channel with kyrtctl while
# it runs), a Python script and a shell pipeline around sort, and prints
# the summaries of the reports.
#
# KYHEAP_DEMO_BUILD_DIR=DIR uses an existing build tree instead of building
# the default preset.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
if [[ -n ${KYHEAP_DEMO_BUILD_DIR:-} ]]; then
  build=$KYHEAP_DEMO_BUILD_DIR
else
  cmake --preset default >/dev/null
  # Only what the demo runs: the tool, its launcher, the workload, kyrtctl.
  cmake --build --preset default --target kyheap kyheap_tool heap_workload kyrtctl
  build=$root/build/default
fi
kyheap=$build/tools/kyheap/kyheap
kyrtctl=$build/tools/kyrtctl/kyrtctl
workload=$build/examples/heap_workload
snapshot_code=1

work=$(mktemp -d "${TMPDIR:-/tmp}/kyheap-demo-XXXXXX")
workload_pid=
cleanup() {
  exec 3>&- 2>/dev/null || true
  if [[ -n $workload_pid ]]; then kill "$workload_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"

# Waits up to 20 seconds for a file to contain a text.
wait_for() {
  local file=$1 text=$2
  for _ in $(seq 200); do
    grep -qF -- "$text" "$file" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "demo: gave up waiting for '$text' in $file" >&2
  return 1
}

banner() {
  printf '\n==== %s\n' "$*"
}

banner "the bundled workload, with a snapshot taken through kyrtctl after its first phase"
mkfifo steer
"$kyheap" -out workload.xml -- "$workload" --threads 4 --iterations 50000 --phases 2 --wait \
  --count <steer >workload.out &
workload_pid=$!
exec 3>steer
wait_for workload.out "phase 1 done"
"$kyrtctl" send "$snapshot_code" --payload "$work/workload-snapshot.xml"
wait_for workload-snapshot.xml "</kyheap>"
echo >&3
exec 3>&-
wait "$workload_pid"
workload_pid=
cat workload.out
banner "snapshot after phase 1"
"$kyheap" report workload-snapshot.xml
banner "at exit"
"$kyheap" report workload.xml

banner "python3 building and serialising a table"
"$kyheap" -out python.xml -- python3 -c '
import json
rows = [{"id": i, "name": "row-%d" % i, "tags": ["t%d" % (i % 7)] * 3} for i in range(200000)]
text = json.dumps(rows)
print("json characters:", len(text), "rows back:", len(json.loads(text)))
'
"$kyheap" report python.xml

banner "sh -c with a pipeline around sort"
seq 1 300000 | awk '{ print ($1 * 7919) % 300007 }' >numbers.txt
"$kyheap" -out pipeline.xml -- sh -c 'sort -n numbers.txt | uniq | tail -n 3'
"$kyheap" report pipeline.xml
for report in pipeline.*.xml; do
  echo "-- $report: $(grep -o "program='[^']*'" "$report")"
done
