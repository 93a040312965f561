# shellcheck shell=bash
# Commands that the daemon starts: what they inherit, and that nothing of them stays.

# A buzzer that writes down what it was given.
nosy_buzzer() {
  {
    echo '#!/bin/sh'
    echo 'fds=$(ls -l /proc/self/fd)'
    echo 'echo "$fds" >/var/log/camera/fds'
    echo 'signals=$(grep -E "^Sig(Ign|Blk)" /proc/self/status)'
    echo 'echo "$signals" >/var/log/camera/signals'
    echo 'echo >/var/log/camera/nosy'
  } >"$board/sbin/ptcmd"
  write_events 'Source = 6' 'Buzzer = 1'
  start_camera
  camctl trigger web1
  eventually 10 test -e "$board/var/log/camera/nosy"
}

test_commands_inherit_no_descriptor() {
  nosy_buzzer
  # 0 to 2 are the command's; 3 is the folder that ls looks into.
  local others
  others=$(awk '$(NF - 1) == "->" && $(NF - 2) > 3' "$board/var/log/camera/fds")
  expect "$others" "" "descriptors"
}

# SIGINT and SIGQUIT are ignored by what a shell starts with "&"; nothing else may be, but for the two
# real-time signals that the C library keeps to itself and leaves as it finds them.
test_commands_start_with_default_signals() {
  nosy_buzzer
  local ignored blocked
  ignored=$(awk '/SigIgn/ {print $2}' "$board/var/log/camera/signals")
  blocked=$(awk '/SigBlk/ {print $2}' "$board/var/log/camera/signals")
  expect $((0x$ignored & ~0x180000006)) 0 "ignored signals"
  expect $((0x$blocked)) 0 "blocked signals"
}

test_commands_leave_no_zombie() {
  write_events 'Source = 3' 'Interval = 1' 'Buzzer = 1'
  start_camera
  three_firings() { [ "$(count_events 521)" -ge 3 ]; }
  eventually 15 three_firings
  no_children() { [ -z "$(cat /proc/"$daemon"/task/*/children)" ]; }
  eventually 5 no_children
}

test_descriptors_do_not_grow() {
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1' 'Buzzer = 1' 'Out1 = 1'
  start_camera
  eventually 10 recorded 2
  # Value files stay open from the first look on.
  io_is_open() { [ "$(find "/proc/$daemon/fd" -lname '*/run/camera/io/*' 2>/dev/null | wc -l)" -eq 4 ]; }
  eventually 10 io_is_open
  local before
  before=$(ls "/proc/$daemon/fd" | wc -l)
  for _ in 1 2; do
    rm -f "$board/run/camera/io/input_used"
    camctl reload
    eventually 10 events_are_built
  done
  sleep 3
  # A file or a socket may be open just now.
  local after
  after=$(ls "/proc/$daemon/fd" | wc -l)
  [ "$after" -le $((before + 2)) ] || fail "$before descriptors became $after"
}
