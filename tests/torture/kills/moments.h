// Random choices.
#pragma once

#include <random>

// Bound to one thread.
class Moments {
 public:
  explicit Moments(unsigned seed) : random_(seed) {}

  // From 0 to `most`.
  double upTo(double most);
  int whole(int most);
  // True in so many of 100 cases.
  bool chance(int percent) { return whole(99) < percent; }

 private:
  std::mt19937 random_;
};
