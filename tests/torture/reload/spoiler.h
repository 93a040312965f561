// What becomes of a camera's files when somebody means harm, or a disk is full.
#pragma once

#include <string>
#include <vector>

#include "tests/torture/kills/moments.h"

// Bound to one thread.
class Spoiler {
 public:
  // Files of the same names in the folder `good` are what they are to be.
  Spoiler(std::vector<std::string> files, std::string good, Moments* moments);

  // One of the files is cut, garbled, swapped, taken away, or replaced by what is none.
  void spoilOne();
  long count() const { return count_; }

 private:
  std::string garbled(std::string content);

  const std::vector<std::string> files_;
  const std::string good_;
  Moments* const moments_;
  long count_ = 0;
};
