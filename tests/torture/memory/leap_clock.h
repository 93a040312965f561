// What the clocks of a process say that does not wait for anything to come: see leap_clock.cpp.
#pragma once

#include <cstdint>

// As it lies in the file /tmp/clock of the board.
struct LeapClock {
  volatile std::int64_t aheadNs;  // how far the process's clocks are ahead of the world's
  volatile std::int64_t
      leaping;                  // written by whoever watches: 0 holds the clock to the world's pace
  volatile std::int64_t leaps;  // so far
  volatile std::int64_t longestGapNs;  // between two pauses of the capture thread; may be set to 0
};
