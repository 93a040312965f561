// What the sensor's motion windows measure.
#include <climits>

#include "board/hardware/motion_meter.h"
#include "sensor_fixture.h"

namespace {

constexpr unsigned kWindowRequests[2][6] = {
    {kVicamSetMdwnd1Xpos, kVicamSetMdwnd1Ypos, kVicamSetMdwnd1Width, kVicamSetMdwnd1Height,
     kVicamSetMdwnd1Threshold, kVicamSetMdwnd1Enable},
    {kVicamSetMdwnd2Xpos, kVicamSetMdwnd2Ypos, kVicamSetMdwnd2Width, kVicamSetMdwnd2Height,
     kVicamSetMdwnd2Threshold, kVicamSetMdwnd2Enable}};
constexpr Rectangle kUpperLeft{10, 10, 200, 100};
constexpr Rectangle kLowerRight{400, 300, 200, 150};

class SensorMotion : public SensorTest {
 protected:
  void watch(int window, const Rectangle& where) {
    const int values[] = {where.x, where.y, where.width, where.height, 5, 1};
    for (int at = 0; at < 6; ++at) EXPECT_EQ(set(kWindowRequests[window - 1][at], values[at]), 0);
  }

  // Lets the time pass until what was to be seen does not count any more.
  void settle() {
    for (int picture = 0; picture < 6; ++picture) {
      nextPicture();
      level(1);
    }
  }

  // Shows the scene with a light patch in it.
  void showPatch(const Rectangle& where) {
    show([where](AVFrame* picture) {
      drawShades(picture);
      fillLuma(picture, where, 230);
    });
  }
};

TEST_F(SensorMotion, MotionInOneWindowRaisesItsLevelAlone) {
  watch(1, kUpperLeft);
  watch(2, kLowerRight);
  EXPECT_EQ(level(1), 0);
  EXPECT_EQ(level(2), 0);
  showPatch({100, 50, 40, 40});
  EXPECT_GT(level(1), 4);
  EXPECT_EQ(level(2), 0);
  settle();
  showPatch({450, 350, 40, 40});
  EXPECT_GT(level(1), 4);  // the patch is gone from here
  EXPECT_GT(level(2), 3);
  settle();
  showPatch({500, 350, 40, 40});
  EXPECT_EQ(level(1), 0);
  EXPECT_GT(level(2), 3);
}

TEST_F(SensorMotion, WhatStandsStillHasLevelZero) {
  watch(1, kUpperLeft);
  for (int picture = 0; picture < 4; ++picture) {
    EXPECT_EQ(level(1), 0);
    nextPicture();
  }
}

TEST_F(SensorMotion, TheLevelIsTheShareOfTheWindow) {
  watch(1, {0, 0, 160, 160});
  level(1);
  showPatch({0, 0, 80, 160});
  EXPECT_EQ(level(1), 50);
  show([](AVFrame* picture) { drawPlain(picture, 20, 128, 128); });
  EXPECT_EQ(level(1), 100);
}

TEST_F(SensorMotion, TheSmallestMotionHasLevelOne) {
  watch(1, {0, 0, 639, 479});
  level(1);
  showPatch({300, 200, 8, 8});
  EXPECT_EQ(level(1), 1);
}

TEST_F(SensorMotion, MotionBesideTheWindowDoesNotCount) {
  watch(1, {100, 100, 50, 50});
  level(1);
  showPatch({0, 0, 100, 480});
  EXPECT_EQ(level(1), 0);
  showPatch({150, 0, 100, 480});
  EXPECT_EQ(level(1), 0);
  showPatch({0, 0, 640, 100});
  EXPECT_EQ(level(1), 0);
  showPatch({0, 150, 640, 100});
  EXPECT_EQ(level(1), 0);
  showPatch({149, 149, 10, 10});  // its last pixel
  EXPECT_EQ(level(1), 0);
}

TEST_F(SensorMotion, TheLevelStaysUntilTheNextPicture) {
  watch(1, kUpperLeft);
  level(1);
  stage_.show([](AVFrame* picture) { drawPlain(picture, 20, 128, 128); });
  EXPECT_EQ(level(1), 0);
  nextPicture();
  EXPECT_EQ(level(1), 100);
  EXPECT_EQ(level(1), 100);
}

TEST_F(SensorMotion, AMovementShowsForAMoment) {
  watch(1, kUpperLeft);
  level(1);
  showPatch({100, 50, 40, 40});
  EXPECT_GT(level(1), 0);
  for (int picture = 1; picture < 6; ++picture) {
    nextPicture();
    EXPECT_GT(level(1), 0);
  }
  nextPicture();
  EXPECT_EQ(level(1), 0);
}

TEST_F(SensorMotion, ADisabledWindowHasLevelZero) {
  watch(1, kUpperLeft);
  level(1);
  set(kVicamSetMdwnd1Enable, 0);
  showPatch(kUpperLeft);
  EXPECT_EQ(level(1), 0);
  set(kVicamSetMdwnd1Enable, -1);
  showPatch({100, 50, 40, 40});
  EXPECT_EQ(level(1), 0);
  EXPECT_EQ(level(2), 0);
}

TEST_F(SensorMotion, StrangeWindowsHaveLevelZero) {
  for (const Rectangle& window : {Rectangle{10, 10, 0, 100},
                                  {10, 10, 100, 0},
                                  {10, 10, -5, 100},
                                  {10, 10, 100, INT_MIN},
                                  {640, 0, 100, 100},
                                  {0, 480, 100, 100},
                                  {-100, 0, 100, 100},
                                  {INT_MAX, 0, INT_MAX, 100},
                                  {INT_MIN, 0, INT_MAX, 100},
                                  {0, INT_MIN, 100, INT_MIN}}) {
    watch(1, window);
    level(1);
    showPatch({0, 0, 640, 480});
    EXPECT_EQ(level(1), 0) << window.x << " " << window.width;
    for (const unsigned turn : {kVicamSetFlip, kVicamSetMirror}) {
      set(turn, 1);
      EXPECT_EQ(level(1), 0) << window.x << " " << window.width;
    }
    set(kVicamSetFlip, 0);
    set(kVicamSetMirror, 0);
    stage_.show(drawShades);
  }
}

TEST_F(SensorMotion, AWindowThatReachesOutsideMeasuresWhatIsInside) {
  watch(1, {-50, -50, INT_MAX, INT_MAX});
  level(1);
  showPatch({0, 0, 640, 240});
  EXPECT_EQ(level(1), 50);
}

TEST_F(SensorMotion, WindowsLieInThePictureThatIsDelivered) {
  watch(1, kUpperLeft);
  level(1);
  set(kVicamSetFlip, 1);
  EXPECT_EQ(level(1), 0);  // turning is no motion
  showPatch({100, 50, 40, 40});
  EXPECT_EQ(level(1), 0);
  showPatch({100, 480 - 90, 40, 40});
  EXPECT_GT(level(1), 4);
  set(kVicamSetFlip, 0);
  set(kVicamSetMirror, 1);
  settle();
  showPatch({640 - 140, 50, 40, 40});
  EXPECT_GT(level(1), 4);
}

TEST_F(SensorMotion, SettingsOverlaysAndNoiseAreNoMotion) {
  watch(1, {0, 0, 639, 479});
  level(1);
  set(kVicamSetNoisefilter, 0);
  set(kVicamSetFlickerMode, 2);
  set(kVicamSetExposure, 9);
  setText(kVicamSetDtosdString, "Gate");
  set(kVicamSetDtosdEnable, 1);
  nextPicture();
  capture();
  EXPECT_EQ(level(1), 0);
}

TEST_F(SensorMotion, ASlightChangeOfLightIsNoMotion) {
  watch(1, kUpperLeft);
  show([](AVFrame* picture) { drawPlain(picture, 100, 128, 128); });
  level(1);
  show([](AVFrame* picture) { drawPlain(picture, 106, 128, 128); });
  EXPECT_EQ(level(1), 0);
  settle();
  show([](AVFrame* picture) { drawPlain(picture, 116, 128, 128); });
  EXPECT_EQ(level(1), 100);
}

TEST_F(SensorMotion, BlocksThatTheWindowCutsOffCountFully) {
  watch(1, {0, 0, 12, 12});
  show([](AVFrame* picture) { drawPlain(picture, 100, 128, 128); });
  level(1);
  show([](AVFrame* picture) {
    drawPlain(picture, 100, 128, 128);
    fillLuma(picture, {8, 8, 4, 4}, 110);
  });
  EXPECT_EQ(level(1), 25);
}

class MotionMeterTest : public testing::Test {
 protected:
  MotionMeterTest() { fillLuma(light_.get(), {0, 0, kSceneWidth, kSceneHeight}, 200); }
  int see(const Picture& picture, std::int64_t number) {
    meter_.see(*picture, number);
    return meter_.level({0, 0, 100, 100});
  }

  const Picture dark_ = makePicture(kSceneWidth, kSceneHeight);
  const Picture light_ = makePicture(kSceneWidth, kSceneHeight);
  MotionMeter meter_;
};

TEST_F(MotionMeterTest, ComparesWithWhatWasToBeSeenSixPicturesAgo) {
  EXPECT_EQ(see(light_, 100), 0);  // the first
  for (int number = 101; number <= 106; ++number) EXPECT_EQ(see(dark_, number), 100) << number;
  EXPECT_EQ(see(dark_, 107), 0);
}

TEST_F(MotionMeterTest, AFlashShowsForAsLong) {
  for (int number = 0; number < 20; ++number) see(dark_, number);
  EXPECT_EQ(see(light_, 20), 100);
  for (int number = 21; number <= 26; ++number) EXPECT_EQ(see(dark_, number), 100) << number;
  EXPECT_EQ(see(dark_, 27), 0);
}

TEST_F(MotionMeterTest, WhoAsksSeldomComparesWithTheLastTime) {
  EXPECT_EQ(see(light_, 0), 0);
  EXPECT_EQ(see(dark_, 61), 100);
  EXPECT_EQ(see(dark_, 122), 0);
  EXPECT_EQ(see(light_, 183), 100);
}

TEST_F(MotionMeterTest, ForgetsWhatIsLongAgo) {
  EXPECT_EQ(see(light_, 0), 0);
  EXPECT_EQ(see(dark_, 89), 100);
  EXPECT_EQ(see(light_, 179), 0);
  EXPECT_EQ(see(dark_, 180), 100);
}

TEST_F(MotionMeterTest, APictureThatWasSeenAlreadyChangesNothing) {
  see(dark_, 0);
  EXPECT_EQ(see(dark_, 1), 0);
  EXPECT_EQ(see(light_, 1), 0);
}

}  // namespace
