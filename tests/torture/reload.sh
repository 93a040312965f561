# shellcheck shell=bash
# Builds: release asan
# Storms of reloads. A camera is told again and again that its configuration has changed, with a clock that
# does not wait for anything to come (memory/leap_clock.cpp), so that it really reads anew some times a
# second; meanwhile its files are swapped, cut, garbled, taken away and replaced by what is no file. Now and
# then the storm rests, the clock keeps the world's pace, and a good file has to take effect in time, and an
# output whose event has vanished to be off. A sensor camera gets the same for its pictures' settings and
# its overlay image, at the world's pace.
# shellcheck disable=SC2154  # run_trial and the board tests set them

# What the main loop does every three seconds, the pause at a rebuild's end, and what a change needs beside
# them to be seen.
block_ms=3000 pause_ms=2000 beside_ms=1500

leap() { printf '%b' "\\x0$1\\0\\0\\0\\0\\0\\0\\0" | dd of="$board/tmp/clock" bs=8 seek=1 conv=notrunc status=none; }

# of_clock NUMBER: of those in its file, from 0 on.
of_clock() { od -An -td8 -j$(($1 * 8)) -N8 "$board/tmp/clock"; }

# --- what becomes of files --------------------------------------------------------------------------

good_events() {
  printf '[Main]\nMax = 4\n[1]\nErased = 0\nSchedule = always\nSource = 6\nOut1 = 1\nOut1Duration = 3600\n'
  printf '[2]\nErased = 0\nSchedule = always\nSource = 5\nOut2 = 1\nOut2Duration = 3600\n'
  printf '[3]\nErased = 0\nSchedule = always\nSource = 3\nInterval = 2\nUsb = 1\nUsbFolder = storm\n'
  printf '[4]\nErased = 0\nSchedule = often\nSource = 2\nUsb = 1\nBuzzer = 1\n'
}

# clear FILE: whatever stands in its place goes.
clear() {
  if [ -e "$1" ] || [ -L "$1" ]; then rm -rf -- "$1"; fi
}

# spoil FILE...: something happens to one of the files; what they were is in $work/good.
spoil() {
  random 1000000
  "$build/tests/torture/reload/reload_storm" --good "$work/good" --seed "$random" "$@"
}

is_on() { [ "$(head -c 1 "$board/run/camera/io/output$1")" = 1 ]; }
is_off() { ! is_on "$1"; }

# --- storms -----------------------------------------------------------------------------------------

# descriptors: how many the daemon has, without those by which the clock looks at its threads.
descriptors() { find "/proc/$daemon/fd" -type l ! -lname '/proc/*' | wc -l; }

is_taken() { ! camctl status | grep -q 'config-changed *[0-9]*\*'; }

# is_told FLAG: what the camera says of its input, which is the last thing that a rebuild does.
is_told() { [ "$(head -c 1 "$board/run/camera/io/input_used")" = "$1" ]; }

# swap TEXT: a whole file of events in the place of the one that is there.
swap() {
  local file=$board/etc/events.conf
  clear "$file"
  printf '%b' "$1" >"$file.new"
  mv -f -- "$file.new" "$file"
}

# changes COMMAND...: the camera is told to read anew; true iff the command succeeds then. Notes what it took.
changes() {
  local begun
  begun=$(now_ms)
  camctl reload
  flags=$((flags + 1)) reloads=$((reloads + 1))
  await $((20 * slow)) "$@" || return 1
  begun=$(($(now_ms) - begun))
  [ "$begun" -le "$slowest_ms" ] || slowest_ms=$begun
}

# calm: all files are good again, and no event is there. What the storm has left to be done comes first: the
# rebuild that is under way, and one more.
calm() {
  local file
  for file in "${files[@]}"; do
    clear "$file"
    cp -- "$work/good/${file##*/}" "$file"
  done
  swap '[Main]\nMax = 0\n'
  for _ in 1 2; do
    eventually 20 is_taken
    echo 9 >"$board/run/camera/io/input_used"
    camctl reload
    eventually 20 is_told 0
  done
  eventually 20 is_taken
}

# rest: the clock keeps the world's pace. The good events take effect, outputs are on, and are off when their
# events have gone.
rest() {
  calm
  leap 0
  swap "$(good_events)\n"
  changes is_told 1 || fail "a good file does not take effect"
  eventually 10 is_taken
  camctl trigger web1
  camctl trigger web2
  eventually 10 is_on 1
  eventually 10 is_on 2
  swap '[Main]\nMax = 4\n[3]\nErased = 0\nSchedule = always\nSource = 3\nInterval = 2\nUsb = 1\n'
  changes is_off 1 || left_on=$((left_on + 1))
  is_off 2 || left_on=$((left_on + 1))
  eventually 5 is_told 0
  rested=$((rested + 1))
  leap 1
}

# weigh: what the camera has, when nothing is under way: bytes in use, where they are counted, descriptors
# and threads.
weigh() {
  local threads=("/proc/$daemon/task/"*) bytes=0
  [ ! -e "$board/tmp/memory" ] || bytes=$(od -An -td8 -N8 "$board/tmp/memory")
  echo $((bytes)) "$(descriptors)" ${#threads[@]}
}

# rage SECONDS: flags are raised all the time, and files spoilt (reload/main.cpp).
rage() {
  local said
  random 1000000
  said=$("$build/tests/torture/reload/reload_storm" --board "$board" --for "$1" --patience $((20 * slow)) \
    --good "$work/good" --seed "$random" "${files[@]}") || fail "no flag is taken: $said (flags, taken, files)"
  read -ra said <<<"$said"
  flags=$((flags + said[0])) reloads=$((reloads + said[1])) spoilt=$((spoilt + said[2])) raged=$((raged + $1))
  find "$board/usb" -type f -mmin +1 -delete
  if [ "$(stat -c %s "$log")" -gt 4000000 ]; then : >"$log"; fi
}

# storm PRESET SECONDS: a camera of that build.
storm() {
  local preset=$1 begun=$SECONDS end=$((SECONDS + $2)) rested=0 flags=0 reloads=0 spoilt=0 raged=0 slowest_ms=0 left_on=0
  local limit captured before after ahead gap missed left
  use_build "$preset"
  use_board "$preset"
  drivers=$build/tests/torture/memory/libtorture_clock.so
  # The one that counts can't be where a sanitizer does.
  [ "$preset" != release ] || drivers=$build/tests/torture/memory/libtorture_life.so
  printf '[Video]\nResolution = 7\n[Motion1]\nEnable = 1\n[Ftp]\nServer = 127.0.0.1\nPort = 1\n[Mail]\nServer = 127.0.0.1\n' >"$board/etc/camera.conf"
  swap "$(good_events)\n"
  files=("$board/etc/events.conf" "$board/etc/camera.conf" "$board/etc/sys.conf" "$board/etc/schedule.conf")
  mkdir -p "$work/good"
  cp -- "${files[@]}" "$work/good"
  VS_LEAP=1 start_camera
  # All that happens once has happened by then.
  rage 3
  calm
  before=$(weigh)
  for ((left = end - SECONDS; left > 12; left = end - SECONDS)); do
    rage $((left - 12 < 90 ? left - 12 : 90))
    rest
  done
  [ $rested -gt 0 ] || rest
  calm
  after=$(weigh)
  ahead=$(of_clock 0) gap=$(of_clock 3)
  captured=$(slot frame-count)
  missed=$(camctl status | sed -n 's/^ *video .* \([0-9]*\) times none free/\1/p')
  echo "$preset: before $before, after $after"
  stop_daemon
  [ "$status" -eq 0 ] || fail "status $status"
  check_clean
  local tried="$preset: $flags flags in $((SECONDS - begun)) s, for which everything was read anew $reloads times; $spoilt files spoilt, $rested rests"
  read -ra before <<<"$before"
  read -ra after <<<"$after"
  # Each time takes some seconds of the camera's.
  [ "$ahead" -gt $((raged * 500000000)) ] || broken "reload storms" "$tried" "$((ahead / 1000000)) ms ahead of the world: the clock does not leap"
  judge [ $((after[0] - before[0])) -le 4096 ] -- "reload storms" "$tried" "no crash; in use $((after[0] - before[0])) bytes more"
  judge [ "${before[*]:1}" = "${after[*]:1}" ] -- "reload storms: no leak" "$preset" "descriptors ${before[1]} and ${after[1]}, threads ${before[2]} and ${after[2]}"
  judge [ "$gap" -lt 1500000000 ] -- "reload storms: capture never pauses" "$preset: $captured frames" "at most $((gap / 1000000)) ms between two, $missed lost"
  judge [ $left_on -eq 0 ] -- "reload storms: no relay left on" "$preset: $((2 * rested)) outputs whose events vanished" "$left_on left on"
  limit=$((block_ms + pause_ms + beside_ms * slow))
  judge [ $slowest_ms -le $limit ] -- "reload storms: a good file takes effect" "$preset: $((2 * rested)) times" "at most $slowest_ms ms (of $limit)"
}

# --- a sensor camera --------------------------------------------------------------------------------

# What its pictures, overlays and motion windows are set by changes under it, and it is told so.
sensor_storm() {
  local preset=$1 end=$((SECONDS + $2)) turn=0 last=0 now since still_ms=0 flash i size
  use_build "$preset"
  use_board "sensor-$preset"
  start_model B520
  eventually 20 events_are_built
  flash=$board/var/flash/mtdblock2
  files=("$board/etc/camera.conf" "$board/etc/events.conf" "$board/etc/sys.conf")
  mkdir -p "$work/good"
  cp -- "${files[@]}" "$flash" "$work/good"
  size=$(stat -c %s "$flash")
  since=$(now_ms)
  while [ $SECONDS -lt "$end" ] || [ $turn -lt 10 ]; do
    turn=$((turn + 1))
    spoil "${files[@]}"
    if [ $((turn % 3)) -eq 0 ]; then
      spoil "$flash"
    else
      clear "$flash"
      cp "$work/good/mtdblock2" "$flash"
      for i in 1 2 3; do
        # The head more often than the pixels.
        random $((i == 3 ? size : 16))
        head -c 1 /dev/urandom | dd of="$flash" bs=1 seek="$random" conv=notrunc status=none
      done
      random $((size * 2))
      if [ "$random" -lt "$size" ]; then truncate -s "$random" "$flash"; fi
    fi
    camctl set overlay $((turn % 2 + 1))
    camctl set motion-detection $((turn % 4))
    camctl reload
    for i in 1 2; do
      now=$(slot frame-count)
      if [ "$now" != "$last" ]; then since=$(now_ms); fi
      last=$now
      [ $(($(now_ms) - since)) -le $still_ms ] || still_ms=$(($(now_ms) - since))
      sleep 0.1
    done
  done
  clear "$flash"
  cp -- "$work/good/mtdblock2" "$flash"
  camctl set motion-detection 3
  camctl set overlay 2
  calm
  last=$(slot frame-count)
  go_on() { [ "$(slot frame-count)" -gt $((last + 10)) ]; }
  eventually 10 go_on
  stop_daemon
  [ "$status" -eq 0 ] || fail "status $status"
  check_clean
  judge [ $still_ms -lt 1500 ] -- "reload storms: capture never pauses" "$preset, a sensor camera: $turn changes of settings, windows and the overlay image" "$last frames, at most $still_ms ms without one"
}

trial_reload() {
  local time=$1
  storm release $((time * 4 / 10))
  storm asan $((time * 3 / 10))
  if [ "$time" -ge 120 ] || [ $((seed % 2)) -eq 0 ]; then sensor_storm release $((time / 10)); fi
  if [ "$time" -ge 120 ] || [ $((seed % 2)) -eq 1 ]; then sensor_storm asan $((time / 10)); fi
}
