// Definitions of the motion windows.
#pragma once

#include <cstdint>

// One window in a picture of 640x480, the same layout, little-endian, in files.
struct tag_MotionDetect {
  std::int32_t enable;  // above 0: in use
  std::int32_t x;       // left edge in pixels
  std::int32_t y;       // top edge
  std::int32_t width;
  std::int32_t height;
  std::int32_t threshold;  // level above which there is motion
  std::int32_t reserved[34];
};
static_assert(sizeof(tag_MotionDetect) == 160, "other processes write this record");

// Getter of the camera's configuration database, /etc/camera.conf: see docs/configuration.md.
// `window`: 1 or 2. 0 on success; otherwise non-zero (the window's section or its key Enable is
// absent) and `*record` is unchanged. Any thread.
int get_motion_detect(tag_MotionDetect* record, int window);
