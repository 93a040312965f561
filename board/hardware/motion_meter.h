// Measures motion in windows of the scene.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "board/hardware/scene.h"

// Remembers what was to be seen a moment ago. Bound to one thread. Looks at light and dark alone.
class MotionMeter {
 public:
  // `picture`: of the scene's size. `number`: grows by one with each picture that the scene has;
  // one that was seen already changes nothing.
  void see(const AVFrame& picture, std::int64_t number);

  // Returns how much of the window has changed: the share of its blocks of 8x8 pixels that differ
  // noticeably from any of the pictures of the last kSpanPictures, in per cent, rounded up. So a
  // movement shows at once and for that long, and who asks less often does not miss it. `window`:
  // what lies outside the scene does not count; 0 for one without any pixel inside. Where no
  // picture is that young the one before counts, unless it is kForgetPictures old: what was long
  // ago is no motion.
  int level(const Rectangle& window) const;

  static constexpr std::int64_t kSpanPictures = 6;  // 0.2 s
  static constexpr std::int64_t kForgetPictures = 90;

 private:
  struct Seen {
    std::int64_t number;
    std::vector<std::uint8_t> luma;
  };
  std::deque<Seen> seen_;  // in their order; the last is what is to be seen now
};
