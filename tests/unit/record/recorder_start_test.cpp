// No start is lost, whatever the recorder is just doing.
#include <functional>
#include <string>
#include <vector>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::AnyOf;
using testing::Contains;
using testing::SizeIs;

// Runs the same short recording again and again, and interferes at another instant each time: at
// every step of the recorder, every pause and every wait, and around its last look.
class RecorderStart : public RecordFixture {
 protected:
  RecorderStart() { fake.video2.setDepth(4); }

  // One recording, in which `act` is done at instant number `which`. Returns false when there is no
  // such instant any more.
  bool record(int which, const std::function<void()>& act) {
    int instant = 0;
    const auto reach = [&] {
      if (instant++ == which) act();
    };
    recorder.pictures.clear();
    recorder.onStep = [&](const std::string&) { reach(); };
    fake.onPause([&](long) { reach(); });
    fake.onLeave([&](bool) { reach(); });
    begin = fake.clock.monotonicUs();
    pictures(fake.video2, 0.05, 0.1, 12);
    for (int ms = 5; ms < 3000; ms += 10) fake.at(ms / 1000.0, reach);
    recorder.start(1);
    bodies = 0;
    while (passedMs() < 20000) {  // until nothing is due any more
      bodies += runBodies(recorder);
      fake.advance(0.01);
    }
    recorder.onStep = nullptr;
    fake.onPause(nullptr);
    fake.onLeave(nullptr);
    return which < instant;
  }

  // Milliseconds since the start of the recording under way.
  long passedMs() const { return static_cast<long>((fake.clock.monotonicUs() - begin) / 1000); }

  FakeCamera camera;
  ListRecorder recorder{&camera, "/usb", nullptr, nullptr};
  std::int64_t begin = 0;
  int bodies = 0;
};

TEST_F(RecorderStart, AtAnyInstantLeadsToAPictureThatIsNewer) {
  int which = 0;
  int restarts = 0;
  for (long startedMs = -1; record(which,
                                   [&] {
                                     startedMs = passedMs();
                                     recorder.start(0);
                                   });
       ++which, startedMs = -1) {
    if (startedMs < 0) continue;
    ASSERT_THAT(recorder.times(), Contains(testing::Gt(startedMs)))
        << "start at instant " << which << ", after " << startedMs << " ms";
    ASSERT_THAT(bodies, AnyOf(1, 2));
    restarts += bodies - 1;
    EXPECT_FALSE(recorder.running());
  }
  EXPECT_GT(which, 300);
  EXPECT_GT(restarts, 50) << "starts from the last look on";
}

TEST_F(RecorderStart, AtAnyInstantRecordsForItsWholeTime) {
  int which = 0;
  for (long startedMs = -1; record(which,
                                   [&] {
                                     startedMs = passedMs();
                                     recorder.start(4);
                                   });
       ++which, startedMs = -1) {
    if (startedMs < 0) continue;
    ASSERT_THAT(recorder.times(), Contains(testing::Gt(startedMs + 3000))) << which;
  }
}

TEST_F(RecorderStart, OnAnotherBufferAtAnyInstantRecordsFromThere) {
  fake.video.setDepth(4);
  int which = 0;
  for (bool started = false; camera.mode = 0, record(which,
                                                     [&] {
                                                       started = true;
                                                       camera.mode = 1;
                                                       fake.at(1, [&] {
                                                         fake.video.push(
                                                             "\xFF\xD8"
                                                             "9999");
                                                       });
                                                       recorder.start(0);
                                                     });
       ++which, started = false) {
    if (!started) continue;
    ASSERT_THAT(recorder.times(), Contains(9999)) << which;
    EXPECT_FALSE(recorder.running());
  }
}

TEST_F(RecorderStart, WhileTheLastPictureIsStoredCarriesTheRecordingOn) {
  bool started = false;
  recorder.onStep = [&](const std::string& reached) {
    if (reached == "capture" && !started) {
      started = true;
      recorder.start(3);
    }
  };
  pictures(fake.video2, 0.05, 0.1, 12);
  recorder.start(0);
  EXPECT_EQ(1, runBodies(recorder));
  EXPECT_THAT(recorder.steps, Contains("initial").Times(1));
  EXPECT_THAT(recorder.times(), SizeIs(testing::Ge(4U)));
}

TEST_F(RecorderStart, DuringAFailedStepLeadsToAnotherAttempt) {
  for (const char* step : {"initial", "preview", "name", "capture"}) {
    recorder.refuse = step;
    int attempts = 0;
    recorder.onStep = [&](const std::string& reached) {
      if (reached == step && ++attempts == 1) recorder.start(0);
    };
    pictures(fake.video2, 0.05, 0.1, 5);
    recorder.start(0);
    EXPECT_EQ(2, runBodies(recorder)) << step;
    EXPECT_EQ(2, attempts) << step;
    fake.advance(10);
  }
}

TEST_F(RecorderStart, StopAtAnyInstantEndsTheRecordingForGood) {
  int which = 0;
  for (bool stopped = false; record(which,
                                    [&] {
                                      recorder.start(0);
                                      recorder.stop(false);
                                      stopped = true;
                                    });
       ++which, stopped = false) {
    if (!stopped) continue;
    ASSERT_EQ(1, bodies) << "at instant " << which;
    EXPECT_FALSE(fake.started(recorder));
    EXPECT_FALSE(recorder.running());
  }
}

TEST_F(RecorderStart, AfterAStopRecordsAgain) {
  int which = 0;
  for (long startedMs = -1; record(which,
                                   [&] {
                                     recorder.stop(false);
                                     startedMs = passedMs();
                                     recorder.start(0);
                                   });
       ++which, startedMs = -1) {
    if (startedMs < 0) continue;
    ASSERT_THAT(recorder.times(), Contains(testing::Gt(startedMs))) << which;
  }
}

}  // namespace
