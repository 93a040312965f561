# shellcheck shell=bash
# Waiting for conditions and ending processes; sourced.

# await SECONDS COMMAND...: runs the command until it succeeds. Returns non-zero when it has not within
# that time.
await() {
  local limit=$1 end
  shift
  end=$(($(date +%s%N) + limit * 1000000000))
  until "$@"; do
    [ "$(date +%s%N)" -lt "$end" ] || return 1
    sleep 0.05
  done
}

# is_gone PID: true iff no such process runs; one that only waits for its parent to notice is gone.
is_gone() {
  local state
  state=$(sed -n 's/^State:[[:space:]]*\(.\).*/\1/p' "/proc/$1/status" 2>/dev/null) || true
  [[ $state == '' || $state == Z || $state == X ]]
}

# end_process PID SECONDS: asks a process to end; kills it, and returns non-zero, when it has not within
# that time.
end_process() {
  kill -TERM "$1" 2>/dev/null || return 0
  if ! await "$2" is_gone "$1"; then
    kill -KILL "$1" 2>/dev/null || true
    return 1
  fi
}
