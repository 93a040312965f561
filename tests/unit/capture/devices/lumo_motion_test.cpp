// The motion windows of the sensor camera: their definitions, what the driver sees, their levels.
#include <atomic>
#include <climits>
#include <thread>

#include "tests/unit/capture/devices/lumo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LumoMotion : public LumoFixture {
 protected:
  LumoMotion() {
    TCamera::defMode = 1;
    camera = std::make_unique<Lumo>();
    drivers.take();
    fake.clearCalls();
  }

  static tag_MotionDetect window(int enable, int x, int y, int width, int height, int threshold) {
    return {enable, x, y, width, height, threshold, {}};
  }

  // A definition as it lies in its file.
  static std::string bytes(const tag_MotionDetect& record) {
    std::string result(sizeof record, '\x7f');
    const int fields[] = {record.enable, record.x,      record.y,
                          record.width,  record.height, record.threshold};
    for (std::size_t i = 0; i < 6; ++i) storeLe32(&result[4 * i], static_cast<unsigned>(fields[i]));
    return result;
  }

  void putFile(int number, const tag_MotionDetect& record) {
    fake.files.put("/tmp/motion" + std::to_string(number) + ".dat", bytes(record));
  }

  Trace set(int how, int expected = 0) {
    return trace([&] { EXPECT_EQ(camera->setMotionDetection(how), expected) << how; });
  }

  static Trace first(int x, int y, int width, int height, int threshold, int enable = 1) {
    return programmed({"400456FE", "400456FF", "40045700", "40045701", "40045702", "40045703"},
                      {x, y, width, height, threshold}, enable);
  }
  static Trace second(int x, int y, int width, int height, int threshold, int enable = 1) {
    return programmed({"4004570B", "4004570C", "4004570D", "4004570E", "4004570F", "40045710"},
                      {x, y, width, height, threshold}, enable);
  }
  static Trace programmed(const std::vector<std::string>& requests, const std::vector<int>& values,
                          int enable) {
    Trace result = {"sensor " + requests[0] + " 0"};
    for (std::size_t i = 0; i < 5; ++i)
      result.push_back("sensor " + requests[i + 1] + " " + std::to_string(values[i]));
    result.push_back("sensor " + requests[0] + " " + std::to_string(enable));
    return result;
  }
  static Trace both(Trace a, const Trace& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }

  Trace frame() {
    return trace([&] {
      char buffer[kFrameBytes];
      camera->getImage(buffer, TWriter::getFrameSize(sbVideo()));
    });
  }
  // Two calls poll once, whatever the count was.
  void poll() {
    frame();
    frame();
  }

  // Both windows are on with this level, above their thresholds; their files now say off.
  void startBoth(int level) {
    putFile(1, window(1, 11, 12, 13, 14, 15));
    putFile(2, window(1, 21, 22, 23, 24, 25));
    set(2);
    drivers.level[0] = drivers.level[1] = level;
    poll();
    putFile(1, window(0, 11, 12, 13, 14, 15));
    putFile(2, window(0, 21, 22, 23, 24, 25));
    fake.clearCalls();
  }

  const Trace kFirstOff = {"sensor 400456FE 0"};
  const Trace kSecondOff = {"sensor 4004570B 0"};
  std::unique_ptr<Lumo> camera;
};

// --- Which windows from where

TEST_F(LumoMotion, AWindowIsProgrammedFromItsFile) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(2, 21, 22, 23, 24, 25));
  EXPECT_EQ(set(0), first(11, 12, 13, 14, 15));
  EXPECT_EQ(set(1), second(21, 22, 23, 24, 25, 2));
  EXPECT_EQ(set(2), both(first(11, 12, 13, 14, 15), second(21, 22, 23, 24, 25, 2)));
  EXPECT_EQ(fake.count("log"), 0);
  EXPECT_EQ(fake.count("get_motion_detect"), 0);
  EXPECT_EQ(fake.files.openCount(), 2) << "the camera's own";
}

TEST_F(LumoMotion, BothWindowsAreProgrammedFromTheConfiguration) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  fake.overlays.windows[0] = window(1, 1, 2, 3, 4, 5);
  fake.overlays.windows[1] = window(1, 6, 7, 8, 9, 10);
  EXPECT_EQ(set(3), both(first(1, 2, 3, 4, 5), second(6, 7, 8, 9, 10)));
  EXPECT_THAT(fake.calls(), ElementsAre("get_motion_detect(1)", "get_motion_detect(2)"));
}

TEST_F(LumoMotion, TheFirstWindowAloneLeavesTheSecondAsItIs) {
  startBoth(26);
  EXPECT_EQ(set(0), kFirstOff);
  EXPECT_THAT(fake.calls(), ElementsAre("open(/tmp/motion1.dat)"));
  EXPECT_TRUE(camera->getMotionStatus(1));
  EXPECT_EQ(userdata(*camera, 2), "26");
}

TEST_F(LumoMotion, TheSecondWindowAloneLeavesTheFirstAsItIs) {
  startBoth(26);
  EXPECT_EQ(set(1), kSecondOff);
  EXPECT_THAT(fake.calls(), ElementsAre("open(/tmp/motion2.dat)"));
  EXPECT_TRUE(camera->getMotionStatus(0));
  EXPECT_EQ(userdata(*camera, 1), "26");
}

TEST_F(LumoMotion, AnyOtherValueProgramsNothing) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  for (const int how : {7, 4, -1, INT_MAX, INT_MIN}) EXPECT_THAT(set(how), IsEmpty()) << how;
  EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(LumoMotion, TheSecondWindowIsProgrammedThoughTheFirstIsOff) {
  putFile(1, window(0, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  EXPECT_EQ(set(2), both(kFirstOff, second(21, 22, 23, 24, 25)));
  putFile(1, window(-1, 11, 12, 13, 14, 15));
  EXPECT_EQ(set(2), both(kFirstOff, second(21, 22, 23, 24, 25)));
}

TEST_F(LumoMotion, TheResultIsThatOfSwitchingTheSecondWindowOn) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  drivers.failing = {0x400456FE};
  set(0, 0);
  set(2, 0);
  drivers.failing = {0x4004570B};
  set(1, -1);
  set(2, -1);
  fake.overlays.windows[1] = window(1, 1, 1, 1, 1, 1);
  set(3, -1);
  drivers.failing = {0x4004570C, 0x40045710};
  set(2, 0);
  putFile(2, window(0, 21, 22, 23, 24, 25));
  drivers.failing = {0x4004570B};
  set(2, 0);
}

// --- Definitions of every kind

TEST_F(LumoMotion, AWindowIsCutToThePicture) {
  const struct {
    tag_MotionDetect given;
    Trace programmed;
  } kCases[] = {
      {window(1, -20, 10, 700, 50, 1), first(0, 10, 639, 50, 1)},
      {window(1, 600, 10, 40, 50, 1), first(600, 10, 39, 50, 1)},
      {window(1, 600, 10, 39, 50, 1), first(600, 10, 39, 50, 1)},
      {window(1, 0, 440, 640, 40, 1), first(0, 440, 639, 39, 1)},
      {window(1, 0, 440, 639, 39, 1), first(0, 440, 639, 39, 1)},
      {window(1, -1, -1, 1, 1, 1), first(0, 0, 1, 1, 1)},
      {window(1, 10, 10, 0, -7, 1), first(10, 10, 0, -7, 1)},
      {window(1, 640, 480, 0, 0, 1), first(640, 480, -1, -1, 1)},
      {window(1, 700, 500, -61, -21, 1), first(700, 500, -61, -21, 1)},
      // Sums that 32 bits can't hold.
      {window(1, INT_MAX, INT_MAX, INT_MAX, 1, 1),
       first(INT_MAX, INT_MAX, 639 - INT_MAX, 479 - INT_MAX, 1)},
      {window(1, 1, 1, INT_MAX, INT_MAX, 1), first(1, 1, 638, 478, 1)},
      {window(1, INT_MIN, INT_MIN, INT_MIN, INT_MIN, 1), first(0, 0, INT_MIN, INT_MIN, 1)},
      {window(1, INT_MAX, 0, INT_MIN, 1, 1), first(INT_MAX, 0, INT_MIN, 1, 1)},
      {window(INT_MAX, 1, 1, 1, 1, INT_MAX), first(1, 1, 1, 1, INT_MAX, INT_MAX)},
      {window(1, 1, 1, 1, 1, INT_MIN), first(1, 1, 1, 1, INT_MIN)},
  };
  for (const auto& one : kCases) {
    putFile(1, one.given);
    EXPECT_EQ(set(0), one.programmed) << one.given.x << " " << one.given.width;
  }
}

TEST_F(LumoMotion, AWindowOfTheConfigurationIsCutToo) {
  fake.overlays.windows[0] = window(1, -20, 10, 700, 50, 1);
  fake.overlays.windows[1] = window(1, 600, 470, 40, 10, 1);
  EXPECT_EQ(set(3), both(first(0, 10, 639, 50, 1), second(600, 470, 39, 9, 1)));
}

TEST_F(LumoMotion, AMissingFileSwitchesItsWindowOff) {
  startBoth(90);
  fake.files.remove("/tmp/motion1.dat");
  fake.files.remove("/tmp/motion2.dat");
  EXPECT_EQ(set(2), both(kFirstOff, kSecondOff));
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 fopen(/tmp/motion1.dat) fail",
                                                 "log 2 fopen(/tmp/motion2.dat) fail"));
  EXPECT_FALSE(camera->getMotionStatus(0));
  EXPECT_FALSE(camera->getMotionStatus(1));
}

TEST_F(LumoMotion, AFileThatIsTooShortSwitchesItsWindowOff) {
  const std::string whole = bytes(window(1, 21, 22, 23, 24, 25));
  for (const std::size_t length : {0u, 1u, 4u, 24u, 159u}) {
    fake.files.put("/tmp/motion2.dat", whole);
    drivers.level[1] = 90;
    set(1);
    poll();
    EXPECT_TRUE(camera->getMotionStatus(1));
    fake.files.put("/tmp/motion2.dat", whole.substr(0, length));
    fake.clearCalls();
    EXPECT_EQ(set(1), kSecondOff) << length;
    EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 fread(/tmp/motion2.dat) fail"));
    EXPECT_FALSE(camera->getMotionStatus(1)) << length;
    EXPECT_EQ(userdata(*camera, 2), "") << length;
    EXPECT_EQ(fake.files.openCount(), 2) << "closed again";
  }
}

TEST_F(LumoMotion, AReadThatFailsSwitchesItsWindowOff) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  fake.fails("os::read");
  EXPECT_EQ(set(0), kFirstOff);
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 fread(/tmp/motion1.dat) fail"));
  EXPECT_EQ(fake.files.openCount(), 2);
}

TEST_F(LumoMotion, AFileMayComeInPieces) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  fake.files.shortReads(7);
  EXPECT_EQ(set(0), first(11, 12, 13, 14, 15));
}

TEST_F(LumoMotion, OnlyTheFirstRecordOfALongFileCounts) {
  fake.files.put("/tmp/motion1.dat", bytes(window(1, 11, 12, 13, 14, 15)) + "and more");
  EXPECT_EQ(set(0), first(11, 12, 13, 14, 15));
}

TEST_F(LumoMotion, AWindowThatFailsToLoadLeavesTheOtherAlone) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  drivers.level[0] = drivers.level[1] = 90;
  EXPECT_EQ(set(2), both(first(11, 12, 13, 14, 15), kSecondOff));
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 fopen(/tmp/motion2.dat) fail"));
  poll();
  EXPECT_TRUE(camera->getMotionStatus(0));
  EXPECT_FALSE(camera->getMotionStatus(1)) << "not with the definition of the first";
}

TEST_F(LumoMotion, AWindowWithoutConfigurationIsOff) {
  fake.overlays.windows[1] = window(1, 6, 7, 8, 9, 10);
  EXPECT_EQ(set(3), both(kFirstOff, second(6, 7, 8, 9, 10)));
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 get_motion_detect(1) fail"));
  fake.overlays.windows[0] = window(1, 1, 2, 3, 4, 5);
  fake.overlays.windows[1].reset();
  fake.clearCalls();
  EXPECT_EQ(set(3), both(first(1, 2, 3, 4, 5), kSecondOff));
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 get_motion_detect(2) fail"));
}

// The driver leaves its own value in the argument of a request.
TEST_F(LumoMotion, WhatTheDriverLeavesDoesNotSwitchAWindowOn) {
  drivers.leaves[0x400456FE] = 1;
  drivers.leaves[0x4004570B] = 1;
  drivers.level[0] = drivers.level[1] = 90;
  EXPECT_EQ(set(2), both(kFirstOff, kSecondOff));
  poll();
  EXPECT_FALSE(camera->getMotionStatus(0));
  EXPECT_FALSE(camera->getMotionStatus(1));
}

TEST_F(LumoMotion, ARefusedRequestIsLoggedByNameAndTheWindowIsOnAllTheSame) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  const Trace all = set(2);
  const struct {
    unsigned long request;
    const char* name;
    int result;
    long times;
  } kRequests[] = {
      {0x400456FE, "SET_MDWND1_ENABLE", 0, 2},  {0x400456FF, "SET_MDWND1_XPOS", 0, 1},
      {0x40045700, "SET_MDWND1_YPOS", 0, 1},    {0x40045701, "SET_MDWND1_WIDTH", 0, 1},
      {0x40045702, "SET_MDWND1_HEIGHT", 0, 1},  {0x40045703, "SET_MDWND1_THRESHOLD", 0, 1},
      {0x4004570B, "SET_MDWND2_ENABLE", -1, 2}, {0x4004570C, "SET_MDWND2_XPOS", 0, 1},
      {0x4004570D, "SET_MDWND2_YPOS", 0, 1},    {0x4004570E, "SET_MDWND2_WIDTH", 0, 1},
      {0x4004570F, "SET_MDWND2_HEIGHT", 0, 1},  {0x40045710, "SET_MDWND2_THRESHOLD", 0, 1}};
  drivers.level[0] = drivers.level[1] = 26;
  for (const auto& request : kRequests) {
    drivers.failing = {request.request};
    fake.clearCalls();
    EXPECT_EQ(set(2, request.result), all) << request.name;
    EXPECT_EQ(fake.logged("ioctl(VICAM_IOC_" + std::string(request.name) + ") fail"),
              request.times);
    EXPECT_EQ(fake.count("log"), request.times) << request.name;
    poll();
    EXPECT_TRUE(camera->getMotionStatus(0)) << request.name;
    EXPECT_TRUE(camera->getMotionStatus(1)) << request.name;
  }
}

// --- Levels

TEST_F(LumoMotion, TheLevelsArePolledOnEachOddFrame) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  set(0);
  const std::string kRead = "sensor read " + std::to_string(TWriter::getFrameSize(sbVideo()) - 6);
  for (int call = 1; call <= 6; ++call) {
    drivers.level[0] = call;
    const Trace seen = frame();
    const int last = call % 2 == 1 ? call : call - 1;
    if (call % 2 == 1)
      EXPECT_THAT(seen, ElementsAre("sensor 40045704 0", kRead));
    else
      EXPECT_THAT(seen, ElementsAre(kRead));
    EXPECT_EQ(userdata(*camera, 1), std::to_string(last)) << call;
  }
}

TEST_F(LumoMotion, BothLevelsArePolledInEveryMode) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  for (int mode = 0; mode <= 3; ++mode) {
    TCamera::defMode = mode;
    camera = std::make_unique<Lumo>();
    Lumo::calls = 0;
    set(2);
    drivers.level[0] = 10 + mode;
    drivers.level[1] = 20 + mode;
    const Trace seen = frame();
    ASSERT_GE(seen.size(), 3u);
    EXPECT_EQ(seen[0], "sensor 40045704 0");
    EXPECT_EQ(seen[1], "sensor 40045711 0");
    EXPECT_EQ(userdata(*camera, 1), std::to_string(10 + mode));
    EXPECT_EQ(userdata(*camera, 2), std::to_string(20 + mode));
  }
}

TEST_F(LumoMotion, WithBothWindowsOffThereIsNoLevelAndNoMotion) {
  drivers.level[0] = drivers.level[1] = 50;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(frame().size(), 1u) << "no poll";
  for (const int index : {0, 1}) {
    EXPECT_FALSE(camera->getMotionStatus(index));
    EXPECT_EQ(userdata(*camera, index + 1), "");
  }
}

TEST_F(LumoMotion, ALevelIsAText) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  set(0);
  for (const int level : {37, 0, 100, -1, INT_MIN}) {
    drivers.level[0] = level;
    poll();
    EXPECT_EQ(userdata(*camera, 1), std::to_string(level));
    EXPECT_EQ(userdata(*camera, 2), "");
  }
}

TEST_F(LumoMotion, MotionIsALevelAboveTheThreshold) {
  const struct {
    int threshold;
    int level;
    bool motion;
  } kCases[] = {{5, 5, false},      {5, 6, true},      {0, 0, false},
                {0, 1, true},       {100, 100, false}, {INT_MAX, 100, false},
                {INT_MIN, 0, true}, {-1, 0, true},     {INT_MAX, INT_MAX, false}};
  for (const auto& one : kCases) {
    putFile(1, window(1, 11, 12, 13, 14, one.threshold));
    putFile(2, window(1, 11, 12, 13, 14, one.threshold));
    set(2);
    drivers.level[0] = drivers.level[1] = one.level;
    poll();
    EXPECT_EQ(camera->getMotionStatus(0) != 0, one.motion) << one.threshold << " " << one.level;
    EXPECT_EQ(camera->getMotionStatus(1) != 0, one.motion) << one.threshold << " " << one.level;
  }
}

TEST_F(LumoMotion, AFailedPollIsALevelBelowAnyThreshold) {
  putFile(1, window(1, 11, 12, 13, 14, 0));
  putFile(2, window(1, 11, 12, 13, 14, 0));
  set(2);
  drivers.level[0] = drivers.level[1] = 9;
  poll();
  drivers.failing = {0x40045704, 0x40045711};
  fake.clearCalls();
  poll();
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 3 ioctl(VICAM_IOC_GET_MDWND1_STATUS) fail",
                                                 "log 3 ioctl(VICAM_IOC_GET_MDWND2_STATUS) fail"));
  for (const int index : {0, 1}) {
    EXPECT_FALSE(camera->getMotionStatus(index));
    EXPECT_EQ(userdata(*camera, index + 1), "-1");
  }
}

TEST_F(LumoMotion, AWindowThatIsOffNeverReportsMotionWhateverItsThresholdWas) {
  putFile(1, window(1, 11, 12, 13, 14, -50));
  set(0);
  drivers.level[0] = 9;
  poll();
  EXPECT_TRUE(camera->getMotionStatus(0));
  putFile(1, window(0, 11, 12, 13, 14, -50));
  set(0);
  EXPECT_FALSE(camera->getMotionStatus(0)) << "at once, with its last level";
  poll();
  EXPECT_FALSE(camera->getMotionStatus(0)) << "and with none";
}

TEST_F(LumoMotion, AWindowThatWasOffBeginsWithoutALevel) {
  startBoth(99);
  set(2);
  poll();
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  set(2);
  for (const int index : {0, 1}) {
    EXPECT_FALSE(camera->getMotionStatus(index));
    EXPECT_EQ(userdata(*camera, index + 1), "0");
  }
  poll();
  EXPECT_TRUE(camera->getMotionStatus(0));
  EXPECT_TRUE(camera->getMotionStatus(1));
}

TEST_F(LumoMotion, OneWindowsLevelIsNotTheOthers) {
  putFile(1, window(1, 11, 12, 13, 14, 15));
  putFile(2, window(1, 21, 22, 23, 24, 25));
  set(2);
  drivers.level[0] = 99;
  poll();
  EXPECT_TRUE(camera->getMotionStatus(0));
  EXPECT_FALSE(camera->getMotionStatus(1));
  drivers.level[0] = 0;
  drivers.level[1] = 99;
  poll();
  EXPECT_FALSE(camera->getMotionStatus(0));
  EXPECT_TRUE(camera->getMotionStatus(1));
}

TEST_F(LumoMotion, AThirdWindowHasNoMotion) {
  EXPECT_FALSE(camera->getMotionStatus(2));
  EXPECT_FALSE(camera->getMotionStatus(-1));
}

// Events ask on threads of their own while the capture thread polls and programs.
TEST_F(LumoMotion, AnyThreadMayAskForMotion) {
  fake.overlays.windows[0] = window(1, 1, 2, 3, 4, 5);
  fake.overlays.windows[1] = window(1, 6, 7, 8, 9, 10);
  std::atomic<bool> asked{false};
  std::atomic<bool> done{false};
  std::thread event([&] {
    while (!done) {
      camera->getMotionStatus(0);
      camera->getMotionStatus(1);
      camera->getMode();
      asked = true;
    }
  });
  for (int i = 0; i < 200 || !asked; ++i) {
    drivers.level[0] = i;
    if (i % 10 == 0) camera->setMotionDetection(3);
    frame();
  }
  done = true;
  event.join();
}

}  // namespace
