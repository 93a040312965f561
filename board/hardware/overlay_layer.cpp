#include "board/hardware/overlay_layer.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr int kOpaque = 255;

// Sums of the pixels that share a value; colours still multiplied by alpha.
struct Sum {
  int alpha = 0;
  int red = 0;
  int green = 0;
  int blue = 0;

  void add(std::uint32_t pixel) {
    alpha += static_cast<int>(pixel >> 24);
    red += static_cast<int>(pixel >> 16 & 0xFF);
    green += static_cast<int>(pixel >> 8 & 0xFF);
    blue += static_cast<int>(pixel & 0xFF);
  }
};

// ITU-R BT.601 in the limited range. The factors are in 1/65536, for colours of 0 to 255.
int valueOf(const Sum& sum, int plane) {
  constexpr int kFactors[3][4] = {{1052689, 16829, 33039, 6416},
                                  {8421505, -9714, -19070, 28784},
                                  {8421505, 28784, -24103, -4681}};
  const int* f = kFactors[plane];
  const std::int64_t offset = std::int64_t{f[0]} * sum.alpha / kOpaque;
  return static_cast<int>(
      (offset + f[1] * sum.red + f[2] * sum.green + f[3] * sum.blue + (1 << 15)) >> 16);
}

}  // namespace

OverlayLayer::OverlayLayer(const std::vector<std::uint32_t>& pixels, int width, int height, int x,
                           int y) {
  const auto even = [](std::int64_t value) { return static_cast<int>(value + 1) & ~1; };
  const int left = std::max(x, 0) & ~1;
  const int top = std::max(y, 0) & ~1;
  const int right = even(std::min<std::int64_t>(std::int64_t{x} + width, kSceneWidth));
  const int bottom = even(std::min<std::int64_t>(std::int64_t{y} + height, kSceneHeight));
  if (left >= right || top >= bottom) return;
  x_ = left;
  y_ = top;
  width_ = right - left;
  height_ = bottom - top;
  for (int plane = 0; plane < 3; ++plane) {
    const int side = plane == 0 ? 1 : 2;  // pixels that share a value, in both directions
    const int columns = width_ / side;
    const int rows = height_ / side;
    Plane& to = planes_[plane];
    to.values.reserve(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows));
    to.rest.reserve(to.values.capacity());
    for (int row = 0; row < rows; ++row) {
      for (int column = 0; column < columns; ++column) {
        Sum sum;
        for (int at = 0; at < side * side; ++at) {
          const int px = left - x + column * side + at % side;
          const int py = top - y + row * side + at / side;
          if (px < 0 || py < 0 || px >= width || py >= height) continue;
          sum.add(pixels[static_cast<std::size_t>(py) * static_cast<std::size_t>(width) +
                         static_cast<std::size_t>(px)]);
        }
        const int value = valueOf(sum, plane) / (side * side);
        to.values.push_back(static_cast<std::uint8_t>(std::clamp(value, 0, 255)));
        to.rest.push_back(static_cast<std::uint8_t>(kOpaque - sum.alpha / (side * side)));
      }
    }
  }
}

void OverlayLayer::blend(AVFrame* picture) const {
  for (int plane = 0; plane < 3; ++plane) {
    const int side = plane == 0 ? 1 : 2;
    const int columns = width_ / side;
    const std::uint8_t* values = planes_[plane].values.data();
    const std::uint8_t* rest = planes_[plane].rest.data();
    for (int row = 0; row < height_ / side; ++row) {
      std::uint8_t* to = picture->data[plane] + x_ / side +
                         static_cast<std::ptrdiff_t>(picture->linesize[plane]) * (y_ / side + row);
      for (int x = 0; x < columns; ++x) {
        const int left = to[x] * rest[x] + 128;  // divided by 255, rounded
        to[x] = static_cast<std::uint8_t>(values[x] + ((left + (left >> 8)) >> 8));
      }
      values += columns;
      rest += columns;
    }
  }
}
