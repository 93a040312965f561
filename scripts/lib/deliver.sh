# shellcheck shell=bash
# Real servers on this PC alone, for a camera that delivers to them: FTP, mail and a Samba share. What
# arrives is shown as it arrives. Sourced by scripts/run, which sets $root, $board, $camera and $keep.
# shellcheck disable=SC2034,SC2154

deliveries=''       # the folder: ftp/, mailbox/ and share/ for what arrives, servers/ for the servers' own
share_arguments=()  # of board/enter for a program that records there
share_missing=''    # why no share can be mounted here; empty: it can
password=''         # of the camera's user at all of them
declare -A server_pid=() server_port=()

# --- the servers ----------------------------------------------------------------------------------

# make_deliveries: the folders and what proves who is who, made for this run alone: credentials, in a file
# that nobody else can read, and a certificate that the camera is told to trust.
make_deliveries() {
  local servers=$board-deliveries/servers
  deliveries=$board-deliveries
  if [ -e "$deliveries" ] && [ ! -e "$deliveries/.deliveries" ]; then
    fail "$deliveries is no folder of deliveries"
  fi
  [ "$keep" = yes ] || rm -rf -- "$deliveries"
  rm -rf -- "$servers"  # what was said and known in a former run
  mkdir -p -- "$deliveries"/{ftp,mailbox,share}
  echo "What a camera of video_svr has delivered: see scripts/run --deliver." >"$deliveries/.deliveries"
  password=$(od -An -N12 -tx1 /dev/urandom | tr -d ' \n')
  (
    umask 077
    mkdir -- "$servers"
    echo "camera:$password:/" >"$servers/ftp-users"
    echo "camera:$password" >"$servers/users"
  )
  board/servers/certificates "$servers"
}

# start_server NAME COMMAND...: out of reach of the terminal's Ctrl-C. It ends with this script.
start_server() {
  setsid setpriv --pdeathsig TERM "${@:2}" </dev/null >"$deliveries/servers/$1.log" 2>&1 &
  server_pid[$1]=$!
}

start_servers() {
  local servers=$deliveries/servers name
  local certificate=("$servers/server.pem" "$servers/server.key")
  start_server ftp board/servers/ftp_server --root "$deliveries/ftp" --users "$servers/ftp-users" \
    --tls "${certificate[@]}" --tls-required
  start_server mail board/servers/mail_server --mailbox "$deliveries/mailbox" \
    --users "$servers/users" --starttls "${certificate[@]}"
  start_server share board/servers/smb_server --root "$deliveries/share" --users "$servers/users"
  for name in "${!server_pid[@]}"; do await_server "$name"; done
}

# await_server NAME: until it is ready. It chooses its port: $server_port[NAME].
await_server() {
  local says=$deliveries/servers/$1.log pid=${server_pid[$1]}
  # shellcheck disable=SC2317  # called by await
  server_is_ready() { grep -q '^ready [0-9]' "$says" || is_gone "$pid"; }
  if ! await 10 server_is_ready || is_gone "$pid"; then
    cat -- "$says" >&2
    fail "the $1 server does not start"
  fi
  server_port[$1]=$(sed -n 's/^ready \([0-9]*\).*/\1/p' "$says" | head -n 1)
}

# end_servers: to be called after the camera's end; it may deliver to its last moment.
end_servers() {
  local name status=0
  for name in "${!server_pid[@]}"; do
    if ! end_process "${server_pid[$name]}" 5; then
      echo "the $name server did not end and was killed" >&2
      status=1
    fi
    wait "${server_pid[$name]}" 2>/dev/null || true
  done
  server_pid=()
  return $status
}

# --- the camera's configuration -------------------------------------------------------------------

configured=(camera.conf sys.conf events.conf)
mark='# From here on: written by scripts/run --deliver, for one run.'

# forget_deliveries: takes away what a former run has written into the files of a kept board.
forget_deliveries() {
  local file
  for file in "${configured[@]/#/$board/etc/}"; do
    if [ -f "$file" ]; then sed -i "\\|^$mark\$|,\$d" "$file"; fi
  done
}

# add_configuration FILE: appends standard input. Of a key that is there twice the last value counts.
add_configuration() {
  chmod 600 -- "$board/etc/$1"
  { echo "$mark" && cat; } >>"$board/etc/$1"
}

configure_deliveries() {
  cp -- "$deliveries/servers/ca.pem" "$board/etc/servers.pem"
  add_configuration camera.conf <<END
[Ftp]
Server = 127.0.0.1
Port = ${server_port[ftp]}
Security = 1
CaFile = /etc/servers.pem
User = camera
Password = $password
Folder = pictures

[Mail]
Server = 127.0.0.1
Port = ${server_port[mail]}
Security = 1
CaFile = /etc/servers.pem
Login = 1
User = camera
Password = $password
Sender = camera@example.org
Receiver = office@example.org

[Camera]
Name = $camera
END
  add_configuration sys.conf <<END
[Samba]
Enable = 1
Server = 127.0.0.1
Port = ${server_port[share]}
Share = camera
User = camera
Password = $password
END
  # JPEG pictures to begin with.
  [ "$camera" != B520 ] || printf '\n[Video]\nCompressionType = 1\n' >>"$board/etc/camera.conf"
  add_configuration events.conf <<END
[Main]
Max = 93

# Every 3 seconds by FTP, and all the time to the share.
[91]
Erased = 0
Schedule = always
Source = 3
Interval = 3
Ftp = 1
Smb = 1
SmbContinue = 1

# "camctl trigger web1": a mail.
[92]
Erased = 0
Schedule = always
Source = 6
Mail = 1
Receiver = you@example.org
Subject = Somebody is at the door
END
  [ "$camera" != B520 ] || cat >>"$board/etc/events.conf" <<END

# Something moves on the left: a mail, and pictures for 3 seconds by FTP.
[93]
Erased = 0
Schedule = always
Source = 0
Mail = 1
Subject = Something moves on the left
Ftp = 1
FtpDuration = 3
END
}

# try_share: whether the share can be mounted here, and if so what board/enter needs for it. A mount in a
# box is seen in no other one, so that trying it does no harm.
try_share() {
  local try=(--smb server --sharefs "$sharefs") said=$deliveries/servers/share-try.log
  [ -z "$with" ] || try+=(--with "$with")
  if board/enter "${try[@]}" "$board" sh -c '/etc/init.d/smb.sh start' </dev/null >"$said" 2>&1; then
    share_arguments=("${try[@]:0:4}")
    return
  fi
  # What smb.sh has to say goes to the board's log.
  [ -s "$said" ] || tail -n 1 "$board/var/log/camera/board.log" >"$said"
  share_missing=$(sed -n '$s/^.*\(enter\|smb.sh\): //p' "$said")
  printf '[Samba]\nEnable = 0\n' >>"$board/etc/sys.conf"
  echo "The share is left out: $share_missing"
}

# start_deliveries: the servers, and what the camera has to know of them.
start_deliveries() {
  make_deliveries
  start_servers
  configure_deliveries
  try_share
  new_deliveries quiet
}

# --- what arrives ---------------------------------------------------------------------------------

# By kind and path, "share/camera/20261121/120000.avi": size and time of change at the last look, and
# when it was last told.
declare -A seen=() told=() told_at=()
declare -A count=([ftp]=0 [mailbox]=0 [share]=0) bytes_of=()

# size_of BYTES: readable.
size_of() {
  if [ "$1" -lt 1000000 ]; then
    echo "$((($1 + 500) / 1000)) kB"
  else
    echo "$(($1 / 1000000)).$(($1 / 100000 % 10)) MB"
  fi
}

# mail_line FILE: what a reader of mails sees of it.
mail_line() {
  /usr/bin/python3 - "$1" <<'END'
import email, email.policy, sys
with open(sys.argv[1], "rb") as file:
    mail = email.message_from_binary_file(file, policy=email.policy.default)
parts = [f"{part.get_filename()}, {len(part.get_content())} bytes" for part in mail.iter_attachments()]
print(f'mail to {mail["to"]}, subject "{mail["subject"]}", with {"; ".join(parts) or "no picture"}')
END
}

# tell FILE SIZE: a line about a file that has arrived, or has grown.
tell() {
  local line
  case $1 in
    ftp/*) line="ftp ${1#*/}, $2 bytes" ;;
    mailbox/*) line=$(mail_line "$deliveries/$1") || line="mail that can't be read: $1" ;;
    share/*)
      line="share ${1#*/} grows, $(size_of "$2")"
      [ -n "${told[$1]:-}" ] || line="share ${1#*/} begins"
      ;;
  esac
  printf '%(%H:%M:%S)T  %s\n' -1 "$line"
}

# new_deliveries [HOW]: tells what has arrived since the last call. HOW: "quiet" notes what a former run
# has left; "last" does not wait until files are whole.
new_deliveries() {
  local how=${1:-} size time path
  while IFS=$'\t' read -r -d '' size time path; do
    [ "${told[$path]:-}" != "$size $time" ] || continue
    if [ "$how" != quiet ]; then
      if [[ $how != last && $path == share/* ]]; then
        # It grows all the time; a line now and then will do.
        [ $((SECONDS - ${told_at[$path]:--5})) -ge 5 ] || continue
      elif [[ $how != last && ${seen[$path]:-} != "$size $time" ]]; then
        seen[$path]="$size $time"
        continue
      fi
      # A file on the share is one, however often it grows.
      [[ $path == share/* && -n ${told[$path]:-} ]] || count[${path%%/*}]=$((count[${path%%/*}] + 1))
      tell "$path" "$size"
      bytes_of[$path]=$size
    fi
    told[$path]="$size $time" told_at[$path]=$SECONDS
  done < <(cd "$deliveries" && find ftp mailbox share -type f ! -name '*.json' ! -name '*.part' -printf '%s\t%T@\t%p\0' 2>/dev/null | sort -z -k 3)
}

# show_deliveries: the summary. Returns non-zero when something has not come that should have.
show_deliveries() {
  local kind path bytes status=0
  echo "Deliveries   in $deliveries:"
  for kind in ftp mailbox share; do
    bytes=0
    for path in "${!bytes_of[@]}"; do
      [[ $path != "$kind"/* ]] || bytes=$((bytes + ${bytes_of[$path]}))
    done
    if [ $kind = share ] && [ -n "$share_missing" ]; then
      echo "  share      left out: $share_missing"
    elif [ "${count[$kind]}" -gt 0 ]; then
      printf '  %-9s  %d files, %d bytes\n' $kind "${count[$kind]}" $bytes
    else
      printf '  %-9s  NOTHING HAS COME\n' $kind
      status=1
    fi
  done
  return $status
}
