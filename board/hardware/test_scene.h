// The scene that is built in.
#pragma once

#include <ctime>

#include "board/hardware/font_use.h"
#include "board/hardware/overlay_layer.h"
#include "board/hardware/scene.h"

// Colour bars over a grey ramp, the time of day in kClock, and, while something is to move, a
// bright ball with a dark rim that bounces inside the rectangle it was given, several pixels from
// picture to picture. A function of time alone. Nothing else ever changes, so a motion window that
// leaves out kClock sees the ball and nothing but the ball.
class TestScene : public Scene {
 public:
  static constexpr Rectangle kClock = {0, 0, 200, 40};

  // `start`: the time of day at time 0; shown in the process's time zone.
  explicit TestScene(std::time_t start);

  void draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) override;

 private:
  FontUse fonts_;
  const std::time_t start_;
  Picture background_;  // with the clock
  std::time_t shown_;
};
