// Frames are measured along with the steps of the wall clock.
#include "record/recording_time.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

constexpr std::uint32_t kStart = 1717416000;  // seconds since 1970
constexpr std::int64_t kNotSince = -1;        // what the tests write for a frame from before

class RecordingTime : public testing::Test {
 protected:
  RecordingTime() { time.begin({TDateTime(kStart, 900000), kMs}); }

  // Looks after `ms`, with a wall clock that has been stepped by `stepMs` in all since the start.
  void look(std::uint32_t ms, std::int64_t stepMs = 0) {
    const std::int64_t wallUs = kStart * std::int64_t{1000000} + 900000 + (ms + stepMs) * 1000;
    time.look({TDateTime(static_cast<std::uint32_t>(wallUs / 1000000),
                         static_cast<std::uint32_t>(wallUs % 1000000)),
               kMs + ms});
  }
  // Measures a frame stamped so many milliseconds after the start.
  std::int64_t since(std::int64_t ms) const {
    const std::int64_t wallUs = kStart * std::int64_t{1000000} + 900000 + ms * 1000;
    std::int64_t seconds = kNotSince - 1;
    const bool later = time.since(TDateTime(static_cast<std::uint32_t>(wallUs / 1000000),
                                            static_cast<std::uint32_t>(wallUs % 1000000)),
                                  &seconds);
    return later ? seconds : kNotSince;
  }

  static constexpr std::uint32_t kMs = 0xFFFFFC18;  // the monotonic clock wraps after a second
  static constexpr std::int64_t kHourMs = 3600 * 1000;
  TRecordingTime time;
};

TEST_F(RecordingTime, MeasuresInWholeSecondsOfTheClock) {
  look(10000);
  EXPECT_EQ(0, since(99));
  EXPECT_EQ(1, since(100));
  EXPECT_EQ(1, since(1099));
  EXPECT_EQ(10, since(10000));
}

TEST_F(RecordingTime, FrameFromBeforeTheStartIsNotInIt) {
  look(10000);
  EXPECT_EQ(kNotSince, since(0));
  EXPECT_EQ(kNotSince, since(-1));
  EXPECT_EQ(kNotSince, since(-kHourMs));
  EXPECT_EQ(0, since(1));
}

TEST_F(RecordingTime, FrameFromTheFutureIsNotInIt) {
  look(10000);
  EXPECT_EQ(kNotSince, since(10000 + kHourMs));
  EXPECT_EQ(kNotSince, since(11000));
}

TEST_F(RecordingTime, StartMovesWithEachStep) {
  look(2000, 1000);
  EXPECT_EQ(2, since(2000 + 1000));
  look(4000, 1000 - kHourMs);
  EXPECT_EQ(4, since(4000 + 1000 - kHourMs));
  look(6000, 24 * kHourMs);
  EXPECT_EQ(6, since(6000 + 24 * kHourMs));
}

TEST_F(RecordingTime, AStepBeforeTheStartIsForgotten) {
  look(4000);
  look(5000, kHourMs);
  EXPECT_EQ(4, since(4000));
  time.begin({TDateTime(kStart + 3600 + 5, 950000), kMs + 5050});
  EXPECT_EQ(kNotSince, since(4000));
}

TEST_F(RecordingTime, FrameFromTheOtherSideOfAStepIsMeasuredThere) {
  for (const std::int64_t step : {kHourMs, -kHourMs, 24 * kHourMs, -24 * kHourMs}) {
    time.begin({TDateTime(kStart, 900000), kMs});
    look(4000, 0);
    look(5000, step);
    EXPECT_EQ(4, since(4000)) << step;
    EXPECT_EQ(5, since(5000 + step)) << step;
    EXPECT_EQ(kNotSince, since(-500)) << step;
    EXPECT_EQ(kNotSince, since(-500 + step)) << step;
  }
}

TEST_F(RecordingTime, FrameFromBeforeASmallStepEndsNothingEarly) {
  look(4000, 0);
  look(4100, -1000);
  EXPECT_EQ(4, since(3900)) << "measured on this side of the step it would be 4.9 s";
}

TEST_F(RecordingTime, SlewedClockIsFollowed) {
  // 0.2 s in each look, as when two readings lie far apart; no single one is a step.
  std::int64_t slewMs = 0;
  for (std::uint32_t ms = 1000; ms <= 20000; ms += 1000) {
    slewMs += 200;
    look(ms, slewMs);
  }
  EXPECT_EQ(20, since(20000 + slewMs));
  EXPECT_EQ(kNotSince, since(20000 + slewMs + 1000));
}

TEST_F(RecordingTime, ClocksMayRunForMonths) {
  std::uint32_t day = 0;
  std::int64_t passedMs = 0;
  for (; day < 100; ++day) {
    passedMs += 24 * kHourMs;
    const std::int64_t wallUs = kStart * std::int64_t{1000000} + 900000 + passedMs * 1000;
    time.look({TDateTime(static_cast<std::uint32_t>(wallUs / 1000000),
                         static_cast<std::uint32_t>(wallUs % 1000000)),
               kMs + static_cast<std::uint32_t>(passedMs)});
  }
  EXPECT_EQ(100 * 24 * 3600, since(passedMs));
}

}  // namespace
