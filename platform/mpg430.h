// Interface of the driver of the MPEG-4 encoder, the device node "/dev/mpg430".
//
// A read gives one chunk of the stream: a picture's first chunk begins with its start code, what is
// too long for one read follows in further chunks.
#pragma once

#include <cstdint>

// Requests. `argument` points to an int32, if not told otherwise; the driver leaves in it what it
// has set.
constexpr unsigned kMpg430SetMode = 0x00800000;        // index of a resolution
constexpr unsigned kMpg430SetFrate = 0x00A00000;       // frame rate
constexpr unsigned kMpg430StreamStart = 0x01100000;    // 1 starts, 0 stops
constexpr unsigned kMpg430GetImgheader = 0x01200000;   // buffer of the header; returns its length
constexpr unsigned kMpg430Mpeg4Qa = 0x01300000;        // quantiser
constexpr unsigned kMpg430VideoSource = 0x02000000;    // number of a video input
constexpr unsigned kMpg430VideoSetcolor = 0x02200000;  // TMpg430Colour
constexpr unsigned kMpg430SetIpvalue = 0x02700000;     // predicted pictures for each key picture

// Video object and video object layer header of ISO/IEC 14496-2.
constexpr int kMpg430HeaderBytes = 20;

struct TMpg430Colour {
  std::int16_t brightness;
  std::int16_t hue;
  std::int16_t saturation;
  std::int16_t contrast;
};
static_assert(sizeof(TMpg430Colour) == 8, "the driver reads this record");
