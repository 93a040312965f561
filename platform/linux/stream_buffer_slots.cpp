// Status slots: a value and its written-since-tested mark behind one control word, without a lock
// between processes.
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_points.h"
#include "platform/stream_buffer.h"

namespace {

// Where the value is that the control word names.
sb::Word& namedCell(SB_HANDLE& buffer, std::uint32_t slot, std::uint32_t word) {
  const std::size_t lease = word & sb::kSlotLeaseMask;
  const std::size_t which = (word & sb::kSlotCell) != 0 ? 1 : 0;
  sb::Word* const cells = buffer.slot + sb::kSlots;  // one load less than a pointer of their own
  return cells[(lease * sb::kSlots + slot) * 2 + which];
}

bool usable(const SB_HANDLE* buffer, int slot) {
  return buffer != nullptr && slot >= 0 && slot < kSlotCount;
}
static_assert(kSlotCount == sb::kSlots, "callers and segment agree on the number of slots");

// What is done rarely is kept out of the way of what is done always.
__attribute__((noinline)) int getAfterLook(SB_HANDLE* buffer, int slot);
__attribute__((noinline)) int testAfterLook(SB_HANDLE* buffer, int slot);

// The value belongs to the control word that is read before and after it.
int get(SB_HANDLE& buffer, std::uint32_t slot) {
  sb::Word& control = buffer.slot[slot];
  std::uint32_t word = control.load(std::memory_order_acquire);
  for (;;) {
    const std::uint32_t value = namedCell(buffer, slot, word).load(std::memory_order_acquire);
    const std::uint32_t after = control.load(std::memory_order_acquire);
    if (after == word) return static_cast<int>(value);
    word = after;
  }
}

int test(SB_HANDLE& buffer, std::uint32_t slot) {
  sb::Word& control = buffer.slot[slot];
  std::uint32_t word = control.load(std::memory_order_acquire);
  while ((word & sb::kSlotMark) != 0) {
    const std::uint32_t value = namedCell(buffer, slot, word).load(std::memory_order_acquire);
    sb::reached(sb::Point::kMarkRead);
    if (control.compare_exchange_weak(word, word & ~sb::kSlotMark, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
      sb::reached(sb::Point::kMarkCleared);
      buffer.mine.values[slot] = static_cast<std::int32_t>(value);
      return static_cast<int>(value);
    }
  }
  return -1;
}

int getAfterLook(SB_HANDLE* buffer, int slot) {
  buffer->look();
  if (buffer->broken()) return buffer->mine.values[slot];
  return get(*buffer, static_cast<std::uint32_t>(slot));
}

int testAfterLook(SB_HANDLE* buffer, int slot) {
  buffer->look();
  return test(*buffer, static_cast<std::uint32_t>(slot));
}

}  // namespace

int sbGetUserdata(SB_HANDLE* buffer, int slot) {
  if (!usable(buffer, slot)) return 0;
  if (buffer->retired()) return getAfterLook(buffer, slot);
  return get(*buffer, static_cast<std::uint32_t>(slot));
}

int sbTestUserdata(SB_HANDLE* buffer, int slot) {
  if (!usable(buffer, slot)) return -1;
  if (buffer->retired()) return testAfterLook(buffer, slot);
  return test(*buffer, static_cast<std::uint32_t>(slot));
}

// Before the swap nothing has happened, after it everything has: a process may die at any point.
// The value goes to the own cell that the control word does not name, with release order, so that
// who reads it too early finds the control word changed.
void sbSetUserdata(SB_HANDLE* buffer, int slot, int value) {
  if (!usable(buffer, slot)) return;
  buffer->notice();
  if (!buffer->ensureLease()) return;
  const auto index = static_cast<std::uint32_t>(slot);
  const auto lease = static_cast<std::uint32_t>(buffer->mine.lease);
  sb::Word& control = buffer->slot[index];
  const std::lock_guard<sb::BriefLock> guard(buffer->mine.slotLock);
  std::uint32_t word = control.load(std::memory_order_acquire);
  for (;;) {
    std::uint32_t next = (word & ~(sb::kSlotCountOne - 1)) + sb::kSlotCountOne;
    next |= sb::kSlotMark | lease;
    const bool namesOurs = (word & sb::kSlotLeaseMask) == lease;
    if (namesOurs && (word & sb::kSlotCell) == 0) next |= sb::kSlotCell;
    namedCell(*buffer, index, next)
        .store(static_cast<std::uint32_t>(value), std::memory_order_release);
    sb::reached(sb::Point::kCellWritten);
    if (control.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
      break;
    }
  }
  buffer->mine.values[index] = value;
  sb::reached(sb::Point::kSlotSet);
}
