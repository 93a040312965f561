#!/bin/sh
# check_model.sh SPIN CC MODEL EXPECTED [DEFINE...]: checks MODEL in every interleaving.
# EXPECTED: 0, or 1 when the checker must find an error. Ends with 0 iff it was as expected.
set -eu
spin=$1 cc=$2 model=$3 expected=$4
shift 4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$spin" -a "$@" "$model" >spin.log 2>&1 || { cat spin.log; exit 2; }
"$cc" -O2 -w -DSAFETY -DMEMLIM=2048 -DCOLLAPSE -o pan pan.c
./pan -m1000000 >pan.log || true
errors=$(sed -n 's/.*errors: \([0-9]*\)$/\1/p' pan.log)
cat pan.log
if grep -q 'max search depth too small\|out of memory\|MEMLIM' pan.log; then exit 2; fi
[ "${errors:-none}" = "$expected" ]
