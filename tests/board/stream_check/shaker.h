// Changes a camera's settings at random while it streams.
#pragma once

#include <random>

// Writes settings into the status slots of the board's stream, as the web interface does. Bound to
// one thread.
class Shaker {
 public:
  // `changes`: how many. `modes`: also changes the streaming mode, which needs the sensor camera.
  Shaker(long changes, unsigned seed, bool modes) : left_(changes), random_(seed), modes_(modes) {}

  // Changes one to five settings.
  void step();
  long left() const { return left_; }

 private:
  void change();
  int upTo(int most) { return static_cast<int>(random_() % (static_cast<unsigned>(most) + 1)); }

  long left_;
  std::mt19937 random_;
  bool modes_;
};
