// Looks after calls of libraries that never look up by themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

// While it lives, a thread of its own sees to it that the calling thread, a body's or the main one,
// is not held for longer than it may be.
class StopGuard {
 public:
  // Calls `free` every 50 ms from when the calling thread is asked to stop, or the monotonic clock
  // reads `deadlineUs`, until the end of the object. `free` runs on the other thread: it ends what
  // the calling thread waits for.
  StopGuard(std::int64_t deadlineUs, std::function<void()> free);
  // From its return on `free` is not called, nor inside.
  ~StopGuard();
  StopGuard(const StopGuard&) = delete;
  StopGuard& operator=(const StopGuard&) = delete;

 private:
  struct State;
  std::shared_ptr<State> state_;
};
