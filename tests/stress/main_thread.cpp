// The whole daemon on a fake platform with real threads: housekeeping, capture and events at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "capture/camera.h"
#include "capture/video_args.h"
#include "capture/video_source.h"
#include "core/status_slots.h"
#include "core/video_server.h"
#include "schedule/scheduler.h"
#include "tests/fakes/fake_platform.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned kTimeFactor = 200;
constexpr int kStarts = 20;
constexpr long kFramesPerStart = 50;

class MainThread : public testing::Test {
 protected:
  MainThread() {
    fake.files.put("test.jpg", std::string(1000, 'x'));
    fake.ini.file("/etc/events.conf",
                  "[Main]\nMax=2\n"
                  "[1]\nErased=0\nSchedule=always\nSource=3\nInterval=1\nOut1=1\nOut1Duration=1\n"
                  "[2]\nErased=0\nSchedule=always\nSource=5\nUsb=1\n");
    fake.keepCalls(false);
    fake.onCall([this](const std::string& call) {
      if (call.find("left behind") != call.npos) leftBehind.fetch_add(1, std::memory_order_relaxed);
    });
    fake.clock.followRealTime(kTimeFactor);
  }

  // The scheduler lives as long as the process, but not as long as the fake.
  ~MainThread() override { scheduler()->stop(true); }

  // Everything that other processes, the clock and the user do to the daemon, in turn.
  void disturb(unsigned turn) {
    fake.video.setSlot(static_cast<int>(turn % 23), static_cast<int>(turn % 4));
    fake.video.setSlot(kSlotWebTrigger2, kSlotWebTrigger2);
    fake.triggerIn = static_cast<int>(turn & 1);
    fake.postMessageOfType(static_cast<int>(turn % 9));
    if (turn % 16 == 0) fake.video.setSlot(kSlotConfigChanged, 1);
    if (turn % 8 == 0) fake.stepWallClock(turn % 16 == 0 ? 3600 : -3600);
  }

  FakePlatform fake;
  std::atomic<long> leftBehind{0};
};

TEST_F(MainThread, StartsAndEndsWhileEverythingIsAtWork) {
  const char* arguments[] = {"video_svr", "-mb"};
  TApplication::argc = 2;
  TApplication::argv = const_cast<char**>(arguments);
  for (int start = 0; start < kStarts; ++start) {
    TApplication::stopped = false;
    std::thread others([this] {
      const long enough = fake.video.published() + kFramesPerStart;
      const auto limit = Clock::now() + std::chrono::seconds(60);
      for (unsigned turn = 0; fake.video.published() < enough && Clock::now() < limit; ++turn) {
        disturb(turn);
        std::this_thread::sleep_for(milliseconds(1));
      }
      TApplication::stopped = true;
    });
    const long before = fake.video.published();
    TVideoServer server;
    EXPECT_TRUE(server.onInitial());
    EXPECT_TRUE(server.onRunning());
    EXPECT_TRUE(server.onRelease());
    others.join();
    EXPECT_GE(fake.video.published() - before, kFramesPerStart);
  }
  EXPECT_EQ(leftBehind, 0);
  EXPECT_EQ(fake.files.openCount(), 0);
}

TEST_F(MainThread, TheCaptureThreadIsStoppedAndStartedAgainAtAnyInstant) {
  const char* arguments[] = {"video_svr", "-mv"};
  TVideoArgs args(2, const_cast<char**>(arguments));
  TVideoSource source(args);
  for (int i = 0; i < 500; ++i) {
    source.run();
    if (i % 3 == 0) std::this_thread::sleep_for(milliseconds(i % 5));
    source.stop(false);
    EXPECT_GE(source.camera()->getMode(), 0);
  }
  const long before = fake.video.published();
  source.run();
  const auto limit = Clock::now() + std::chrono::seconds(60);
  while (fake.video.published() < before + 10 && Clock::now() < limit)
    std::this_thread::sleep_for(milliseconds(1));
  EXPECT_GE(fake.video.published(), before + 10);
  TStopDeadline deadline;
  EXPECT_TRUE(deadline.end(source));
  EXPECT_EQ(fake.video.slot(kSlotFrameCount), static_cast<int>(fake.video.published()));
}

// A driver whose reads only fail keeps the capture thread for good: it looks at nothing else. The
// rest of the daemon ends in time and leaves it where it is.
TEST_F(MainThread, AnEncoderWhoseReadsOnlyFailDoesNotHoldUpTheEnd) {
  class Server : public TVideoServer {
   public:
    using TVideoServer::video_;
  };
  fake.files.put("/dev/mpg430", "");
  fake.config("compression_type", 0);
  fake.onIoctl([](int, unsigned long, void*) { return 0; });
  fake.onRead([](int, char* buffer, std::size_t) {
    buffer[0] = 'x';
    return 1L;
  });
  fake.fails("os::read");
  std::atomic<long> failures{0};
  fake.onCall([&](const std::string& call) {
    if (call == "log 2 read(MPG430) return -1") ++failures;
    if (call == "log 3 thread KVX-video does not end, left behind") ++leftBehind;
  });
  const char* arguments[] = {"video_svr", "-K310", "-mv"};
  TApplication::argc = 3;
  TApplication::argv = const_cast<char**>(arguments);
  Server server;
  ASSERT_TRUE(server.onInitial());
  TVideoSource* const video = server.video_;
  std::thread others([&] {
    const auto limit = Clock::now() + std::chrono::seconds(60);
    while (failures < 1000 && Clock::now() < limit) std::this_thread::sleep_for(milliseconds(1));
    TApplication::stopped = true;
  });
  EXPECT_TRUE(server.onRunning());
  others.join();
  EXPECT_GE(failures, 1000);
  const auto asked = Clock::now();
  EXPECT_TRUE(server.onRelease());
  EXPECT_LT(Clock::now() - asked, milliseconds(5500));
  EXPECT_EQ(leftBehind, 1);
  EXPECT_EQ(fake.video.published(), 0);
  // Only a test may take it up again: once the driver recovers the body ends by itself.
  fake.works("os::read");
  EXPECT_TRUE(video->stop(true));
  EXPECT_EQ(fake.video.published(), 1);
  fake.onCall(nullptr);
  delete video;
}

}  // namespace
