# shellcheck shell=bash
# SIGTERM ends the daemon in less than 5 seconds, whatever it does, and in order.

# The promise is the daemon's and holds under the sanitizers too.
ends_in_order() {
  stop_daemon "$@"
  [ "$took" -lt 5000 ] || fail "took $took ms"
  expect "$status" 0 "exit status"
  ! logged "shutdown took too long" || fail "the watchdog had to end it"
  expect "$(exit_of camctl status)" 3 "camctl afterwards"
}

test_idle() {
  write_events 'Source = 6' 'Usb = 1'
  start_camera
  ends_in_order
}

test_by_interrupt() {
  start_camera
  ends_in_order INT
}

test_while_the_events_are_built() {
  start_daemon
  eventually 10 camera_is_up
  ends_in_order
}

test_during_a_refresh() {
  start_camera
  rm "$board/run/camera/io/input_used"
  camctl reload
  eventually 6 events_are_built
  ends_in_order
}

test_while_recording() {
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1'
  start_camera
  eventually 10 recorded 2
  ends_in_order
  local file
  for file in $(recordings); do cmp "$picture" "$file"; done
}

test_in_the_pause_after_a_web_event() {
  write_events 'Source = 6' 'Buzzer = 1'
  start_camera
  camctl trigger web1
  eventually 10 happened 520
  ends_in_order
}

test_with_an_output_on() {
  write_events 'Source = 6' 'Out1 = 1' 'Out1Duration = 600'
  start_camera
  camctl trigger web1
  eventually 10 happened 525
  ends_in_order
}

test_without_a_picture() {
  start_camera -nmissing.jpg -mv
  ends_in_order
}

# A reader that stands still in the middle of its work holds a frame for as long as it stands.
test_with_all_frames_held() {
  start_camera
  local readers=0
  until logged "video buffer busy"; do
    [ $readers -lt 60 ] || fail "$readers readers don't hold all frames"
    readers=$((readers + 1))
    camctl dump | sleep 60 &
    boxes+=($!)
    sleep 0.1
  done
  ends_in_order
}

test_during_a_command() {
  printf '#!/bin/sh\nsleep 30\n' >"$board/sbin/ptcmd"
  write_events 'Source = 6' 'Buzzer = 1'
  start_camera
  camctl trigger web1
  eventually 10 happened 520
  ends_in_order
}

test_sound_alone() {
  start_daemon -ma
  started() { [ "$(ls "/proc/$daemon/task" | wc -l)" -gt 1 ]; }
  eventually 10 started
  ends_in_order
}

test_twice_is_no_more_than_once() {
  start_camera
  kill -TERM "$daemon"
  kill -TERM "$daemon" 2>/dev/null || true
  status=0
  wait "$daemon_box" || status=$?
  expect "$status" 0 "exit status"
}
