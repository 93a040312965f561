// Stream buffers: frames and status slots in shared memory. The layout for other processes is in
// docs/stream-buffer.md.
#pragma once

#include <cstddef>
#include <cstdint>

struct SB_HANDLE;  // one attached buffer; never freed once given out

// The record at the start of every frame. All integers are 32-bit little-endian, unaligned (load
// and store them with platform/bytes.h); all members are bytes, so that any buffer address will do.
struct SB_FRAME {
  unsigned char seconds[4];  // of the capture time
  unsigned char microseconds[4];
  unsigned char length[4];  // of the payload in bytes; below 1: the frame is not shown to readers
  unsigned char number[4];  // consecutive in one stream: a hole means lost frames
  char userdata[3][48];     // texts of the camera
  char payload[1];          // as long as the frame: sbGetFrameSize() - kFrameHeadBytes
};
constexpr std::size_t kFrameHeadBytes = offsetof(SB_FRAME, payload);
static_assert(kFrameHeadBytes == 160 && alignof(SB_FRAME) == 1, "other processes read this record");

// The buffers "video" and "video2". Call before each use: it costs one load, attaches when need be
// and notices a replaced segment. Returns null while there is none. Any thread.
SB_HANDLE* sbVideo();
SB_HANDLE* sbVideo2();
SB_HANDLE* sbAudio();

// Size of one frame in bytes, record included; 0 for null. Never changes for a handle. Any thread.
long sbGetFrameSize(SB_HANDLE* buffer);

// Status slots: 32-bit words with a written-since-tested mark. Null is allowed everywhere: it reads
// as 0 and "not written", and writes nowhere; so does a slot out of range. Any thread or process,
// never blocks; logs nothing but what other processes have done to the buffer. Each tested slot has
// exactly one tester.
constexpr int kSlotCount = 32;
// Returns the value of `slot` and leaves the mark alone.
int sbGetUserdata(SB_HANDLE* buffer, int slot);
// Stores `value` and sets the mark, also when the value stays the same.
void sbSetUserdata(SB_HANDLE* buffer, int slot, int value);
// Clears the mark and returns the value iff the slot was written since the last test; otherwise -1.
// A written -1 can't be told from "not written": settings use -1 for "unset".
int sbTestUserdata(SB_HANDLE* buffer, int slot);

// One frame of a buffer for as long as the object lives. Bound to one thread.
class TAutoFrame {
 public:
  // Without cursors (both null): reserves a frame for writing; the destructor publishes it under
  // the length in its record. With cursors: pins the next frame for reading. `age`: how far back,
  // in ms, a reader without a place may join. `number`, `epoch`: the reader's place, both 0 at
  // first; one that fell behind gets the oldest frame there is. `wait`: limit in ms, monotonic; a
  // wait ends early when the body of the calling PThread was asked to stop. A null `buffer` gives
  // no frame at once.
  TAutoFrame(SB_HANDLE* buffer, long age, std::int32_t* number, std::int32_t* epoch, long wait);
  TAutoFrame(const TAutoFrame&) = delete;
  TAutoFrame& operator=(const TAutoFrame&) = delete;
  ~TAutoFrame();

  // Returns true iff there is a frame.
  explicit operator bool() const { return frame_ != nullptr; }
  // The frame; null iff there is none. Readers must not write to it: the memory is read-only for
  // them.
  SB_FRAME* get() const { return frame_; }
  SB_FRAME* operator->() const { return frame_; }

 private:
  SB_HANDLE* buffer_;
  SB_FRAME* frame_ = nullptr;
  int index_ = -1;
  bool writing_;
  std::uint32_t generation_ = 0;  // of the process, which a fork ends
};
