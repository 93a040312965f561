// What reaches the encoder's driver, and what is kept of it.
#include <fcntl.h>
#include <climits>

#include <csignal>

#include "tests/unit/capture/devices/mpg430_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string fcntlCall(int fd, int command, long argument) {
  return "fcntl(" + std::to_string(fd) + "," + std::to_string(command) + "," +
         std::to_string(argument) + ")";
}

class EncoderStart : public Mpg430Fixture {
 protected:
  const std::string signal = "onSignal(" + std::to_string(SIGIO) + ")";
};

TEST_F(EncoderStart, OpensStartsAndAsksForTheSignal) {
  fake.fileFlags = O_NONBLOCK;
  const Device device(true);
  EXPECT_THAT(fake.takeCalls(), ElementsAre("open(/dev/mpg430)", "ioctl(01100000,1)", signal,
                                            fcntlCall(100, F_SETOWN, FakePlatform::kProcess),
                                            fcntlCall(100, F_GETFL, 0),
                                            fcntlCall(100, F_SETFL, O_NONBLOCK | O_ASYNC)));
  EXPECT_EQ(device.package_, 3);
  EXPECT_EQ(Device::fHeadr, true);
}

TEST_F(EncoderStart, StaysStoppedUntilItIsToStart) {
  Device device(false);
  EXPECT_THAT(
      fake.takeCalls(),
      ElementsAre("open(/dev/mpg430)", signal, fcntlCall(100, F_SETOWN, FakePlatform::kProcess),
                  fcntlCall(100, F_GETFL, 0), fcntlCall(100, F_SETFL, O_ASYNC)));
  EXPECT_EQ(device.package_, 3);
  EXPECT_EQ(Device::fHeadr, false);
  device.enableStream(1);
  EXPECT_THAT(fake.takeCalls(), ElementsAre("ioctl(01100000,1)"));
  EXPECT_EQ(Device::fHeadr, true);
}

TEST_F(EncoderStart, FlagsThatNobodyKnowsAreLeftAlone) {
  fake.fails("os::fcntl");
  const Device device(true);
  EXPECT_THAT(fake.callsWith("fcntl"), ElementsAre(fcntlCall(100, F_SETOWN, FakePlatform::kProcess),
                                                   fcntlCall(100, F_GETFL, 0)));
}

TEST_F(EncoderStart, AnEncoderThatCantBeOpenedRefusesEverything) {
  fake.files.remove("/dev/mpg430");
  encoderFd = -1;
  results[kMpg430StreamStart] = results[kMpg430Mpeg4Qa] = -1;
  Device device(true);
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre("log 3 can't open /dev/mpg430", "log 3 ioctl(MPG430_STREAM_START) fail"));
  EXPECT_EQ(device.setCompression(5), -1);
  EXPECT_EQ(fake.logged("ioctl(MPG430_MPEG4_QA) fail"), 1);
}

TEST_F(EncoderStart, StopsBeforeItCloses) {
  auto device = std::make_unique<Device>(true);
  takeRequests();
  int open = 0;
  onRequest = [&](unsigned) { open = fake.files.openCount(); };
  device.reset();
  EXPECT_THAT(takeRequests(), ElementsAre("ioctl(01100000,0)"));
  EXPECT_EQ(open, 1);
  EXPECT_EQ(fake.files.openCount(), 0);
}

TEST_F(EncoderStart, TheHeaderIsDueAlsoWhenTheStartWasRefused) {
  results[kMpg430StreamStart] = -1;
  Device device(true);
  EXPECT_EQ(fake.logged("ioctl(MPG430_STREAM_START) fail"), 1);
  EXPECT_EQ(Device::fHeadr, true);
  Device::fHeadr = false;
  device.enableStream(0);
  EXPECT_EQ(Device::fHeadr, true);
}

TEST_F(EncoderStart, ThePicturesHaveTheirSizesByIndex) {
  const int widths[] = {352, 720, 720, 352, 720, 720, 176, 640, 320, 0, 160};
  const int heights[] = {288, 288, 576, 240, 240, 480, 144, 480, 240, 0, 120};
  ASSERT_EQ(TMpg430::kResolutions, 11);
  for (int index = 0; index < 11; ++index) {
    EXPECT_EQ(TMpg430::tabWidth[index], widths[index]) << index;
    EXPECT_EQ(TMpg430::tabHeight[index], heights[index]) << index;
  }
}

class EncoderSettings : public Mpg430Fixture {
 protected:
  EncoderSettings() { fake.takeCalls(); }
  int status() { return fake.video.slot(kSlotStatus); }
  int format() { return fake.video.slot(kSlotFormat); }

  // A setting that is one integer of one request.
  struct Setting {
    unsigned request;
    const char* name;
    std::function<int(int)> set;
    std::function<int()> kept;       // what the camera remembers
    std::function<int()> published;  // what readers see, -1 when they see nothing
    bool header;                     // is to be fetched anew
  };
  std::vector<Setting> settings() {
    return {
        {0x02000000, "MPG430_VIDEO_SOURCE", [this](int v) { return device.setSource(v); },
         [this] { return device.source_; }, [] { return -1; }, true},
        {0x01300000, "MPG430_MPEG4_QA", [this](int v) { return device.setCompression(v); },
         [this] { return device.compression_; },
         [this] { return kFormatCompression.get(format()); }, false},
        {0x00A00000, "MPG430_SET_FRATE", [this](int v) { return device.setFramerate(v); },
         [this] { return device.framerate_; }, [this] { return kStatusFramerate.get(status()); },
         false},
        {0x02700000, "MPG430_SET_IPVALUE", [this](int v) { return device.setIpratio(v); },
         [this] { return device.ipratio_; },
         [this] { return kStatusIpratio.get(status()) + kIpratioOffset; }, false},
        {0x00800000, "MPG430_SET_MODE",
         [this](int v) {
           device.setResolution(v);
           return 0;
         },
         [this] { return device.resolution_; }, [this] { return kFormatResolution.get(format()); },
         true},
    };
  }

  static std::string request(unsigned number, int value) {
    char call[40];
    std::snprintf(call, sizeof call, "ioctl(%08x,%d)", number, value);
    return call;
  }

  Device device;
};

TEST_F(EncoderSettings, EachIsOneRequestAndThenKeptAndPublished) {
  for (const Setting& setting : settings()) {
    fake.takeCalls();
    Device::fHeadr = false;
    EXPECT_EQ(setting.set(7), 0) << setting.name;
    EXPECT_THAT(takeRequests(), ElementsAre(request(setting.request, 7)));
    EXPECT_EQ(setting.kept(), 7) << setting.name;
    EXPECT_THAT(setting.published(), testing::AnyOf(-1, 7)) << setting.name;
    EXPECT_EQ(Device::fHeadr, setting.header) << setting.name;
    EXPECT_EQ(Device::fImage, false);
  }
}

TEST_F(EncoderSettings, WhatTheDriverMadeOfTheValueCounts) {
  for (const Setting& setting : settings()) {
    fake.takeCalls();
    leaves[setting.request] = 5;
    results[setting.request] = 3;  // not negative: taken
    EXPECT_EQ(setting.set(9), 0) << setting.name;
    EXPECT_THAT(takeRequests(), ElementsAre(request(setting.request, 9)));
    EXPECT_EQ(setting.kept(), 5) << setting.name;
    EXPECT_THAT(setting.published(), testing::AnyOf(-1, 5)) << setting.name;
  }
}

TEST_F(EncoderSettings, ARefusedOneChangesNothing) {
  for (const Setting& setting : settings()) {
    setting.set(7);
    const int statusBefore = status();
    const int formatBefore = format();
    fake.takeCalls();
    Device::fHeadr = false;
    results[setting.request] = -6;
    leaves[setting.request] = 5;
    const int result = setting.set(9);
    EXPECT_EQ(result, setting.request == kMpg430SetMode ? 0 : -6) << setting.name;
    EXPECT_THAT(fake.takeCalls(),
                ElementsAre(request(setting.request, 9),
                            "log 3 ioctl(" + std::string(setting.name) + ") fail"))
        << "neither a slot nor a pause";
    EXPECT_EQ(setting.kept(), 7) << setting.name;
    EXPECT_EQ(status(), statusBefore);
    EXPECT_EQ(format(), formatBefore);
    EXPECT_EQ(Device::fHeadr, false) << setting.name;
  }
  EXPECT_THAT(fake.pausesUs(), IsEmpty());
}

TEST_F(EncoderSettings, ValuesGoToTheDriverAsTheyAre) {
  for (const Setting& setting : settings()) {
    for (const int value : {0, -2, 255, 256, INT_MAX, INT_MIN}) {
      fake.takeCalls();
      setting.set(value);
      EXPECT_THAT(takeRequests(), ElementsAre(request(setting.request, value)));
    }
  }
}

TEST_F(EncoderSettings, ASourceGetsASecondToSettleBeforeItsHeaderIsDue) {
  std::vector<bool> due;
  fake.onPause([&](long) { due.push_back(Device::fHeadr); });
  device.setSource(2);
  EXPECT_EQ(fake.pausesUs(), std::vector<long>{1000000});
  EXPECT_EQ(due, std::vector<bool>{false});
  EXPECT_EQ(Device::fHeadr, true);
}

TEST_F(EncoderSettings, ColoursWaitForTheNextFrame) {
  device.setBrightness(1);
  EXPECT_EQ(Device::fImage, true);
  for (const auto set : {&TCamera::setContrast, &TCamera::setBrightness, &TCamera::setHue,
                         &TCamera::setSaturation}) {
    Device::fImage = false;
    (device.*set)(130);
    EXPECT_EQ(Device::fImage, true);
  }
  EXPECT_EQ(device.contrast_, 130);
  EXPECT_EQ(device.brightness_, 130);
  EXPECT_EQ(device.hue_, 130);
  EXPECT_EQ(device.saturation_, 130);
  EXPECT_THAT(fake.takeCalls(), IsEmpty());

  std::vector<std::size_t> reads;
  onRequest = [&](unsigned) {
    reads.push_back(asked.size());
    EXPECT_EQ(Device::fImage, true) << "lowered once the driver knows";
  };
  chunks.assign(6, more(1));
  read(device);
  EXPECT_THAT(takeRequests(), ElementsAre("ioctl(02200000,-32256,768,768,768)"));
  EXPECT_THAT(reads, ElementsAre(0)) << "before the read";
  EXPECT_EQ(Device::fImage, false);
  read(device);
  EXPECT_THAT(takeRequests(), IsEmpty());
  onRequest = nullptr;
}

TEST_F(EncoderSettings, ARefusedColourIsNotSentAgain) {
  device.setHue(1);
  results[kMpg430VideoSetcolor] = -1;
  chunks.assign(6, more(1));
  read(device);
  EXPECT_EQ(fake.logged("ioctl(MPG430_VIDEO_SETCOLOR) fail"), 1);
  EXPECT_EQ(Device::fImage, false);
  read(device);
  EXPECT_EQ(takeRequests().size(), 1u);
  EXPECT_EQ(device.setImage(), -1);
}

TEST_F(EncoderSettings, AllColoursButBrightnessAreCentredAndAllAreCutTo16Bits) {
  const struct {
    int brightness, hue, saturation, contrast;
    const char* request;
  } cases[] = {
      {127, 127, 127, 127, "ioctl(02200000,32512,0,0,0)"},
      {0, 0, 0, 0, "ioctl(02200000,0,-32512,-32512,-32512)"},
      {1, 126, 128, 129, "ioctl(02200000,256,-256,256,512)"},
      {128, 255, 255, 255, "ioctl(02200000,-32768,-32768,-32768,-32768)"},
      {255, 254, 127, 127, "ioctl(02200000,-256,32512,0,0)"},
      {256, 383, 127, 127, "ioctl(02200000,0,0,0,0)"},
      {INT_MAX, INT_MAX, INT_MIN, INT_MIN, "ioctl(02200000,-256,-32768,-32512,-32512)"},
  };
  for (const auto& one : cases) {
    device.setBrightness(one.brightness);
    device.setHue(one.hue);
    device.setSaturation(one.saturation);
    device.setContrast(one.contrast);
    EXPECT_EQ(device.setImage(), 0);
    EXPECT_THAT(takeRequests(), ElementsAre(one.request));
  }
}

TEST_F(EncoderSettings, ColoursThatWereNeverSetAreInTheMiddle) {
  device.setImage();
  EXPECT_THAT(takeRequests(), ElementsAre("ioctl(02200000,32512,0,0,0)"));
}

TEST_F(EncoderSettings, ADeviceThatIsMoreThanTheEncoderSendsItsColoursItself) {
  class Sensor : public Device {
   public:
    int setImage() override { return ++images; }
    int images = 0;
  };
  encoderFd = 101;
  auto sensor = std::make_unique<Sensor>();
  fake.takeCalls();
  sensor->setHue(1);
  chunks.assign(3, more(1));
  read(*sensor);
  EXPECT_EQ(sensor->images, 1);
  EXPECT_EQ(Device::fImage, false);
  EXPECT_THAT(takeRequests(), IsEmpty());
  sensor.reset();
  encoderFd = 100;
}

}  // namespace
