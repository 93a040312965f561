// The newest frame of "video", as far as people want to know it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/linux/vol_header.h"
#include "tools/camctl/frame_chunks.h"

struct NewestFrame {
  std::uint32_t number = 0;
  FrameKind kind = FrameKind::kUnknown;
  PictureSize size{};  // of an MPEG-4 stream; otherwise zeros
  std::size_t length = 0;
  std::string motion[2];  // levels of the two windows; empty: the window is not in use
};

// Returns false iff there is none that is a few seconds old at the most.
bool findNewestFrame(NewestFrame* newest);

// Returns "MPEG-4", "JPEG" or "unknown".
const char* kindName(FrameKind kind);
