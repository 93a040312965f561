#include "board/hardware/motion_meter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kBlock = 8;  // pixels
constexpr int kStep = 2;   // every second pixel of every second row is looked at
// The mean difference of the pixels of a block that counts as noticeable. A camera's own noise
// stays below half of it.
constexpr int kNoticeable = 8;

}  // namespace

int MotionMeter::measure(const AVFrame& picture, std::int64_t number, const Rectangle& window) {
  if (number != number_) {
    constexpr std::size_t kColumns = kSceneWidth;
    comparable_ = number_ >= 0 && number - number_ < kForgetPictures;
    number_ = number;
    now_.swap(before_);
    now_.resize(kColumns * kSceneHeight);
    for (int row = 0; row < kSceneHeight; ++row)
      std::memcpy(&now_[kColumns * static_cast<std::size_t>(row)],
                  picture.data[0] + static_cast<std::ptrdiff_t>(picture.linesize[0]) * row,
                  kColumns);
  }
  return comparable_ ? share(window) : 0;
}

int MotionMeter::share(const Rectangle& window) const {
  const auto end = [](int begin, int length, int limit) {
    return static_cast<int>(std::min<std::int64_t>(std::int64_t{begin} + length, limit));
  };
  const int left = std::max(window.x, 0);
  const int top = std::max(window.y, 0);
  const int right = end(window.x, window.width, kSceneWidth);
  const int bottom = end(window.y, window.height, kSceneHeight);
  int blocks = 0;
  int moving = 0;
  for (int y = top; y < bottom; y += kBlock) {
    for (int x = left; x < right; x += kBlock) {
      ++blocks;
      if (changed(x, y, std::min(x + kBlock, right), std::min(y + kBlock, bottom))) ++moving;
    }
  }
  return blocks == 0 ? 0 : (moving * 100 + blocks - 1) / blocks;
}

bool MotionMeter::changed(int left, int top, int right, int bottom) const {
  int difference = 0;
  int count = 0;
  for (int y = top; y < bottom; y += kStep) {
    const std::size_t row = static_cast<std::size_t>(kSceneWidth) * static_cast<std::size_t>(y);
    for (int x = left; x < right; x += kStep) {
      const std::size_t at = row + static_cast<std::size_t>(x);
      difference += std::abs(now_[at] - before_[at]);
      ++count;
    }
  }
  return difference >= kNoticeable * count;
}
