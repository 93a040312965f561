// What a process holds of a segment, kept by locks that the kernel drops at its death and never
// sooner.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>
#include <new>

#include "platform/linux/futex.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_points.h"

namespace {

constexpr int kYields = 20;
constexpr useconds_t kPauseUs = 50;

bool changeLock(int fd, int byte, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

}  // namespace

#ifdef VS_STREAM_BUFFER_POINTS
void (*sb::onPoint)(sb::Point) = nullptr;
#endif

// The holder may have a lower priority, and then gets the processor only when we sleep.
void sb::BriefLock::pause(int tries) {
  if (tries < kYields) {
    sched_yield();
  } else {
    usleep(kPauseUs);
  }
}

SB_HANDLE::SB_HANDLE(int whose, const sb::Segment& opened)
    : head(opened.head()),
      seq(opened.words(opened.geometry.seqAt)),
      stamp(opened.words(opened.geometry.stampAt)),
      holders(opened.words(opened.geometry.holdersAt)),
      slot(opened.words(opened.geometry.slotAt)),
      leasePid(opened.words(opened.geometry.leasePidAt)),
      frames(opened.geometry.frames),
      segment(opened),
      stream(whose) {}

// Clears pins only: a cell of this lease may be the one that a slot's control word still names.
bool SB_HANDLE::takeLease() {
  const std::lock_guard<std::mutex> guard(mine.leaseMutex);
  if (mine.lease >= 0) return true;
  for (int i = 0; i < static_cast<int>(sb::kLeases); ++i) {
    if (!changeLock(segment.fd, i, F_WRLCK)) continue;
    sb::reached(sb::Point::kLeaseTaken);
    clearPins(i);
    leasePid[i] = static_cast<std::uint32_t>(getpid());
    mine.lease = i;
    return true;
  }
  return false;
}

// A predecessor may have died between showing a frame and moving `latest`, so that is repaired.
bool SB_HANDLE::ensureWriter() {
  if (mine.writer) return true;
  if (!ensureLease()) return false;
  const std::lock_guard<std::mutex> guard(mine.leaseMutex);
  if (mine.writer) return true;
  if (!changeLock(segment.fd, sb::kWriterByte, F_WRLCK)) return false;
  if (!sb::makeWritable(segment)) {
    changeLock(segment.fd, sb::kWriterByte, F_UNLCK);
    return false;
  }
  for (std::uint32_t i = 0; i < frames; ++i) {
    const std::uint32_t number = seq[i];
    if (number == sb::numberAfter(head.latest)) head.latest = number;
  }
  head.writing = 0;
  head.writerWaits = 0;
  head.writerPid = static_cast<std::uint32_t>(getpid());
  futexWake(head.latest);
  mine.writer = true;
  return true;
}

int SB_HANDLE::lockOwner(int byte) const {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  if (fcntl(segment.fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return static_cast<int>(lock.l_pid);
}

void SB_HANDLE::clearPins(int lease) {
  const std::uint32_t bit = 1U << (lease % 32);
  for (std::uint32_t i = 0; i < frames; ++i) {
    sb::Word& word = holders[i * sb::kLeaseWords + static_cast<std::uint32_t>(lease) / 32];
    if ((word.load() & bit) != 0) word.fetch_and(~bit);
  }
}

// Bits of this process's own lease that no frame of it stands behind: another process has written
// over them, and nobody else would ever clear them.
bool SB_HANDLE::clearStrayPins() {
  if (mine.lease < 0) return false;
  const auto lease = static_cast<std::uint32_t>(mine.lease);
  const std::lock_guard<sb::BriefLock> guard(mine.frameLock);
  bool found = false;
  for (std::uint32_t i = 0; i < frames; ++i) {
    sb::Word& word = holders[i * sb::kLeaseWords + lease / 32];
    if (mine.pins[i] != 0 || (word.load() & 1U << lease % 32) == 0) continue;
    word.fetch_and(~(1U << lease % 32));
    found = true;
  }
  return found;
}

// While a dead owner's lock is ours, nobody can take the lease and set bits anew.
bool SB_HANDLE::reap() {
  bool found = clearStrayPins();
  for (int i = 0; i < static_cast<int>(sb::kLeases); ++i) {
    if (i == mine.lease) continue;
    std::uint32_t bits = 0;
    for (std::uint32_t f = 0; f < frames; ++f) {
      bits |= holders[f * sb::kLeaseWords + static_cast<std::uint32_t>(i) / 32];
    }
    if ((bits & 1U << (i % 32)) == 0 || !changeLock(segment.fd, i, F_WRLCK)) continue;
    clearPins(i);
    sb::reached(sb::Point::kReaped);
    changeLock(segment.fd, i, F_UNLCK);
    found = true;
  }
  return found;
}

// The parent's threads are not here, nor are its locks; whatever its mutexes guarded starts over.
void SB_HANDLE::forked() {
  generation = generation + 1;
  new (&mine) sb::PrivateState;
}
