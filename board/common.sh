# shellcheck shell=bash
# What the board's scripts share; sourced by them, and by scripts that bring boards up.
# A board is a folder with a camera's file tree and the file .board, which says that it is one.

# board_say TEXT: tells the person at the terminal, not the one who reads standard output.
board_say() { echo "${0##*/}: $*" >&2; }

# board_path FOLDER: its absolute path; the folder need not exist yet.
board_path() { realpath -m -- "$1"; }

# board_is FOLDER: true iff the folder is a board.
board_is() { [ -f "$1/.board" ]; }

# board_registry: the folder that lists this user's boards, one symbolic link each. camctl looks there
# for the board that runs when it is told none.
board_registry() {
  if [ -n "${XDG_RUNTIME_DIR:-}" ] && [ -w "$XDG_RUNTIME_DIR" ]; then
    echo "$XDG_RUNTIME_DIR/video_svr-boards"
  else
    echo "/tmp/video_svr-boards-$(id -u)"
  fi
}

# board_id FOLDER: a short name that no other folder of this machine has.
board_id() { sha256sum <<<"$1" | cut -c1-12; }

# board_memory FOLDER: where the board's /dev/shm lies: on the host's, so that it is real memory.
board_memory() {
  if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    echo "/dev/shm/video_svr-board-$(id -u)-$(board_id "$1")"
  else
    echo "$1/dev/memory"
  fi
}

# board_view: names the view of the file system in which this process lives. The host's memory may be
# shared with containers, whose boards' folders can't be seen from here, and are not gone for that.
board_view() { readlink /proc/self/ns/mnt; }

# board_sweep: gives back the memory and the registry entries of boards whose folders are gone. No program
# is started for a board, as there may be hundreds, and each that is made or removed comes here.
board_sweep() {
  local entry registry view of
  view=$(board_view)
  registry=$(board_registry)
  for entry in "$registry"/*; do
    if [ -L "$entry" ] && ! board_is "$entry"; then rm -f -- "$entry"; fi
  done
  for entry in /dev/shm/video_svr-board-"$(id -u)"-*; do
    of=''
    read -r of 2>/dev/null <"$entry/.view" || true
    [ "$of" = "$view" ] || continue
    if [ -L "$entry/.board" ] && ! board_is "$entry/.board"; then rm -rf -- "$entry"; fi
  done
}

# board_register FOLDER: makes its memory (again: it does not outlive a restart of the PC) and enters
# it into the registry.
board_register() {
  local board=$1 memory registry
  memory=$(board_memory "$board")
  registry=$(board_registry)
  (umask 077 && mkdir -p -- "$memory" "$registry")
  board_view >"$memory/.view"
  ln -sfn -- "$board" "$memory/.board"
  ln -sfn -- "$memory" "$board/dev/shm"
  ln -sfn -- "$board" "$registry/$(board_id "$board")"
}

# board_processes FOLDER: the process ids of what board/enter started in the board and still runs.
board_processes() {
  local file pid name
  for file in "$1"/run/*.pid; do
    [ -r "$file" ] || continue
    pid=$(<"$file")
    name=${file##*/}
    name=${name%.pid}
    # A number that meanwhile belongs to another program, or to nobody, is not ours.
    [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "${name:0:15}" ] || continue
    if readlink "/proc/$pid/exe" >/dev/null; then echo "$pid"; fi
  done
}
