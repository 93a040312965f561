# shellcheck shell=bash
# Building; sourced by scripts that stand in the project's folder.

# build_preset PRESET [TARGET...]: configures build/PRESET and builds the targets there, by default all.
# Silent as long as it goes well; otherwise shows the end of the build's output and returns non-zero.
build_preset() {
  local preset=$1 log targets=()
  shift
  [ $# -eq 0 ] || targets=(--target "$@")
  log=$(mktemp)
  if { cmake --preset "$preset" && cmake --build "build/$preset" "${targets[@]}"; } >"$log" 2>&1; then
    rm -f -- "$log"
    return 0
  fi
  tail -n 40 -- "$log"
  rm -f -- "$log"
  echo "build/$preset can't be built" >&2
  return 1
}
