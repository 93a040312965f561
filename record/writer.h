// The path into the stream buffer "video2", which holds what recorders can use: whole pictures.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "platform/date_time.h"

struct SB_HANDLE;

// Base of the two frame writers. A writer copies frames into "video2" only while somebody has
// registered interest in them.
//
// Threads: write() is bound to the capture thread; addRef(), delRef() and getRef() may be called on
// any thread, also at the same instant, and take no lock.
class TWriter {
 public:
  // `timeout`: kept, not consulted; see timeout().
  explicit TWriter(long timeout);
  TWriter(const TWriter&) = delete;
  TWriter& operator=(const TWriter&) = delete;
  virtual ~TWriter();

  // Publishes `length` bytes as one frame of "video2", stamped with `time` and the writer's next
  // sequence number. `type`: the frame type code of the camera ('I', 'P', 'i', 'p', 'J'), not
  // stored. Returns `length`, or 0 when the frame was dropped, which uses up no number.
  // Logs 2 "TWriter::write() video2 buffer overflow" when the frame is too large,
  // logs 1 "video2 buffer busy" when the buffer has no free frame.
  virtual long write(const char* data, long length, const TDateTime& time, char type);

  // Registers `client`, which may be any address and is never looked into; once, however often it
  // is asked for. Logs 2 "TWriter::add() clients buffer overflow" when all slots are taken.
  void addRef(const void* client);
  // Takes `client` off the list; an unknown one changes nothing.
  void delRef(const void* client);
  // Returns true iff any client is registered.
  bool getRef() const;

  // Always true. Intended: the writers never throttle by time, though they know a time-out.
  bool timeout(const TDateTime& time) const;

  // Returns the largest payload of a frame of `buffer`, never negative: for the current "video" and
  // "video2" only, 0 for null and any other. Worked out once per buffer. Any thread.
  static long getFrameSize(SB_HANDLE* buffer);

  static constexpr int kClients = 30;

 private:
  int seek(const void* client) const;
  void dropDoubles(const void* client);

  std::array<std::atomic<const void*>, kClients> clients_{};  // null: free
  std::uint32_t sequence_ = 0;
  [[maybe_unused]] long timeout_;
  TDateTime last_;  // of the last frame written
};
