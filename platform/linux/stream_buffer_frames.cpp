// Frames: reserving and publishing by the one writer, pinning and releasing by the readers. The
// pair of reserve and pin is store, full fence, load on both sides, so that at least one sees the
// other. The fences are those of sequentially consistent operations.
#include <cstring>

#include "platform/bytes.h"
#include "platform/linux/futex.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_points.h"
#include "platform/linux/thread_access.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"

namespace {

// A killed reader wakes nobody, so a waiting writer looks for dead ones this often.
constexpr long kReapWhileWaitingMs = 5;
constexpr std::uint32_t kReapEveryMs = 1000;
// So often a writer can overtake a reader only when it is no writer, but somebody who changes the
// numbers at random; the reader's lock must not be held for long.
constexpr int kPinTries = 256;

// A limit on the monotonic clock.
class Limit {
 public:
  explicit Limit(long ms) : start_(monotonicMs()), ms_(ms < 0 ? 0 : ms) {}
  long left() const {
    const auto passed = static_cast<long>(monotonicMs() - start_);
    return passed >= ms_ ? 0 : ms_ - passed;
  }

 private:
  std::uint32_t start_;
  long ms_;
};

}  // namespace

bool SB_HANDLE::held(int index) const {
  const sb::Word* words = holders + static_cast<std::uint32_t>(index) * sb::kLeaseWords;
  return (words[0].load() | words[1].load()) != 0;
}
static_assert(sb::kLeaseWords == 2, "held() looks at two words");

// Takes the empty frame, else the oldest, among those that nobody holds. A frame that a reader pins
// at the same instant gets its number back, and the next one is tried.
int SB_HANDLE::tryReserve() {
  std::uint64_t tried = mine.writing;
  for (;;) {
    const std::uint32_t latest = head.latest.load(std::memory_order_relaxed);
    int best = -1;
    std::uint32_t bestAge = 0;
    std::uint32_t heldAge = 0;
    for (int i = 0; i < static_cast<int>(frames); ++i) {
      if ((tried >> i & 1) != 0) continue;
      const std::uint32_t number = seq[i].load(std::memory_order_relaxed);
      const std::uint32_t age = number == 0 ? UINT32_MAX : latest - number;
      if (held(i)) {
        if (age > heldAge) heldAge = age;
      } else if (best < 0 || age > bestAge) {
        best = i;
        bestAge = age;
      }
    }
    if (heldAge > bestAge) mine.pinInTheWay = true;
    if (best < 0) return -1;
    tried |= std::uint64_t{1} << best;
    const std::uint32_t number = seq[best].exchange(0);
    sb::reached(sb::Point::kFrameEmptied);
    if (!held(best)) {
      mine.writing |= std::uint64_t{1} << best;
      return best;
    }
    seq[best].store(number, std::memory_order_release);
  }
}

int SB_HANDLE::reserve(long waitMs) {
  if (!ensureWriter()) return -1;
  const auto attempt = [this] {
    const std::lock_guard<sb::BriefLock> guard(mine.frameLock);
    return tryReserve();
  };
  int index = attempt();
  if (index < 0) {
    const Limit limit(waitMs);
    for (;;) {
      const std::uint32_t freed = head.freed;
      head.writerWaits = 1;
      reap();
      index = attempt();
      const long left = limit.left();
      if (index >= 0 || left == 0 || ThreadAccess::stopAsked()) break;
      futexWait(head.freed, freed, left < kReapWhileWaitingMs ? left : kReapWhileWaitingMs);
    }
    head.writerWaits = 0;
  }
  if (index < 0) {
    head.busyCount.store(head.busyCount.load(std::memory_order_relaxed) + 1);
    return -1;
  }
  // What an earlier use left in the record must not come out again.
  std::memset(segment.frame(static_cast<std::uint32_t>(index)), 0, kFrameHeadBytes);
  head.writing.store(static_cast<std::uint32_t>(index) + 1, std::memory_order_relaxed);
  sb::reached(sb::Point::kFrameReserved);
  return index;
}

bool SB_HANDLE::readable(int index) const {
  const auto* frame =
      reinterpret_cast<const SB_FRAME*>(segment.frame(static_cast<std::uint32_t>(index)));
  const std::uint32_t length = loadLe32(frame->length);
  return length >= 1 && length <= segment.geometry.frameSize - kFrameHeadBytes;
}

void SB_HANDLE::publish(int index) {
  std::uint32_t before;
  {
    const std::lock_guard<sb::BriefLock> guard(mine.frameLock);
    before = head.latest.load(std::memory_order_relaxed);
    const std::uint32_t number = mine.published = sb::numberAfter(before);
    if (readable(index)) {
      stamp[index].store(monotonicMs(), std::memory_order_relaxed);
      seq[index].store(number, std::memory_order_release);
    }
    mine.writing &= ~(std::uint64_t{1} << index);
    head.writing.store(0, std::memory_order_relaxed);
    sb::reached(sb::Point::kFrameNumbered);
    head.latest.exchange(number);
  }
  sb::reached(sb::Point::kLatestMoved);
  if (head.readersWait.load() == before) futexWake(head.latest);
  reapNowAndThen();
}

// After the wake, where it delays nobody.
void SB_HANDLE::reapNowAndThen() {
  {
    const std::lock_guard<sb::BriefLock> guard(mine.frameLock);
    if (!mine.pinInTheWay) return;
    mine.pinInTheWay = false;
    const std::uint32_t now = monotonicMs();
    if (now - mine.lastReapMs < kReapEveryMs) return;
    mine.lastReapMs = now;
  }
  reap();
}

// Gives a reader without a place one: before the oldest frame that is no older than `ageMs`, or
// behind the newest. A place that lies in the future belongs to nobody.
bool SB_HANDLE::place(long ageMs, std::int32_t* number, std::int32_t* epoch) {
  const std::uint32_t latest = head.latest;
  const auto ours = static_cast<std::int32_t>(segment.epoch);
  const std::int32_t ahead = sb::distance(static_cast<std::uint32_t>(*number), latest);
  if (*epoch == ours && ahead <= static_cast<std::int32_t>(sb::kMaxFrames)) return false;
  const std::uint32_t now = monotonicMs();
  const std::uint32_t age = ageMs <= 0          ? 0
                            : ageMs > INT32_MAX ? INT32_MAX
                                                : static_cast<std::uint32_t>(ageMs);
  std::uint32_t before = latest;
  for (std::uint32_t i = 0; i < frames; ++i) {
    const std::uint32_t candidate = seq[i];
    if (candidate == 0 || now - stamp[i] > age) continue;
    if (sb::distance(candidate - 1, before) < 0) before = candidate - 1;
  }
  *number = static_cast<std::int32_t>(before);
  *epoch = ours;
  return true;
}

bool SB_HANDLE::pin(int index, std::uint32_t number) {
  if (mine.pins[index] == 0) {
    const auto lease = static_cast<std::uint32_t>(mine.lease);
    holders[static_cast<std::uint32_t>(index) * sb::kLeaseWords + lease / 32].fetch_or(
        1U << lease % 32);
    sb::reached(sb::Point::kPinSet);
  }
  ++mine.pins[index];
  if (seq[index].load() == number) return true;
  unpin(index);
  return false;
}

void SB_HANDLE::unpin(int index) {
  if (--mine.pins[index] != 0) return;
  const auto lease = static_cast<std::uint32_t>(mine.lease);
  holders[static_cast<std::uint32_t>(index) * sb::kLeaseWords + lease / 32].fetch_and(
      ~(1U << lease % 32));
  sb::reached(sb::Point::kPinCleared);
  if (head.writerWaits.load() == 0) return;
  head.freed.fetch_add(1);
  futexWake(head.freed);
}

// Pins the frame with the smallest number after `*number` and moves `*number` to it. Numbers beyond
// the one that comes next are damage: going after them, a reader would circle for ever. `latest` is
// read behind the frame's number, which it precedes by one at the most.
int SB_HANDLE::tryAcquire(std::uint32_t* number) {
  const std::lock_guard<sb::BriefLock> guard(mine.frameLock);
  for (int tries = 0; tries < kPinTries; ++tries) {
    int best = -1;
    std::int32_t bestDistance = 0;
    for (int i = 0; i < static_cast<int>(frames); ++i) {
      const std::uint32_t candidate = seq[i].load(std::memory_order_acquire);
      const std::int32_t ahead = sb::distance(candidate, *number);
      if (candidate == 0 || ahead <= 0 || (best >= 0 && ahead >= bestDistance)) continue;
      best = i;
      bestDistance = ahead;
    }
    if (best < 0) return -1;
    const std::uint32_t wanted = *number + static_cast<std::uint32_t>(bestDistance);
    if (sb::distance(wanted, sb::numberAfter(head.latest)) > 0) return -1;
    if (!pin(best, wanted)) continue;
    *number = wanted;
    if (readable(best)) return best;
    unpin(best);
  }
  return -1;
}

// Leaves the number that is waited beyond, so that the writer wakes only when somebody waits. The
// mark only moves forward, or else a waiter that was delayed could hide the mark of another; one
// that lies ahead of the newest number is left over from long ago.
// Returns false iff a newer number is there already.
bool SB_HANDLE::announceWait(std::uint32_t latest) {
  std::uint32_t mark = head.readersWait;
  while (mark != latest) {
    if (head.latest.load() != latest) return false;
    if (head.readersWait.compare_exchange_strong(mark, latest)) break;
  }
  return head.latest.load() == latest;
}

int SB_HANDLE::acquire(long ageMs, std::int32_t* number, std::int32_t* epoch, long waitMs) {
  if (!ensureLease()) return -1;
  const Limit limit(waitMs);
  const std::uint32_t retired = head.retired;
  for (;;) {
    const std::uint32_t latest = head.latest;
    place(ageMs, number, epoch);
    auto cursor = static_cast<std::uint32_t>(*number);
    const int index = tryAcquire(&cursor);
    *number = static_cast<std::int32_t>(cursor);
    if (index >= 0) {
      sb::reached(sb::Point::kPinned);
      return index;
    }
    const long left = limit.left();
    if (left == 0 || ThreadAccess::stopAsked()) return -1;
    if (head.retired != retired) return -1;
    if (announceWait(latest)) futexWait(head.latest, latest, left);
  }
}

void SB_HANDLE::release(int index) {
  const std::lock_guard<sb::BriefLock> guard(mine.frameLock);
  unpin(index);
}
