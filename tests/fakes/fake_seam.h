// What the fake platform needs to know of threads. Implemented once for the fake threads and once
// for the real ones, so that either can be linked.
#pragma once

namespace fake_seam {

enum class Body { kNone, kRunning, kAskedToStop };

// The state of the PThread body on the calling thread; kNone on any other thread.
Body here();

// Asks the body on the calling thread to stop, as from outside.
void askHere();

// Lets the calling thread rest for `microseconds` of real time.
void restInRealTime(long microseconds);

}  // namespace fake_seam
