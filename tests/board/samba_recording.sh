# shellcheck shell=bash
# Recording to the share at /smb by the whole daemon: what the files hold, and what becomes of them when
# the share, or the daemon, goes away.
# shellcheck source=share.sh
. "$here/share.sh"

# Variables of the environment for those who have more time:
kill_rounds=${VS_KILL_ROUNDS:-3}  # how often the daemon is killed

needs_boxes() {
  bwrap --bind / / true 2>/dev/null || skip "bubblewrap does not work here"
}

# prepare_recorder [LINE OF sys.conf...]: an event that the first web trigger fires records for an hour.
prepare_recorder() {
  share_is "$@"
  write_events 'Source = 6' 'Smb = 1' 'SmbDuration = 3600'
  # A megabyte a second.
  configure Video Resolution 7
  configure Video CompressRate 1
  configure Video IpRatio 0
}

# start_recorder SHARE MODEL [LINE OF sys.conf...]: SHARE is a size, or "server". $share is the share as it
# is seen from here, also after the camera's end.
start_recorder() {
  local model=$2
  smb=$1
  shift 2
  prepare_recorder "$@"
  rm -f "$board/run/camera/io/input_used"
  start_model "$model"
  eventually 20 events_are_built
  share=$work/share
  [ "$smb" = server ] || hold_share "$daemon"
}

# hold_share PROCESS: a share in memory is seen in its box alone.
hold_share() {
  exec {held}<"/proc/$1/root/smb"
  share=/proc/$$/fd/$held
}

# films: the files on the share, in the order in which they were begun.
films() { { find "$share/camera/" -type f -printf '%T@ %p\n' 2>/dev/null || true; } | sort -n | cut -d' ' -f2-; }
newest() { films | tail -n 1; }
has_films() { [ "$(films | wc -l)" -ge "$1" ]; }
size_of() { stat -c %s "$1" 2>/dev/null || echo 0; }
# grown FILE BYTES: it has more than so many.
grown() { [ "$(size_of "$1")" -gt "$2" ]; }
grows() {
  eventually 5 test -e "$1"
  eventually 5 grown "$1" "$(size_of "$1")"
}

# record: has the event fired, and waits until a new file grows: $film.
record() {
  local before
  before=$(films | wc -l)
  camctl trigger web1
  eventually 10 has_films $((before + 1))
  film=$(newest)
  grows "$film"
}

# dump_stream: what the camera delivers from now on goes to $work/stream, until end_dump.
dump_stream() {
  "$build/tools/camctl" --board "$board" dump raw >"$work/stream" 2>/dev/null &
  dump=$!
  boxes+=("$dump")
  eventually 5 test -s "$work/stream"
}
end_dump() { end_process "$dump" 5 || fail "camctl does not end"; }

# judge_films FILE...: they hold the stream as it was, unbroken; what was seen is in $work/held.
film_check() { "$here/film_check" "$@" >"$work/held" || fail "$(cat "$work/held")"; }
judge_films() { film_check "$work/stream" "$@"; }
held() { jq -r "$1" "$work/held"; }

avi_check() { "$build/tests/avi_check/avi_check" "$@" >"$work/checked" || fail "$*: $(cat "$work/checked")"; }
checked() { jq -r "$1" "$work/checked"; }

# played FILE: how many pictures a player shows.
played() {
  ffprobe -v quiet -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 "$1"
}

# is_closed FILE: everybody finds it flawless, it begins with a key picture, and shows all that it has.
is_closed() {
  local said
  avi_check "$1"
  said=$(ffprobe -v warning "$1" 2>&1)
  [ -z "$said" ] || fail "ffprobe of $1: $said"
  expect "$(played "$1")" "$(checked .pictures)" "pictures of $1 that are shown"
  said=$(ffprobe -v quiet -show_entries packet=flags -of csv=p=0 -read_intervals '%+#1' "$1")
  [[ $said == K* ]] || fail "$1 begins with no key picture"
}
all_are_closed() {
  local file
  while read -r file; do is_closed "$file"; done < <(films)
}


nothing_was_missed() { expect "$(held 'map(.missed) | add')" 0 "bytes between the films"; }

ends_in_time() {
  stop_daemon "$@"
  [ "$took" -lt 5000 ] || fail "took $took ms"
  expect "$(ls -A "$board/smb")" "" "the bare folder"
}

# --- what is recorded -----------------------------------------------------------------------------

# watch_growth FILMS: takes copies of what grows, at any moments, until there are so many films. Each plays
# up to its last second.
watch_growth() {
  local copy begun moments=() last
  while ! has_films "$1"; do
    film=$(newest)
    begun=$(date +%s%N)
    copy=$work/growing-${#moments[@]}.avi
    cp "$film" "$copy"
    moments+=("$((begun / 1000))")
    sleep "0.$((RANDOM % 90 + 10))"
  done
  for copy in "${!moments[@]}"; do
    film=$work/growing-$copy.avi
    [ "$(size_of "$film")" -gt 4096 ] || continue  # in its first moments there is nothing in it
    avi_check --cut "$film"
    last=$(checked .counted)
    [ "$(played "$film")" -ge "$last" ] || fail "a player does not show what the head of a copy tells of"
    judge_films "$film"
    last=$(held '.[0].told_us')
    # A copy of the first second may tell of its first picture alone.
    echo "copy $copy: $(((moments[copy] - last) / 1000)) ms"
    [ $((moments[copy] - last)) -lt 1500000 ] || fail "$(((moments[copy] - last) / 1000)) ms are missing in a copy"
  done
}

test_films_grow_and_are_split_by_size() {
  once_is_enough
  needs_boxes
  start_recorder 64M K310 'MaxSize = 1'
  dump_stream
  record
  watch_growth 3
  end_dump
  stop_daemon
  all_are_closed
  mapfile -t all < <(films)
  judge_films "${all[@]:0:2}"
  nothing_was_missed
  expect "$(held '[.[] | .told == .pictures] | all')" true "all is told of"
  for film in "${all[@]:0:2}"; do
    # The first key picture beyond the limit belongs to the next file.
    [ "$(size_of "$film")" -gt $((1 << 20)) ] || fail "$film is too short"
    [ "$(size_of "$film")" -lt $((3 << 19)) ] || fail "$film is too long"
    [[ $film =~ /camera/[0-9]{8}/[0-9]{6}(-[0-9]+)?\.avi$ ]] || fail "the name $film"
    expect "$(stat -c %a "$film")" 640 "mode of $film"
  done
}

# a_film_grows TAG WIDTH: of this kind. While a change is under way there may be others for a moment.
a_film_grows() {
  film=$(newest)
  local size
  size=$(size_of "$film")
  await 2 grown "$film" "$size" && "$build/tests/avi_check/avi_check" --cut "$film" >"$work/checked" &&
    [ "$(checked '"\(.tag) \(.width)"')" = "$1 $2" ]
}

# settles NAME VALUE TAG WIDTH: after the change another film grows, of this kind.
settles() {
  local before
  before=$(films | wc -l)
  settle "$1" "$2"
  eventually 5 has_films $((before + 1))
  eventually 5 a_film_grows "$3" "$4"
}

test_changes_of_header_and_setting_end_the_film() {
  needs_boxes
  start_recorder 64M B520
  record
  settles resolution 8 FMP4 320
  settles resolution 7 FMP4 640
  settles mode 1 MJPG 640
  settles mode 0 FMP4 640
  local before
  before=$(films | wc -l)
  # The input stands in the same byte as the mode.
  boardctl input 1
  eventually 5 has_films $((before + 1))
  boardctl input 0
  eventually 5 has_films $((before + 2))
  stop_daemon
  all_are_closed
  # A name is that of the second; the next one in it gets a number.
  local other
  for film in $(films | grep -e '-[0-9]*\.avi$'); do
    other=${film%-*}.avi
    [ -e "$other" ] || fail "$film without $other"
  done
}

test_another_tv_standard_ends_the_film() {
  needs_boxes
  once_is_enough
  start_recorder 64M K310
  settle resolution 2
  record
  local before standard
  for standard in ntsc pal; do
    before=$(films | wc -l)
    boardctl tv $standard
    eventually 8 has_films $((before + 1))
    eventually 5 a_film_grows FMP4 720
    expect "$(checked .height)" "$([ $standard = pal ] && echo 576 || echo 480)" "height by $standard"
  done
  stop_daemon
  all_are_closed
}

test_raw_files_hold_the_bare_stream() {
  needs_boxes
  once_is_enough
  start_recorder 64M B520 'Debug = 1' 'MaxSize = 1'
  dump_stream
  record
  [[ $film == *.raw ]] || fail "the name $film"
  eventually 10 has_films 2
  end_dump
  stop_daemon
  film=$(films | head -n 1)
  judge_films "$film"
  [ "$(size_of "$film")" -gt $((1 << 20)) ] || fail "$film is too short"
}

test_a_server_gets_every_picture() {
  needs_a_share
  needs_boxes
  start_server
  start_recorder server K310 'MaxSize = 1'
  dump_stream
  record
  watch_growth 3
  end_dump
  ends_in_time
  all_are_closed
  mapfile -t all < <(films)
  judge_films "${all[@]:0:2}"
  nothing_was_missed
  nothing_serves || fail "processes are left: $(serving)"
  if grep -rqF "$secret" "$log" "$board/var"; then fail "the password is in a log"; fi
  stop_server
}

# --- a share that is full -------------------------------------------------------------------------

# tells_of_all FILE: it was closed where there may have been no room for the old index at its end.
tells_of_all() {
  avi_check --cut "$1"
  expect "$(checked '.counted == .pictures and .indexed == .pictures')" true "all is told of"
  expect "$(played "$1")" "$(checked .pictures)" "pictures of $1 that are shown"
}

test_a_full_share_without_recycling_rests() {
  needs_boxes
  once_is_enough
  start_recorder 2M B520 'Recycle = 0'
  record
  eventually 10 happened 526
  logged 'no room on the share: error 28' || fail "no message"
  tells_of_all "$film"
  local frames before
  frames=$(slot frame-count)
  sleep 1
  [ "$(slot frame-count)" -gt $((frames + 10)) ] || fail "the capture rests, too"
  camctl trigger web1  # it is not heard
  before=$(count_events 526)
  rebuild_events
  camctl trigger web1
  eventually 10 more_events 526 "$before"
  ends_in_time
  [ "$took" -lt 2500 ] || fail "the rest holds up the end: $took ms"
  tells_of_all "$film"
}
more_events() {
  local count
  count=$(count_events "$1")
  [ "${count:-0}" -gt "$2" ]
}

# rebuild_events: as after a change of the settings. The camera looks for that every 3 s.
rebuild_events() {
  rm -f "$board/run/camera/io/input_used"
  camctl reload
  eventually 12 events_are_built
}

# with_full_share TEST [LINE OF sys.conf...]: the recorder alone, fed by a test, on a share in memory.
with_full_share() {
  needs_boxes
  share_is "${@:2}"
  smb=64M
  launch "$build/tests/board/share_check/share_check" --gtest_filter="Share.$1"
  local code=0
  wait "$box" || code=$?
  cat "$work/output"
  grep -q '1 test from 1 test suite ran' "$work/output" || fail "there is no test $1"
  expect $code 0 "exit status"
}

test_a_share_recycled_for_200_rounds() {
  once_is_enough
  with_full_share RecycledForTwoHundredRoundsLosesNothingThatShouldStay 'MaxSize = 1'
}
test_a_share_that_is_full_of_other_things() { with_full_share FullOfForeignThingsStaysAsItIs 'MaxSize = 1'; }
test_a_rest_ends_at_once() { with_full_share RestOnAFullOneEndsAtOnce 'MaxSize = 1' 'Recycle = 0'; }
test_films_are_split_by_length() {
  with_full_share FilmsEndByTheirLengthAtAKeyPicture 'DivideBy = 1' 'MaxLength = 1'
}

# --- a share that goes away -----------------------------------------------------------------------

# watch_bare_folder: whatever is made in the folder below the share is told in $work/bare.
watch_bare_folder() {
  cp "$here/watch_folder" "$board/tmp/"
  # shellcheck disable=SC2016  # that shell is to expand it
  nsenter -t "$daemon" -m unshare -m sh -c '
    while grep -q " /smb " /proc/self/mountinfo; do umount -l /smb || exit 1; done
    exec /usr/bin/python3 /tmp/watch_folder /smb' >"$work/bare" 2>>"$log" &
  boxes+=($!)
  eventually 5 test -s "$work/bare"
}
folder_stayed_bare() { expect "$(<"$work/bare")" ready "what came into the bare folder"; }

# in_daemon_box COMMAND...: where the daemon's mounts are.
in_daemon_box() { nsenter -t "$daemon" -m "$@"; }
is_mounted() { in_daemon_box grep -q ' /smb ' /proc/self/mountinfo; }
is_bare() { ! is_mounted; }

# blocked: the daemon's threads that wait for what can't be interrupted.
blocked() { grep -l '^State:.*D' "/proc/$daemon"/task/*/status 2>/dev/null || true; }
nobody_is_blocked() { [ -z "$(blocked)" ]; }

# comes_back: nothing is recorded until the events have been built anew, and then with the first event.
comes_back() {
  local before
  before=$(films | wc -l)
  camctl trigger web1
  sleep 0.5
  expect "$(films | wc -l)" "$before" "films ahead of the refresh"
  rebuild_events
  is_mounted || fail "it is not mounted"
  record
  folder_stayed_bare
}

# lost_while_recording: the share has gone; that is told, and the camera works on.
lost_while_recording() {
  local frames
  eventually 5 more_events 52[34] "$1"
  eventually 2 nobody_is_blocked
  eventually 2 is_bare
  frames=$(slot frame-count)
  eventually 2 frames_beyond $((frames + 5))
  folder_stayed_bare
}
frames_beyond() { [ "$(slot frame-count)" -gt "$1" ]; }

record_to_a_watched_server() {
  needs_a_share
  needs_boxes
  start_server
  start_recorder server B520
  watch_bare_folder
  record
}

test_a_server_that_goes_and_comes_back() {
  record_to_a_watched_server
  stop_server
  lost_while_recording 0
  # It is asked for while it is away, before anybody has looked and after that.
  camctl trigger web1
  eventually 5 more_events 523 0
  rebuild_events
  camctl trigger web1
  start_server "$port"
  # The failure is remembered for 10 s, unless the settings have changed.
  share_is '# changed'
  comes_back
  # What was cut off plays to its last second, and can be repaired.
  film=$(films | head -n 1)
  is_cut_and_repaired "$film"
  # And the end, just when it goes.
  stop_server
  ends_in_time
  eventually 4 nothing_serves
  folder_stayed_bare
}

# is_cut_and_repaired FILE: a copy of it plays, and loses no whole picture when it is repaired.
is_cut_and_repaired() {
  local whole copy=$work/cut.avi
  cp "$1" "$copy"
  avi_check --cut "$copy"
  whole=$(checked .pictures)
  [ "$(played "$copy")" -ge "$(checked .counted)" ] || fail "$1: $(played "$copy") of $(checked .counted) pictures play"
  camctl repair "$copy" >/dev/null || fail "$1 can't be repaired"
  is_closed "$copy"
  expect "$(checked .pictures)" "$whole" "pictures of $1 after the repair"
}

test_a_server_that_hangs_and_goes_on() {
  record_to_a_watched_server
  watch_polls
  kill -USR1 "$server"
  lost_while_recording 0
  polls_in_time 8
  kill -USR2 "$server"
  share_is '# changed'
  comes_back
  # And the end, while a write waits for the server.
  kill -USR1 "$server"
  sleep 0.3
  ends_in_time
  eventually 4 nothing_serves
  folder_stayed_bare
  kill -USR2 "$server"
  stop_server
}

# The server is silent for so long that frames are lost, but not so long that it is given up.
test_a_share_that_is_too_slow_costs_pictures_up_to_a_key_picture() {
  needs_a_share
  needs_boxes
  start_server
  configure Buffers VideoFrames 8
  start_recorder server K310
  settle ipratio 14
  dump_stream
  record
  kill -USR1 "$server"
  sleep 2
  kill -USR2 "$server"
  local size
  size=$(size_of "$film")
  eventually 8 grown "$film" $((size + 100000))
  ends_in_time
  end_dump
  is_closed "$film"
  expect "$(films | wc -l)" 1 "films"
  film_check --gaps "$work/stream" "$film"
  [ "$(held '.[0].gaps')" -gt 0 ] || fail "nothing was lost: $(cat "$work/held")"
  stop_server
}

# The events are built in the main thread, which waits for the mount.
test_an_end_while_a_mount_hangs() {
  needs_a_share
  needs_boxes
  start_server
  start_recorder server B520
  record
  kill -USR1 "$server"
  eventually 6 is_bare
  share_is '# changed'
  camctl reload
  runs_a_script() { [ -n "$(cat "/proc/$daemon/task/$daemon/children")" ]; }
  eventually 5 runs_a_script
  sleep 0.5
  ends_in_time
  eventually 4 nothing_serves
  kill -USR2 "$server"
  stop_server
}

# The file that is open stays writable; the next one can't be opened.
test_a_share_that_is_unmounted_under_it() {
  needs_a_share
  needs_boxes
  start_recorder 64M B520 'MaxSize = 1'
  watch_bare_folder
  record
  in_daemon_box umount -l /smb
  eventually 10 happened 523
  folder_stayed_bare
  camctl trigger web1
  eventually 5 more_events 523 1
  folder_stayed_bare
  in_daemon_box mount -t tmpfs -o size=8M none /smb
  hold_share "$daemon"
  rebuild_events
  record
  in_daemon_box umount -l /smb
  ends_in_time
  folder_stayed_bare
}

test_the_watch_mounts_the_share_again() {
  needs_a_share
  needs_boxes
  start_server
  stop_server
  start_recorder server K310
  watch_bare_folder
  camctl trigger web1
  start_server "$port"
  rm -f "$board/run/camera/io/input_used"
  eventually 60 events_are_built
  is_mounted || fail "it is not mounted"
  record
  ends_in_time
  folder_stayed_bare
  stop_server
}

# --- a daemon that is killed ----------------------------------------------------------------------

# run_in_share: starts the daemon in the box that is open, so that the share outlives it. $killed is its
# process.
run_in_share() {
  rm -f "$board/run/camera/io/input_used"
  killed=$(in_box '(LD_PRELOAD=/home/libvs_drivers.so VS_LOG=stderr TZ=UTC exec /home/video_svr -B520 -mv \
    2>>/var/log/camera/daemon.log) >/dev/null & echo $!')
  eventually 10 camera_is_up
  eventually 20 events_are_built
  eventually 5 frames_beyond 0
}

# earlier_films_are_as_they_were: those that the last rounds have left.
earlier_films_are_as_they_were() {
  [ ! -e "$work/sums" ] || md5sum --quiet -c "$work/sums" >&2 || fail "an earlier film has changed"
  films | xargs -d '\n' md5sum >"$work/sums"
}

# kill_and_look ROUND: the film that was being written plays up to the last second of the stream, and loses no
# whole picture when it is repaired.
kill_and_look() {
  # Small pictures are gathered, large ones are not.
  configure Video IpRatio $(($1 % 2 * 14))
  run_in_share
  dump_stream
  record
  sleep "$((RANDOM % 2 + 1)).$((RANDOM % 900 + 100))"
  kill -KILL "$killed"
  eventually 2 is_gone "$killed"
  sleep 0.1  # what was published last is still to be read
  end_dump
  film=$(newest)
  local shown copy=$work/cut.avi
  is_cut_and_repaired "$film"
  expect "$(checked .cut)" false "a file that was repaired"
  cp "$film" "$copy"
  shown=$(played "$copy")
  judge_films "$copy"
  local all
  all=$(held '.[0].pictures')
  [ "$shown" -le "$all" ] || shown=$all  # half a picture may show as one
  film_check --pictures "$shown" "$work/stream" "$copy"
  echo "round $1: $shown of $all pictures play, up to $(held '.[0].lag_ms') ms, whole up to $(held '.[0].lag_whole_ms') ms ahead of the end"
  [ "$(held '.[0].lag_ms')" -le $((1200 * slow)) ] || fail "the last $(held '.[0].lag_ms') ms do not play"
  earlier_films_are_as_they_were
}

test_killed_daemons_leave_films_that_play() {
  needs_boxes
  once_is_enough
  prepare_recorder 'MaxSize = 1'
  cp "$build/core/video_svr" "$build/board/drivers/libvs_drivers.so" "$board/home/"
  start_hardware --model B520
  open_box 1G
  hold_share "$(in_box 'echo $$')"
  local round
  for ((round = 1; round <= kill_rounds; ++round)); do kill_and_look "$round"; done
  # All at once, where they are.
  camctl repair "$share/camera" >"$work/repaired" || fail "$(cat "$work/repaired")"
  expect "$(grep -c ': repaired, ' "$work/repaired")" "$kill_rounds" "films that were repaired"
  all_are_closed
}
