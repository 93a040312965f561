#include "platform/linux/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>

namespace {

// How long a waiter may sleep without looking around: the wake of a killed process never comes, and
// a body that is asked to stop is not woken.
constexpr long kSliceMs = 50;
constexpr std::int64_t kUsPerMs = 1000;
constexpr std::int64_t kUsPerSecond = 1'000'000;
constexpr std::int64_t kNsPerUs = 1000;

#ifdef SYS_futex_time64
// The kernel's time structure of 32-bit systems, for kernels without 64-bit time.
struct OldTimespec {
  long seconds;
  long nanoseconds;
};
#endif

}  // namespace

// Not the private kind: the waiters may be in other processes. A relative limit runs on the
// monotonic clock.
void futexPause(std::atomic<std::uint32_t>& word, std::uint32_t expected, std::int64_t us) {
  if (us <= 0) return;
  auto* address = reinterpret_cast<std::uint32_t*>(&word);
  const std::int64_t seconds = us / kUsPerSecond;
  const std::int64_t nanoseconds = us % kUsPerSecond * kNsPerUs;
#ifdef SYS_futex_time64
  struct {
    std::int64_t seconds;
    std::int64_t nanoseconds;
  } time64 = {seconds, nanoseconds};
  if (syscall(SYS_futex_time64, address, FUTEX_WAIT, expected, &time64, nullptr, 0) == 0 ||
      errno != ENOSYS) {
    return;
  }
  OldTimespec time = {static_cast<long>(std::min<std::int64_t>(seconds, LONG_MAX)),
                      static_cast<long>(nanoseconds)};
#else
  timespec time = {seconds, nanoseconds};
#endif
  syscall(SYS_futex, address, FUTEX_WAIT, expected, &time, nullptr, 0);
}

void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, long ms) {
  futexPause(word, expected, std::min(ms, kSliceMs) * kUsPerMs);
}

void futexWake(std::atomic<std::uint32_t>& word) {
  syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE, INT_MAX, nullptr, nullptr,
          0);
}
