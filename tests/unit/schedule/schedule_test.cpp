#include "schedule/schedule.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "tests/fakes/fake_platform.h"

struct ScheduleAccess {
  static std::vector<TDateTime>& starts(TSchedule& schedule) { return schedule.starts_; }
  static std::vector<TDateTime>& stops(TSchedule& schedule) { return schedule.stops_; }
  static std::vector<bool>& weekdays(TSchedule& schedule) { return schedule.weekdays_; }
};

namespace {

using Edges = std::vector<bool>;

class Schedule : public testing::Test {
 protected:
  static void note(void* self, bool on) { static_cast<Schedule*>(self)->edges_.push_back(on); }

  // Writes section 1 with the name "office", all weekdays and `rest`.
  void office(const std::string& rest) {
    fake_.ini.file(TSchedule::inf, "[1]\nErased=0\nName=office\nWeekdays=1111111\n" + rest + "\n");
  }
  bool load(const char* name) { return schedule_.set(name); }
  // Returns whether the schedule is on at a time of day.
  bool on(const char* time, unsigned weekday = 3) {
    fake_.setWallClock((std::string("2024-06-05 ") + time).c_str());
    TDateTime now;
    now.set();
    // A copy, so that every question begins with a schedule that is off.
    TSchedule copy(schedule_);
    edges_.clear();
    copy.test(now, weekday);
    return edges_ == Edges{true};
  }
  std::string starts() {
    std::string text;
    for (std::size_t i = 0; i < ScheduleAccess::starts(schedule_).size(); ++i)
      text += ScheduleAccess::starts(schedule_)[i].getTimeString().substr(11) + ".." +
              ScheduleAccess::stops(schedule_)[i].getTimeString().substr(11) + " ";
    return text;
  }

  FakePlatform fake_;
  Edges edges_;
  TSchedule schedule_{this, "office", note};
};

TEST_F(Schedule, AlwaysIsEveryDayFromMidnightToTheLastSecond) {
  fake_.ini.file(TSchedule::inf, "[Main]\nMax=nonsense\n");
  for (const char* name : {"always", "Always", "ALWAYS"}) {
    TSchedule schedule(this, name, note);
    EXPECT_TRUE(schedule.set(name));
    EXPECT_EQ(ScheduleAccess::weekdays(schedule), std::vector<bool>(7, true));
    schedule_ = schedule;
    EXPECT_EQ(starts(), "00:00:00..23:59:59 ");
    for (const char* time : {"00:00:00", "12:00:00", "23:59:59"})
      for (unsigned day = 0; day < 7; ++day) EXPECT_TRUE(on(time, day)) << time;
  }
  EXPECT_EQ(fake_.asked("getIniInt"), 0);  // the file is not read
}

TEST_F(Schedule, BothEndsOfAnIntervalAreInside) {
  office("Items=1\nStart1=08:00:00\nStop1=18:30:15");
  ASSERT_TRUE(load("office"));
  EXPECT_FALSE(on("07:59:59"));
  EXPECT_TRUE(on("08:00:00"));
  EXPECT_TRUE(on("18:30:15"));
  EXPECT_FALSE(on("18:30:16"));
}

TEST_F(Schedule, ASoleIntervalAcrossMidnightIsSplitInTwo) {
  office("Items=1\nStart1=22:00:00\nStop1=06:00:00");
  ASSERT_TRUE(load("office"));
  EXPECT_EQ(starts(), "22:00:00..23:59:59 00:00:00..06:00:00 ");
  EXPECT_TRUE(on("23:30:00"));
  EXPECT_TRUE(on("05:00:00"));
  EXPECT_FALSE(on("12:00:00"));
}

TEST_F(Schedule, AnIntervalAcrossMidnightAmongSeveralNeverMatches) {
  office("Items=2\nStart1=10:00:00\nStop1=11:00:00\nStart2=22:00:00\nStop2=06:00:00");
  ASSERT_TRUE(load("office"));
  EXPECT_TRUE(on("10:30:00"));
  EXPECT_FALSE(on("23:30:00"));
  EXPECT_FALSE(on("05:00:00"));
}

TEST_F(Schedule, ASoleIntervalToMidnightEndsWithTheDay) {
  office("Items=1\nStart1=08:00:00\nStop1=00:00:00");
  ASSERT_TRUE(load("office"));
  EXPECT_EQ(starts(), "08:00:00..23:59:59 ");
  EXPECT_TRUE(on("23:59:59"));
  EXPECT_FALSE(on("00:00:00"));
}

TEST_F(Schedule, APairWithATimeOfAnotherLengthIsSkipped) {
  office(
      "Items=3\nStart1=8:00:00\nStop1=09:00:00\nStart2=10:00:00\nStop2=11:00:00\n"
      "Start3=12:00:00\nStop3=13:00");
  ASSERT_TRUE(load("office"));
  EXPECT_EQ(starts(), "10:00:00..11:00:00 ");
  office("Items=1\nStart1=8:00:00\nStop1=09:00:00");
  EXPECT_FALSE(TSchedule(this, "office", note).set("office"));
}

TEST_F(Schedule, ATimeOfAnotherFormIsTheStartOfTheDay) {
  office("Items=1\nStart1=eight am\nStop1=09:00:00");
  ASSERT_TRUE(load("office"));
  EXPECT_EQ(starts(), "00:00:00..09:00:00 ");
  EXPECT_EQ(fake_.logged("malformed time of day: eight am"), 1);
}

TEST_F(Schedule, WithoutWeekdaysItIsNeverOn) {
  for (const char* days : {"Weekdays=0000000\n", "Weekdays=\n"}) {
    office(std::string(days) + "Items=1\nStart1=00:00:00\nStop1=23:59:59");
    schedule_ = TSchedule(this, "office", note);
    ASSERT_TRUE(load("office")) << "valid all the same";
    for (unsigned day = 0; day < 7; ++day) EXPECT_FALSE(on("12:00:00", day));
  }
}

TEST_F(Schedule, AnyCharacterButZeroSwitchesItsWeekdayOn) {
  office("Weekdays=01x0 0\nItems=1\nStart1=00:00:00\nStop1=23:59:59");
  ASSERT_TRUE(load("office"));
  const bool expected[] = {false, true, true, false, true, false, false};
  for (unsigned day = 0; day < 7; ++day) EXPECT_EQ(on("12:00:00", day), expected[day]) << day;
}

TEST_F(Schedule, CharactersBehindTheSeventhWeekdayHaveNoEffect) {
  for (const char* days : {"00000001111", "000000011111111111111111"}) {
    office("Weekdays=" + std::string(days) + "\nItems=1\nStart1=00:00:00\nStop1=23:59:59");
    schedule_ = TSchedule(this, "office", note);
    ASSERT_TRUE(load("office"));
    EXPECT_EQ(ScheduleAccess::weekdays(schedule_), std::vector<bool>(7, false));
  }
}

TEST_F(Schedule, AWeekdayNumberAboveSixIsNeverInside) {
  ASSERT_TRUE(load("always"));
  for (const unsigned day : {7u, 8u, 31u, ~0u}) EXPECT_FALSE(on("12:00:00", day)) << day;
}

TEST_F(Schedule, OfTwoSectionsWithOneNameTheHigherNumberCounts) {
  fake_.ini.file(TSchedule::inf,
                 "[2]\nErased=0\nName=office\nWeekdays=1111111\nItems=1\nStart1=01:00:00\n"
                 "Stop1=02:00:00\n"
                 "[10]\nErased=0\nName=OFFICE\nWeekdays=1111111\nItems=1\nStart1=03:00:00\n"
                 "Stop1=04:00:00\n");
  ASSERT_TRUE(load("Office"));
  EXPECT_EQ(starts(), "03:00:00..04:00:00 ");
}

TEST_F(Schedule, AHigherSectionThatIsUnusableHidesALowerOne) {
  fake_.ini.file(TSchedule::inf,
                 "[1]\nErased=0\nName=office\nItems=1\nStart1=01:00:00\nStop1=02:00:00\n"
                 "[2]\nErased=0\nName=office\nItems=0\n");
  EXPECT_FALSE(load("office"));
}

TEST_F(Schedule, SectionsAboveMaxErasedOnesAndOtherNamesAreNotFound) {
  const std::string body = "Items=1\nStart1=01:00:00\nStop1=02:00:00\n";
  fake_.ini.file(TSchedule::inf, "[11]\nErased=0\nName=eleven\n" + body +
                                     "[1]\nErased=1\nName=gone\n" + body + "[2]\nName=unsaid\n" +
                                     body + "[03]\nErased=0\nName=zero\n" + body);
  for (const char* name : {"eleven", "gone", "unsaid", "zero", "other"}) EXPECT_FALSE(load(name));
  fake_.ini.set(TSchedule::inf, "Main", "Max", "11");
  EXPECT_TRUE(load("eleven"));
  for (const char* max : {"0", "-1", "-2147483648"}) {
    fake_.ini.set(TSchedule::inf, "Main", "Max", max);
    EXPECT_FALSE(TSchedule(this, "eleven", note).set("eleven")) << max;
  }
}

TEST_F(Schedule, WithoutItemsItIsNotUsable) {
  for (const char* items : {"", "Items=0", "Items=-3"}) {
    office(std::string(items) + "\nStart1=01:00:00\nStop1=02:00:00");
    EXPECT_FALSE(load("office")) << items;
  }
  EXPECT_EQ(fake_.calls(), std::vector<std::string>{});  // and nothing is logged
}

TEST_F(Schedule, AMissingFileHasNoSchedules) { EXPECT_FALSE(load("office")); }

TEST_F(Schedule, NumbersThatAreNoneCountAsTheirDefaults) {
  const std::string times = "Start1=01:00:00\nStop1=02:00:00\n";
  fake_.ini.file(TSchedule::inf, "[Main]\nMax=many\n[11]\nErased=0\nName=eleven\nItems=1\n" +
                                     times + "[10]\nErased=0\nName=ten\nItems=1\n" + times +
                                     "[9]\nErased=no\nName=gone\nItems=1\n" + times +
                                     "[8]\nErased=0\nName=none\nItems=all\n" + times);
  EXPECT_FALSE(load("eleven"));
  EXPECT_TRUE(load("ten"));
  EXPECT_FALSE(TSchedule(this, "", note).set("gone"));
  EXPECT_FALSE(TSchedule(this, "", note).set("none"));
}

TEST_F(Schedule, OnlyAsManyIntervalsAsItemsSaysAreRead) {
  office(
      "Items=2\nStart3=05:00:00\nStop3=06:00:00\nStart1=01:00:00\nStop1=02:00:00\n"
      "Stop2=04:00:00");
  ASSERT_TRUE(load("office"));
  EXPECT_EQ(starts(), "01:00:00..02:00:00 ");
}

TEST_F(Schedule, HugeNumbersInTheFileCostLessThanASecondAndFindTheSame) {
  const auto start = std::chrono::steady_clock::now();
  fake_.ini.file(TSchedule::inf,
                 "[Main]\nMax=2000000000\n[7]\nErased=0\nName=seven\nWeekdays=1111111\n"
                 "Items=2000000000\nStart2=01:00:00\nStop2=02:00:00\nStart1999999999=03:00:00\n"
                 "Stop1999999999=04:00:00\n"
                 "[1999999999]\nErased=0\nName=last\nItems=2147483647\nStart2147483647=05:00:00\n"
                 "Stop2147483647=06:00:00\n");
  EXPECT_FALSE(load("none"));
  ASSERT_TRUE(load("seven"));
  EXPECT_EQ(starts(), "01:00:00..02:00:00 03:00:00..04:00:00 ");
  schedule_ = TSchedule(this, "last", note);
  ASSERT_TRUE(load("last"));
  EXPECT_EQ(starts(), "05:00:00..06:00:00 ");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(Schedule, NamesAreReadUpToSixtyThreeCharacters) {
  const std::string longest(63, 'n');
  fake_.ini.file(TSchedule::inf, "[1]\nErased=0\nName=" + longest +
                                     "n\nItems=1\nStart1=01:00:00\n" + "Stop1=02:00:00\n");
  EXPECT_TRUE(TSchedule(this, "", note).set(longest.c_str()));
  EXPECT_FALSE(TSchedule(this, "", note).set((longest + "n").c_str()));
}

TEST_F(Schedule, CallsBackOnEdgesOnly) {
  office("Items=1\nStart1=08:00:00\nStop1=18:00:00");
  ASSERT_TRUE(load("office"));
  const std::pair<const char*, Edges> steps[] = {{"07:00:00", {}}, {"08:00:00", {true}},
                                                 {"12:00:00", {}}, {"18:00:01", {false}},
                                                 {"19:00:00", {}}, {"09:00:00", {true}}};
  for (const auto& [time, expected] : steps) {
    fake_.setWallClock((std::string("2024-06-05 ") + time).c_str());
    TDateTime now;
    now.set();
    edges_.clear();
    schedule_.test(now, 3);
    EXPECT_EQ(edges_, expected) << time;
  }
}

TEST_F(Schedule, FractionsOfTheLastSecondAreInside) {
  office("Items=1\nStart1=08:00:00\nStop1=18:00:00");
  ASSERT_TRUE(load("office"));
  fake_.setWallClock("2024-06-05 18:00:00");
  TDateTime now;
  now.set();
  now.set(static_cast<long>(now.seconds()), 999999);
  schedule_.test(now, 3);
  EXPECT_EQ(edges_, Edges{true});
}

// The daylight-saving update and the web interface change the zone of a running camera.
TEST_F(Schedule, AChangeOfTheTimeZoneLeavesTheTimesOfDay) {
  fake_.setTimeZone("<+01>-1");
  office("Items=2\nStart1=08:00:00\nStop1=18:00:00\nStart2=23:00:00\nStop2=23:59:59");
  ASSERT_TRUE(load("office"));
  for (const char* zone : {"<+01>-1", "<+02>-2", "UTC0", "<-12>12", "<+14>-14", "<+01>-1"}) {
    fake_.setTimeZone(zone);
    for (const char* time : {"08:00:00", "18:00:00", "23:00:00", "23:59:59"})
      EXPECT_TRUE(on(time)) << time << " in " << zone;
    for (const char* time : {"00:00:00", "07:59:59", "18:00:01", "22:59:59"})
      EXPECT_FALSE(on(time)) << time << " in " << zone;
  }
}

TEST_F(Schedule, GoesByTheClockOnTheWallAlsoAfterTheTimeZoneHasChanged) {
  FakePlatform::setTimeZone("CET-1");
  office("Items=1\nStart1=08:00:00\nStop1=18:00:00");
  ASSERT_TRUE(load("office"));
  for (const char* zone : {"CET-1", "CEST-2", "AEST-10", "HST10"}) {
    FakePlatform::setTimeZone(zone);
    EXPECT_FALSE(on("07:59:59")) << zone;
    EXPECT_TRUE(on("08:00:00")) << zone;
    EXPECT_TRUE(on("18:00:00")) << zone;
    EXPECT_FALSE(on("18:00:01")) << zone;
  }
  FakePlatform::setTimeZone("UTC0");
}

TEST_F(Schedule, CopiesHaveTheirOwnStateAndTheSameName) {
  ASSERT_TRUE(load("always"));
  TDateTime now;
  now.set();
  TSchedule before(schedule_);
  schedule_.test(now, 1);
  TSchedule after(this, "", note);
  after = schedule_;
  edges_.clear();
  after.test(now, 1);
  EXPECT_EQ(edges_, Edges{});
  before.test(now, 1);
  EXPECT_EQ(edges_, Edges{true});
  EXPECT_EQ(after.name(), schedule_.name());
}

TEST_F(Schedule, UnequalListsAreReportedAndDoNoHarm) {
  ASSERT_TRUE(load("always"));
  ScheduleAccess::starts(schedule_).push_back(TDateTime::sod());
  EXPECT_TRUE(schedule_.validate());
  EXPECT_EQ(fake_.takeCalls(), std::vector<std::string>{"log 3 TSchedule::validate() IPE"});
  EXPECT_TRUE(on("12:00:00"));
  ScheduleAccess::stops(schedule_).clear();
  EXPECT_FALSE(schedule_.validate());
  EXPECT_FALSE(on("12:00:00"));
}

TEST_F(Schedule, ASetOfOtherThanSevenWeekdaysIsNotUsable) {
  ASSERT_TRUE(load("always"));
  ScheduleAccess::weekdays(schedule_).resize(6);
  EXPECT_FALSE(schedule_.validate());
}

}  // namespace
