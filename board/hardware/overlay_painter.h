// Draws the overlays into the sensor's picture.
#pragma once

#include <string>

#include "board/hardware/font_use.h"
#include "board/hardware/overlay_layer.h"
#include "board/hardware/sensor_settings.h"

// Bound to one thread. Draws only what has changed since the picture before.
class OverlayPainter {
 public:
  // Puts the enabled overlays into `picture`, of the scene's size: the graphic, above it the motion
  // text, above that date and time.
  void paint(const SensorSettings& settings, AVFrame* picture);

 private:
  FontUse fonts_;
  GraphicOverlay graphic_;  // as the layers show them
  TextOverlay motionText_;
  TextOverlay dateTime_;
  OverlayLayer graphicLayer_;
  OverlayLayer motionLayer_;
  OverlayLayer dateTimeLayer_;
};

// Returns `text` as it is drawn: what is no UTF-8 becomes U+FFFD, control characters become blanks.
std::string displayable(const std::string& text);
