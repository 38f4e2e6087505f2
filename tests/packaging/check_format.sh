#!/usr/bin/env bash
# Fails when a C or C++ source of the project is not formatted as the
# checked-in .clang-format says (run `make format` to fix).
# Usage: check_format.sh SOURCE_DIR
set -euo pipefail
cd "$1"
mapfile -t sources < <(git ls-files '*.c' '*.cpp' '*.h' 2>/dev/null ||
  find . -path ./build -prune -o \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) -print)
clang-format --dry-run --Werror "${sources[@]}"
echo "${#sources[@]} sources formatted"
