# shellcheck shell=bash
# Every call of the system may fail: a library beside the daemon lets one call after the other fail, each
# place with each error that it can have, in cameras that do all that they can.
# Builds: asan
#
# To look closer, VS_FAULT_TABLE=FILE begins with that table and leaves it there (see "fault_table FILE
# places"), and VS_FAULT_ONLY="PLACE ERROR" has nothing else fail.
# shellcheck disable=SC2034,SC2154,SC2317  # see lib.sh; what is called by await
# shellcheck source=../board/delivery_faults.sh
. "$root/tests/board/delivery_faults.sh"

life_s=15          # of a camera with faults; start, end and what is looked at come on top
fault_ms=5         # between two faults
fault_breaches=0 starts=0 lives=0 first_breach=''

faults() { "$build/tests/torture/calls/fault_table" "$board/tmp/faults" "$@"; }

# breach WHAT: what was seen, and what had failed since all was well.
breach() {
  fault_breaches=$((fault_breaches + 1))
  first_breach=${first_breach:-": $1 ($doing)"}
  echo "BREACH: $1 ($doing)"
  faults faults "$good_until" "$build/core/video_svr" | grep -v 'log.cpp:' | tail -n 60
  if ! is_gone "$daemon"; then
    echo "--- camera"
    camctl status 2>&1 || true
    tail -qn +1 "/proc/$daemon/task/"*/{comm,stack} 2>/dev/null || true
  fi
  echo "--- log"
  tail -n 25 "$log"
  { sanitizer_reports || true; } | head -n 80
  rm -f "$board"/var/log/camera/sanitizer*
}

# begin WHAT
begin() {
  doing=$1
  good_until=$(faults count)
  echo "$(date +%T) $doing, $(faults sum)"
}

# end_camera [STATUS]: asks for the end and judges it: 0, or where it is given another one with a word.
end_camera() {
  local code=0 said
  said=$(lines_of "$log")
  kill -TERM "$daemon" 2>/dev/null || said=0
  if ! await $((6 * slow)) is_gone "$daemon_box"; then
    breach "does not end"
    kill -KILL "$daemon" || true
  fi
  wait "$daemon_box" || code=$?
  if [ -n "$(sanitizer_reports)" ]; then
    breach "a sanitizer complains"
  elif [[ " 0 $* " != *" $code "* ]]; then
    breach "exit status $code"
  elif [ $code -ne 0 ] && [ "$(lines_of "$log")" -le "$said" ]; then
    breach "ends with $code and without a word"
  fi
}

# --- starts and ends --------------------------------------------------------------------------------

options_of() {
  case $1 in
    file) options=(-n/home/test.jpg -f2 -mv) ;;
    sound) options=(-n/home/test.jpg -f2 -mb -A/home/sound.wav) ;;
    *) options=("-$1" -mb -A/home/sound.wav) ;;
  esac
}

end_hardware() {
  [ -z "$hardware" ] || end_process "$hardware" $((5 * slow)) || breach "the hardware does not end"
  hardware=''
}

# start_and_end CAMERA: with faults from the first instruction to the last, but for a look at it between.
start_and_end() {
  local options said
  options_of "$1"
  starts=$((starts + 1))
  rm -f -- "$board/run/video_svr.pid" "$board/run/camera/io/input_used"
  # In turn as after a start of the machine, and as after a start of the daemon that was killed.
  if [ -e "$board/dev/shm/camera/video" ]; then
    if [ $((starts % 2)) -eq 0 ]; then rm -r "$board/dev/shm/camera"; else mv "$board/dev/shm/camera"/{video,.video.1}; fi
  fi
  said=$(lines_of "$log")
  faults on $fault_ms
  launch "$build/core/video_svr" "${options[@]}"
  daemon_box=$box
  on_its_way() { [ -s "$board/run/camera/io/input_used" ] || is_gone "$daemon_box"; }
  await $((2 * slow)) on_its_way || true
  daemon=$(cat "$board/run/video_svr.pid")
  faults off
  # Whoever comes to an end at its start is started again; a device that can't be opened stays closed.
  if ! is_gone "$daemon_box" && ! tail -n "+$((said + 1))" "$log" | grep -qF "can't open /"; then
    await $((3 * slow)) has_frames 2>/dev/null || is_gone "$daemon_box" || breach "no pictures after its start"
  fi
  faults on $fault_ms
  end_camera 1
  faults off
}

# --- lives ------------------------------------------------------------------------------------------

all_events() {
  events_of 'Source = 3; Interval = 1; Usb = 1; UsbFolder = interval; Out2 = 1; Out2Duration = 1' \
    'Source = 6; Ftp = 1; FtpDuration = 2; Mail = 1; Buzzer = 1; Out1 = 1; Out1Duration = 1' \
    'Source = 3; Interval = 3; Smb = 1; SmbContinue = 1; Ftp = 1; Access = 1' \
    'Source = 2; Mail = 1; Usb = 1; Buzzer = 1' \
    'Source = 5; Ftp = 1; Smb = 1; SmbDuration = 2' \
    'Source = 0; Usb = 1; Out1 = 1' 'Source = 1; Mail = 1; Smb = 1' 'Source = 4; Access = 1'
  sed -i '$s/always/office/' "$board/etc/events.conf"
  printf '[Main]\nMax = 1\n[1]\nErased = 0\nName = office\n' >"$board/etc/schedule.conf"
  for window in 1 2; do
    printf '[Motion%d]\nEnable = 1\nX = %d\nY = 100\nWidth = 160\nHeight = 160\nThreshold = 5\n' $window $((window * 200)) \
      >>"$board/etc/camera.conf"
  done
}

descriptors() { find "/proc/$daemon/fd" -type l 2>/dev/null | wc -l; }
threads() { find "/proc/$daemon/task" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l; }
# A segment that is replaced stays mapped; that happens once to each at the most.
segments() { awk '$6 ~ "^/dev/shm/camera/" {print $5}' "/proc/$daemon/maps" | sort -u | wc -l; }
children() { grep -lw "PPid:.$daemon" /proc/[0-9]*/status 2>/dev/null | wc -l; }

move_now_and_then() { if [ $((step % 16)) -lt 8 ]; then boardctl motion on 220 120 60 60; else boardctl motion off; fi; }

settings=(brightness contrast saturation hue flip mirror overlay motion-detection white-balance noise-reduction
  backlight shutter exposure flicker compression ipratio timestamp)

# drive: what goes on outside in the life of a camera, step by step.
step=0
drive() {
  step=$((step + 1))
  case $((step % 8)) in
    0) camctl reload ;;
    1) camctl trigger web1 ;;
    2) echo $((step / 8 % 2)) >"$board/run/camera/io/input" ;;
    3) camctl trigger input ;;
    4) camctl trigger web2 ;;
    5) camctl set "${settings[RANDOM % ${#settings[@]}]}" $((RANDOM % 4)) ;;
    6) [ -z "$hardware" ] || camctl set mode $((step / 8 % 4)) ;;
    7) [ -z "$hardware" ] || camctl set resolution $((7 + step / 8 % 2)) ;;
  esac
  [ -z "$hardware" ] || move_now_and_then
}

# trigger_anew: the event; events_are_built is true from when a rebuild comes to its end after this.
trigger_anew() {
  rm -f -- "$board/run/camera/io/input_used"
  camctl trigger web1 >/dev/null 2>&1 || true
}

# works SAID: true iff the next event records, uploads, mails and sounds; says so where it does not, unless
# SAID is "quiet".
works() {
  local said=$1
  before_buzzer=$(count_events 520) before_recorded=$(recordings | wc -l) before_uploads=$(uploads | wc -l) before_mails=$(mails | wc -l)
  trigger_anew
  all_is_done() {
    # A rebuild that was asked for earlier has ended what was being delivered, as it is to do.
    if events_are_built; then trigger_anew; fi
    undone=''
    recorded $((before_recorded + 1)) || undone+=' recording'
    [ "$(count_events 520)" -gt "$before_buzzer" ] || undone+=' buzzer'
    uploaded $((before_uploads + 1)) || undone+=' upload'
    mailed $((before_mails + 1)) || undone+=' mail'
    [ -z "$undone" ]
  }
  await $((15 * slow)) all_is_done || { [ "$said" = quiet ] || breach "the next event: no$undone"; return 1; }
}

# no_events: a camera that has nothing to do but to capture, so that what it holds can be compared.
no_events() { printf '[Main]\nMax = 0\n' >"$board/etc/events.conf"; }

# open_all: with the message queue, and the log for a message of a wrong length, all is open that stays open.
open_all() {
  local said
  said=$(lines_of "$log")
  eventually 10 test -S "$board/run/camera/msg/video_svr"
  /usr/bin/python3 -c 'import socket, sys
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).sendto(b"x", sys.argv[1])' "$board/run/camera/msg/video_svr"
  was_told() { tail -n "+$((said + 1))" "$log" | grep -q 'message of 1 bytes dropped'; }
  eventually 10 was_told
}

# nothing_more than before the first event.
nothing_more() {
  [ "$(descriptors)" -le "$most_descriptors" ] && [ "$(threads)" -le "$most_threads" ] && [ "$(children)" -eq 0 ]
}

# live CAMERA SECONDS
live() {
  local options until
  lives=$((lives + 1))
  hardware=''
  options_of "$1"
  if [[ $1 == [BK]* ]]; then start_hardware --model "$1"; fi
  rm -f "$board"/dev/shm/camera/.video*  # of the starts before
  rm -f "$board/run/camera/msg/video_svr"
  no_events
  start_camera "${options[@]}"
  eventually 10 has_frames
  open_all
  most_descriptors=$(descriptors) most_threads=$(threads)
  cp "$work/events.conf" "$board/etc/events.conf"
  camctl reload
  eventually 10 works quiet
  begin "life of $1 with $most_descriptors descriptors, $most_threads threads"
  faults on $fault_ms
  until=$((SECONDS + $2))
  while [ $SECONDS -lt $until ] && ! is_gone "$daemon"; do
    drive >/dev/null 2>&1 || true
    sleep 0.1
  done
  faults off
  boardctl motion off >/dev/null 2>&1 || true
  if is_gone "$daemon"; then
    breach "the camera is dead"
  else
    # An encoder alone records in mode 0 only, and a header that could not be fetched waits for the next
    # change of the picture.
    [ -z "$hardware" ] || { camctl set mode 0 && camctl set resolution 8; }
    if ! works say; then
      camctl reload
      works quiet || breach "not even after a reload:$undone"
    fi
    no_events
    camctl reload
    await $((8 * slow)) nothing_more ||
      breach "$(descriptors) descriptors instead of $most_descriptors, $(threads) threads instead of $most_threads, $(children) children: $(readlink "/proc/$daemon"/fd/* | sort | uniq -c | tr '\n' ' ')"
    [ "$(segments)" -le 6 ] || breach "$(segments) segments are mapped"
    [ -z "$(find "$board/dev/shm/camera" -name '.*' ! -name . 2>/dev/null)" ] || breach "half a segment is left"
  fi
  end_camera
  end_hardware
  cp "$work/events.conf" "$board/etc/events.conf"
}

trial_calls() {
  local camera
  # Leaks of libraries are told with the whole way to them.
  export VS_FAULTS=/tmp/faults LSAN_OPTIONS=fast_unwind_on_malloc=0
  load=$build/tests/torture/calls/libvs_faults.so
  drivers=$build/board/drivers/libvs_drivers.so
  smb=16M  # soon full
  if [ -e "${VS_FAULT_TABLE:-}" ]; then cp "$VS_FAULT_TABLE" "$board/tmp/faults"; else faults make; fi
  faults off
  # shellcheck disable=SC2086  # two words
  [ -z "${VS_FAULT_ONLY:-}" ] || faults only $VS_FAULT_ONLY
  daemon='' hardware=''
  ffmpeg -v error -f lavfi -i sine -t 2 -ar 8000 -ac 1 "$board/home/sound.wav"
  make_servers
  serve_both
  deliver_to_servers 'Attach = 1'
  printf '[Samba]\nEnable = 1\nServer = 127.0.0.1\nShare = camera\nUser = camera\nPassword = secret\n' >>"$board/etc/sys.conf"
  all_events
  cp "$board/etc/events.conf" "$work/events.conf"
  echo 'camera:x:0:' >"$board/etc/group"
  head -c 64 /dev/zero | tee "$board/tmp/motion1.dat" >"$board/tmp/motion2.dat"

  # Which one comes first is chance: a short run does not get through all of them.
  local cameras=(file B520 sound K310) turn=$seed
  [ $life_s -lt $((seconds / 3)) ] || life_s=$((seconds / 3))
  while time_is_left 10; do
    camera=${cameras[turn++ % 4]}
    begin "starts of $camera"
    if [[ $camera == [BK]* ]]; then start_hardware --model "$camera"; fi
    for _ in 1 2 3; do start_and_end "$camera"; done
    end_hardware
    live "$camera" $life_s
  done
  end_servers
  report
}

report() {
  local tried known places calls injected
  read -r tried known places calls injected < <(faults sum)
  [ -z "${VS_FAULT_TABLE:-}" ] || cp "$board/tmp/faults" "$VS_FAULT_TABLE"
  judge [ "$fault_breaches" -eq 0 ] -- "every system call may fail: no crash, no leak, the next event records" \
    "$injected faults in $SECONDS s, $((injected * 60 / (SECONDS + 1))) a minute; $starts starts, $lives lives" \
    "$fault_breaches breaches$first_breach; $tried of $known pairs of place and error, $places places, $calls calls"
}
