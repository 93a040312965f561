# shellcheck shell=bash
# Configuration files that are missing, broken or hostile: the daemon goes on.

# Frames flow and a good events file is taken up later.
lives() {
  start_camera
  camctl grab "$work/grabbed.jpg"
  cmp "$picture" "$work/grabbed.jpg"
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1'
  camctl reload
  eventually 12 recorded 1
}

for_all_files() {
  local name
  for name in events schedule sys camera; do "$@" "$board/etc/$name.conf"; done
}

binary() { head -c 20000 /dev/urandom >"$1"; }
empty() { : >"$1"; }
half_written() { head -c "$(($(stat -c %s "$1") * 2 / 3))" "$1" >"$1.half" && mv "$1.half" "$1"; }
long_lines() {
  local line
  line=$(printf 'x%.0s' {1..100000})
  printf '%s\n[%s]\n%s = %s\nMax = %s\n' "$line" "$line" "$line" "$line" "$line" >>"$1"
}

test_missing() {
  for_all_files rm
  lives
}
test_empty() {
  for_all_files empty
  lives
}
test_binary() {
  for_all_files binary
  lives
}
test_half_written() {
  for_all_files half_written
  lives
}
test_lines_of_100_kb() {
  for_all_files long_lines
  lives
}

test_folders_in_their_place() {
  for_all_files rm
  for_all_files mkdir
  start_camera
  camctl grab "$work/grabbed.jpg"
  cmp "$picture" "$work/grabbed.jpg"
}

test_numbers_without_measure() {
  local huge=99999999999999999999
  printf '[Main]\nMax = %s\n[1]\nErased = 0\nSchedule = always\nSource = 3\nInterval = %s\n' \
    2000000000 $huge >"$board/etc/events.conf"
  printf 'Usb = 1\nOut1 = %s\nBuzzerTone = -%s\n' $huge $huge >>"$board/etc/events.conf"
  printf '[Main]\nMax = 2000000000\n[1]\nErased=0\nName=x\nItems=2000000000\n' >"$board/etc/schedule.conf"
  printf '[System]\nSync Schedule = -1e999\n[Samba]\nEnable = soon\n' >"$board/etc/sys.conf"
  local begun
  begun=$(now_ms)
  start_camera
  # The refresh itself pauses for 2 seconds.
  [ $(($(now_ms) - begun)) -lt $((6000 * slow)) ] || fail "took $(($(now_ms) - begun)) ms"
  eventually 5 recorded 1
  eventually 5 in_status "output1 off"
  ! grep -q ntpc "$board/var/log/camera/board.log" 2>/dev/null || fail "the clock is set without end"
}

test_words_instead_of_numbers_are_named_in_the_log() {
  write_events 'Source = 3' 'Interval = often' 'Usb = 1'
  start_camera
  eventually 5 logged 'is not a number: often'
  eventually 5 recorded 1
}
