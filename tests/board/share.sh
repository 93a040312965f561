# shellcheck shell=bash
# What the tests of the share at /smb have in common: a Samba server, and a box that uses it. Sourced.

secret='pa ss;w%rd#1$"é'
server='' port='' server_output=''
apart=()  # what the server is started by

needs_a_share() {
  once_is_enough
  if [ "$(id -u)" -ne 0 ] || [ ! -c /dev/fuse ]; then skip "no mounts of FUSE here"; fi
  [ -x "$build/board/share/sharefs" ] || skip "sharefs is not built"
}

# start_server [PORT]: a server of the folder $work/share.
start_server() {
  mkdir -p "$work/share"
  (umask 077 && echo "camera:$secret" >"$work/users")
  server_output=$(mktemp "$work/server.XXXXXX")
  TMPDIR=$work "${apart[@]}" "$root/board/servers/smb_server" --root "$work/share" --port "${1:-0}" --users "$work/users" \
    >"$server_output" 2>>"$log" &
  server=$!
  boxes+=("$server")
  eventually 20 grep -q ready "$server_output"
  port=$(cut -d' ' -f2 "$server_output")
}

stop_server() {
  [ -z "$server" ] || end_process "$server" 5 || fail "the server does not end"
  server=''
}

# share_is [LINE...]: sets the section Samba, with these lines in addition.
share_is() {
  local file=$board/etc/sys.conf
  (umask 077 && : >"$file.new")
  printf '%s\n' '[samba]' 'Enable = 1' 'server = 127.0.0.1' "Port = ${port:-1}" 'Share = camera' \
    'User = camera' "Password = $secret  ; the camera's own" "$@" '[Other]' 'Server = elsewhere' \
    >"$file.new"
  mv -f "$file.new" "$file"
}

# open_box [SMB]: a box whose shell takes the commands of in_box.
open_box() {
  coproc box_shell {
    exec "$root/board/enter" --smb "${1:-server}" --sharefs "$build/board/share/sharefs" "$board" sh 2>>"$log"
  }
  # shellcheck disable=SC2154  # coproc sets it
  box_pid=$box_shell_PID
  boxes+=("$box_pid")
  exec {to_box}>&"${box_shell[1]}" {from_box}<&"${box_shell[0]}"
}

# in_box COMMAND: runs it; its exit status, and what it writes. $took is how many ms that needed.
in_box() {
  local line begun
  begun=$(now_ms)
  printf '{ %s\n} </dev/null; printf "\\nis done: %%d\\n" $?\n' "$1" >&"$to_box"
  while IFS= read -r line <&"$from_box"; do
    took=$(($(now_ms) - begun))
    case $line in 'is done: '*) return "${line#is done: }" ;; esac
    echo "$line"
  done
  fail "the box has gone"
}

# serving: the processes of this board's share, without those that are only not yet collected.
serving() {
  local entry
  for entry in /proc/[0-9]*; do
    case $(tr '\0' ' ' 2>/dev/null <"$entry/cmdline") in
      'sharefs /smb ' | *smb.sh\ guard*) ;;
      *) continue ;;
    esac
    # Others may run boards at the same time: ours has our file tree.
    [ "$entry/root/etc/sys.conf" -ef "$board/etc/sys.conf" ] && echo "${entry#/proc/}"
  done
  return 0
}
nothing_serves() { [ -z "$(serving)" ]; }
