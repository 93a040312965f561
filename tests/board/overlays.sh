# shellcheck shell=bash
# What the sensor camera writes over its picture.

# overlay SECTION LINE...
overlay() {
  local section=$1
  shift
  printf '\n[%s]\nEnable = 1\n' "$section" >>"$board/etc/camera.conf"
  printf '%s\n' "$@" >>"$board/etc/camera.conf"
}
# No overlay but those that a test asks for.
no_overlays() {
  printf '\n[%s]\nEnable = 0\n' OverlayImage OverlayMotion OverlayText >>"$board/etc/camera.conf"
}

# take FILE: a picture of the stream as PNG.
take() { check_stream --for 5 --pictures 3 --last "$1" || fail "$(cat "$work/seen")"; }

# white_in FILE X Y WIDTH HEIGHT: how many pixels there are all but white.
white_in() {
  ffmpeg -v error -i "$1" -vf "crop=$4:$5:$2:$3,format=gray" -f rawvideo - |
    od -An -v -tu1 -w1 | awk '$1 > 225 {n++} END {print n + 0}'
}

# is_near A B: within what coding does to a picture.
is_near() { [ $(($1 - $2)) -le 6 ] && [ $(($2 - $1)) -le 6 ]; }

# A graphic of one colour in flash. flash_image WIDTH HEIGHT
flash_image() {
  {
    printf 'OSD1'
    # shellcheck disable=SC2059  # the format is the bytes
    printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8)) $(($2 & 255)) $(($2 >> 8)))"
    head -c $((2 * $1 * $2)) /dev/zero | tr '\0' '\377'
  } >"$board/var/flash/mtdblock2"
}

test_graphic_is_where_it_should_be() {
  no_overlays
  start_model B520
  take "$work/without.png"
  flash_image 64 48
  overlay OverlayImage 'X = 200' 'Y = 120'
  settle overlay 2
  sleep 0.3
  take "$work/with.png"
  [ "$(white_in "$work/with.png" 204 124 56 40)" -gt 2100 ] || fail "the graphic is not there"
  # All around it the picture is as it was.
  local place before after
  for place in '160 120 32 48' '272 120 32 48' '200 80 64 32' '200 176 64 32'; do
    # shellcheck disable=SC2086  # four numbers
    before=$(brightness_of "$work/without.png" $place) after=$(brightness_of "$work/with.png" $place)
    is_near "$before" "$after" || fail "$before, now $after at $place"
  done
}

test_text_is_where_it_should_be() {
  once_is_enough
  no_overlays
  start_model B520
  take "$work/without.png"
  overlay OverlayMotion 'X = 300' 'Y = 250' 'Text = MMMMMMMM' 'Transparency = 0' 'Colour = 0'
  settle overlay 1
  sleep 0.3
  take "$work/with.png"
  local before after
  before=$(brightness_of "$work/without.png" 304 254 48 12) after=$(brightness_of "$work/with.png" 304 254 48 12)
  ! is_near "$before" "$after" || fail "$before, now $after"
  before=$(brightness_of "$work/without.png" 200 250 80 16) after=$(brightness_of "$work/with.png" 200 250 80 16)
  is_near "$before" "$after" || fail "$before, now $after beside it"
}

# The text that the chip has got last.
time_text() { grep '^SET_DTOSD_STRING' "$work/trace" | tail -n 1; }

test_time_changes_when_it_is_told_and_at_no_other_moment() {
  no_overlays
  overlay OverlayText 'X = 16' 'Y = 440' 'Text = "Gate "' 'ShowTime = 1'
  start_hardware --model B520 --trace "$work/trace"
  drivers=$build/board/drivers/libvs_drivers.so
  start_daemon -B520 -mv
  eventually 10 camera_is_up
  eventually 10 has_frames
  local first
  first=$(time_text)
  [[ $first =~ ^SET_DTOSD_STRING\ \"Gate\ 20[0-9]{2}/[01][0-9]/[0-3][0-9]\ [0-9:]{8}\" ]] || fail "$first"
  sleep 2.2
  expect "$(time_text)" "$first" "two seconds later"
  check_stream --write 14=1 --for 5 --pictures 5 || fail "$(cat "$work/seen")"
  [ "$(time_text)" != "$first" ] || fail "it was told, and is the same"
  expect "$(grep -c '^SET_DTOSD_STRING' "$work/trace")" 2 "texts"
}
