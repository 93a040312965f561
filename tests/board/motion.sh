# shellcheck shell=bash
# Motion: from something that moves in front of the camera to relay and recording.

# The windows of the tests: left and right, far from each other.
left='40 160 160 160' right='440 160 160 160'
windows() {
  local window place x y width height
  for window in 1 2; do
    place=$left
    [ $window = 1 ] || place=$right
    read -r x y width height <<<"$place"
    printf '\n[Motion%s]\nEnable = 1\nX = %s\nY = %s\nWidth = %s\nHeight = %s\nThreshold = 5\n' \
      $window "$x" "$y" "$width" "$height" >>"$board/etc/camera.conf"
  done
}

# watch_motion [LINE...]: a sensor camera with an event for each window, which switches the relay of
# the same number, and lines for both sections.
watch_motion() {
  windows
  local window
  {
    printf '[Main]\nMax = 2\n'
    for window in 1 2; do
      printf '[%s]\nErased = 0\nSchedule = always\nSource = %s\nOut%s = 1\nOut%sDuration = 1\n' \
        $window $((window - 1)) $window $window
      [ $# -eq 0 ] || printf '%s\n' "$@"
    done
  } >"$board/etc/events.conf"
  start_hardware --model B520
  drivers=$build/board/drivers/libvs_drivers.so
  start_camera -B520 -mv
  eventually 10 has_frames
}

move_in() {
  # shellcheck disable=SC2086  # four numbers
  boardctl motion on $1
}
output_is() { [ "$(cat "$board/run/camera/io/output$1")" = "$2" ]; }

# fires_alone PLACE WINDOW OTHER
fires_alone() {
  check_stream --for 1 || fail "$(cat "$work/seen")"
  expect "$(seen '[.levels[].most] | max')" 0 "level of a scene in which nothing moves"
  move_in "$1"
  eventually 5 output_is "$2" 1
  check_stream --for 2 || fail "$(cat "$work/seen")"
  boardctl motion off
  [ "$(seen ".levels[$2 - 1].most")" -gt 5 ] || fail "level of window $2: $(cat "$work/seen")"
  expect "$(seen ".levels[$3 - 1].most")" 0 "level of window $3"
  output_is "$3" 0 || fail "event $3 has fired"
  eventually 5 output_is "$2" 0
}

test_movement_in_window_1_fires_event_1_alone() {
  watch_motion
  fires_alone "$left" 1 2
}

test_movement_in_window_2_fires_event_2_alone() {
  once_is_enough
  watch_motion
  fires_alone "$right" 2 1
}

test_movement_between_the_windows_fires_nothing() {
  once_is_enough
  watch_motion
  move_in '240 160 160 160'
  check_stream --for 3 || fail "$(cat "$work/seen")"
  expect "$(seen '[.levels[].most] | max')" 0 "level"
  output_is 1 0 || fail "event 1 has fired"
  output_is 2 0 || fail "event 2 has fired"
}

# plays FILE WHAT: independent tools read it without a word, and find one picture.
plays() {
  local said
  said=$(ffprobe -v warning -count_frames -select_streams v -show_entries \
    stream=codec_name,width,height,nb_read_frames -of csv=p=0 "$1" 2>"$work/said")
  [ ! -s "$work/said" ] || fail "ffprobe of $1: $(cat "$work/said")"
  expect "$said" "$2" "what is in $1"
  ffmpeg -v warning -xerror -i "$1" -f null - 2>"$work/said" || fail "ffmpeg of $1: $(cat "$work/said")"
  [ ! -s "$work/said" ] || fail "ffmpeg of $1: $(cat "$work/said")"
}

# The part of the picture where something moves is not what it was before.
shows_movement() {
  ffmpeg -v error -y -i "$1" -update 1 "$work/moment.png"
  local before now
  before=$(signature "$work/still.png") now=$(signature "$work/moment.png")
  [ "$before" != "$now" ] || fail "nothing moves in $1"
}
# Light of 8 x 8 parts of the left window, coarse enough for what compression does.
signature() {
  ffmpeg -v error -i "$1" -vf "crop=160:160:40:160,scale=8:8:flags=area,format=gray,lutyuv=y=trunc(val/24)" \
    -f rawvideo - | od -An -tu1 -v | tr -d '\n'
}

test_mode_0_records_the_moment_as_avi() {
  watch_motion 'Usb = 1'
  check_stream --for 3 --pictures 5 --last "$work/still.png" || fail "$(cat "$work/seen")"
  move_in "$left"
  eventually 15 recorded 2
  boardctl motion off
  stop_daemon
  local file
  for file in $(recordings); do
    [[ $file == *.avi ]] || fail "$file"
    plays "$file" mpeg4,640,480,1
    shows_movement "$file"
  done
}

test_modes_1_and_2_record_the_moment_as_jpeg() {
  watch_motion 'Usb = 1'
  local mode file
  for mode in 1 2; do
    settle mode $mode
    settle resolution 7
    find "$board/usb" -type f -delete
    check_stream --for 3 --pictures 5 --last "$work/still.png" || fail "$(cat "$work/seen")"
    move_in "$left"
    eventually 15 recorded 1
    boardctl motion off
    sleep 0.3
    for file in $(recordings); do
      [[ $file == *.jpg ]] || fail "$file"
      plays "$file" mjpeg,640,480,1
      shows_movement "$file"
    done
    sleep 2.5 # the event's pause
  done
}

# No header in front: nobody can make a film of it.
test_mode_3_records_the_frame_as_it_is() {
  once_is_enough
  watch_motion 'Usb = 1'
  settle mode 3
  move_in "$left"
  eventually 15 recorded 1
  boardctl motion off
  stop_daemon
  logged "TRecorder::onTranscode() i2avi() fail" || fail "no message"
  local file
  file=$(recordings | head -n 1)
  [[ $file == *.avi ]] || fail "$file"
  expect "$(head -c 3 "$file" | od -An -tx1 | tr -d ' ')" 000001 "the beginning of a raw frame"
}

# window_file WINDOW ENABLE X Y WIDTH HEIGHT THRESHOLD: as the web interface writes it.
window_file() {
  local file=$board/tmp/motion$1.dat word
  : >"$file"
  shift
  for word in "$@" $(printf '0 %.0s' {1..34}); do
    # shellcheck disable=SC2059  # the format is the bytes
    printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $((word & 255)) $((word >> 8 & 255)) \
      $((word >> 16 & 255)) $((word >> 24 & 255)))" >>"$file"
  done
}

test_windows_are_programmed_anew_while_it_streams() {
  watch_motion
  boardctl trace "$work/trace"
  window_file 1 1 -20 10 700 50 9
  settle motion-detection 0
  eventually 5 grep -q '^SET_MDWND1_ENABLE 1 ' "$work/trace" # the last request
  grep -q '^SET_MDWND1_XPOS 0 ' "$work/trace" || fail "$(cat "$work/trace")"
  grep -q '^SET_MDWND1_WIDTH 639 ' "$work/trace" || fail "$(cat "$work/trace")"
  ! grep -q MDWND2_X "$work/trace" || fail "window 2 was touched"
  check_stream --for 1 || fail "$(cat "$work/seen")"
  [ "$(seen '.levels[0].frames')" -gt 0 ] || fail "window 1 has no level"
  head -c 100 "$board/tmp/motion1.dat" >"$board/tmp/motion2.dat"
  settle motion-detection 1
  eventually 5 logged "fread(/tmp/motion2.dat) fail"
  check_stream --for 1 || fail "$(cat "$work/seen")"
  expect "$(seen '.levels[1].frames')" 0 "levels of a window that could not be read"
}

# Anybody may leave one there; nobody writes into it.
test_pipe_instead_of_a_window_does_not_stop_the_stream() {
  once_is_enough
  watch_motion
  mkfifo "$board/tmp/motion1.dat"
  settle motion-detection 0
  eventually 5 logged "fread(/tmp/motion1.dat) fail"
  judge_stream --pictures 3
}
