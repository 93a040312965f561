// The clocks of the fake platform: they move only when a pause or a test moves them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

// A wall clock and a monotonic clock in microseconds. Any thread.
class FakeClock {
 public:
  std::int64_t monotonicUs() const;
  std::int64_t wallUs() const;

  // Lets time pass for both clocks. Not for a clock that follows real time.
  void advanceUs(std::int64_t microseconds);

  // Steps the wall clock alone.
  void stepWall(std::int32_t seconds) { stepSeconds_ += seconds; }
  // Sets the wall clock, in seconds since 1970 UTC.
  void setWall(std::int64_t seconds);
  // Sets the monotonic clock, for instance shortly before monotonicMs() wraps.
  void setMonotonicMs(std::int64_t milliseconds);

  // From now on both clocks run by themselves, `factor` times as fast as real time.
  void followRealTime(unsigned factor);
  unsigned factor() const { return factor_; }

 private:
  mutable std::mutex lock_;
  std::int64_t monotonicUs_ = 1000 * std::int64_t{1000000};
  std::int64_t wallMinusMonotonicUs_ = (1717401600 - 1000) * std::int64_t{1000000};  // a Monday
  std::atomic<std::int32_t> stepSeconds_{0};
  std::atomic<unsigned> factor_{0};  // 0: the clocks stand still by themselves
  std::chrono::steady_clock::time_point start_;
};
