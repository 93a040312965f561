#include "events/access_handler.h"

#include "core/status_slots.h"
#include "platform/stream_buffer.h"

Relaxed<char> TAccessHandler::mode{kAccessNone};
Relaxed<char> TAccessHandler::flush{1};

TAccessHandler::TAccessHandler() : THandler(nullptr, 0) {}

TAccessHandler::~TAccessHandler() { setMode(kAccessOff); }

bool TAccessHandler::onStarted() {
  setMode(kAccessOn);
  return true;
}

void TAccessHandler::onStopped() { setMode(kAccessOff); }

void TAccessHandler::setMode(char value) {
  mode = value;
  if (flush != 0) {
    update();
  }
}

void TAccessHandler::update() {
  const int word = sbGetUserdata(sbVideo(), kSlotStatus);
  const int next = kStatusAccess.put(word, mode);
  if (next != word) {
    sbSetUserdata(sbVideo(), kSlotStatus, next);
  }
}
