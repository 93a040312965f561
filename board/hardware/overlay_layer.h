// One overlay, drawn once and blended into every picture.
#pragma once

#include <cstdint>
#include <vector>

#include "board/hardware/picture.h"

// Something drawn that covers a part of the picture, ready to be blended into it.
class OverlayLayer {
 public:
  OverlayLayer() = default;  // covers nothing

  // `pixels`: `width` x `height`, ARGB in words as Cairo has them: colours multiplied by alpha.
  // `x`, `y`: where in the picture the top left corner is; what lies outside is cut off.
  OverlayLayer(const std::vector<std::uint32_t>& pixels, int width, int height, int x, int y);

  // `picture`: of the scene's size.
  void blend(AVFrame* picture) const;

 private:
  // A plane holds the overlay's part of each value, beside it what of 255 is left of the picture.
  struct Plane {
    std::vector<std::uint8_t> values;
    std::vector<std::uint8_t> rest;
  };

  int x_ = 0;  // even, as are all four, for the colours have half the resolution
  int y_ = 0;
  int width_ = 0;
  int height_ = 0;
  Plane planes_[3];
};
