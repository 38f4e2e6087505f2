#!/usr/bin/env bash
# Compares the dynamic symbol table of libkyrt.so with the checked-in export
# lists (every *.txt file of a folder, or one file): every listed name must
# be exported, and nothing else may be.
# Usage: check_exports.sh LIBRARY EXPORT_LIST_FOLDER_OR_FILE
set -euo pipefail
library=$1
if [[ -d $2 ]]; then
  list=$(mktemp)
  trap 'rm -f "$list"' EXIT
  cat "$2"/*.txt >"$list"
else
  list=$2
fi

# Defined dynamic symbols; ELF versioning suffixes (@@VER) stripped. Symbols
# that a sanitizer adds to an instrumented build (ODR indicators and the
# like) are not the library's own and are left out.
sanitizer_symbols='^(__odr_asan[._]|__asan_|__tsan_|__ubsan_|__sanitizer_)'
mapfile -t exported < <(nm -D --defined-only "$library" | awk 'NF >= 3 {print $3}' | sed 's/@.*//' \
  | grep -v -E "$sanitizer_symbols" | sort -u)
mapfile -t c_names < <(grep -v -E '^\s*(#|$)' "$list" | grep -v -E '^c\+\+ ' | sed 's/\s*$//' | sort -u)
mapfile -t cxx_prefixes < <(grep -E '^c\+\+ ' "$list" | sed -e 's/^c++ //' -e 's/\s*$//')

status=0
declare -A is_exported=() cxx_hits=()
for name in "${exported[@]}"; do is_exported[$name]=1; done

for name in "${c_names[@]}"; do
  if [[ -z ${is_exported[$name]+x} ]]; then
    echo "MISSING: $name is listed but not exported"
    status=1
  fi
done

declare -A is_listed=()
for name in "${c_names[@]}"; do is_listed[$name]=1; done

for name in "${exported[@]}"; do
  [[ -n ${is_listed[$name]+x} ]] && continue
  if [[ $name == _Z* ]]; then
    demangled=$(c++filt "$name")
    bare=$(sed -E 's/^(vtable for |typeinfo for |typeinfo name for |VTT for |construction vtable for )//' <<<"$demangled")
    matched=0
    for prefix in "${cxx_prefixes[@]}"; do
      if [[ $bare == "$prefix"* ]]; then
        cxx_hits[$prefix]=1
        matched=1
        break
      fi
    done
    if ((matched)); then continue; fi
    echo "EXTRA: $name ($demangled) is exported but not listed"
  else
    echo "EXTRA: $name is exported but not listed"
  fi
  status=1
done

for prefix in "${cxx_prefixes[@]}"; do
  if [[ -z ${cxx_hits[$prefix]+x} ]]; then
    echo "MISSING: no exported C++ symbol matches '$prefix'"
    status=1
  fi
done

if ((status == 0)); then
  echo "exports match: ${#c_names[@]} C names, ${#cxx_prefixes[@]} C++ families, ${#exported[@]} symbols"
fi
exit $status
