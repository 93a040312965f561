// Steps of the wall clock while a recording runs.
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::SizeIs;

constexpr long kSeconds = 5;   // of each recording
constexpr int kPassMs = 1100;  // a pause and what is around it
const std::vector<long> kSteps{1, -1, 3600, -3600, 86400, -86400};

class RecorderClock : public RecordFixture {
 protected:
  // One recording, at whose beginning the clock stands anywhere in a second, with a step after
  // `stepMs` milliseconds. Frames come every `periodMs`, a few of them before the start.
  void record(long step, int stepMs, int periodMs, int depth) {
    fake.video2.newSegment();
    fake.video2.setDepth(depth);
    recorder.pictures.clear();
    fake.advance(0.237);
    pictures(fake.video2, 0.013, periodMs / 1000.0, 20);
    fake.advance(1);
    begin = fake.clock.monotonicUs();
    fake.at(stepMs / 1000.0, [this, step] { fake.stepWallClock(step); });
    recorder.start(kSeconds);
    fake.stopAfter(60);  // rather fail than hang
    EXPECT_EQ(1, runBodies(recorder));
    lastedMs = static_cast<long>((fake.clock.monotonicUs() - begin) / 1000) - 1000;  // at its end
    fake.advance(30);
  }
  // The true times of the pictures, in milliseconds since the start.
  std::vector<long> times() const {
    std::vector<long> result = recorder.times();
    for (long& time : result) time -= 1000;
    return result;
  }

  FakeCamera camera;
  ListRecorder recorder{&camera, "/usb", nullptr, nullptr};
  std::int64_t begin = 0;
  long lastedMs = 0;
};

TEST_F(RecorderClock, RecordingGoesOnAndEndsOnTime) {
  for (const long step : kSteps) {
    for (int stepMs = 3; stepMs < 6500; stepMs += 61) {
      SCOPED_TRACE("a step of " + std::to_string(step) + " s after " + std::to_string(stepMs) +
                   " ms");
      record(step, stepMs, 40, 4);
      EXPECT_GE(lastedMs, kSeconds * 1000 - 1000) << "whole seconds are compared";
      EXPECT_LE(lastedMs, kSeconds * 1000 + (std::labs(step) > 1 ? 1 : 2) * kPassMs)
          << "only in a pause of a second a step of a second leaves open where a frame is from";
      ASSERT_THAT(times(), SizeIs(testing::AllOf(testing::Ge(5U), testing::Le(7U))));
      EXPECT_THAT(times(), Each(Gt(0))) << "a picture from before the start";
      EXPECT_GE(times().back(), kSeconds * 1000 - 1000) << "the one that reaches the end is stored";
    }
  }
}

// The slower the frames come, the longer one from the other side of the step is in the way.
TEST_F(RecorderClock, SlowStreamsStallNoRecording) {
  for (const long step : kSteps) {
    for (int stepMs = 3; stepMs < 6500; stepMs += 307) {
      SCOPED_TRACE("a step of " + std::to_string(step) + " s after " + std::to_string(stepMs) +
                   " ms");
      record(step, stepMs, 900, 12);
      EXPECT_GE(lastedMs, kSeconds * 1000 - 1000);
      EXPECT_LE(lastedMs, kSeconds * 1000 + 2 * kPassMs);
      EXPECT_THAT(times(), Each(Gt(0)));
    }
  }
}

// The recorder lags behind and still reads what the buffer kept from before the step.
TEST_F(RecorderClock, SlowStorageMayReadOverTheStep) {
  constexpr int kPeriodMs = 200;
  constexpr int kDepth = 16;
  constexpr int kStoreMs = 700;
  recorder.onStep = [this](const std::string& reached) {
    if (reached == "capture") fake.advance(kStoreMs / 1000.0);
  };
  for (const long step : kSteps) {
    for (int stepMs = 3; stepMs < 9500; stepMs += 101) {
      SCOPED_TRACE("a step of " + std::to_string(step) + " s after " + std::to_string(stepMs) +
                   " ms");
      record(step, stepMs, kPeriodMs, kDepth);
      EXPECT_GE(lastedMs, kSeconds * 1000 - 1000);
      EXPECT_LE(lastedMs, kSeconds * 1000 + kDepth * kPeriodMs + kPassMs + kStoreMs);
      EXPECT_GE(times().back(), kSeconds * 1000 - 1000);
    }
  }
}

TEST_F(RecorderClock, FramesFromBeforeAStepBackAreNotTakenForNewOnes) {
  fake.video2.push(
      "\xFF\xD8"
      "1");
  fake.advance(0.1);
  fake.stepWallClock(-3600);
  recorder.start(0);
  fake.at(0.3, [this] {
    fake.video2.push(
        "\xFF\xD8"
        "2");
  });
  runBodies(recorder);
  EXPECT_THAT(recorder.times(), ElementsAre(2));
}

TEST_F(RecorderClock, StepBetweenTheStartAndTheBodyIsNoticed) {
  for (const long step : kSteps) {
    recorder.pictures.clear();
    recorder.start(0);
    fake.stepWallClock(step);
    fake.at(0.3, [this] {
      fake.video2.push(
          "\xFF\xD8"
          "2");
    });
    const std::int64_t before = fake.clock.monotonicUs();
    runBodies(recorder);
    EXPECT_THAT(recorder.times(), ElementsAre(2)) << step;
    EXPECT_LT(fake.clock.monotonicUs() - before, 1500000) << step;
  }
}

TEST_F(RecorderClock, PauseIsAsLongAsItWasMeantToBe) {
  for (const long step : kSteps) {
    fake.at(0.1, [this] {
      fake.video2.push(
          "\xFF\xD8"
          "1");
    });
    fake.at(0.5, [this, step] { fake.stepWallClock(step); });
    std::int64_t stored = 0;
    recorder.onStep = [&](const std::string& reached) {
      if (reached == "capture") stored = fake.clock.monotonicUs();
    };
    recorder.start(60);
    fake.stopAfter(1.2);
    const std::int64_t begin2 = fake.clock.monotonicUs();
    runBodies(recorder);
    EXPECT_LE(fake.clock.monotonicUs() - begin2, 1201000) << step;
    EXPECT_GT(stored, 0) << step;
  }
}

}  // namespace
