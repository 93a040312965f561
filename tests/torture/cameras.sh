# shellcheck shell=bash
# Builds: release
# How many cameras a machine carries side by side at 15 pictures/s each, and what one costs: cameras that
# see a picture file, then such with an encoder, whose virtual hardware is costly itself. Their number is
# raised until one of them falls behind or the time is over.

least=8  # cameras that a machine of two processors must carry; it carries many times that
watch_s=4  # how long their pace is watched each time
enough=145  # pictures in 10 s: one more or less, or two, may fall into the watch
declare -A box_of=() daemon_of=() hardware_of=()
cameras=0

# begin_camera NUMBER: without waiting for it.
begin_camera() {
  use_board "cam$1"
  if [ "$kind" = file ]; then
    # Rate 1 of the file source is a picture in 56 ms: 17.8 a second.
    launch "$build/core/video_svr" -n/home/test.jpg -f1 -mv
  else
    configure Video FrameRate 1
    start_hardware --model B520
    hardware_of[$1]=$hardware
    drivers=$build/board/drivers/libvs_drivers.so
    launch "$build/core/video_svr" -B520 -mv
  fi
  box_of[$1]=$box
}

has_begun() { [ -s "$board/run/video_svr.pid" ] && camera_is_up && has_frames; }

# add_cameras NUMBER: so many more; true iff all of them are there within half a minute.
add_cameras() {
  local number first=$((cameras + 1)) last=$((cameras + $1))
  for ((number = first; number <= last; number++)); do begin_camera "$number"; done
  cameras=$last
  for ((number = first; number <= last; number++)); do
    use_board "cam$number"
    await 30 has_begun || return 1
    daemon_of[$number]=$(cat "$board/run/video_svr.pid")
  done
}

# cpu_of PID...: us of processor time that all their threads have had, as the scheduler counts it: the usual
# count is in steps of 10 ms.
cpu_of() {
  local pid
  for pid; do cat "/proc/$pid/task/"*/schedstat; done 2>/dev/null | awk '{sum += $1} END {printf "%d\n", sum / 1000}'
}

# pictures_now: "MS PICTURES" of each camera, a line each. What the encoder has given tells how many pictures
# there are in frames, which hold two or three.
pictures_now() {
  local number
  for ((number = 1; number <= cameras; number++)); do
    use_board "cam$number"
    if [ "$kind" = file ]; then
      echo "$(now_ms) $(slot frame-count)"
    else
      echo "$(now_ms) $(boardctl status | sed -n 's/^open .dev.mpg430.* \([0-9]*\) pictures.*/\1/p')"
    fi
  done
}

# watch_cameras: $slowest is how many pictures a second come from the slowest camera, times 10; $daemon_cost and
# $hardware_cost what one costs, in hundredths of a per cent of a processor.
watch_cameras() {
  local begun daemons hardwares=0 took
  pictures_now >"$work/before"
  begun=$(now_ms)
  daemons=$(cpu_of "${daemon_of[@]}")
  [ ${#hardware_of[@]} -eq 0 ] || hardwares=$(cpu_of "${hardware_of[@]}")
  sleep $watch_s
  took=$(($(now_ms) - begun))
  daemon_cost=$((($(cpu_of "${daemon_of[@]}") - daemons) * 10 / took / cameras))
  [ ${#hardware_of[@]} -eq 0 ] ||
    hardware_cost=$((($(cpu_of "${hardware_of[@]}") - hardwares) * 10 / took / cameras))
  pictures_now >"$work/after"
  slowest=$(paste "$work/before" "$work/after" | awk '
    {rate = ($4 - $2) * 10000 / ($3 - $1)} NR == 1 || rate < least {least = rate} END {print int(least)}')
}

# with_point NUMBER DIGITS: 123 as 12.3 or 1.23.
with_point() { awk -v number="$1" -v digits="$2" 'BEGIN {printf "%.*f", digits, number / 10 ^ digits}'; }

# costs: of one camera, in $cost.
costs() {
  local pid own=0 shared
  for pid in "${daemon_of[@]}"; do own=$((own + $(resident "$pid"))); done
  shared=$(du -sLk "$board/dev/shm/" | cut -f 1)
  cost="daemon $(with_point "$daemon_cost" 2) % of a processor, $((own / cameras)) KiB its own, $shared KiB shared"
  [ ${#hardware_of[@]} -gt 0 ] || return 0
  own=0
  for pid in "${hardware_of[@]}"; do own=$((own + $(resident "$pid"))); done
  cost+="; hardware $(with_point "$hardware_cost" 2) %, $((own / cameras)) KiB"
}

# end_cameras: all at once; $disorder says what went wrong.
end_cameras() {
  local number code begun
  disorder=''
  begun=$(now_ms)
  for number in "${!box_of[@]}"; do kill -TERM "${daemon_of[$number]:-${box_of[$number]}}" || true; done
  for number in "${!box_of[@]}"; do
    code=0
    wait "${box_of[$number]}" || code=$?
    [ $code -eq 0 ] || disorder+=" camera $number ends with $code"
  done
  end_took=$(($(now_ms) - begun))
  for number in "${!hardware_of[@]}"; do end_process "${hardware_of[$number]}" 5 || disorder+=" its hardware does not end"; done
  for ((number = 1; number <= cameras; number++)); do
    rm -rf -- "$(readlink "$work/cam$number/dev/shm")" "$work/cam$number"
  done
  box_of=() daemon_of=() hardware_of=() cameras=0
}

# raise KIND END FIRST: as many cameras as reach 15 pictures a second, FIRST to begin with and twice as many
# each time, then by an eighth, until it is time to END. $carried is how many, $limit why no more.
raise() {
  local step=$3 begun left attempt
  kind=$1 carried=0 limit='' daemon_cost=0 hardware_cost=0 cost=''
  while [ -z "$limit" ]; do
    begun=$(now_ms)
    if ! add_cameras "$step"; then
      limit="one of $cameras did not start"
      break
    fi
    begun=$((($(now_ms) - begun) / step + 1))  # ms that a camera needs to start
    # Three times before it is believed: something else may have had the machine for a moment.
    for attempt in 1 2 3; do
      watch_cameras
      [ "$slowest" -lt $enough ] || break
    done
    echo "$kind: $cameras cameras, the slowest $(with_point "$slowest" 1) pictures/s, $SECONDS s"
    if [ "$slowest" -lt $enough ]; then
      limit="of $cameras one had only $(with_point "$slowest" 1) pictures/s"
      break
    fi
    carried=$cameras
    costs
    step=$cameras
    # Beyond half of the processors' time another doubling is in vain.
    if [ $(((daemon_cost + hardware_cost) * cameras * 2)) -gt $(($(nproc) * 10000)) ]; then step=$(((cameras + 7) / 8)); fi
    # A camera more takes its start, and its share of the watch and of the end.
    left=$((1000 * ($2 - SECONDS - 2 * watch_s) / (begun + 60) - cameras / 10))
    if [ "$step" -gt $left ]; then step=$left; fi
    [ "$step" -gt 0 ] || limit='the time was over'
  done
  end_cameras
}

trial_cameras() {
  local promise='many cameras'
  raise file $((seconds * 6 / 10)) $least
  judge test "$carried" -ge $least -a -z "$disorder" -- "$promise" \
    "boards side by side at 15 pictures/s, file source, on $(nproc) processors" \
    "$carried ($limit); each: $cost; all ended within $end_took ms${disorder:+, but$disorder}"
  raise encoder "$seconds" 2
  judge test "$carried" -ge 2 -a -z "$disorder" -- "$promise" \
    "the same, each with virtual hardware (MPEG-4, 640x480)" \
    "$carried ($limit); each: $cost; all ended within $end_took ms${disorder:+, but$disorder}"
}
