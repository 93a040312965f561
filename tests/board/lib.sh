# shellcheck shell=bash
# What the board tests share: a board, a daemon in it, and waiting for what it does.
# Sourced by run_case, which sets $root and $build.

# Sanitized builds are slower; limits that are no promise of the daemon are stretched.
slow=1
if grep -q '^VS_SANITIZE:[A-Z]*=.' "$build/CMakeCache.txt"; then slow=4; fi

usb=disk  # what start_daemon plugs in: see board/enter --usb
smb=none  # what is mounted at /smb: see board/enter --smb
drivers=''  # the library that the daemon has in the place of the kernel's drivers
load=''  # a library that the daemon has besides
boxes=()  # processes to be ended with the test

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

skip() {
  echo "skipped: $*"
  exit 77
}

# once_is_enough: for tests that would show nothing new under a sanitizer, and take their time.
once_is_enough() { [ "$slow" -eq 1 ] || skip "in the release build alone"; }

set_up() {
  work=$(mktemp -d /tmp/video_svr-test.XXXXXX)
  export XDG_RUNTIME_DIR=$work/runtime  # so that the registry is this test's own
  mkdir "$XDG_RUNTIME_DIR"
  board=$work/camera
  log=$board/var/log/camera/daemon.log
  events=$board/var/log/camera/events.log
  picture=$board/home/test.jpg
  "$root/board/make" "$board"
  : >"$log"
}

# tear_down: ends what still runs, and no number of what has ended: somebody else may have that by now.
tear_down() {
  local status=$? one pid
  trap - EXIT
  set +e
  if [ $status -ne 0 ] && [ $status -ne 77 ]; then
    see_daemon
    echo "--- log of the daemon, which $daemon_state"
    tail -n 40 "$log"
    echo "--- event log"
    tail -n 20 "$events" 2>/dev/null
    sanitizer_reports | head -n 60
  fi
  for one in "$work"/*/.board; do
    for pid in "${one%/.board}"/run/*.pid; do
      [ -e "$pid" ] && is_ours "$(cat "$pid")" && kill -KILL "$(cat "$pid")" 2>/dev/null
    done
  done
  for one in "${boxes[@]}"; do if is_child "$one"; then kill -KILL "$one"; fi; done
  wait 2>/dev/null
  for one in "$work"/*/.board; do
    [ -z "${VS_COVERAGE:-}" ] || keep_counts "${one%/.board}/var/log/camera/counts$build"
    "$root/board/remove" "${one%/.board}"
  done
  chmod -R u+w "$work"
  rm -rf -- "$work"
  exit $status
}

# is_ours PID: true iff that is a process of this test. On a busy machine the number of one that has ended is
# another's after some minutes, of another test perhaps.
is_ours() { grep -qzxF "XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR" "/proc/$1/environ" 2>/dev/null; }

# is_child PID: true iff that is a process of this shell's own; in a pipeline it may be any of them.
is_child() {
  local stat
  read -r stat 2>/dev/null <"/proc/$1/stat" && [[ ${stat##*) } == ?" $BASHPID "* ]]
}

# see_daemon: $daemon_state says in words how the daemon has ended, if it has. Its box ends as it does.
see_daemon() {
  local code=0
  daemon_state='was not started'
  [ -n "${daemon_box:-}" ] || return 0
  daemon_state='runs'
  is_gone "$daemon_box" || return 0
  wait "$daemon_box" 2>/dev/null || code=$?
  daemon_state="ended with status $code"
  [ $code -le 128 ] || daemon_state="was ended by SIG$(kill -l $code)"
}

sanitizer_reports() { cat "$board"/var/log/camera/sanitizer* 2>/dev/null; }

# keep_counts FOLDER: adds what daemons have counted there to what scripts/coverage has.
keep_counts() {
  [ -d "$1" ] || return 0
  (
    flock 9
    if [ -d "$VS_COVERAGE/events" ]; then
      gcov-tool merge "$VS_COVERAGE" "$1" -o "$VS_COVERAGE"
    else
      cp -r -- "$1"/. "$VS_COVERAGE"
    fi
  ) 9>"$VS_COVERAGE.lock" >/dev/null
}

# The end of every test: nothing that a sanitizer or the daemon itself would complain about.
check_clean() {
  if [ -n "${daemon:-}" ] && ! is_gone "$daemon"; then stop_daemon; fi
  if [ -n "${hardware:-}" ]; then end_process "$hardware" $((5 * slow)) || fail "the hardware does not end"; fi
  [ -z "$(sanitizer_reports)" ] || fail "a sanitizer complains"
  if grep -q IPE "$log"; then fail "an internal error is in the log"; fi
}

# eventually SECONDS COMMAND...: waits until the command succeeds; the test fails when it does not.
eventually() {
  local limit=$1
  shift
  await $((limit * slow)) "$@" || fail "not within $((limit * slow)) s: $*"
}

# expect VALUE EXPECTED WHAT
expect() { [ "$1" = "$2" ] || fail "$3: $1 instead of $2"; }

now_ms() { echo $(($(date +%s%N) / 1000000)); }

camctl() { "$build/tools/camctl" --board "$board" "$@"; }

# exit_of COMMAND...: prints its exit code, and nothing else.
exit_of() {
  local code=0
  "$@" >/dev/null 2>&1 </dev/null || code=$?
  echo "$code"
}

# launch PROGRAM [ARGUMENT...]: starts a program in the board; $box is the process around it.
launch() {
  local arguments=()
  if [ "$1" = "$build/core/video_svr" ]; then
    arguments=(${drivers:+--drivers "$drivers"} ${load:+--load "$load"})
  fi
  [ "$smb" != server ] || arguments+=(--sharefs "$build/board/share/sharefs")
  VS_LOG=stderr TZ=UTC \
    ASAN_OPTIONS=log_path=/var/log/camera/sanitizer:detect_stack_use_after_return=1 \
    UBSAN_OPTIONS=log_path=/var/log/camera/sanitizer:print_stacktrace=1 \
    TSAN_OPTIONS=log_path=/var/log/camera/sanitizer \
    GCOV_PREFIX=/var/log/camera/counts \
    "$root/board/enter" --usb "$usb" --smb "$smb" "${arguments[@]}" "$board" "$@" >>"$work/output" 2>>"$log" </dev/null &
  box=$!
  boxes+=("$box")
}

camera_is_up() { camctl get mode >/dev/null 2>&1; }
has_frames() { [ "$(slot frame-count)" -gt 0 ]; }
events_are_built() { [ -s "$board/run/camera/io/input_used" ]; }

# start_daemon [OPTION OF video_svr...]: starts it; $daemon is its process id.
start_daemon() {
  local options=("$@")
  [ $# -gt 0 ] || options=(-n/home/test.jpg -f2 -mv)
  rm -f -- "$board/run/video_svr.pid"
  launch "$build/core/video_svr" "${options[@]}"
  daemon_box=$box
  started_or_dead() { [ -s "$board/run/video_svr.pid" ] || is_gone "$daemon_box"; }
  eventually 10 started_or_dead
  [ -s "$board/run/video_svr.pid" ] || fail "the daemon can't be started"
  daemon=$(cat "$board/run/video_svr.pid")
}

# start_camera [OPTION OF video_svr...]: the daemon with its events, and the peer at the outputs.
start_camera() {
  rm -f -- "$board/run/camera/io/input_used"
  launch "$build/board/socmond"
  eventually 10 test -S "$board/run/camera/msg/socmond"
  start_daemon "$@"
  eventually 10 camera_is_up
  eventually 20 events_are_built
}

# --- cameras with virtual hardware ----------------------------------------------------------------

boardctl() { "$build/tools/boardctl" --board "$board" "$@"; }

# start_hardware [OPTION OF hardware...]: the chips; $hardware is their process.
start_hardware() {
  rm -f -- "$board/run/camera/boardctl"
  ASAN_OPTIONS=log_path=$board/var/log/camera/sanitizer-hardware \
    UBSAN_OPTIONS=log_path=$board/var/log/camera/sanitizer-hardware:print_stacktrace=1 \
    TSAN_OPTIONS=log_path=$board/var/log/camera/sanitizer-hardware \
    "$build/board/hardware/hardware" --board "$board" "$@" >>"$log" 2>&1 </dev/null &
  hardware=$!
  boxes+=("$hardware")
  hardware_is_up() { is_gone "$hardware" || [ -S "$board/run/camera/boardctl" ]; }
  eventually 10 hardware_is_up
  ! is_gone "$hardware" || fail "the hardware can't be started"
}

# start_model MODEL [OPTION OF video_svr...]: hardware, drivers and the daemon, which delivers frames.
start_model() {
  local model=$1
  shift
  start_hardware --model "$model"
  drivers=$build/board/drivers/libvs_drivers.so
  start_daemon "-$model" -mv "$@"
  eventually 10 camera_is_up
  eventually 10 has_frames
}

# watch_polls: notes in $work/polls when the daemon's main loop reads the digital input, and in $work/paces
# how well a shell that only sleeps as long keeps time on this machine meanwhile.
watch_polls() {
  "$root/tests/board/read_times" "$board/run/camera/io/input" >"$work/polls" &
  watchers=($!)
  while :; do
    date +%s%3N
    sleep 0.3
  done >"$work/paces" &
  watchers+=($!)
  boxes+=("${watchers[@]}")
}

# usual_gap FILE: 99 of 100 times in it come within so many ms of the one before.
usual_gap() {
  awk 'NR > 1 {print $1 - last} {last = $1}' "$1" | sort -n |
    awk '{gap[NR] = $1} END {print gap[1 + int((NR - 1) * 0.99)]}'
}

# polls_in_time LEAST: the digital input was read often enough since watch_polls, and LEAST times. A machine
# that keeps everybody waiting makes the daemon wait as well.
polls_in_time() {
  local late limit
  late=$(usual_gap "$work/polls")
  limit=$(($(usual_gap "$work/paces") + 40))
  [ "$limit" -ge 350 ] || limit=350
  kill "${watchers[@]}"
  echo "99 of 100 polls come within $late ms; limit $limit ms"
  [ "$(wc -l <"$work/polls")" -ge "$1" ] || fail "too few polls"
  [ "$late" -le "$limit" ] || fail "polls of the input: $late ms, limit $limit ms"
}

# configure SECTION KEY VALUE: sets it in the board's /etc/camera.conf.
configure() {
  local file=$board/etc/camera.conf
  # Of a key that is there twice the last value counts, and so does a section's last part.
  printf '\n[%s]\n%s = %s\n' "$1" "$2" "$3" >>"$file"
}

# check_stream [OPTION OF stream_check...]: judges the stream; what it saw is in $work/seen.
check_stream() { "$build/tests/board/stream_check/stream_check" --board "$board" "$@" >"$work/seen"; }
seen() { jq -r "$1" "$work/seen"; }
# judge_stream: the same, and the test fails when there is an error.
judge_stream() { check_stream "$@" || fail "$(cat "$work/seen")"; }

# settle NAME VALUE: writes a setting and waits until the camera has taken it.
settle() {
  camctl set "$1" "$2"
  taken() { ! camctl status | awk -v name="$1" '$2 == name {print $3}' | grep -q '\*$'; }
  eventually 5 taken "$1"
}

# brightness_of PICTURE X Y WIDTH HEIGHT: the mean of a part of a PNG file, 0 to 255.
brightness_of() {
  ffmpeg -v error -i "$1" -vf "crop=$4:$5:$2:$3,scale=1:1:flags=area,format=gray" -f rawvideo - |
    od -An -tu1 | tr -d ' '
}

# stop_daemon [SIGNAL]: ends the daemon; $took is how many ms that needed, $status its exit status.
stop_daemon() {
  local begun
  begun=$(now_ms)
  status=0
  kill "-${1:-TERM}" "$daemon"
  wait "$daemon_box" || status=$?
  took=$(($(now_ms) - begun))
}

# slot NAME: its value.
slot() { camctl status | awk -v name="$1" '$2 == name {sub(/\*$/, "", $3); print $3}'; }

# in_status TEXT: true iff the status word says so.
in_status() { camctl status | grep '^status' | grep -qF -- "$1"; }

# logged TEXT: true iff the daemon's log has it. happened ID: true iff the event log has it.
logged() { grep -qF -- "$1" "$log"; }
happened() { grep -q "^[^ ]* $1 " "$events" 2>/dev/null; }
count_events() { grep -c "^[^ ]* $1 " "$events" 2>/dev/null || true; }

recordings() { find "$board/usb" -type f | sort; }
recorded() { [ "$(recordings | wc -l)" -ge "$1" ]; }

# write_events [LINE...]: an events file with one event, section 1, of these lines.
write_events() {
  { printf '[Main]\nMax = 1\n[1]\nErased = 0\nSchedule = always\n' && printf '%s\n' "$@"; } \
    >"$board/etc/events.conf"
}
