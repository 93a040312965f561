// The frame around a daemon: its one application object, its arguments, its stop flag.
#pragma once

#include "platform/relaxed.h"

// Base of the one application object of a process, which must exist before main() runs.
// Thread: the main one, but for `stopped`, which any thread may read.
class TApplication {
 public:
  TApplication();
  TApplication(const TApplication&) = delete;
  TApplication& operator=(const TApplication&) = delete;

  // Prepares the run. Returns true; a false result ends the process with status 1, without
  // onRunning() and onRelease().
  virtual bool onInitial();
  // Does the work until `stopped`. Returns true iff the process is to end with status 0.
  virtual bool onRunning() = 0;
  // Takes back what onInitial() made. Returns true iff the process is to end with status 0.
  virtual bool onRelease();
  virtual ~TApplication();

  // Keeps the arguments, arms SIGTERM and SIGINT, ignores SIGPIPE, and calls the hooks of the
  // application object in turn. From the signal on, a watchdog gives the orderly way out 5 s; then
  // it logs 3 "shutdown took too long, ending: %s" with what was stuck and ends the process. Bodies
  // of threads that nobody has ended are ended after the hooks; when one is left behind, the
  // process ends here, without static destructors. Returns the exit status of the process. On
  // failure returns 1 and logs 3 "no application object" or 3 "can't watch over the shutdown: %s".
  static int main(int argc, char** argv);

  static int argc;
  static char** argv;
  static Relaxed<bool> stopped;  // true from SIGTERM or SIGINT on
};
