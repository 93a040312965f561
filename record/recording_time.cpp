// Where a frame lies in a recording.
#include "record/recording_time.h"

#include "platform/timer.h"

namespace {

constexpr std::int64_t kSecondUs = 1000000;
constexpr std::int64_t kMsUs = 1000;

// Smaller differences between the clocks are no step: what a busy machine may put between two
// readings, and what adds up while the wall clock is being slewed, must not count. Steps that
// matter to recordings are those that change the whole seconds.
constexpr std::int64_t kStepUs = 250 * kMsUs;

// A reading of both clocks that took no longer is good; after a few attempts any is.
constexpr std::uint32_t kTightMs = 20;
constexpr int kAttempts = 4;

std::int64_t totalUs(const TDateTime& time) {
  return std::int64_t{time.seconds()} * kSecondUs + time.microseconds();
}

// Rounds down, also below zero.
std::int64_t wholeSeconds(std::int64_t us) { return us / kSecondUs - (us % kSecondUs < 0 ? 1 : 0); }

}  // namespace

TInstant TInstant::now() {
  TInstant instant;
  std::uint32_t before = monotonicMs();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    instant.wall.set();
    instant.ms = monotonicMs();
    if (instant.ms - before <= kTightMs) break;
    before = instant.ms;
  }
  return instant;
}

void TRecordingTime::begin(const TInstant& start) {
  startUs_ = wallUs_ = totalUs(start.wall);
  monotonicMs_ = start.ms;
  elapsedUs_ = 0;
  stepped_ = false;
}

void TRecordingTime::look(const TInstant& now) {
  const std::int64_t passedUs =
      static_cast<std::int64_t>(now.ms - monotonicMs_) * kMsUs;  // wraps harmlessly
  monotonicMs_ = now.ms;
  elapsedUs_ += passedUs;
  wallUs_ += passedUs;
  const std::int64_t stepUs = totalUs(now.wall) - wallUs_;
  if (stepUs < kStepUs && stepUs > -kStepUs) return;
  beforeUs_ = startUs_;
  stepped_ = true;
  startUs_ += stepUs;
  wallUs_ += stepUs;
}

// Whether a frame stamped by a clock that showed `startUs` at the start lies between then and now.
bool TRecordingTime::plausible(std::int64_t frameUs, std::int64_t startUs) const {
  return frameUs > startUs && frameUs - startUs <= elapsedUs_ + kStepUs;
}

bool TRecordingTime::since(const TDateTime& frame, std::int64_t* seconds) const {
  const std::int64_t frameUs = totalUs(frame);
  std::int64_t startUs = startUs_;
  if (!plausible(frameUs, startUs)) {
    if (!stepped_ || !plausible(frameUs, beforeUs_)) return false;
    startUs = beforeUs_;
  }
  *seconds = wholeSeconds(frameUs) - wholeSeconds(startUs);
  return true;
}
