// Uploads pictures to an FTP server.
#include "record/ftp_recorder.h"

#include <cstdio>
#include <cstring>

#include "platform/event_log.h"
#include "platform/log.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"

namespace {

constexpr int kEventNotUploaded = 512;

// One character of a name, the point and three of the extension.
constexpr std::size_t kShortestFixedName = 5;

}  // namespace

TFtpRecorder::TFtpRecorder(TCamera* camera) : TRecorder(camera, nullptr, nullptr, nullptr) {
  if (get_ftp_server(&server_) != 0) logEx(2, "get_ftp_server() fail");
  if (server_.user[0] == '\0') std::snprintf(server_.user, sizeof server_.user, "anonymous");
  setFolder(server_.folder);
  setPrefix(server_.prefix);
}

// A body that its owner has forgotten is ended first: it would register again.
TFtpRecorder::~TFtpRecorder() {
  if (running()) TRecorder::stop(true);
  aviWriter()->delRef(this);
  jpgWriter()->delRef(this);
}

bool TFtpRecorder::onInitial() {
  if (ftpOpenSession(server_.server, server_.port, server_.user, server_.password) < 0) {
    log_event(kEventNotUploaded);
    return false;
  }
  return TRecorder::onInitial();
}

bool TFtpRecorder::onRelease() {
  if (ftpCloseSession() < 0) logEx(2, "ftpCloseSession() fail");
  return true;
}

bool TFtpRecorder::onCapture(const char* data, long length) {
  if (ftpTransfer(fileName(), data, length, server_.option) == 0) return true;
  log_event(kEventNotUploaded);
  return false;
}

bool TFtpRecorder::onSetname(const TDateTime& time, const char* extension) {
  if (server_.fixedName != 0) {
    if (!setName("%s%s.%s", folder(), server_.fileName, extension)) return false;
    if (std::strlen(fileName()) >= kShortestFixedName) return true;
  }
  return TRecorder::onSetname(time, extension);
}
