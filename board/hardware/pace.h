// The time that a chip goes by.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

// The real time; tests replace it. Any thread.
class Pace {
 public:
  Pace() = default;
  Pace(const Pace&) = delete;
  Pace& operator=(const Pace&) = delete;
  virtual ~Pace() = default;

  // The real time, for whoever is given no other.
  static Pace* real();

  // Milliseconds on the monotonic clock.
  virtual std::int64_t nowMs();
  // Waits until then or until `changed` is notified, with `lock` open meanwhile.
  virtual void wait(std::int64_t untilMs, std::condition_variable* changed,
                    std::unique_lock<std::mutex>* lock);
};
