# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154
# Kills the servers that a camera delivers to. Sourced by kills.sh in a subshell.
# shellcheck source=/dev/null  # looked at by itself
. "$root/tests/board/delivery_faults.sh"

# kill_deliveries: the servers for FTP and mail, under a camera that delivers to them every second.
kill_deliveries() {
  use_board deliveries
  slow=4  # no promise of time is looked at here
  make_servers
  serve_both
  deliver_to_servers
  events_of 'Source = 3; Interval = 1; Ftp = 1; FtpDuration = 1' \
    'Source = 3; Interval = 1; Mail = 1; Subject = Look'
  start_daemon
  eventually 20 events_are_built
  both_arrive
  local kind killed=0
  while time_is_left 30 || [ $killed -lt 3 ]; do
    kind=$([ $((RANDOM % 2)) -eq 0 ] && echo ftp || echo mail)
    sleep "0.$((RANDOM % 900 + 100))"
    kill -KILL "${server[$kind]}"
    killed=$((killed + 1))
    echo $killed >"$work/killed-deliveries"
    sleep "0.$((RANDOM % 900 + 100))"
    serve "$kind"
    eventually 30 grep -q '^ready' "$work/$kind.said"
    frames_go_on
  done
  eventually 30 uploaded $(($(uploads | wc -l) + 1))
  eventually 30 mailed $(($(mails | wc -l) + 1))
  stop_daemon
  expect "$status" 0 "exit status"
  end_servers
}
