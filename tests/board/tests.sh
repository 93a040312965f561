# shellcheck shell=bash
# What the tests of the daemon rely on themselves: that one of them ends nobody else's processes, and that it
# says how its daemon has ended.
# shellcheck disable=SC2154  # run_case and lib.sh set them

# Numbers of processes come again after some ten thousand others, within minutes when many tests run. Those
# of a test's own that had ended were killed at its end all the same, and with them a camera of another test.
test_the_end_of_a_test_kills_nobody_who_has_its_numbers_now() {
  once_is_enough
  local outer=$work other
  env -u XDG_RUNTIME_DIR sleep 60 &
  other=$!
  boxes+=("$other")
  (
    boxes=("$other")
    set_up
    yes | sleep 60 &
    boxes+=($!)
    echo $! >"$outer/job"
    echo "$other" >"$board/run/video_svr.pid"
    sleep 60 &
    echo $! >"$board/run/socmond.pid"
    cp "$board/run/socmond.pid" "$outer/in_board"
    tear_down
  )
  is_gone "$(cat "$outer/job")" || fail "a process of the test goes on"
  is_gone "$(cat "$outer/in_board")" || fail "a process of the board goes on"
  ! is_gone "$other" || fail "another one's process was killed"
}

test_the_end_of_a_daemon_is_told() {
  once_is_enough
  see_daemon
  expect "$daemon_state" 'was not started' "before"
  start_daemon
  see_daemon
  expect "$daemon_state" 'runs' "while it runs"
  kill -KILL "$daemon"
  eventually 5 is_gone "$daemon_box"
  see_daemon
  expect "$daemon_state" 'was ended by SIGKILL' "afterwards"
  rm -rf "$board/dev/shm/camera"  # so that frames are of the next one, which hears the signal by then
  start_daemon
  eventually 10 has_frames
  stop_daemon
  see_daemon
  expect "$daemon_state" 'ended with status 0' "after an end in order"
}

# A sanitizer's runtime, which a daemon with drivers is preloaded with, found leaks in the programs of the
# commands that the daemon runs. What can't be preloaded says so in each program that it comes into.
test_what_is_preloaded_stays_out_of_commands_that_a_board_pretends_to_have() {
  once_is_enough
  "$root/board/enter" "$board" env LD_PRELOAD=/nowhere.so /sbin/boardlog rtchk 2>"$work/said"
  expect "$(grep -c 'nowhere.so' "$work/said")" 1 "programs that have it"
  grep -q rtchk "$board/var/log/camera/board.log" || fail "it does not write down that it was called"
}
