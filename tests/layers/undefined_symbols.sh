#!/usr/bin/env bash
# Shows that the daemon stands on the standard library, POSIX and the platform's declarations alone:
# whatever its archives leave undefined is defined by the C or C++ library, or by both
# implementations of the platform, the one on Linux and the tests' fake. (A name that only one of
# them has is not the platform's: it is that implementation's own.)
#
#   undefined_symbols.sh CXX ARCHIVE... -- LINUX_OBJECT... -- FAKE_OBJECT...
set -euo pipefail
export LC_ALL=C

cxx=$1
shift
archives=() linux=() fake=()
group=archives
for argument; do
  case $group:$argument in
    archives:--) group=linux ;;
    linux:--) group=fake ;;
    archives:*) archives+=("$argument") ;;
    linux:*) linux+=("$argument") ;;
    fake:*) fake+=("$argument") ;;
  esac
done

defined() { nm --defined-only "$@" 2>/dev/null | awk 'NF == 3 {print $3}' | sort -u; }
undefined() { nm --undefined-only "$@" 2>/dev/null | awk 'NF == 2 {print $2}' | sort -u; }
exported() { nm -D --defined-only "$1" | awk '{print $NF}' | sed 's/@.*//' | sort -u; }

libraries=$(for name in libc.so.6 libm.so.6 libstdc++.so.6 libgcc_s.so.1; do
  exported "$("$cxx" -print-file-name="$name")"
done | sort -u)
platform=$(comm -12 <(defined "${linux[@]}") <(defined "${fake[@]}"))
own=$(defined "${archives[@]}")
allowed=$({ echo "$libraries"; echo "$platform"; echo "$own"; echo _GLOBAL_OFFSET_TABLE_; \
  echo __dso_handle; echo __tls_get_addr; } | sort -u)

foreign=$(comm -23 <(undefined "${archives[@]}") <(echo "$allowed") | c++filt)
if [ -n "$foreign" ]; then
  echo "the daemon uses names that are not the platform's:"
  echo "$foreign"
  exit 1
fi
echo "$(echo "$own" | wc -l) names defined by the daemon, none foreign"
