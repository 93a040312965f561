// The capture loop: which frames are taken, how they are named and handed on, and how it ends.
#include "record/recorder.h"

#include <limits>
#include <string>
#include <vector>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr int kPictureEnds = 100;  // seconds; longer than any recording here
constexpr int kShallow = 2;        // frames: one for the recorder, the other is always the newest

class Recorder : public RecordFixture {
 protected:
  // Writes a frame whose record may be nonsense.
  void push(FakeStream& stream, std::int32_t length) {
    TAutoFrame frame(stream.handle(), 0, nullptr, nullptr, 0);
    ASSERT_TRUE(frame);
    storeLe32(frame->seconds, now().seconds());
    storeLe32(frame->microseconds, now().microseconds());
    storeLe32(frame->length, static_cast<std::uint32_t>(length));
  }

  FakeCamera camera;
  ListRecorder recorder{&camera, "/usb", "cam", nullptr};
};

TEST_F(Recorder, DurationZeroStoresOnePicture) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(0);
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.times(), ElementsAre(100));
  EXPECT_THAT(recorder.steps, ElementsAre("initial", "preview", "extension", "name", "transcode",
                                          "capture", "release"));
  EXPECT_FALSE(recorder.running());
  EXPECT_EQ(0, fake.video2.held());
}

TEST_F(Recorder, NegativeDurationStoresOnePicture) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(std::numeric_limits<long>::min());
  runBodies(recorder);
  EXPECT_THAT(recorder.pictures, SizeIs(1));
}

TEST_F(Recorder, StoresAPictureASecondUntilTheEndAndTheOneThatReachesIt) {
  fake.video2.setDepth(kShallow);
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(5);
  runBodies(recorder);
  EXPECT_THAT(recorder.times(), ElementsAre(100, 1100, 2100, 3100, 4100, 5100));
}

TEST_F(Recorder, PausesBetweenLooks) {
  pictures(fake.video2, 0.065, 10, kPictureEnds);
  recorder.start(5);
  fake.clearCalls();
  runBodies(recorder);
  const std::vector<long> pauses = fake.pausesUs();
  ASSERT_GT(pauses.size(), 5U);
  EXPECT_EQ(30000, pauses[0]) << "after it has registered";
  EXPECT_EQ(10000, pauses[1]) << "after a look without a frame";
  EXPECT_EQ(10000, pauses[2]);
  EXPECT_EQ(1000000, pauses[3]) << "after the first picture";
  EXPECT_EQ(10000, pauses[4]);
  EXPECT_EQ(1000000, pauses.back()) << "at its end";
}

TEST_F(Recorder, FramesFromBeforeTheStartAreNotTaken) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  fake.advance(0.55);
  recorder.start(0);
  runBodies(recorder);
  EXPECT_THAT(recorder.times(), ElementsAre(600));
}

TEST_F(Recorder, FrameOfTheVeryInstantOfTheStartIsNotTaken) {
  recorder.start(0);
  fake.video2.push("\xFF\xD8 at the start");
  fake.at(0.000001, [this] { fake.video2.push("\xFF\xD8 a microsecond later"); });
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(1));
  EXPECT_EQ("\xFF\xD8 a microsecond later", recorder.pictures[0].data);
}

// A recorder that is slower than the stream falls behind as far as the buffer goes.
TEST_F(Recorder, TakesFramesInTheirOrder) {
  pictures(fake.video2, 0.1, 0.4, kPictureEnds);
  recorder.start(2);
  runBodies(recorder);
  EXPECT_THAT(recorder.times(), ElementsAre(100, 500, 900, 1300, 1700, 2100));
}

TEST_F(Recorder, SecondStartMovesTheEndWithoutASecondBody) {
  fake.video2.setDepth(kShallow);
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(3);
  fake.at(2.05, [this] { recorder.start(3); });
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.times(), ElementsAre(100, 1100, 2100, 3100, 4100, 5100));
  EXPECT_EQ(1, fake.count("stop(")) << "only the first start found another buffer than before";
}

TEST_F(Recorder, SecondStartMayShortenARecording) {
  fake.video2.setDepth(kShallow);
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(60);
  fake.at(2.05, [this] { recorder.start(0); });
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.times(), ElementsAre(100, 1100, 2100));
}

TEST_F(Recorder, PictureFromBeforeTheSecondStartIsNotStoredAfterIt) {
  pictures(fake.video2, 0.1, 0.2, 0.35);
  pictures(fake.video2, 2, 1, 2);
  recorder.start(60);
  fake.at(0.5, [this] { recorder.start(0); });
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.times(), ElementsAre(100, 2000));
}

TEST_F(Recorder, MayBeStartedAgainAfterItsEnd) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(0);
  runBodies(recorder);
  fake.advance(7);
  recorder.start(0);
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(2));
  EXPECT_GT(recorder.times()[1], 8000) << "newer than the second start";
}

TEST_F(Recorder, LongestDurationDoesNotOverflow) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(std::numeric_limits<long>::max());
  fake.stopAfter(20);
  runBodies(recorder);
  EXPECT_THAT(recorder.pictures, SizeIs(testing::Ge(18U)));
}

TEST_F(Recorder, TheMostNegativeDurationsRecordOnePicture) {
  for (const long duration : {-1L, std::numeric_limits<long>::min() + 5}) {
    recorder.pictures.clear();
    pictures(fake.video2, 0.1, 0.1, kPictureEnds);
    recorder.start(duration);
    runBodies(recorder);
    EXPECT_THAT(recorder.pictures, SizeIs(1)) << duration;
  }
}

TEST_F(Recorder, JpegIsStoredAsItIs) {
  fake.at(0.1, [this] { fake.video2.push("\xFF\xD8 picture"); });
  recorder.start(0);
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(1));
  EXPECT_EQ("\xFF\xD8 picture", recorder.pictures[0].data);
  EXPECT_EQ("/usb/cam/20240603/120000.jpg", recorder.pictures[0].name);
  EXPECT_EQ(0, fake.count("i2avi("));
}

TEST_F(Recorder, AnythingElseIsConvertedToAvi) {
  for (const char* data : {"header and picture", "\xFF", "\xD8\xFF", "x"}) {
    recorder.pictures.clear();
    fake.at(0.1, [this, data] { fake.video2.push(data); });
    recorder.start(0);
    runBodies(recorder);
    ASSERT_THAT(recorder.pictures, SizeIs(1));
    EXPECT_EQ("AVI:" + std::string(data), recorder.pictures[0].data);
    EXPECT_EQ("avi", recorder.pictures[0].name.substr(recorder.pictures[0].name.size() - 3));
  }
}

TEST_F(Recorder, WhatCannotBeConvertedIsStoredRaw) {
  fake.fails("i2avi");
  fake.at(0.1, [this] { fake.video2.push("key frame"); });
  recorder.start(0);
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(1));
  EXPECT_EQ("key frame", recorder.pictures[0].data);
  EXPECT_EQ("/usb/cam/20240603/120000.avi", recorder.pictures[0].name);
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 3 TRecorder::onTranscode() i2avi() fail"));
}

TEST_F(Recorder, WithoutABufferThereIsNothingToConvertInto) {
  fake.video2.detach();
  ListRecorder early(&camera, "/usb", "cam", nullptr);
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre("log 1 Video2 buflen is 0, avibuf is not allocated"));
  fake.clearCalls();
  fake.video2.attach();
  fake.at(0.1, [this] { fake.video2.push("key frame"); });
  early.start(0);
  runBodies(early);
  ASSERT_THAT(early.pictures, SizeIs(1));
  EXPECT_EQ("key frame", early.pictures[0].data);
  EXPECT_EQ(0, fake.count("i2avi("));
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 3 TRecorder::onTranscode() i2avi() fail"));
}

TEST_F(RecordFixture, BufferSmallerThanARecordHasNoRoomToConvertInto) {
  FakeCamera camera;
  fake.video2.setFrameSize(100);
  ListRecorder early(&camera, "/usb", "cam", nullptr);
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre("log 1 Video2 buflen is 0, avibuf is not allocated"));
}

TEST_F(Recorder, FrameOfImpossibleLengthIsPassedOver) {
  fake.at(0.1, [this] { push(fake.video2, std::numeric_limits<std::int32_t>::max()); });
  fake.at(0.2, [this] { push(fake.video2, kUsable + 1); });
  for (const std::int32_t length : {0, -1})
    // No reader gets to see what was published empty, but anybody may write over a length later.
    fake.at(0.25 + 0.02 * length, [this, length] {
      const int index = fake.video2.reserve();
      SB_FRAME* const frame = fake.video2.frame(index);
      storeLe32(frame->seconds, now().seconds());
      storeLe32(frame->microseconds, now().microseconds());
      storeLe32(frame->length, 1);
      fake.video2.publish(index);
      storeLe32(frame->length, static_cast<std::uint32_t>(length));
    });
  fake.at(0.3, [this] { fake.video2.push("\xFF\xD8" + std::string(kUsable - 2, 'x')); });
  recorder.start(0);
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(1));
  EXPECT_THAT(recorder.pictures[0].data, SizeIs(kUsable));
}

// --- Names.

TEST_F(Recorder, NameIsUntitledBeforeTheFirstPicture) {
  EXPECT_STREQ("untitled", recorder.fileName());
}

TEST_F(Recorder, NameIsMadeOfPartsDateAndTimeOfDay) {
  fake.setTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  fake.setWallClock("2024-02-03 04:05:06");
  recorder.setMPoint("usb");
  recorder.setFolder("/a/b");
  recorder.setPrefix("/door/");
  EXPECT_TRUE(recorder.setName(now(), "jpg"));
  EXPECT_STREQ("/usb/a/b/20240203/door040506.jpg", recorder.fileName());
}

TEST_F(Recorder, EmptyPartsLeaveNothingBehind) {
  recorder.setPrefix("door");
  recorder.setMPoint(nullptr);
  recorder.setFolder("");
  recorder.setPrefix("");
  EXPECT_TRUE(recorder.setName(now(), "avi"));
  EXPECT_STREQ("20240603/120000.avi", recorder.fileName());
}

TEST_F(Recorder, FolderThatTriesToLeaveItsMountPointIsEmpty) {
  recorder.setFolder("../etc");
  EXPECT_TRUE(recorder.setName(now(), "jpg"));
  EXPECT_STREQ("/usb/20240603/120000.jpg", recorder.fileName());
  EXPECT_EQ(1, fake.logged("unsafe path refused: ../etc"));
}

TEST_F(Recorder, NameOfUpTo255BytesFits) {
  // 127 + 92 + "20240603/" + 17 + "120000.jpg"
  recorder.setMPoint(("/" + std::string(125, 'm')).c_str());
  recorder.setFolder(std::string(91, 'f').c_str());
  recorder.setPrefix(std::string(17, 'p').c_str());
  EXPECT_TRUE(recorder.setName(now(), "jpg"));
  EXPECT_EQ(255U, std::string(recorder.fileName()).size());
  EXPECT_THAT(fake.callsWith("log "), IsEmpty());
}

TEST_F(Recorder, LongerNameEndsTheRecording) {
  recorder.setMPoint(("/" + std::string(125, 'm')).c_str());
  recorder.setFolder(std::string(91, 'f').c_str());
  recorder.setPrefix(std::string(18, 'p').c_str());
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(60);
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.pictures, IsEmpty());
  EXPECT_THAT(recorder.steps, ElementsAre("initial", "preview", "extension", "name", "release"));
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre(StartsWith("log 2 recording name longer than 255 bytes: /mmm")));
}

// --- Steps that fail.

TEST_F(Recorder, StepThatFailsEndsTheRecording) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  for (const char* step : {"preview", "name", "capture"}) {
    recorder.steps.clear();
    recorder.refuse = step;
    recorder.start(60);
    EXPECT_EQ(1, runBodies(recorder)) << step;
    ASSERT_GE(recorder.steps.size(), 2U);
    EXPECT_EQ("release", recorder.steps.back());
    EXPECT_EQ(step, recorder.steps[recorder.steps.size() - 2]);
    EXPECT_EQ(0, fake.video2.held());
  }
}

TEST_F(Recorder, RecordingThatCannotBeginIsNotReleased) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.refuse = "initial";
  recorder.start(60);
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.steps, ElementsAre("initial"));
  EXPECT_FALSE(recorder.running());
}

// --- Buffers.

TEST_F(Recorder, CameraModeChoosesTheBuffer) {
  for (const int mode : {0, 1, 2, 3, 7}) {
    FakeStream& right = mode == 1 || mode == 3 ? fake.video : fake.video2;
    FakeStream& wrong = mode == 1 || mode == 3 ? fake.video2 : fake.video;
    recorder.pictures.clear();
    camera.mode = mode;
    fake.at(0.1, [&] { wrong.push("\xFF\xD8wrong"); });
    fake.at(0.2, [&] { right.push("\xFF\xD8right"); });
    recorder.start(0);
    runBodies(recorder);
    ASSERT_THAT(recorder.pictures, SizeIs(1)) << mode;
    EXPECT_EQ("\xFF\xD8right", recorder.pictures[0].data) << mode;
  }
}

TEST_F(Recorder, RecorderWithoutACameraSaysSo) {
  ListRecorder blind(nullptr, "/usb", nullptr, nullptr);
  fake.at(0.1, [this] { fake.video2.push("\xFF\xD8 picture"); });
  blind.start(0);
  EXPECT_THAT(fake.callsWith("log "), ElementsAre("log 3 TRecorder::getHandle() IPE"));
  runBodies(blind);
  EXPECT_THAT(blind.pictures, SizeIs(1));
}

TEST_F(Recorder, StartOnAnotherBufferEndsTheRecordingAndBeginsAnother) {
  fake.video.setDepth(kShallow);
  fake.video2.setDepth(kShallow);
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  pictures(fake.video, 0.15, 0.1, kPictureEnds);
  recorder.start(60);
  fake.at(2.05, [this] {
    camera.mode = 1;
    fake.clearCalls();
    recorder.start(2);
    EXPECT_THAT(fake.calls(), ElementsAre("stop(pthread,0)", "run(pthread)"));
  });
  EXPECT_EQ(2, runBodies(recorder));
  // The pause of the first body ends at once; the second one reads the other stream from its place.
  EXPECT_THAT(recorder.times(), ElementsAre(100, 1100, 2050, 3050, 4050));
  EXPECT_THAT(recorder.steps, Contains("release").Times(2));
}

TEST_F(Recorder, PlaceInAnotherBufferIsLookedForAnew) {
  for (int i = 0; i < 50; ++i) fake.video2.push("\xFF\xD8 old");
  fake.at(0.1, [this] { fake.video2.push("\xFF\xD8 first"); });
  recorder.start(0);
  runBodies(recorder);
  camera.mode = 3;
  fake.at(0.1, [this] { fake.video.push("\xFF\xD8 number one"); });
  recorder.start(0);
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(2));
  EXPECT_EQ("\xFF\xD8 number one", recorder.pictures[1].data);
}

TEST_F(Recorder, RecordingWithoutABufferWaitsUntilItIsStopped) {
  fake.video2.detach();
  recorder.start(0);
  fake.stopAfter(30);
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.pictures, IsEmpty());
  EXPECT_THAT(recorder.steps, ElementsAre("initial", "release"));
}

TEST_F(Recorder, BufferThatCameUpIsFoundByTheNextStart) {
  fake.video2.detach();
  recorder.start(60);
  fake.at(1, [this] { fake.video2.attach(); });
  pictures(fake.video2, 1.05, 0.1, kPictureEnds);
  fake.at(2, [this] { recorder.start(0); });
  EXPECT_EQ(2, runBodies(recorder));
  EXPECT_THAT(recorder.pictures, SizeIs(1));
}

// --- Clients of the frame writers.

TEST_F(Recorder, IsAClientOfBothWritersWhileItRecords) {
  recorder.onStep = [](const std::string& step) {
    const bool expected = step != "initial";
    EXPECT_EQ(expected, aviWriter()->getRef()) << step;
    EXPECT_EQ(expected, jpgWriter()->getRef()) << step;
  };
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  recorder.start(3);
  runBodies(recorder);
  EXPECT_FALSE(aviWriter()->getRef());
  EXPECT_FALSE(jpgWriter()->getRef());
}

TEST_F(Recorder, TakesWhatTheWritersPublishForIt) {
  for (int i = 1; i < 30; ++i)
    fake.at(i / 10.0, [] { jpgWriter()->write("\xFF\xD8 picture", 10, now(), 'J'); });
  recorder.start(0);
  runBodies(recorder);
  ASSERT_THAT(recorder.pictures, SizeIs(1));
  EXPECT_EQ("\xFF\xD8 picture", recorder.pictures[0].data);
}

TEST_F(Recorder, StoppedRecordingPausesNoLongerAndIsNoClientAnyMore) {
  pictures(fake.video2, 0.1, 0.1, kPictureEnds);
  for (const double after : {0.01, 0.05, 0.5, 1.115}) {
    recorder.start(60);
    const std::int64_t before = fake.clock.monotonicUs();
    fake.stopAfter(after);
    EXPECT_EQ(1, runBodies(recorder));
    EXPECT_LE(fake.clock.monotonicUs() - before, static_cast<std::int64_t>(after * 1e6) + 1000);
    EXPECT_EQ("release", recorder.steps.back());
    EXPECT_FALSE(aviWriter()->getRef());
    EXPECT_FALSE(jpgWriter()->getRef());
    EXPECT_EQ(0, fake.video2.held());
  }
}

}  // namespace
