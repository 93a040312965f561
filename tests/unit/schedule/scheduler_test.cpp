#include "schedule/scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <utility>
#include <vector>

#include "tests/fakes/fake_platform.h"

namespace {

using Calls = std::vector<std::string>;

// Notes what the scheduler tells it.
struct Owner {
  std::string name;
  std::vector<std::string>* told;
  std::function<void()> during = [] {};
  bool repeat = true;

  static void schedule(void* self, bool on) {
    auto& owner = *static_cast<Owner*>(self);
    owner.told->push_back(owner.name + (on ? "+" : "-"));
    owner.during();
  }
  static bool alarm(void* self) {
    auto& owner = *static_cast<Owner*>(self);
    owner.told->push_back(owner.name);
    owner.during();
    return owner.repeat;
  }
};

class Scheduler : public testing::Test {
 protected:
  Scheduler() {
    fake_.ini.file(TSchedule::inf,
                   "[1]\nErased=0\nName=office\nWeekdays=0111110\nItems=1\nStart1=08:00:00\n"
                   "Stop1=18:00:00\n"
                   "[2]\nErased=0\nName=night\nWeekdays=1111111\nItems=1\nStart1=22:00:00\n"
                   "Stop1=06:00:00\n"
                   "[3]\nErased=0\nName=broken\nItems=1\nStart1=8\nStop1=9\n");
    fake_.setWallClock("2024-06-05 12:00:00");  // a Wednesday
  }
  Calls take() { return std::exchange(told_, {}); }

  FakePlatform fake_;
  Calls told_;
  TScheduler scheduler_{30};
  Owner a_{"a", &told_};
  Owner b_{"b", &told_};
};

TEST_F(Scheduler, RegistersUsableNamesOnce) {
  EXPECT_TRUE(scheduler_.add(&a_, "office", Owner::schedule));
  EXPECT_TRUE(scheduler_.add(&a_, "night", Owner::schedule));
  EXPECT_FALSE(scheduler_.add(&b_, "office", Owner::schedule));
  for (const char* name : {"", "never", "NEVER", "Never", "unknown", "broken"})
    EXPECT_FALSE(scheduler_.add(&a_, name, Owner::schedule)) << name;
  EXPECT_FALSE(scheduler_.add(&a_, nullptr, Owner::schedule));
  EXPECT_EQ(scheduler_.getIndex("office"), 0);
  EXPECT_EQ(scheduler_.getIndex("night"), 1);
  EXPECT_EQ(fake_.calls(), Calls{});  // neither logged nor started
}

TEST_F(Scheduler, FindsNamesInTheirExactCaseOnly) {
  EXPECT_TRUE(scheduler_.add(&a_, "OFFICE", Owner::schedule));
  EXPECT_EQ(scheduler_.getIndex("office"), -1);
  scheduler_.del("office");
  EXPECT_EQ(scheduler_.getIndex("OFFICE"), 0);
  EXPECT_TRUE(scheduler_.add(&b_, "office", Owner::schedule));  // another name, the same times
  scheduler_.del("OFFICE");
  EXPECT_EQ(scheduler_.getIndex("office"), 0);
  scheduler_.del("office");
  EXPECT_EQ(scheduler_.getIndex("office"), -1);
}

TEST_F(Scheduler, TheFirstOwnerOfANameGetsAllCalls) {
  EXPECT_TRUE(scheduler_.add(&a_, "always", Owner::schedule));
  EXPECT_FALSE(scheduler_.add(&b_, "always", Owner::schedule));
  scheduler_.pass(true);
  EXPECT_EQ(take(), Calls{"a+"});
}

TEST_F(Scheduler, EvaluatesFromTheLastRegisteredToTheFirst) {
  scheduler_.add(&a_, "office", Owner::schedule);
  scheduler_.add(&b_, "always", Owner::schedule);
  scheduler_.pass(true);
  EXPECT_EQ(take(), (Calls{"b+", "a+"}));
}

TEST_F(Scheduler, ARemovedScheduleMakesNoCallAndALaterOneMovesUp) {
  scheduler_.add(&a_, "always", Owner::schedule);
  scheduler_.add(&b_, "office", Owner::schedule);
  scheduler_.pass(true);
  take();
  scheduler_.del("always");
  scheduler_.del("unknown");
  EXPECT_EQ(scheduler_.getIndex("office"), 0);
  fake_.setWallClock("2024-06-05 20:00:00");
  scheduler_.pass(true);
  EXPECT_EQ(take(), Calls{"b-"});
}

TEST_F(Scheduler, AddingANameAgainReadsTheFileAgain) {
  scheduler_.add(&a_, "office", Owner::schedule);
  fake_.ini.set(TSchedule::inf, "1", "Start1", "13:00:00");
  scheduler_.pass(true);
  EXPECT_EQ(take(), Calls{"a+"});  // loaded once
  scheduler_.del("office");
  scheduler_.add(&a_, "office", Owner::schedule);
  scheduler_.pass(true);
  EXPECT_EQ(take(), Calls{});
}

TEST_F(Scheduler, TheFirstPassLeavesOutTheSchedulesThenEverySecondOneHasThem) {
  scheduler_.add(&a_, "always", Owner::schedule);
  b_.repeat = true;
  scheduler_.alarm(&b_, 1, Owner::alarm);
  // After each pass the schedule is made new, so that it calls whenever it is evaluated.
  fake_.onPause([this](long length) {
    EXPECT_EQ(length, 1000000);
    told_.push_back("|");
    scheduler_.del("always");
    scheduler_.add(&a_, "always", Owner::schedule);
  });
  for (int start = 0; start < 2; ++start) {
    scheduler_.refresh();
    fake_.stopAfterPasses(5);
    fake_.runBody(scheduler_);
    if (start == 0)
      EXPECT_EQ(take(), (Calls{"|", "b", "a+", "|", "b", "|", "b", "a+", "|", "b", "|"}));
    else
      EXPECT_EQ(take(), (Calls{"b", "|", "b", "a+", "|", "b", "|", "b", "a+", "|", "b", "|"}));
  }
}

TEST_F(Scheduler, RefreshStartsTheThreadForASchedule) {
  scheduler_.add(&a_, "office", Owner::schedule);
  scheduler_.refresh();
  EXPECT_EQ(fake_.takeCalls(), Calls{"run(pthread)"});
  scheduler_.del("office");
  scheduler_.refresh();
  EXPECT_EQ(fake_.takeCalls(), Calls{"stop(pthread,0)"});
}

TEST_F(Scheduler, RefreshStartsTheThreadForAnAlarm) {
  scheduler_.alarm(&a_, 5, Owner::alarm);
  EXPECT_EQ(fake_.takeCalls(), Calls{});  // arming does not
  scheduler_.refresh();
  EXPECT_EQ(fake_.takeCalls(), Calls{"run(pthread)"});
  scheduler_.alarm(&a_, 0, nullptr);
  scheduler_.refresh();
  EXPECT_EQ(fake_.takeCalls(), Calls{"stop(pthread,0)"});
}

TEST_F(Scheduler, AnAlarmIsCalledOnPassNPlusOneThenEveryN) {
  EXPECT_TRUE(scheduler_.alarm(&a_, 5, Owner::alarm));
  std::vector<int> passes;
  for (int pass = 1; pass <= 17; ++pass) {
    scheduler_.pass(false);
    if (!take().empty()) passes.push_back(pass);
  }
  EXPECT_EQ(passes, (std::vector<int>{6, 11, 16}));
}

TEST_F(Scheduler, CancelsAnAlarmAndTellsWhetherThereWasOne) {
  EXPECT_TRUE(scheduler_.alarm(&a_, 1, Owner::alarm));
  EXPECT_TRUE(scheduler_.alarm(&a_, 0, nullptr));
  EXPECT_FALSE(scheduler_.alarm(&a_, 0, nullptr));
  EXPECT_FALSE(scheduler_.alarm(&b_, 0, Owner::alarm));
  EXPECT_FALSE(scheduler_.alarm(&b_, 5, nullptr));
  for (int pass = 0; pass < 5; ++pass) scheduler_.pass(false);
  EXPECT_EQ(take(), Calls{});
  EXPECT_EQ(fake_.calls(), Calls{});
}

TEST_F(Scheduler, ACallbackSeesWhetherItsAlarmWasArmedAnew) {
  a_.repeat = false;
  bool before = true, after = false;
  a_.during = [&] {
    before = scheduler_.rearmed(&a_);
    scheduler_.alarm(&a_, 5, Owner::alarm);
    after = scheduler_.rearmed(&a_);
  };
  scheduler_.alarm(&a_, 1, Owner::alarm);
  EXPECT_FALSE(scheduler_.rearmed(&a_)) << "armed, but nothing is being called back";
  scheduler_.pass(false);
  scheduler_.pass(false);
  EXPECT_FALSE(before);
  EXPECT_TRUE(after);
  EXPECT_FALSE(scheduler_.rearmed(&b_));
}

TEST_F(Scheduler, TheThirtyFirstAlarmIsReportedAndLost) {
  std::vector<Owner> owners(31, a_);
  for (int i = 0; i < 30; ++i) EXPECT_TRUE(scheduler_.alarm(&owners[i], 100, Owner::alarm));
  EXPECT_FALSE(scheduler_.alarm(&owners[30], 100, Owner::alarm));
  EXPECT_EQ(fake_.takeCalls(), Calls{"log 3 TScheduler::alarm() IPE"});
  EXPECT_TRUE(scheduler_.alarm(&owners[7], 200, Owner::alarm));  // it has one
  EXPECT_TRUE(scheduler_.alarm(&owners[7], 0, nullptr));
  EXPECT_TRUE(scheduler_.alarm(&owners[30], 100, Owner::alarm));
}

TEST_F(Scheduler, ASlotThatRanOutIsFreeForAnother) {
  TScheduler one(1);
  a_.repeat = false;
  EXPECT_TRUE(one.alarm(&a_, 1, Owner::alarm));
  EXPECT_FALSE(one.alarm(&b_, 1, Owner::alarm));
  one.pass(false);
  one.pass(false);
  EXPECT_EQ(take(), Calls{"a"});
  EXPECT_TRUE(one.alarm(&b_, 1, Owner::alarm));
}

TEST_F(Scheduler, ACallbackMayChangeItsOwnAlarm) {
  bool first = true;
  a_.during = [this, &first] {
    if (!std::exchange(first, false)) return;
    EXPECT_TRUE(scheduler_.alarm(&a_, 0, nullptr));  // returns at once
    EXPECT_TRUE(scheduler_.alarm(&a_, 2, Owner::alarm));
  };
  a_.repeat = false;
  scheduler_.alarm(&a_, 1, Owner::alarm);
  std::vector<int> passes;
  for (int pass = 1; pass <= 12; ++pass) {
    scheduler_.pass(false);
    if (!take().empty()) passes.push_back(pass);
  }
  EXPECT_EQ(passes, (std::vector<int>{2, 5}));
}

TEST_F(Scheduler, AScheduleCallbackMayArmAlarms) {
  a_.during = [this] { EXPECT_TRUE(scheduler_.alarm(&b_, 1, Owner::alarm)); };
  scheduler_.add(&a_, "always", Owner::schedule);
  scheduler_.pass(true);
  scheduler_.pass(false);
  scheduler_.pass(false);
  EXPECT_EQ(take(), (Calls{"a+", "b"}));
}

TEST_F(Scheduler, ABusyLockCostsTheSchedulesAPassAndNothingWaits) {
  scheduler_.add(&a_, "office", Owner::schedule);
  scheduler_.add(&b_, "always", Owner::schedule);
  scheduler_.alarm(&b_, 1, Owner::alarm);
  // The callback runs with the lock held, so that a pass within it finds the lock busy.
  bool first = true;
  b_.during = [this, &first] {
    if (!std::exchange(first, false)) return;
    told_.push_back("(");
    scheduler_.pass(true);
    scheduler_.pass(true);
    told_.push_back(")");
  };
  scheduler_.pass(true);
  EXPECT_EQ(take(), (Calls{"b+", "(", "b", "b", ")", "a+"}));
}

TEST_F(Scheduler, TheProcessHasOneWithThirtySlots) {
  EXPECT_EQ(scheduler(), scheduler());
  std::vector<Owner> owners(31, a_);
  for (int i = 0; i < 30; ++i) EXPECT_TRUE(scheduler()->alarm(&owners[i], 9, Owner::alarm));
  EXPECT_FALSE(scheduler()->alarm(&owners[30], 9, Owner::alarm));
  for (int i = 0; i < 30; ++i) EXPECT_TRUE(scheduler()->alarm(&owners[i], 0, nullptr));
}

TEST_F(Scheduler, ItsEndStopsARunningThread) {
  {
    TScheduler scheduler(1);
    scheduler.run();
    fake_.clearCalls();
  }
  EXPECT_EQ(fake_.calls(), (Calls{"stop(pthread,1)", "delete(pthread)"}));
}

// Returns whether "office" and "night" are on at this very second, by the calendar.
Calls expected(std::time_t now) {
  std::tm local{};
  localtime_r(&now, &local);
  Calls result;
  if (local.tm_wday >= 1 && local.tm_wday <= 5 &&
      (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec) / 2 >= 4 * 3600 &&
      local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec <= 18 * 3600)
    result.push_back("office");
  if (local.tm_hour >= 22 || local.tm_hour < 6 ||
      (local.tm_hour == 6 && local.tm_min == 0 && local.tm_sec == 0))
    result.push_back("night");
  return result;
}

TEST_F(Scheduler, StepsOfTheWallClockAreSeenWithinTwoEvaluationsAndAlarmsIgnoreThem) {
  Owner office{"office", &told_};
  Owner night{"night", &told_};
  Calls active;
  const auto follow = [&] {
    for (const std::string& edge : take()) {
      const std::string name = edge.substr(0, edge.size() - 1);
      const auto found = std::find(active.begin(), active.end(), name);
      if (edge.back() == '+') {
        EXPECT_EQ(found, active.end());
        active.push_back(name);
      } else {
        ASSERT_NE(found, active.end());
        active.erase(found);
      }
    }
    std::sort(active.rbegin(), active.rend());
  };
  int alarms = 0;
  a_.during = [&] { ++alarms, told_.pop_back(); };
  scheduler_.add(&office, "office", Owner::schedule);
  scheduler_.add(&night, "night", Owner::schedule);
  scheduler_.alarm(&a_, 1, Owner::alarm);
  scheduler_.refresh();

  const long steps[] = {0, 1, -1, 3600, -3600, 86400, -86400, 7 * 86400, -3601};
  const char* const times[] = {"2024-06-05 07:59:57", "2024-06-05 17:59:58", "2024-06-07 21:59:59",
                               "2024-06-08 05:59:55", "2024-06-09 23:59:59", "2024-06-10 06:59:59"};
  int passes = 0;
  std::size_t next = 0;
  constexpr int kPassesPerCheck = 4;  // two evaluations
  fake_.onPause([&](long) {
    if (++passes % kPassesPerCheck != 0) return;
    follow();
    // What was evaluated last is at most two passes old.
    const std::time_t now = fake_.clock.wallUs() / 1000000;
    bool matches = false;
    for (int age = 0; age <= 2; ++age) matches = matches || active == expected(now - age);
    EXPECT_TRUE(matches) << std::ctime(&now);
    const std::size_t count = std::size(steps) * std::size(times);
    if (next == count) {
      fake_.stopNow();
      return;
    }
    if (next % std::size(steps) == 0) fake_.setWallClock(times[next / std::size(steps)]);
    fake_.stepWallClock(steps[next++ % std::size(steps)]);
  });
  fake_.runBody(scheduler_);
  EXPECT_EQ(alarms, passes - 1);  // one on each pass but the first
}

}  // namespace
