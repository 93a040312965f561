#include "board/hardware/colour.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace {

constexpr int kStep = 256;
constexpr int kNeutralBrightness = 127;
constexpr int kRange = 128;   // steps from nothing to neutral, and on to twice as much
constexpr int kOneBits = 12;  // of fixed-point factors
constexpr int kOne = 1 << kOneBits;
constexpr int kMidLuma = 126;  // between black (16) and white (235)
constexpr int kNoChroma = 128;
constexpr double kPi = 3.14159265358979323846;

int brightnessSteps(std::int16_t value) {
  return static_cast<std::uint16_t>(value) / kStep - kNeutralBrightness;
}

int centredSteps(std::int16_t value) { return value == INT16_MIN ? kRange : value / kStep; }

std::uint8_t clampByte(int value) { return static_cast<std::uint8_t>(std::clamp(value, 0, 255)); }

}  // namespace

ColourFilter::ColourFilter(const TMpg430Colour& setting) {
  const int brightness = brightnessSteps(setting.brightness);
  const int contrast = centredSteps(setting.contrast);
  const int saturation = centredSteps(setting.saturation);
  const int hue = centredSteps(setting.hue);
  for (int value = 0; value < 256; ++value)
    luma_[static_cast<std::size_t>(value)] = static_cast<std::uint8_t>(std::clamp(
        (value - kMidLuma) * (kRange + contrast) / kRange + kMidLuma + brightness, 16, 235));
  keepsLuma_ = brightness == 0 && contrast == 0;
  keepsChroma_ = saturation == 0 && hue == 0;
  const double factor = kOne * (1.0 + static_cast<double>(saturation) / kRange);
  const double angle = hue * kPi / kRange;
  cosine_ = static_cast<int>(std::lround(factor * std::cos(angle)));
  sine_ = static_cast<int>(std::lround(factor * std::sin(angle)));
}

void ColourFilter::apply(AVFrame* picture) const {
  for (int y = 0; !keepsLuma_ && y < picture->height; ++y) {
    std::uint8_t* row = picture->data[0] + y * picture->linesize[0];
    for (int x = 0; x < picture->width; ++x) row[x] = luma_[row[x]];
  }
  constexpr int kHalf = kOne / 2;
  for (int y = 0; !keepsChroma_ && y < picture->height / 2; ++y) {
    std::uint8_t* blue = picture->data[1] + y * picture->linesize[1];
    std::uint8_t* red = picture->data[2] + y * picture->linesize[2];
    for (int x = 0; x < picture->width / 2; ++x) {
      const int u = blue[x] - kNoChroma;
      const int v = red[x] - kNoChroma;
      blue[x] = clampByte(((u * cosine_ - v * sine_ + kHalf) >> kOneBits) + kNoChroma);
      red[x] = clampByte(((u * sine_ + v * cosine_ + kHalf) >> kOneBits) + kNoChroma);
    }
  }
}
