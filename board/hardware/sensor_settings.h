// What the sensor has been told: docs/sensor.md has the codes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/hardware/picture.h"
#include "platform/vicam.h"

struct OverlayImage {
  int width;
  int height;
  std::vector<std::uint16_t> pixels;  // row by row, ARGB with 4 bits each
};

// Codes of the appearance of overlays.
constexpr int kTextColours = 8;
enum Transparency : std::int32_t {
  kOpaque = 0,            // texts stand in a box, the graphic's alpha does not count
  kClearBackground = 1,   // texts have an outline, the graphic's alpha counts
  kVeiledBackground = 2,  // texts stand in a box through which the picture can be seen
  kTranslucent = 3,       // as 1, and the whole at half strength
};

struct GraphicOverlay {
  std::int32_t enable = 0;
  std::int32_t transparency = kOpaque;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::shared_ptr<const OverlayImage> image;  // null until there is one

  bool operator==(const GraphicOverlay& other) const;
};

struct TextOverlay {
  std::int32_t enable = 0;
  std::int32_t transparency = kOpaque;
  std::int32_t colour = 0;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::string text;  // as it came: need not be UTF-8

  bool operator==(const TextOverlay& other) const;
};

struct MotionWindow {
  std::int32_t enable = 0;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t threshold = 0;  // kept for the driver; who asks for the level compares
};

enum WhiteBalance : std::int32_t {
  kBalanceAutomatic,
  kBalanceIncandescent,
  kBalanceFluorescent,
  kBalanceDaylight,
  kBalanceShade,
};
enum FlickerMode : std::int32_t { kFlicker50Hz, kFlicker60Hz, kFlickerOff };

constexpr int kExposureAutomatic = 0;
constexpr int kExposureMiddle = 5;  // of 1 to 9, half an f-stop each; the same as automatic
constexpr int kExposureBrightest = 9;
constexpr int kShutterShortest = 6;  // 0: no limit
constexpr int kNoiseFilterStrongest = 3;
constexpr int kNoiseFilterClean = 1;  // removes the noise and no detail; 0: off
constexpr int kBacklightStrongest = 3;
constexpr int kSensorRate = 30;  // pictures/s
constexpr int kColourNeutral = 127 * 256;

// The values here are those after power-on.
struct SensorSettings {
  std::int32_t flip = 0;
  std::int32_t mirror = 0;
  std::int32_t exposure = kExposureAutomatic;
  std::int32_t maxShutter = 0;
  std::int32_t balance = kBalanceAutomatic;
  std::int32_t noiseFilter = kNoiseFilterClean;
  std::int32_t backlight = 0;
  std::int32_t flicker = kFlicker50Hz;
  std::int32_t rate = kSensorRate;
  std::int32_t quality = 50;  // of JPEG, per cent
  int width = kSceneWidth;    // of JPEG pictures
  int height = kSceneHeight;
  TVideoPicture colours{kColourNeutral, kColourNeutral, kColourNeutral, kColourNeutral, 0, 24, 0};
  GraphicOverlay graphic;
  TextOverlay motionText;
  TextOverlay dateTime;
  MotionWindow windows[2];
};

// Carries out a request that sets or reads settings. Returns 0, or -EINVAL and changes nothing: no
// such request, an argument that is too short, a value out of range.
int changeSettings(unsigned request, std::vector<char>* argument, SensorSettings* settings);
