// The bytes of a stream buffer's segment, as every process sees them. docs/stream-buffer.md tells
// what the words mean.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace sb {

// A word of shared memory: native byte order, lock-free on every target.
using Word = std::atomic<std::uint32_t>;
static_assert(sizeof(Word) == 4 && alignof(Word) == 4, "a word is a word in every process");
static_assert(Word::is_always_lock_free, "a lock inside a word would be private to a process");

constexpr std::uint32_t kMagic = 0x5642'5546;  // "VBUF" as a word: other byte orders don't match
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kLeases = 64;
constexpr std::uint32_t kLeaseWords = kLeases / 32;  // of one frame's holders
constexpr std::uint32_t kSlots = 32;
constexpr std::uint32_t kMinFrames = 2;  // one to write while one is read
constexpr std::uint32_t kMaxFrames = 64;
constexpr std::uint32_t kMinFrameSize = 1024;
constexpr std::uint32_t kMaxFrameSize = 4 << 20;  // 64 of them still fit 32-bit offsets

// The first 192 bytes of a segment. What the first 128 hold stays in its place in every version, so
// that a creator can retire a segment of another version and wake its waiters.
//
//   0    magic, version, head_bytes, total_bytes
//   16   frames N, frame_size F, stride, leases L
//   32   slots S, epoch, data_offset, 0
//   48   retired, 0, 0, 0
//   64   latest (futex), readers_wait, writer_pid, writing, busy_count
//   128  freed (futex), writer_waits
//   192  seq[N]            0: empty or being written; otherwise the frame's number
//        stamp[N]          publish time, monotonic, ms
//        holders[N][L/32]  bit i: lease i pins the frame
//        lease_pid[L]
//        slot[S]           control words
//        cell[L][S][2]     slot values
//   data_offset            N frames, each at a multiple of the stride; pages of their own
struct Head {
  Word magic, version, headBytes, totalBytes;
  Word frames, frameSize, stride, leases;
  Word slots, epoch, dataOffset, unused;
  Word retired, pad1[3];
  Word latest, readersWait, writerPid, writing, busyCount, pad2[11];
  Word freed, writerWaits, pad3[14];
};
static_assert(sizeof(Head) == 192, "the arrays begin at 192");
static_assert(offsetof(Head, frames) == 16 && offsetof(Head, slots) == 32, "geometry");
static_assert(offsetof(Head, retired) == 48, "retired is found in every version");
static_assert(offsetof(Head, latest) == 64, "what the writer changes is one cache line");
static_assert(offsetof(Head, freed) == 128, "what readers change is another");

// Sizes and places within one segment, worked out from the frames' number and size.
struct Geometry {
  std::uint32_t frames = 0;
  std::uint32_t frameSize = 0;  // record and payload
  std::uint32_t stride = 0;
  std::uint32_t dataOffset = 0;
  std::uint32_t headBytes = 0;
  std::uint32_t totalBytes = 0;
  std::uint32_t seqAt = 0, stampAt = 0, holdersAt = 0, leasePidAt = 0, slotAt = 0, cellAt = 0;
};

constexpr std::uint32_t roundUp(std::uint32_t value, std::uint32_t unit) {
  return (value + unit - 1) / unit * unit;
}

constexpr bool frameCountFits(std::uint32_t n) { return n >= kMinFrames && n <= kMaxFrames; }
constexpr bool frameSizeFits(std::uint32_t n) { return n >= kMinFrameSize && n <= kMaxFrameSize; }

// `page`: what frames are aligned to, a multiple of the system's page size.
constexpr Geometry makeGeometry(std::uint32_t frames, std::uint32_t frameSize, std::uint32_t page) {
  Geometry g;
  g.frames = frames;
  g.frameSize = frameSize;
  g.stride = roundUp(frameSize, page);
  g.seqAt = sizeof(Head);
  g.stampAt = g.seqAt + 4 * frames;
  g.holdersAt = g.stampAt + 4 * frames;
  g.leasePidAt = g.holdersAt + 4 * frames * kLeaseWords;
  g.slotAt = g.leasePidAt + 4 * kLeases;
  g.cellAt = g.slotAt + 4 * kSlots;
  g.headBytes = g.cellAt + 4 * kLeases * kSlots * 2;
  g.dataOffset = roundUp(g.headBytes, page);
  g.totalBytes = g.dataOffset + frames * g.stride;
  return g;
}
static_assert(makeGeometry(2, 1024, 4096).cellAt == makeGeometry(2, 1024, 4096).slotAt + 4 * kSlots,
              "cells follow the control words");
static_assert(makeGeometry(16, 256 << 10, 4096).headBytes == 192 + 16 * 16 + 256 + 128 + 16384, "");
static_assert(makeGeometry(16, 256 << 10, 4096).dataOffset == 20480, "");
static_assert(makeGeometry(16, 256 << 10, 4096).totalBytes == 20480 + (4 << 20), "");

// A slot's control word: count (24 bits), mark, cell, lease (6 bits).
constexpr std::uint32_t kSlotLeaseMask = kLeases - 1;
constexpr std::uint32_t kSlotCell = 1U << 6;
constexpr std::uint32_t kSlotMark = 1U << 7;
constexpr std::uint32_t kSlotCountOne = 1U << 8;
static_assert(kLeases == 64, "a lease fits its six bits");

// Bytes of the file that carry `fcntl` write locks: lease i is byte i, the writer is the next one.
constexpr int kWriterByte = kLeases;

}  // namespace sb
