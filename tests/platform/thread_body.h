// Threads whose bodies are functions of the test.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>

#include "platform/os.h"
#include "platform/thread.h"
#include "platform/timer.h"

// Ends its body before it goes.
class Body : public PThread {
 public:
  using Function = std::function<void(Body&)>;
  explicit Body(Function function, const char* name = "body")
      : PThread(name), function_(std::move(function)) {}
  ~Body() override { PThread::stop(true); }

  using PThread::leave;
  std::atomic<int> started{0};
  std::atomic<int> ended{0};

 protected:
  void execute() override {
    ++started;
    function_(*this);
    ++ended;
  }

 private:
  Function function_;
};

inline void untilStopped(Body& body) {
  while (body.running()) os::usleep(1000);
}

// Holds bodies back, whatever they are asked for, until opened.
class Gate {
 public:
  void open() { open_ = true; }
  void wait() const {
    while (!open_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

 private:
  std::atomic<bool> open_{false};
};

// Returns how long `action` took.
inline std::uint32_t msOf(const std::function<void()>& action) {
  const std::uint32_t start = monotonicMs();
  action();
  return monotonicMs() - start;
}
