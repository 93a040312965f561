// A reader of the stream that lives longer than many daemons.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "tests/board/stream_check/check.h"
#include "tests/torture/kills/pictures.h"

// Reads every frame of "video" in a thread of its own and judges it.
class FrameWatch {
 public:
  // `pictures`: what the frames hold, null: a sensor's or encoder's stream. Must outlive this.
  explicit FrameWatch(const Pictures* pictures);
  FrameWatch(const FrameWatch&) = delete;
  FrameWatch& operator=(const FrameWatch&) = delete;
  ~FrameWatch();

  // When the first frame came that was taken after `wallUs`, in ms of the monotonic clock; 0 while
  // there is none. Any thread.
  double firstAfter(std::int64_t wallUs) const;
  // Milliseconds from the frame with these bytes to the newest one; -1: no such frame is known. Any
  // thread.
  long behind(const std::string& bytes) const;

  // Whether frames may come whose stream header is all zeros, as it is when the driver fails; they
  // are not judged. Any thread.
  void mayLackHeaders(bool may) { mayLackHeaders_ = may; }

  // Judges a file of a sensor camera on its own: a JPEG picture, or a header and a key picture. Any
  // thread.
  static bool isPicture(const std::string& content);

  // For when it is over.
  void stop();
  long frames() const { return frames_; }
  long errors() const { return errors_; }
  std::string complaint() const { return complaint_; }

 private:
  struct Seen {
    std::int64_t wallUs;
    double atMs;
    std::string bytes;  // of a stream: the payload
  };
  void read();
  void take(const RawFrame& frame);
  void judge(const RawFrame& frame);
  void fail(const RawFrame& frame, const std::string& what);

  const Pictures* const pictures_;
  StreamCheck check_{false, 0};
  std::int32_t number_ = 0, epoch_ = 0;
  std::uint32_t lastNumber_ = 0;
  std::int32_t lastEpoch_ = 0;
  long frames_ = 0, errors_ = 0;
  std::string complaint_;

  mutable std::mutex mutex_;
  std::deque<Seen> seen_;  // of the last seconds
  std::atomic<bool> over_{false};
  std::atomic<bool> mayLackHeaders_{false};
  std::thread thread_;
};
