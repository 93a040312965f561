// The sensor's signal processor: what the settings make of a picture.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "board/hardware/picture.h"
#include "board/hardware/sensor_settings.h"

// Bound to one thread. With the settings after power-on it leaves a picture as it is.
class SensorProcessor {
 public:
  SensorProcessor();

  // Applies flip, mirror, exposure, white balance, noise filter, backlight, shutter, flicker mode
  // and the colours to `picture`, of the scene's size. `number`: which picture it is, noise and
  // bands differ from one to the next. `mainsHz`: of the light in the scene.
  void process(const SensorSettings& settings, std::int64_t number, int mainsHz, AVFrame* picture);

 private:
  // How light becomes luma and colour; in 1/256 where whole numbers.
  struct Tone {
    bool neutral = true;
    std::array<std::uint8_t, 256> luma{};
    int chromaStraight = 0;  // of U in U, of V in V
    int chromaCross = 0;     // of V in -U, of U in V
    int tintU = 0;           // of the luma in U
    int tintV = 0;
  };
  static Tone makeTone(const SensorSettings& settings);
  static void applyTone(const Tone& tone, AVFrame* picture);

  void smooth(int radius, AVFrame* picture);
  void addNoise(std::int64_t number, AVFrame* picture) const;

  std::vector<std::int8_t> noise_;
  std::vector<std::uint8_t> sharp_;  // the picture's luma before smoothing
  std::vector<std::uint16_t> sums_;  // of columns
};
