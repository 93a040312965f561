# shellcheck shell=bash
# Builds: release
# Kills the daemon, those who read from it and those who work beside it, at random moments, on several
# boards side by side: during the start, while it records, builds its events anew, or ends.
# shellcheck source=kills/lives.sh
. "$here/kills/lives.sh"

kills_promise="killed at any moment"

# beside NAME: has the script of that name kill what is its own meanwhile.
beside() {
  (
    trap - EXIT
    # shellcheck disable=SC1090  # one of the scripts in that folder
    . "$here/kills/$1.sh"
    "kill_$1"
  ) >"$work/$1.said" 2>&1 &
  beside+=($!)
}
beside=()

# killed NAME: how many processes what ran beside has killed.
killed() { cat "$work/killed-$1" 2>/dev/null || echo 0; }

# outcome NAME: of what ran beside.
outcome() {
  grep '^FAILED' "$work/$1.said" ||
    echo "$(untried "$(killed "$1")" kills)frames go on, and it delivers again after each"
}

frames_go_on() {
  local before
  before=$(slot frame-count)
  more_frames() { [ "$(slot frame-count)" -gt "$before" ]; }
  eventually 5 more_frames
}

# judge_lives BOARDS
judge_lives() {
  local kinds='a frame|a reader' tried
  tried="$(sum_of kills-of-daemons) kills of daemons, $(sum_of kills-of-readers) of readers, $(sum_of kills-of-peers) of peers on $1 boards in $SECONDS s"
  local firsts late
  firsts=$(sum_of first-pictures)
  late=$(sum_of first-pictures-late)
  local pace
  pace="$firsts first pictures, on average after $(($(sum_of first-picture-sum-ms) / (firsts > 0 ? firsts : 1))) ms, at most $(largest_of first-picture-most-ms) ms, beside the second in which a K310's input settles"
  if complains 'the first picture'; then
    broken "$kills_promise: first picture at most 1 s after restart" "$tried" "$(complaints 'the first picture')"
  else
    [ "$late" -eq 0 ] || pace="$pace; the $late after 1 s by the machine"
    held "$kills_promise: first picture at most 1 s after restart" "$tried" "$(untried "$firsts" 'first pictures')$pace"
  fi
  if complains "$kinds"; then
    broken "$kills_promise: readers see whole frames only" "$tried" "$(complaints "$kinds")"
  else
    held "$kills_promise: readers see whole frames only" "$tried" \
      "$(untried "$(sum_of frames)" frames "$(sum_of kills-of-readers)" 'kills of readers')$(sum_of frames) frames judged across all restarts, no bad one"
  fi
  kinds='a film|a picture|one kill|an earlier|the event log'
  if complains "$kinds"; then
    broken "$kills_promise: no file damaged" "$tried" "$(complaints "$kinds")"
  else
    held "$kills_promise: no file damaged" "$tried" \
      "$(untried "$(sum_of films)" films "$(sum_of pictures)" pictures)$(sum_of films) films (up to $(largest_of film-lag-ms) ms ahead of the kill, all repaired), $(sum_of pictures) pictures ($(sum_of pictures-cut) that was being written cut), $(sum_of event-lines) event lines, $(sum_of files-seen-again) older files as they were"
  fi
  if complains 'the daemon|the hardware'; then
    broken "$kills_promise" "$tried" "$(complaints 'the daemon|the hardware')"
  fi
}

# judge_besides: what ran beside, when it has ended.
judge_besides() {
  local code=0
  wait "${beside[0]}" || code=$?
  judge [ $code -eq 0 ] -- "$kills_promise: peers" "$(killed deliveries) kills of servers for FTP and mail" \
    "$(outcome deliveries)"
  code=0
  wait "${beside[1]}" || code=$?
  judge [ $code -eq 0 ] -- "$kills_promise: peers" "$(killed share) kills of the share's server, its helper and guard" \
    "$(outcome share)"
}

trial_kills() {
  local n time=$(($1 - 6))
  [ "$time" -ge 5 ] || time=5
  local boards=6
  beside deliveries
  beside share
  for n in 1 2 3 4; do lives_on "file$n" --for $time; done
  smb=64M
  lives_on b520 --model B520 --films --for $time
  lives_on k310 --model K310 --films --for $time
  end_lives
  judge_lives $boards
  judge_besides
  if await 10 nothing_is_left; then
    held "$kills_promise: no leftovers" "the same" "no process, socket or file in $boards boards"
  else
    broken "$kills_promise: no leftovers" "the same" "$(left_in_boards | head -n 3 | tr '\n' ';') in $boards boards"
  fi
  tail -n 5 "$work"/*.said
}
