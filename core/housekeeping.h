// What the main thread does all day.
#pragma once

#include "events/event_manager.h"
#include "platform/date_time.h"
#include "platform/timer.h"

// Polls the triggers, keeps the clock right, and rebuilds the events when their configuration has
// changed. Owns the events: they live as long as this object. Bound to the main thread.
class THousekeeping {
 public:
  // Builds the events. `camera`: may be null; not owned, must outlive the object.
  explicit THousekeeping(TCamera* camera);

  // One pass with its pause, 300 ms. Every tenth pass does the periodic work.
  void pass();

 private:
  void periodic();
  void keepTime();
  void reload();
  void checkClock();
  void watchSamba();

  TTimer ntpTimer_;
  TCounter tickCounter_;  // milliseconds of pauses, to the next periodic work
  TCounter hourCounter_;  // seconds, to the next check of the clock
  TTimer dstTimer_;
  TCounter sambaCounter_;  // seconds, to the next look at the share
  TEventManager events_;
  TDateTime now_;
  TDateTime lastCheck_;  // of the clock
};
