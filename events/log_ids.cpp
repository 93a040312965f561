#include "events/log_ids.h"

#include "events/buzzer_handler.h"
#include "events/out_handler.h"
#include "platform/event_log.h"
#include "record/ftp_recorder.h"
#include "record/usb_recorder.h"

namespace {

int idOf(const TActionLogIds& ids, const THandler& handler) {
  if (dynamic_cast<const TOutHandler*>(&handler) != nullptr) {
    return ids.output;
  }
  if (dynamic_cast<const TBuzzerHandler*>(&handler) != nullptr) {
    return ids.buzzer;
  }
  if (dynamic_cast<const TUsbRecorder*>(handler.recorder()) != nullptr) {
    return ids.usb;
  }
  if (dynamic_cast<const TFtpRecorder*>(handler.recorder()) != nullptr) {
    return ids.ftp;
  }
  if (handler.mail() != nullptr) {
    return ids.mail;
  }
  return 0;
}

}  // namespace

void logAction(const TActionLogIds& ids, const THandler& handler) {
  const int id = idOf(ids, handler);
  if (id != 0) {
    log_event(id);
  }
}
