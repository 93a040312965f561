# shellcheck shell=bash
# What the camera models deliver in each mode: every picture decodes, and is of the size that was asked
# for.

sizes=(352x288 720x288 720x576 352x240 720x240 720x480 176x144 640x480 320x240 0x0 160x120)
indices=(0 1 2 3 4 5 6 8 10 7)  # 9 is empty

# Key frames often, so that nobody waits long for one.
often() { configure Video IpRatio 4; }

# decodes FORMAT SIZE: so does what camctl writes, for independent tools: every picture, in its order and
# without a word.
decodes() {
  local name=m4v
  [ "$1" = mpeg4 ] || name=mjpeg
  expect "$(ffprobe -v error -f $name -count_frames -show_entries stream=width,height,nb_read_frames \
    -of csv=p=0:s=x "$work/dump" 2>&1)" "$2x8" "camctl dump in ffprobe"
  expect "$(ffmpeg -v error -xerror -f $name -i "$work/dump" -f null - 2>&1)" "" "camctl dump in ffmpeg"
}

# in_each_resolution: those of the encoder, in the mode that the camera is in.
in_each_resolution() {
  local index
  for index in "${indices[@]}"; do
    settle resolution "$index"
    camctl dump mpeg4 --frames 8 >"$work/dump" &
    judge_stream --pictures 8
    wait $!
    expect "$(seen '.order[-1]')" "${sizes[index]}" "size with index $index"
    decodes mpeg4 "${sizes[index]}"
    expect "$(seen '.gaps + .jpeg')" 0 "gaps and JPEG pictures"
  done
}

test_sensor_camera_mode_0_codes_each_size() {
  once_is_enough
  often
  start_model B520
  in_each_resolution
}

test_encoder_alone_codes_each_size() {
  once_is_enough
  often
  start_model K310
  in_each_resolution
}

test_mode_1_knows_three_sizes() {
  once_is_enough
  configure Video CompressionType 1
  start_model B520
  local index size
  for index in "${indices[@]}" 9; do
    settle resolution "$index"
    camctl dump mjpeg --frames 8 >"$work/dump" &
    judge_stream --pictures 8
    wait $!
    size=160x120
    [[ $index != [78] ]] || size=${sizes[index]}
    expect "$(seen '.order[-1]')" "$size" "size with index $index"
    expect "$(seen '.key + .predicted')" 0 "MPEG-4 pictures"
    decodes mjpeg "$size"
  done
  settle resolution 7
  judge_stream --pictures 4
  expect "$(seen .header)" 00000000000000000000000000014003c0000000 "header"
}

test_mode_2_codes_each_size_and_hands_pictures_to_recorders() {
  once_is_enough
  often
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1'
  start_model B520
  settle mode 2
  in_each_resolution
  settle resolution 8
  eventually 10 recorded 1
  check_stream --stream video2 --for 8 --pictures 4 || fail "$(cat "$work/seen")"
  expect "$(seen '.key')" 0 "key frames for recorders"
  expect "$(seen '.order[-1]')" 320x240 "size for recorders"
}

test_mode_3_leaves_the_encoder_alone() {
  once_is_enough
  often
  start_model B520
  settle mode 3
  camctl dump mpeg4 --frames 8 >"$work/dump" &
  judge_stream --pictures 8
  wait $!
  local before
  before=$(seen '.order[-1]')
  decodes mpeg4 "$before"
  boardctl trace "$work/trace"
  settle resolution 8
  settle compression 12
  settle framerate 1
  judge_stream --pictures 8
  expect "$(seen '.order[-1]')" "$before" "size of the stream"
  ! grep '^MPG430' "$work/trace" | grep -v GET_IMGHEADER || fail "the encoder was told"
  grep -q '^VIDIOCSWIN 0 0 320 240 ' "$work/trace" || fail "the sensor was not told: $(cat "$work/trace")"
}

test_empty_index_is_refused() {
  once_is_enough
  often
  start_model B520
  settle resolution 8
  settle resolution 9
  eventually 5 logged "ioctl(MPG430_SET_MODE) fail"
  judge_stream --pictures 8
  expect "$(seen '.order[-1]')" 320x240 "size after a refused index"
}

# The header of MPEG-4 takes the place of that of JPEG, at the same resolution.
test_jpeg_header_is_right_again_after_mpeg4() {
  often
  start_model B520
  settle resolution 7
  local header='' mode
  for mode in 1 0 1 2 1 3 1; do
    settle mode $mode
    judge_stream --pictures 5
    if [ $mode = 1 ]; then
      expect "$(seen .header)" 00000000000000000000000000014003c0000000 "header in mode 1"
    else
      header=$(seen .header)
      [[ $header == 00000100* ]] || fail "no header of MPEG-4 in mode $mode: $header"
    fi
  done
}

test_tv_standard_changes_the_size() {
  often
  start_model K310
  settle resolution 2
  local standard size
  for standard in ntsc pal ntsc pal; do
    boardctl tv $standard
    size=720x576
    [ $standard = pal ] || size=720x480
    has_size() { judge_stream --pictures 6 --strays 1 && [ "$(seen '.order[-1]')" = "$size" ]; }
    eventually 2 has_size
  done
}

# shaken HOW CHANGES [STRAYS]: changes settings at random and judges both streams meanwhile.
shaken() {
  local changes=$2 strays=${3:-0} recorders
  [ "$slow" -eq 1 ] || changes=$(($2 / 5))
  eventually 10 recorded 1
  "$build/tests/board/stream_check/stream_check" --board "$board" --stream video2 --for 100 \
    >"$work/seen2" &
  recorders=$!
  boxes+=("$recorders")
  check_stream "$1" "$changes" --for 100 --seed "$changes" --strays "$strays" || fail "$(cat "$work/seen")"
  # Not only while it is shaken: afterwards as well.
  settle mode 0
  settle framerate 0
  settle resolution 7
  judge_stream --pictures 8
  expect "$(seen '.order[-1]')" 640x480 "size at the end"
  local before
  before=$(recordings | wc -l)
  eventually 10 recorded $((before + 2))
  kill "$recorders"
  wait "$recorders" || fail "video2: $(cat "$work/seen2")"
  [ "$(jq .key "$work/seen2")" -gt 0 ] || fail "no key frame for recorders: $(cat "$work/seen2")"
}

test_sensor_camera_survives_random_changes() {
  often
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1'
  start_model B520
  shaken --shake-modes 1000
}

flip_standard() {
  while boardctl tv ntsc && sleep 0.7 && boardctl tv pal; do sleep 0.9; done
}

test_encoder_survives_random_changes() {
  often
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1'
  start_model K310
  flip_standard &
  boxes+=($!)
  shaken --shake 300 8  # of some 25 changes of the standard
}
