# shellcheck shell=bash
# scripts/run --deliver: real servers get what the camera delivers, and all has an end.

needs_servers() {
  once_is_enough
  local missing
  for missing in pyftpdlib aiosmtpd OpenSSL; do
    /usr/bin/python3 -c "import $missing" 2>/dev/null || skip "there is no $missing"
  done
  command -v /usr/sbin/smbd >/dev/null || skip "there is no Samba"
  export TMPDIR=$work  # so that all that is started can be told by its arguments
  came=$work/run-deliveries
}

# deliver [OPTION OF scripts/run...]: what it shows is in $work/shown.
deliver() {
  status=0
  timeout 100 "$root/scripts/run" --build "$build" --board "$work/run" --camera B520 --deliver "$@" \
    >"$work/shown" 2>&1 || status=$?
}

# strays: the commands that have to do with this test's board, but are not the test.
strays() {
  local entry
  while read -r entry; do
    if ! is_gone "$(basename "${entry%/cmdline}")"; then { tr '\0' ' ' <"$entry" || true; } 2>/dev/null; fi
  done < <(grep -alF -- "$work/" /proc/[0-9]*/cmdline 2>/dev/null)
}
nothing_is_left() { [ -z "$(strays)" ]; }

# is_whole FILE: independent tools open it without a word and find the picture.
is_whole() {
  expect "$(ffprobe -v warning -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$1" 2>&1)" 1 \
    "pictures in $1"
  ffmpeg -nostdin -v warning -xerror -i "$1" -f null - >"$work/said" 2>&1 || fail "ffmpeg of $1: $(cat "$work/said")"
  [ ! -s "$work/said" ] || fail "$1: $(cat "$work/said")"
}

# plays FILE: the same of a film. A relay that switches ends it in the middle of its last picture, which may
# so have lost its end; $pictures counts them.
plays() {
  local said shown read
  said=$(ffprobe -v warning "$1" 2>&1)
  [ -z "$said" ] || fail "ffprobe of $1: $said"
  IFS=, read -r shown read < <(ffprobe -v quiet -count_frames -count_packets \
    -show_entries stream=nb_read_frames,nb_read_packets -of csv=p=0 "$1")
  expect "$shown" "$read" "pictures of $1 that can be shown"
  "$build/tests/avi_check/avi_check" "$1" >"$work/said" || fail "$1: $(cat "$work/said")"
  pictures=$((pictures + shown))
}

# was_shown PATTERN: a line with the time in front.
was_shown() { grep -qE "^[0-9:]{8}  $1\$" "$work/shown" || fail "no line \"$1\": $(cat "$work/shown")"; }

uploads_are_whole() {
  local file
  [ -n "$(find "$came/ftp" -name '*.jpg')" ] || fail "no pictures by FTP"
  [ -n "$(find "$came/ftp" -name '*.avi')" ] || fail "no clips by FTP"
  while read -r file; do
    is_whole "$file"
  done < <(find "$came/ftp" -type f)
  was_shown 'ftp pictures/[0-9]{8}/[0-9]{6}\.jpg, [0-9]+ bytes'
  was_shown 'ftp pictures/[0-9]{8}/[0-9]{6}\.avi, [0-9]+ bytes'
}

mails_are_whole() {
  "$root/tests/mail_check" "$came"/mailbox/*.eml >"$work/mails" || fail "$(cat "$work/mails")"
  jq -e -s 'any(.user == "camera" and .tls)' "$came"/mailbox/*.json >/dev/null || fail "a mail without a login"
  was_shown 'mail to you@example\.org, subject "Somebody is at the door", with [0-9]{6}\.(jpg|avi), [0-9]+ bytes'
  was_shown 'mail to office@example\.org, subject "Something moves on the left", with [0-9]{6}\.jpg, [0-9]+ bytes'
}

films_are_whole() {
  local file pictures=0
  while read -r file; do
    plays "$file"
  done < <(find "$came/share/camera" -type f)
  # It records all the time: some 30 pictures a second.
  [ $pictures -gt 150 ] || fail "$pictures pictures on the share"
  was_shown 'share camera/[0-9]{8}/[0-9]{6}(-[0-9]+)?\.avi grows, [0-9.]+ (kB|MB)'
}

# Neither in a file that others can read nor in what was said.
password_is_kept() {
  local password file
  password=$(cut -d: -f2 "$came/servers/users")
  [ ${#password} -ge 20 ] || fail "no password"
  while read -r file; do
    expect "$(stat -c %a "$file")" 600 "mode of $file"
  done < <(grep -rlF -- "$password" "$work")
  ! grep -rlF -- "$password" "$work/run/var" "$work/shown" || fail "the password is in a log"
}

test_everything_arrives() {
  needs_servers
  [ -w /dev/fuse ] || skip "there is no FUSE"
  deliver --for 10
  expect $status 0 "exit status: $(cat "$work/shown")"
  uploads_are_whole
  mails_are_whole
  films_are_whole
  password_is_kept
  nothing_is_left || fail "left behind: $(strays)"
  grep -q "^Deliveries   in $came:\$" "$work/shown" || fail "no summary: $(cat "$work/shown")"
}

# proot makes no mounts.
test_without_mounts_the_share_is_left_out() {
  needs_servers
  command -v proot >/dev/null || skip "there is no proot"
  deliver --with proot --for 6
  expect $status 0 "exit status: $(cat "$work/shown")"
  grep -q '^The share is left out: ' "$work/shown" || fail "$(cat "$work/shown")"
  [ -n "$(find "$came/ftp" -name '*.jpg')" ] || fail "no pictures by FTP"
  [ -e "$came/mailbox/000001.eml" ] || fail "no mail"
  nothing_is_left || fail "left behind: $(strays)"
}

# begin_delivery: as from a terminal: a process group of its own, in which an interrupt counts.
begin_delivery() {
  setsid env --default-signal=INT "$root/scripts/run" --build "$build" --board "$work/run" --camera B520 \
    --deliver >"$work/shown" 2>&1 &
  script=$!
  boxes+=("$script")
  eventually 30 grep -q '  ftp ' "$work/shown"
  ! nothing_is_left || fail "the processes can't be seen"
}

test_interrupt_ends_camera_and_servers() {
  needs_servers
  begin_delivery
  local begun code=0
  begun=$(now_ms)
  kill -INT -- "-$script"
  wait "$script" || code=$?
  expect $code 130 "exit status"
  [ $(($(now_ms) - begun)) -lt 8000 ] || fail "took $(($(now_ms) - begun)) ms"
  nothing_is_left || fail "left behind: $(strays)"
}

test_kill_of_the_script_ends_camera_and_servers() {
  needs_servers
  begin_delivery
  kill -KILL "$script"
  eventually 10 nothing_is_left
}

test_deliveries_need_a_camera() {
  expect "$(exit_of "$root/scripts/run" --build "$build" --board "$work/run" --for 3 --deliver)" 2 "without"
}

# A board that is used again without servers does not go on looking for them.
test_a_board_forgets_its_servers() {
  needs_servers
  deliver --for 3
  grep -q '^Server = 127.0.0.1' "$work/run/etc/camera.conf" || fail "there was no server"
  timeout 60 "$root/scripts/run" --build "$build" --board "$work/run" --camera B520 --for 1 >"$work/shown"
  "$root/board/make" --camera B520 "$work/fresh"
  local file
  for file in camera.conf events.conf sys.conf; do
    cmp "$work/run/etc/$file" "$work/fresh/etc/$file" || fail "$file is not as before"
  done
}
