// The MPEG-4 encoder: "/dev/mpg430".
#pragma once

#include <cstdint>
#include <memory>

#include "board/hardware/device.h"

class Sensor;
class World;

// Encodes what the sensor delivers or, where there is none, what is at its own video inputs. A
// picture is made when somebody reads and it is due, so nobody's absence breaks the chain of
// predicted pictures. Any thread.
class Encoder : public Device {
 public:
  // `sensor`: null on a camera without one. Neither owned, must outlive it.
  Encoder(World* world, Sensor* sensor);
  ~Encoder() override;

  int ioctl(unsigned request, std::vector<char>* argument) override;
  // One chunk: of at most `limit` bytes and at most kChunkMax; a picture that is longer goes on in
  // the next. While the stream is stopped it waits up to a second and returns 0.
  int read(std::size_t limit, std::vector<char>* data) override;

  // The standard of the inputs has changed: the picture's size, and with it the stream's header.
  void standardChanged();

  static constexpr std::size_t kChunkMax = 16384;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};
