// The event that fires at a fixed interval.
#pragma once

#include "events/event.h"

// Fires when its schedule begins, and then every interval by an alarm of the scheduler until the
// schedule ends. Has no body: the handlers are fired on the scheduler's thread.
class TIntervalEvent : public TEvent {
 public:
  using TEvent::TEvent;  // the period is the interval in ms
  // Cancels the alarm.
  ~TIntervalEvent() override;

  void onLogEvent(const THandler& handler) override;
  // Writes log entry 502, fires at once and arms the alarm; an interval below 1 s arms none.
  void onStarted() override;
  // Cancels the alarm; afterwards it does not call back.
  void onStopped() override;

 private:
  // The scheduler's callback. Returns true: the alarm stays armed.
  static bool alarm(void* event);
};
