// The Samba share that recordings go to: its mount.
#pragma once

// Mounts and unmounts the share at /smb. Any thread; mount() and umount() wait for their script.
class TSmbRecorder {
 public:
  // Returns 1 when the share is mounted, 0 or -1 when not.
  // On failure returns -1 and logs 2 "get_smb_mount_state() fail".
  static int getState();

  // Mounts the share unless it is mounted. Returns true iff it is mounted now.
  // Logs 3 "TSmbRecorder::mount() IPE" for a state that does not exist.
  static bool mount();

  // Unmounts the share if it is mounted. Returns true iff it is not mounted now.
  // Logs 3 "TSmbRecorder::umount() IPE" for a state that does not exist.
  static bool umount();
};
