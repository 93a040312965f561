// The base of all events: a condition that is polled while a schedule is active, and the actions
// that it fires.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "events/handler.h"
#include "platform/relaxed.h"
#include "platform/thread.h"

// An event is bound to one or two weekly schedules. While at least one of them is active its body
// polls onDetect() and fires the handlers with onHandle(); some kinds need no body and replace
// onStarted() and onStopped() instead.
//
// The manager's thread builds, refreshes and deletes an event; the scheduler's thread starts and
// stops it. Before it deletes an event the manager calls withdraw() and onStopped() and ends the
// body; then nothing reaches the object any more.
class TEvent : public PThread {
 public:
  static constexpr int kNameSize = 64;  // of a schedule's name, terminator included

  // `schedule`, `schedule2`: names, cut to 63 characters; null is the empty name. `period`: pause
  // between two polls in ms.
  TEvent(const char* schedule, const char* schedule2, long period);
  // Deletes the handlers in their order. The body must have ended.
  ~TEvent() override;

  // Registers the event with the scheduler, under "always" alone (and starts it at once) when
  // either name says so, otherwise under both names. An event without handlers has nothing to do
  // and is not registered. A name that is registered already stays with its first owner.
  void refresh();

  // Takes from the scheduler what refresh() has registered, and nothing that another event has.
  // Afterwards no schedule calls back.
  void withdraw();

  // For an event whose body does not end: it fires no handler any more, and its outputs are
  // switched off.
  void leaveBehind();

  // Counts the active schedules of `event`: starts it at the first, stops it when the last ends.
  // Called by the scheduler, on its thread only.
  // A count below 0 is left as it is and logs 2 "TEvent::onCallback() IPE, ref = %ld".
  static void onCallback(void* event, bool on);

  // Logs that `handler` has carried out its action. The base logs nothing.
  virtual void onLogEvent(const THandler& handler);
  // Polls the condition. Returns true iff the handlers are to be fired. The base never does.
  virtual bool onDetect();
  // Fires the handlers in their order. May run on two threads at once.
  virtual void onHandle();
  // The event becomes active. The base starts the body.
  virtual void onStarted();
  // The event becomes inactive. The base asks the body to end.
  virtual void onStopped();

  long period() const { return period_; }
  const char* schedule() const { return schedule_; }
  const char* schedule2() const { return schedule2_; }

  // Filled by the manager before refresh(), constant from then on.
  std::vector<std::unique_ptr<THandler>> handlers;

 protected:
  void execute() override;

  // For kinds whose condition lasts longer than a period: fires the handlers, then pauses for 2 s,
  // so that one happening is not several events. The pause ends early when the body is to end.
  void handleAndPause();

 private:
  void add(const char* name);

  std::int32_t active_ = 0;  // schedules that are active now; scheduler's thread
  char schedule_[kNameSize];
  char schedule2_[kNameSize];
  const long period_;                    // ms
  std::vector<const char*> registered_;  // names under which the scheduler knows this event
  Relaxed<bool> leftBehind_{false};
};
