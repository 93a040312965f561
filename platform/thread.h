// Threads that are asked to end and are never forced to.
#pragma once

#include <memory>

// A thread whose body is execute(). The object may be started, stopped and started again.
// Ending the body before the object goes is the owner's work, see TStopDeadline: in ~PThread() the
// derived part that the body works on is gone already.
// Any thread may call run(), stop() and running().
class PThread {
 public:
  // `name`: what the kernel shows for the thread, cut to 15 characters.
  explicit PThread(const char* name);
  PThread(const PThread&) = delete;
  PThread& operator=(const PThread&) = delete;

  // Starts the body. Never blocks, never starts a second body, never loses a request: while the
  // body runs nothing happens; while it was asked to stop or is leaving by itself, but has not
  // returned, it is started again as soon as it has.
  // On failure the thread stays stopped and logs 3 "can't start thread %s: %s".
  virtual void run();

  // Asks the body to end, and takes back a start that is waiting for its end.
  // `wait`: also wait until the body has returned, 5 s at the most; ignored on the body's own
  // thread. Returns true iff the body has returned (or never ran).
  virtual bool stop(bool wait);

  // Stops a body that its owner has forgotten: stop(true). A body that does not return loses its
  // object under its feet; logs 3 "thread %s is deleted while its body runs".
  virtual ~PThread();

  // Returns true iff the body is to go on: it was started and neither asked to stop nor is leaving.
  bool running() const;

 protected:
  // The body. Looks at running() at least once per pass.
  virtual void execute() = 0;

  // For a body that decides to end by itself, before its last steps: clears the running flag, then
  // a full fence. After it the body looks once more whether new work came in, and calls run() if
  // so. Starters write the work first and call run() afterwards, so that no start falls between.
  void leave();

 private:
  friend class TStopDeadline;
  friend struct ThreadAccess;  // the platform's own way in
  struct State;
  std::shared_ptr<State> state_;  // shared with the body, which may outlive its object
};

// The 5 s that an owner has for ending the bodies of all its threads, counted from construction.
// The owner asks all that are to go with stop(false), then calls end() on each in their order.
// Bound to one thread.
class TStopDeadline {
 public:
  TStopDeadline();

  // Asks the body of `thread` to end and waits for it for what is left of the 5 s.
  // Returns true iff the body has returned: only then may the object be deleted. Otherwise the
  // object must be left behind, never freed. Logs 3 "thread %s does not end, left behind", once per
  // thread.
  bool end(PThread& thread);

  // Milliseconds left, 0 to 5000.
  long leftMs() const;

 private:
  unsigned startMs_;  // monotonic
};
