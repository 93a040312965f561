# shellcheck shell=bash
# Builds: tsan
# No races: a sensor camera under the thread sanitizer, with sound, lives one short life after the other.
# In each everything happens that has a thread, then whatever comes to mind, until it is ended at any
# moment. The sanitizer's reports fall into the board; one is enough, and nothing is suppressed.
# shellcheck source=../board/delivery_faults.sh
. "$root/tests/board/delivery_faults.sh"
# shellcheck disable=SC2154  # run_trial and the board tests set them

races_promise="no races: the whole daemon under the thread sanitizer, silent without a suppression"
share_server='' share_is_served=no
declare -A done_so_far=()
tally=(lives orderly refreshes triggers modes clocks server_faults driver_faults looks)

count() { done_so_far[$1]=$((${done_so_far[$1]:-0} + 1)); }

# serve_share: the third server; without FUSE the share is left out.
serve_share() {
  [ "$(id -u)" -eq 0 ] && [ -w /dev/fuse ] || return 0
  mkdir -p "$work/share"
  "$root/board/servers/smb_server" --root "$work/share" --users "$work/known.mail" >"$work/share.said" \
    2>"$work/share.log" </dev/null &
  share_server=$!
  boxes+=($!)
  eventually 20 grep -q '^ready' "$work/share.said"
  share_is_served=yes
  smb=server
  printf '%s\n' '[Samba]' 'Enable = 1' 'Server = 127.0.0.1' "Port = $(sed -n 's/^ready //p' "$work/share.said")" \
    'Share = camera' 'User = camera' "Password = $(cat "$work/password")" >"$board/etc/sys.conf"
  chmod 600 "$board/etc/sys.conf"
}

# make_sound: a second of it, for a camera that hears it over and over.
make_sound() { ffmpeg -v error -y -f lavfi -i sine=frequency=440:duration=1 -ar 8000 -ac 1 "$board/home/sound.wav"; }

# build_events: one for each source, with a handler of every kind; some word of it is another each time.
build_events() {
  random 3
  events_of "Source = 0; Usb = 1; UsbFolder = one; Out1 = 1; Out1Duration = $((random + 1))" \
    'Source = 1; Ftp = 1; FtpDuration = 1; Out2 = 1; Out2Duration = 1' \
    'Source = 2; Usb = 1; Mail = 1; Subject = In; Access = 1' \
    "Source = 3; Interval = $((random + 1)); Usb = 1; Ftp = 1; FtpDuration = $random; Mail = 1; Subject = Look" \
    "Source = 4; Buzzer = 1; BuzzerTone = $random; Out1 = 1" \
    'Source = 5; Smb = 1; SmbDuration = 2; Buzzer = 1; Usb = 1; UsbFolder = two' \
    'Source = 6; Smb = 1; SmbContinue = 1; Out2 = 1; Mail = 1; Ftp = 1'
}

refresh() {
  build_events
  camctl reload
  count refreshes
}

trigger() {
  random 2
  camctl trigger web$((random + 1)) || true
  random 2
  echo "$random" >"$board/run/camera/io/input"
  random 2
  if [ "$random" -eq 0 ]; then boardctl motion on 120 200 120 120; else boardctl motion off; fi
  count triggers
}

switch_mode() {
  local names=(mode resolution brightness compression framerate overlay motion-detection flip)
  random 4
  camctl set mode "$random" || true
  random ${#names[@]}
  local name=${names[random]}
  random 9
  camctl set "$name" "$random" || true
  count modes
}

step_clock() {
  local steps=(0 3600 -3600 86400 -7 7 100000 -100000)
  random ${#steps[@]}
  perl -e 'print pack("l", $ARGV[0])' -- "${steps[random]}" | dd of="$board/tmp/clock-step" conv=notrunc status=none
  count clocks
}

fail_servers() {
  local ftp=('' 'drop 5000' 'stall 3000' 'full 5000' 'mute STOR' 'silent' 'hang-up STOR' 'no-tls data')
  local mail=('' drop stall full-late silent mute busy)
  random ${#ftp[@]}
  misbehave ftp "${ftp[random]}"
  random ${#mail[@]}
  misbehave mail "${mail[random]}"
  random 3
  if [ $share_is_served = yes ]; then
    if [ "$random" -eq 0 ]; then kill -STOP "$share_server"; else kill -CONT "$share_server"; fi
  fi
  count server_faults
}

fail_drivers() {
  random 6
  case $random in
    0) boardctl fail read-encoder EIO 3 ;;
    1) boardctl fail read-sensor EIO 3 ;;
    2) boardctl reads encoder torn ;;
    3) boardctl fail '*' EINVAL ;;
    4) boardctl hang encoder && sleep 0.2 && boardctl go-on ;;
    5) boardctl tv "$([ $((RANDOM % 2)) -eq 0 ] && echo ntsc || echo pal)" ;;
  esac >/dev/null 2>&1 || true
  count driver_faults
  sleep 0.1
  boardctl heal || true
}

# look: a reader beside, and a message to the daemon.
look() {
  timeout 2 "$build/tools/camctl" --board "$board" dump --frames 2 >/dev/null 2>&1 || true
  camctl status >/dev/null || true
  count looks
}

is_running() { ! is_gone "$daemon_box"; }
silent() { [ -z "$(sanitizer_reports)" ]; }

# begin: a camera, up to the moment when its events are built, or, one time in four, to any moment before.
begin() {
  rm -f -- "$board/run/camera/io/input_used"
  misbehave ftp
  misbehave mail
  [ $share_is_served = no ] || kill -CONT "$share_server"
  build_events
  start_hardware --model B520
  drivers=$build/tests/torture/races/libtorture_steps.so
  start_daemon -B520 -mb -A/home/sound.wav
  random 4
  if [ "$random" -eq 0 ] && [ "${done_so_far[lives]:-0}" -gt 0 ]; then
    random 30
    sleep "$((random / 10)).$((random % 10))"
    return 1
  fi
  eventually 15 camera_is_up
  eventually 30 all_are_at_work
}

# all_are_at_work: those that are there without an event firing: the scheduler, and events of five sources.
threads() { cat "/proc/$daemon/task/"*/comm 2>/dev/null | grep -cx -- "$1"; }
all_are_at_work() { [ "$(threads KVX-video)" = 1 ] && [ "$(threads KVX-audio)" = 1 ] && [ "$(threads pthread)" -ge 6 ]; }

# live: everything once, then something for up to so many steps.
live() {
  local steps=(trigger step_clock fail_drivers refresh switch_mode fail_servers look) step
  for step in "${steps[@]}"; do
    is_running && silent || return 0
    $step
    random 8
    sleep "0.$((random + 1))"
  done
  random 16
  for ((left = random; left > 0; left--)); do
    is_running && silent && time_is_left || return 0
    random ${#steps[@]}
    ${steps[random]}
    random 8
    sleep "0.$((random + 1))"
  done
}

# finish: ends the camera. What it left behind is the sanitizer's to judge, not the time that it took.
finish() {
  if is_running; then kill -TERM "$daemon" 2>/dev/null || true; fi
  await 60 is_gone "$daemon_box" || fail "the daemon does not end"
  local status=0
  wait "$daemon_box" || status=$?
  [ $status -ne 0 ] || count orderly
  end_process "$hardware" 20 || fail "the hardware does not end"
  rm -rf -- "${board:?}"/usb/* "$work"/ftp/* "$work"/mails/* "$work"/share/*
  count lives
}

# a_race_is_seen: in this board, by the way on which the daemon's come.
a_race_is_seen() {
  local seen=no
  launch "$build/tests/torture/races/torture_race"
  wait "$box" || true
  if grep -q 'data race' "$board"/var/log/camera/sanitizer* 2>/dev/null; then seen=yes; fi
  rm -f -- "$board"/var/log/camera/sanitizer*
  [ $seen = yes ]
}

trial_races() {
  local what reached=''
  if ! a_race_is_seen; then
    broken "$races_promise" "a program that has a race" "no report"
    return
  fi
  make_servers
  serve_both
  deliver_to_servers
  configure Motion1 Enable 1
  configure Motion2 Enable 1
  serve_share
  make_sound
  head -c 4 /dev/zero >"$board/tmp/clock-step"
  launch "$build/board/socmond"
  eventually 10 test -S "$board/run/camera/msg/socmond"
  while silent; do
    if begin; then live; fi
    finish
    # Another life is begun only if there is time for its beginning.
    time_is_left 15 || break
  done
  for what in "${tally[@]}"; do reached+="${reached:+, }${done_so_far[$what]:-0} ${what//_/ }"; done
  sanitizer_reports | head -n 150 || true
  judge silent -- "$races_promise" "$SECONDS s, lives with $(count_events 514) USB recordings, share $share_is_served" \
    "$reached; reports: $(sanitizer_reports | grep -c '^WARNING' || true)"
}
