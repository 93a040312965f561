// Pacing by the monotonic clock and by counting. Neither notices a step of the wall clock.
#pragma once

#include <cstdint>

// Milliseconds of the monotonic clock. Wraps every 49 days: compare by difference. Any thread.
std::uint32_t monotonicMs();

// Reports once per interval. Bound to one thread.
class TTimer {
 public:
  // `seconds`: the interval; below 1 the timer never reports, beyond 2^31 - 1 it saturates.
  explicit TTimer(long seconds);

  // Starts over with a new interval.
  void reset(long seconds);

  // Returns true iff the interval has run out since the start or the last report, and re-arms from
  // now: however late the call, one interval gives one report.
  bool timeout();

 private:
  std::int32_t interval_ = 0;  // seconds
  std::uint32_t startMs_ = 0;  // monotonic, of the second that is being counted
  std::int32_t elapsed_ = 0;   // whole seconds since the start
};

// Adds steps up to a limit and starts over at zero, without carrying a remainder. Bound to one
// thread.
class TCounter {
 public:
  // `limit`: the sum at which count() reports. `full`: start at the limit, so that the next count()
  // reports whatever its step.
  void reset(long limit, bool full);

  // Adds `step`. Returns true iff the sum has reached the limit; it is zero again then.
  bool count(long step);

 private:
  long limit_ = 0;
  long sum_ = 0;
};
