#include "platform/timer.h"

#include <algorithm>
#include <limits>

#include "platform/linux/clock.h"

std::uint32_t monotonicMs() { return static_cast<std::uint32_t>(monotonicUs() / 1000); }

TTimer::TTimer(long seconds) { reset(seconds); }

void TTimer::reset(long seconds) {
  constexpr long kLongest = std::numeric_limits<std::int32_t>::max();
  interval_ = static_cast<std::int32_t>(std::clamp(seconds, 0L, kLongest));
  elapsed_ = 0;
  startMs_ = monotonicMs();
}

bool TTimer::timeout() {
  if (interval_ < 1) return false;
  const std::uint32_t now = monotonicMs();
  // Whole seconds are counted, so that an interval may be longer than the clock's 49 days.
  const std::uint32_t passed = (now - startMs_) / 1000;
  startMs_ += passed * 1000;
  const auto missing = static_cast<std::uint32_t>(interval_ - elapsed_);
  if (passed < missing) {
    elapsed_ += static_cast<std::int32_t>(passed);
    return false;
  }
  elapsed_ = 0;
  startMs_ = now;
  return true;
}

void TCounter::reset(long limit, bool full) {
  limit_ = limit;
  sum_ = full ? limit : 0;
}

bool TCounter::count(long step) {
  if (__builtin_add_overflow(sum_, step, &sum_))
    sum_ = step > 0 ? std::numeric_limits<long>::max() : std::numeric_limits<long>::min();
  if (sum_ < limit_) return false;
  sum_ = 0;
  return true;
}
