# shellcheck shell=bash
# Events, what they do, and the log of both.

output_is() { [ "$(cat "$board/run/camera/io/output$1")" = "$2" ]; }
called() { grep -qF -- "$1" "$board/var/log/camera/board.log" 2>/dev/null; }

test_interval_event_stores_the_picture() {
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1' 'UsbFolder = a/b'
  start_camera
  eventually 10 recorded 3
  eventually 1 happened 502
  eventually 1 happened 514
  local file
  for file in $(recordings); do
    [[ $file =~ ^$board/usb/a/b/20[0-9]{6}/[0-2][0-9][0-5][0-9][0-5][0-9]\.jpg$ ]] || fail "$file"
    expect "$(stat -c %a "$file")" 640 "mode of $file"
  done
  stop_daemon
  for file in $(recordings); do cmp "$picture" "$file"; done
}

# The name is the time of the frame.
test_recordings_are_named_after_their_time() {
  write_events 'Source = 6' 'Usb = 1'
  start_camera
  local begun ended
  begun=$(date -u +%Y%m%d/%H%M%S)
  camctl trigger web1
  eventually 10 recorded 1
  ended=$(date -u +%Y%m%d/%H%M%S)
  local file
  file=$(recordings)
  file=${file#"$board/usb/"}
  [[ ! ${file%.jpg} < $begun && ! ${file%.jpg} > $ended ]] || fail "$file: not $begun to $ended"
}

test_web1_stores_the_picture_and_pulses_the_output() {
  write_events 'Source = 6' 'Usb = 1' 'Out1 = 1' 'Out1Duration = 1'
  start_camera
  camctl trigger web1
  eventually 10 output_is 1 1
  eventually 5 in_status "output1 on"
  eventually 10 output_is 1 0
  eventually 5 in_status "output1 off"
  eventually 1 happened 525
  eventually 5 recorded 1
  stop_daemon
  cmp "$picture" "$(recordings)"
  expect "$(count_events 525)" 1 "firings"
}

test_web2_stores_the_picture_and_sounds_the_buzzer() {
  write_events 'Source = 5' 'Usb = 1' 'Buzzer = 1' 'BuzzerTone = 2'
  start_camera
  camctl trigger web1
  camctl trigger web2
  eventually 10 called 'ptcmd BTONE=3'
  eventually 5 happened 520
  eventually 5 recorded 1
  stop_daemon
  cmp "$picture" "$(recordings)"
  expect "$(count_events 520)" 1 "firings"
}

test_digital_input_fires_on_its_signal() {
  write_events 'Source = 2' 'Usb = 1' 'Out2 = 1' 'Out2Duration = 1'
  start_camera
  expect "$(cat "$board/run/camera/io/input_used")" 1 "the input's icon"
  camctl input on
  eventually 5 in_status "input on"
  camctl input off
  eventually 5 in_status "input off"
  ! happened 501 || fail "the input's state alone has fired"
  camctl trigger input
  eventually 10 happened 501
  eventually 5 happened 513
  eventually 5 happened 523
  eventually 5 output_is 2 1
  eventually 5 output_is 2 0
  eventually 5 recorded 1
}

test_privacy_suppresses_actions() {
  write_events 'Source = 6' 'Usb = 1' 'Out1 = 1' 'Buzzer = 1'
  start_camera
  camctl privacy on
  eventually 5 in_status "privacy on"
  camctl trigger web1
  eventually 10 happened 516
  eventually 5 happened 526
  eventually 5 happened 522
  expect "$(recordings)" "" "recordings"
  output_is 1 0 || fail "the output is on"
  ! called ptcmd || fail "the buzzer sounds"
  camctl privacy off
  eventually 5 in_status "privacy off"
  camctl trigger web1
  eventually 10 recorded 1
}

test_reload_builds_the_new_events() {
  write_events 'Source = 6' 'Usb = 1'
  start_camera
  expect "$(cat "$board/run/camera/io/input_used")" 0 "the input's icon"
  write_events 'Source = 2' 'Usb = 1'
  local begun
  begun=$(now_ms)
  camctl reload
  input_is_used() { [ "$(cat "$board/run/camera/io/input_used")" = 1 ]; }
  eventually 6 input_is_used
  [ $(($(now_ms) - begun)) -lt $((5000 * slow)) ] || fail "took $(($(now_ms) - begun)) ms"
  camctl trigger input
  eventually 5 happened 513
}

test_output_is_switched_off_when_its_event_goes() {
  write_events 'Source = 6' 'Out1 = 1' 'Out1Duration = 600'
  start_camera
  camctl trigger web1
  eventually 10 output_is 1 1
  write_events 'Source = 6' 'Buzzer = 1'
  camctl reload
  eventually 10 output_is 1 0
}

test_output_is_switched_off_at_the_end() {
  write_events 'Source = 6' 'Out1 = 1' 'Out1Duration = 600'
  start_camera
  camctl trigger web1
  eventually 10 output_is 1 1
  stop_daemon
  eventually 2 output_is 1 0
}

test_schedule_that_never_comes_fires_nothing() {
  printf '[Main]\nMax = 1\n[1]\nErased = 0\nName = weekend\nWeekdays = 0000000\nItems = 1\n' \
    >"$board/etc/schedule.conf"
  printf 'Start1 = 00:00:00\nStop1 = 23:59:59\n' >>"$board/etc/schedule.conf"
  printf '[Main]\nMax = 1\n[1]\nErased = 0\nSchedule = weekend\nSource = 3\nInterval = 1\nUsb = 1\n' \
    >"$board/etc/events.conf"
  start_camera
  sleep 4
  expect "$(recordings)" "" "recordings"
  sed -i s/0000000/1111111/ "$board/etc/schedule.conf"
  camctl reload
  eventually 12 recorded 1
}

test_clock_is_set_on_its_schedule() {
  called ntpc && fail "before the start"
  printf '[System]\nSync Schedule = 0.0003\n' >"$board/etc/sys.conf"  # 1 s, looked at each 3 s
  start_camera
  eventually 12 called ntpc
  printf '[System]\nSync Schedule = 0\n' >"$board/etc/sys.conf"
  rm -f "$board/run/camera/io/input_used"
  camctl reload
  eventually 10 events_are_built
  sleep 1  # what the same pass has called in the background may still be writing its line
  local before
  before=$(grep -c ntpc "$board/var/log/camera/board.log")
  sleep 4
  expect "$(grep -c ntpc "$board/var/log/camera/board.log")" "$before" "calls after it was switched off"
}

test_watch_shows_events_as_they_fire() {
  write_events 'Source = 6' 'Buzzer = 1'
  start_camera
  camctl watch >"$work/watch" &
  boxes+=($!)
  camctl trigger web1
  eventually 10 grep -q 'event 520' "$work/watch"
}
