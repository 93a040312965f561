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
  ms_ = start.ms;
  elapsedUs_ = 0;
  earliestUs_ = 0;
  stepped_ = false;
}

void TRecordingTime::look(const TInstant& now) {
  const std::int64_t passedUs =
      static_cast<std::int64_t>(now.ms - ms_) * kMsUs;  // wraps harmlessly
  ms_ = now.ms;
  elapsedUs_ += passedUs;
  wallUs_ += passedUs;
  const std::int64_t stepUs = totalUs(now.wall) - wallUs_;
  if (stepUs < kStepUs && stepUs > -kStepUs) return;
  beforeUs_ = startUs_;
  earliestUs_ = elapsedUs_ - passedUs;
  latestUs_ = elapsedUs_;
  stepped_ = true;
  startUs_ += stepUs;
  wallUs_ += stepUs;
}

// A frame from this side of the last step can't be older than the look before the step, and one
// from the other side not newer than the look after it. That tells them apart, also when the step
// was smaller than what a slow recorder lags behind.
bool TRecordingTime::since(const TDateTime& frame, std::int64_t* seconds) const {
  const std::int64_t frameUs = totalUs(frame);
  const std::int64_t hereUs = frameUs - startUs_;
  const std::int64_t thereUs = frameUs - beforeUs_;
  std::int64_t startUs = startUs_;
  if (hereUs <= 0 || hereUs < earliestUs_ - kStepUs || hereUs > elapsedUs_ + kStepUs) {
    if (!stepped_ || thereUs <= 0 || thereUs > latestUs_ + kStepUs) return false;
    startUs = beforeUs_;
  }
  *seconds = wholeSeconds(frameUs) - wholeSeconds(startUs);
  return true;
}
