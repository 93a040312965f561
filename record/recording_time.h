// Where a frame lies in a recording, whatever happens to the wall clock meanwhile.
#pragma once

#include <cstdint>

#include "platform/date_time.h"

// One instant by both clocks.
struct TInstant {
  TDateTime wall;
  std::uint32_t ms = 0;  // monotonic

  // Reads both clocks so close together that a difference between two instants is a step of the
  // wall clock, not a pause of the thread between the two readings.
  static TInstant now();
};

// The time of one recording. Frames are stamped by the wall clock, and a step of that clock must
// neither end a recording nor stall it: the start is moved along with each step, and a frame that
// was stamped before the last step is measured from where the start was then.
// Bound to one thread.
class TRecordingTime {
 public:
  // Starts over at `start`.
  void begin(const TInstant& start);

  // Looks for a step of the wall clock since the last look. To be called after a frame was taken
  // and before it is measured, so that no frame is stamped after the last look.
  void look(const TInstant& now);

  // Measures a frame. Returns true iff it is later than the start; `*seconds` is then the
  // difference between the whole seconds of the two. A frame that can't have been stamped since the
  // start is not later.
  bool since(const TDateTime& frame, std::int64_t* seconds) const;

 private:
  std::int64_t startUs_ = 0;    // by the wall clock of the last look
  std::int64_t wallUs_ = 0;     // what the wall clock would show without a step
  std::int64_t elapsedUs_ = 0;  // since the start, by the monotonic clock
  std::uint32_t ms_ = 0;        // the monotonic clock at the last look

  // The last step of the wall clock.
  bool stepped_ = false;
  std::int64_t beforeUs_ = 0;    // the start by the wall clock before it
  std::int64_t earliestUs_ = 0;  // when it came, as time since the start ...
  std::int64_t latestUs_ = 0;    // ... between these two looks
};
