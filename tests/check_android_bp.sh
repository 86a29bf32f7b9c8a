#!/usr/bin/env bash
# Checks that the srcs of one module in an Android.bp are exactly the files of a source list
# (one path per line), so the device build cannot drift from the CMake build. Every srcs list of
# the module counts (top level and arch- or target-specific ones), in any order; a path under
# platform/ is refused outright: the host platform never goes into a device build.
# Usage: check_android_bp.sh ANDROID_BP MODULE_NAME SOURCE_LIST
set -euo pipefail
bp=$1
module=$2
list=$3

# Blueprint is a small language: modules are `type { key: value, ... }` with strings, lists and
# nested maps. This walks it character by character, keeping the nesting depth, and prints the
# strings of every `srcs: [...]` inside the module whose top-level name is MODULE_NAME.
bp_srcs=$(awk -v want="$module" '
  { line = $0; sub(/\/\/.*$/, "", line); text = text line "\n" }
  END {
    n = length(text); depth = 0; key = ""; srcs_depth = 0; count = 0; name = ""; found = 0
    i = 1
    while (i <= n) {
      c = substr(text, i, 1)
      if (c == "\"") {
        j = i + 1
        while (j <= n && substr(text, j, 1) != "\"") j++
        s = substr(text, i + 1, j - i - 1)
        i = j + 1
        if (depth == 1 && key == "name") name = s
        if (srcs_depth > 0) collected[++count] = s
        key = ""
        continue
      }
      if (c ~ /[A-Za-z_]/) {
        j = i
        while (j <= n && substr(text, j, 1) ~ /[A-Za-z0-9_.@-]/) j++
        word = substr(text, i, j - i)
        i = j
        while (i <= n && substr(text, i, 1) ~ /[ \t\n]/) i++
        if (substr(text, i, 1) == ":") { key = word; i++ }
        continue
      }
      if (c == "{" || c == "[") {
        if (depth == 0) { name = ""; count = 0 }
        depth++
        if (c == "[" && key == "srcs" && srcs_depth == 0) srcs_depth = depth
        key = ""
      } else if (c == "}" || c == "]") {
        if (srcs_depth == depth) srcs_depth = 0
        depth--
        if (depth == 0 && name == want) {
          found = 1
          for (k = 1; k <= count; k++) print collected[k]
        }
      }
      i++
    }
    if (!found) exit 3
  }' "$bp") || {
  echo "$bp: no module named $module"
  exit 1
}

want=$(grep -v '^\s*$' "$list" | sort)
have=$(printf '%s\n' "$bp_srcs" | grep -v '^\s*$' | sort || true)
status=0
if printf '%s\n' "$have" | grep -q '^platform/'; then
  echo "$bp: $module lists host platform sources:"
  printf '%s\n' "$have" | grep '^platform/'
  status=1
fi
if [ "$have" != "$want" ]; then
  echo "$bp: srcs of $module differ from the CMake source list:"
  diff <(printf '%s\n' "$want") <(printf '%s\n' "$have") |
    sed -n -e 's/^< /  missing from Android.bp: /p' -e 's/^> /  not a library source: /p'
  status=1
fi
[ "$status" -eq 0 ] && echo "$module: $(printf '%s\n' "$have" | wc -l) sources, as in CMake"
exit "$status"
