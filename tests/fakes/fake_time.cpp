// Pauses, and how a test ends a loop.
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/application.h"
#include "platform/os.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/fake_seam.h"

namespace {
constexpr std::int64_t kSecondUs = 1000000;
constexpr long kEndlessPauses = 100000;  // a body that pauses so often after its stop is stuck
constexpr long kSliceUs = 500;           // how soon a real pause notices a stop

bool stopAsked() {
  const fake_seam::Body body = fake_seam::here();
  return body == fake_seam::Body::kNone ? TApplication::stopped.load()
                                        : body == fake_seam::Body::kAskedToStop;
}
}  // namespace

void FakePlatform::setWallClock(const char* localTime) {
  std::tm fields{};
  if (strptime(localTime, "%Y-%m-%d %H:%M:%S", &fields) == nullptr) {
    std::fprintf(stderr, "no time: %s\n", localTime);
    std::abort();
  }
  fields.tm_isdst = -1;
  clock.setWall(std::mktime(&fields));
}

void FakePlatform::setTimeZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

void FakePlatform::at(double seconds, std::function<void()> callback) {
  FakeScope scope;
  const auto when = clock.monotonicUs() + static_cast<std::int64_t>(seconds * kSecondUs);
  std::lock_guard<std::mutex> guard(lock_);
  due_.emplace(when, std::move(callback));
}

void FakePlatform::onPause(std::function<void(long)> callback) {
  std::lock_guard<std::mutex> guard(lock_);
  onPause_ = std::make_shared<const std::function<void(long)>>(std::move(callback));
}

void FakePlatform::stopAfterPasses(long pauses) {
  std::lock_guard<std::mutex> guard(lock_);
  stopAfterPauses_ = pauses;
  pausesAfterStop_ = 0;
}

void FakePlatform::stopAfter(double seconds) {
  const auto now = clock.monotonicUs();
  std::lock_guard<std::mutex> guard(lock_);
  stopAtUs_ = now + static_cast<std::int64_t>(seconds * kSecondUs);
  pausesAfterStop_ = 0;
}

void FakePlatform::stopNow() {
  if (fake_seam::here() == fake_seam::Body::kNone)
    TApplication::stopped = true;
  else
    fake_seam::askHere();
}

void FakePlatform::advance(double seconds) {
  moveClock(static_cast<std::int64_t>(seconds * kSecondUs));
}

bool FakePlatform::pause(std::int64_t microseconds, bool counted) {
  FakeScope scope;
  if (microseconds <= 0) return false;
  std::shared_ptr<const std::function<void(long)>> callback;
  bool limited = false;
  if (counted) {
    std::lock_guard<std::mutex> guard(lock_);
    if (keepCalls_) pausesUs_.push_back(static_cast<long>(microseconds));
    callback = onPause_;
    limited = stopAfterPauses_ > 0;
  }
  if (stopAsked()) {
    checkEndless();
    return true;
  }
  const bool early = clock.factor() != 0 ? pauseInRealTime(microseconds) : moveClock(microseconds);
  if (callback && *callback) (*callback)(static_cast<long>(microseconds));
  if (limited) {
    std::unique_lock<std::mutex> guard(lock_);
    if (stopAfterPauses_ > 0 && --stopAfterPauses_ == 0) {
      guard.unlock();
      stopNow();
    }
  }
  return early;
}

void FakePlatform::checkEndless() {
  std::lock_guard<std::mutex> guard(lock_);
  if (++pausesAfterStop_ < kEndlessPauses) return;
  std::fprintf(stderr, "a loop does not end although it was asked to stop\n");
  std::abort();
}

bool FakePlatform::nothingDueUntil(std::int64_t end) const {
  std::lock_guard<std::mutex> guard(lock_);
  return (stopAtUs_ < 0 || stopAtUs_ > end) && (due_.empty() || due_.begin()->first > end);
}

// Everything that is due happens at its own instant, in order.
bool FakePlatform::moveClock(std::int64_t microseconds) {
  const std::int64_t end = clock.monotonicUs() + microseconds;
  if (nothingDueUntil(end)) {
    clock.advanceUs(microseconds);
    return false;
  }
  for (;;) {
    std::function<void()> callback;
    std::int64_t next = end;
    bool stop = false;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (stopAtUs_ >= 0 && stopAtUs_ <= next) {
        next = stopAtUs_;
        stop = true;
      }
      if (!due_.empty() && due_.begin()->first <= next) {
        next = due_.begin()->first;
        callback = std::move(due_.begin()->second);
        due_.erase(due_.begin());
        stop = false;
      }
      if (stop) stopAtUs_ = -1;
    }
    const std::int64_t now = clock.monotonicUs();
    if (next > now) clock.advanceUs(next - now);
    if (stop) stopNow();
    if (callback) callback();
    if (stopAsked()) return clock.monotonicUs() < end;
    if (!stop && !callback) return false;
  }
}

bool FakePlatform::pauseInRealTime(std::int64_t microseconds) {
  const std::int64_t end = clock.monotonicUs() + microseconds;
  while (clock.monotonicUs() < end) {
    if (stopAsked()) return true;
    const std::int64_t left = (end - clock.monotonicUs()) / clock.factor();
    if (left > 0) fake_seam::restInRealTime(static_cast<long>(left < kSliceUs ? left : kSliceUs));
  }
  return false;
}

namespace os {

unsigned sleep(unsigned seconds) {
  return FakePlatform::the().pause(seconds * kSecondUs, true) ? 1 : 0;
}

int usleep(unsigned long microseconds) {
  return FakePlatform::the().pause(static_cast<std::int64_t>(microseconds), true) ? -1 : 0;
}

}  // namespace os
