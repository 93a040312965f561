# shellcheck shell=bash
# Builds: release
# Memory is bounded. A camera lives a day, with a clock that does not wait for anything to come
# (memory/leap_clock.cpp): every second it stores a picture, uploads, mails or answers a trigger, and its
# events are built anew far more often than anybody changes a configuration. Another one, of a sensor and
# an encoder that keep the world's pace, changes its mode, resolution and overlays, and delivers by TLS.
# Both have their allocations counted (memory/memory_meter.cpp).
# shellcheck source=../board/delivery_faults.sh
. "$root/tests/board/delivery_faults.sh"
# shellcheck disable=SC2154  # run_trial and the board tests set them

allowed=65536     # bytes that a day may cost
day=86400

counted() { od -An -td8 -w32 "$board/tmp/memory"; }  # bytes, blocks, allocations, those of the capture thread

# age: $age is how many seconds of its own the camera has lived since $born, which is in ms.
age() {
  local ahead=0
  [ ! -e "$board/tmp/clock" ] || ahead=$(od -An -td8 -N8 "$board/tmp/clock")
  age=$((($(now_ms) - born + ahead / 1000000) / 1000))
}

# sample FILE: a line of age, private KiB, bytes and blocks in use, descriptors, threads.
sample() {
  local bytes blocks names
  age
  read -r bytes blocks _ < <(counted)
  # Without those by which the clock looks at threads.
  mapfile -t names < <(find "/proc/$daemon/fd" -type l ! -lname '/proc/*')
  set -- "$1" "$(resident "$daemon")" "${#names[@]}"
  names=("/proc/$daemon/task/"*)
  echo "$age $2 $bytes $blocks $3 ${#names[@]}" >>"$1"
}

# trend FILE COLUMN: "slope least most": how a figure grows, per day, and between what it lies. The run is
# cut into eight; the least of each part is what stays when the work of the moment is done; the slope is
# the median of those of all pairs, which a few strange parts do not move.
trend() {
  awk -v column="$2" '
    {at[NR] = $1; value[NR] = $column}
    END {
      parts = 8; first = at[1]; span = (at[NR] - first + 1) / parts
      for (i = 1; i <= NR; i++) {
        p = int((at[i] - first) / span)
        if (!(p in low) || value[i] < low[p]) low[p] = value[i]
      }
      for (p = 0; p < parts; p++) for (q = p + 1; q < parts; q++)
        if ((p in low) && (q in low)) slope[++n] = (low[q] - low[p]) / ((q - p) * span)
      for (i = 2; i <= n; i++) {  # insertion
        s = slope[i]
        for (j = i - 1; j > 0 && slope[j] > s; j--) slope[j + 1] = slope[j]
        slope[j + 1] = s
      }
      least = most = low[0]
      for (p in low) { if (low[p] < least) least = low[p]; if (low[p] > most) most = low[p] }
      printf "%.0f %.0f %.0f\n", slope[int((n + 1) / 2)] * '$day', least, most
    }' "$1"
}

# life_of FILE: from its first look to its last, in seconds.
life_of() { awk 'NR == 1 {first = $1} {last = $1} END {print last - first}' "$1"; }

# grows FILE COLUMN UNIT GRAIN: true iff a figure of so many bytes grows by more than it may in a day. Less
# than GRAIN bytes within the run are chance.
grows() {
  local slope least most life
  read -r slope least most < <(trend "$1" "$2")
  life=$(life_of "$1")
  echo "column $2: $slope a day, from $least to $most, in $life s"
  [ $((slope * $3)) -gt "$allowed" ] && [ $((slope * $3 * life / day)) -gt "$4" ]
}

# judge_life FILE TRIED: what the samples tell.
judge_life() {
  local kib bytes fds threads life seen verdict=held
  life=$(life_of "$1")
  # What is told by a few looks, or by some minutes, is told by chance, and no verdict.
  seen=$((life < 300 || $(wc -l <"$1") < 16 ? 0 : 1))
  # Pages come by fours of KiB, and a heap's upper end moves by more of them: a life of less than a day is
  # judged by what it has gained, not by what a day would at that rate, and one of less than an hour by what
  # is in use alone, which is exact.
  if grows "$1" 2 1024 "$allowed" && [ "$life" -ge 3600 ]; then verdict=broken; fi
  if grows "$1" 3 1 512; then verdict=broken; fi
  if grows "$1" 5 "$allowed" 0 || grows "$1" 6 "$allowed" 0; then verdict=broken; fi
  [ $seen -eq 1 ] || verdict=held
  kib=$(trend "$1" 2) bytes=$(trend "$1" 3) fds=$(trend "$1" 5) threads=$(trend "$1" 6)
  $verdict "memory is bounded" "$2" "$(untried $seen "life that is long enough to see a trend")private memory ${kib#* } KiB (least and most of 8 parts, $((${kib%% *})) KiB a day), in use ${bytes%% *} bytes a day, descriptors ${fds#* }, threads ${threads#* }"
}

# reads_anew: the camera builds its events anew, and has done so when this returns.
reads_anew() {
  rm -f "$board/run/camera/io/input_used"
  camctl reload
  eventually 20 events_are_built
}

# deliveries: what the event log says.
deliveries() {
  awk '/USB recording started/ {usb++} /FTP upload started/ {ftp++} / 512 / {noftp++} /mail started/ {mail++} / 507 / {nomail++}
    END {printf "%d recordings, %d uploads (%d failed), %d mails (%d failed)", usb, ftp, noftp, mail, nomail}' "$events"
}

# at_rest FRAMES: nothing happens to the camera, and nothing is allocated while five times so many frames
# pass. A command of the housekeeping, of which there are a few an hour, is no frame's doing: two looks of
# five. Prints the allocations of a frame's doing.
at_rest() {
  local before after i frames all=() capture=0
  for i in 1 2 3 4 5; do
    frames=$(slot frame-count)
    read -ra before < <(counted)
    passed() { [ $(($(slot frame-count) - frames)) -ge "$1" ]; }
    eventually 120 passed "$1"
    read -ra after < <(counted)
    all+=($((after[2] - before[2])))
    capture=$((capture + after[3] - before[3]))
  done
  echo "allocations of five looks at $1 frames: ${all[*]}; $capture of the capture thread" >&2
  read -r i < <(printf '%d\n' "${all[@]}" | sort -n | sed -n 3p)
  echo $((i + capture))
}

trial_memory() {
  local whole=$1
  make_servers
  live_a_day $((whole / 2))
  live_in_modes $((whole - SECONDS))
}

# --- a day ------------------------------------------------------------------------------------------

plain_servers() {
  setpriv --pdeathsig KILL "$root/board/servers/ftp_server" --root "$work/ftp" --users "$work/known.ftp" \
    --log /dev/null --port 0 </dev/null >"$work/ftp.said" 2>&1 &
  boxes+=($!)
  setpriv --pdeathsig KILL "$root/board/servers/mail_server" --mailbox "$work/mails" \
    --log /dev/null --port 0 </dev/null >"$work/mail.said" 2>&1 &
  boxes+=($!)
  local kind
  for kind in ftp mail; do
    eventually 20 grep -q '^ready' "$work/$kind.said"
    port[$kind]=$(sed -n 's/^ready //p' "$work/$kind.said")
  done
  printf '[Ftp]\nServer = 127.0.0.1\nPort = %d\nUser = camera\nPassword = %s\nFolder = pictures\n' "${port[ftp]}" "$(cat "$work/password")" >>"$board/etc/camera.conf"
  printf '[Mail]\nServer = 127.0.0.1\nPort = %d\nSender = camera@example.org\nReceiver = office@example.org\n' "${port[mail]}" >>"$board/etc/camera.conf"
}

life=(
  'Source = 3; Interval = 10; Usb = 1; UsbFolder = pictures'
  'Source = 3; Interval = 120; Ftp = 1; FtpDuration = 3'
  'Source = 3; Interval = 300; Mail = 1; Subject = Look'
  'Source = 6; Usb = 1; Out1 = 1; Out1Duration = 2; Buzzer = 1; Ftp = 1'
  'Source = 5; Out2 = 1; Mail = 1; Access = 1'
  'Source = 2; Usb = 1; Out2 = 1; Mail = 1; Receiver = guard@example.org'
  'Source = 4; Out1 = 1; Usb = 1'
)

# tidy: what a day stores would fill the disk of who runs this.
tidy() {
  find "$board/usb" "$work/ftp" "$work/mails" -type f -mmin +1 -delete 2>/dev/null || true
  if [ "$(stat -c %s "$log")" -gt 4000000 ]; then : >"$log"; fi
}

live_a_day() {
  local time=$1 begun=$SECONDS samples=$work/samples.day turn=0 rebuilt=0 i gap end
  use_board day
  drivers=$builds/release/tests/torture/memory/libtorture_life.so
  plain_servers
  events_of "${life[@]}"
  printf '[2]\nErased = 0\nName = often\nWeekdays = 1111111\nItems = 3\nStart1 = 00:10:00\nStop1 = 06:00:00\nStart2 = 07:00:00\nStop2 = 13:00:00\nStart3 = 14:00:00\nStop3 = 23:00:00\n' >>"$board/etc/schedule.conf"
  sed -i 's/^Max = 1/Max = 2/' "$board/etc/schedule.conf"
  sed -i '/^\[7\]/,$ s/^Schedule = always/Schedule = often/' "$board/etc/events.conf"
  born=$(now_ms)
  VS_LEAP=1 start_camera
  end=$((begun + time - time / 4))
  local captured=0 triggers=0 inputs=0
  while [ $SECONDS -lt $end ] && { age; [ "$age" -lt $((day * 4 / 3)) ]; }; do
    turn=$((turn + 1))
    camctl trigger web1
    triggers=$((triggers + 1))
    if [ $((turn % 4)) -eq 0 ]; then camctl trigger web2; fi
    if [ $((turn % 3)) -eq 0 ]; then
      echo $((turn / 3 % 2)) >"$board/run/camera/io/input"
      inputs=$((inputs + 1))
    fi
    if [ $((turn % 5)) -eq 0 ]; then
      reads_anew
      rebuilt=$((rebuilt + 1))
    fi
    # Also samples while recordings run: only the least of many counts.
    for i in 1 2 3; do
      # The first quarter is for what every thread and library does once.
      if [ $((4 * (SECONDS - begun))) -ge $((end - begun)) ] || [ "$age" -ge $((day / 3)) ]; then sample "$samples"; fi
      sleep 0.1
    done
    [ $((turn % 20)) -ne 0 ] || tidy
  done
  age
  captured=$(slot frame-count)
  gap=$(od -An -td8 -j24 -N8 "$board/tmp/clock")
  wc -l "$samples"
  [ "$age" -gt $((2 * (SECONDS - begun))) ] || broken "memory is bounded" "a clock that does not wait for anything to come" "$age s in $((SECONDS - begun)) s: it does not leap"
  judge_life "$samples" "$((age / 3600)).$((age / 360 % 10)) h of a camera's life in $((SECONDS - begun)) s: $captured frames, $triggers triggers, $inputs inputs, $(deliveries), $rebuilt rebuilds"
  judge [ "$gap" -lt 1000000000 ] -- "capture never stops" "the same" "at most $((gap / 1000000)) ms between two pictures"
  echo >"$board/etc/events.conf"
  reads_anew
  sleep 1
  local made
  made=$(at_rest 2000)
  judge [ "$made" -eq 0 ] -- "no allocation per frame" "a picture file, five times 2,000 frames without events" "$made in the whole daemon"
  stop_daemon
  [ "$status" -eq 0 ] || fail "status $status"
  check_clean
}

# --- modes ------------------------------------------------------------------------------------------

# A day brings so many changes of modes and settings, and somebody who tries out everything.
changes_a_day=100

change() {
  camctl set "$1" "$2" || fail "can't set $1"
  changes=$((changes + 1))
}

# What a change costs is judged when the camera is back where it was, and its events are built anew, which
# ends all that was under way.
live_in_modes() {
  local time=$1 begun=$SECONDS samples=$work/samples.modes turn=0 changes=0 resolutions=(8 10 7 8 7 10 0 2 7)
  use_board modes
  port=()
  cp "$certificates/ca.pem" "$board/etc/servers.pem"
  echo '127.0.0.1 server.test' >"$board/etc/hosts"
  serve_both
  deliver_to_servers
  smb=16M
  printf '[Samba]\nEnable = 1\n' >>"$board/etc/sys.conf"
  configure Video CompressionType 1
  configure Video IpRatio 4
  events_of 'Source = 6; Usb = 1; Ftp = 1; FtpDuration = 1; Smb = 1; SmbDuration = 1' \
    'Source = 5; Mail = 1; Usb = 1; Out1 = 1; Out1Duration = 1' 'Source = 0; Usb = 1; Out2 = 1; Out2Duration = 1'
  start_hardware --model B520
  drivers=$builds/release/tests/torture/memory/libtorture_life.so
  start_daemon -B520 -mv
  eventually 10 has_frames
  eventually 20 events_are_built
  while [ $((SECONDS - begun)) -lt $((time - 12)) ] || [ $turn -lt 3 ]; do
    turn=$((turn + 1))
    boardctl motion on 120 200 120 120
    camctl trigger web1
    camctl trigger web2
    change mode $((turn % 4))
    change resolution "${resolutions[turn % ${#resolutions[@]}]}"
    change overlay $((turn % 2 + 1))
    change compression $((turn % 20 + 1))
    sleep 0.7
    change mode $(((turn + 1 + turn / 4) % 4))
    camctl trigger web1
    boardctl motion off
    sleep 0.4
    change brightness $((100 + turn % 50))
    change flip $((turn % 2))
    change compression 6
    change resolution 7
    change mode 1
    settle mode 1
    reads_anew
    born=$(($(now_ms) - changes * day * 1000 / changes_a_day))
    [ $turn -le 1 ] || sample "$samples"
  done
  judge_life "$samples" "$changes changes of mode, picture and overlays of a sensor camera in $((SECONDS - begun)) s ($changes_a_day a day), $(deliveries) by TLS"
  echo >"$board/etc/events.conf"
  reads_anew
  # So many frames come in some seconds; a frame's doing shows in few.
  local mode made=0 frames=$((time < 60 ? 10 : 40))
  for mode in 0 1 2 3; do
    settle mode $mode
    sleep 0.3
    made=$((made + $(at_rest $frames)))
  done
  judge [ "$made" -eq 0 ] -- "no allocation per frame" "a sensor camera, five times $frames frames without events in each mode" "$made in the whole daemon"
  stop_daemon
  [ "$status" -eq 0 ] || fail "status $status"
  check_clean
}
