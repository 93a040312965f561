# shellcheck shell=bash
# Bytes from elsewhere: every reader of them, driven by a fuzzer that looks for inputs which reach new
# code. tests/fuzz holds the targets and what was found interesting so far.
# Builds: fuzz
# shellcheck disable=SC2154  # run_trial sets them

promise="input: no bytes from elsewhere do harm"

# Those of which a run takes long, or that have the most ways to go, get so many parts of the time.
declare -A parts=([avi_writer]=3 [devices]=3 [events]=4 [ini_content]=2 [recorders]=3 [repair]=3
  [segment]=4 [segment_owner]=3 [settings]=3)

# fuzz TARGET SECONDS: adds up what came of it.
fuzz() {
  local target=$1 log=$work/$1.log corpus=$work/corpus/$1 options=() line status=0 units
  mkdir -p "$corpus"
  [ ! -e "$root/tests/fuzz/$target.dict" ] || options+=("-dict=$root/tests/fuzz/$target.dict")
  # What is new goes into the first folder. Leaks are looked for at the end, not after each input.
  ASAN_OPTIONS=quarantine_size_mb=4:malloc_context_size=3 \
    "$build/tests/fuzz/fuzz_$target" -max_total_time="$2" -seed=$((seed + 1)) -max_len=4096 \
    -timeout=60 -rss_limit_mb=1024 -detect_leaks=0 -print_final_stats=1 \
    -artifact_prefix="$work/$target-" "${options[@]}" "$corpus" "$root/tests/fuzz/corpus/$target" \
    >"$log" 2>&1 || status=$?
  units=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  runs=$((runs + ${units:-0}))
  line=$(grep -oE 'INITED +cov: [0-9]+' "$log" | grep -oE '[0-9]+$') && known=$((known + line))
  line=$(grep -oE ' cov: [0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+$') && reached=$((reached + line))
  printf '%-16s %10d runs in %d s, %s\n' "$target" "${units:-0}" "$2" \
    "$(grep -oE 'cov: [0-9]+ ft: [0-9]+ corp: [^ ]+' "$log" | tail -n 1)"
  if [ $status -ne 0 ]; then
    grep -vE '^#|NEW_FUNC' "$log" | tail -n 60
    found=$((found + 1))
    broken "$promise" "tests/fuzz/$target.cpp with seed $((seed + 1))" \
      "$(grep -m 1 -E 'broken promise|ERROR|runtime error' "$log" || echo "status $status")"
    sed -n 's/^Base64: /as Base64: /p' "$log"
  fi
}

trial_input() {
  local target total=0 began=$SECONDS targets=() runs=0 known=0 reached=0 found=0 left
  for target in "$root"/tests/fuzz/corpus/*/; do
    target=$(basename "$target")
    targets+=("$target")
    total=$((total + ${parts[$target]:-1}))
  done
  # A busy machine delays each by the time that reading its corpus takes; the last ones then get less.
  for target in "${targets[@]}"; do
    left=$(($1 - (SECONDS - began)))
    [ $left -gt 0 ] || left=1
    fuzz "$target" $((left * ${parts[$target]:-1} / total > 0 ? left * ${parts[$target]:-1} / total : 1))
    total=$((total - ${parts[$target]:-1}))
  done
  [ -z "${VS_FUZZ_KEEP:-}" ] || cp -r "$work/corpus/." "$VS_FUZZ_KEEP"
  local time=$((SECONDS - began))
  judge [ $found -eq 0 ] -- "$promise" \
    "${#targets[@]} targets in $time s, one after the other" \
    "$runs runs, $((runs / (time > 0 ? time : 1))) a second, $found findings; $((reached - known)) places in the code more than the $known of the corpora"
}
