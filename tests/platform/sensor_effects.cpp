// What the sensor's settings do to its picture.
#include <cmath>

#include "sensor_fixture.h"
#include "tests/slow_build.h"

namespace {

constexpr int kRight = kSceneWidth - 1;
constexpr int kBottom = kSceneHeight - 1;

class SensorEffects : public SensorTest {
 protected:
  // A plain picture seen through the settings.
  Picture plain(int luma, int u = 128, int v = 128) {
    show([=](AVFrame* picture) { drawPlain(picture, luma, u, v); });
    return capture();
  }

  int plainLuma(int luma) { return lumaAt(*plain(luma), 320, 240); }

  static TVideoPicture neutral() { return {32512, 32512, 32512, 32512, 0, 24, 0}; }
};

// The mean difference of neighbours.
double roughness(const AVFrame& picture) {
  double sum = 0;
  for (int y = 0; y < picture.height; ++y)
    for (int x = 1; x < picture.width; ++x)
      sum += std::abs(lumaAt(picture, x, y) - lumaAt(picture, x - 1, y));
  return sum / (picture.height * (picture.width - 1));
}

// The largest difference between the rows' brightness in the first column.
int bands(const AVFrame& picture) {
  int lowest = 255, highest = 0;
  for (int y = 0; y < picture.height; ++y) {
    lowest = std::min(lowest, lumaAt(picture, 0, y));
    highest = std::max(highest, lumaAt(picture, 0, y));
  }
  return highest - lowest;
}

TEST_F(SensorEffects, AfterPowerOnThePictureIsWhatTheWorldShows) {
  const Picture world = makePicture(kSceneWidth, kSceneHeight);
  drawShades(world.get());
  EXPECT_TRUE(samePixels(*world, *capture()));
}

TEST_F(SensorEffects, FlipTurnsThePictureUpsideDown) {
  const Picture before = capture();
  set(kVicamSetFlip, 1);
  const Picture after = capture();
  for (const int x : {0, 100, kRight}) {
    for (const int y : {0, 1, 239, 240, kBottom}) {
      EXPECT_EQ(lumaAt(*after, x, y), lumaAt(*before, x, kBottom - y));
      EXPECT_EQ(uAt(*after, x, y), uAt(*before, x, kBottom - y));
      EXPECT_EQ(vAt(*after, x, y), vAt(*before, x, kBottom - y));
    }
  }
  set(kVicamSetFlip, 0);
  EXPECT_TRUE(samePixels(*before, *capture()));
}

TEST_F(SensorEffects, MirrorSwapsLeftAndRight) {
  const Picture before = capture();
  set(kVicamSetMirror, 1);
  const Picture after = capture();
  for (const int y : {0, 100, kBottom}) {
    for (const int x : {0, 1, 319, 320, kRight}) {
      EXPECT_EQ(lumaAt(*after, x, y), lumaAt(*before, kRight - x, y));
      EXPECT_EQ(uAt(*after, x, y), uAt(*before, kRight - x, y));
      EXPECT_EQ(vAt(*after, x, y), vAt(*before, kRight - x, y));
    }
  }
}

TEST_F(SensorEffects, EachStepOfExposureIsBrighterThanTheOneBefore) {
  double darker = 0;
  for (int code = 1; code <= 9; ++code) {
    set(kVicamSetExposure, code);
    const double luma = meanLuma(*capture());
    EXPECT_GT(luma, darker + 3) << code;
    darker = luma;
  }
}

TEST_F(SensorEffects, TheMiddleExposureIsTheAutomaticOne) {
  const Picture automatic = capture();
  set(kVicamSetExposure, 5);
  EXPECT_TRUE(samePixels(*automatic, *capture()));
}

TEST_F(SensorEffects, AShorterShutterLimitsTheExposure) {
  set(kVicamSetExposure, 9);
  double longer = meanLuma(*capture());
  for (int code = 1; code <= 6; ++code) {
    set(kVicamSetMaxshutter, code);
    const double luma = meanLuma(*capture());
    EXPECT_LT(luma, longer - 2) << code;
    longer = luma;
  }
}

TEST_F(SensorEffects, ALongShutterLeavesAShortExposureAlone) {
  set(kVicamSetExposure, 3);
  const Picture before = capture();
  set(kVicamSetMaxshutter, 3);  // 1/120 s, longer than 5 ms
  EXPECT_TRUE(samePixels(*before, *capture()));
}

TEST_F(SensorEffects, WhiteBalanceTintsGrey) {
  struct Expected {
    int code;
    int blue;  // direction in U
    int red;   // in V
  };
  plain(150);
  for (const Expected& e : {Expected{1, 1, -1}, {2, 1, 1}, {3, -1, 1}, {4, -1, 1}}) {
    set(kVicamSetBalance, e.code);
    const Picture picture = capture();
    EXPECT_GT((uAt(*picture, 9, 9) - 128) * e.blue, 3) << e.code;
    EXPECT_GT((vAt(*picture, 9, 9) - 128) * e.red, 3) << e.code;
    EXPECT_EQ(lumaAt(*picture, 9, 9), 150) << e.code;
  }
  set(kVicamSetBalance, 0);
  EXPECT_EQ(uAt(*capture(), 9, 9), 128);
}

TEST_F(SensorEffects, WhiteBalanceLeavesBlackBlack) {
  set(kVicamSetBalance, 1);
  const Picture picture = plain(16);
  EXPECT_EQ(uAt(*picture, 9, 9), 128);
  EXPECT_EQ(vAt(*picture, 9, 9), 128);
}

TEST_F(SensorEffects, WithoutNoiseReductionThePictureIsNoisy) {
  const double clean = roughness(*capture());
  set(kVicamSetNoisefilter, 0);
  const Picture noisy = capture();
  EXPECT_GT(roughness(*noisy), clean + 2);
  nextPicture();
  EXPECT_FALSE(samePixels(*noisy, *capture()));  // noise never stands still
}

TEST_F(SensorEffects, NoiseReductionSmoothsTheMoreTheStrongerItIs) {
  show([](AVFrame* picture) {
    drawPlain(picture, 60, 128, 128);
    for (int x = 0; x < kSceneWidth; x += 16) fillLuma(picture, {x, 0, 2, kSceneHeight}, 200);
  });
  double before = roughness(*capture());
  const double brightness = meanLuma(*capture());
  for (const int code : {2, 3}) {
    set(kVicamSetNoisefilter, code);
    const Picture picture = capture();
    EXPECT_LT(roughness(*picture), 0.75 * before) << code;
    EXPECT_NEAR(meanLuma(*picture), brightness, 1.5) << code;
    before = roughness(*picture);
  }
}

TEST_F(SensorEffects, SmoothingLeavesAPlainPictureAlone) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  for (const int luma : {16, 100, 235}) {
    for (const int code : {2, 3}) {
      set(kVicamSetNoisefilter, 1);
      const Picture before = plain(luma);
      set(kVicamSetNoisefilter, code);
      EXPECT_TRUE(samePixels(*before, *capture())) << luma << " " << code;
    }
  }
}

TEST_F(SensorEffects, SmoothingTakesTheOutermostPixelsToGoOn) {
  show([](AVFrame* picture) {
    drawPlain(picture, 100, 128, 128);
    fillLuma(picture, {0, 0, kSceneWidth, 1}, 190);
    fillLuma(picture, {0, kBottom, kSceneWidth, 1}, 190);
    fillLuma(picture, {0, 100, 1, 100}, 190);
    fillLuma(picture, {kRight, 100, 1, 100}, 190);
  });
  set(kVicamSetNoisefilter, 2);
  const Picture picture = capture();
  for (const int y : {0, kBottom}) EXPECT_NEAR(lumaAt(*picture, 300, y), 160, 1);
  for (const int y : {1, kBottom - 1}) EXPECT_NEAR(lumaAt(*picture, 300, y), 130, 1);
  for (const int x : {0, kRight}) EXPECT_NEAR(lumaAt(*picture, x, 150), 160, 1);
  for (const int x : {1, kRight - 1}) EXPECT_NEAR(lumaAt(*picture, x, 150), 130, 1);
  EXPECT_EQ(lumaAt(*picture, 300, 2), 100);
}

TEST_F(SensorEffects, BacklightCompensationLiftsTheShadows) {
  int dark = plainLuma(50);
  const int bright = plainLuma(220);
  for (int code = 1; code <= 3; ++code) {
    set(kVicamSetBacklight, code);
    const int lifted = plainLuma(50);
    EXPECT_GT(lifted, dark + 4) << code;
    dark = lifted;
    EXPECT_NEAR(plainLuma(220), bright, 2) << code;
    EXPECT_EQ(plainLuma(16), 16) << code;
  }
}

TEST_F(SensorEffects, LightOfTheMainsMakesBandsUnlessTheModeFits) {
  const Picture steady = plain(150);
  EXPECT_EQ(bands(*steady), 0);
  for (const int wrong : {1, 2}) {
    set(kVicamSetFlickerMode, wrong);
    EXPECT_GT(bands(*capture()), 5) << wrong;
    EXPECT_LT(bands(*capture()), 30) << wrong;  // faint
  }
  set(kVicamSetFlickerMode, 0);
  EXPECT_EQ(bands(*capture()), 0);
  world_.setStandard(TvStandard::kNtsc);
  EXPECT_GT(bands(*capture()), 5);
  set(kVicamSetFlickerMode, 1);
  EXPECT_EQ(bands(*capture()), 0);
}

TEST_F(SensorEffects, BrightnessAddsLight) {
  TVideoPicture colours = neutral();
  plain(100);
  colours.brightness = 32512 + 40 * 256;
  setColours(colours);
  EXPECT_GT(lumaAt(*capture(), 9, 9), 125);
  colours.brightness = 32512 - 40 * 256;
  setColours(colours);
  EXPECT_LT(lumaAt(*capture(), 9, 9), 75);
}

TEST_F(SensorEffects, ContrastSpreadsLightAndDark) {
  TVideoPicture colours = neutral();
  const int spread = plainLuma(180) - plainLuma(80);
  colours.contrast = 40000;
  setColours(colours);
  EXPECT_GT(plainLuma(180) - plainLuma(80), spread + 15);
  colours.contrast = 20000;
  setColours(colours);
  EXPECT_LT(plainLuma(180) - plainLuma(80), spread - 15);
  colours.contrast = 0;
  setColours(colours);
  EXPECT_EQ(plainLuma(180), plainLuma(80));
}

TEST_F(SensorEffects, SaturationStrengthensColours) {
  TVideoPicture colours = neutral();
  plain(120, 100, 160);
  colours.colour = 0;
  setColours(colours);
  EXPECT_EQ(uAt(*capture(), 9, 9), 128);
  EXPECT_EQ(vAt(*capture(), 9, 9), 128);
  colours.colour = 65280;
  setColours(colours);
  EXPECT_LT(uAt(*capture(), 9, 9), 80);
  EXPECT_GT(vAt(*capture(), 9, 9), 185);
  EXPECT_EQ(lumaAt(*capture(), 9, 9), 120);
}

TEST_F(SensorEffects, HueTurnsColours) {
  TVideoPicture colours = neutral();
  plain(120, 128, 178);
  colours.hue = 0;
  setColours(colours);
  EXPECT_GT(uAt(*capture(), 9, 9), 168);
  EXPECT_NEAR(vAt(*capture(), 9, 9), 128, 3);
  colours.hue = 65280;
  setColours(colours);
  EXPECT_LT(uAt(*capture(), 9, 9), 88);
  EXPECT_NEAR(vAt(*capture(), 9, 9), 128, 3);
  plain(120, 178, 128);
  EXPECT_GT(vAt(*capture(), 9, 9), 168);
  EXPECT_NEAR(uAt(*capture(), 9, 9), 128, 3);
}

TEST_F(SensorEffects, AllAtTheirLimitsGiveAPictureInRange) {
  for (const std::uint16_t extreme : {std::uint16_t{0}, std::uint16_t{65535}}) {
    setColours({extreme, extreme, extreme, extreme, extreme, extreme, extreme});
    for (const unsigned request : {kVicamSetFlip, kVicamSetMirror, kVicamSetBacklight,
                                   kVicamSetNoisefilter, kVicamSetFlickerMode, kVicamSetBalance})
      set(request, 1);
    set(kVicamSetNoisefilter, 0);
    for (const int exposure : {1, 9}) {
      set(kVicamSetExposure, exposure);
      const Picture picture = capture();
      for (int y = 0; y < kSceneHeight; y += 2) {
        for (int x = 0; x < kSceneWidth; x += 2) {
          ASSERT_TRUE(lumaAt(*picture, x, y) >= 16 && lumaAt(*picture, x, y) <= 235);
          ASSERT_TRUE(uAt(*picture, x, y) >= 16 && uAt(*picture, x, y) <= 240);
          ASSERT_TRUE(vAt(*picture, x, y) >= 16 && vAt(*picture, x, y) <= 240);
        }
      }
    }
  }
}

}  // namespace
