# shellcheck shell=bash
# Builds: release
# Every destination of three cameras hangs, and readers keep frames, are stopped and are killed: no
# picture may be lost. Lost is what the hardware gave and nobody fetched in time, or what was fetched and
# is not in the stream; by the source that is paced, a gap in the frames' times. picture_watch tells what
# the machine itself cost, by how long threads stood in the queue for a processor.
# shellcheck source=../board/delivery_faults.sh
. "$root/tests/board/delivery_faults.sh"

cameras=(mpeg4 jpeg file)
declare -A daemon_of=() hardware_of=() watch_of=() disk_of=()
file_period=28  # ms between two frames of the file source at rate 3
held_frames=4   # by each of two readers; one more, the recorders and the watch have less than the rest of 16
share_server=''
readers=()

# urgent COMMAND...: what it starts comes before all else that the machine may have to do, as on a camera,
# which has nothing else to do. Only root may; a kernel that shares by sessions makes nothing of nice.
urgent() {
  chrt --rr -p 1 $$ 2>/dev/null || true
  "$@"
  chrt --other -p 0 $$ 2>/dev/null || true
}

# end_mounts: before the boards are removed. Disks that hang can't be unmounted, their programs can end.
end_mounts() {
  local status=$? camera
  for camera in "${!disk_of[@]}"; do
    kill -KILL "${disk_of[$camera]}" 2>/dev/null
    umount -l "$work/$camera/usb" 2>/dev/null || fusermount3 -uz "$work/$camera/usb" 2>/dev/null
  done
  return $status
}

# serve_share: one Samba server for all cameras.
serve_share() {
  mkdir "$work/share"
  (umask 077 && echo 'camera:a word' >"$work/users")
  "$root/board/servers/smb_server" --root "$work/share" --users "$work/users" >"$work/share.said" \
    2>"$work/share.log" </dev/null &
  share_server=$!
  boxes+=($!)
  eventually 20 grep -q '^ready' "$work/share.said"
}

# plug_disk CAMERA: a disk that some program serves, which can be stopped.
plug_disk() {
  mkdir "$work/$1.disk"
  bindfs -f "$work/$1.disk" "$board/usb" 2>>"$log" &
  disk_of[$1]=$!
  boxes+=($!)
  eventually 10 mountpoint -q "$board/usb"
}

# prepare CAMERA: its board, with something that delivers to every destination all the time.
prepare() {
  use_board "$1"
  cp "$certificates/ca.pem" "$board/etc/servers.pem"
  deliver_to_servers
  [ "$1" != jpeg ] || configure Video CompressionType 1
  printf '%s\n' '[Samba]' 'Enable = 1' 'Server = 127.0.0.1' "Port = $(sed -n 's/^ready //p' "$work/share.said")" \
    'Share = camera' 'User = camera' 'Password = a word' >"$board/etc/sys.conf"
  chmod 600 "$board/etc/sys.conf"
  events_of 'Source = 3; Interval = 2; Usb = 1' 'Source = 3; Interval = 1; Ftp = 1; FtpDuration = 1' \
    'Source = 3; Interval = 1; Mail = 1; Subject = Look' 'Source = 3; Interval = 5; Smb = 1; SmbDuration = 3600'
  plug_disk "$1"
}

# start CAMERA: with hardware, or with a file that is a frame every $file_period ms.
start() {
  smb=server
  drivers=''
  if [ "$1" = file ]; then
    start_camera -n/home/test.jpg -f3 -mv
  else
    start_model B520
    hardware_of[$1]=$hardware
    eventually 20 events_are_built
  fi
  daemon_of[$1]=$daemon
  echo '127.0.0.1 server.test' >>"$board/etc/hosts"
}

# delivers CAMERA: it has stored something on its disk, and a film of it on the share is open; a file gives
# no films.
delivers() {
  [ -n "$(find "$work/$1.disk" -type f -size +0 -print -quit)" ] &&
    { [ "$1" = file ] || find "/proc/${daemon_of[$1]}/fd" -lname '/smb/*' 2>/dev/null | grep -q .; }
}

# watch CAMERA: from now on each of its pictures counts.
watch() {
  local source=(--period "$file_period")
  case $1 in
    mpeg4) source=(--node /dev/mpg430 --hardware "${hardware_of[$1]}") ;;
    jpeg) source=(--node /dev/video0 --hardware "${hardware_of[$1]}") ;;
  esac
  "$build/tests/torture/capture/picture_watch" --board "$work/$1" --daemon "${daemon_of[$1]}" "${source[@]}" \
    >"$work/$1.seen" 2>"$work/$1.missed" &
  watch_of[$1]=$!
  boxes+=($!)
}

# pick FAULT...: one of them, in $picked.
pick() {
  random $#
  shift "$random"
  picked=$1
}

hang_all() {
  local camera
  pick silent 'stall 5000' 'mute 226' 'mute STOR' 'no-tls control' 'no-tls data'
  misbehave ftp "$picked"
  pick silent stall mute
  misbehave mail "$picked"
  kill -USR1 "$share_server"
  for camera in "${cameras[@]}"; do kill -STOP "${disk_of[$camera]}"; done
}

let_all_go_on() {
  local camera
  misbehave ftp
  misbehave mail
  kill -USR2 "$share_server"
  for camera in "${cameras[@]}"; do kill -CONT "${disk_of[$camera]}"; done
}

# add_readers CAMERA: two hold frames, one dumps the stream.
add_readers() {
  local said reader
  for reader in 1 2; do
    said=$work/$1.reader$reader
    : >"$said"
    "$build/tests/torture/capture/hold_frames" "$work/$1" $held_frames >"$said" &
    readers+=($!)
  done
  "$build/tools/camctl" --board "$work/$1" dump raw >/dev/null 2>&1 &
  readers+=($!)
  boxes+=("${readers[@]}")
  for reader in 1 2; do eventually 10 grep -q holding "$work/$1.reader$reader"; done
}

kill_readers() {
  [ ${#readers[@]} -eq 0 ] || kill -KILL "${readers[@]}" 2>/dev/null || true
  [ ${#readers[@]} -eq 0 ] || wait "${readers[@]}" 2>/dev/null || true
  readers=()
}

# is_stuck CAMERA: a thread of it waits for the disk's answer, in the kernel.
is_stuck() { grep -qs request_wait_answer "/proc/${daemon_of[$1]}/task"/*/wchan; }

# exchange_disk: one of the cameras has another disk, or none.
exchange_disk() {
  pick "${cameras[@]}"
  use_board "$picked"
  pick 'fill 1M' 'fill 8M' unplug
  # shellcheck disable=SC2086  # words
  boardctl usb $picked
}

# round SECONDS: readers that come, are stopped and killed while everything hangs for so long.
round() {
  local end=$((SECONDS + $1)) camera
  for camera in "${cameras[@]}"; do add_readers "$camera"; done
  hang_all
  kill -STOP "${readers[@]}" 2>/dev/null || true
  while [ $SECONDS -lt $end ]; do
    for camera in "${cameras[@]}"; do
      if is_stuck "$camera"; then stuck_of[$camera]=yes; fi
    done
    sleep 0.5
  done
  kill_readers
  let_all_go_on
  sleep 2
  boardctl usb plug >/dev/null 2>&1 || true
}

# seen_of CAMERA FILTER: what its watch has counted.
seen_of() { jq -r "$2" "$work/$1.seen"; }

# the_judges_see: true iff cameras that stand still for a moment lose pictures, by what their watches say.
the_judges_see() {
  local camera blind=''
  for camera in "${cameras[@]}"; do urgent watch "$camera"; done
  sleep 1
  kill -STOP "${daemon_of[@]}"
  sleep 0.5
  kill -CONT "${daemon_of[@]}"
  sleep 1.5
  for camera in "${cameras[@]}"; do
    kill -TERM "${watch_of[$camera]}"
    if wait "${watch_of[$camera]}"; then blind+=" $camera"; fi
    echo "$camera, stopped for 0.5 s: $(cat "$work/$camera.seen")"
  done
  [ -z "$blind" ]
}

trial_capture() {
  local camera rounds=0 begun reached='' lost=0 machine
  local -A stuck_of=()
  trap 'end_mounts; end_trial' EXIT
  make_servers
  serve_both
  serve_share
  for camera in "${cameras[@]}"; do
    prepare "$camera"
    urgent start "$camera"
  done
  for camera in "${cameras[@]}"; do eventually 30 delivers "$camera"; done
  eventually 30 uploaded 3
  eventually 30 mailed 3
  for camera in "${cameras[@]}"; do urgent watch "$camera"; done
  begun=$SECONDS
  while [ $rounds -eq 0 ] || time_is_left 12; do
    [ $rounds -eq 0 ] || exchange_disk
    random 12
    round $((4 + random))
    rounds=$((rounds + 1))
  done
  begun=$((SECONDS - begun))
  for camera in "${cameras[@]}"; do
    kill -TERM "${watch_of[$camera]}"
    wait "${watch_of[$camera]}" || lost=1
    echo "$camera: $(cat "$work/$camera.seen")"
    cat "$work/$camera.missed"
    machine=$(seen_of "$camera" .byMachine)
    [ "$machine" = 0 ] && machine='' || machine=" ($machine missed for want of a processor)"
    reached+=", $camera $(seen_of "$camera" '"\(.lost) of \(.pictures) lost, \(.rate)/s"')$machine"
    if grep -q 'video buffer busy' "$work/$camera/var/log/camera/daemon.log"; then reached+=' buffer busy' lost=1; fi
    if [ "${stuck_of[$camera]:-no}" = no ]; then reached+=' disk never hung' lost=1; fi
  done
  the_judges_see || reached+=' but a loss would not be seen' lost=1
  judge test $lost -eq 0 -- 'capture never stops for a consumer, disk or network' \
    "3 cameras, $rounds rounds in $begun s: FTP, mail, share and disk hung, disks full and gone, 9 of 16 frames kept by readers stopped and killed" \
    "${reached#, }"
  for camera in "${cameras[@]}"; do kill -TERM "${daemon_of[$camera]}"; done
  for camera in "${cameras[@]}"; do
    eventually 10 is_gone "${daemon_of[$camera]}"
  done
}
