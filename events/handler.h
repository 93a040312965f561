// What an event does when it fires: the base of all actions, and the one that records.
#pragma once

class TRecorder;

// An action of one event. The base starts a recorder; derived kinds do something else instead.
// onTrigger() runs on the thread of the firing event (the scheduler's for an interval event, and
// the manager's for one that is bound to "always": both at the same time are possible); onStarted()
// and onStopped() on the scheduler's or the manager's.
class THandler {
 public:
  // `recorder`: null for a kind that drives none; not owned, must outlive the handler.
  // `duration`: seconds.
  THandler(TRecorder* recorder, long duration);
  THandler(const THandler&) = delete;
  THandler& operator=(const THandler&) = delete;
  virtual ~THandler();

  // Carries the action out, unless the camera's privacy mode is on; then that is logged, see
  // kSuppressedActions. Returns true iff it was carried out.
  virtual bool onTrigger();

  // The event's active time begins. Returns true iff the action is allowed, that is, privacy is off
  // or can't be asked.
  virtual bool onStarted();
  // The event's active time ends.
  virtual void onStopped();

  TRecorder* recorder() const { return recorder_; }
  long duration() const { return duration_; }

 private:
  TRecorder* const recorder_;  // not owned
  const long duration_;
};
