// How recordings on the Samba share begin and end, and what clock steps make of their files.
#include "record/steady_time.h"
#include "tests/unit/record/smb_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using SmbLife = SmbFixture;

TEST_F(SmbLife, EndsWithItsTimeAndClosesItsFile) {
  sequence(0.1, 0.5, "IPPPPPPP");
  EXPECT_EQ(1, record(2));
  EXPECT_EQ("IPPPP", types(smbFile("120000")));
  EXPECT_EQ(1, fake.count("aviClose("));
  EXPECT_EQ(0, fake.recordings.openCount());
}

TEST_F(SmbLife, FramesFromBeforeTheStartAreNotRecorded) {
  push({});
  fake.advance(0.2);
  at(0.1, {"P", "late", "", 0});
  at(0.2, {"I", "late", "", 0});
  record(1);
  EXPECT_EQ("I", types(smbFile("120000")));
}

TEST_F(SmbLife, SecondStartGoesOnInTheSameFile) {
  sequence(0.1, 0.5, "IPPPPPPPPP");
  make();
  fake.at(1.2, [this] { recorder->start(2); });
  EXPECT_EQ(1, record(2));
  EXPECT_EQ("IPPPPPP", types(smbFile("120000")));
}

TEST_F(SmbLife, SeveralEventsShareOneRecording) {
  sequence(0.1, 0.1, "I" + std::string(60, 'P'));
  make();
  for (const double seconds : {0.33, 0.34, 1.2, 1.2, 2.8})
    fake.at(seconds, [this] { recorder->start(2); });
  record(1);
  EXPECT_THAT(opened(), SizeIs(1));
  EXPECT_GE(types(smbFile("120000")).size(), 15U);
  EXPECT_EQ(0, fake.recordings.openCount());
}

TEST_F(SmbLife, StopClosesTheFileAndTheNextStartBeginsAnother) {
  make();
  sequence(0.1, 0.1, "IPPPPPPPPP");
  recorder->start(100);
  fake.stopAfter(0.55);
  runBodies(*recorder);
  EXPECT_EQ(0, fake.recordings.openCount());
  EXPECT_EQ("IPPPP", types(smbFile("120000")));
  sequence(0.6, 0.5, "PPIP");
  recorder->start(100);
  fake.stopAfter(3);
  runBodies(*recorder);
  EXPECT_THAT(opened(), SizeIs(2));
  EXPECT_EQ("IP", types(smbFile("120002"))) << fake.recordings.paths().back();
}

TEST_F(SmbLife, StopAndStartAtOnceRecordOn) {
  make();
  sequence(0.1, 0.1, "IPPPIPPPIPPP");
  fake.at(0.35, [this] {
    recorder->stop(false);
    recorder->start(100);
  });
  recorder->start(100);
  fake.at(3, [this] { fake.stopNow(); });
  EXPECT_EQ(2, runBodies(*recorder));
  EXPECT_EQ("IPP", types(smbFile("120000")));
  EXPECT_EQ("IPPPIPPP", types(smbFile("120000-1")));
}

TEST_F(SmbLife, NewSegmentOfTheStreamIsJoined) {
  make();
  sequence(0.1, 0.1, "IPP");
  fake.at(0.4, [this] {
    fake.video.newSegment();
    number = 0;
  });
  sequence(0.5, 0.1, "PPIP");
  record(1);
  EXPECT_EQ("IPPIP", types(smbFile("120000"))) << "the numbers began anew: a gap";
  EXPECT_EQ(0, fake.recordings.openCount());
}

TEST_F(SmbLife, RecordingWithoutAStreamEndsWhenStopped) {
  fake.video.detach();
  record(5);
  EXPECT_THAT(opened(), IsEmpty());
  EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(SmbLife, ShareThatIsNotMountedEndsTheRecording) {
  for (const int state : {0, -1, 2}) {
    fake.clearCalls();
    fake.smbState = state;
    at(0.1, {});
    at(0.2, {});
    record(5);
    EXPECT_THAT(failures(), ElementsAre("log_event(523)"));
    EXPECT_THAT(opened(), IsEmpty());
    EXPECT_EQ(0, fake.count("mkdir2("));
  }
}

TEST_F(SmbLife, ShareWhoseStateIsNotKnownEndsTheRecording) {
  fake.fails("get_smb_mount_state");
  at(0.1, {});
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log 2 get_smb_mount_state() fail", "log_event(523)"));
}

TEST_F(SmbLife, FileThatCannotBeOpenedEndsTheRecording) {
  for (const char* const function : {"get_folder", "mkdir2", "aviOpen"}) {
    fake.clearCalls();
    fake.failsWith(function, EIO);
    at(0.1, {});
    at(0.2, {});
    record(5);
    EXPECT_THAT(failures(), ElementsAre("log_event(523)")) << function;
    fake.works(function);
  }
}

TEST_F(SmbLife, OldErrorIsNoFullShare) {
  set("Recycle", 0);
  const auto recordFull = [this] {
    fake.recordings.capacity(0);
    at(0.1, {});
    record(3);
    EXPECT_TRUE(fake.called("log_event(526)"));
    fake.clearCalls();
  };
  recordFull();
  fake.smbUnmounted();
  at(0.1, {});
  record(3);
  EXPECT_THAT(failures(), ElementsAre("log_event(523)"));
  fake.smbMounted();
  recordFull();
  fake.fails("get_folder");
  at(0.1, {});
  record(3);
  EXPECT_THAT(failures(), ElementsAre("log_event(523)"));
}

TEST_F(SmbLife, FileThatCannotBeWrittenEndsTheRecording) {
  fake.at(0.25, [this] { fake.failsWith("aviWrite", EIO); });
  sequence(0.1, 0.1, "IPPI");
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log_event(524)"));
  EXPECT_EQ("IP", types(smbFile("120000")));
  EXPECT_EQ(0, fake.recordings.openCount());
}

TEST_F(SmbLife, ShareThatGoesAwayAndComesBackIsRecordedToAgain) {
  fake.at(0.25, [this] {
    fake.smbUnmounted();
    fake.failsWith("aviWrite", ENODEV);
    fake.failsWith("aviClose", ENODEV);
  });
  sequence(0.1, 0.1, "IPPI");
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log_event(524)", "log_event(525)"));
  fake.smbMounted();
  fake.works("aviWrite");
  fake.works("aviClose");
  sequence(0.1, 0.1, "PIP");
  record(1);
  EXPECT_THAT(fake.recordings.paths(), SizeIs(2));
}

TEST_F(SmbLife, FileThatCannotBeClosedIsReported) {
  fake.failsWith("aviClose", EIO);
  at(0.1, {});
  record(1);
  EXPECT_THAT(failures(), ElementsAre("log_event(525)"));
}

TEST_F(SmbLife, FileThatCannotBeClosedAtItsEndEndsTheRecording) {
  set("MaxSize", 1);
  fake.recordings.scale(1 << 20);
  fake.failsWith("aviClose", EIO);
  sequence(0.1, 0.1, "III");
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log_event(525)", "log_event(523)"));
  EXPECT_THAT(opened(), SizeIs(1));
}

TEST_F(SmbLife, FileThatCannotBeClosedAtANewSettingEndsTheRecording) {
  fake.failsWith("aviClose", EIO);
  sequence(0.1, 0.1, "I");
  fake.at(0.15, [this] { fake.video.setSlot(kSlotStatus, 1); });
  sequence(0.2, 0.1, "II");
  record(5);
  EXPECT_THAT(failures(), ElementsAre("log_event(525)"));
  EXPECT_THAT(opened(), SizeIs(1));
}

TEST_F(SmbLife, MemoryThatIsMissingForFilesIsReported) {
  fake.fails("aviCreate");
  at(0.1, {});
  record(1);
  EXPECT_THAT(failures(), ElementsAre("log 3 aviCreate() fail", "log_event(523)"));
}

TEST_F(SmbLife, RecorderGivesItsFilesBackWhenItGoes) {
  fake.fails("aviRelease");
  make();
  EXPECT_EQ(1, fake.recordings.handles());
  recorder.reset();
  EXPECT_EQ(0, fake.recordings.handles());
  EXPECT_THAT(failures(), ElementsAre("log 3 aviRelease() fail"));
}

// A recorder that opens a file outside a recording.
class OpenRecorder : public TSmbRecorder {
 public:
  OpenRecorder() : TSmbRecorder("") {}
  bool onRelease() override { return true; }  // leaves it open
};

TEST_F(SmbLife, FileThatIsStillOpenIsClosedWhenTheRecorderGoes) {
  recorder = std::make_unique<OpenRecorder>();
  sequence(0.1, 0.1, "IP");
  record(1);
  EXPECT_EQ(1, fake.recordings.openCount());
  fake.clearCalls();
  recorder.reset();
  EXPECT_THAT(fake.calls(), ElementsAre("aviClose(" + smbFile("120000") + ",2000)", "aviRelease()",
                                        "delete(pthread)"));
}

TEST_F(SmbLife, BodyThatWasForgottenEndsBeforeItsFilesGo) {
  make();
  recorder->start(10);
  fake.threadStuck("pthread");
  int handles = 0;
  fake.at(1, [&] { handles = fake.recordings.handles(); });
  recorder.reset();
  EXPECT_EQ(1, handles);
  EXPECT_EQ(0, fake.recordings.handles());
}

// --- Clock steps.

TEST_F(SmbLife, ClockThatGoesBackMakesNoEndlessFile) {
  set("DivideBy", 1);
  set("MaxLength", 1);
  sequence(0.5, 10, std::string(30, 'I'));
  fake.at(31, [this] { fake.stepWallClock(-86400); });
  record(290);
  EXPECT_THAT(failures(), IsEmpty());
  ASSERT_THAT(opened(), SizeIs(5)) << "one each 70 s";
  for (const std::string& path : fake.recordings.paths()) {
    EXPECT_GE(types(path).size(), 1U) << path;
    EXPECT_LE(types(path).size(), 7U) << path;
    EXPECT_LE(fake.recordings.at(path).rate, 1000) << path;
  }
}

TEST_F(SmbLife, ClockThatJumpsForwardCutsNoFileShort) {
  set("DivideBy", 1);
  set("MaxLength", 1);
  sequence(0.5, 10, std::string(14, 'I'));
  fake.at(31, [this] { fake.stepWallClock(86400); });
  record(140);
  ASSERT_THAT(opened(), SizeIs(2));
  EXPECT_EQ("IIIIIII", types(smbFile("120000")));
  EXPECT_EQ(100, fake.recordings.at(smbFile("120000")).rate) << "seven frames in 70 s";
  EXPECT_EQ("/smb/camera/20240604/120110.avi", opened()[1]);
}

TEST_F(SmbLife, ClockThatSwingsMakesNoFilesOfOneFrame) {
  set("DivideBy", 1);
  set("MaxLength", 1);
  sequence(0.5, 1, std::string(200, 'I'));
  for (int i = 0; i < 100; ++i)
    fake.at(2 * i + 1.0, [this, i] { fake.stepWallClock(i % 2 == 0 ? 7200 : -7200); });
  record(195);
  EXPECT_THAT(opened(), SizeIs(testing::AllOf(testing::Ge(3U), testing::Le(4U))));
}

TEST(SteadyTime, IsThatOfTheFramesWithoutSteps) {
  TSteadyTime time;
  time.advance({1000, 900000}, 5);
  EXPECT_EQ(1000, time.seconds());
  time.advance({1001, 0}, 105);
  EXPECT_EQ(1001, time.seconds());
  time.advance({1031, 0}, 31000);
  EXPECT_EQ(1031, time.seconds());
}

TEST(SteadyTime, FollowsFramesThatAreMadeUpForAfterAPause) {
  TSteadyTime time;
  time.advance({1000, 0}, 0);
  time.advance({1008, 0}, 10000);
  for (int i = 1; i <= 20; ++i)
    time.advance({1008U + static_cast<unsigned>(i) / 10, static_cast<unsigned>(i) % 10 * 100000},
                 static_cast<std::uint32_t>(10000 + i * 10));
  EXPECT_EQ(1010, time.seconds());
}

TEST(SteadyTime, PassesOverStepsInBothDirections) {
  for (const int step : {-5, 5, -1000, 1000, 100000000}) {
    TSteadyTime time;
    time.advance({1000000000, 0}, 0);
    time.advance({1000000001, 0}, 1000);
    time.advance({static_cast<std::uint32_t>(1000000002 + step), 0}, 2000);
    EXPECT_EQ(1000000002, time.seconds()) << step;
    time.advance({static_cast<std::uint32_t>(1000000012 + step), 0}, 12000);
    EXPECT_EQ(1000000012, time.seconds()) << step;
  }
}

TEST(SteadyTime, OutlivesTheWrapOfTheMonotonicClock) {
  TSteadyTime time;
  time.advance({1000, 0}, 0xffffff00U);
  time.advance({500, 0}, 0xffffff00U + 3000);
  EXPECT_EQ(1003, time.seconds());
}

}  // namespace
