# shellcheck shell=bash
# Servers that fail while a camera delivers to them: it says so, and all else goes on.

declare -A server=() port=()

# make_servers: who may log in, certificates, and names for the camera.
make_servers() {
  local missing
  for missing in pyftpdlib aiosmtpd OpenSSL cryptography; do
    /usr/bin/python3 -c "import $missing" 2>/dev/null || skip "there is no $missing"
  done
  certificates=$work/certificates
  "$root/board/servers/certificates" "$certificates"
  cp "$certificates/ca.pem" "$board/etc/servers.pem"
  echo '127.0.0.1 server.test' >"$board/etc/hosts"
  mkdir "$work/ftp"
  (
    umask 077
    od -An -N12 -tx1 /dev/urandom | tr -d ' \n' >"$work/password"
    echo "camera:$(cat "$work/password"):/" >"$work/known.ftp"
    echo "camera:$(cat "$work/password")" >"$work/known.mail"
    echo "camera:another:/" >"$work/changed.ftp"
    echo "camera:another" >"$work/changed.mail"
    # As it is, and as mails carry it.
    printf '%s\n' "$(cat "$work/password")" "$(base64 <"$work/password")" \
      "$(printf '\0camera\0%s' "$(cat "$work/password")" | base64)" >"$work/secrets"
  )
}

# serve KIND [CERTIFICATE [USERS]]: starts a server, "ftp" or "mail", at the port that it had before.
serve() {
  local kind=$1 options said=$work/$1.said
  local certificate=("$certificates/${2:-server}.pem" "$certificates/${2:-server}.key")
  case $kind in
    ftp) options=(--root "$work/ftp" --tls "${certificate[@]}" --tls-required --faults "$work/ftp.faults") ;;
    mail) options=(--mailbox "$work/mails" --starttls "${certificate[@]}" --fault-file "$work/mail.faults") ;;
  esac
  : >"$said"
  setpriv --pdeathsig KILL "$root/board/servers/${kind}_server" "${options[@]}" --users "$work/${3:-known}.$kind" \
    --log "$work/$kind.commands" --port "${port[$kind]:-0}" </dev/null >"$said" 2>&1 &
  server[$kind]=$!
  boxes+=($!)
}

# serve_both [CERTIFICATE [USERS]]
serve_both() {
  local kind
  for kind in ftp mail; do serve $kind "$@"; done
  for kind in ftp mail; do
    eventually 20 grep -q '^ready' "$work/$kind.said"
    port[$kind]=$(sed -n 's/^ready //p' "$work/$kind.said")
  done
}

end_servers() {
  local kind
  for kind in "${!server[@]}"; do
    end_process "${server[$kind]}" 5 || fail "the $kind server does not end"
    wait "${server[$kind]}" 2>/dev/null || true
  done
}

# misbehave KIND [FAULT]: from its next step on; see board/servers.
misbehave() {
  echo "${2:-}" >"$work/$1.new"
  mv "$work/$1.new" "$work/$1.faults"
}

# deliver_to_servers [LINE...]: the camera's settings; the lines go to its section [Mail].
deliver_to_servers() {
  local password
  password=$(cat "$work/password")
  chmod 600 "$board/etc/camera.conf"
  cat >>"$board/etc/camera.conf" <<END
[Ftp]
Server = server.test
Port = ${port[ftp]}
Security = 1
CaFile = /etc/servers.pem
User = camera
Password = $password
Folder = pictures

[Mail]
Server = server.test
Port = ${port[mail]}
Security = 1
CaFile = /etc/servers.pem
Login = 1
User = camera
Password = $password
Sender = camera@example.org
Receiver = office@example.org
$(printf '%s\n' "$@")

[Camera]
Name = Back yard
END
}

# events_of SECTION...: an events file; each section is a text with its lines, "Source = 6; Ftp = 1".
events_of() {
  local number=0 section
  {
    printf '[Main]\nMax = %d\n' $#
    for section in "$@"; do
      number=$((number + 1))
      printf '[%d]\nErased = 0\nSchedule = always\n' $number
      tr ';' '\n' <<<"$section"
    done
  } >"$board/etc/events.conf"
}

uploads() { find "$work/ftp" -type f | sort; }
uploaded() { [ "$(uploads | wc -l)" -ge "$1" ]; }
mails() { find "$work/mails" -name '*.eml' | sort; }
mailed() { [ "$(mails | wc -l)" -ge "$1" ]; }
lines_of() { wc -l <"$1"; }

# note: what happens from here on counts for the next question.
note() {
  log_before=$(lines_of "$log")
  not_uploaded=$(count_events 512)
  not_mailed=$(count_events 507)
  commands_before=$(lines_of "$work/ftp.commands")
  uploads_before=$(uploads | wc -l)
  mails_before=$(mails | wc -l)
}

says() { tail -n "+$((log_before + 1))" "$log" | grep -qE -- "$1"; }
failed() { [ "$(count_events "$1")" -gt "$2" ]; }

# both_fail SECONDS WHY_NO_UPLOAD WHY_NO_MAIL: each tells the reason and its event.
both_fail() {
  eventually "$1" says "ftp: server.test: $2"
  eventually "$1" says "mail: server.test: $3"
  eventually 3 failed 512 "$not_uploaded"
  eventually 3 failed 507 "$not_mailed"
}

# both_arrive: something new comes to both servers.
both_arrive() {
  eventually 10 uploaded $(($(uploads | wc -l) + 1))
  eventually 10 mailed $(($(mails | wc -l) + 1))
}

# one_upload_a_login: an upload that fails ends the recording; the next one logs in again.
one_upload_a_login() {
  tail -n "+$((commands_before + 1))" "$work/ftp.commands" |
    awk '/^< USER/ {n = 0} /^< STOR/ && ++n > 1 {exit 1}' || fail "it goes on after an upload that failed"
}

password_is_kept() {
  local seen
  seen=$(grep -laF -f "$work/secrets" /proc/[0-9]*/cmdline /proc/[0-9]*/environ 2>/dev/null) || true
  [ -z "$seen" ] || fail "the password is in $seen"
  # shellcheck disable=SC2009  # it is about what ps shows
  ! ps -eo args | grep -qF -f "$work/secrets" || fail "the password is in the list of processes"
  camctl status >"$work/shown"
  camctl status --json >>"$work/shown"
  ! grep -rlF -f "$work/secrets" "$board/var" "$board/run" "$work/output" "$work/shown" "$work"/*.said ||
    fail "the password is shown"
}

# --- while a camera does all it can -----------------------------------------------------------------

# frames_since MS FRAMES: per 1000 seconds, since the moment when there were so many.
frames_since() { echo $((($(slot frame-count) - $2) * 1000000 / ($(now_ms) - $1))); }

# missing_recordings: how many times the USB recorder was started and stored nothing. The one that is
# built first may have begun before the camera knew its mode.
missing_recordings() { echo $(($(count_events 514) - $(recordings | wc -l))); }

# No setting changes and no event is built anew: only the servers are others each time.
test_nothing_else_suffers() {
  once_is_enough
  make_servers
  serve_both
  deliver_to_servers
  configure Video CompressionType 1
  events_of 'Source = 3; Interval = 2; Usb = 1' \
    'Source = 3; Interval = 1; Ftp = 1; FtpDuration = 1' \
    'Source = 3; Interval = 1; Mail = 1; Subject = Look'
  start_model B520
  eventually 20 events_are_built
  watch_polls
  both_arrive
  local begun frames usual missing
  begun=$(now_ms) frames=$(slot frame-count)
  sleep 4
  usual=$(frames_since "$begun" "$frames")
  missing=$(missing_recordings)
  begun=$(now_ms) frames=$(slot frame-count)

  misbehave ftp 'drop 5000'
  misbehave mail drop
  note
  both_fail 8 '.*' '.*'
  one_upload_a_login
  misbehave ftp 'full 5000'
  misbehave mail full
  note
  both_fail 8 'Exceeded storage allocation' 'the server refuses: 452 4.3.1 insufficient system storage'
  one_upload_a_login
  misbehave ftp 'forbid /pictures'
  misbehave mail forbidden
  note
  both_fail 8 'Server denied you to change to the given directory' 'the server refuses: 550 5.1.1 no such user: office@example.org'
  one_upload_a_login
  misbehave ftp silent
  misbehave mail silent
  note
  both_fail 16 'Operation timed out after .*' 'Operation timed out after .*'
  password_is_kept
  misbehave ftp
  misbehave mail

  end_servers
  note
  both_fail 8 'Failed to connect to server.test port .*' 'Failed to connect to server.test port .*'
  serve_both expired
  note
  both_fail 8 '.*certificate.*' '.*certificate.*'
  end_servers
  serve_both server changed
  note
  both_fail 8 'Access denied: 530' 'Login denied'
  end_servers
  : >"$board/etc/hosts"
  note
  both_fail 8 'Could not resolve host: server.test' 'Could not resolve host: server.test'
  echo '127.0.0.1 server.test' >"$board/etc/hosts"
  serve_both
  both_arrive

  local now
  now=$(frames_since "$begun" "$frames")
  echo "frames in 1000 s: $usual without faults, $now with them"
  [ "$now" -ge $((usual * 9 / 10)) ] || fail "$now frames in 1000 s instead of $usual"
  polls_in_time 60
  no_more_are_missing() { [ "$(missing_recordings)" -le "$missing" ]; }
  eventually 4 no_more_are_missing
  password_is_kept
  stop_daemon
  expect "$status" 0 "exit status"
  [ "$took" -lt 5000 ] || fail "took $took ms"
}

# --- what one fault does ----------------------------------------------------------------------------

# Without the hardware, so that sanitizers can be afforded.
test_each_firing_tries_again() {
  make_servers
  serve_both
  deliver_to_servers
  events_of 'Source = 3; Interval = 2; Ftp = 1; Mail = 1'
  misbehave ftp 'drop 100'
  misbehave mail drop
  start_camera
  both_failed_twice() { [ "$(count_events 512)" -ge 2 ] && [ "$(count_events 507)" -ge 2 ]; }
  eventually 15 both_failed_twice
  expect "$(mails)" "" "mails"
  misbehave ftp
  misbehave mail
  note
  both_arrive
  # Those that were cut stay as they are.
  one_is_whole() {
    local file
    while read -r file; do
      if cmp -s "$picture" "$file"; then return; fi
    done < <(uploads)
    false
  }
  eventually 5 one_is_whole
  password_is_kept
}

# seen_of MAIL: what its reader sees.
seen_of() { "$root/tests/mail_check" "$1" || fail "$1 has defects"; }
# is_seen MAIL FILTER...: all hold.
is_seen() {
  local seen filter
  seen=$(seen_of "$1")
  for filter in "${@:2}"; do
    jq -e "$filter" <<<"$seen" >/dev/null || fail "not so: $filter: $seen"
  done
}
mail_to() { grep -lF "\"$1\"" "$work"/mails/*.json | sed 's/json$/eml/'; }

rebuild_events() {
  rm -f "$board/run/camera/io/input_used"
  camctl reload
  eventually 10 events_are_built
}

test_what_arrives_is_what_was_taken() {
  once_is_enough
  make_servers
  serve_both
  deliver_to_servers
  events_of 'Source = 6; Ftp = 1; FtpDuration = 2; Mail = 1; Receiver = guard@example.org; Subject = Tür offen' \
    'Source = 5; Ftp = 1; FtpDuration = 2; Mail = 1'
  start_camera
  camctl trigger web1
  camctl trigger web2
  eventually 10 mailed 2
  eventually 10 uploaded 2
  logged_out() { grep -q '^< QUIT' "$work/ftp.commands"; }
  eventually 10 logged_out
  expect "$(grep -c '^< USER' "$work/ftp.commands")" 1 "logins for the recording that the events share"
  local file digest
  while read -r file; do
    [[ $file =~ ^$work/ftp/pictures/20[0-9]{6}/[0-2][0-9][0-5][0-9][0-5][0-9]\.jpg$ ]] || fail "$file"
    cmp "$picture" "$file"
  done < <(uploads)
  digest=$(sha256sum <"$picture" | cut -d ' ' -f 1)
  is_seen "$(mail_to guard@example.org)" '.to == ["guard@example.org"]' '.subject == "Tür offen"' \
    '.text | startswith("Tür offen\r\n\r\n") and contains("Back yard")' '.attachments | length == 1' \
    '.attachments[0].type == "image/jpeg"' ".attachments[0].sha256 == \"$digest\"" \
    '.attachments[0].name | test("^[0-9]{6}[.]jpg$")'
  is_seen "$(mail_to office@example.org)" '.to == ["office@example.org"]' '.subject == null' \
    ".attachments[0].sha256 == \"$digest\""

  # One name for all, and no pictures in mails.
  mkdir -p "$work/ftp/pictures"
  cat "$picture" "$picture" >"$work/ftp/pictures/now.jpg"
  printf '[Ftp]\nFixedName = 1\nFileName = now\n[Mail]\nAttach = 0\n' >>"$board/etc/camera.conf"
  rebuild_events
  local before
  before=$(uploads | wc -l)
  : >"$work/ftp.commands"
  camctl trigger web1
  eventually 10 mailed 3
  eventually 10 grep -q '^< STOR now.jpg' "$work/ftp.commands"
  eventually 10 logged_out
  [ "$(grep -c '^< STOR now.jpg' "$work/ftp.commands")" -gt 1 ] || fail "one picture alone"
  cmp "$picture" "$work/ftp/pictures/now.jpg"
  expect "$(uploads | wc -l)" "$before" "files"
  camctl trigger web1
  eventually 10 mailed 4
  stop_daemon
  expect "$(mails | wc -l)" "$(count_events 505)" "mails"
  while read -r file; do
    is_seen "$file" '.subject == "Tür offen"' '.attachments == []' '.type == "text/plain"' \
      '.text | contains("Back yard")'
  done < <(mails | tail -n 2)
}

# --- ends in the middle -----------------------------------------------------------------------------

# begin_delivery FTP_FAULT FTP_COMMAND MAIL_FAULT MAIL_COMMAND: a camera that uploads and mails; the
# servers have got the commands, and with the faults it will take long before anything else happens.
begin_delivery() {
  make_servers
  misbehave ftp "$1"
  misbehave mail "$3"
  serve_both
  deliver_to_servers
  events_of 'Source = 3; Interval = 60; Ftp = 1; FtpDuration = 30' 'Source = 3; Interval = 60; Mail = 1'
  start_camera
  eventually 10 grep -q "$2" "$work/ftp.commands"
  [ -z "$4" ] || eventually 10 grep -q "$4" "$work/mail.commands"
}

# The main loop, which polls the input, is the one that waits.
test_refresh_in_the_middle() {
  begin_delivery 'stall 100' '^< STOR' stall DATA
  "$root/tests/board/read_times" "$board/run/camera/io/input" >"$work/polls" &
  boxes+=($!)
  misbehave ftp
  misbehave mail
  camctl reload
  both_arrive
  polled_again() { [ "$(lines_of "$work/polls")" -gt 3 ] && awk '$1 - last > 1900 && NR > 1 {was = 1} {last = $1} END {exit !was}' "$work/polls"; }
  eventually 10 polled_again
  local longest
  longest=$(awk 'NR > 1 {print $1 - last} {last = $1}' "$work/polls" | sort -n | tail -n 1)
  [ "$longest" -lt 5000 ] || fail "the refresh took $longest ms"
  logged 'ftp: server.test: asked to stop' || fail "the upload was not in the middle"
  logged 'mail: server.test: asked to stop' || fail "the mail was not in the middle"
  ! logged 'left behind' || fail "something is left behind"
  one_is_whole() { uploads | tail -n 1 | xargs -d '\n' cmp -s "$picture"; }
  eventually 5 one_is_whole
}

# ends_in_order: by SIGTERM. The promise is the daemon's and holds under the sanitizers too.
ends_in_order() {
  stop_daemon
  [ "$took" -lt 5000 ] || fail "took $took ms"
  expect "$status" 0 "exit status"
  ! logged 'shutdown took too long' || fail "the watchdog had to end it"
  ! logged 'left behind' || fail "something is left behind"
}

test_end_while_servers_say_nothing() {
  once_is_enough
  begin_delivery silent '^connect' silent ''
  ends_in_order
}

test_end_in_the_middle() {
  begin_delivery 'stall 100' '^< STOR' stall DATA
  ends_in_order
}

test_end_while_a_confirmation_is_missing() {
  once_is_enough
  begin_delivery 'mute 226' '^> 1[25][05]' mute DATA
  ends_in_order
}
