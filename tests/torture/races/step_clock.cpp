// A wall clock that is ahead of the world's by as many seconds as stand in the board's file
// /tmp/clock-step, a 32-bit word. The monotonic clock is the world's. To be preloaded.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace {

using Word = std::atomic<std::int32_t>;
Word none{0};
const Word* step = &none;

__attribute__((constructor)) void attach() {
  const int fd = open("/tmp/clock-step", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  void* const page = mmap(nullptr, sizeof(Word), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (page != MAP_FAILED) step = static_cast<const Word*>(page);
}

timespec wallClock() {
  timespec now{};
  syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
  now.tv_sec += step->load(std::memory_order_relaxed);
  return now;
}

}  // namespace

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED int clock_gettime(clockid_t clock, timespec* now) {
  if (clock != CLOCK_REALTIME) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = wallClock();
  return 0;
}

INTERPOSED int gettimeofday(timeval* now, void* /*zone*/) {
  const timespec wall = wallClock();
  constexpr long kNsPerUs = 1000;
  *now = timeval{wall.tv_sec, wall.tv_nsec / kNsPerUs};
  return 0;
}

INTERPOSED time_t time(time_t* now) {
  const timespec wall = wallClock();
  if (now != nullptr) *now = wall.tv_sec;
  return wall.tv_sec;
}
