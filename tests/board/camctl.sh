# shellcheck shell=bash
# camctl, command by command.

test_no_camera_is_said_and_is_status_3() {
  local command
  for command in status 'watch --for 1' get 'get hue' 'set hue 1' 'trigger web1' 'trigger input' \
    'input on' 'privacy on' reload 'grab /dev/null' dump; do
    # shellcheck disable=SC2086  # words of one command
    expect "$(exit_of timeout 5 "$build/tools/camctl" --board "$board" $command)" 3 "$command"
  done
  expect "$(camctl status 2>&1)" "camctl: no camera runs in $board" "message"
  expect "$(exit_of "$build/tools/camctl" status)" 3 "no camera at all"
  expect "$(camctl status --json 2>/dev/null)" "{\"camera\":\"$board\",\"running\":false,\"pid\":0}" json
}

test_strange_files_in_the_place_of_a_buffer_are_no_camera() {
  local file=$board/dev/shm/camera/video
  mkdir -p "${file%/*}"
  mkfifo "$file"
  expect "$(exit_of timeout 5 "$build/tools/camctl" --board "$board" status)" 3 "a pipe"
  rm "$file"
  mkdir "$file"
  expect "$(exit_of timeout 5 "$build/tools/camctl" --board "$board" status)" 3 "a folder"
  rmdir "$file"
  head -c 300000 /dev/urandom >"$file"
  expect "$(exit_of timeout 5 "$build/tools/camctl" --board "$board" status)" 3 "a file"
}

test_wrong_use_is_status_2() {
  local command
  for command in '' nonsense 'trigger web3' 'trigger' 'set hue' 'set hue -1' 'set hue x' 'set nothing 1' \
    'input maybe' 'grab' 'dump avi' 'watch --for 0' 'get nothing'; do
    [[ $command != *nothing* ]] || [ -n "${daemon:-}" ] || start_camera
    # shellcheck disable=SC2086  # words of one command
    expect "$(exit_of timeout 5 "$build/tools/camctl" --board "$board" $command)" 2 "$command"
  done
}

test_help_has_examples() {
  "$build/tools/camctl" --help >"$work/help"
  grep -q 'camctl grab now.jpg' "$work/help" || fail "no examples"
  "$build/tools/camctl" watch --help | grep -q -- '--for SECONDS' || fail "no options"
}

test_status_names_every_slot_and_reader() {
  start_camera
  camctl dump | sleep 60 &
  boxes+=($!)
  reader_holds_a_frame() { camctl status | grep -q 'is held by camctl'; }
  eventually 10 reader_holds_a_frame
  camctl status >"$work/status"
  grep -q "^camera   $board, process $daemon\$" "$work/status" || fail "no process"
  grep -q '^status   input off, output1 off, ' "$work/status" || fail "no status"
  grep -qE "^frame    [0-9]+, JPEG, $(stat -c %s "$picture") bytes, motion 1 off, motion 2 off\$" "$work/status" ||
    fail "no frame"
  grep -q '^  *0  frame-count ' "$work/status" || fail "no frame count"
  grep -q '^  *22  package  *' "$work/status" || fail "no package"
  grep -q "written by video_svr ($daemon), used by camctl" "$work/status" || fail "no users"
  grep -q '^  video2 ' "$work/status" || fail "no second buffer"
}

test_status_for_programs() {
  command -v jq >/dev/null || skip "jq is not installed"
  start_camera
  camctl status --json >"$work/json"
  expect "$(jq -r .running "$work/json")" true running
  expect "$(jq -r .pid "$work/json")" "$daemon" pid
  expect "$(jq -r .camera "$work/json")" "$board" camera
  expect "$(jq -r .slots.framerate.value "$work/json")" 2 framerate
  expect "$(jq -r .status.framerate "$work/json")" 2 "status word"
  expect "$(jq -r .buffers.video.writer_pid "$work/json")" "$daemon" writer
  expect "$(jq -r '.buffers.video.frames | length' "$work/json")" 16 frames
}

# A wrong model leaves the daemon without a camera; it keeps house all the same.
test_camera_without_a_picture_is_a_running_camera() {
  write_events 'Source = 6' 'Buzzer = 1'
  start_daemon -B520 -mv
  eventually 10 camera_is_up
  camctl status | grep -q "process $daemon\$" || fail "another process"
  camctl set hue 3
  expect "$(exit_of camctl grab "$work/picture.jpg")" 4 "camctl grab"
  expect "$(exit_of camctl watch --for 1)" 0 "camctl watch"
}

test_sound_alone_is_a_running_camera() {
  start_daemon -ma
  eventually 10 camera_is_up
  expect "$(exit_of camctl grab "$work/picture.jpg")" 4 "camctl grab"
}

test_get_shows_what_set_has_set() {
  start_camera
  camctl set brightness 60
  expect "$(camctl get brightness)" 60 brightness
  camctl set White_Balance 3
  expect "$(camctl get white-balance)" 3 white-balance
  expect "$(camctl get hue)" unset hue
  camctl get | grep -q '^brightness  *60$' || fail "$(camctl get)"
}

test_watch_ends_by_itself_and_on_interrupt() {
  start_camera
  camctl watch --for 2 >"$work/watch"
  expect "$(grep -c 'frames/s' "$work/watch")" 2 lines
  "$build/tools/camctl" --board "$board" watch >"$work/until-told" &
  local watch=$!
  eventually 5 grep -q 'frames/s' "$work/until-told"
  kill -TERM $watch
  wait $watch || fail "status $?"
}

# A reader that stands still longer than the buffer lasts has lost what came meanwhile.
test_watch_counts_what_was_lost() {
  start_camera
  "$build/tools/camctl" --board "$board" watch >"$work/watch" &
  local watch=$! before
  boxes+=("$watch")
  eventually 10 grep -q ' 0 lost' "$work/watch"
  ! grep -q ' [1-9][0-9]* lost' "$work/watch" || fail "$(cat "$work/watch")"
  kill -STOP $watch
  before=$(slot frame-count)
  forty_frames_came() { [ "$(slot frame-count)" -gt $((before + 40)) ]; }
  eventually 20 forty_frames_came
  kill -CONT $watch
  eventually 5 grep -qE ' [1-9][0-9]+ lost' "$work/watch"
}

test_watch_follows_the_event_log_into_its_successor() {
  write_events 'Source = 6' 'Buzzer = 1'
  start_camera
  "$build/tools/camctl" --board "$board" watch >"$work/watch" &
  boxes+=($!)
  eventually 10 grep -q frames/s "$work/watch"
  echo "2026-01-01T00:00:00Z 1 before" >>"$events"
  eventually 5 grep -q 'event 1 before' "$work/watch"
  echo "2026-01-01T00:00:00Z 2 last of the old one" >>"$events"
  mv "$events" "$events.1"
  echo "2026-01-01T00:00:00Z 3 first of the new one" >>"$events"
  eventually 5 grep -q 'event 3 first of the new one' "$work/watch"
  expect "$(grep -o 'event [0-9] [a-z].*' "$work/watch")" \
    $'event 1 before\nevent 2 last of the old one\nevent 3 first of the new one' "events"
}

test_watch_ends_with_the_camera() {
  start_camera
  "$build/tools/camctl" --board "$board" watch >"$work/watch" 2>&1 &
  local watch=$! code=0
  eventually 5 grep -q 'frames/s' "$work/watch"
  stop_daemon KILL
  wait $watch || code=$?
  expect $code 3 "exit status"
  grep -q 'the camera has stopped' "$work/watch" || fail "$(cat "$work/watch")"
}

test_grab_replaces_the_file_as_a_whole() {
  start_camera
  echo old >"$work/picture.jpg"
  ln "$work/picture.jpg" "$work/old.jpg"
  camctl grab "$work/picture.jpg"
  cmp "$picture" "$work/picture.jpg"
  expect "$(cat "$work/old.jpg")" old "the file that was replaced"
  camctl grab - | cmp - "$picture"
  expect "$(exit_of camctl grab "$work/missing/picture.jpg")" 1 "a folder that is missing"
  expect "$(find "$work" -name 'picture.jpg.*')" "" "left behind"
}

test_dump_is_the_stream() {
  start_camera
  camctl dump --frames 3 >"$work/three"
  cat "$picture" "$picture" "$picture" | cmp - "$work/three"
  camctl dump raw --frames 2 >"$work/raw"
  expect "$(stat -c %s "$work/raw")" $((2 * ($(stat -c %s "$picture") + 160))) bytes
  if command -v ffprobe >/dev/null; then
    expect "$(ffprobe -v error -f mjpeg -count_frames -select_streams v -of csv=p=0 \
      -show_entries stream=nb_read_frames "$work/three")" 3 "pictures"
  fi
}

# of_stream FILE WHAT: the pictures' sizes or types in their order, on one line.
of_stream() {
  ffprobe -v error -f m4v -of csv=p=0 -show_entries "frame=$2" "$1" | uniq | tr '\n' ' '
}

test_dump_of_an_encoder_is_its_stream() {
  command -v ffprobe >/dev/null || skip "ffmpeg is not installed"
  configure Video IpRatio 4
  start_model K310
  camctl dump --frames 12 >"$work/stream"
  expect "$(head -c 4 "$work/stream" | od -An -tx1 | tr -d ' ')" 00000100 "beginning"
  expect "$(ffmpeg -v error -xerror -err_detect explode -f m4v -i "$work/stream" -f null - 2>&1)" "" errors
  expect "$(ffprobe -v error -f m4v -of csv=p=0 -show_entries frame=pict_type "$work/stream" | tr -d '\n')" \
    IPPPPIPPPPIP pictures
  expect "$(exit_of camctl dump --format mpeg4 --frames 1)" 0 "format as an option"
  expect "$(exit_of camctl dump mjpeg)" 4 "JPEG pictures"
  expect "$(camctl dump mjpeg 2>&1 >/dev/null)" "camctl: the camera delivers no JPEG picture" message
}

test_dump_goes_on_with_each_header() {
  command -v ffprobe >/dev/null || skip "ffmpeg is not installed"
  configure Video IpRatio 2
  start_model B520
  "$build/tools/camctl" --board "$board" dump >"$work/stream" &
  local dump=$! resolution size
  boxes+=("$dump")
  eventually 10 test -s "$work/stream"
  for resolution in 8 10 7; do
    settle resolution $resolution
    size=$(stat -c %s "$work/stream")
    # Some pictures of the one size before the next.
    grown() { [ "$(stat -c %s "$work/stream")" -gt $((size + 20000)) ]; }
    eventually 10 grown
  done
  settle mode 1
  kill $dump
  wait $dump || fail "status $?"
  of_stream "$work/stream" width,height >"$work/sizes"
  expect "$(cat "$work/sizes")" '640,480 320,240 160,120 640,480 ' sizes
  # Pictures come without a time, of which the program that shows them complains.
  expect "$(ffmpeg -v repeat+error -f m4v -i "$work/stream" -fps_mode passthrough -f null - 2>&1 | grep -v 'increasing dts')" \
    "" errors
}

test_dump_of_a_sensor_is_its_pictures() {
  command -v ffprobe >/dev/null || skip "ffmpeg is not installed"
  configure Video CompressionType 1
  start_model B520
  camctl dump --frames 5 >"$work/stream"
  expect "$(ffprobe -v error -f mjpeg -count_frames -of csv=p=0 -show_entries stream=width,height,nb_read_frames \
    "$work/stream")" 640,480,5 pictures
  expect "$(camctl dump mpeg4 2>&1 >/dev/null)" "camctl: the camera delivers no MPEG-4 picture" message
}

test_grab_of_an_encoder_is_a_film_of_one_picture() {
  command -v ffprobe >/dev/null || skip "ffmpeg is not installed"
  start_model K310
  camctl grab "$work/now.avi"
  expect "$(ffprobe -v warning -count_frames -of csv=p=0 -show_entries stream=width,height,r_frame_rate,nb_read_frames \
    "$work/now.avi" 2>&1)" 640,480,1/1,1 "what a player sees"
  expect "$(ffmpeg -v error -xerror -i "$work/now.avi" -f null - 2>&1)" "" errors
}

test_status_shows_the_newest_frame_and_motion() {
  configure Motion1 Enable 1
  configure Motion2 Enable 0
  start_model B520
  camctl status | grep -qE '^frame    [0-9]+, MPEG-4, 640x480, [0-9]+ bytes, motion 1 [0-9]+, motion 2 off$' ||
    fail "$(camctl status | grep ^frame)"
  if command -v jq >/dev/null; then
    camctl status --json >"$work/json"
    expect "$(jq -r '.frame.kind, .frame.width, .frame.height' "$work/json" | tr '\n' ' ')" "MPEG-4 640 480 " frame
    expect "$(jq -r '.frame.motion[1]' "$work/json")" "" "a window that is off"
  fi
}

test_dump_ends_when_nobody_reads() {
  start_camera
  local code=0
  { timeout 20 "$build/tools/camctl" --board "$board" dump || code=$?; echo $code >"$work/code"; } |
    head -c 100000 >/dev/null
  expect "$(cat "$work/code")" 0 "exit status"
}

test_dump_ends_on_interrupt_though_its_pipe_is_full() {
  start_camera
  mkfifo "$work/pipe"
  exec {reader}<>"$work/pipe"
  "$build/tools/camctl" --board "$board" dump >"$work/pipe" &
  local dump=$! code=0
  reader_holds_a_frame() { camctl status | grep -q 'is held by camctl'; }
  eventually 10 reader_holds_a_frame
  kill -TERM $dump
  wait $dump || code=$?
  exec {reader}<&-
  expect $code 0 "exit status"
}

test_slow_reader_costs_the_camera_nothing() {
  start_camera
  camctl dump | sleep 60 &
  boxes+=($!)
  reader_holds_a_frame() { camctl status | grep -q 'is held by camctl'; }
  eventually 10 reader_holds_a_frame
  camctl watch --for 2 >"$work/watch"
  ! grep -vE ' 0 lost' "$work/watch" || fail "frames were lost"
}

test_lone_board_needs_no_name() {
  start_camera
  "$build/tools/camctl" status | grep -q "^camera   $board," || fail "another camera"
  (cd "$board/etc" && "$build/tools/camctl" --board .. status) | grep -q "^camera   $board,"
}

# As on a camera, where every path is the real one.
test_inside_the_camera_it_needs_no_board() {
  start_camera
  "$root/board/enter" "$board" "$build/tools/camctl" status >"$work/status"
  grep -q "^camera   this machine, process $daemon\$" "$work/status" || fail "$(cat "$work/status")"
}

test_manual_page_is_sound() {
  command -v mandoc >/dev/null || skip "mandoc is not installed"
  mandoc -T lint "$root/tools/camctl/camctl.1"
}
