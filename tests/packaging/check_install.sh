#!/usr/bin/env bash
# Installs the built tree into a temporary prefix and builds two tiny tools
# against it, out of tree: one with CMake's find_package(kyrt), one in C with
# pkg-config alone. Both must build, run and report success.
# Usage: check_install.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build_dir=$1
consumer_source=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/kyrt-install-XXXXXX")
trap 'rm -rf "$work"' EXIT

prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

library=$(find "$prefix" -name 'libkyrt.so.*.*' | head -n 1)
soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == libkyrt.so.0 ]] || { echo "unexpected SONAME '$soname'"; exit 1; }
for header in kyrt.h export.h runtime.h spin_lock.h shared_exclusive_lock.h \
              system_information.h posix_host.h; do
  [[ -f $prefix/include/kyrt/$header ]] || { echo "header $header not installed"; exit 1; }
done

echo "== find_package(kyrt)"
cmake -S "$consumer_source" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/cxx_consumer"
"$work/consumer/c_consumer"

echo "== pkg-config"
pcdir=$(dirname "$(find "$prefix" -name kyrt.pc | head -n 1)")
export PKG_CONFIG_PATH=$pcdir
libdir=$(pkg-config --variable=libdir kyrt)
cc -std=c11 -Wall -Wextra -Werror -pedantic "$consumer_source/c_consumer.c" \
  $(pkg-config --cflags --libs kyrt-posix-host) -o "$work/c_consumer_pc"
LD_LIBRARY_PATH=$libdir "$work/c_consumer_pc"
echo "install check passed"
