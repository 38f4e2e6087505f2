#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking KYRT
# need, and only those that are missing. The package index is refreshed only
# when something has to be installed.
set -euo pipefail

packages=(
  build-essential   # g++, make
  cmake
  ninja-build
  pkg-config
  binutils          # nm, readelf, c++filt for the export checks
  clang-format      # the formatting check
  googletest        # GoogleTest sources, built with the project's flags
  libxml2-dev       # the tests parse the finished log with a real XML parser
  libbenchmark-dev  # Google Benchmark
  clang             # the fuzz targets (libFuzzer) ...
  libclang-rt-14-dev  # ... and its runtime
  libboost-dev      # Boost.CRC
  libelf-dev        # reading ELF modules (kyrt-zca)
  zlib1g-dev        # benchmark peer: zlib's crc32
  libjemalloc-dev   # benchmark peer
  libmimalloc-dev   # benchmark peer
  libtbb-dev        # benchmark peer: concurrent containers
  python3           # kyheap's tests and demo run real programs under the tool
  heaptrack         # benchmark peer of kyheap
  gnuplot-nox       # the chart of the benchmark report
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "installing missing packages: ${missing[*]}"
run_as_root=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  run_as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${run_as_root[@]}" apt-get update -q
"${run_as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
