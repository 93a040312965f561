#include "platform/linux/stream_buffer_inspect.h"

#include <unistd.h>

#include "platform/bytes.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"

namespace sb {
namespace {

// Returns the process that has the lock of this byte, ourselves included; 0: none.
int ownerOf(const SB_HANDLE& buffer, int byte, bool ours) {
  return ours ? static_cast<int>(getpid()) : buffer.lockOwner(byte);
}

std::vector<LeaseState> leasesOf(const SB_HANDLE& buffer) {
  std::vector<LeaseState> leases;
  for (int i = 0; i < static_cast<int>(kLeases); ++i) {
    LeaseState state;
    state.lease = i;
    state.alive = ownerOf(buffer, i, i == buffer.mine.lease) != 0;
    state.pid = static_cast<int>(buffer.leasePid[i].load());
    leases.push_back(state);
  }
  return leases;
}

FrameState frameOf(const SB_HANDLE& buffer, std::uint32_t index,
                   const std::vector<LeaseState>& leases) {
  FrameState state;
  state.number = buffer.seq[index];
  if (state.number != 0) {
    const auto* frame = reinterpret_cast<const SB_FRAME*>(buffer.segment.frame(index));
    state.ageMs = monotonicMs() - buffer.stamp[index];
    state.length = loadLe32(frame->length);
    if (buffer.seq[index] != state.number) state = FrameState();  // it was overwritten meanwhile
  }
  for (const LeaseState& lease : leases) {
    const auto i = static_cast<std::uint32_t>(lease.lease);
    const std::uint32_t word = buffer.holders[index * kLeaseWords + i / 32];
    if ((word >> i % 32 & 1) != 0) state.holders.push_back(lease);
  }
  return state;
}

}  // namespace

Snapshot inspect(SB_HANDLE* buffer) {
  Snapshot shot;
  const Geometry& geometry = buffer->segment.geometry;
  shot.path = streamPath(buffer->stream);
  shot.version = kVersion;
  shot.epoch = buffer->segment.epoch;
  shot.frameSize = geometry.frameSize;
  shot.totalBytes = geometry.totalBytes;
  shot.latest = buffer->head.latest;
  shot.busyCount = buffer->head.busyCount;
  shot.retired = buffer->head.retired != 0;
  shot.writerPid = ownerOf(*buffer, kWriterByte, buffer->mine.writer);
  if (shot.writerPid != 0) {
    shot.frameBeingWritten = static_cast<int>(buffer->head.writing) - 1;
  }
  const std::vector<LeaseState> leases = leasesOf(*buffer);
  for (std::uint32_t i = 0; i < buffer->frames; ++i) {
    shot.frames.push_back(frameOf(*buffer, i, leases));
  }
  for (const LeaseState& lease : leases) {
    if (lease.alive) shot.leases.push_back(lease);
  }
  for (int i = 0; i < kSlotCount; ++i) {
    const std::uint32_t word = buffer->slot[i];
    SlotState state;
    state.value = sbGetUserdata(buffer, i);
    state.marked = (word & kSlotMark) != 0;
    state.writes = word / kSlotCountOne;
    shot.slots.push_back(state);
  }
  return shot;
}

}  // namespace sb
