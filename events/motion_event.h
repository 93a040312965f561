// The events that a motion window fires.
#pragma once

#include "events/event.h"

class TCamera;

// Fires while the first motion window sees motion, at most every two seconds. Logs nothing.
class TMotion1Event : public TEvent {
 public:
  // `camera`: null for none, then the event never fires; not owned, must outlive the event.
  TMotion1Event(const char* schedule, const char* schedule2, long period, TCamera* camera);

  bool onDetect() override;
  // Fires the handlers, then pauses: one movement is one event, not five a second.
  void onHandle() override;

 protected:
  // Returns true iff motion window `window` (from 0) sees motion.
  bool motion(int window) const;

 private:
  TCamera* const camera_;  // not owned
};

// The same for the second motion window.
class TMotion2Event : public TMotion1Event {
 public:
  using TMotion1Event::TMotion1Event;

  bool onDetect() override;
};
