// Mails pictures, or a text alone.
#pragma once

#include "platform/mail.h"
#include "record/recorder.h"

// Mails each picture of a recording as an attachment; or, when the settings say so, one text for
// each start and no picture. The text is the subject and what the platform tells of the time.
class TMailRecorder : public TRecorder {
 public:
  // Reads the mail settings. `receiver`: addresses that go before those of the settings; null or ""
  // for those. `subject`: null is ""; cut to 127 bytes, at a character.
  // Logs 2 "get_mail_info() fail" when there are no settings: then no mail can be sent. Logs 2
  // "mail receiver longer than %d bytes: %s"; then nobody gets the mail: part of a list, or of an
  // address, would be somebody else.
  TMailRecorder(TCamera* camera, const char* receiver, const char* subject);

 protected:
  // Runs the capture loop, or mails the text.
  void execute() override;
  // Mails the picture. Returns true: a mail that fails does not end the recording.
  bool onCapture(const char* data, long length) override;

 private:
  void send(const TDateTime& time);

  TMailInfo info_{};      // its pointers are to this object's own, or null, between two mails
  char subject_[128];     // UTF-8
  char body_[2048] = "";  // the last one that was whole
};
