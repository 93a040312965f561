// The event that the digital input fires.
#pragma once

#include "events/event.h"

// Fires while an input trigger is pending in the status word, at most every two seconds.
class TInputEvent : public TEvent {
 public:
  using TEvent::TEvent;

  void onLogEvent(const THandler& handler) override;
  // Writes log entry 501 when it detects the trigger.
  bool onDetect() override;
  // Fires the handlers, then pauses.
  void onHandle() override;
};
