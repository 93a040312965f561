# shellcheck shell=bash
# What the trials share, beside what the board tests have: saying what came of a promise, several boards,
# time. Sourced by run_trial, which sets $root, $builds, $name, $seconds, $seed and $result.
# shellcheck disable=SC2034,SC2154

ended=no
RANDOM=$seed

# use_build PRESET: from now on boards and programs are those of this build.
use_build() {
  build=$builds/$1
  # shellcheck source=../board/lib.sh
  . "$root/tests/board/lib.sh"
}

# held PROMISE TRIED REACHED: a line of the table. broken: the same for a promise that did not hold. The
# trial may go on and say more. All in one line each, short: "10,000 kills of 8 daemons in 1,200 s".
held() { printf 'yes\t%s\t%s\t%s\n' "$1" "$2" "$3" >>"$result"; }
broken() { printf 'NO\t%s\t%s\t%s\n' "$1" "$2" "$3" >>"$result"; }

# judge COMMAND... -- PROMISE TRIED REACHED: held iff the command succeeds.
judge() {
  local command=()
  while [ "$1" != -- ]; do
    command+=("$1")
    shift
  done
  shift
  if "${command[@]}"; then held "$@"; else broken "$@"; fi
}

# untried NUMBER WHAT...: begins what a line says that it reached, when what it is about did not happen.
untried() {
  local none=''
  while [ $# -gt 0 ]; do
    [ "$1" -gt 0 ] || none+="${none:+, }no $2"
    shift 2
  done
  [ -z "$none" ] || echo "not tried, the time was too short: $none; "
}

end_trial() {
  local status=$?
  set +e
  if [ "$ended" = no ]; then
    see_daemon
    broken "$name" "the trial ended early" "status $status; the daemon $daemon_state"
  fi
  (exit $status)
  tear_down
}

# time_is_left [RESERVE]: true while more than RESERVE seconds are left of the trial's time, 0 by default.
time_is_left() { [ $SECONDS -lt $((seconds - ${1:-0})) ]; }

# use_board NAME: from now on $board, $log, $events and $picture are those of this board of the trial, which
# is made where it is not there. Processes of several boards at once want a subshell each.
use_board() {
  board=$work/$1
  log=$board/var/log/camera/daemon.log
  events=$board/var/log/camera/events.log
  picture=$board/home/test.jpg
  if [ ! -e "$board/.board" ]; then
    "$root/board/make" "$board"
    : >"$log"
  fi
}

# resident PID: KiB of memory that are the process's own, without what it shares.
resident() { awk '$1 == "RssAnon:" {print $2}' "/proc/$1/status"; }

# random LIMIT: a number from 0 to LIMIT - 1 in $random, up to 2^30.
random() { random=$(((RANDOM << 15 | RANDOM) % $1)); }
