// The Samba share that recordings go to: its mount, and room on it.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "record/smb_recorder.h"

namespace {

// What getState() may give.
constexpr int kUnknown = -1;  // taken as not mounted
constexpr int kNotMounted = 0;
constexpr int kMounted = 1;

constexpr char kRecordings[] = "/smb/camera";
constexpr int kOldestFiles = 2;  // that make room at once

// Returns true iff `path` is the folder of a day: this and nothing else is handed to the shell.
bool isDayFolder(const char* path) {
  constexpr std::size_t kDigits = 8;
  constexpr std::size_t kBefore = sizeof kRecordings - 1;
  if (std::strncmp(path, kRecordings, kBefore) != 0 || path[kBefore] != '/') return false;
  const char* const day = path + kBefore + 1;
  return std::strlen(day) == kDigits && std::strspn(day, "0123456789") == kDigits;
}

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

// Makes room on a full share. Returns true iff there is some now.
bool TSmbRecorder::rmOldest() {
  if (!recycle_) {
    error_ = ENOSPC;
    return false;
  }
  char oldest[kNameBytes];
  if (!getOldest(kRecordings, oldest, false)) return false;
  char folder[kNameBytes];
  if (get_folder(name_, folder, sizeof folder) != 0) {
    logEx(2, "get_folder(%s) fail", name_);
    return false;
  }
  if (std::strcmp(oldest, folder) == 0) return rmOldestFiles(folder);
  char command[sizeof "rm -rf " + sizeof oldest];
  std::snprintf(command, sizeof command, "rm -rf %s", oldest);
  if (isDayFolder(oldest) && os::system(command) == 0) return true;
  logEx(2, "system(rm -rf %s) fail", oldest);
  return false;
}

// Removes the oldest files of the folder that is written to, never the one that is being written.
bool TSmbRecorder::rmOldestFiles(const char* folder) {
  int removed = 0;
  for (int i = 0; i < kOldestFiles; ++i) {
    char oldest[kNameBytes];
    if (!getOldest(folder, oldest, removed > 0)) return removed > 0 && error_ == ENOENT;
    if (std::strcmp(oldest, name_) == 0) continue;
    if (os::unlink(oldest) != 0) {
      error_ = errno;
      logEx(2, "unlink(%s) fail", oldest);
      return false;
    }
    ++removed;
  }
  if (removed == 0) error_ = ENOSPC;
  return removed > 0;
}

// `mayBeNone`: that there is none is not worth a message.
bool TSmbRecorder::getOldest(const char* folder, char* name, bool mayBeNone) {
  if (get_oldest_name(folder, name, kNameBytes) == 0) return true;
  error_ = errno;
  if (!mayBeNone || error_ != ENOENT) logEx(2, "get_oldest_name(%s) fail", folder);
  return false;
}
