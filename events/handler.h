// What an event does when it fires: the base of all actions, and the one that records.
#pragma once

#include <memory>

class TMailRecorder;
class TRecorder;

// An action of one event. The base starts a recorder; derived kinds do something else instead.
// onTrigger() runs on the thread of the firing event (the scheduler's for an interval event, and
// the manager's for one that is bound to "always": both at the same time are possible); onStarted()
// and onStopped() on the scheduler's or the manager's.
class THandler {
 public:
  // `recorder`: null for a kind that drives none. A TMailRecorder is this handler's own; any other
  // is not owned and must outlive the handler. `duration`: seconds.
  THandler(TRecorder* recorder, long duration);
  THandler(const THandler&) = delete;
  THandler& operator=(const THandler&) = delete;
  // Deletes the mail recorder, whose body must have ended.
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
  // The recorder when it is this handler's own, otherwise null.
  TMailRecorder* mail() const { return mail_.get(); }
  long duration() const { return duration_; }

 private:
  TRecorder* const recorder_;                  // not owned, but for the next line
  const std::unique_ptr<TMailRecorder> mail_;  // the same recorder, if it mails
  const long duration_;
};
