// Looking after a segment: whether it still has its name, and mending what others have done to it.
#include <sys/mman.h>

#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/log.h"
#include "platform/timer.h"

namespace {

// Calls for one look at the clock: 64 of them are milliseconds in a busy process, and in one that
// calls once a second each call looks.
constexpr std::uint32_t kMaxCallsPerClock = 64;
constexpr std::uint32_t kClockMs = 100;
constexpr std::uint32_t kLookMs = 1000;   // one stat a second at the most
constexpr std::uint32_t kRetiredMs = 10;  // a segment is retired just before another gets its name

}  // namespace

// The clock is read about every kClockMs, however often or rarely the operations are called.
void SB_HANDLE::look() {
  const std::uint32_t now = monotonicMs();
  const bool fast = now - lastPaceMs_ < kClockMs;
  const std::uint32_t every = lookEvery_;
  lookEvery_ = fast && every < kMaxCallsPerClock ? every * 2 : fast ? every : 1;
  untilLook_ = lookEvery_;
  lastPaceMs_ = now;
  const bool retired = head.retired.load(std::memory_order_relaxed) != 0;
  const bool firstSight = retired && !retirementSeen_;
  if (firstSight) retirementSeen_ = true;
  if (sb::lookForReplacement(this, now, firstSight ? 0 : retired ? kRetiredMs : kLookMs)) mend();
}

// A process of the camera's group may write over the head and cut the file, by mistake or because
// it means harm. The owner puts right what has only one right value; what the frames held is gone.
void SB_HANDLE::mend() {
  const bool owns = sb::owns();
  if (!owns && !broken()) return;
  const std::lock_guard<std::mutex> guard(mine.leaseMutex);
  const bool cut = sb::wrongSize(segment);
  if (cut && (!owns || !sb::restoreSize(segment))) return;
  const bool torn = broken();
  if (torn) {
    const int ofFrames = mine.writer ? PROT_READ | PROT_WRITE : PROT_READ;
    if (!segment.mapping->mend(segment.fd, segment.geometry.dataOffset, PROT_READ | PROT_WRITE,
                               ofFrames))
      return;
  }
  if (!owns) return;
  const bool changed = sb::restoreHead(segment);
  head.retired = 0;
  retirementSeen_ = false;
  const bool lost = restoreSlots();
  if (!cut && !torn && !changed && !lost) return;
  {
    const std::lock_guard<sb::BriefLock> frameGuard(mine.frameLock);
    // So that no reader, which knows higher numbers, waits for them to come again.
    if (head.latest == 0) head.latest = mine.published;
  }
  logEx(2, "buffer %s was damaged by another process, mended", sb::streamPath(stream));
}

void SB_HANDLE::adoptValues(const SB_HANDLE& other) {
  const std::lock_guard<sb::BriefLock> guard(mine.slotLock);
  for (std::uint32_t i = 0; i < sb::kSlots; ++i) {
    if (mine.values[i] == 0) mine.values[i] = other.mine.values[i];
  }
}

// Those that this process has written last, or nobody since the segment was cut. Marks stay as they
// are: what is restored is not written anew. A cut may have spared the control word and not the
// value.
// Returns true iff a value was missing.
bool SB_HANDLE::restoreSlots() {
  const auto lease = static_cast<std::uint32_t>(mine.lease);
  sb::Word* const cells = slot + sb::kSlots;
  const std::lock_guard<sb::BriefLock> guard(mine.slotLock);
  bool lost = false;
  for (std::uint32_t i = 0; i < sb::kSlots; ++i) {
    if (mine.values[i] == 0) continue;
    std::uint32_t word = slot[i];
    const std::uint32_t named = word & sb::kSlotLeaseMask;
    if (word != 0 && named != lease) continue;
    const std::uint32_t which = (word & sb::kSlotCell) != 0 ? 1 : 0;
    // In a segment that was made anew, words of 0 name values in cells of the first lease.
    if (cells[(named * sb::kSlots + i) * 2 + which] != 0) continue;
    lost = true;
    cells[(lease * sb::kSlots + i) * 2 + which].store(
        static_cast<std::uint32_t>(mine.values[i].load()), std::memory_order_release);
    if (word == 0) slot[i].compare_exchange_strong(word, lease);
  }
  return lost;
}
