# shellcheck shell=bash
# Drivers that fail, hang, lie or die: the daemon goes on, says little, and ends when it is asked to.

lines() { wc -l <"$log"; }

# says_little SECONDS: a line a second, and the first ones.
says_little() {
  local before
  before=$(lines)
  sleep "$1"
  [ $(($(lines) - before)) -le $(($1 + 2)) ] || fail "$(($(lines) - before)) lines in $1 s"
}

ends_in_time() {
  stop_daemon
  [ "$took" -lt 5000 ] || fail "took $took ms"
}

# recovers: the stream is whole again.
recovers() {
  whole_again() { check_stream --for 4 --pictures 6; }
  eventually 20 whole_again
}

test_read_errors_without_end() {
  start_model B520
  boardctl fail read-encoder EIO
  eventually 5 logged "read(MPG430) return -1"
  says_little 3
  boardctl heal
  recovers
  boardctl fail read-encoder EIO
  says_little 1
  ends_in_time
}

test_sensor_read_errors_without_end() {
  configure Video CompressionType 1
  start_model B520
  boardctl fail read-sensor EIO
  eventually 5 logged "read(lumo) return -1"
  says_little 3
  boardctl heal
  recovers
  boardctl fail read-sensor EIO
  ends_in_time
}

test_hardware_that_is_killed() {
  start_model B520
  kill -KILL "$hardware"
  eventually 5 logged "read(MPG430) return"
  says_little 2
  ends_in_time
}

# Each pass logs that the picture and both motion levels can't be read.
test_hardware_that_is_killed_while_motion_is_watched() {
  configure Video CompressionType 1
  configure Motion1 Enable 1
  configure Motion2 Enable 1
  start_model B520
  kill -KILL "$hardware"
  eventually 5 logged "read(lumo) return"
  eventually 5 logged "ioctl(VICAM_IOC_GET_MDWND1_STATUS) fail"
  eventually 5 logged "ioctl(VICAM_IOC_GET_MDWND2_STATUS) fail"
  says_little 8
  ends_in_time
}

test_camera_without_its_hardware() {
  drivers=$build/board/drivers/libvs_drivers.so
  start_daemon -B520 -mv
  eventually 10 logged "can't open /dev/mpg430"
  eventually 10 logged "can't open /dev/video0"
  says_little 2
  ends_in_time
}

test_hung_driver_and_the_end() {
  start_model B520
  boardctl hang encoder
  sleep 1
  ends_in_time
  [ "$status" -eq 0 ] || logged "shutdown took too long" || fail "exit status $status"
}

test_hung_driver_that_goes_on() {
  start_model B520
  boardctl hang encoder
  sleep 1
  boardctl go-on
  recovers
}

# What the driver refuses changes nothing; what it takes later, does.
test_requests_that_all_fail() {
  start_model B520
  settle resolution 7
  boardctl fail '*' EINVAL
  settle resolution 8
  settle brightness 200
  eventually 5 logged "ioctl(MPG430_SET_MODE) fail"
  eventually 5 logged "ioctl(VICAM_IOC_VIDIOCGPICT) fail"
  camctl status | grep -q '^format.*resolution 7' || fail "a refused resolution is published"
  boardctl heal
  settle resolution 8
  recovers
  expect "$(seen '.order[-1]')" 320x240 "size at the end"
}

# The stream is not what it was while reads come wrong, and whole again afterwards.
# spoiled NODE KIND [VALUE]
spoiled() {
  start_model B520
  [ "$1" = encoder ] || settle mode 1
  boardctl reads "$@"
  check_stream --for 1 || true
  says_little 1
  boardctl heal
  recovers
}

test_chunks_of_one_byte() { spoiled encoder short 1; }
test_late_chunks() { spoiled encoder late 70; }
test_torn_chunks() { spoiled encoder torn; }
test_empty_reads() { spoiled encoder empty; }
test_chunks_without_a_start_code() { spoiled encoder headless; }
test_torn_pictures() { spoiled sensor torn; }
test_late_pictures() { spoiled sensor late 100; }

# The chunk that comes after a frame's time still belongs to it, and is its last.
test_late_chunk_is_the_last_of_its_frame() {
  start_model B520
  boardctl reads encoder late 70
  sleep 0.3
  judge_stream --for 3
  expect "$(seen '.chunks == 2 * .frames')" true "two chunks in each frame"
}

test_header_of_another_length() {
  start_model B520
  boardctl lie 12
  settle resolution 8
  eventually 5 logged "unexpected mp4 header size"
  boardctl heal
  settle resolution 7
  recovers
}
