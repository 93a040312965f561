# shellcheck shell=bash
# The daemon's calendar: dates, schedules, alarms and housekeeping on a virtual clock, in unlike time
# zones, against calculations of their own. A minute is enough for a year; more time looks closer, at
# further years and, from ten minutes on, at all zones that there are.
# Builds: release
# shellcheck disable=SC2154

# The half-hour shift, the south, none, three quarters of an hour, changes at midnight, before midnight of
# the day before, winter time that is the exception, a month of fasting, two hours at once, a day that was
# left out, either end of the day.
time_zones=(Europe/Berlin America/New_York America/St_Johns America/Santiago Australia/Sydney
  Australia/Lord_Howe Pacific/Chatham Pacific/Apia Pacific/Kiritimati Asia/Kathmandu Africa/Cairo
  Africa/Casablanca Europe/Dublin America/Scoresbysund Antarctica/Troll Etc/GMT+12)

# run_calendar PROGRAM ARGUMENT...: in the background, behind what else the machine does.
run_calendar() {
  nice -n 10 "$build/tests/torture/time/time_$1" "${@:2}" >"$work/$1.txt" 2>&1
}

# judge_calendar PROMISE TRIED PROGRAM PID: waits for the program, and says what it found.
judge_calendar() {
  local whole=no
  if wait "$4"; then whole=yes; fi
  echo "--- $3"
  cat "$work/$3.txt"
  judge [ $whole = yes ] -- "$1" "$2" "$(grep -v '^WRONG' "$work/$3.txt" | paste -sd ';' | sed 's/;/; /g')"
}

trial_time() {
  local which=("${time_zones[@]}") dates schedules housekeeping
  [ "$1" -lt 600 ] || which=(--all)
  "$root/tests/torture/time/zone_offsets.py" "$work/zones" "${time_zones[@]}"
  "$root/tests/torture/time/zone_offsets.py" "$work/dates" "${which[@]}"

  # The machine's two processors: one for a year of each of the last, and what is left over for the first.
  run_calendar dates "$work/dates" $(($1 / 4)) &
  dates=$!
  run_calendar schedules "$work/zones" $(($1 - 5)) "$seed" &
  schedules=$!
  run_calendar housekeeping "$work/zones" $(($1 - 5)) "$seed" &
  housekeeping=$!
  judge_calendar "time: dates and zones" \
    "month ends, leap days, 2038, 2100, 2106 and all changes of clocks, both ways, against Python's zoneinfo" \
    dates $dates
  judge_calendar "time: schedules and alarms" \
    "each pass of the scheduler with interval events, relay pulses and schedules over midnight; steps of the clock" \
    schedules $schedules
  judge_calendar "time: housekeeping" \
    "each command, slot and refresh to the millisecond: sync, clock check, daylight saving, share watch" \
    housekeeping $housekeeping
}
