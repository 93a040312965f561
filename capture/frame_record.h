// The record at the start of every frame of "video", as the capture thread fills it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/bytes.h"
#include "platform/date_time.h"
#include "platform/stream_buffer.h"

static_assert(offsetof(SB_FRAME, seconds) == 0 && offsetof(SB_FRAME, microseconds) == 4 &&
                  offsetof(SB_FRAME, length) == 8 && offsetof(SB_FRAME, number) == 12 &&
                  offsetof(SB_FRAME, userdata) == 16 && offsetof(SB_FRAME, payload) == 160,
              "other processes read this record");

constexpr int kFrameTexts = 3;  // texts of the camera
constexpr std::size_t kFrameTextSize = sizeof(SB_FRAME::userdata) / kFrameTexts;  // terminated
static_assert(kFrameTextSize == 48, "other processes read this record");

// Writes time, length and number. `length`: of the payload; below 1 the frame is not shown.
inline void stampFrame(SB_FRAME& frame, const TDateTime& time, int length, int number) {
  storeLe32(frame.seconds, time.seconds());
  storeLe32(frame.microseconds, time.microseconds());
  storeLe32(frame.length, static_cast<std::uint32_t>(length));
  storeLe32(frame.number, static_cast<std::uint32_t>(number));
}
