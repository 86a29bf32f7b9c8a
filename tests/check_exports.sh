#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that a shared library defines exactly the dynamic symbols listed in a file, by their
# demangled names (C++ members with their parameter types; a constructor's or destructor's
# variants count once); and, when given, that its SONAME is SONAME and that every one of those
# symbols is defined at the version node NODE (the default version, name@@NODE).
# Usage: check_exports.sh LIBRARY EXPECTED_LIST [SONAME NODE]
set -euo pipefail
lib=$1
expected=$2
soname=${3:-}
node=${4:-}
NM=${NM:-nm}
READELF=${READELF:-readelf}
status=0

if [ -n "$soname" ]; then
  actual_soname=$("$READELF" -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')
  if [ "$actual_soname" != "$soname" ]; then
    echo "SONAME of $lib is '$actual_soname', not '$soname'"
    status=1
  fi
fi

# nm prints a versioned symbol as name@@NODE (its default version) or name@NODE (a hidden,
# older one); the node's own definition shows as an absolute symbol named after it.
symbols=$("$NM" -DC --defined-only "$lib" | cut -d' ' -f3- |
  grep -v -E '^(_init|_fini|_edata|_end|__bss_start|__odr_asan\..*)(@.*)?$' |
  { if [ -n "$node" ]; then grep -v -x -F "$node"; else cat; fi; } | sort -u)
if [ -n "$node" ]; then
  unversioned=$(echo "$symbols" | grep -v -F "@@$node" || true)
  if [ -n "$unversioned" ]; then
    echo "symbols of $lib not at the version node $node:"
    echo "$unversioned" | sed 's/^/  /'
    status=1
  fi
  definitions=$("$READELF" -V "$lib")
  if ! grep -q -E "Name: $node\$" <<<"$definitions"; then
    echo "$lib defines no version node $node"
    status=1
  fi
fi
actual=$(echo "$symbols" | sed 's/@.*$//' | sort -u)
want=$(grep -v -E '^\s*(#|$)' "$expected" | sort -u)
if [ "$actual" != "$want" ]; then
  echo "exported symbols of $lib differ from $expected:"
  diff <(echo "$want") <(echo "$actual") | sed -e 's/^</missing:/' -e 's/^>/unexpected:/' | grep -E '^(missing|unexpected):' || true
  status=1
fi
[ $status -eq 0 ] || exit 1
echo "$(echo "$actual" | wc -l) exported symbols, as expected${node:+, all at $node}${soname:+, SONAME $soname}"
