// A slot of the scheduler's table of countdown alarms.
#pragma once

#include <atomic>
#include <cstdint>

#include "schedule/mutex.h"

// Calls an owner back after a number of passes, once or repeatedly. One pass is about one second.
// The owner pointer is the alarm's identity. A new slot is free.
//
// Threads: any, test() on the scheduler thread alone. A slot is claimed by compare-and-swap for the
// few loads and stores of one operation, so that owner and callback always belong together. Nothing
// is claimed while the callback runs.
class TAlarm {
 public:
  // Returns true iff the alarm is to repeat.
  using Callback = bool (*)(void* owner);

  TAlarm() = default;
  TAlarm(const TAlarm&) = delete;
  TAlarm& operator=(const TAlarm&) = delete;

  // Arms, lengthens or cancels the alarm of `owner`.
  // `seconds`: wait and period; 0 or less cancels, as a null `callback` does. A wait in progress is
  // only ever lengthened; the callback is always replaced.
  // Returns false, changing nothing, iff the slot is active, or calling back, for another owner.
  bool activate(void* owner, long seconds, Callback callback);

  // Counts one pass and calls back when the wait is over. Returns true iff the slot was active.
  // What the callback, or another thread meanwhile, arms anew is kept.
  // Intended: the first call comes on pass seconds + 1, later ones every `seconds`.
  bool test();

  // Returns true iff the slot is active, for anyone or for `owner`.
  bool active() const;
  // Returns true iff the slot is active, or calling back, for `owner`.
  bool serves(const void* owner) const;

  // For the callback of `owner` itself: returns true iff the alarm was armed anew since the
  // callback was decided upon.
  bool rearmed(const void* owner) const;

  // Waits for the end of the callback if it is running on another thread.
  void waitForCallback();

  long counter() const;  // passes still to wait

 private:
  class Claim;
  bool activeNow() const;

  long counter_ = 0;
  long period_ = 0;  // reload value
  void* owner_ = nullptr;
  Callback callback_ = nullptr;
  bool calling_ = false;                           // the callback runs
  bool rearmed_ = false;                           // activate() came while it ran
  mutable std::atomic<std::uint32_t> claimed_{0};  // 1 while a thread is at the members above
  TMutex callLock_;                                // held through test(): what a canceller waits on
};
