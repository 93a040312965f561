// Measures motion in one window of the scene.
#pragma once

#include <cstdint>
#include <vector>

#include "board/hardware/scene.h"

// Bound to one thread. Looks at light and dark alone.
class MotionMeter {
 public:
  // Returns how much of the window has changed from the picture that was measured before this one:
  // the share of its blocks of 8x8 pixels that differ noticeably, in per cent, rounded up.
  // `picture`: of the scene's size. `number`: grows with each new picture; one that was measured
  // already has the level that it had. `window`: what lies outside the scene does not count; 0 for
  // one without any pixel inside. The first picture has level 0, and so has one that comes
  // kForgetPictures and more after the one before: what was long ago is no motion.
  int measure(const AVFrame& picture, std::int64_t number, const Rectangle& window);

  static constexpr std::int64_t kForgetPictures = 90;

 private:
  int share(const Rectangle& window) const;
  bool changed(int left, int top, int right, int bottom) const;

  std::vector<std::uint8_t> now_;
  std::vector<std::uint8_t> before_;
  std::int64_t number_ = -1;
  bool comparable_ = false;
};
