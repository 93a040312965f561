#include "platform/linux/stop_guard.h"

#include <pthread.h>

#include <mutex>
#include <utility>

#include "platform/linux/clock.h"
#include "platform/linux/thread_access.h"

namespace {
constexpr std::int64_t kStepUs = 50000;
}

// Shared, because the thread leaves the lock after the object may have gone.
struct StopGuard::State {
  static void* body(void* holder);

  std::int64_t deadlineUs = 0;
  std::function<bool()> stopAsked;
  std::function<void()> free;
  Monitor monitor;
  bool done = false;
};

StopGuard::StopGuard(std::int64_t deadlineUs, std::function<void()> free)
    : state_(std::make_shared<State>()) {
  state_->deadlineUs = deadlineUs;
  state_->stopAsked = ThreadAccess::stopTest();
  state_->free = std::move(free);
  auto* const holder = new std::shared_ptr<State>(state_);
  if (ThreadAccess::start(&State::body, holder) != 0) delete holder;  // then nobody looks
}

StopGuard::~StopGuard() {
  const std::lock_guard<Monitor> lock(state_->monitor);
  state_->done = true;
  state_->monitor.wake();
}

void* StopGuard::State::body(void* holder) {
  const std::unique_ptr<std::shared_ptr<State>> owned(static_cast<std::shared_ptr<State>*>(holder));
  State& s = **owned;
  pthread_setname_np(pthread_self(), "stop guard");
  const std::lock_guard<Monitor> lock(s.monitor);
  while (!s.monitor.waitUntil(monotonicUs() + kStepUs, [&s] { return s.done; }))
    if (s.stopAsked() || monotonicUs() >= s.deadlineUs) s.free();
  return nullptr;
}
