#include "board/hardware/pace.h"

#include <chrono>

namespace {
using Clock = std::chrono::steady_clock;
}

Pace* Pace::real() {
  static Pace pace;
  return &pace;
}

std::int64_t Pace::nowMs() {
  const auto since = Clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

void Pace::wait(std::int64_t untilMs, std::condition_variable* changed,
                std::unique_lock<std::mutex>* lock) {
  changed->wait_until(*lock, Clock::time_point(std::chrono::milliseconds(untilMs)));
}
