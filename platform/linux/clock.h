// The monotonic clock in the units that the platform's waits need.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cstdint>

// Microseconds of the monotonic clock. Any thread.
inline std::int64_t monotonicUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// Returns the point `us` of the monotonic clock as the system calls take it.
inline timespec monotonicPoint(std::int64_t us) {
  timespec point{};
  point.tv_sec = static_cast<time_t>(us / 1000000);
  point.tv_nsec = static_cast<long>(us % 1000000 * 1000);
  return point;
}

// A mutex with a condition whose waits end by the monotonic clock on every C library; the standard
// library's condition falls back to the wall clock where pthread_cond_clockwait() is missing.
class Monitor {
 public:
  Monitor() {
    pthread_mutex_init(&mutex_, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition_, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~Monitor() {
    pthread_cond_destroy(&condition_);
    pthread_mutex_destroy(&mutex_);
  }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  // For std::lock_guard.
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

  // Wakes every waiter.
  void wake() { pthread_cond_broadcast(&condition_); }

  // Waits, with the lock held, until `done()` or until the monotonic clock reads `deadlineUs`.
  // Returns done().
  template <typename Done>
  bool waitUntil(std::int64_t deadlineUs, Done done) {
    const timespec deadline = monotonicPoint(deadlineUs);
    while (!done())
      if (pthread_cond_timedwait(&condition_, &mutex_, &deadline) != 0) return done();
    return true;
  }

 private:
  pthread_mutex_t mutex_;
  pthread_cond_t condition_;
};
