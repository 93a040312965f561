# shellcheck shell=bash
# The two commands of a newcomer, as far as a test can be one.

summary_is_good() {
  grep -qE '^Frames +[1-9][0-9]* captured$' "$1" || fail "no frames: $(cat "$1")"
  grep -qE '^ +[1-9][0-9]* x 514 ' "$1" || fail "no interval event"
  grep -q '^ *1 x 525 ' "$1" || fail "web1 did not fire once"
  grep -q '^ *1 x 520 ' "$1" || fail "web2 did not fire once"
  grep -qE '^Recordings +[1-9]' "$1" || fail "no recordings"
  grep -qE '^[0-9:]{8}  recording .*\.jpg, 36748 bytes$' "$1" || fail "no recording was shown"
  grep -qE '^[0-9:]{8} +[1-9][0-9.]* frames/s .* framerate 2$' "$1" || fail "no frames were shown"
  grep -qE '^[0-9:]{8}  event 525 ' "$1" || fail "no event was shown"
  grep -qE '^  .*\.jpg  36748 bytes$' "$1" || fail "no recording in the summary"
}

# A sanitized daemon under a shell that counts seconds: the same, with more time.
run_seconds=$((slow > 1 ? 12 : 6))

test_run_for_some_seconds() {
  timeout 100 "$root/scripts/run" --build "$build" --board "$work/run" --for $run_seconds >"$work/shown"
  summary_is_good "$work/shown"
  find "$work/run/usb" -name '*.jpg' -exec cmp "$picture" {} \;
  expect "$(cat "$work/run"/run/*.pid | while read -r pid; do is_gone "$pid" || echo "$pid"; done)" "" \
    "processes"
}

test_run_takes_a_number_of_seconds_alone() {
  local seconds
  for seconds in x -1 1.5 1s 9999999; do
    expect "$(exit_of "$root/scripts/run" --build "$build" --board "$work/run" --for $seconds)" 2 "$seconds"
  done
  timeout 100 "$root/scripts/run" --build "$build" --board "$work/run" --for 08 >"$work/shown"
  grep -q '^Ran for *8 s$' "$work/shown" || fail "$(cat "$work/shown")"
}

test_run_as_an_ordinary_user() {
  once_is_enough
  [ "$(id -u)" -eq 0 ] || skip "this whole test runs as an ordinary user"
  local user
  user=$(awk -F: '$3 >= 1000 && $3 < 60000 {print $1; exit}' /etc/passwd)
  if [ -z "$user" ]; then
    useradd --system video_svr-test 2>/dev/null || skip "there is no ordinary user"
    user=video_svr-test
  fi
  # The checkout may lie where the user may not look: what is needed is copied.
  local home=$work/home
  mkdir "$home" "$home/project" "$home/built" "$home/runtime"
  cp -R "$root/board" "$root/scripts" "$home/project/"
  (cd "$build" && cp --parents core/video_svr tools/camctl board/socmond "$home/built/")
  chown -R "$user" "$home"
  chmod 711 "$work"
  mkdir -m 700 "$work/closed"
  cd "$work/closed" || exit  # a folder where the user may not be is no obstacle
  setpriv --reuid "$user" --regid "$(id -g "$user")" --clear-groups \
    env -u XDG_RUNTIME_DIR HOME="$home" XDG_RUNTIME_DIR="$home/runtime" \
    timeout 100 "$home/project/scripts/run" --build "$home/built" --board "$home/camera" \
    --for $run_seconds >"$work/shown"
  summary_is_good "$work/shown"
  expect "$(stat -c %U "$home/camera/usb/pictures")" "$user" "owner of the recordings"
}

test_run_shows_another_picture() {
  once_is_enough
  { cat "$picture" && head -c 300000 /dev/zero; } >"$work/large.jpg"
  timeout 100 "$root/scripts/run" --build "$build" --board "$work/run" --picture "$work/large.jpg" \
    --for $run_seconds >"$work/shown"
  grep -q "recording .*, $(stat -c %s "$work/large.jpg") bytes" "$work/shown" || fail "$(cat "$work/shown")"
}

test_run_refuses_what_is_no_picture() {
  : >"$work/empty.jpg"
  echo "no picture" >"$work/text.jpg"
  local file status
  for file in "$work/empty.jpg" "$work/text.jpg" "$work"; do
    status=0
    timeout 100 "$root/scripts/run" --build "$build" --board "$work/run" --for 3 --picture "$file" \
      >"$work/shown" 2>&1 || status=$?
    expect "$status" 1 "$file"
    grep -q "$file is no JPEG picture\$" "$work/shown" || fail "$(cat "$work/shown")"
  done
}

# As from a terminal: a process group of its own, in which an interrupt counts.
begin_run() {
  setsid env --default-signal=INT "$root/scripts/run" --build "$build" --board "$work/run" \
    >"$work/shown" 2>&1 &
  script=$!
  boxes+=("$script")
  shows_or_ended() { grep -q frames/s "$work/shown" || is_gone "$script"; }
  eventually 30 shows_or_ended
  ! is_gone "$script" || fail "$(cat "$work/shown")"
  pids=$(cat "$work/run/run/video_svr.pid" "$work/run/run/socmond.pid")
}

all_gone() {
  local pid
  for pid in $pids; do is_gone "$pid" || return 1; done
}

# Ctrl-C reaches all processes of the group.
test_interrupt_ends_everything() {
  begin_run
  ends_everything -INT -- "-$script"
}
test_termination_ends_everything() {
  begin_run
  ends_everything -TERM "$script"
}

# ends_everything ARGUMENT OF kill...
ends_everything() {
  local begun code=0
  begun=$(now_ms)
  kill "$@"
  wait "$script" || code=$?
  [ $(($(now_ms) - begun)) -lt $((2000 * slow)) ] || fail "took $(($(now_ms) - begun)) ms"
  expect $code 130 "exit status"
  all_gone || fail "something runs on"
  grep -q '^Recordings' "$work/shown" || fail "no summary"
}

test_kill_of_the_script_ends_everything() {
  begin_run
  kill -KILL "$script"
  eventually 8 all_gone
}

# Debian's package database in which one package is missing, and nobody who could install it.
test_missing_package_is_named() {
  mkdir "$work/bin"
  printf '#!/bin/sh\nfor last; do :; done\n[ "$last" = libinih-dev ] || printf installed\n' \
    >"$work/bin/dpkg-query"
  printf '#!/bin/sh\nexit 1\n' >"$work/bin/apt-get"
  cp "$work/bin/apt-get" "$work/bin/sudo"
  chmod +x "$work/bin"/*
  local command code
  for command in 'run --for 1' 'test release' 'bench 1'; do
    code=0
    # shellcheck disable=SC2086  # words of one command
    PATH=$work/bin:$PATH timeout 10 "$root/scripts/"$command >"$work/shown" 2>&1 || code=$?
    expect $code 1 "exit status of $command"
    grep -q '^  libinih-dev$' "$work/shown" || fail "$(cat "$work/shown")"
    ! grep -qE '^(Building|==)' "$work/shown" || fail "$command did not stop"
  done
}

# What a container has there is not gone because its folder can't be seen from here.
test_memory_of_lost_boards_is_given_back_but_not_that_of_containers() {
  local lost container
  lost=/dev/shm/video_svr-board-$(id -u)-test-lost-$$ container=/dev/shm/video_svr-board-$(id -u)-test-kept-$$
  mkdir "$lost" "$container"
  ln -s "$work/missing" "$lost/.board"
  ln -s "$work/missing" "$container/.board"
  readlink /proc/self/ns/mnt >"$lost/.view"
  echo 'mnt:[1]' >"$container/.view"
  "$root/board/make" "$work/another"
  local kept=no
  [ ! -d "$container" ] || kept=yes
  rm -rf -- "$container"
  [ $kept = yes ] || fail "the memory of another view was taken away"
  [ ! -d "$lost" ] || fail "the memory of a lost board stayed"
}

test_scripts_are_sound() {
  once_is_enough
  command -v shellcheck >/dev/null || skip "shellcheck is not installed"
  cd "$root" || exit
  {
    find board scripts/run tests/board -type f -print0 | xargs -0 grep -lIE '^#!.*(bash|/sh)$'
    ls scripts/lib/*.sh tests/board/*.sh board/common.sh
  } | xargs shellcheck -x -P SCRIPTDIR
}

# run_model MODEL: scripts/run with virtual hardware; what it shows is in $work/shown.
run_model() {
  local seconds=10
  [ "$slow" -eq 1 ] || seconds=20
  timeout 100 "$root/scripts/run" --build "$build" --board "$work/run" --camera "$1" --for $seconds \
    >"$work/shown" || fail "$(cat "$work/shown")"
  grep -qE '^Frames +[1-9][0-9]+ captured$' "$work/shown" || fail "no frames: $(cat "$work/shown")"
  grep -qE '^[0-9:]{8}  recording .*\.avi, [1-9][0-9]{3,} bytes$' "$work/shown" || fail "no recording was shown"
  ! grep '  log ' "$work/shown" || fail "the camera complains"
  expect "$(cat "$work/run"/run/*.pid | while read -r pid; do is_gone "$pid" || echo "$pid"; done)" "" \
    "processes"
}

test_run_shows_a_sensor_camera_that_sees_motion() {
  run_model B520
  grep -q '  something moves in window 1: ' "$work/shown" || fail "nothing moved in window 1"
  grep -q '  something moves in window 2: ' "$work/shown" || fail "nothing moved in window 2"
  grep -q ' frames/s .* output1 on' "$work/shown" || fail "window 1 switched no relay"
  grep -q ' frames/s .* output2 on' "$work/shown" || fail "window 2 switched no relay"
}

test_run_shows_an_encoder() {
  once_is_enough
  run_model K310
  grep -q '^ *1 x 525 ' "$work/shown" || fail "web1 did not fire once"
}

test_run_refuses_what_is_no_camera() {
  local arguments status
  for arguments in '--camera B521' '--camera' '--scene test' "--camera B520 --picture $picture" \
    "--camera B520 --scene $work/missing.avi"; do
    # shellcheck disable=SC2086  # words of one command
    status=$(exit_of "$root/scripts/run" --build "$build" --board "$work/run" --for 3 $arguments)
    expect "$status" 2 "$arguments"
  done
  echo "no film" >"$work/text.avi"
  status=0
  timeout 60 "$root/scripts/run" --build "$build" --board "$work/run" --for 3 --camera B520 \
    --scene "$work/text.avi" >"$work/shown" 2>&1 || status=$?
  expect "$status" 1 "a scene that is none"
  grep -q "^hardware: .*text.avi" "$work/shown" || fail "$(cat "$work/shown")"
}
