// The overlays and motion windows in the configuration of the fake platform.
#pragma once

#include <optional>

#include "platform/motion.h"
#include "platform/overlay.h"

// What the getters give; without a value a getter fails, as where the section is absent. Failures
// also by their names, "get_overlay_text", "get_motion_detect", "read_overlay_image". The overlay
// image is the content of the file that stands for the device. In the list of calls:
//   get_overlay_image()  get_motion_detect(1)  read_overlay_image(/dev/mtdblock2,32768)
struct FakeOverlays {
  std::optional<tag_Overlay> image;
  std::optional<tag_Overlay> motion;
  std::optional<tag_Overlay> text;
  std::optional<tag_MotionDetect> windows[2];
};
