# shellcheck shell=bash
# The programs of a camera, 32-bit MIPS, on a virtual board under qemu. What stands around them, camctl on
# the PC and the peers, is that of the release build.

slow=8  # so much at least does qemu take of the pace

# Puts the camera's programs and libraries into the board. From the outside they are started as the PC's.
insert_camera() {
  local release=$root/build/release libraries=/home/camera/lib/mipsel-linux-gnu one
  [ -x "$release/core/video_svr" ] || skip "the release build is not there"
  mkdir -p "$board/home/camera/usr" "$work/programs"/{core,camera}
  cp -a "$root/build/sysroot/lib" "$board/home/camera/"
  cp -a "$root/build/sysroot/usr/lib" "$board/home/camera/usr/"
  for one in core/video_svr tools/camctl; do
    cp "$build/$one" "$board/home/camera/"
    {
      echo '#!/bin/sh'
      # The loader is named, and qemu looks nowhere for files of the target: it would take the board's.
      echo "exec qemu-mipsel-static -L /none $libraries/ld.so.1 \\"
      echo "  --library-path $libraries:${libraries/lib/usr/lib} /home/camera/${one##*/} \"\$@\""
    } >"$work/programs/${one/tools/camera}"
    chmod +x "$work/programs/${one/tools/camera}"
  done
  ln -s "$release"/{board,tools} "$work/programs/"
  build=$work/programs
}

test_records_every_second() {
  write_events 'Source = 3' 'Interval = 1' 'Usb = 1' 'UsbFolder = pictures'
  insert_camera
  start_camera
  eventually 5 recorded 5
  eventually 1 happened 514
  camctl trigger web1
  [ "$(slot frame-count)" -gt 10 ] || fail "too few frames"
  awk '/^Vm(RSS|Size)|^Rss(Anon|File|Shmem)/' "/proc/$daemon/status"
  local file
  for file in $(recordings); do
    [[ $file =~ ^$board/usb/pictures/20[0-9]{6}/[0-2][0-9][0-5][0-9][0-5][0-9]\.jpg$ ]] || fail "$file"
  done
  stop_daemon
  expect "$status" 0 "exit status"
  [ "$took" -lt 5000 ] || fail "the end took $took ms"
  for file in $(recordings); do cmp "$picture" "$file"; done
}

# Shared memory has one layout, whatever the processes that use it are.
test_camctl_of_the_camera_and_of_the_pc_see_the_same() {
  write_events 'Source = 6' 'Out1 = 1' 'Out1Duration = 1'
  insert_camera
  start_camera
  launch "$work/programs/camera/camctl" grab /home/grabbed.jpg
  wait "$box"
  cmp "$picture" "$board/home/grabbed.jpg"
  launch "$work/programs/camera/camctl" trigger web1
  wait "$box"
  eventually 5 happened 525
  : >"$work/output"
  launch "$work/programs/camera/camctl" get
  wait "$box"
  expect "$(cat "$work/output")" "$(camctl get)" "settings"
}
