// The sensor camera: what its settings make the drivers see, and what it keeps of them.
#include <array>

#include "platform/media.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "tests/unit/capture/devices/lumo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LumoCam : public LumoFixture {
 protected:
  std::unique_ptr<Lumo> inMode(int mode) {
    TCamera::defMode = mode;
    auto camera = std::make_unique<Lumo>();
    drivers.take();
    fake.clearCalls();
    return camera;
  }
};

// --- Construction

TEST_F(LumoCam, StartsTheEncoderWhenTheSensorIsThere) {
  {
    Lumo camera;
    EXPECT_THAT(drivers.take(), ElementsAre("encoder 01100000 1"));
    EXPECT_EQ(fake.files.openCount(), 2);
    EXPECT_EQ(camera.getMode(), 0);
  }
  EXPECT_THAT(drivers.take(), ElementsAre("encoder 01100000 0"));
  EXPECT_EQ(fake.files.openCount(), 0);
}

TEST_F(LumoCam, WithoutASensorTheEncoderStaysStopped) {
  fake.files.remove("/dev/video0");
  Lumo camera;
  EXPECT_EQ(fake.logged("can't open /dev/video0"), 1);
  EXPECT_TRUE(fake.called("log 3 can't open /dev/video0"));
  EXPECT_THAT(drivers.take(), IsEmpty());
  fake.clearCalls();
  EXPECT_LT(camera.setFlip(1), 0);
  EXPECT_TRUE(fake.called("log 3 ioctl(VICAM_IOC_SET_FLIP) fail"));
  EXPECT_EQ(camera.flip_, 0);
}

TEST_F(LumoCam, HasDefinedValuesBeforeTheyAreSet) {
  Lumo camera;
  EXPECT_EQ(camera.resolution_, -1);
  EXPECT_THAT(
      (std::array<int, 4>{camera.contrast_, camera.brightness_, camera.hue_, camera.saturation_}),
      testing::Each(127));
}

// --- Settings of the sensor alone

struct SensorSetting {
  const char* name;
  const char* request;
  unsigned long number;
  int (TCamera::*set)(int);
  int Lumo::*field;
};

const SensorSetting kSensorSettings[] = {
    {"SET_BACKLIGHT", "4004572C", 0x4004572C, &TCamera::setBacklight, &Lumo::backlight_},
    {"SET_MAXSHUTTER", "40045731", 0x40045731, &TCamera::setShutter, &Lumo::shutter_},
    {"SET_MIRROR", "800476CD", 0x800476CD, &TCamera::setMirror, &Lumo::mirror_},
    {"SET_EXPOSURE", "4004572F", 0x4004572F, &TCamera::setExposure, &Lumo::exposure_},
    {"SET_FLICKER_MODE", "800476CB", 0x800476CB, &TCamera::setFlicker, &Lumo::flicker_},
    {"SET_BALANCE", "4004572E", 0x4004572E, &TCamera::setWhiteBalance, &Lumo::whiteBalance_},
    {"SET_NOISEFILTER", "40045730", 0x40045730, &TCamera::setNoiseReduction,
     &Lumo::noiseReduction_},
    {"SET_FLIP", "800476CC", 0x800476CC, &TCamera::setFlip, &Lumo::flip_},
};

TEST_F(LumoCam, ASensorSettingGoesToTheDriverAsItIsInEveryMode) {
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    for (const SensorSetting& setting : kSensorSettings)
      for (const int value : {0, 1, 77, 2147483647, -5}) {
        EXPECT_EQ((*camera.*setting.set)(value), value) << setting.name;
        EXPECT_THAT(drivers.take(), ElementsAre(std::string("sensor ") + setting.request + " " +
                                                std::to_string(value)));
        EXPECT_EQ((*camera).*setting.field, value) << setting.name;
      }
    EXPECT_THAT(fake.calls(), IsEmpty()) << "nothing is published or logged";
  }
}

TEST_F(LumoCam, WhatTheDriverMadeOfASettingIsKept) {
  const auto camera = inMode(2);
  for (const SensorSetting& setting : kSensorSettings) {
    drivers.leaves[setting.number] = 9;
    EXPECT_EQ((*camera.*setting.set)(4), 9) << setting.name;
    EXPECT_EQ((*camera).*setting.field, 9) << setting.name;
  }
}

TEST_F(LumoCam, ARefusedSensorSettingStaysAsItWas) {
  const auto camera = inMode(1);
  for (const SensorSetting& setting : kSensorSettings) {
    (*camera.*setting.set)(3);
    drivers.failing.insert(setting.number);
    drivers.leaves[setting.number] = 8;
    fake.clearCalls();
    EXPECT_EQ((*camera.*setting.set)(4), -1) << setting.name;
    EXPECT_EQ((*camera).*setting.field, 3) << setting.name;
    EXPECT_THAT(fake.calls(),
                ElementsAre("log 3 ioctl(VICAM_IOC_" + std::string(setting.name) + ") fail"));
  }
}

// --- Colours

struct ColourSetting {
  const char* name;
  void (TCamera::*set)(int);
  int Lumo::*field;
};

const ColourSetting kColourSettings[] = {
    {"brightness", &TCamera::setBrightness, &Lumo::brightness_},
    {"hue", &TCamera::setHue, &Lumo::hue_},
    {"saturation", &TCamera::setSaturation, &Lumo::saturation_},
    {"contrast", &TCamera::setContrast, &Lumo::contrast_},
};

TEST_F(LumoCam, BrightnessIsCutAtBothEnds) {
  const auto camera = inMode(1);
  camera->setBrightness(-5);
  EXPECT_EQ(camera->brightness_, 0);
  camera->setBrightness(300);
  EXPECT_EQ(camera->brightness_, 255);
}

TEST_F(LumoCam, ColoursAreCutToAByteAndWaitForTheNextPicture) {
  const struct {
    int value;
    int kept;
  } kCuts[] = {{-2147483647 - 1, 0}, {-1, 0},    {0, 0},     {1, 1},           {127, 127},
               {254, 254},           {255, 255}, {256, 255}, {2147483647, 255}};
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    for (const ColourSetting& colour : kColourSettings)
      for (const auto& cut : kCuts) {
        TMpg430::fImage = false;
        (*camera.*colour.set)(cut.value);
        EXPECT_EQ((*camera).*colour.field, cut.kept) << colour.name << " " << cut.value;
        EXPECT_TRUE(TMpg430::fImage) << colour.name;
      }
    EXPECT_THAT(drivers.take(), IsEmpty());
  }
}

TEST_F(LumoCam, ThePictureRecordKeepsWhatIsNotAColour) {
  const auto camera = inMode(1);
  drivers.picture = {11, 22, 33, 44, 0x5555, 24, 4};
  camera->setBrightness(100);
  camera->setHue(127);
  camera->setSaturation(0);
  camera->setContrast(255);
  EXPECT_EQ(camera->setImage(), 0);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 400E7606 ?",
                                          "sensor 800E7607 25600,32512,0,65280 w=21845 d=24 p=4"));
}

TEST_F(LumoCam, ColoursThatWereNeverSetAreInTheMiddle) {
  const auto camera = inMode(1);
  camera->setImage();
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 400E7606 ?",
                                          "sensor 800E7607 32512,32512,32512,32512 w=0 d=0 p=0"));
}

TEST_F(LumoCam, AFailedPictureRequestEndsTheMatter) {
  const auto camera = inMode(1);
  drivers.failing = {0x400E7606};
  EXPECT_EQ(camera->setImage(), -1);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 400E7606 ?"));
  EXPECT_THAT(fake.calls(), ElementsAre("log 3 ioctl(VICAM_IOC_VIDIOCGPICT) fail"));
  fake.clearCalls();
  drivers.failing = {0x800E7607};
  EXPECT_EQ(camera->setImage(), -1);
  EXPECT_THAT(fake.calls(), ElementsAre("log 3 ioctl(VICAM_IOC_VIDIOCSPICT) fail"));
}

// --- Frame rate

TEST_F(LumoCam, TheFrameRateReachesWhatTheModeUses) {
  const Trace kExpected[] = {{"encoder 00A00000 7"},
                             {"sensor 40045727 3"},
                             {"sensor 40045727 3", "encoder 00A00000 7"},
                             {"sensor 40045727 3"}};
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    fake.video.setSlot(kSlotStatus, 0);
    EXPECT_EQ(camera->setFramerate(7), 0);
    EXPECT_EQ(drivers.take(), kExpected[mode]) << mode;
    EXPECT_EQ(camera->framerate_, 7);
    EXPECT_EQ(rate(), 7) << "the setting is published, not the driver's code";
    EXPECT_EQ(fake.video.slotWrites(kSlotStatus), mode + 1) << "once, also where two took it";
  }
}

TEST_F(LumoCam, EachFrameRateHasItsCode) {
  const auto camera = inMode(1);
  const int kCodes[] = {30, 15, 10, 7, 6, 5, 3, 3, 2, 2, 1, 1};
  for (int setting = 0; setting < 12; ++setting) {
    camera->setFramerate(setting);
    EXPECT_THAT(drivers.take(), ElementsAre("sensor 40045727 " + std::to_string(kCodes[setting])));
  }
  for (const int setting : {42, -1, 2147483647, -2147483647 - 1}) {
    camera->setFramerate(setting);
    EXPECT_THAT(drivers.take(), ElementsAre("sensor 40045727 1")) << setting;
  }
}

TEST_F(LumoCam, ARefusedFrameRateIsNotPublished) {
  for (const int mode : {1, 3}) {
    const auto camera = inMode(mode);
    camera->setFramerate(5);
    drivers.failing = {0x40045727};
    fake.clearCalls();
    EXPECT_EQ(camera->setFramerate(6), -1);
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 ioctl(VICAM_IOC_VICAM_IOC_SET_FRAMERATEID) fail"));
    EXPECT_EQ(camera->framerate_, 5);
    EXPECT_EQ(rate(), 5);
    drivers.failing.clear();
  }
}

TEST_F(LumoCam, OfTwoDevicesOneMayRefuseTheFrameRate) {
  const auto camera = inMode(2);
  drivers.failing = {0x40045727};
  EXPECT_EQ(camera->setFramerate(6), 0);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 40045727 3", "encoder 00A00000 6"));
  EXPECT_EQ(rate(), 6);
  drivers.failing = {0x00A00000};
  EXPECT_EQ(camera->setFramerate(4), -1);
  EXPECT_EQ(rate(), 4) << "the sensor has taken it";
  drivers.failing = {0x40045727, 0x00A00000};
  EXPECT_EQ(camera->setFramerate(3), -1);
  EXPECT_EQ(rate(), 4);
  EXPECT_EQ(camera->framerate_, 4);
}

// --- Compression

TEST_F(LumoCam, TheCompressionReachesWhatTheModeUses) {
  const Trace kExpected[] = {{"encoder 01300000 12"},
                             {"sensor 400456D1 24"},
                             {"sensor 400456D1 24", "encoder 01300000 12"},
                             {"sensor 400456D1 24"}};
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    fake.video.setSlot(kSlotFormat, 0);
    EXPECT_EQ(camera->setCompression(12), 0);
    EXPECT_EQ(drivers.take(), kExpected[mode]) << mode;
    EXPECT_EQ(camera->compression_, 12);
    EXPECT_EQ(compression(), 12);
  }
}

TEST_F(LumoCam, FourCompressionsHaveTheirOwnRate) {
  const auto camera = inMode(1);
  for (int setting = -1; setting <= 40; ++setting) {
    const int rate = setting == 5    ? 79
                     : setting == 6  ? 65
                     : setting == 12 ? 24
                     : setting == 16 ? 2
                                     : 50;
    camera->setCompression(setting);
    EXPECT_THAT(drivers.take(), ElementsAre("sensor 400456D1 " + std::to_string(rate))) << setting;
  }
}

TEST_F(LumoCam, ARefusedCompressionIsNotPublished) {
  for (const int mode : {1, 3}) {
    const auto camera = inMode(mode);
    camera->setCompression(5);
    drivers.failing = {0x400456D1};
    fake.clearCalls();
    TMpg430::fHeadr = false;
    EXPECT_EQ(camera->setCompression(6), -1);
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 ioctl(VICAM_IOC_VICAM_IOC_SET_COMP_RATE) fail"));
    EXPECT_EQ(camera->compression_, 5);
    EXPECT_EQ(compression(), 5);
    EXPECT_FALSE(TMpg430::fHeadr);
    drivers.failing.clear();
  }
}

TEST_F(LumoCam, OfTwoDevicesOneMayRefuseTheCompression) {
  const auto camera = inMode(2);
  drivers.failing = {0x400456D1};
  EXPECT_EQ(camera->setCompression(6), 0);
  EXPECT_EQ(compression(), 6);
  drivers.failing = {0x01300000};
  EXPECT_EQ(camera->setCompression(5), -1);
  EXPECT_EQ(compression(), 5) << "the sensor has taken it";
}

// --- Resolution

TEST_F(LumoCam, TheResolutionReachesWhatTheModeUses) {
  const Trace kExpected[] = {{"encoder 00800000 8"},
                             {"sensor 8020760A 320x240"},
                             {"sensor 8020760A 320x240", "encoder 00800000 8"},
                             {"sensor 8020760A 320x240"}};
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    fake.video.setSlot(kSlotFormat, 0);
    camera->setResolution(8);
    EXPECT_EQ(drivers.take(), kExpected[mode]) << mode;
    EXPECT_EQ(camera->resolution_, 8);
    EXPECT_EQ(resolution(), 8);
  }
}

TEST_F(LumoCam, TheSensorKnowsThreeSizes) {
  const auto camera = inMode(1);
  for (int index = -1; index <= 12; ++index) {
    camera->setResolution(index);
    const char* const size = index == 7 ? "640x480" : index == 8 ? "320x240" : "160x120";
    EXPECT_THAT(drivers.take(), ElementsAre(std::string("sensor 8020760A ") + size)) << index;
    EXPECT_EQ(camera->resolution_, index);
  }
}

TEST_F(LumoCam, AnotherResolutionInModeOneIsTheSmallestPicture) {
  const auto camera = inMode(1);
  camera->setResolution(2);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 8020760A 160x120"));
}

TEST_F(LumoCam, ARefusedResolutionIsNotPublished) {
  for (const int mode : {1, 3}) {
    const auto camera = inMode(mode);
    camera->setResolution(7);
    drivers.failing = {0x8020760A};
    fake.clearCalls();
    TMpg430::fHeadr = false;
    camera->setResolution(8);
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 ioctl(VICAM_IOC_VIDIOCSWIN) fail"));
    EXPECT_EQ(camera->resolution_, 7);
    EXPECT_EQ(resolution(), 7);
    EXPECT_FALSE(TMpg430::fHeadr);
    drivers.failing.clear();
  }
}

TEST_F(LumoCam, OfTwoDevicesOneMayRefuseTheResolution) {
  const auto camera = inMode(2);
  drivers.failing = {0x8020760A};
  camera->setResolution(7);
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 8020760A 640x480", "encoder 00800000 7"));
  EXPECT_EQ(resolution(), 7);
  drivers.failing = {0x00800000};
  camera->setResolution(8);
  EXPECT_EQ(resolution(), 8) << "the sensor has taken it";
}

// --- What the encoder alone knows

TEST_F(LumoCam, InputAndRatioGoToTheEncoderInEveryMode) {
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    camera->setSource(2);
    camera->setIpratio(9);
    EXPECT_THAT(drivers.take(), ElementsAre("encoder 02000000 2", "encoder 02700000 9"));
    EXPECT_EQ(camera->source_, 2);
    EXPECT_EQ(camera->ipratio_, 9);
  }
}

// --- Modes

TEST_F(LumoCam, AModeStartsAndStopsTheEncoder) {
  const std::string kStart = "encoder 01100000 1";
  const std::string kStop = "encoder 01100000 0";
  for (int from = 0; from <= 3; ++from)
    for (int to = 0; to <= 3; ++to) {
      const auto camera = inMode(from);
      camera->resolution_ = 7;
      camera->setMode(to);
      Trace expected;
      if (from == 1 && to != 1) expected.push_back(kStart);
      if (from != 1 && to == 1) expected.push_back(kStop);
      EXPECT_EQ(drivers.take(), expected) << from << " to " << to;
      EXPECT_EQ(camera->getMode(), to);
      EXPECT_EQ(mode(), to);
    }
}

TEST_F(LumoCam, ModeZeroTakesTheWholePictureOfTheSensor) {
  for (int from = 0; from <= 3; ++from)
    for (const int index : {-1, 0, 6, 7, 8, 10}) {
      const auto camera = inMode(from);
      camera->resolution_ = index;
      camera->setMode(0);
      Trace expected;
      if (index != 7) expected.push_back("sensor 8020760A 640x480");
      if (from == 1) expected.push_back("encoder 01100000 1");
      EXPECT_EQ(drivers.take(), expected) << from << " " << index;
      EXPECT_EQ(camera->resolution_, index) << "the setting stays as it is";
    }
}

TEST_F(LumoCam, AModeIsSetThoughTheSensorRefusesItsWindow) {
  const auto camera = inMode(1);
  drivers.failing = {0x8020760A};
  camera->setMode(0);
  EXPECT_TRUE(fake.called("log 3 ioctl(VICAM_IOC_VIDIOCSWIN) fail"));
  EXPECT_EQ(camera->getMode(), 0);
}

TEST_F(LumoCam, AModeThatDoesNotExistIsKeptAndLeavesTheEncoderRunning) {
  const auto camera = inMode(1);
  camera->setMode(7);
  EXPECT_THAT(drivers.take(), ElementsAre("encoder 01100000 1"));
  EXPECT_TRUE(fake.called("log 3 TCamera::setMode() Unsupported mode: 7"));
  EXPECT_EQ(camera->getMode(), 7);
}

TEST_F(LumoCam, ModeThreeIsAClientOfTheJpegWriter) {
  {
    const auto camera = inMode(0);
    camera->setMode(3);
    EXPECT_TRUE(jpgWriter()->getRef());
  }
  EXPECT_FALSE(jpgWriter()->getRef());
}

// --- The stream header

TEST_F(LumoCam, TheHeaderIsFetchedAnewAfterEachChangeOfMode) {
  for (int from = 0; from <= 3; ++from)
    for (int to = 0; to <= 3; ++to) {
      const auto camera = inMode(from);
      TMpg430::fHeadr = false;
      camera->setMode(to);
      EXPECT_TRUE(TMpg430::fHeadr) << from << " to " << to;
    }
}

TEST_F(LumoCam, TheHeaderIsFetchedAnewAfterEachChangeOfResolutionOrCompression) {
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    TMpg430::fHeadr = false;
    camera->setResolution(8);
    EXPECT_TRUE(TMpg430::fHeadr) << mode;
    TMpg430::fHeadr = false;
    camera->setCompression(6);
    EXPECT_TRUE(TMpg430::fHeadr) << mode;
    TMpg430::fHeadr = false;
    camera->setFramerate(1);
    EXPECT_FALSE(TMpg430::fHeadr) << "no matter of the header";
  }
}

TEST_F(LumoCam, OutsideModeOneTheHeaderIsTheEncoders) {
  for (const int mode : {0, 2, 3}) {
    const auto camera = inMode(mode);
    camera->setResolution(7);
    drivers.take();
    EXPECT_EQ(userdata(*camera, 0), "0000010000000120207477656c76652062797465") << mode;
    EXPECT_THAT(drivers.take(), ElementsAre("encoder 01200000 ?"));
    EXPECT_EQ(userdata(*camera, 0), "0000010000000120207477656c76652062797465");
    EXPECT_THAT(drivers.take(), IsEmpty()) << "fetched once";
  }
}

TEST_F(LumoCam, InModeOneTheHeaderCarriesTheSizeAlone) {
  const auto camera = inMode(1);
  camera->setResolution(7);
  drivers.take();
  EXPECT_EQ(userdata(*camera, 0),
            "000000000000000000000000"
            "00014003c0"
            "000000");
  camera->setResolution(8);
  EXPECT_EQ(userdata(*camera, 0),
            "000000000000000000000000"
            "0000a001e0"
            "000000");
  EXPECT_THAT(drivers.take(), ElementsAre("sensor 8020760A 320x240")) << "the encoder is not asked";
}

// Reads the size where players look for it.
TEST_F(LumoCam, TheSizeStandsInTheHeaderBitByBit) {
  const auto camera = inMode(1);
  for (int index = 0; index < TMpg430::kResolutions; ++index) {
    camera->setResolution(index);
    unsigned char bytes[20] = {};
    ASSERT_EQ(hex2bin(userdata(*camera, 0).c_str(), reinterpret_cast<char*>(bytes), 20), 20);
    const auto bits = [&bytes](int from, int count) {
      int value = 0;
      for (int bit = from; bit < from + count; ++bit)
        value = value * 2 + (bytes[bit / 8] >> (7 - bit % 8) & 1);
      return value;
    };
    EXPECT_EQ(bits(108, 13), TMpg430::tabWidth[index]) << index;
    EXPECT_EQ(bits(122, 13), TMpg430::tabHeight[index]) << index;
    EXPECT_EQ(bits(121, 1) + bits(135, 1), 0);
    for (int bit = 0; bit < 108; ++bit) EXPECT_EQ(bits(bit, 1), 0) << bit;
    for (int bit = 136; bit < 160; ++bit) EXPECT_EQ(bits(bit, 1), 0) << bit;
  }
}

TEST_F(LumoCam, AResolutionOutsideTheTableIsASizeOfZero) {
  const auto camera = inMode(1);
  const std::string zeros(40, '0');
  for (const int index : {11, 12, -1, -7, 2147483647, -2147483647 - 1}) {
    camera->setResolution(7);
    userdata(*camera, 0);
    camera->setResolution(index);
    fake.clearCalls();
    EXPECT_EQ(userdata(*camera, 0), zeros) << index;
    EXPECT_EQ(userdata(*camera, 0), zeros) << index;
    EXPECT_THAT(fake.calls(), ElementsAre("log 3 TLumoCam::getUserdata() IPE")) << "once";
  }
}

TEST_F(LumoCam, AResolutionThatWasNeverSetIsASizeOfZero) {
  const auto camera = inMode(1);
  EXPECT_EQ(userdata(*camera, 0), std::string(40, '0'));
  EXPECT_TRUE(fake.called("log 3 TLumoCam::getUserdata() IPE"));
}

TEST_F(LumoCam, TheSizeIsRightAgainAfterASpellOfMpeg4) {
  const std::string kSize =
      "000000000000000000000000"
      "00014003c0"
      "000000";
  const std::string kMpeg4 = "0000010000000120207477656c76652062797465";
  for (const int between : {0, 2, 3}) {
    const auto camera = inMode(1);
    camera->setResolution(7);
    EXPECT_EQ(userdata(*camera, 0), kSize);
    camera->setMode(between);
    EXPECT_EQ(userdata(*camera, 0), kMpeg4);
    camera->setMode(1);
    EXPECT_EQ(userdata(*camera, 0), kSize) << "the same resolution as before";
    camera->setMode(between);
    EXPECT_EQ(userdata(*camera, 0), kMpeg4);
  }
}

// A key frame needs its header before anybody asks for the text.
TEST_F(LumoCam, TheSizeIsRightAgainThoughTheHeaderWasFetchedForRecordersAlone) {
  const auto camera = inMode(1);
  camera->setResolution(7);
  const std::string size = userdata(*camera, 0);
  camera->setMode(0);
  drivers.onChunk = [](char* buffer, long room) {
    return FakeDrivers::give(std::string("\0\0\1\xB6\x10 key", 9), buffer, room);
  };
  aviWriter()->addRef(this);
  std::string frame(kFrameBytes, '\0');
  drivers.take();
  for (int i = 0; i < 3; ++i) camera->getImage(&frame[0], TWriter::getFrameSize(sbVideo()));
  aviWriter()->delRef(this);
  EXPECT_THAT(drivers.take(), testing::Contains("encoder 01200000 ?"));
  camera->setMode(1);
  EXPECT_EQ(userdata(*camera, 0), size);
}

// The camera's field alone may change too: a mode that a new camera starts in is not set.
TEST_F(LumoCam, TheEncodersHeaderNeverStandsForTheSize) {
  const auto camera = inMode(1);
  camera->setResolution(8);
  const std::string size = userdata(*camera, 0);
  camera->mode_ = 2;
  EXPECT_NE(userdata(*camera, 0), size);
  camera->mode_ = 1;
  EXPECT_EQ(userdata(*camera, 0), size);
}

TEST_F(LumoCam, AnUnknownTextIsLeftUntouched) {
  for (int mode = 0; mode <= 3; ++mode) {
    const auto camera = inMode(mode);
    for (const int which : {3, -1, 100}) EXPECT_EQ(userdata(*camera, which), "untouched");
  }
}

}  // namespace
