// The daemon's application object, and how it handles its threads.
#pragma once

#include "platform/application.h"

class TAudioSource;
class TVideoSource;

// Returns a new T made of `args`, or null unless `enabled`.
template <typename T, typename A>
T* testCreate(bool enabled, A& args) {
  return enabled ? new T(args) : nullptr;
}

// These do nothing with null and return their argument.
template <typename T>
T* testRun(T* thread) {
  if (thread != nullptr) thread->run();
  return thread;
}

// Asks without waiting.
template <typename T>
T* testStop(T* thread) {
  if (thread != nullptr) thread->stop(false);
  return thread;
}

// Intended: what it returns is an address without an object, as good as any to tell that there was
// one.
template <typename T>
T* testDestroy(T* thread) {
  delete thread;
  return thread;  // NOLINT(clang-analyzer-cplusplus.NewDelete)
}

// Captures video and audio and keeps house. Bound to the main thread.
class TVideoServer : public TApplication {
 public:
  // Makes the capture threads that the arguments ask for. Without arguments prints the usage and
  // returns false.
  bool onInitial() override;
  // Runs the threads and the housekeeping until the process is asked to stop. Without video there
  // is nothing to keep but the audio thread. Returns true.
  bool onRunning() override;
  // Ends the capture threads and deletes those that have ended within 5 s; the one with the camera
  // only if no event or recorder was left behind. Returns true.
  bool onRelease() override;

  // Returns the seconds between two synchronisations of the clock, from the hours of key "Sync
  // Schedule"; saturated. Below 1: never.
  static int getNtpInterval();

 protected:
  TVideoSource* video_ = nullptr;  // owned until onRelease(); null: video is off
  TAudioSource* audio_ = nullptr;  // likewise
};
