// What the tests of the virtual board's pictures share: an independent judge of MPEG-4 streams, and
// an encoder whose time passes as fast as it is read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/hardware/encoder.h"
#include "board/hardware/libav.h"
#include "platform/mpg430.h"
#include "sensor_fixture.h"

// While it lives, collects whatever libav has to say from warnings on. One at a time.
class LibavComplaints {
 public:
  LibavComplaints();
  ~LibavComplaints();
  static std::string text();
};

// Decodes a stream picture by picture, strictly.
class StreamJudge {
 public:
  StreamJudge();
  // `data`: one picture, perhaps behind a header. Null when the decoder rejects it, or takes more
  // than that to give a picture.
  Picture decode(const std::string& data);

 private:
  Codec codec_;
  Packet packet_;
};

// Reads the bits of `data` from `position` on, which goes on by `count`.
unsigned takeBits(const std::string& data, std::size_t* position, int count);

// Shades that wander by `step` pixels with each picture. Drawn once, which matters in slow builds.
Stage::Play wanderingShades(int step);

constexpr char kPictureStart[] = "\0\0\1\xB6";
bool startsPicture(const std::vector<char>& chunk);

// An encoder with inputs of its own, which look at what the test shows.
class EncoderTest : public SensorTest {
 protected:
  EncoderTest();

  int order(unsigned request, std::int32_t value);
  int setColour(const TMpg430Colour& colour);
  std::string header();
  std::vector<char> chunk(std::size_t limit = 1 << 20);
  // Reads all chunks of a picture.
  std::string picture();
  // Reads a key picture and decodes it.
  Picture freshPicture();

  LibavComplaints complaints_;
  Encoder encoder_{&world_, nullptr, &pace_};
};
