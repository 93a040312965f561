# shellcheck shell=bash
# Cameras that live again and again, each in a board of its own, and what came of their lives. Sourced.
# shellcheck disable=SC2154

lives=()  # the processes of the cameras

# lives_on BOARD [OPTION OF lives...]: a camera that lives again and again, in a board of that name.
lives_on() {
  use_board "$1"
  cp "$build/core/video_svr" "$build/board/socmond" "$build/board/hardware/hardware" \
    "$build/tools/boardctl" "$build/board/drivers/libvs_drivers.so" "$board/home/"
  cp -R /etc/alternatives "$board/etc/"  # some libraries of the hardware are found by it
  [ "$smb" = server ] || printf '[Samba]\nEnable = 1\n' >"$board/etc/sys.conf"
  shift
  random 1000000
  launch "$build/tests/torture/kills/lives" --seed "$random" "$@"
  lives+=("$box")
}

# end_lives: waits until all are done, and puts together what came of them.
end_lives() {
  local one
  for one in "${lives[@]}"; do wait "$one" || broken "$name" "a camera that lives many times" "its program ended with $?"; done
  cat "$work"/*/home/lives.report >"$work/reports"
  cat "$work/output"
  sort "$work/reports"
}

# sum_of WHAT, largest_of WHAT: of all boards.
sum_of() { awk -v what="$1" '{n = $NF; sub(/ [0-9]+$/, "")} $0 == what {sum += n} END {print sum + 0}' "$work/reports"; }
largest_of() { awk -v what="$1" '$1 == what && $2 > n {n = $2} END {print n + 0}' "$work/reports"; }

# complaints WORDS: what did not hold, of the kinds that match; the first ones.
complaints() { grep -E "^! ($1)" "$work/reports" | cut -c1-300 | head -n 3 | tr '\n\t' '; '; }
# complains WORDS
complains() { grep -qE "^! ($1)" "$work/reports"; }

# left_in_boards: processes that run in one of the boards still, sockets and files that nobody needs.
left_in_boards() {
  local one entry
  for one in "$work"/*/.board; do
    one=${one%/.board}
    for entry in /proc/[0-9]*; do
      if [ "$entry/root/etc/sys.conf" -ef "$one/etc/sys.conf" ] && ! is_gone "${entry#/proc/}"; then
        echo "${one##*/}: $(tr '\0' ' ' <"$entry/cmdline" 2>/dev/null)"
      fi
    done
    find "$one/tmp" "$one/run/camera/msg" "$one/usb" ! -type d ! -name socmond ! -name video_svr ! -path "$one/usb/[0-9]*" 2>/dev/null
    find "$one/dev/shm/camera/" ! -type d ! -name video ! -name video2 ! -name audio 2>/dev/null | tail -n +4
  done
}
nothing_is_left() { [ -z "$(left_in_boards)" ]; }
