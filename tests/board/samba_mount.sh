# shellcheck shell=bash
# The share at /smb: mounted and unmounted by smb.sh, with a Samba server that works, or does not.

# shellcheck source=share.sh
. "$here/share.sh"

is_mounted() { in_box 'grep -q " /smb " /proc/self/mountinfo'; }
is_bare() { ! is_mounted; }
smb() { in_box "/etc/init.d/smb.sh $1"; }
mount_share() { smb start || fail "not mounted: $(tail -n 3 "$board/var/log/camera/board.log")"; }
board_said() { grep -qF -- "$1" "$board/var/log/camera/board.log"; }

in_three_seconds() { [ "$took" -lt 3200 ] || fail "$1 takes $took ms"; }

# nothing_is_left: after a start that failed, or a stop.
nothing_is_left() {
  is_bare || fail "something is mounted"
  nothing_serves || fail "processes are left: $(serving)"
}

# fails TEXT: a start fails in time, says so and leaves nothing.
fails() {
  if smb start; then fail "mounted"; fi
  in_three_seconds "a start that fails"
  board_said "$1" || fail "$(tail -n 3 "$board/var/log/camera/board.log") instead of $1"
  nothing_is_left
}

test_is_mounted_and_written_to() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  in_three_seconds "a start"
  is_mounted || fail "not mounted"
  board_said 'smb.sh: //127.0.0.1/camera is mounted' || fail "no message"
  in_box 'mkdir -p /smb/camera/20261121 && echo "a picture" >"/smb/camera/20261121/a b%ä.avi"'
  expect "$(cat "$work/share/camera/20261121/a b%ä.avi")" "a picture" "on the server"
  (umask 077 && printf 'username=camera\npassword=%s\n' "$secret" >"$work/login")
  smbclient -p "$port" -A "$work/login" //127.0.0.1/camera \
    -c "get \"camera/20261121/a b%ä.avi\" $work/got" >/dev/null 2>&1
  expect "$(cat "$work/got")" "a picture" "through another client"
  # It may be asked again and again.
  smb start || fail "a second start fails"
  smb stop || fail "not unmounted"
  in_three_seconds "a stop"
  nothing_is_left
  smb stop || fail "a second stop fails"
  expect "$(ls "$board/smb")" "" "the bare mount point"
  stop_server
}

# A recording grows, and its header is written again and again: both are on the server at once.
test_what_is_written_is_on_the_server_at_once() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  in_box 'exec 5>/smb/a; printf "0000" >&5; printf "more" >&5; printf 1234 | dd of=/smb/a conv=notrunc status=none'
  expect "$(cat "$work/share/a")" "1234more" "while it is open"
  in_box 'printf "last" >&5; exec 5>&-'
  expect "$(cat "$work/share/a")" "1234morelast" "at its end"
  expect "$(in_box 'cat /smb/a')" "1234morelast" "read back"
  expect "$(($(in_box 'stat -f -c "%b * %S" /smb')))" "$(($(stat -f -c '%b * %S' "$work/share")))" "bytes of the disk"
  # Files that the server has refuse as they should.
  in_box 'mkdir /smb/a 2>&-' && fail "a folder in the place of a file"
  in_box 'rmdir /smb/none 2>&-' && fail "a folder that is not there"
  is_mounted || fail "an error of a file has unmounted everything"
  stop_server
}

test_a_full_share_says_so() {
  needs_a_share
  apart=(unshare -m sh -c 'mount -t tmpfs -o size=1M none "$0" && exec "$@"' "$work/share")
  start_server
  share_is
  open_box
  mount_share
  in_box 'dd if=/dev/zero of=/smb/a bs=64k count=32 2>/home/said' && fail "no room and no error"
  grep -q 'No space left' "$board/home/said" || fail "$(<"$board/home/said")"
  in_box 'rm /smb/a && echo again >/smb/b' || fail "room is not made"
  is_mounted || fail "a full share has gone"
  stop_server
}

test_the_kernel_mounts_where_it_can() {
  needs_a_share
  share_is 'Domain = HOME' 'Version = 3.1.1'
  local mount=$board/sbin/mount
  printf '#!/bin/sh\n' | tee "$board/sbin/modprobe" "$board/sbin/mount.cifs" >/dev/null
  cat >"$mount" <<'END'
#!/bin/sh
echo "$*" >/home/asked
cp /run/smb/credentials /home/credentials
ls -l /run/smb/credentials | cut -c 1-10 >/home/mode
[ ! -e /home/refuse ] || { echo "mount error(13)" >&2; exit 32; }
[ ! -e /home/hang ] || { sleep 4; /usr/bin/mount -t tmpfs none /smb; }
exec /usr/bin/mount -t tmpfs none /smb
END
  chmod +x "$board"/sbin/{mount,modprobe,mount.cifs}
  port=14450 share_is 'Domain = HOME' 'Version = 3.1.1'
  # A server that answers is enough.
  start_listener
  share_is 'Domain = HOME' 'Version = 3.1.1'
  open_box
  mount_share
  expect "$(<"$board/home/mode")" "-rw-------" "mode of the credentials"
  expect "$(<"$board/home/credentials")" "username=camera
password=$secret
domain=HOME" "credentials"
  grep -qF "port=$port,vers=3.1.1,soft," "$board/home/asked" || fail "$(<"$board/home/asked")"
  if grep -qF "$secret" "$board/home/asked"; then fail "the password is in the command line"; fi
  in_box 'test -e /run/smb/credentials' && fail "the credentials stay"
  smb stop || fail "not unmounted"
  nothing_is_left
  touch "$board/home/refuse"
  fails 'refuses: mount error(13)'
  in_box 'test -e /run/smb/credentials' && fail "the credentials stay"
  rm "$board/home/refuse"
  touch "$board/home/hang"
  share_is 'Domain = ELSEWHERE'
  fails 'the server 127.0.0.1 is too slow'
  in_box 'test -e /run/smb/credentials' && fail "the credentials stay"
  sleep 2
  is_bare || fail "mounted when nobody waits any more"
  return 0
}

test_a_wrong_password_and_a_share_that_is_not_there() {
  needs_a_share
  start_server
  share_is 'Password = wrong'
  open_box
  fails 'the server 127.0.0.1 refuses: the server refuses: Permission denied'
  share_is 'Share = none'
  fails 'the server 127.0.0.1 refuses: the server refuses: No such file or directory'
  share_is  # a changed configuration is tried at once
  mount_share
  stop_server
}

# start_listener: takes connections and says nothing.
start_listener() {
  /usr/bin/python3 -c '
import socket
listener = socket.create_server(("127.0.0.1", 0))
print("ready", listener.getsockname()[1], flush=True)
kept = []
while True: kept.append(listener.accept())' >"$work/listener" &
  boxes+=($!)
  eventually 10 grep -q ready "$work/listener"
  port=$(cut -d' ' -f2 "$work/listener")
}

test_a_server_that_says_nothing() {
  needs_a_share
  start_listener
  share_is
  open_box
  fails 'the server 127.0.0.1 is too slow'
}

test_no_server_is_remembered_for_ten_seconds() {
  needs_a_share
  start_server
  stop_server
  share_is
  open_box
  fails "the server 127.0.0.1 does not answer on port $port"
  start_server "$port"
  local lines
  lines=$(wc -l <"$board/var/log/camera/board.log")
  if smb start; then fail "the failure is forgotten"; fi
  [ "$took" -lt 1000 ] || fail "the answer takes $took ms"
  expect "$(wc -l <"$board/var/log/camera/board.log")" "$lines" "messages"
  # As if it had been 10 s ago.
  in_box 'read -r time sum </run/smb/failed && echo "$((time - 1000)) $sum" >/run/smb/failed'
  mount_share
  stop_server
}

# Whoever writes is told within the file system's own time-out, 3 s, and the mount goes by itself.
test_a_server_that_hangs() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  kill -USR1 "$server"
  in_box 'echo x >/smb/a' 2>/dev/null && fail "written to a server that hangs"
  [ "$took" -lt 4500 ] || fail "a write is held for $took ms"
  eventually 2 is_bare
  eventually 2 nothing_serves
  fails 'the server 127.0.0.1 is too slow'
  kill -USR2 "$server"
  share_is '# changed'
  mount_share
  kill -USR1 "$server"
  in_box 'echo x >/smb/a &' 2>/dev/null
  smb stop || fail "not unmounted"
  in_three_seconds "a stop"
  nothing_is_left
  kill -USR2 "$server"
  stop_server
}

# The descriptors that a command inherits are closed before it begins.
test_a_server_that_hangs_holds_no_command() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  cat >"$board/tmp/command" <<END
import os, signal, subprocess, threading, time
def write():
    try: os.write(film, b"x")
    except OSError: pass
film = os.open("/smb/a", os.O_WRONLY | os.O_CREAT)  # a shell would close another descriptor of it
os.kill($server, signal.SIGUSR1)
time.sleep(0.5)
begun = time.monotonic()
writing = threading.Thread(target=write)
writing.start()
time.sleep(0.5)
subprocess.run(["true"])
command = time.monotonic() - begun
writing.join()
print(int(command * 1000), int((time.monotonic() - begun) * 1000))
END
  read -r command writing < <(in_box 'python3 /tmp/command')
  [ "$writing" -gt 2000 ] || fail "nothing hangs, $writing ms"
  [ "$command" -lt 1500 ] || fail "a command is held for $command ms"
  kill -USR2 "$server"
  stop_server
}

test_a_server_that_is_killed_and_comes_back() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  in_box 'exec 5>/smb/a; echo x >&5'
  stop_server
  in_box 'echo y >&5' 2>/dev/null && fail "written to no server"
  eventually 2 is_bare
  eventually 2 nothing_serves
  in_box 'exec 5>&-'
  start_server "$port"
  mount_share
  in_box 'echo z >/smb/b' || fail "not written"
  # Gone again, and nobody writes.
  stop_server
  smb stop || fail "not unmounted"
  in_three_seconds "a stop"
  nothing_is_left
}

test_the_mount_goes_with_what_serves_it() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  kill -KILL "$(in_box 'cat /run/smb/helper')"
  eventually 2 is_bare
  eventually 2 nothing_serves
  mount_share
  # And with the box, however that ends.
  kill -KILL "$box_pid"
  eventually 5 nothing_serves
  stop_server
}

test_a_mount_that_nobody_serves_is_made_anew() {
  needs_a_share
  start_server
  share_is
  open_box
  mount_share
  local pid
  for pid in $(serving); do kill -KILL "$pid"; done
  eventually 3 nothing_serves
  is_mounted || fail "it has gone by itself"
  mount_share
  in_three_seconds "a start"
  in_box 'echo new >/smb/a' || fail "it can't be written to"
  smb stop || fail "not unmounted"
  nothing_is_left
  stop_server
}

test_many_starts_at_once_mount_once() {
  needs_a_share
  start_server
  share_is
  open_box
  in_box 'for i in 1 2 3 4; do (/etc/init.d/smb.sh start; echo $? >>/home/ends) & done; wait'
  expect "$(sort "$board/home/ends" | uniq -c | tr -s ' ')" " 4 0" "ends"
  expect "$(in_box 'grep -c " /smb " /proc/self/mountinfo')" 1 "mounts"
  expect "$(grep -c 'is mounted' "$board/var/log/camera/board.log")" 1 "messages"
  in_box '(/etc/init.d/smb.sh stop &) ; /etc/init.d/smb.sh stop' || fail "not unmounted"
  eventually 3 nothing_serves
  is_bare || fail "something is mounted"
  stop_server
}

# seen_by_all: notes what everybody can see of processes, as long as $work/watch is there.
seen_by_all() {
  while [ -e "$work/watch" ]; do
    cat /proc/[0-9]*/cmdline 2>/dev/null | tr '\0' '\n' | grep -aF -f "$work/secret" >>"$work/leaks"
    # shellcheck disable=SC2009  # the whole list is the point
    ps -eo args | grep -F -f "$work/secret" >>"$work/leaks"
  done
}

test_the_password_shows_nowhere() {
  needs_a_share
  start_server
  share_is
  open_box
  echo "$secret" >"$work/secret"  # the test's own tools are seen, too
  touch "$work/watch"
  : >"$work/leaks"
  seen_by_all 2>/dev/null &
  local watcher=$!
  mount_share
  local pid
  for pid in $(serving); do
    if tr '\0' '\n' <"/proc/$pid/environ" | grep -qF -f "$work/secret"; then fail "in the environment of $pid"; fi
  done
  expect "$(in_box 'grep -rlF "pa ss" /run/smb /tmp /var /proc/self/mountinfo')" "" "files"
  smb stop
  share_is 'Share = none'
  if smb start; then fail "mounted"; fi
  rm "$work/watch"
  wait $watcher || true
  expect "$(<"$work/leaks")" "" "what everybody sees"
  if grep -rqF "$secret" "$log" "$board/var"; then fail "in a log"; fi
  # Who may read the file is told once a start, and not when nobody may.
  if board_said chmod; then fail "a warning without need"; fi
  chmod 640 "$board/etc/sys.conf"
  share_is
  chmod 640 "$board/etc/sys.conf"
  mount_share
  expect "$(grep -c 'chmod 600 /etc/sys.conf' "$board/var/log/camera/board.log")" 1 "warnings"
  stop_server
}

test_settings_that_are_wrong() {
  needs_a_share
  open_box
  fails 'no share is set up: /etc/sys.conf has no Server in the section Samba'
  local line
  for line in 'Server = -x' 'Server = a b' 'Server = a,b' 'Server = $(touch /tmp/x)'; do
    share_is "$line"
    fails 'Server is wrong in /etc/sys.conf'
  done
  for line in 'Share =' 'Share = a/b' 'Share = a\b' 'Share = ;x'; do
    share_is "$line"
    : >"$board/var/log/camera/board.log"
    fails 'smb.sh: '
  done
  for line in 'Port = 0' 'Port = 65536' 'Port = x' 'Port = 999999999999'; do
    share_is "$line"
    fails 'Port is wrong in /etc/sys.conf: 445 is taken'
  done
  expect "$(find "$board/tmp" "$board/home" -name x)" "" "what was run"
  : >"$board/etc/sys.conf"
  fails 'no share is set up'
  rm "$board/etc/sys.conf"
  fails 'no share is set up'
}

test_a_share_in_memory_is_not_ours_to_unmount() {
  once_is_enough
  bwrap --bind / / true 2>/dev/null || skip "bubblewrap does not work here"
  open_box 64M
  expect "$(in_box 'stat -f -c %T /smb')" tmpfs "the share"
  expect "$(($(in_box 'stat -f -c "%b * %S" /smb')))" $((64 << 20)) "its size"
  smb start || fail "a start fails"
  smb stop || fail "a stop fails"
  is_mounted || fail "it has gone"
  in_box 'mkdir -p /smb/camera && echo x >/smb/camera/a' || fail "not written"
}

test_without_a_share_the_folder_is_bare() {
  once_is_enough
  open_box none
  is_bare || fail "something is mounted"
  if smb start; then fail "mounted"; fi
  in_three_seconds "a start"
  smb stop || fail "a stop fails"
}
