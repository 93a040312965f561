# shellcheck shell=bash
# Builds: release
# Asks the daemon to end at random moments, in every mode and under faults: servers that fall silent, a
# share that hangs, drivers that hang or fail, hardware that is dead, a full disk, a command that hangs;
# during the start, while it records, builds its events anew, pauses after an action, or has an output on.
# shellcheck source=kills/lives.sh
. "$here/kills/lives.sh"

exits_promise="exits"

# exits_with_a_server SECONDS: a camera that records to a share whose server may hang.
exits_with_a_server() {
  # shellcheck source=../board/share.sh
  . "$root/tests/board/share.sh"
  use_board shared
  start_server
  share_is
  smb=server
  lives_on shared --exits --model K310 --films --server "$server" --for "$1"
  smb=none
}

trial_exits() {
  local time=$(($1 - 12)) tried promised
  [ "$time" -ge 5 ] || time=5
  exits_with_a_server "$time"
  usb=2M
  lives_on file --exits --disk --for "$time"
  lives_on file2 --exits --for "$time"
  smb=64M
  lives_on b520 --exits --disk --model B520 --films --for "$time"
  lives_on k310 --exits --disk --model K310 --films --for "$time"
  end_lives
  tried="$(sum_of exits) ends by SIGTERM on 5 boards in $SECONDS s"
  promised="$exits_promise: gone in less than 5 s"
  if complains 'it does not end|the end is late|an end out of order'; then
    broken "$promised" "$tried" "$(complaints 'it does not end|the end is late|an end out of order')"
  else
    held "$promised" "$tried" "$(untried "$(sum_of exits)" ends)at most $(largest_of exit-most-ms) ms; $(sum_of exits-by-the-watchdog) by the watchdog, with hardware that was dead, hung or failing"
  fi
  if complains 'an output'; then
    broken "$exits_promise: outputs off" "$tried" "$(complaints 'an output')"
  else
    held "$exits_promise: outputs off" "$tried" "off each time"
  fi
  if complains 'a film|a picture|an earlier|the event log'; then
    broken "$exits_promise: files closed" "$tried" "$(complaints 'a film|a picture|an earlier|the event log')"
  else
    held "$exits_promise: files closed" "$tried" "$(untried "$(sum_of films)" films "$(sum_of pictures)" pictures)$(sum_of films) films and $(sum_of pictures) pictures, $(sum_of event-lines) event lines"
  fi
}
