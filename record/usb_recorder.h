// Stores pictures on USB storage.
#pragma once

#include "record/recorder.h"

// Writes each picture as a file below /usb.
class TUsbRecorder : public TRecorder {
 public:
  // `mountPoint` is "/usb" for the storage whose state and space are watched.
  using TRecorder::TRecorder;

 protected:
  // Writes the picture under fileName(). Returns false, which ends the recording, when the storage
  // is not mounted (event 515), is full or takes no file (event 517); a picture that got only
  // partly onto it is event 517 too, but the recording goes on.
  // When the mount can't be asked the picture is passed over:
  // logs 2 "get_usb_mount_state() fail".
  bool onCapture(const char* data, long length) override;
};
