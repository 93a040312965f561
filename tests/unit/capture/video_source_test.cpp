// The capture thread.
#include "capture/video_source.h"

#include <gtest/gtest.h>

#include "capture/camera.h"
#include "capture/devices/file_source.h"
#include "capture/devices/lumo_cam.h"
#include "capture/devices/mpg430.h"
#include "capture/frame_record.h"
#include "capture/video_args.h"
#include "core/status_slots.h"
#include "tests/fakes/allocations.h"
#include "tests/fakes/fake_platform.h"

namespace {

class VideoSource : public testing::Test {
 protected:
  VideoSource() : args(0, nullptr) {
    TCamera::defMode = 1;
    fake.files.put("test.jpg", picture);
  }

  // Runs the thread for that many pauses: a frame of the unpaced file source makes one.
  void runFor(TVideoSource& source, long pauses) {
    source.run();
    fake.stopAfterPasses(pauses);
    fake.runBody(source);
  }

  std::vector<int> numbers() {
    std::vector<int> result;
    for (const FakeFrame& frame : fake.video.frames()) result.push_back(frame.number);
    return result;
  }

  FakePlatform fake;
  TVideoArgs args;
  const std::string picture = "a picture";
};

TEST_F(VideoSource, AnythingButAModelIsAPictureFile) {
  args.source = "photo.jpg";
  fake.files.put("photo.jpg", "x");
  const TVideoSource source(args);
  EXPECT_NE(dynamic_cast<TFileSource*>(source.camera()), nullptr);
  EXPECT_EQ(TCamera::defMode, 1);
  EXPECT_EQ(fake.count("log"), 0);
}

TEST_F(VideoSource, AModelWithAWrongCompressionTypeHasNoCamera) {
  const struct {
    const char* model;
    int type;
    const char* message;
  } cases[] = {
      {"KTX-310", 1, "KTX-310 must use CompressionType 0"},
      {"KTX-310", -1, "KTX-310 must use CompressionType 0"},
      {"BRM-520", 2, "BRM-520 must use CompressionType 0 or 1"},
      {"BRM-520", -1, "BRM-520 must use CompressionType 0 or 1"},
  };
  for (const auto& one : cases) {
    TCamera::defMode = 1;
    fake.takeCalls();
    args.source = one.model;
    args.compressionType = one.type;
    TVideoSource source(args);
    EXPECT_EQ(source.camera(), nullptr);
    EXPECT_EQ(fake.callsWith("log"), std::vector<std::string>{"log 3 " + std::string(one.message)});
    EXPECT_EQ(TCamera::defMode, 0);
  }
}

TEST_F(VideoSource, AModelIsTheCameraOfItsName) {
  args.source = "KTX-310";
  args.compressionType = 0;
  {
    TVideoSource encoder(args);
    EXPECT_NE(dynamic_cast<TMpg430*>(encoder.camera()), nullptr);
    EXPECT_EQ(dynamic_cast<TLumoCam*>(encoder.camera()), nullptr);
  }
  EXPECT_EQ(TCamera::defMode, 0);
  args.source = "BRM-520";
  for (const int type : {0, 1}) {
    TCamera::defMode = 1;
    args.compressionType = type;
    TVideoSource sensor(args);
    EXPECT_NE(dynamic_cast<TLumoCam*>(sensor.camera()), nullptr);
    EXPECT_EQ(TCamera::defMode, 0);
  }
}

TEST_F(VideoSource, WithoutACameraItNeverRuns) {
  args.source = "BRM-520";
  TVideoSource source(args);
  source.run();
  EXPECT_FALSE(source.running());
  EXPECT_FALSE(fake.started(source));
  source.config();
  EXPECT_FALSE(fake.video.slotWritten(kSlotResolution));
}

TEST_F(VideoSource, PublishesEverySettingInOrder) {
  args.videoSource = 101;
  args.resolution = 102;
  args.frameRate = 103;
  args.compressRate = 104;
  args.ipRatio = 105;
  args.brightness = 106;
  args.contrast = 107;
  args.saturation = 108;
  args.hue = 109;
  args.flip = 110;
  args.mirror = 111;
  args.overlay = 112;
  args.motionDetection = 113;
  args.flicker = 114;
  args.whiteBalance = 115;
  args.noiseReduction = 116;
  args.compressionType = 117;
  args.exposure = 118;
  args.backlight = 119;
  args.maxExposure = 120;
  fake.video.setSlot(kSlotStatus, -1);
  fake.video.setSlot(kSlotFormat, -1);
  const TVideoSource source(args);
  std::vector<std::string> expected = {"sbSetUserdata(video,24,0)", "sbSetUserdata(video,28,0)"};
  int value = 101;
  for (const int slot : {1, 20, 4, 5, 6, 8, 9, 10, 11, 12, 13, 15, 16, 7, 17, 18, 2, 3, 19, 21}) {
    expected.push_back("sbSetUserdata(video," + std::to_string(slot) + "," +
                       std::to_string(value++) + ")");
  }
  EXPECT_EQ(fake.callsWith("sbSetUserdata"), expected);
}

TEST_F(VideoSource, WithoutABufferItSaysSoAndGoesOn) {
  fake.video.detach();
  TVideoSource source(args);
  EXPECT_EQ(fake.logged("Can't attach video streaming buffer"), 1);
  runFor(source, 3);
  EXPECT_EQ(fake.logged("video buffer busy"), 3);
}

TEST_F(VideoSource, AFrameHasItsRecordAndThePicture) {
  TVideoSource source(args);
  fake.advance(1.25);
  runFor(source, 1);
  ASSERT_EQ(fake.video.published(), 1);
  const FakeFrame frame = fake.video.last();
  EXPECT_EQ(frame.payload, picture);
  EXPECT_EQ(frame.length, static_cast<int>(picture.size()));
  EXPECT_EQ(frame.number, 1);
  EXPECT_EQ(frame.time, *source.camera()->getTime());
  EXPECT_EQ(frame.time.microseconds(), 250000u);
  for (const std::string& text : frame.text) EXPECT_EQ(text, "");
}

TEST_F(VideoSource, TheRecordHasItsBytesInTheirPlaces) {
  TDateTime time;
  time.set(0x01020304, 0x000a0b0c);
  unsigned char bytes[kFrameHeadBytes + 1] = {};
  stampFrame(*reinterpret_cast<SB_FRAME*>(bytes), time, 0x11121314, -2);
  const unsigned char expected[17] = {4,    3,    2,    1,    0x0c, 0x0b, 0x0a, 0, 0x14,
                                      0x13, 0x12, 0x11, 0xfe, 0xff, 0xff, 0xff, 0};
  for (std::size_t i = 0; i < sizeof expected; ++i) EXPECT_EQ(bytes[i], expected[i]) << i;
}

TEST_F(VideoSource, FramesAreCountedOnInTheBuffer) {
  fake.video.setSlot(kSlotFrameCount, 41);
  TVideoSource source(args);
  runFor(source, 3);
  EXPECT_EQ(numbers(), (std::vector<int>{42, 43, 44}));
  EXPECT_EQ(fake.video.slot(kSlotFrameCount), 44);
  runFor(source, 1);
  EXPECT_EQ(numbers().back(), 45);
}

TEST_F(VideoSource, TheFrameCountWraps) {
  fake.video.setSlot(kSlotFrameCount, 2147483646);
  TVideoSource source(args);
  runFor(source, 2);
  EXPECT_EQ(numbers(), (std::vector<int>{2147483647, -2147483647 - 1}));
  fake.video.setSlot(kSlotFrameCount, -1);
  EXPECT_EQ(source.getFrameCount(), 0);
}

TEST_F(VideoSource, HasNoPauseOfItsOwnWhileFramesCome) {
  TVideoSource source(args);
  runFor(source, 5);
  EXPECT_EQ(fake.pausesUs(), std::vector<long>(5, 20000));  // the file source's
  EXPECT_EQ(fake.video.published(), 5);
}

TEST_F(VideoSource, WithoutAFreeFrameItPausesAndTriesAgain) {
  TVideoSource source(args);
  fake.video.noFreeFrame();
  fake.at(0.1, [&] { fake.video.noFreeFrame(false); });
  runFor(source, 4);
  EXPECT_EQ(fake.callsWith("log"), std::vector<std::string>(3, "log 1 video buffer busy"));
  EXPECT_EQ(fake.pausesUs(), (std::vector<long>{30000, 30000, 30000, 20000}));
  EXPECT_EQ(numbers(), std::vector<int>{1});
}

TEST_F(VideoSource, AReadThatFailsIsInTheRecordAndNotShown) {
  args.source = "none.jpg";
  TVideoSource source(args);
  runFor(source, 2);
  EXPECT_EQ(fake.video.published(), 2);
  EXPECT_EQ(fake.video.last().length, -1);
  EXPECT_EQ(numbers(), (std::vector<int>{1, 2}));
  std::int32_t number = 0, epoch = 0;
  EXPECT_FALSE(TAutoFrame(sbVideo(), 10000, &number, &epoch, 0));
}

TEST_F(VideoSource, ASourceThatAlwaysFailsIsAskedSeldom) {
  for (const char* name : {"none.jpg", "empty.jpg"}) {
    fake.files.put("empty.jpg", "");
    fake.takeCalls();
    args.source = name;
    TVideoSource source(args);
    source.run();
    fake.stopAfter(60);
    fake.runBody(source);
    EXPECT_LE(fake.callsWith("log 3 reading file source return").size(), 60u * 50) << name;
    EXPECT_GE(fake.callsWith("log 3 reading file source return").size(), 60u * 10) << name;
  }
}

TEST_F(VideoSource, APictureLargerThanAFrameComesInPieces) {
  fake.video.setFrameSize(static_cast<long>(kFrameHeadBytes) + 4);
  fake.files.put("test.jpg", "abcdefghi");
  TVideoSource source(args);
  runFor(source, 4);
  std::vector<std::string> pieces;
  for (const FakeFrame& frame : fake.video.frames()) pieces.push_back(frame.payload);
  EXPECT_EQ(pieces, (std::vector<std::string>{"abcd", "efgh", "i", "abcd"}));
}

TEST_F(VideoSource, APictureThatIsReplacedWhileRunningShowsWhenItIsWritten) {
  TVideoSource source(args);
  fake.at(0.05, [&] { fake.files.put("test.jpg", ""); });
  fake.at(0.15, [&] { fake.files.put("test.jpg", "another picture"); });
  source.run();
  fake.stopAfter(0.3);
  fake.runBody(source);
  EXPECT_EQ(fake.video.frames().front().payload, picture);
  EXPECT_EQ(fake.video.last().payload, "another picture");
  EXPECT_GT(fake.logged("reading file source return 0"), 0);
}

TEST_F(VideoSource, TheFirstConfigAppliesEverySettingThatIsSet) {
  args.frameRate = 2;
  args.resolution = 7;
  args.compressionType = 2;
  TVideoSource source(args);
  source.config();
  EXPECT_EQ(source.camera()->getMode(), 2);
  EXPECT_EQ(kStatusMode.get(fake.video.slot(kSlotStatus)), 2);
  EXPECT_EQ(kStatusFramerate.get(fake.video.slot(kSlotStatus)), 2);
  EXPECT_EQ(kStatusIpratio.get(fake.video.slot(kSlotStatus)), 0);  // unset
  EXPECT_EQ(fake.video.slot(kSlotFormat), 7);
  for (int slot = 1; slot <= 22; ++slot) EXPECT_FALSE(fake.video.slotWritten(slot)) << slot;
}

TEST_F(VideoSource, ASettingTakesEffectBetweenTwoFrames) {
  TVideoSource source(args);
  fake.video.onPublish([&](const FakeFrame& frame) {
    if (frame.number == 2) fake.video.setSlot(kSlotFramerate, 0);
  });
  runFor(source, 4);
  EXPECT_EQ(fake.pausesUs(), (std::vector<long>{20000, 20000, 92000, 20000}));
}

TEST_F(VideoSource, AStepOfTheClockLeavesThePaceAlone) {
  args.frameRate = 0;  // one frame each 112 ms
  TVideoSource source(args);
  double when = 1;
  for (const long step : {1L, -1L, 3600L, -3600L, 86400L, -86400L})
    fake.at(when++, [&fake = fake, step] { fake.stepWallClock(step); });
  source.run();
  fake.stopAfter(11.2);
  fake.runBody(source);
  EXPECT_NEAR(static_cast<double>(fake.video.published()), 100, 6);
  for (const long pause : fake.pausesUs()) EXPECT_LE(pause, 112000);
}

TEST_F(VideoSource, AllocatesNothingPerFrame) {
  args.frameRate = 15;
  TVideoSource source(args);
  long before = 0;
  fake.keepCalls(false);
  fake.video.onPublish([&](const FakeFrame& frame) {
    if (frame.number == 10) before = allocations();
  });
  runFor(source, 1000);
  EXPECT_EQ(fake.video.slot(kSlotFrameCount), 1000);
  EXPECT_GT(before, 0);
  EXPECT_EQ(allocations() - before, 0);
}

// A camera that tells which setting came with which value.
class Witness : public TCamera {
 public:
  Witness() : TCamera("test.jpg") {}
  using Calls = std::vector<std::string>;
  Calls calls;

  int setMotionDetection(int value) override { return note("setMotionDetection", value); }
  void setOverlay(int value) override { note("setOverlay", value); }
  void setTimestamp() override { calls.push_back("setTimestamp()"); }
  void setMode(int value) override { note("setMode", value); }
  void setPackage(int value) override { note("setPackage", value); }
  int setExposure(int value) override { return note("setExposure", value); }
  int setWhiteBalance(int value) override { return note("setWhiteBalance", value); }
  int setNoiseReduction(int value) override { return note("setNoiseReduction", value); }
  int setSource(int value) override { return note("setSource", value); }
  int setIpratio(int value) override { return note("setIpratio", value); }
  int setBacklight(int value) override { return note("setBacklight", value); }
  int setShutter(int value) override { return note("setShutter", value); }
  int setFlip(int value) override { return note("setFlip", value); }
  int setMirror(int value) override { return note("setMirror", value); }
  int setFramerate(int value) override { return note("setFramerate", value); }
  void setResolution(int value) override { note("setResolution", value); }
  int setCompression(int value) override { return note("setCompression", value); }
  void setContrast(int value) override { note("setContrast", value); }
  void setBrightness(int value) override { note("setBrightness", value); }
  void setHue(int value) override { note("setHue", value); }
  void setSaturation(int value) override { note("setSaturation", value); }
  int setFlicker(int value) override { return note("setFlicker", value); }
  void getUserdata(int which, char* text) override {
    const std::string value = "text " + std::to_string(which);
    text[value.copy(text, kFrameTextSize - 1)] = '\0';
  }

 private:
  int note(const char* operation, int value) {
    calls.push_back(std::string(operation) + "(" + std::to_string(value) + ")");
    return 0;
  }
};

class Settings : public VideoSource {
 protected:
  Settings() : source(args, std::make_unique<Witness>()) {
    source.config();
    witness().calls.clear();
  }
  Witness& witness() { return dynamic_cast<Witness&>(*source.camera()); }
  // What the camera was told since the last call.
  Witness::Calls applied() {
    source.config();
    return std::exchange(witness().calls, {});
  }
  TVideoSource source;
};

TEST_F(Settings, EachSlotHasItsOperationInAscendingOrder) {
  for (int slot = 28; slot >= 0; --slot) fake.video.setSlot(slot, 100 + slot);
  EXPECT_EQ(
      applied(),
      (Witness::Calls{"setSource(101)",          "setMode(102)",         "setExposure(103)",
                      "setFramerate(104)",       "setCompression(105)",  "setIpratio(106)",
                      "setFlicker(107)",         "setBrightness(108)",   "setContrast(109)",
                      "setSaturation(110)",      "setHue(111)",          "setFlip(112)",
                      "setMirror(113)",          "setTimestamp()",       "setOverlay(115)",
                      "setMotionDetection(116)", "setWhiteBalance(117)", "setNoiseReduction(118)",
                      "setBacklight(119)",       "setResolution(120)",   "setShutter(121)",
                      "setPackage(122)"}));
  EXPECT_TRUE(applied().empty());
  for (const int slot : {0, 23, 24, 25, 26, 28}) EXPECT_TRUE(fake.video.slotWritten(slot)) << slot;
}

TEST_F(Settings, OfTwoWritesBetweenTwoFramesTheLastIsAppliedOnce) {
  fake.video.setSlot(kSlotFramerate, 5);
  fake.video.setSlot(kSlotFramerate, 5);
  EXPECT_EQ(applied(), Witness::Calls{"setFramerate(5)"});
  fake.video.setSlot(kSlotHue, 1);
  fake.video.setSlot(kSlotHue, 2);
  EXPECT_EQ(applied(), Witness::Calls{"setHue(2)"});
}

TEST_F(Settings, AnUnsetValueIsNotApplied) {
  fake.video.setSlot(kSlotHue, -1);
  EXPECT_TRUE(applied().empty());
  fake.video.setSlot(kSlotHue, -2);
  EXPECT_EQ(applied(), Witness::Calls{"setHue(-2)"});
}

TEST_F(Settings, APackageBelowOneIsIgnored) {
  fake.video.setSlot(kSlotPackage, 0);
  EXPECT_TRUE(applied().empty());
  fake.video.setSlot(kSlotPackage, 2);
  EXPECT_EQ(applied(), Witness::Calls{"setPackage(2)"});
}

TEST_F(Settings, TheCamerasTextsComeIntoTheFrame) {
  runFor(source, 1);  // a failing read: the file is at its end
  EXPECT_EQ(fake.video.last().text[0], "text 0");
  EXPECT_EQ(fake.video.last().text[1], "text 1");
  EXPECT_EQ(fake.video.last().text[2], "text 2");
}

TEST_F(VideoSource, TheCameraGoesWithTheThread) {
  {
    TVideoSource source(args);
    EXPECT_EQ(fake.files.openCount(), 1);
  }
  EXPECT_EQ(fake.files.openCount(), 0);
}

}  // namespace
