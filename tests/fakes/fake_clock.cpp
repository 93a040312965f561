#include "tests/fakes/fake_clock.h"

namespace {
constexpr std::int64_t kSecondUs = 1000000;
}

// In real time no lock is taken, so that a stress test orders nothing that the daemon does not.
std::int64_t FakeClock::monotonicUs() const {
  if (const unsigned factor = factor_.load(std::memory_order_relaxed)) {
    const auto passed = std::chrono::steady_clock::now() - start_;
    return monotonicUs_ +
           std::chrono::duration_cast<std::chrono::nanoseconds>(passed).count() * factor / 1000;
  }
  std::lock_guard<std::mutex> guard(lock_);
  return monotonicUs_;
}

std::int64_t FakeClock::wallUs() const {
  return monotonicUs() + wallMinusMonotonicUs_ +
         stepSeconds_.load(std::memory_order_relaxed) * kSecondUs;
}

void FakeClock::advanceUs(std::int64_t microseconds) {
  std::lock_guard<std::mutex> guard(lock_);
  monotonicUs_ += microseconds;
}

void FakeClock::setWall(std::int64_t seconds) {
  stepSeconds_ = 0;
  wallMinusMonotonicUs_ = seconds * kSecondUs - monotonicUs();
}

void FakeClock::setMonotonicMs(std::int64_t milliseconds) {
  std::lock_guard<std::mutex> guard(lock_);
  wallMinusMonotonicUs_ += monotonicUs_ - milliseconds * 1000;
  monotonicUs_ = milliseconds * 1000;
}

void FakeClock::followRealTime(unsigned factor) {
  start_ = std::chrono::steady_clock::now();
  factor_ = factor;
}
