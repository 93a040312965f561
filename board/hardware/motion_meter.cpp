#include "board/hardware/motion_meter.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace {

constexpr int kBlock = 8;  // pixels
constexpr int kStep = 2;   // every second row is looked at
// The mean difference of the pixels of a block that counts as noticeable. A camera's own noise
// stays below half of it.
constexpr int kNoticeable = 8;

using Columns = std::array<std::uint16_t, kSceneWidth>;

// Sums the differences of two pictures in each column of the rows from `top` to `bottom`.
Columns difference(const std::uint8_t* one, const std::uint8_t* other, int left, int right, int top,
                   int bottom) {
  Columns sums{};
  for (int y = top; y < bottom; y += kStep) {
    const std::ptrdiff_t row = std::ptrdiff_t{kSceneWidth} * y;
    for (int x = left; x < right; ++x) {
      const int apart = std::abs(one[row + x] - other[row + x]);
      sums[static_cast<std::size_t>(x)] =
          static_cast<std::uint16_t>(sums[static_cast<std::size_t>(x)] + apart);
    }
  }
  return sums;
}

}  // namespace

void MotionMeter::see(const AVFrame& picture, std::int64_t number) {
  constexpr std::size_t kColumns = kSceneWidth;
  if (!seen_.empty() && seen_.back().number == number) return;
  seen_.push_back({number, {}});
  // What has become too old lends its memory to the new one; the one before it always stays.
  while (seen_.size() > 2 && number - seen_.front().number > kSpanPictures) {
    seen_.back().luma.swap(seen_.front().luma);
    seen_.pop_front();
  }
  std::vector<std::uint8_t>& luma = seen_.back().luma;
  luma.resize(kColumns * kSceneHeight);
  for (int row = 0; row < kSceneHeight; ++row)
    std::memcpy(&luma[kColumns * static_cast<std::size_t>(row)],
                picture.data[0] + static_cast<std::ptrdiff_t>(picture.linesize[0]) * row, kColumns);
}

int MotionMeter::level(const Rectangle& window) const {
  if (seen_.size() < 2 || seen_.back().number - seen_.front().number >= kForgetPictures) return 0;
  const auto end = [](int begin, int length, int limit) {
    return static_cast<int>(std::min<std::int64_t>(std::int64_t{begin} + length, limit));
  };
  const int left = std::max(window.x, 0);
  const int top = std::max(window.y, 0);
  const int right = end(window.x, window.width, kSceneWidth);
  const int bottom = end(window.y, window.height, kSceneHeight);
  if (left >= right || top >= bottom) return 0;
  int blocks = 0;
  int moving = 0;
  for (int y = top; y < bottom; y += kBlock) {
    std::bitset<kSceneWidth / kBlock + 1> changed;
    for (std::size_t older = 0; older + 1 < seen_.size(); ++older) {
      const Columns sums = difference(seen_.back().luma.data(), seen_[older].luma.data(), left,
                                      right, y, std::min(y + kBlock, bottom));
      for (int x = left; x < right; x += kBlock) {
        const int next = std::min(x + kBlock, right);
        const int rows = (std::min(y + kBlock, bottom) - y + kStep - 1) / kStep;
        const int sum = std::accumulate(sums.begin() + x, sums.begin() + next, 0);
        if (sum >= kNoticeable * rows * (next - x))
          changed.set(static_cast<std::size_t>((x - left) / kBlock));
      }
    }
    moving += static_cast<int>(changed.count());
    blocks += (right - left + kBlock - 1) / kBlock;
  }
  return (moving * 100 + blocks - 1) / blocks;
}
