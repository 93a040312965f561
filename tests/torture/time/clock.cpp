// The clocks of the kernel as the platform's date and timer code reads them, taken from the fake
// platform.
#include <time.h>

#include "tests/fakes/fake_platform.h"

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const FakeClock& fake = FakePlatform::the().clock;
  const std::int64_t us = clock == CLOCK_REALTIME ? fake.wallUs() : fake.monotonicUs();
  now->tv_sec = static_cast<time_t>(us / 1000000);
  now->tv_nsec = static_cast<long>(us % 1000000 * 1000);
  return 0;
}
