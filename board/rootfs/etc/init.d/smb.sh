#!/bin/sh
# Mounts (start) or unmounts (stop) at /smb the Samba share that /etc/sys.conf tells.
#
#   smb.sh start    ends with 0 when it is mounted, also when something was there before
#   smb.sh stop     ends with 0 when it is unmounted; what another has mounted stays
#
# The camera's main loop waits for it: neither takes more than 3 s, whatever the server does. A start
# that fails leaves nothing mounted or running, and for 10 s the next ones fail at once, unless
# /etc/sys.conf has changed meanwhile.
#
# The kernel mounts the share where it can (CIFS), otherwise sharefs does, which serves it in the
# background. When sharefs ends, as it does when the server is gone, the mount goes with it. The
# password stands in no command line, environment or log, nor in a file that stays.
umask 077
cd / || exit 1
PATH=/sbin:/usr/sbin:/bin:/usr/bin:/board
config=/etc/sys.conf
run=/run/smb            # whose files are: lock, stop, failed, mounted, guard, helper, ended, said
give_up=230             # hundredths of a second until a mount is given up; then it is tidied
all_over=280            # and until everything has an end
fail_again=1000         # hundredths of a second that a failure is remembered

blank=" $(printf '\t\r')"

say() {
  if [ -x /sbin/boardlog ]; then /sbin/boardlog "smb.sh: $*"; else logger -t smb.sh -- "$*"; fi
}

# now: hundredths of a second on a clock that nobody sets.
now() {
  read -r up _ </proc/uptime
  echo $((${up%.*} * 100 + 1${up#*.} - 100))
}

# in_time LIMIT: true until LIMIT hundredths after the beginning; takes a little nap.
in_time() {
  [ $(($(now) - begun)) -lt "$1" ] && sleep 0.05
}

mounted() {
  while read -r _ _ _ _ point rest; do
    [ "$point" = /smb ] || continue
    case $rest in
      *' - autofs '*) ;;  # nothing is mounted there yet
      *) return 0 ;;
    esac
  done </proc/self/mountinfo
  return 1
}

# --- settings -------------------------------------------------------------------------------------

trim() {
  trimmed=${1#"${1%%[!"$blank"]*}"}
  trimmed=${trimmed%"${trimmed##*[!"$blank"]}"}
}

lower() { printf %s "$1" | tr '[:upper:]' '[:lower:]'; }

# Reads the section "Samba" by the rules of the camera's other files.
read_settings() {
  server='' share='' port=445 user='' password='' domain='' version='' section=''
  while IFS= read -r line || [ -n "$line" ]; do
    trim "$line"
    line=$trimmed
    case $line in
      '' | '#'* | ';'*) continue ;;
      '['*)
        line=${line#?}
        trim "${line%%]*}"
        section=$(lower "$trimmed")
        continue
        ;;
    esac
    [ "$section" = samba ] || continue
    key=${line%%[=:]*}
    [ "$key" != "$line" ] || continue
    value=${line#"$key"}
    value=${value#?}
    trim "${value%%["$blank"];*}"
    value=$trimmed
    case $value in *[[:cntrl:]]*) continue ;; esac
    trim "$key"
    case $(lower "$trimmed") in
      server) server=$value ;;
      share) share=$value ;;
      port) port=$value ;;
      user) user=$value ;;
      password) password=$value ;;
      domain) domain=$value ;;
      version) version=$value ;;
    esac
  done <"$config"
}

# Sets $problem to what makes a mount useless to try, or to nothing.
check_settings() {
  problem=''
  case $port in
    '' | *[!0-9]* | ??????*) wrong_port=yes ;;
    *) wrong_port=$([ "$port" -ge 1 ] && [ "$port" -le 65535 ] || echo yes) ;;
  esac
  if [ -n "$wrong_port" ]; then
    say "Port is wrong in $config: 445 is taken"
    port=445
  fi
  case $version in *[!0-9.]*)
    say "Version is wrong in $config: it is left to the server"
    version=''
    ;;
  esac
  case $server in
    '') problem="no share is set up: $config has no Server in the section Samba" ;;
    -* | *[!A-Za-z0-9._-]*) problem="Server is wrong in $config" ;;
  esac
  case $share in
    '' | */* | *\\*) [ -n "$problem" ] || problem="Share is missing or wrong in $config" ;;
  esac
  [ -n "$password" ] || return 0
  # shellcheck disable=SC2012  # stat is not everywhere
  case $(ls -ld "$config") in
    -r[w-]-------*) ;;
    *) say "warning: $config holds a password and others may read it: chmod 600 $config" ;;
  esac
}

# --- mounting -------------------------------------------------------------------------------------

# answers: true iff somebody listens at the server's port.
answers() {
  if command -v bash >/dev/null; then
    # shellcheck disable=SC2016  # that shell is to expand these
    timeout -s KILL 1 bash -c 'exec 3<>"/dev/tcp/$0/$1"' "$server" "$port"
  else
    timeout -s KILL 1 nc -z "$server" "$port"
  fi >/dev/null 2>&1
}

# way: prints what can mount a share here.
way() {
  # Only root may mount by the kernel, in whatever namespace; FUSE is open to everybody.
  if [ "$(id -u)" -eq 0 ] && command -v mount.cifs >/dev/null &&
    { grep -qw cifs /proc/filesystems || modprobe cifs 2>/dev/null; }; then
    echo kernel
  elif [ -c /dev/fuse ] && command -v sharefs >/dev/null; then
    echo sharefs
  fi
}

# by_kernel: mounts; the settings come by standard input. Writes go to the server at once, so that a
# recording can be played while it grows; a server that says nothing for 3 s is gone.
by_kernel() {
  for name in server port share user password domain version; do
    IFS= read -r "${name?}"
  done
  printf 'username=%s\npassword=%s\n' "$user" "$password" >"$run/credentials"
  [ -z "$domain" ] || printf 'domain=%s\n' "$domain" >>"$run/credentials"
  options="credentials=$run/credentials,port=$port,vers=${version:-default},soft,echo_interval=1"
  options="$options,cache=none,actimeo=1,uid=$(id -u),gid=$(id -g),file_mode=0640,dir_mode=0750"
  mount -t cifs -o "$options,nosuid,nodev,noexec" "//$server/$share" /smb
  rm -f "$run/credentials"
}

# guard WAY: what runs in the background. Mounts, and stays as long as sharefs does.
guard() {
  if [ "$1" = kernel ]; then
    by_kernel
  else
    # shellcheck disable=SC2016
    sh -c 'echo $$ >"$0" && exec sharefs /smb' "$run/helper"
    if mounted; then timeout -s KILL 1 umount -l /smb; fi
    rm -f "$run/mounted" "$run/helper"
  fi
  : >"$run/ended"
}

# runs FILE NAME: true iff the process whose number is in FILE is a NAME and no zombie. Sets $pid.
runs() {
  [ -r "$run/$1" ] && read -r pid <"$run/$1" && [ -n "$pid" ] &&
    readlink "/proc/$pid/exe" >/dev/null && [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "$2" ]
}

guarded() { [ ! -e "$run/ended" ] && runs guard smb.sh; }

# tidy: ends sharefs and its guard, in order if they can. A mount by the kernel that is under way ends
# with the guard: it must not come later, when nobody waits for it any more.
tidy() {
  if runs helper sharefs; then kill -TERM "$pid" 2>/dev/null; fi
  patience=$(($(now) - begun + 25))
  while guarded; do
    if ! in_time "$patience"; then
      if runs helper sharefs || runs helper sh; then
        kill -KILL "$pid" 2>/dev/null
      elif [ "${way:-}" = kernel ] && runs guard smb.sh; then
        kill -s KILL -- "-$pid" 2>/dev/null
      fi
      in_time "$all_over" || break
    fi
  done
  rm -f "$run/credentials"
}

# try: mounts. Returns non-zero with the reason in $problem.
try() {
  check_settings
  [ -z "$problem" ] || return 1
  way=$(way)
  if [ -z "$way" ]; then
    problem="neither the kernel nor sharefs can mount a share here"
    return 1
  fi
  if ! answers; then
    problem="the server $server does not answer on port $port"
    return 1
  fi
  rm -f "$run/ended" "$run/helper" "$run/said"
  printf '%s\n' "$server" "$port" "$share" "$user" "$password" "$domain" "$version" |
    setsid "$0" guard "$way" >/dev/null 2>"$run/said" 9>&- &
  echo $! >"$run/guard"
  until mounted; do
    problem="the server $server refuses: $(tail -n 1 "$run/said" 2>/dev/null)"
    [ ! -e "$run/ended" ] || return 1
    problem="the server $server is too slow"
    [ ! -e "$run/stop" ] && in_time "$give_up" || return 1
  done
  # The kernel takes the mount for root's until it has been asked, and root is nobody in the namespace of
  # an ordinary user, who could not write.
  timeout -s KILL 1 stat /smb >/dev/null 2>&1
  echo "$way" >"$run/mounted"
}

failed_recently() {
  [ -r "$run/failed" ] && read -r since sum <"$run/failed" && [ "$sum" = "$checksum" ] &&
    [ $(($(now) - since)) -lt $fail_again ]
}

start() {
  lock || return 1
  rm -f "$run/stop"
  if mounted; then
    orphaned || return 0
    detach
  fi
  checksum=$(cksum <"$config")
  if failed_recently; then return 1; fi
  tidy
  read_settings
  if try; then
    rm -f "$run/failed"
    say "//$server/$share is mounted"
    return 0
  fi
  tidy
  [ "${way:-}" != kernel ] || ! mounted || detach
  echo "$(now) $checksum" >"$run/failed"
  say "$problem"
  return 1
}

# orphaned: true iff our mount is served by nobody, since sharefs and its guard were killed together.
orphaned() { [ "$(cat "$run/mounted" 2>/dev/null)" = sharefs ] && ! runs helper sharefs; }

# detach: unmounts, whatever the server does.
detach() {
  timeout -s KILL 1 umount /smb 2>/dev/null
  ! mounted || timeout -s KILL 1 umount -f -l /smb 2>/dev/null
}

stop() {
  : >"$run/stop"  # for a start that is under way
  lock || return 1
  rm -f "$run/stop"
  ours=$(cat "$run/mounted" 2>/dev/null)
  tidy
  if [ -n "$ours" ] && mounted; then detach; fi
  if [ -n "$ours" ] && mounted; then
    say "the share can't be unmounted"
    return 1
  fi
  rm -f "$run/mounted"
  [ -z "$ours" ] || say "the share is unmounted"
}

# lock: one at a time; those that wait do so for what is left of their time.
lock() {
  exec 9>"$run/lock"
  until flock -n 9; do in_time "$give_up" || return 1; done
}

begun=$(now)
mkdir -p "$run" && chmod 700 "$run" || exit 1
case ${1:-} in
  start | stop) "$1" ;;
  guard) guard "$2" ;;
  *)
    echo "usage: $0 start|stop" >&2
    exit 2
    ;;
esac
