// The camera's frames as a tool takes them.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "platform/bytes.h"
#include "platform/stream_buffer.h"
#include "tools/camctl/frame_chunks.h"

constexpr long kWaitMs = 200;        // one wait, so that Ctrl-C is noticed
constexpr long kNoPictureMs = 3000;  // a camera without a frame for so long delivers none

// The place of one reader in the stream "video". Bound to one thread.
class FrameReader {
 public:
  // A frame for as long as the object lives; false when none came within `waitMs`. The first one is
  // the oldest of the last `ageMs`, or else the next that the camera publishes.
  class Frame {
   public:
    Frame(FrameReader* reader, long waitMs, long ageMs = 0)
        : buffer_(sbVideo()), frame_(buffer_, ageMs, &reader->number_, &reader->epoch_, waitMs) {
      if (!frame_) return;
      // The length is another process's word: what lies beyond the frame is never touched.
      largest_ = sbGetFrameSize(buffer_) - static_cast<long>(kFrameHeadBytes);
      const auto length = static_cast<std::int32_t>(loadLe32(frame_->length));
      length_ = length < largest_ ? length : largest_;
    }

    explicit operator bool() const { return static_cast<bool>(frame_); }
    const SB_FRAME* record() const { return frame_.get(); }
    const char* payload() const { return frame_->payload; }
    std::size_t length() const { return static_cast<std::size_t>(length_ > 0 ? length_ : 0); }
    std::uint32_t number() const { return loadLe32(frame_->number); }

    // The camera's text `which`, 0 to 2.
    std::string text(int which) const {
      const auto& text = frame_->userdata[which];
      return {text, strnlen(text, sizeof text)};
    }
    FrameChunks content() const {
      return {payload(), length(), static_cast<std::size_t>(largest_)};
    }

   private:
    SB_HANDLE* buffer_;
    TAutoFrame frame_;
    long length_ = 0;
    long largest_ = 0;
  };

 private:
  std::int32_t number_ = 0;
  std::int32_t epoch_ = 0;
};
