// The event that only tells its handlers when its schedule begins and ends.
#pragma once

#include "events/event.h"

// Has no body, fires no action and logs nothing; see the handlers' onStarted() and onStopped().
class TScheduleEvent : public TEvent {
 public:
  using TEvent::TEvent;  // the period is never read

  // Tell the handlers, from the last to the first.
  void onStarted() override;
  void onStopped() override;
};
