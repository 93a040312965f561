// The time of frames without the steps of the wall clock that stamped them.
#pragma once

#include <cstdint>

#include "platform/date_time.h"

// Advances from frame to frame as their time stamps do. Where a stamp lies before the last one, or
// further behind it than time has passed by the monotonic clock, the wall clock was stepped: then
// it advances by what has passed. Only differences mean something. Bound to one thread.
class TSteadyTime {
 public:
  // Takes the next frame. `ms`: the monotonic clock.
  void advance(const TDateTime& frame, std::uint32_t ms);

  // Returns the whole seconds.
  std::int64_t seconds() const;

 private:
  bool begun_ = false;
  std::int64_t us_ = 0;      // the steady time
  std::int64_t lastUs_ = 0;  // the last stamp
  std::uint32_t ms_ = 0;     // the monotonic clock then
};
