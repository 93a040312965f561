#include "tests/torture/kills/moments.h"

double Moments::upTo(double most) {
  return std::uniform_real_distribution<double>(0, most)(random_);
}

int Moments::whole(int most) { return std::uniform_int_distribution<int>(0, most)(random_); }
