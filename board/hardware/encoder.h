// The MPEG-4 encoder: "/dev/mpg430".
#pragma once

#include <cstdint>
#include <memory>

#include "board/hardware/device.h"

class Pace;
class Sensor;
class World;

// Encodes what the sensor delivers or, where there is none, what is at its own video inputs. A
// picture is made when somebody reads and it is due, so nobody's absence breaks the chain of
// predicted pictures. Any thread.
//
// A picture that was begun is delivered to its end whatever is set meanwhile, so that no change
// tears one; all settings take effect with the next. Three things drop its rest: a header of
// another size that is asked for, since from then on pictures belong to that header, the closing of
// the node, and a start of what runs already, which comes from somebody new. The size, the source,
// the standard and a start make the next picture a key picture; a read that waits during a start
// gives 0, lest somebody who has gone takes the first chunk away.
class Encoder : public Device {
 public:
  // `sensor`: null on a camera without one. `pace`: null for the real time. None owned, all must
  // outlive it.
  Encoder(World* world, Sensor* sensor, Pace* pace = nullptr);
  ~Encoder() override;

  int ioctl(unsigned request, std::vector<char>* argument) override;
  // One chunk: of at most `limit` bytes and at most kChunkMax; a picture that is longer goes on in
  // the next. While the stream is stopped it waits up to a second and returns 0.
  int read(std::size_t limit, std::vector<char>* data) override;
  void closed() override;
  const PictureCount* count() const override;

  // The standard of the inputs has changed: the picture's size, and with it the stream's header.
  // The inputs synchronise anew; no picture begins for kSynchroniseMs.
  void standardChanged();

  static constexpr std::size_t kChunkMax = 16384;
  static constexpr std::int64_t kSynchroniseMs = 120;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};
