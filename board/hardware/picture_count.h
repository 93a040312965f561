// How many pictures a chip has given, and how many nobody has fetched.
#pragma once

#include <atomic>

// Any thread.
struct PictureCount {
  std::atomic<long> given{0};
  std::atomic<long> missed{0};  // left out because the one before was fetched too late
};
