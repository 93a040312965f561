// The scheduler on its real thread, clock and file; see also the calendar in tests/unit/schedule.
#include "schedule/scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>

#include "platform/thread.h"
#include "tests/platform/support.h"
#include "tests/unit/schedule/schedules.h"

void putSchedules(const std::string& text) {
  static TempRoot root;
  std::filesystem::create_directories(root.path("/etc"));
  writeFile(root.path(TSchedule::inf), text);
}

namespace {

using Clock = std::chrono::steady_clock;

struct Owner {
  std::atomic<int> alarms{0};
  std::atomic<bool> on{false};

  static bool alarm(void* self) {
    ++static_cast<Owner*>(self)->alarms;
    return true;
  }
  static void schedule(void* self, bool on) { static_cast<Owner*>(self)->on = on; }
};

TEST(SchedulerThread, CountsAlarmsAndEvaluatesSchedulesByItself) {
  putSchedules(
      "[1]\nErased=0\nName=day\nWeekdays=1111111\nItems=1\nStart1=00:00:00\n"
      "Stop1=23:59:59\n");
  TScheduler scheduler(2);
  Owner owner;
  ASSERT_TRUE(scheduler.add(&owner, "day", Owner::schedule));
  ASSERT_TRUE(scheduler.alarm(&owner, 1, Owner::alarm));
  const auto start = Clock::now();
  scheduler.refresh();
  EXPECT_TRUE(eventually([&] { return owner.alarms >= 1; }));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900)) << "on the second pass";
  EXPECT_TRUE(eventually([&] { return owner.on.load(); }));

  scheduler.del("day");
  scheduler.alarm(&owner, 0, nullptr);
  const int alarms = owner.alarms;
  const auto stop = Clock::now();
  scheduler.refresh();
  EXPECT_FALSE(scheduler.running());
  EXPECT_TRUE(scheduler.stop(true));
  EXPECT_LT(Clock::now() - stop, std::chrono::milliseconds(800)) << "the pause ends early";
  EXPECT_EQ(owner.alarms, alarms);
}

TEST(SchedulerThread, StopsAndStartsAsOftenAsIsAsked) {
  Owner owner;
  TScheduler scheduler(1);
  for (int round = 0; round < 200; ++round) {
    scheduler.alarm(&owner, 1000, Owner::alarm);
    scheduler.refresh();
    // Not each time: also a start that comes before the body has returned is to be followed.
    if (round % 10 == 0) {
      EXPECT_TRUE(eventually([&] { return scheduler.running(); }));
    }
    scheduler.stop(false);
    scheduler.alarm(&owner, 0, nullptr);
    scheduler.refresh();
    EXPECT_FALSE(scheduler.running());
  }
  EXPECT_EQ(owner.alarms, 0);
}

TEST(SchedulerThread, HugeNumbersInTheFileCostLessThanASecond) {
  putSchedules(
      "[Main]\nMax=2000000000\n[7]\nErased=0\nName=seven\nWeekdays=1111111\n"
      "Items=2000000000\nStart2=01:00:00\nStop2=02:00:00\n[2000000000]\nErased=0\n");
  const auto start = Clock::now();
  TScheduler scheduler(1);
  EXPECT_FALSE(scheduler.add(nullptr, "none", Owner::schedule));
  EXPECT_TRUE(scheduler.add(nullptr, "seven", Owner::schedule));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
}

TEST(SchedulerThread, BadFilesHaveNoSchedules) {
  for (const std::string& text : {std::string(), std::string(100000, 'x'), std::string(5000, '\0'),
                                  std::string("[1]\nErased=0\nName=day\nWeekd"),
                                  std::string("[1\nErased=0\nName=day\nItems=1")}) {
    putSchedules(text);
    TScheduler scheduler(1);
    EXPECT_FALSE(scheduler.add(nullptr, "day", Owner::schedule));
    EXPECT_TRUE(scheduler.add(nullptr, "always", Owner::schedule));
  }
}

}  // namespace
