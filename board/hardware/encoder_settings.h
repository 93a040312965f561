// What is set in the MPEG-4 encoder.
#pragma once

#include <cstdint>

#include "board/hardware/world.h"
#include "platform/mpg430.h"

struct PictureSize {
  int width;
  int height;
};

// Settings as the driver's requests bring them. Bound to one thread at a time.
class EncoderSettings {
 public:
  explicit EncoderSettings(TvStandard standard) : standard_(standard) {}

  // Each returns true iff the value can be set; otherwise nothing changes.
  bool setResolution(int index);   // 0 to 8 and 10
  bool setQuantiser(int value);    // 1 to 31
  bool setPredicted(int count);    // pictures after each key picture: 0 to 255
  bool setSource(int input);       // 0 to 3
  bool setFrameRate(int setting);  // any: 0 is the fastest
  void setStandard(TvStandard standard) { standard_ = standard; }

  // That of the index; in NTSC those of 576 and 288 lines have 480 and 240.
  PictureSize size() const;
  std::int64_t periodMs() const { return periodMs_; }
  int quantiser() const { return quantiser_; }
  int predicted() const { return predicted_; }
  int source() const { return source_; }

 private:
  TvStandard standard_;
  int resolution_ = 7;
  std::int64_t periodMs_ = 33;
  int quantiser_ = 6;
  int predicted_ = 29;
  int source_ = 0;
};
