// What all cameras have in common.
#include "capture/camera.h"

#include <gtest/gtest.h>

#include "core/status_slots.h"
#include "record/jpg_writer.h"
#include "tests/fakes/fake_platform.h"

namespace {

class Camera : public testing::Test {
 protected:
  class Device : public TCamera {
   public:
    using TCamera::brightness_;
    using TCamera::contrast_;
    using TCamera::hue_;
    using TCamera::interval_;
    using TCamera::package_;
    using TCamera::resolution_;
    using TCamera::saturation_;
    using TCamera::TCamera;
  };

  Camera() {
    fake.files.put("/dev/camera", std::string(1000, 'x'));
    TCamera::defMode = 1;
  }

  // Reads a byte and returns the pause that came before, in microseconds.
  long pauseBefore(Device& device) {
    fake.takeCalls();
    char byte = 0;
    EXPECT_EQ(device.getImage(&byte, 1), 1);
    const auto pauses = fake.pausesUs();
    return pauses.empty() ? 0 : pauses.at(0);
  }

  int status() { return fake.video.slot(kSlotStatus); }
  int format() { return fake.video.slot(kSlotFormat); }

  FakePlatform fake;
};

TEST_F(Camera, ADeviceThatCantBeOpenedIsAnObjectWhoseReadsFail) {
  Device device("/dev/none");
  EXPECT_TRUE(fake.called("log 3 can't open /dev/none"));
  char byte = 0;
  EXPECT_EQ(device.getImage(&byte, 1), -1);
  EXPECT_EQ(device.getMode(), 1);
}

TEST_F(Camera, StartsInTheDefaultModeWithoutPacing) {
  TCamera::defMode = 2;
  Device device("/dev/camera");
  EXPECT_EQ(device.getMode(), 2);
  EXPECT_EQ(device.interval_, 0);
  EXPECT_EQ(device.package_, 1);
  TDateTime now;
  now.set();
  EXPECT_EQ(*device.getTime(), now);
  EXPECT_TRUE(fake.callsWith("sbSetUserdata").empty());
}

TEST_F(Camera, HasNoResolutionAndMiddleColoursUntilTheyAreSet) {
  Device device("/dev/camera");
  EXPECT_EQ(device.resolution_, -1);
  EXPECT_EQ(device.contrast_, 127);
  EXPECT_EQ(device.brightness_, 127);
  EXPECT_EQ(device.hue_, 127);
  EXPECT_EQ(device.saturation_, 127);
}

TEST_F(Camera, ClosesItsDevice) {
  {
    Device device("/dev/camera");
    EXPECT_EQ(fake.files.openCount(), 1);
  }
  EXPECT_EQ(fake.files.openCount(), 0);
}

TEST_F(Camera, ARequestThatTheDriverRefusesIsLoggedByName) {
  Device device("/dev/camera");
  EXPECT_EQ(device.ioctl(1, nullptr, "SET_MODE"), -1);
  EXPECT_TRUE(fake.called("log 3 ioctl(SET_MODE) fail"));
  int argument = 5;
  fake.onIoctl([&](int, unsigned long request, void* where) {
    EXPECT_EQ(request, 0x80000001u);
    *static_cast<int*>(where) = 6;
    return 7;
  });
  EXPECT_EQ(device.ioctl(static_cast<int>(0x80000001u), &argument, "GET_MODE"), 7);
  EXPECT_EQ(argument, 6);
  EXPECT_EQ(fake.logged("ioctl(GET_MODE) fail"), 0);
}

TEST_F(Camera, WithoutAnIntervalItNeverPauses) {
  Device device("/dev/camera");
  EXPECT_EQ(pauseBefore(device), 0);
  EXPECT_EQ(pauseBefore(device), 0);
}

TEST_F(Camera, PausesForTheRestOfTheInterval) {
  Device device("/dev/camera");
  device.interval_ = 40000;
  pauseBefore(device);
  fake.advance(0.010);
  EXPECT_EQ(pauseBefore(device), 30000);
  fake.advance(0.040);
  EXPECT_EQ(pauseBefore(device), 0);
  // The time of the read is that after the pause.
  EXPECT_EQ(pauseBefore(device), 40000);
  TDateTime now;
  now.set();
  EXPECT_EQ(*device.getTime(), now);
}

TEST_F(Camera, AStepOfTheClockNeverMakesThePauseLonger) {
  Device device("/dev/camera");
  device.interval_ = 40000;
  for (const long step : {1L, 3600L, 86400L}) {
    pauseBefore(device);
    fake.stepWallClock(-step);
    EXPECT_EQ(pauseBefore(device), 40000) << step;
    fake.stepWallClock(step);
    EXPECT_EQ(pauseBefore(device), 0) << step;
    EXPECT_EQ(pauseBefore(device), 40000) << step;
  }
}

TEST_F(Camera, ARefusedLengthReadsNothing) {
  Device device("/dev/camera");
  char byte = 0;
  EXPECT_EQ(device.getImage(&byte, -1), 0);
}

TEST_F(Camera, TheModeIsPublishedWhenItChanges) {
  Device device("/dev/camera");
  fake.video.setSlot(kSlotStatus, -1);
  device.setMode(1);
  EXPECT_EQ(status(), static_cast<int>(0xffffffefu));
  device.setMode(1);
  EXPECT_EQ(fake.video.slotWrites(kSlotStatus), 1);
  EXPECT_EQ(device.getMode(), 1);
}

TEST_F(Camera, AllModesButOneNeedTheSecondBuffer) {
  fake.video2.detach();
  Device device("/dev/camera");
  for (const int mode : {0, 2, 3}) {
    fake.takeCalls();
    device.setMode(mode);
    EXPECT_EQ(fake.logged("sbVideo2() is null"), 1) << mode;
    EXPECT_EQ(device.getMode(), mode);
  }
  fake.takeCalls();
  device.setMode(1);
  EXPECT_EQ(fake.logged("sbVideo2() is null"), 0);
}

TEST_F(Camera, ModeThreeIsAClientOfTheJpegWriterUntilTheCameraGoes) {
  {
    Device device("/dev/camera");
    device.setMode(2);
    EXPECT_FALSE(jpgWriter()->getRef());
    device.setMode(3);
    EXPECT_TRUE(jpgWriter()->getRef());
    EXPECT_EQ(fake.logged("sbVideo2() is null"), 0);
  }
  EXPECT_FALSE(jpgWriter()->getRef());
}

TEST_F(Camera, AnUnknownModeIsLoggedAndKept) {
  Device device("/dev/camera");
  device.setMode(7);
  EXPECT_TRUE(fake.called("log 3 TCamera::setMode() Unsupported mode: 7"));
  EXPECT_EQ(device.getMode(), 7);
  EXPECT_EQ(kStatusMode.get(status()), 3);
}

TEST_F(Camera, TheFrameRateIsPublishedOnce) {
  Device device("/dev/camera");
  device.setFramerate(0x112);
  device.setFramerate(0x112);
  EXPECT_EQ(status(), 0x1200);
  EXPECT_EQ(fake.video.slotWrites(kSlotStatus), 1);
}

TEST_F(Camera, TheRatioIsPublishedLessThree) {
  Device device("/dev/camera");
  fake.video.setSlot(kSlotStatus, -1);
  device.setIpratio(3);
  EXPECT_EQ(status(), static_cast<int>(0xc03fffffu));
  device.setIpratio(2);
  EXPECT_EQ(status(), -1);
  device.setIpratio(-2147483647 - 1);
  EXPECT_EQ(kStatusIpratio.get(status()), 0xfd);
}

TEST_F(Camera, ResolutionAndCompressionArePublishedEachTime) {
  Device device("/dev/camera");
  fake.video.setSlot(kSlotFormat, 0x7fff0000);
  device.setResolution(0x105);
  device.setResolution(0x105);
  EXPECT_EQ(fake.video.slotWrites(kSlotFormat), 2);
  device.setCompression(0x207);
  device.setCompression(0x207);
  EXPECT_EQ(fake.video.slotWrites(kSlotFormat), 4);
  EXPECT_EQ(format(), 0x7fff0705);
}

TEST_F(Camera, HasNoTextAndNoMotion) {
  Device device("/dev/camera");
  char text[48] = "old";
  device.getUserdata(0, text);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(device.getMotionStatus(0), 0);
  EXPECT_EQ(device.getMotionStatus(1), 0);
}

TEST_F(Camera, OtherSettingsAreOnlyKept) {
  Device device("/dev/camera");
  fake.takeCalls();
  device.setMotionDetection(3);
  device.setOverlay(2);
  device.setTimestamp();
  device.setPackage(4);
  device.setExposure(1);
  device.setWhiteBalance(1);
  device.setNoiseReduction(1);
  EXPECT_EQ(device.setSource(1), 0);
  device.setBacklight(1);
  device.setShutter(1);
  device.setFlip(1);
  device.setMirror(1);
  device.setContrast(1);
  device.setBrightness(1);
  device.setHue(1);
  device.setSaturation(1);
  device.setFlicker(1);
  EXPECT_EQ(device.package_, 4);
  EXPECT_TRUE(fake.calls().empty());
}

TEST_F(Camera, WithoutABufferNothingIsPublished) {
  fake.video.detach();
  Device device("/dev/camera");
  device.setMode(1);
  device.setResolution(3);
  fake.video.attach();
  EXPECT_EQ(status(), 0);
  EXPECT_EQ(format(), 0);
}

}  // namespace
