#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that a shared library defines exactly the dynamic symbols listed in a file, by their
# demangled names (C++ members with their parameter types; a constructor's or destructor's
# variants count once).
# Usage: check_exports.sh LIBRARY EXPECTED_LIST
set -euo pipefail
lib=$1
expected=$2
NM=${NM:-nm}
actual=$("$NM" -DC --defined-only "$lib" | cut -d' ' -f3- | grep -v -E '^(_init|_fini|_edata|_end|__bss_start|__odr_asan\..*)$' | sort -u)
want=$(grep -v -E '^\s*(#|$)' "$expected" | sort -u)
if [ "$actual" != "$want" ]; then
  echo "exported symbols of $lib differ from $expected:"
  diff <(echo "$want") <(echo "$actual") | sed -e 's/^</missing:/' -e 's/^>/unexpected:/' | grep -E '^(missing|unexpected):' || true
  exit 1
fi
echo "$(echo "$actual" | wc -l) exported symbols, as expected"
