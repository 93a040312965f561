# shellcheck shell=bash
# Pictures from the file to whoever reads the stream.

test_frames_are_the_picture() {
  start_camera
  camctl grab "$work/grabbed.jpg"
  cmp "$picture" "$work/grabbed.jpg"
  local before
  before=$(slot frame-count)
  camctl watch --for 2 >"$work/watch"
  [ "$(slot frame-count)" -gt "$before" ] || fail "no frame was counted"
  grep -q ' [1-9][0-9.]* frames/s .* 0 lost' "$work/watch" || fail "$(cat "$work/watch")"
}

test_numbers_go_on_after_a_kill() {
  start_camera
  eventually 5 has_frames
  stop_daemon KILL
  expect "$(exit_of camctl status)" 3 "camctl with what a killed camera left"
  start_daemon
  eventually 5 camera_is_up
  camctl dump raw --frames 1 >"$work/frame"
  local number
  number=$(od -An -t u4 -j 12 -N 4 "$work/frame" | tr -d ' ')
  [ "$number" -gt 1 ] || fail "numbers began anew"
  tail -c +161 "$work/frame" | cmp - "$picture"
}

# The file is open; what takes its place is the next run's picture.
test_picture_replaced_while_running_stays_whole() {
  start_camera
  cp "$picture" "$work/first.jpg"
  head -c 20000 "$picture" >"$board/home/next.jpg"
  mv "$board/home/next.jpg" "$picture"
  camctl grab "$work/grabbed.jpg"
  cmp "$work/first.jpg" "$work/grabbed.jpg"
}

test_picture_rewritten_in_place_is_the_new_picture() {
  start_camera
  head -c 20000 "$picture" >"$work/second.jpg"
  cat "$work/second.jpg" >"$picture"
  new_picture() { camctl grab "$work/grabbed.jpg" && cmp -s "$work/second.jpg" "$work/grabbed.jpg"; }
  eventually 5 new_picture
}

test_picture_larger_than_a_frame_comes_in_pieces() {
  local room=$((262144 - 160))
  { cat "$picture" && head -c 300000 /dev/zero; } >"$board/home/large.jpg"
  start_camera -n/home/large.jpg -f2 -mv
  camctl dump raw --frames 4 >"$work/frames"
  # Two pieces make the file; 4 frames are its two pieces twice, wherever the reader joined.
  expect "$(stat -c %s "$work/frames")" $((2 * $(stat -c %s "$board/home/large.jpg") + 4 * 160)) "bytes"
  expect "$(od -An -t d4 -j 8 -N 4 "$work/frames" | tr -d ' ' | grep -cE "^($room|[0-9]{5})$")" 1 \
    "a piece as long as the frame has room, or the rest"
}

failing_source() {
  start_camera "-n/home/$1" -f2 -mv
  eventually 5 logged "reading file source return $2"
  expect "$(exit_of camctl grab "$work/grabbed.jpg")" 4 "camctl grab"
  [ ! -e "$work/grabbed.jpg" ] || fail "a picture was stored"
  # Cost and noise of what fails without end, over 5 seconds.
  local ticks lines
  ticks=$(cpu_ticks) lines=$(wc -l <"$log")
  sleep 5
  ticks=$(($(cpu_ticks) - ticks)) lines=$(($(wc -l <"$log") - lines))
  [ $lines -le 20 ] || fail "$lines lines in the log"
  [ $ticks -le $((5 * slow)) ] || fail "$ticks ticks of processor time in 5 s"
}
cpu_ticks() { awk '{print $14 + $15}' "/proc/$daemon/stat"; }

test_missing_picture_costs_nothing() {
  failing_source missing.jpg -1
  logged "can't open missing.jpg" || logged "can't open /home/missing.jpg" || fail "no message"
}

test_empty_picture_costs_nothing() {
  : >"$board/home/empty.jpg"
  failing_source empty.jpg 0
}

test_settings_are_applied_between_frames() {
  start_camera
  expect "$(camctl get framerate)" 2 framerate
  camctl set framerate 0
  eventually 5 in_status "framerate 0"
  camctl set frameRATE 15
  eventually 5 in_status "framerate 15"
}

test_usage_without_options() {
  launch "$build/core/video_svr"
  local code=0
  wait "$box" || code=$?
  expect $code 1 "exit status"
  grep -q '^USAGE:' "$work/output" || fail "no usage"
  grep -q -- '-nfile' "$work/output" || fail "no video options"
  grep -q -- '-A' "$work/output" || fail "no audio options"
}

test_two_boards_side_by_side() {
  start_camera
  local first=$board first_box=$daemon_box first_daemon=$daemon
  board=$work/other log=$work/other/var/log/camera/daemon.log events=$work/other/var/log/camera/events.log
  "$root/board/make" "$board"
  head -c 30000 "$picture" >"$board/home/test.jpg"
  start_camera
  camctl grab "$work/second.jpg"
  cmp "$work/second.jpg" "$board/home/test.jpg"
  expect "$(exit_of "$build/tools/camctl" status)" 2 "camctl that must choose"
  stop_daemon
  expect "$(exit_of "$build/tools/camctl" status)" 0 "camctl with one camera left"
  board=$first daemon=$first_daemon daemon_box=$first_box
  camctl grab "$work/first.jpg"
  cmp "$work/first.jpg" "$picture"
}

# calls_of NAME: how many system calls the daemon's thread of that name has made in $work/calls.
calls_of() {
  local thread
  for thread in /proc/"$daemon"/task/*; do
    [ "$(cat "$thread/comm")" != "$1" ] || grep -v resumed "$work/calls" | grep -c "^${thread##*/} "
  done
}

test_picture_costs_few_system_calls() {
  local before pictures capture main passes
  once_is_enough
  printf '[Main]\nMax = 0\n' >"$board/etc/events.conf"
  start_daemon -n/home/test.jpg -f2 -mv
  eventually 10 camera_is_up
  eventually 10 has_frames
  camctl input on
  eventually 10 in_status "input on"  # the main loop is at its passes
  strace -f -o "$work/calls" -p "$daemon" 2>"$work/strace" &
  boxes+=($!)
  eventually 10 test -s "$work/calls"
  before=$(slot frame-count)
  sleep 6
  pictures=$(($(slot frame-count) - before))
  kill -INT "${boxes[-1]}"
  wait "${boxes[-1]}" || true
  capture=$(calls_of KVX-video) main=$(calls_of video_svr)
  passes=$(grep -c "^$daemon *recvfrom" "$work/calls" || true)  # each looks for messages
  echo "$pictures pictures: $capture calls; $passes passes of the main loop: $main calls"
  if [ "$pictures" -lt 20 ] || [ "$passes" -lt 5 ]; then fail "too little to judge by"; fi
  # A picture: a pause, a read, a rewind and another pause; a few a second look for other files. A pass:
  # four values, the messages, a pause; every 3 s it looks for other files and at the clock.
  [ $((capture * 10)) -le $(((pictures + 3) * 44)) ] || fail "more than four calls for a picture"
  [ "$main" -le $(((passes + 2) * 10)) ] || fail "more than ten calls for a pass"
}
