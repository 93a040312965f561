// The time of frames without the steps of the wall clock that stamped them.
#include "record/steady_time.h"

namespace {

constexpr std::int64_t kSecondUs = 1000000;
constexpr std::int64_t kMsUs = 1000;

// Stamps may come closer together or further apart than the looks at them: a reader that was held
// up makes up for it afterwards. More than a stream buffer holds is no such thing.
constexpr std::int64_t kLagUs = 2 * kSecondUs;

}  // namespace

void TSteadyTime::advance(const TDateTime& frame, std::uint32_t ms) {
  const std::int64_t frameUs = std::int64_t{frame.seconds()} * kSecondUs + frame.microseconds();
  if (!begun_) {
    us_ = frameUs;
    begun_ = true;
  } else {
    const std::int64_t steps = frameUs - lastUs_;
    const std::int64_t passed = static_cast<std::int64_t>(ms - ms_) * kMsUs;  // wraps harmlessly
    us_ += steps >= 0 && steps <= passed + kLagUs ? steps : passed;
  }
  lastUs_ = frameUs;
  ms_ = ms;
}

std::int64_t TSteadyTime::seconds() const { return us_ / kSecondUs; }
