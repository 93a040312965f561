// The image sensor with its signal processor: "/dev/video0".
#pragma once

#include <cstdint>
#include <memory>

#include "board/hardware/device.h"
#include "board/hardware/picture.h"

class Pace;
class World;

// Sees the world through its settings, draws the overlays, measures motion in two windows and
// delivers JPEG pictures. There is one, however often its node is opened. Any thread.
class Sensor : public Device {
 public:
  // `pace`: null for the real time. Neither owned, both must outlive it.
  explicit Sensor(World* world, Pace* pace = nullptr);
  ~Sensor() override;

  int ioctl(unsigned request, std::vector<char>* argument) override;
  // One JPEG picture when the next is due by the rate, at once when it is overdue; one that is
  // longer than `limit` is cut off.
  int read(std::size_t limit, std::vector<char>* data) override;
  const PictureCount* count() const override;

  // The picture that goes to the encoder: of the scene's size, with all settings and overlays.
  void capture(AVFrame* picture);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};
