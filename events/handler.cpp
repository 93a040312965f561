#include "events/handler.h"

#include "events/log_ids.h"
#include "platform/camera_io.h"
#include "record/mail_recorder.h"

THandler::THandler(TRecorder* recorder, long duration)
    : recorder_(recorder), mail_(dynamic_cast<TMailRecorder*>(recorder)), duration_(duration) {}

THandler::~THandler() = default;

bool THandler::onTrigger() {
  // The base's own gate, whatever a derived kind makes of its start.
  if (!THandler::onStarted()) {
    logAction(kSuppressedActions, *this);
    return false;
  }
  if (recorder_ != nullptr) {
    recorder_->start(duration_);
  }
  return true;
}

bool THandler::onStarted() {
  int privacy = 0;
  get_pt_privacy_state(&privacy);
  return privacy == 0;
}

void THandler::onStopped() {}
