// Recorders with real threads: started, stopped and deleted while they are at work.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "capture/camera.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "record/recorder.h"
#include "tests/fakes/fake_platform.h"
#include "tests/slow_build.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeFactor = 500;  // of the fake clock
constexpr int kRounds = 1000 / kSlow;

// A camera whose mode any thread changes.
class ModalCamera : public TCamera {
 public:
  ModalCamera() : TCamera("") {}
  int getMode() override { return mode.load(std::memory_order_relaxed); }
  std::atomic<int> mode{0};
};

// Spins for a random while, to meet any instant of the other thread.
void linger(std::mt19937& random) {
  for (volatile auto i = random() % 1000; i > 0; i = i - 1) {
  }
}

// Notes when the newest picture that it was given was taken, and tells of each one.
class CountingRecorder : public TRecorder {
 public:
  using TRecorder::TRecorder;

  std::atomic<std::uint32_t> newestMs{0};  // monotonic
  std::atomic<std::uint32_t> stored{0};
  std::atomic<bool> fails{false};

 protected:
  bool onCapture(const char* data, long length) override {
    const auto ms = static_cast<std::uint32_t>(
        std::stoul(std::string(data + 2, static_cast<std::size_t>(length - 2))));
    newestMs.store(ms, std::memory_order_relaxed);
    stored.fetch_add(1, std::memory_order_relaxed);
    if (random_() % 2 == 0) std::this_thread::sleep_for(microseconds(random_() % 200));
    return !fails.load(std::memory_order_relaxed);
  }

 private:
  std::mt19937 random_{3};
};

class RecorderStress : public testing::Test {
 protected:
  RecorderStress() {
    fake.setTimeZone("UTC");
    fake.setWallClock("2024-06-03 12:00:00");
    fake.keepCalls(false);
    fake.clock.followRealTime(kTimeFactor);
    stream_ = std::thread([this] { pushPictures(); });
  }
  ~RecorderStress() override {
    end_ = true;
    stream_.join();
    EXPECT_FALSE(aviWriter()->getRef());
    EXPECT_FALSE(jpgWriter()->getRef());
  }

  std::uint32_t nowMs() const {
    return static_cast<std::uint32_t>(fake.clock.monotonicUs() / 1000);
  }
  static bool waitFor(const std::function<bool()>& condition) {
    const auto end = Clock::now() + std::chrono::seconds(30);
    while (!condition()) {
      if (Clock::now() > end) return false;
      std::this_thread::yield();  // as soon as possible, to meet the other thread in its last steps
    }
    return true;
  }

  FakePlatform fake;
  ModalCamera camera;
  std::atomic<bool> steps{false};  // of the wall clock

 private:
  void pushPictures() {
    for (int i = 0; !end_; ++i) {
      // The time is taken first: a picture that is newer than a start says so.
      TDateTime time;
      time.set();
      const std::string picture = "\xFF\xD8" + std::to_string(nowMs());
      fake.video.push(picture, time);
      fake.video2.push(picture, time);
      if (steps && i % 16 == 0) fake.stepWallClock(i % 32 == 0 ? 3600 : -3600);
      std::this_thread::sleep_for(microseconds(100));
    }
  }

  std::atomic<bool> end_{false};
  std::thread stream_;
};

// Each start comes when the recording before is about to end: from its last picture on.
TEST_F(RecorderStress, NoStartIsLostAroundTheEndOfARecording) {
  std::mt19937 random(1);
  CountingRecorder recorder(&camera, "/usb", nullptr, nullptr);
  for (int round = 0; round < kRounds; ++round) {
    recorder.fails = random() % 4 == 0;
    if (random() % 8 == 0) camera.mode = static_cast<int>(random() % 4);
    const std::uint32_t startMs = nowMs();
    const std::uint32_t before = recorder.stored;
    recorder.start(0);
    ASSERT_TRUE(waitFor([&] {
      return recorder.stored != before && recorder.newestMs - startMs < 1U << 31;
    })) << "start "
        << round << " was lost";
    linger(random);
  }
  TStopDeadline deadline;
  EXPECT_TRUE(deadline.end(recorder));
}

TEST_F(RecorderStress, StartsOfManyThreadsAndStepsOfTheClockLoseNothing) {
  constexpr int kThreads = 3;
  steps = true;
  CountingRecorder recorder(&camera, "/usb", nullptr, nullptr);
  std::vector<std::thread> starters;
  starters.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i)
    starters.emplace_back([this, &recorder, i] {
      std::mt19937 random(static_cast<unsigned>(i));
      for (int round = 0; round < kRounds / 4 && !HasFailure(); ++round) {
        if (random() % 8 == 0) camera.mode = static_cast<int>(random() % 4);
        const std::uint32_t startMs = nowMs();
        recorder.start(static_cast<long>(random() % 3));
        EXPECT_TRUE(waitFor([&] { return recorder.newestMs - startMs < 1U << 31; }))
            << "start " << round << " of thread " << i << " was lost";
        linger(random);
      }
    });
  for (std::thread& starter : starters) starter.join();
  TStopDeadline deadline;
  EXPECT_TRUE(deadline.end(recorder));
  EXPECT_FALSE(recorder.running());
}

TEST_F(RecorderStress, StoppedRecorderMayBeDeletedAtAnyInstant) {
  std::mt19937 random(2);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    auto recorder = std::make_unique<CountingRecorder>(&camera, "/usb", "pics", nullptr);
    recorder->fails = round % 2 == 0;
    std::thread starter([&recorder, seed = random()] {
      std::mt19937 own(static_cast<unsigned>(seed));
      for (int i = 0; i < 3; ++i) {
        recorder->start(static_cast<long>(own() % 2));
        linger(own);
      }
    });
    linger(random);
    recorder->stop(false);
    starter.join();
    if (round % 2 == 0) std::this_thread::sleep_for(microseconds(random() % 1000));
    TStopDeadline deadline;
    ASSERT_TRUE(deadline.end(*recorder)) << round;
    EXPECT_FALSE(recorder->running());
    recorder.reset();
  }
}

TEST_F(RecorderStress, RecordersComeAndGoAsClientsOfTheWriters) {
  constexpr int kRecorders = 8;
  std::vector<std::unique_ptr<CountingRecorder>> recorders;
  recorders.reserve(kRecorders);
  for (int i = 0; i < kRecorders; ++i)
    recorders.push_back(std::make_unique<CountingRecorder>(&camera, "/usb", nullptr, nullptr));
  std::atomic<bool> end{false};
  std::thread capture([&end] {
    const TDateTime time(1, 1);
    while (!end) {
      for (const char type : {'I', 'i', 'P'}) aviWriter()->write("chunk", 5, time, type);
      jpgWriter()->write("\xFF\xD8 0", 4, time, 'J');
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < kRounds / 10; ++round) {
    for (auto& recorder : recorders) recorder->start(0);
    for (auto& recorder : recorders)
      EXPECT_TRUE(waitFor([&] { return !recorder->running(); })) << round;
  }
  for (auto& recorder : recorders) recorder->stop(false);
  TStopDeadline deadline;
  for (auto& recorder : recorders) EXPECT_TRUE(deadline.end(*recorder));
  for (auto& recorder : recorders) EXPECT_GT(recorder->stored, 0U);
  end = true;
  capture.join();
}

}  // namespace
