# shellcheck shell=bash
# Boards for benchmarks: daemons with a picture file or with virtual hardware. Sourced by scripts/bench,
# which sets $build and $folder; what the boards say goes to $folder/log.
# shellcheck disable=SC2154

declare -A hardware_of=() daemon_of=()  # process ids by board; of the daemon, that of the box around it
drivers=$build/board/drivers/libvs_drivers.so

# on BOARD COMMAND...: camctl of that board.
on() { "$build/tools/camctl" --board "$1" "${@:2}"; }

pid_of_daemon() { cat "$1/run/video_svr.pid"; }
frames_of() { on "$1" status | awk '$2 == "frame-count" {sub(/\*$/, "", $3); print $3}'; }
delivers() { [ "$(frames_of "$1")" -gt "$2" ]; }
taken() { ! on "$1" status | awk -v name="$2" '$2 == name {print $3}' | grep -q '\*$'; }

# notices_inputs BOARD: waits until its main loop does. The input's state alone fires nothing.
notices_inputs() {
  local state
  for state in on off; do
    on "$1" input "$state"
    await 20 shows "$1" "input $state"
  done
}
shows() { on "$1" status | grep '^status' | grep -qF -- "$2,"; }

# write_events BOARD WHAT: what its events do, from now on. "relays": a relay for each motion window;
# "recorder": a recorder takes a picture a second as well. "web": a relay for each web trigger; "input": the
# digital input switches the first relay.
write_events() {
  local -A sources=([relays]='1 0 1 1 2 1 2 2' [recorder]='1 0 1 1 2 1 2 2' [web]='1 6 1 1 2 5 2 2'
    [input]='1 2 1 1')
  {
    printf '[Main]\nMax = 3\n'
    # shellcheck disable=SC2086
    printf '[%s]\nErased = 0\nSchedule = always\nSource = %s\nOut%s = 1\nOut%sDuration = 1\n' \
      ${sources[$2]}
    [ "$2" != recorder ] ||
      printf '[3]\nErased = 0\nSchedule = always\nSource = 3\nInterval = 1\nUsb = 1\nUsbFolder = bench\n'
  } >"$1/etc/events.conf"
  # The main loop goes on when it has built those from before, and again when it has built these.
  notices_inputs "$1"
  on "$1" reload
  await 10 taken "$1" config-changed
  notices_inputs "$1"
}

# start_daemon BOARD OPTION...: with $library as its drivers where that is set.
start_daemon() {
  local board=$1 with=()
  shift
  [ -z "${library:-}" ] || with=(--drivers "$library")
  VS_LOG=stderr board/enter "${with[@]}" "$board" "$build/core/video_svr" "$@" 2>>"$folder/log" &
  daemon_of[$board]=$!
  await 20 on "$board" get mode >/dev/null 2>&1
  await 20 delivers "$board" 0
}

# start_camera NAME MODEL: a board with hardware and a daemon that delivers; $board is its folder.
start_camera() {
  local library=$drivers
  board=$folder/$1
  board/make --camera "$2" "$board"
  "$build/board/hardware/hardware" --board "$board" --model "$2" 2>>"$folder/log" &
  hardware_of[$board]=$!
  await 10 test -S "$board/run/camera/boardctl"
  start_daemon "$board" "-$2" -mv
}

# in_mode BOARD MODE: at 640x480 and 30 pictures a second.
in_mode() {
  local name value before
  while read -r name value; do
    on "$1" set "$name" "$value"
    await 10 taken "$1" "$name"
  done <<<"mode $2"$'\nresolution 7\nframerate 0'
  before=$(frames_of "$1")
  await 10 delivers "$1" $((before + 10))
}

# kill_daemon BOARD: without a chance to stop the encoder, so that the hardware goes on as it was set.
kill_daemon() {
  kill -KILL "$(pid_of_daemon "$1")"
  wait "${daemon_of[$1]}" 2>/dev/null || true
  unset "daemon_of[$1]"
}

# stop_board BOARD: for good.
stop_board() {
  if [ -n "${daemon_of[$1]:-}" ]; then
    end_process "$(pid_of_daemon "$1")" 5 || true
    wait "${daemon_of[$1]}" 2>/dev/null || true
    unset "daemon_of[$1]"
  fi
  if [ -n "${hardware_of[$1]:-}" ]; then
    end_process "${hardware_of[$1]}" 5 || true
    wait "${hardware_of[$1]}" 2>/dev/null || true
    unset "hardware_of[$1]"
  fi
  board/remove "$1"
}

# stop_all: every board that there is, and whoever still reads one.
stop_all() {
  local one
  for one in "$folder"/*/.board; do
    [ ! -e "$one" ] || stop_board "${one%/.board}"
  done
  for one in $(jobs -p); do kill "$one" 2>/dev/null || true; done
}
