// Uploads pictures to an FTP server.
#pragma once

#include "platform/ftp.h"
#include "record/recorder.h"

// Logs in when a recording begins, uploads each picture, and logs out when it ends. All three
// happen on the recorder's own thread, to which the session belongs. The names are relative to the
// login directory: folder, day, prefix and time of day; or always the same one.
class TFtpRecorder : public TRecorder {
 public:
  // Reads the server's settings; without a user's name the login is "anonymous".
  // Logs 2 "get_ftp_server() fail" when there are none: then no login succeeds.
  explicit TFtpRecorder(TCamera* camera);
  // Deregisters from both frame writers.
  ~TFtpRecorder() override;

 protected:
  // Logs in, then does as the base. Returns false when the login fails, event 512.
  bool onInitial() override;
  // Logs out. Intended: the recorder stays registered with both frame writers, so that the next
  // recording begins without a wait for "video2" to fill.
  // Returns true. Logs 2 "ftpCloseSession() fail".
  bool onRelease() override;
  // Uploads the picture under fileName(). Returns false, which ends the recording, when that fails,
  // event 512.
  bool onCapture(const char* data, long length) override;
  // In fixed-name mode builds folder, fixed name and extension, unless all this is shorter than 5
  // characters; otherwise the name of the base.
  bool onSetname(const TDateTime& time, const char* extension) override;

 private:
  TFtpServer server_{};
};
