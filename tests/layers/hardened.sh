#!/usr/bin/env bash
# Shows that programs of a camera are built as distributions build theirs: a program that is placed
# anywhere, tables that are read-only before it begins, a guard on the stack, checked calls of the C
# library, and no memory that can be both written and run.
#
#   hardened.sh FILE...
set -euo pipefail
export LC_ALL=C

bad=0
# check FILE WHAT COMMAND...: the command is to succeed.
check() {
  local file=$1 what=$2
  shift 2
  if ! "$@"; then
    echo "$file: $what"
    bad=1
  fi
}
says() { grep -qE -- "$1" <<<"$2"; }
lacks() { ! says "$@"; }

for file; do
  head=$(readelf -hlW "$file") dynamic=$(readelf -dW "$file") symbols=$(readelf -W --dyn-syms "$file")
  check "$file" "has a fixed place (no PIE)" says '^ *Type: +DYN ' "$head"
  check "$file" "has a fixed place (no PIE)" says 'FLAGS_1.* PIE' "$dynamic"
  check "$file" "tables can be written (no RELRO)" says '^ *GNU_RELRO ' "$head"
  check "$file" "functions are looked up later (no BIND_NOW)" says 'FLAGS.*(BIND_NOW| NOW)' "$dynamic"
  check "$file" "the stack is not declared (no GNU_STACK)" says '^ *GNU_STACK ' "$head"
  check "$file" "its stack can be run" lacks '^ *GNU_STACK .* RWE ' "$head"
  check "$file" "a part of it can be both written and run" lacks '^ *LOAD .* RWE ' "$head"
  check "$file" "code is changed when it is loaded (TEXTREL)" lacks 'TEXTREL' "$dynamic"
  check "$file" "looks for libraries elsewhere (RPATH)" lacks '\((RPATH|RUNPATH)\)' "$dynamic"
  check "$file" "has no guard on the stack" says ' __stack_chk_fail[@ ]' "$symbols"
  check "$file" "has no checked calls (fortify)" says ' __[a-z_]+_chk[@ ]' "$symbols"
done
[ $bad -eq 0 ] || exit 1
echo "$# programs, all hardened"
