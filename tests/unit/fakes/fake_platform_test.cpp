// The fake platform itself: what other unit tests lean on.
#include <gtest/gtest.h>

#include "platform/application.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "platform/timer.h"
#include "tests/fakes/fake_platform.h"

namespace {

class Looper : public PThread {
 public:
  explicit Looper(const char* name) : PThread(name) {}
  void execute() override {
    while (running()) {
      ++passes;
      if (leaveAfter == passes) {
        leave();
        if (startsItself) run();
        return;
      }
      os::usleep(100000);
    }
  }
  int passes = 0;
  int leaveAfter = -1;
  bool startsItself = false;
};

TEST(FakePlatform, PausesMoveBothClocks) {
  FakePlatform fake;
  const auto wall = fake.clock.wallUs();
  const auto monotonic = monotonicMs();
  os::sleep(2);
  os::usleep(500000);
  EXPECT_EQ(fake.clock.wallUs() - wall, 2500000);
  EXPECT_EQ(monotonicMs() - monotonic, 2500u);
  EXPECT_EQ(fake.pausesUs(), (std::vector<long>{2000000, 500000}));
}

TEST(FakePlatform, AStepMovesTheWallClockAlone) {
  FakePlatform fake;
  const auto wall = fake.clock.wallUs();
  const auto monotonic = monotonicMs();
  fake.stepWallClock(-3600);
  EXPECT_EQ(fake.clock.wallUs() - wall, -3600000000);
  EXPECT_EQ(monotonicMs(), monotonic);
}

TEST(FakePlatform, WhatIsDueHappensInsideThePauseAtItsInstant) {
  FakePlatform fake;
  const auto start = monotonicMs();
  std::vector<std::uint32_t> when;
  fake.at(1.5, [&] { when.push_back(monotonicMs() - start); });
  fake.at(0.5, [&] { when.push_back(monotonicMs() - start); });
  os::sleep(3);
  EXPECT_EQ(when, (std::vector<std::uint32_t>{500, 1500}));
  EXPECT_EQ(monotonicMs() - start, 3000u);
}

TEST(FakePlatform, AStopEndsThePauseEarlyOnTheMainThread) {
  FakePlatform fake;
  fake.stopAfter(1);
  const auto start = monotonicMs();
  EXPECT_NE(os::sleep(10), 0u);
  EXPECT_EQ(monotonicMs() - start, 1000u);
  EXPECT_TRUE(TApplication::stopped);
}

TEST(FakePlatform, ABodyEndsAfterSoManyPasses) {
  FakePlatform fake;
  Looper looper("looper");
  looper.run();
  EXPECT_TRUE(fake.started(looper));
  fake.stopAfterPasses(3);
  EXPECT_FALSE(fake.runBody(looper));
  EXPECT_EQ(looper.passes, 3);
  EXPECT_FALSE(looper.running());
  EXPECT_FALSE(TApplication::stopped);
}

TEST(FakePlatform, AStartWhileTheBodyLeavesIsNotLost) {
  FakePlatform fake;
  Looper looper("looper");
  looper.leaveAfter = 1;
  looper.startsItself = true;
  looper.run();
  EXPECT_TRUE(fake.runBody(looper));
  EXPECT_TRUE(looper.running());
}

TEST(FakePlatform, AStuckThreadIsLeftBehindOnce) {
  FakePlatform fake;
  fake.threadStuck("looper");
  Looper looper("looper");
  Looper other("other");
  looper.run();
  other.run();
  TStopDeadline deadline;
  EXPECT_FALSE(deadline.end(looper));
  EXPECT_FALSE(deadline.end(looper));
  EXPECT_TRUE(deadline.end(other));
  EXPECT_EQ(deadline.leftMs(), 0);
  EXPECT_EQ(fake.logged("thread looper does not end, left behind"), 1);
}

TEST(FakePlatform, FramesGoFromWriterToEveryReader) {
  FakePlatform fake;
  fake.video.push("one");
  fake.video.push("two");
  for (int reader = 0; reader < 2; ++reader) {
    std::int32_t number = 0, epoch = 0;
    for (const char* expected : {"one", "two"}) {
      TAutoFrame frame(sbVideo(), 1000, &number, &epoch, 0);
      ASSERT_TRUE(frame);
      EXPECT_EQ(std::string(frame->payload, 3), expected);
      EXPECT_EQ(fake.video.held(), 1);
    }
    TAutoFrame none(sbVideo(), 1000, &number, &epoch, 0);
    EXPECT_FALSE(none);
  }
  EXPECT_EQ(fake.video.held(), 0);
}

TEST(FakePlatform, AWaitingReaderGetsAFrameThatComesMeanwhile) {
  FakePlatform fake;
  fake.at(0.2, [&] { fake.video2.push("late"); });
  std::int32_t number = 0, epoch = 0;
  const auto start = monotonicMs();
  TAutoFrame frame(sbVideo2(), 1000, &number, &epoch, 500);
  EXPECT_TRUE(frame);
  EXPECT_EQ(monotonicMs() - start, 200u);
}

TEST(FakePlatform, WithoutAFreeFrameAWriterGetsNone) {
  FakePlatform fake;
  fake.video.noFreeFrame();
  TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 10);
  EXPECT_FALSE(frame);
  EXPECT_EQ(frame.get(), nullptr);
}

TEST(FakePlatform, AFullDiskTakesWhatFitsAndThenNothing) {
  FakePlatform fake;
  const int fd = open2("/usb/a", O_WRONLY | O_CREAT | O_EXCL);
  fake.files.spaceLeft(3);
  EXPECT_EQ(os::write(fd, "abcdef", 6), 3);
  EXPECT_EQ(os::write(fd, "def", 3), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(os::close(fd), 0);
  EXPECT_EQ(fake.files.content("/usb/a"), "abc");
  EXPECT_EQ(fake.files.openCount(), 0);
}

TEST(FakePlatform, SlashesAreSetAsTheBitsSay) {
  FakePlatform fake;
  char path[32];
  EXPECT_EQ(slash("usb", path, sizeof path, 10), 5);
  EXPECT_STREQ(path, "/usb/");
  slash("/pics", path, sizeof path, 9);
  EXPECT_STREQ(path, "pics/");
  slash("//cam/", path, sizeof path, 5);
  EXPECT_STREQ(path, "cam");
  EXPECT_EQ(slash("a/../b", path, sizeof path, 5), -1);
  EXPECT_EQ(fake.logged("unsafe path refused: a/../b"), 1);
}

TEST(FakePlatform, ReadsComeFromTheTestOnceItGivesThem) {
  FakePlatform fake;
  fake.files.put("/dev/camera", "file");
  const int fd = os::open("/dev/camera", O_RDONLY);
  char bytes[8] = {};
  EXPECT_EQ(os::read(fd, bytes, sizeof bytes), 4);
  fake.onRead([&](int which, char* buffer, std::size_t size) {
    EXPECT_EQ(which, fd);
    EXPECT_EQ(size, sizeof bytes);
    buffer[0] = 'x';
    return 1L;
  });
  EXPECT_EQ(os::read(fd, bytes, sizeof bytes), 1);
  EXPECT_EQ(bytes[0], 'x');
  fake.fails("os::read", 1);
  EXPECT_EQ(os::read(fd, bytes, sizeof bytes), -1);
  EXPECT_EQ(os::read(fd, bytes, sizeof bytes), 1);
}

TEST(FakePlatform, DescriptorsHaveTheFlagsThatTheTestSays) {
  FakePlatform fake;
  fake.fileFlags = O_NONBLOCK;
  EXPECT_EQ(os::fcntl(3, F_GETFL, 0), O_NONBLOCK);
  EXPECT_EQ(os::fcntl(3, F_SETFL, 0), 0);
  fake.fails("os::fcntl");
  EXPECT_EQ(os::fcntl(3, F_GETFL, 0), -1);
}

}  // namespace
