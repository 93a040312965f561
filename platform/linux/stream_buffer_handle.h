// One attached stream buffer: the segment and what the process keeps privately about it.
#pragma once

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif
#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/linux/stream_buffer_segment.h"
#include "platform/relaxed.h"

struct SB_FRAME;

namespace sb {

// A lock among the threads of one process around a few instructions, cheaper than a mutex. A
// process of one thread does without the locked instruction, where the C library tells.
class BriefLock {
 public:
  void lock() {
#if __has_include(<sys/single_threaded.h>)
    if (__libc_single_threaded) return;
#endif
    for (int tries = 0; held_.exchange(1, std::memory_order_acquire) != 0; ++tries) pause(tries);
  }
  void unlock() { held_.store(0, std::memory_order_release); }

 private:
  static void pause(int tries);
  std::atomic<std::uint32_t> held_{0};
};

// What a process holds of a segment; a fork's child starts with none of it.
struct PrivateState {
  Relaxed<std::int32_t> lease = -1;  // written under leaseMutex
  Relaxed<bool> writer = false;      // written under leaseMutex

  // The order keeps together what a frame needs: after a pause each cache line is a wait.
  bool pinInTheWay = false;             // a held frame was older than the one reserved
  std::uint32_t published = 0;          // the number given last
  std::uint64_t writing = 0;            // bit i: frame i is reserved by this process
  BriefLock frameLock;                  // guards the three above and the two below
  std::uint16_t pins[kMaxFrames] = {};  // of this process's threads; the first sets the shared bit
  std::uint32_t lastReapMs = 0;         // monotonic

  std::mutex leaseMutex;

  BriefLock slotLock;  // guards this process's cells
  // What this process has written into the slots, or found there when it tested them: what is left
  // of them when another process cuts the segment.
  Relaxed<std::int32_t> values[kSlots];
};

// Compares numbers and times that wrap: how far `a` is after `b`.
constexpr std::int32_t distance(std::uint32_t a, std::uint32_t b) {
  return static_cast<std::int32_t>(a - b);
}

// 0 is no number.
constexpr std::uint32_t numberAfter(std::uint32_t number) {
  return number + 1 == 0 ? 1 : number + 1;
}

}  // namespace sb

// Never freed once given out. Any thread.
struct SB_HANDLE {
  SB_HANDLE(int stream, const sb::Segment& segment);

  // A lease for this process. False: all are taken.
  bool ensureLease() { return mine.lease >= 0 || takeLease(); }
  // The writer's place, for this process's life. False: another process has it.
  bool ensureWriter();
  // Clears what dead processes hold. Returns true iff it found something.
  bool reap();
  // Returns the process whose lock is on this byte of the file; 0: none, or our own.
  int lockOwner(int byte) const;

  // Returns the index of a frame to fill, -1: none within `waitMs`.
  int reserve(long waitMs);
  // Gives a reserved frame its number.
  void publish(int index);
  // Pins the next frame after the place; both cursors as TAutoFrame has them. -1: none in time.
  int acquire(long ageMs, std::int32_t* number, std::int32_t* epoch, long waitMs);
  void release(int index);

  // True iff the operation has to look() first. Slot operations that only read ask for the
  // retirement, which a segment that is being replaced tells itself; all others also look now and
  // then whether the segment still has its name.
  bool retired() const { return head.retired.load(std::memory_order_relaxed) != 0; }
  // True iff another process has cut the file, so that this one works on memory of its own, which
  // says that it is retired. Until it is mended the slots are what this process knows of them.
  bool broken() const { return segment.mapping->broken(); }
  bool lookIsDue() {
    const std::uint32_t left = untilLook_ - 1;
    untilLook_ = left;
    return left == 0 || retired();
  }
  void look();
  // Takes over what the process knows of the slots of `other`, where it has not learnt more since.
  void adoptValues(const SB_HANDLE& other);
  void notice() {
    if (lookIsDue()) look();
  }

  // A fork's child: leases, pins and locks stayed with the parent.
  void forked();

  sb::Head& head;
  sb::Word* const seq;
  sb::Word* const stamp;
  sb::Word* const holders;
  sb::Word* const slot;
  sb::Word* const leasePid;
  const std::uint32_t frames;
  Relaxed<std::uint32_t> generation = 0;  // moves in a fork's child
  sb::PrivateState mine;
  const sb::Segment segment;
  const int stream;  // whose current handle this is, or was

 private:
  bool takeLease();
  bool held(int index) const;
  int tryReserve();
  bool place(long ageMs, std::int32_t* number, std::int32_t* epoch);
  int tryAcquire(std::uint32_t* number);
  bool announceWait(std::uint32_t latest);
  bool pin(int index, std::uint32_t number);
  void unpin(int index);
  bool readable(int index) const;
  void reapNowAndThen();
  void clearPins(int lease);
  bool clearStrayPins();
  void mend();
  bool restoreSlots();

  Relaxed<std::uint32_t> untilLook_ = 1;
  Relaxed<std::uint32_t> lookEvery_ = 1;
  Relaxed<std::uint32_t> lastPaceMs_ = 0;
  Relaxed<bool> retirementSeen_ = false;
};
