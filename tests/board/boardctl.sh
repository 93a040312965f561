# shellcheck shell=bash
# The physical side of a board as far as it lies around the hardware: the disk, and who has drivers.

drivers=$build/board/drivers/libvs_drivers.so

# start_box: a program in a box of its own; $pid is its process.
start_box() {
  rm -f -- "$board/run/sleep.pid"
  launch sleep 1000
  eventually 10 test -s "$board/run/sleep.pid"
  pid=$(<"$board/run/sleep.pid")
  eventually 10 sleeps
}
sleeps() { [ "$(cat "/proc/$pid/comm")" = sleep ]; }

has_disk() { grep -q ' /usb ' "/proc/$pid/mountinfo"; }
# is_full: true iff nothing can be written to the box's disk.
is_full() { ! echo text 2>/dev/null >"/proc/$pid/root/usb/more"; }

come_and_go() {
  echo text >"$board/usb/file"
  has_disk || fail "there is no disk at first"
  boardctl usb unplug
  ! has_disk || fail "the disk is still there"
  expect "$(ls "/proc/$pid/root/usb")" "" "what is left at /usb"
  boardctl usb unplug
  boardctl usb plug
  has_disk || fail "the disk does not come back"
  expect "$(cat "/proc/$pid/root/usb/file")" text "what was on the disk"
  boardctl usb plug
  expect "$(grep -c ' /usb ' "/proc/$pid/mountinfo")" 1 "disks at /usb"
}

test_usb_comes_and_goes() {
  start_box
  come_and_go
}

test_usb_in_memory_keeps_what_is_on_it() {
  usb=1M
  start_box
  echo text >"/proc/$pid/root/usb/file"
  boardctl usb unplug
  ! has_disk || fail "the disk is still there"
  boardctl usb plug
  expect "$(cat "/proc/$pid/root/usb/file")" text "what was on the disk"
}

test_usb_comes_where_none_was() {
  usb=none
  echo text >"$board/usb/file"
  start_box
  ! has_disk || fail "there is a disk at first"
  boardctl usb plug
  expect "$(cat "/proc/$pid/root/usb/file")" text "what is on the disk"
}

test_usb_is_full_until_plugged_again() {
  start_box
  ! is_full || fail "the disk is full at first"
  boardctl usb fill
  is_full || fail "there is space left"
  expect "$(stat -c %s "/proc/$pid/root/usb/full")" 1048576 "the size of the full disk"
  boardctl usb fill 64K
  is_full || fail "there is space left"
  expect "$(stat -c %s "/proc/$pid/root/usb/full")" 65536 "the size of the full disk"
  boardctl usb unplug
  ! has_disk || fail "the disk is still there"
  boardctl usb plug
  ! is_full || fail "the disk is full"
  expect "$(cat "$board/usb/more")" text "what was written to the disk"
}

test_usb_goes_for_every_program() {
  start_box
  local first=$pid
  cp "$(command -v sleep)" "$board/home/other"
  launch /home/other 1000
  eventually 10 test -s "$board/run/other.pid"
  pid=$(<"$board/run/other.pid")
  eventually 10 grep -q other "/proc/$pid/comm"
  boardctl usb unplug
  ! has_disk || fail "the disk is still there"
  pid=$first
  ! has_disk || fail "the disk is still there"
}

test_usb_needs_no_privileges() {
  local user=12345
  [ "$(id -u)" -eq 0 ] || skip "all tests run without privileges"
  setpriv --reuid $user --regid $user --clear-groups test -x "$build/tools/boardctl" ||
    skip "others may not look into $build"
  chown -R $user:$user "$work"
  chmod 755 "$work"
  board=$work/other
  log=$work/log
  as_user() { setpriv --reuid $user --regid $user --clear-groups "$@"; }
  as_user "$root/board/make" "$board"
  as_user "$root/board/enter" "$board" sleep 1000 </dev/null >"$log" 2>&1 &
  boxes+=($!)
  eventually 10 test -s "$board/run/sleep.pid"
  pid=$(<"$board/run/sleep.pid")
  eventually 10 sleeps
  boardctl() { as_user "$build/tools/boardctl" --board "$board" "$@"; }
  come_and_go
  boardctl usb fill
  expect "$(as_user stat -c %s "/proc/$pid/root/usb/full")" 1048576 "the size of the full disk"
}

test_usb_of_a_board_without_programs() {
  local text
  if text=$(boardctl usb plug 2>&1); then fail "a disk is plugged into nothing"; fi
  expect "$text" "boardctl: no program runs in a box of $board (proot makes none)" "what it says"
}

test_drivers_are_the_commands_alone() {
  start_hardware
  expect "$("$root/board/enter" --drivers "$drivers" "$board" head -c 2 /dev/video0 | od -An -tx1)" \
    " ff d8" "the beginning of a picture"
  expect "$("$root/board/enter" --drivers "$drivers" "$board" sh -c 'env; true')" \
    "$("$root/board/enter" "$board" sh -c 'env; true')" "the environment of what a command starts"
  expect "$("$root/board/enter" --with proot --drivers "$drivers" "$board" head -c 2 /dev/video0 |
    od -An -tx1)" " ff d8" "the beginning of a picture"
}

test_manual_page_is_well_formed() {
  command -v mandoc >/dev/null || skip "mandoc is not installed"
  # The other manual pages need not be installed here.
  expect "$(mandoc -T lint "$root/tools/boardctl/boardctl.1" | grep -v 'referenced manual not found')" \
    "" "what mandoc says"
}
