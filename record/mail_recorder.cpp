// Mails pictures, or a text alone.
#include "record/mail_recorder.h"

#include <cstdio>
#include <cstring>

#include "platform/event_log.h"
#include "platform/log.h"
#include "platform/os.h"

namespace {

constexpr int kEventNotSent = 507;
constexpr unsigned kPauseAfterTextS = 1;

// Cuts off a UTF-8 character of which the end is missing. Other text stays as it is.
void dropHalfCharacter(char* text) {
  const std::size_t length = std::strlen(text);
  for (std::size_t tail = 1; tail <= 3 && tail <= length; ++tail) {
    const auto c = static_cast<unsigned char>(text[length - tail]);
    if ((c & 0xC0) == 0x80) continue;  // not the first byte of a character
    const std::size_t whole = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    if (whole > tail) text[length - tail] = '\0';
    return;
  }
}

}  // namespace

TMailRecorder::TMailRecorder(TCamera* camera, const char* receiver, const char* subject)
    : TRecorder(camera, nullptr, nullptr, nullptr) {
  if (get_mail_info(&info_) != 0) logEx(2, "get_mail_info() fail");
  std::snprintf(subject_, sizeof subject_, "%s", subject != nullptr ? subject : "");
  dropHalfCharacter(subject_);
  info_.subject = subject_;
  if (receiver != nullptr && receiver[0] != '\0') {
    constexpr int kCapacity = sizeof info_.receiver;
    if (std::snprintf(info_.receiver, kCapacity, "%s", receiver) >= kCapacity) {
      logEx(2, "mail receiver longer than %d bytes: %s", kCapacity - 1, receiver);
      info_.receiver[0] = '\0';
    }
  }
  if (info_.login == 0) info_.user[0] = info_.password[0] = info_.method[0] = '\0';
}

void TMailRecorder::execute() {
  if (info_.attach != 0) {
    TRecorder::execute();
    return;
  }
  takeRequest();
  // A body that is to end at once sends nothing. If it is to begin again, it sends then.
  if (running()) {
    send(startTime());
    os::sleep(kPauseAfterTextS);
  }
  endUnlessStartedAgain();
}

bool TMailRecorder::onCapture(const char* data, long length) {
  const bool jpeg = std::strcmp(getExtention(data), "jpg") == 0;
  info_.attachment = {length, jpeg ? "image/jpeg" : "video/avi", data, fileName()};
  send(frameTime());
  info_.attachment = {};
  return true;
}

// The text is put together beside the last one, which is sent again when this one fails.
void TMailRecorder::send(const TDateTime& time) {
  char text[sizeof body_];
  const int used = std::snprintf(text, sizeof text, "%s\n\n", subject_);
  if (get_mail_body(text + used, static_cast<long>(sizeof text) - used,
                    static_cast<long>(time.seconds())) != 0) {
    logEx(3, "get_mail_body() fail");
  } else {
    std::snprintf(body_, sizeof body_, "%s", text);
    info_.body = body_;
  }
  if (send_mail(&info_) != 0) log_event(kEventNotSent);
}
