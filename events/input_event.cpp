#include "events/input_event.h"

#include "core/status_slots.h"
#include "events/log_ids.h"
#include "platform/event_log.h"
#include "platform/stream_buffer.h"

void TInputEvent::onLogEvent(const THandler& handler) { logAction(kInputActions, handler); }

bool TInputEvent::onDetect() {
  if (kStatusInputEvent.get(sbGetUserdata(sbVideo(), kSlotStatus)) == 0) {
    return false;
  }
  log_event(kLogInputDetected);
  return true;
}

void TInputEvent::onHandle() { handleAndPause(); }
