// The colour settings of the encoder's video inputs.
#pragma once

#include <array>
#include <cstdint>

#include "board/hardware/picture.h"
#include "platform/mpg430.h"

// What a TMpg430Colour does to a picture. Constant once made: any thread.
//
// Brightness runs from 0 over 127 * 256 (neutral) to 255 * 256, read without a sign. The others run
// from -127 * 256 over 0 (neutral) to 128 * 256, which a 16-bit word shows as -32768. One step of
// 256 makes a picture brighter by one, and turns the hue by 1/128 of half a circle; saturation and
// contrast go from nothing to twice the picture's own.
class ColourFilter {
 public:
  explicit ColourFilter(const TMpg430Colour& setting);

  void apply(AVFrame* picture) const;  // AV_PIX_FMT_YUV420P

 private:
  bool keepsLuma_;
  bool keepsChroma_;
  std::array<std::uint8_t, 256> luma_;
  int cosine_;  // times the saturation, in 1/kOne
  int sine_;
};

// Leaves every picture as it is.
constexpr TMpg430Colour kNeutralColour = {127 * 256, 0, 0, 0};
