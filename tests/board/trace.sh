# shellcheck shell=bash
# What reaches the drivers, request by request.

# traced MODEL: the requests until the first frame, compared with what they were when somebody last
# looked at them.
traced() {
  once_is_enough
  start_hardware --model "$1" --trace "$work/trace"
  drivers=$build/board/drivers/libvs_drivers.so
  start_daemon "-$1" -mv
  eventually 10 camera_is_up
  eventually 10 has_frames
  # Texts and levels are those of the moment; who gets signals is told without waiting for an answer.
  sed -e '/^GET_MDWND/d' -e '/^owner/d' -e 's/ -> .*//' -e 's/\(SET_DTOSD_STRING "[^"]*\)[0-9]\{4\}.*"/\1TIME"/' \
    "$work/trace" >"$work/requests"
  diff "$root/tests/data/trace/$1.expected" "$work/requests" || fail "other requests"
}

test_start_of_the_sensor_camera() { traced B520; }
test_start_of_the_encoder() { traced K310; }
