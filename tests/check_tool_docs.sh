#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The man page and the bash completion against the tool itself: every command and option the
# tool's own help names must be in the man page and be offered by the completion, and nothing
# the completion offers may be unknown to the tool.
# Usage: check_tool_docs.sh man|completion SOURCE_DIR TOOL [RUNNER...]
# Exit 77 (skipped) when man or bash is not installed.
set -euo pipefail
mode=$1 source=$2
shift 2
tool=("$@")
export TAVIKM_DEVICE_DIR
TAVIKM_DEVICE_DIR=$(mktemp -d)
trap 'rm -rf "$TAVIKM_DEVICE_DIR"' EXIT
failures=0
fail() {
  echo "$*"
  failures=$((failures + 1))
}

commands=$("${tool[@]}" help | sed -n '/^Commands:/,/^$/p' | sed -n 's/^  \([a-z]\+\).*/\1/p')
[ -n "$commands" ] || { echo "no commands in the tool's help"; exit 1; }
# Both names of an option listed as "-q, --batch".
global_options=$("${tool[@]}" help | sed -n '/^Options/,/^$/p' |
  grep -o -E '^  (-[a-z], )?--?[a-z-]+' | tr -d ' ' | tr ',' '\n' | sort -u)
# The options of one command (or kek verb): those of its usage line and of its option list.
options_of() {
  "${tool[@]}" "$@" --help | sed -n -e '1p' -e '/^  --/p' | grep -o -E -- '--[a-z][a-z-]*' |
    sort -u
}
subcommands() {
  if [ "$1" = kek ]; then printf 'kek put\nkek get\nkek delete\n'; else echo "$1"; fi
}

case $mode in
  man)
    command -v man >/dev/null || { echo "skipped: man is not installed"; exit 77; }
    page=$source/tools/tavikm.8
    warnings=$(man --warnings -l "$page" 2>&1 >/dev/null) || fail "man could not render $page"
    [ -z "$warnings" ] || fail "man warns about $page: $warnings"
    # The page's text as a reader sees it, with the hyphens unescaped.
    text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page")
    for c in $commands; do
      # The command's own entry: from the tag line after a .TP to the next .TP or section at
      # the same depth (a group's verbs are entries nested in it).
      entry=$(awk -v c="$c" '
        inside && depth == 0 && /^\.(TP|SH)/ { exit }
        /^\.RS/ { depth++ } /^\.RE/ { depth-- }
        !inside && prev == ".TP" && $0 ~ "^" c "( |$)" { inside = 1; depth = 0 }
        { prev = $0 }
        inside' <<<"$text")
      [ -n "$entry" ] || fail "the man page lacks the command $c"
      # help and version take no options (their --help is the tool's own).
      [ "$c" != help ] && [ "$c" != version ] || continue
      while read -r sub; do
        # shellcheck disable=SC2086
        for o in $(options_of $sub); do
          grep -q -e "$o\b" <<<"$entry" || fail "the man page's entry of $c lacks $o of $sub"
        done
      done < <(subcommands "$c")
    done
    # The tag lines of the OPTIONS section.
    tags=$(sed -n '/^\.SH OPTIONS/,/^\.SH/p' <<<"$text" | sed -n '/^\.TP/{n;p}')
    for o in $global_options; do
      grep -q -e "\(^\|, \)$o\b" <<<"$tags" || fail "the man page lacks the global option $o"
    done
    ;;
  completion)
    command -v bash >/dev/null || { echo "skipped: bash is not installed"; exit 77; }
    script=$source/tools/tavikm.bash-completion
    bash -n "$script" || fail "bash rejects $script"
    # Completes the words given, the last one being completed, with the helpers that
    # bash-completion would provide stubbed (files complete to the word FILE).
    complete_words() {
      bash -c '
        _init_completion() {
          words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
          cur=${words[cword]} prev=${words[cword - 1]}
        }
        _filedir() { COMPREPLY=(FILE); }
        complete() { :; }
        source "$0"
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _tavikm
        printf "%s\n" "${COMPREPLY[@]}" | sort -u
      ' "$script" tavikm "$@"
    }
    expect() {
      local want=$1
      shift
      local got
      got=$(complete_words "$@" | tr '\n' ' ')
      [ "$got" = "$want" ] || fail "completing 'tavikm $*': offered '$got', want '$want'"
    }
    expect "$(echo "$commands" | sort -u | tr '\n' ' ')" ""
    expect "$(echo "$global_options" --version --help | tr ' ' '\n' | sort -u | tr '\n' ' ')" -
    for c in $commands; do
      while read -r sub; do
        # shellcheck disable=SC2086
        want=$( (options_of $sub; echo --help) | sort -u | tr '\n' ' ')
        # shellcheck disable=SC2086
        [ "$c" = help ] || [ "$c" = version ] || expect "$want" $sub --
      done < <(subcommands "$c")
    done
    expect "delete get put " kek ""
    # help takes a command, then a group's verb.
    expect "$(echo "$commands" | sort -u | tr '\n' ' ')" help ""
    expect "delete get put " help kek ""
    # A global option's value is not taken for the command.
    expect "--keysize " --device-dir /tmp setup --keys
    expect "FILE " --prop a=b unlock --password-file ""
    expect "16 32 " kek put x --random --keysize ""
    ;;
  *)
    echo "usage: check_tool_docs.sh man|completion SOURCE_DIR TOOL [RUNNER...]"
    exit 2
    ;;
esac
[ $failures -eq 0 ] || exit 1
echo "$mode: consistent with the tool's help"
