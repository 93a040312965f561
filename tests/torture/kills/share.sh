# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154
# Kills what stands behind a share to which a camera records. Sourced by kills.sh in a subshell.
here=$root/tests/board
# shellcheck source=/dev/null  # looked at by itself
. "$root/tests/board/samba_recording.sh"

# mount_again WORD: the camera mounts it when the events are built. On a busy machine that takes longer than
# smb.sh waits, and only other settings are tried at once.
mount_again() {
  local try
  for try in 1 2 3 4 5 6; do
    share_is "# $1 $try"
    rebuild_events
    if is_mounted; then return; fi
  done
  fail "it is not mounted"
}

# kill_share: its server, the process that serves the mount, and that one's guard.
kill_share() {
  use_board share
  slow=4  # no promise of time is looked at here
  start_server
  start_recorder server K310
  is_mounted || mount_again 'at first'
  local killed=0 victims
  while time_is_left 40 || [ $killed -lt 2 ]; do
    record
    sleep "0.$((RANDOM % 900 + 100))"
    victims=()
    case $((RANDOM % 3)) in
      0) victims=("$server") ;;
      1) mapfile -t victims < <(serving | shuf -n 1) ;;
      2) mapfile -t victims < <(serving) ;;
    esac
    kill -KILL "${victims[@]}" 2>/dev/null || true
    killed=$((killed + ${#victims[@]}))
    echo $killed >"$work/killed-share"
    frames_go_on
    if is_gone "$server"; then start_server "$port"; fi
    mount_again "$killed"
  done
  record
  stop_daemon
  expect "$status" 0 "exit status"
  eventually 5 nothing_serves
  while read -r film; do
    [ ! -s "$film" ] || avi_check --cut "$film"
  done < <(films)
  stop_server
}
