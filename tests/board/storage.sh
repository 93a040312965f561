# shellcheck shell=bash
# The USB storage: absent, read-only, full, pulled, and names that try to leave it.

interval_recording() { write_events 'Source = 3' 'Interval = 1' 'Usb = 1' "$@"; }

still_alive() {
  local before
  before=$(slot frame-count)
  more_frames() { [ "$(slot frame-count)" -gt "$before" ]; }
  eventually 5 more_frames
}

needs_bwrap() { bwrap --bind / / true 2>/dev/null || skip "bubblewrap does not work here"; }

test_not_mounted() {
  usb=none
  interval_recording
  start_camera
  eventually 10 happened 515
  still_alive
}

test_read_only() {
  needs_bwrap
  usb=read-only
  interval_recording
  start_camera
  eventually 10 happened 517
  expect "$(recordings)" "" "recordings"
  still_alive
}

# 1 MiB holds 27 pictures; at 96 % no more is begun, and what is there is whole.
test_full() {
  needs_bwrap
  usb=1M
  head -c 400000 /dev/urandom >"$board/home/filler"
  printf '\n[Buffers]\nVideoFrameSize = 500000\nVideo2FrameSize = 500000\n' >>"$board/etc/camera.conf"
  { cat "$picture" && cat "$board/home/filler"; } >"$board/home/large.jpg"
  interval_recording
  start_camera -n/home/large.jpg -f2 -mv
  eventually 20 happened 517
  eventually 5 grep -q 'ptcmd BTONE=1' "$board/var/log/camera/board.log"
  local whole=0 file
  for file in "/proc/$daemon/root"/usb/*/*; do
    if cmp -s "$board/home/large.jpg" "$file"; then whole=$((whole + 1)); fi
  done
  [ $whole -ge 1 ] || fail "no recording is whole: $(ls -l "/proc/$daemon/root"/usb/*)"
  still_alive
}

test_pulled_while_recording() {
  needs_bwrap
  usb=1M
  interval_recording
  start_camera
  eventually 10 happened 514
  mounted() { grep -q ' /usb ' "/proc/$daemon/mountinfo"; }
  mounted || fail "there is no storage to be pulled"
  local enter=(nsenter -t "$daemon" -m)
  [ "$(id -u)" -eq 0 ] || enter=(nsenter -t "$daemon" -U -m --preserve-credentials)
  "${enter[@]}" /usr/bin/umount -l /usb || skip "a mount can't be taken away here"
  eventually 10 happened 515
  still_alive
}

# Nothing outside of the storage is ever written.
climbs() {
  interval_recording "UsbFolder = $1"
  start_camera
  eventually 5 logged "unsafe path refused"
  eventually 10 happened 514
  still_alive
  stop_daemon
  expect "$(find "$work" -name '*.jpg' ! -path "$board/home/*" ! -path "$board/usb/*")" "" "outside"
}
test_folder_that_climbs_out() { climbs ../../tmp/x; }
test_folder_that_climbs_out_in_the_middle() { climbs a/../../b; }
test_folder_with_a_control_character() { climbs $'a\tb'; }

test_folder_that_is_absolute_stays_on_the_storage() {
  interval_recording 'UsbFolder = /tmp/x'
  start_camera
  eventually 10 recorded 1
  stop_daemon
  expect "$(recordings | grep -cv "^$board/usb/tmp/x/")" 0 "recordings elsewhere"
  expect "$(find "$board/tmp" -type f)" "" "outside"
}

test_folder_name_of_63_and_more_characters_is_cut() {
  local name
  name=$(printf 'n%.0s' {1..80})
  interval_recording "UsbFolder = $name"
  start_camera
  eventually 10 recorded 1
  [ -d "$board/usb/${name:0:63}" ] || fail "$(ls "$board/usb")"
}
