// The Samba share that recordings go to: its mount.
#include "record/smb_recorder.h"

#include "platform/log.h"
#include "platform/os.h"
#include "platform/storage.h"

namespace {

// What getState() may give.
constexpr int kUnknown = -1;  // taken as not mounted
constexpr int kNotMounted = 0;
constexpr int kMounted = 1;

}  // namespace

int TSmbRecorder::getState() {
  int state = kNotMounted;
  if (get_smb_mount_state(&state) != 0) return logEx(2, "get_smb_mount_state() fail");
  return state;
}

bool TSmbRecorder::mount() {
  switch (getState()) {
    case kUnknown:
    case kNotMounted:
      return os::system("/etc/init.d/smb.sh start") == 0;
    case kMounted:
      return true;
    default:
      logEx(3, "TSmbRecorder::mount() IPE");
      return false;
  }
}

bool TSmbRecorder::umount() {
  switch (getState()) {
    case kUnknown:
    case kNotMounted:
      return true;
    case kMounted:
      return os::system("/etc/init.d/smb.sh stop") == 0;
    default:
      logEx(3, "TSmbRecorder::umount() IPE");
      return false;
  }
}
