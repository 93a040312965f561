# shellcheck shell=bash
# Who may do what: the modes of everything that the daemon makes, and what becomes of it when somebody of
# the camera's group, or who wrote a setting or plugged a stick in, means harm.

# --- modes ----------------------------------------------------------------------------------------

# everything: of the board and its memory, but what the board's scripts and the tests put there. smb.sh sees
# to its own.
everything() {
  find "$board" "$board/dev/shm/" \( -name '*.pid' -o -name 'board.log' -o -name 'sanitizer*' -o -name ld.so.cache \
    -o -path "$board/run/smb" \) -prune -o ! -type l -printf '%m %y %p\n' | sort -k 3
}

# modes_are_right MASK: a camera that records to both storages, started with this mask of file modes.
modes_are_right() {
  bwrap --bind / / true 2>/dev/null || skip "bubblewrap does not work here"
  local wrong
  rm -rf -- "$board/run/camera/msg" "$board/run/camera/io/input_used"
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1' 'UsbFolder = made/here' 'Smb = 1' 'SmbContinue = 1'
  printf '[Samba]\nEnable = 1\n' >"$board/etc/sys.conf"
  everything | cut -d' ' -f3- >"$work/before"
  smb=64M
  umask "$1"
  start_model K310
  umask 022
  eventually 20 events_are_built
  eventually 20 happened 514
  films() { find "/proc/$daemon/root/smb" -type f; }
  has_films() { [ -n "$(films)" ]; }
  eventually 20 has_films
  eventually 10 recorded 1
  eventually 10 test -S "$board/run/camera/msg/video_svr"
  {
    everything | awk 'NR == FNR {old[$0] = 1; next} !($3 in old)' "$work/before" -
    find "/proc/$daemon/root/smb" -mindepth 1 -printf '%m %y %p\n'
  } | grep -v '/boardctl$\|/run/camera/hardware\|/daemon.log$' >"$work/made"
  cat "$work/made"
  local kind
  for kind in '/dev/shm/.*/video' '/dev/shm/.*/audio' 'msg/video_svr' 'io/input_used' 'events.log' '\.avi' '/smb/camera/'; do
    grep -q "$kind" "$work/made" || fail "nothing like $kind was made"
  done
  wrong=$(awk '{
    right = $2 == "d" ? 750 : $2 == "s" || $3 ~ /\/(video|video2|audio)$/ ? 660 : 640
    if ($1 != right) print}' "$work/made")
  [ -z "$wrong" ] || fail "these are not the group's alone: $wrong"
}

test_all_that_is_made_is_the_groups_without_a_mask() { modes_are_right 000; }
test_all_that_is_made_is_the_groups_with_the_usual_mask() { modes_are_right 022; }
test_all_that_is_made_is_the_groups_with_a_narrow_mask() { modes_are_right 077; }

# --- processes of the group -----------------------------------------------------------------------

# harm ARGUMENT...: what does harm, beside, until relief.
harm() {
  "$root/tests/board/harm" "$@" 2>>"$work/harm" &
  harms+=($!)
  boxes+=($!)
}
relief() {
  local one
  for one in "${harms[@]}"; do
    ! is_gone "$one" || fail "harm has ended: $(cat "$work/harm")"
    end_process "$one" 5
  done
  harms=()
}

frames_flow() {
  local before
  before=$(slot frame-count)
  sleep 0.3
  [ "$(slot frame-count)" != "$before" ]
}

# set_right: what slots held by chance is set again, and the camera is what it was.
set_right() {
  camctl set mode 1 && camctl set framerate 2 && camctl grab "$work/grabbed.jpg" 2>/dev/null &&
    cmp -s "$picture" "$work/grabbed.jpg"
}

# a_camera_suffers: one that records, with readers.
a_camera_suffers() {
  harms=()
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1'
  start_camera
  eventually 10 recorded 1
  segments=("$board"/dev/shm/camera/video{,2})
  "$build/tools/camctl" --board "$board" dump raw >/dev/null 2>&1 &
  boxes+=($!)
  reader=$!
}

# all_is_well_again: without a restart, and after one.
all_is_well_again() {
  ! is_gone "$daemon" || fail "the daemon is gone"
  [ -z "$(sanitizer_reports)" ] || fail "a sanitizer complains"
  eventually 20 set_right
  eventually 5 frames_flow
  stop_daemon
  expect "$status" 0 "exit status"
  start_daemon
  eventually 10 camera_is_up
  eventually 20 set_right
  local before
  before=$(recordings | wc -l)
  eventually 30 recorded $((before + 1))
}

test_segments_that_are_cut_end_nobody() {
  a_camera_suffers
  harm cut "${segments[@]}"
  sleep 4
  relief
  end_process "$reader" 5 || fail "the reader does not end"
  reader_status=0
  wait "$reader" || reader_status=$?
  [ $reader_status -lt 128 ] || fail "the reader was ended by a signal: status $reader_status"
  eventually 5 logged "was damaged by another process, mended"
  all_is_well_again
}

test_segments_that_are_filled_with_garbage_end_nobody() {
  a_camera_suffers
  harm fill "${segments[@]}"
  harm fill "${segments[@]}"
  sleep 4
  relief
  eventually 5 logged "was damaged by another process, mended"
  all_is_well_again
}

test_segments_that_are_taken_away_are_made_anew() {
  a_camera_suffers
  rm -f -- "${segments[@]}"
  made_anew() { logged "camera/video was taken away by another process, made anew" && set_right; }
  eventually 10 made_anew
  echo 'no segment' >"$work/garbage"
  mv -f -- "$work/garbage" "${segments[0]}"
  eventually 15 logged "camera/video: the file has another size"
  eventually 20 set_right
  all_is_well_again
}

test_messages_of_any_kind_are_dropped() {
  a_camera_suffers
  eventually 10 test -S "$board/run/camera/msg/video_svr"
  harm talk "$board/run/camera/msg/video_svr"
  sleep 3
  relief
  eventually 5 logged "bytes dropped"
  all_is_well_again
}

# --- settings and sticks --------------------------------------------------------------------------

# What a shell would run if it ever got to see it.
test_settings_that_are_commands_are_run_by_nobody() {
  local hostile name number=0
  # shellcheck disable=SC2016  # nobody is to expand these
  hostile=('$(touch /tmp/victim)' '`touch /tmp/victim`' '; touch /tmp/victim;' '| touch /tmp/victim' '& touch /tmp/victim &'
    "' ; touch /tmp/victim ; '" '" ; touch /tmp/victim ; "' '>/tmp/victim' '1 && touch /tmp/victim' '-rf /')
  {
    printf '[Main]\nMax = %d\n' ${#hostile[@]}
    for name in "${hostile[@]}"; do
      number=$((number + 1))
      printf '[%d]\nErased = 0\nSchedule = always\nSource = 3\nInterval = 1\nUsb = 1\nUsbFolder = %s\n' $number "$name"
      printf 'Buzzer = 1\nBuzzerTone = %s\nMail = 1\nReceiver = %s\nSubject = %s\n' "$name" "$name" "$name"
      printf 'Out1 = 1\nOut1Duration = %s\nSmb = 1\nSmbDuration = %s\nFtp = 1\n' "$name" "$name"
    done
  } >"$board/etc/events.conf"
  # shellcheck disable=SC2016
  {
    printf '[Samba]\nEnable = 1\nServer = localhost\nShare = x$(touch /tmp/victim)\nUser = `touch /tmp/victim`\n'
    printf 'Password = ;touch /tmp/victim;\nVersion = $(touch /tmp/victim)\nPort = 1;touch /tmp/victim\n'
  } >"$board/etc/sys.conf"
  # shellcheck disable=SC2016
  for name in Server Folder User Password Sender; do
    configure Ftp $name '$(touch /tmp/victim)`touch /tmp/victim`;touch /tmp/victim'
    configure Mail $name '$(touch /tmp/victim)`touch /tmp/victim`;touch /tmp/victim'
  done
  # shellcheck disable=SC2016
  for name in Output1 Output2 Privacy; do configure IO $name '$(touch /tmp/victim);touch /tmp/victim'; done
  start_camera
  eventually 15 happened 514
  eventually 15 happened 521
  camctl reload
  sleep 3
  [ ! -e "$board/tmp/victim" ] || fail "a setting was run as a command"
  [ -e "$board/etc/events.conf" ] || fail "files are gone"
}

# plant KIND SECONDS: where the recordings of the next seconds go, but where one is already.
plant() {
  local at file begun
  begun=$(date +%s)
  for ((at = begun; at <= begun + $2; at++)); do
    file=$(TZ=UTC date -d "@$at" +"$board/usb/p/%Y%m%d/%H%M%S.jpg")
    mkdir -p "${file%/*}"
    case $1 in
      link) ln -s /tmp/victim "$file" || true ;;
      absent-link) ln -s /nowhere/at/all "$file" || true ;;
      pipe) mkfifo "$file" || true ;;
      device) mknod "$file" c 1 3 || true ;;
      folder) mkdir "$file" || true ;;
    esac
  done 2>/dev/null
}

# planted KIND: what lies in the way gets nothing, and afterwards recordings go on.
planted() {
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1' 'UsbFolder = p'
  echo untouched >"$board/tmp/victim"
  start_camera
  plant "$1" $((5 * slow))
  eventually 10 happened 517
  stored_files() { [ -n "$(find "$board/usb/p" -type f -size +1k -newer "$board/tmp/victim")" ]; }
  eventually 15 stored_files
  expect "$(cat "$board/tmp/victim")" untouched "the victim"
}

test_links_that_were_planted_are_not_followed() { planted link; }
test_links_to_nowhere_are_not_followed() { planted absent-link; }
test_pipes_that_were_planted_hold_nobody() { planted pipe; }
test_devices_that_were_planted_are_not_opened() {
  mknod "$work/null" c 1 3 2>/dev/null || skip "no devices can be made here"
  planted device
}
test_folders_that_were_planted_are_left_alone() { planted folder; }

test_a_stick_whose_folder_is_a_link_gets_nothing() {
  mkdir "$board/etc/elsewhere"
  ln -s ../etc/elsewhere "$board/usb/p"
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1' 'UsbFolder = p'
  start_camera
  eventually 10 logged "unsafe path refused: /usb/p/"
  expect "$(ls -A "$board/etc/elsewhere")" "" "the folder behind the link"
}
