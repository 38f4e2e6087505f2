#!/usr/bin/env bash
# Installs the built tree into a temporary prefix and builds kyheap out of
# tree against it, twice: with CMake's find_package(kyrt) (the tool's own
# CMakeLists.txt) and with pkg-config alone. Each build must profile the
# workload and write a report; the installed kyheap must too.
# Usage: kyheap_install_check.sh BUILD_DIR KYHEAP_SOURCE_DIR WORKLOAD
set -euo pipefail
build_dir=$1
source_dir=$2
workload=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/kyheap-install-XXXXXX")
trap 'rm -rf "$work"' EXIT

prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

# Runs LAUNCHER on the workload in a fresh directory and checks the report.
profile() {
  local launcher=$1 name=$2
  local run=$work/run-$name
  mkdir -p "$run"
  (cd "$run" && "$launcher" -out report.xml -- "$workload" --threads 2 --iterations 500 >/dev/null)
  grep -q "<kyheap version='1'" "$run/report.xml" || { echo "$name: no report"; exit 1; }
  grep -q "workload::LeakOnPurpose" "$run/report.xml" || { echo "$name: leak site missing"; exit 1; }
  [[ ! -e $run/tsqcmds.dat ]] || { echo "$name: command channel left behind"; exit 1; }
  echo "$name: report written"
}

echo "== installed kyheap"
profile "$prefix/bin/kyheap" installed

echo "== find_package(kyrt)"
cmake -S "$source_dir" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" --target kyheap kyheap_tool >/dev/null
profile "$work/cmake-build/kyheap" find-package

echo "== pkg-config"
pcdir=$(dirname "$(find "$prefix" -name kyrt.pc | head -n 1)")
export PKG_CONFIG_PATH=$pcdir
libdir=$(pkg-config --variable=libdir kyrt)
out=$work/pkg-config-build
mkdir -p "$out"
flags=(-std=c++17 -O2 -fno-omit-frame-pointer -Wall -Wextra -Werror -I"$source_dir")
tool_sources=(interposer heap_tool heap_recorder call_sites size_classes stack_walk symbolizer
              report_writer command_channel host_hooks tool_log tool_memory heap_options
              report_paths)
tool_files=()
for name in "${tool_sources[@]}"; do tool_files+=("$source_dir/$name.cpp"); done
g++ "${flags[@]}" -shared -fPIC -fvisibility=hidden "${tool_files[@]}" \
  -Wl,--version-script="$source_dir/kyheap.map" -Wl,--no-undefined -Wl,-rpath,"$libdir" \
  $(pkg-config --cflags --libs kyrt-posix-host) -ldl -o "$out/libkyheap.so"
g++ "${flags[@]}" "$source_dir/launcher_main.cpp" "$source_dir/heap_options.cpp" \
  "$source_dir/heap_report.cpp" "$source_dir/xml_reader.cpp" "$source_dir/report_paths.cpp" \
  -Wl,-rpath,"$libdir" $(pkg-config --cflags --libs kyrt-posix-host) -o "$out/kyheap"
exports=$(nm -D --defined-only "$out/libkyheap.so" | awk '{print $3}' | LC_ALL=C sort | tr '\n' ' ')
[[ $exports == "_Exit _exit aligned_alloc calloc free malloc malloc_usable_size memalign posix_memalign pvalloc realloc reallocarray valloc " ]] ||
  { echo "unexpected exports: $exports"; exit 1; }
profile "$out/kyheap" pkg-config
echo "kyheap install check passed"
