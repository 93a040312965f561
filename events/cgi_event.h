// The event that the web interface fires.
#pragma once

#include "events/event.h"

// Fires when the web interface has written a status slot's own number into the slot.
class TCgiEvent : public TEvent {
 public:
  // `slot`: of the stream buffer "video", see core/status_slots.h; this event is its only tester.
  TCgiEvent(const char* schedule, const char* schedule2, long period, int slot);

  void onLogEvent(const THandler& handler) override;
  // Consumes what was written, also when it is not the slot's number.
  bool onDetect() override;
  // Fires the handlers, then pauses.
  void onHandle() override;

  int slot() const { return slot_; }

 private:
  const int slot_;
};
