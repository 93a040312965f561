// The event engine with real threads: rebuilt again and again while everything in it is at work.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "capture/camera.h"
#include "core/status_slots.h"
#include "events/access_handler.h"
#include "events/event.h"
#include "events/event_manager.h"
#include "events/out_handler.h"
#include "platform/application.h"
#include "record/avi_writer.h"
#include "record/jpg_writer.h"
#include "record/recorder.h"
#include "schedule/scheduler.h"
#include "tests/fakes/fake_platform.h"
#include "tests/slow_build.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int kRefreshes = 1000 / kSlow;  // the trials of torture go on for as long as one likes
constexpr unsigned kTimeFactor = 200;

// Sees motion as a test says, and can hang in doing so as a driver may.
class ScriptedCamera : public TCamera {
 public:
  ScriptedCamera() : TCamera("") {}
  int getMotionStatus(int window) override {
    asked = true;
    while (hangs) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return motion[static_cast<std::size_t>(window)];
  }
  std::array<std::atomic<int>, 2> motion{};
  std::atomic<bool> hangs{false};
  std::atomic<bool> asked{false};
};

long threadsOfProcess() {
  std::thread([] {}).join();  // sanitizers make their own thread with the first one
  long count = 0;
  DIR* const folder = opendir("/proc/self/task");
  while (const dirent* entry = readdir(folder)) {
    count += entry->d_name[0] != '.' ? 1 : 0;
  }
  closedir(folder);
  return count;
}

bool waitFor(const std::function<bool()>& condition, milliseconds limit = milliseconds(20000)) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

// Alarms that are armed now: what a table of 30 slots can't take any more.
long armedAlarms() {
  constexpr std::size_t kSlots = 30;
  static std::array<char, kSlots> owners;
  long free = 0;
  for (char& owner : owners) {
    free += scheduler()->alarm(&owner, INT_MAX, [](void*) { return false; }) ? 1 : 0;
  }
  for (char& owner : owners) {
    scheduler()->alarm(&owner, 0, nullptr);
  }
  return static_cast<long>(kSlots) - free;
}

class EventEngine : public testing::Test {
 protected:
  EventEngine() : threadsBefore(threadsOfProcess()) {
    fake.setTimeZone("UTC");
    fake.setWallClock("2024-06-03 11:00:00");
    fake.keepCalls(false);
    fake.onCall([this](const std::string& call) { note(call); });
    fake.delivery.keep(false);
    fake.ini.set("/etc/sys.conf", "Samba", "Enable", "1");
    fake.smbMounted();
    fake.ini.file("/etc/schedule.conf",
                  "[1]\nErased=0\nName=office\nWeekdays=1111111\nItems=1\n"
                  "Start1=12:00:00\nStop1=20:00:00\n"
                  "[2]\nErased=0\nName=night\nWeekdays=1111111\nItems=1\n"
                  "Start1=18:00:00\nStop1=09:00:00\n");
  }

  ~EventEngine() override { scheduler()->stop(true); }

  // What the calls tell. Relaxed, so that the test orders nothing that the engine does not.
  void note(const std::string& call) {
    for (std::size_t output = 0; output < outputIsOn.size(); ++output) {
      const std::string message =
          output == 0 ? "SendMessage(socmond,52," : "SendMessage(socmond,59,";
      if (call.compare(0, message.size(), message) == 0) {
        outputIsOn[output].store(call[message.size()] == '1', std::memory_order_relaxed);
        pulses.fetch_add(1, std::memory_order_relaxed);
      }
    }
    const std::string tone = "system(ptcmd BTONE=";
    if (call.compare(0, tone.size(), tone) == 0) {
      tones[static_cast<std::size_t>(std::stoi(call.substr(tone.size()))) % tones.size()].fetch_add(
          1, std::memory_order_relaxed);
    }
    if (call.compare(0, 6, "open2(") == 0) {
      recordings.fetch_add(1, std::memory_order_relaxed);
    }
    if (call.find("IPE") != call.npos || call.find("left behind") != call.npos) {
      failures.fetch_add(1, std::memory_order_relaxed);
    }
  }

  void expectNothingLeft() {
    for (const char* name : {"always", "office", "OFFICE", "Night"}) {
      EXPECT_LT(scheduler()->getIndex(name), 0) << name << " was left registered";
    }
    EXPECT_EQ(0, armedAlarms());
    EXPECT_FALSE(outputIsOn[0]);
    EXPECT_FALSE(outputIsOn[1]);
    EXPECT_FALSE(aviWriter()->getRef());
    EXPECT_FALSE(jpgWriter()->getRef());
    EXPECT_EQ(0, fake.delivery.openSessions);
  }

  void expectNoThreadLeft() {
    scheduler()->stop(true);
    EXPECT_TRUE(waitFor([this] { return threadsOfProcess() <= threadsBefore; }));
  }

  FakePlatform fake;
  ScriptedCamera camera;
  const long threadsBefore;
  std::array<std::atomic<bool>, 2> outputIsOn{};
  std::array<std::atomic<long>, 16> tones{};
  std::atomic<long> pulses{0};
  std::atomic<long> recordings{0};
  std::atomic<long> failures{0};
};

// The world around the daemon: motion, triggers, privacy, pictures, a wall clock that is set.
class World {
 public:
  World(FakePlatform* fake, ScriptedCamera* camera)
      : thread_([this, fake, camera] { run(fake, camera); }) {}
  ~World() {
    end_ = true;
    thread_.join();
  }

 private:
  void run(FakePlatform* fake, ScriptedCamera* camera) {
    std::mt19937 random(20240603);
    const auto dice = [&random](unsigned sides) { return static_cast<int>(random() % sides); };
    const std::string picture = "\xff\xd8picture";
    bool later = false;
    for (; !end_; std::this_thread::sleep_for(std::chrono::microseconds(500))) {
      camera->motion[0] = dice(2);
      camera->motion[1] = dice(2);
      fake->privacy = dice(8) == 0 ? 1 : 0;
      fake->video.setSlot(kSlotStatus, dice(3) == 0 ? INT_MIN : 0);
      fake->video.setSlot(kSlotWebTrigger1, kSlotWebTrigger1);
      fake->video.setSlot(kSlotWebTrigger2, kSlotWebTrigger2);
      fake->video2.push(picture);
      fake->video.push(picture);
      if (dice(20) == 0) {  // into and out of the schedules
        fake->stepWallClock(later ? -8 * 3600 : 8 * 3600);
        later = !later;
      }
    }
  }

  std::atomic<bool> end_{false};
  std::thread thread_;
};

// An events file in which names, kinds and actions differ from one number to the next.
std::string eventsFile(int number) {
  static const char* const names[] = {"Always", "OFFICE", "office", "Night", "always", "Never"};
  std::mt19937 random(static_cast<unsigned>(number));
  const auto dice = [&random](unsigned sides) { return std::to_string(random() % sides); };
  std::string text = "[Main]\nMax=12\n";
  const int count = 3 + number % 9;
  for (int i = 1; i <= count; ++i) {
    const std::string source = std::to_string((i + number) % 7);
    text += "[" + std::to_string(i) + "]\nErased=0\nSource=" + source + "\nInterval=" + dice(3) +
            "\nSchedule=" + names[random() % 6] + "\nSchedule2=" + names[random() % 6] +
            "\nOut1=" + dice(2) + "\nOut1Duration=" + dice(4) + "\nOut2=" + dice(2) +
            "\nOut2Duration=" + dice(100) + "\nBuzzer=" + dice(2) + "\nAccess=" + dice(2) +
            "\nUsb=" + dice(2) + "\nUsbFolder=f" + dice(3) + "\nMail=" + dice(2) +
            "\nFtp=" + dice(2) + "\nFtpDuration=" + dice(3) + "\nSmb=" + dice(2) + "\n";
  }
  return text;
}

TEST_F(EventEngine, ManyRefreshesWhileEverythingIsAtWorkLeaveNothingBehind) {
  fake.clock.followRealTime(kTimeFactor);
  fake.ini.file(TEventManager::inf, eventsFile(0));
  {
    World world(&fake, &camera);
    TEventManager manager(&camera);
    for (int i = 1; i <= kRefreshes && !HasFailure(); ++i) {
      fake.ini.file(TEventManager::inf, eventsFile(i));
      if (i % 20 == 0) {
        manager.clean();
        expectNothingLeft();
      }
      manager.refresh();
    }
    EXPECT_GT(pulses, kRefreshes);
    EXPECT_GT(tones[1], kRefreshes);
    EXPECT_GT(recordings, kRefreshes / 10);
    EXPECT_GT(fake.delivery.uploadCount, kRefreshes / 10);
    EXPECT_GT(fake.delivery.mailCount, kRefreshes / 10);
  }
  EXPECT_EQ(0, failures);
  expectNothingLeft();
  expectNoThreadLeft();
}

TEST_F(EventEngine, TenEventsInTheirPausesDoNotHoldARefreshUp) {
  constexpr double kOwnPauseS = 2;
  constexpr std::size_t kEvents = 10;
  std::string text = "[Main]\nMax=10\n";
  for (std::size_t i = 1; i <= kEvents; ++i) {
    // Both web triggers, both motion windows, and the digital input for all others.
    const std::size_t source = i <= 2 ? 4 + i : i <= 4 ? i - 3 : 2;
    text += "[" + std::to_string(i) +
            "]\nErased=0\nSchedule=always\nSource=" + std::to_string(source) +
            "\nBuzzer=1\nBuzzerTone=" + std::to_string(i) + "\n";
  }
  fake.ini.file(TEventManager::inf, text);
  fake.clock.followRealTime(1);
  camera.motion[0] = camera.motion[1] = 1;
  for (const int slot : {kSlotWebTrigger1, kSlotWebTrigger2}) {
    fake.video.setSlot(slot, slot);
  }
  fake.video.setSlot(kSlotStatus, INT_MIN);
  TApplication::stopped = true;  // spares the test the first pause
  TEventManager manager(&camera);
  TApplication::stopped = false;
  ASSERT_TRUE(waitFor([this] {
    return std::count_if(tones.begin(), tones.end(), [](const auto& tone) { return tone > 0; }) ==
           kEvents;
  }));
  const auto before = Clock::now();
  manager.refresh();
  const double seconds = std::chrono::duration<double>(Clock::now() - before).count();
  EXPECT_GE(seconds, kOwnPauseS);
  EXPECT_LT(seconds, kOwnPauseS + 1);
  EXPECT_EQ(0, failures);
}

TEST_F(EventEngine, RefreshInTheMiddleOfAnUploadAndOfAMailEndsThemAtOnce) {
  constexpr int kRounds = 10;
  fake.ini.file(TEventManager::inf,
                "[1]\nErased=0\nSchedule=always\nSource=3\nInterval=1\nMail=1\nFtp=1\n"
                "[2]\nErased=0\nSchedule=always\nSource=0\nMail=1\nFtp=1\nFtpDuration=1000\n");
  fake.clock.followRealTime(1);
  camera.motion[0] = 1;
  const char* const steps[] = {"ftpOpenSession", "ftpTransfer"};
  for (int round = 0; round < kRounds; ++round) {
    for (const char* step : steps) {
      fake.delivery.answers(step);
    }
    fake.delivery.hangs(steps[round % 2]);
    fake.delivery.hangs("send_mail");
    TApplication::stopped = true;  // spares the test the pause
    TEventManager manager(&camera);
    TApplication::stopped = false;
    // The upload and the mails of both events.
    ASSERT_TRUE(waitFor([this] {
      fake.video.push("\xff\xd8picture");
      fake.video2.push("\xff\xd8picture");
      return fake.delivery.hanging == 3;
    })) << round;
    const auto before = Clock::now();
    manager.clean();
    EXPECT_LT(Clock::now() - before, milliseconds(1000)) << round;
    EXPECT_EQ(0, fake.delivery.hanging);
    expectNothingLeft();
  }
  EXPECT_EQ(0, failures);
  EXPECT_FALSE(TEventManager::leftBehind);
  expectNoThreadLeft();
}

TEST_F(EventEngine, StopOfTheProcessEndsEverythingAtOnce) {
  fake.ini.file(TEventManager::inf, eventsFile(6));
  fake.clock.followRealTime(1);
  {
    World world(&fake, &camera);
    std::thread signal;
    {
      // The signal comes while the constructor still pauses.
      signal = std::thread([] {
        std::this_thread::sleep_for(milliseconds(50));
        TApplication::stopped = true;
      });
      const auto before = Clock::now();
      { TEventManager manager(&camera); }
      EXPECT_LT(Clock::now() - before, milliseconds(1900));
    }
    signal.join();
  }
  EXPECT_EQ(0, failures);
  expectNothingLeft();
  expectNoThreadLeft();
}

TEST_F(EventEngine, EventThatHangsInTheDriverIsLeftBehindAndFiresNothingWhenItComesBack) {
  fake.ini.file(TEventManager::inf,
                "[1]\nErased=0\nSchedule=always\nSource=0\nOut1=1\nOut1Duration=1000\nUsb=1\n");
  fake.clock.followRealTime(kTimeFactor);
  camera.motion[0] = 1;
  TEventManager manager(&camera);
  TEvent* const event = manager.events()[0].get();
  TRecorder* const recorder = event->handlers.back()->recorder();
  ASSERT_TRUE(waitFor([this] {
    fake.video.push("\xff\xd8picture");
    fake.video2.push("\xff\xd8picture");
    return outputIsOn[0] && recordings > 0;
  }));
  camera.hangs = true;
  camera.asked = false;
  ASSERT_TRUE(waitFor([this] { return camera.asked.load(); }));
  const auto before = Clock::now();
  manager.clean();
  EXPECT_LT(Clock::now() - before, milliseconds(5900));
  EXPECT_EQ(1, failures);  // it is said once
  expectNothingLeft();     // though the event and its recorder are still there
  const long pulsesBefore = pulses;
  camera.hangs = false;
  expectNoThreadLeft();
  EXPECT_EQ(pulsesBefore, pulses);
  expectNothingLeft();
  // Nobody else can reach them any more: the test gives back what the daemon may not.
  ASSERT_TRUE(TStopDeadline().end(*event) && TStopDeadline().end(*recorder));
  EXPECT_TRUE(TEventManager::leftBehind);
  TEventManager::leftBehind = false;
  delete event;
  delete recorder;
}

TEST_F(EventEngine, HandlersFiredByManyThreadsAtOnceEndTheirPulses) {
  constexpr int kThreads = 4;
  constexpr int kShots = 2000;
  fake.clock.followRealTime(kTimeFactor * 10);
  scheduler()->run();
  {
    TOutHandler first(0, 1);
    TOutHandler second(1, 2);
    TAccessHandler access;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (int shot = 0; shot < kShots; ++shot) {
          first.onTrigger();
          second.onTrigger();
          access.onStarted();
          access.onStopped();
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(0, failures);
    EXPECT_LE(armedAlarms(), 2);  // an owner has one at most
  }
  expectNothingLeft();
  expectNoThreadLeft();
}

}  // namespace
