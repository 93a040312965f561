// The housekeeping loop, against an independent calculation of what it has to do and when.
#include <gtest/gtest.h>

#include <ctime>
#include <map>

#include "core/housekeeping.h"
#include "core/status_slots.h"
#include "platform/application.h"
#include "tests/fakes/allocations.h"
#include "tests/fakes/fake_platform.h"
#include "tests/slow_build.h"
#include "tests/unit/core/housekeeping_oracle.h"

namespace {

class Housekeeping : public testing::Test {
 protected:
  // Begins at this local time of the zone.
  void begin(const char* zone, const char* localTime) {
    FakePlatform::setTimeZone(zone);
    fake.setWallClock(localTime);
    script.wallAtStart = fake.clock.wallUs() / 1000000;
  }

  std::vector<Act> run(long long untilMs) {
    longestPauseMs = 0;
    fake.onPause([this](long us) { longestPauseMs = std::max(longestPauseMs, us / 1000); });
    return runHousekeeping(&fake, script, untilMs);
  }

  static int hourAt(long long seconds) {
    const auto point = static_cast<std::time_t>(seconds);
    std::tm fields{};
    localtime_r(&point, &fields);
    return fields.tm_hour;
  }

  void expectAsCalculated(long long untilMs) {
    const std::vector<Act> expected = Oracle(script, hourAt).run(untilMs);
    const std::vector<Act> got = run(untilMs);
    EXPECT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < std::min(got.size(), expected.size()); ++i)
      ASSERT_EQ(got[i], expected[i]) << "act " << i;
    for (const Act& act : expected) ++counts[act.what];
  }

  static constexpr long long kDayMs = 86400000;

  FakePlatform fake;
  Script script;
  std::map<std::string, long> counts;
  long longestPauseMs = 0;
};

const char* const kEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
const char* const kAustralia = "AEST-10AEDT,M10.1.0,M4.1.0/3";

// A month takes half a minute where code is emulated: nights and weeks have to do there.
#ifdef __mips__
#define MONTHS_TAKE_TOO_LONG() GTEST_SKIP() << "months take too long in a slow build"
#else
#define MONTHS_TAKE_TOO_LONG() static_cast<void>(0)
#endif

TEST_F(Housekeeping, ThirtyDaysWithClocksPutForwardInTheNorth) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  MONTHS_TAKE_TOO_LONG();
  begin(kEurope, "2024-03-10 07:13:45");
  expectAsCalculated(30 * kDayMs);
  EXPECT_NEAR(static_cast<double>(counts[kSync]), 30 * 48, 5);
  EXPECT_EQ(counts[kDst], 29);
  EXPECT_GE(counts[kCheck], 30 * 24);
}

TEST_F(Housekeeping, ThirtyDaysWithClocksPutBackInTheNorth) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  MONTHS_TAKE_TOO_LONG();
  script.syncSeconds = 86400;
  begin(kEurope, "2024-10-10 23:59:58");
  expectAsCalculated(30 * kDayMs);
}

TEST_F(Housekeeping, ThirtyDaysWithClocksPutForwardInTheSouth) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  MONTHS_TAKE_TOO_LONG();
  script.syncSeconds = 7;
  begin(kAustralia, "2024-09-20 00:00:00");
  expectAsCalculated(30 * kDayMs);
}

TEST_F(Housekeeping, ThirtyDaysWithClocksPutBackInTheSouth) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  MONTHS_TAKE_TOO_LONG();
  script.configChanges = {{5 * kDayMs + 1234, 600}, {9 * kDayMs, -3600}, {20 * kDayMs + 1, 3600}};
  script.sambaGone = {6 * kDayMs, 6 * kDayMs + 3600000};
  begin(kAustralia, "2024-03-20 12:00:00");
  expectAsCalculated(30 * kDayMs);
  EXPECT_GT(counts[kChanged], 60);
}

TEST_F(Housekeeping, StepsOfTheClockChangeNoPeriod) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  long long when = 0;
  for (const long step : {1L, 3600L, 86400L})
    for (const long sign : {1L, -1L}) script.wallSteps[when += 5 * 3600000 + 777] = sign * step;
  begin(kEurope, "2024-06-01 10:00:00");
  expectAsCalculated(2 * kDayMs);
  EXPECT_EQ(counts[kDst], 1);
  EXPECT_NEAR(static_cast<double>(counts[kSync]), 96, 1);
  EXPECT_EQ(longestPauseMs, 2000);  // a refresh; a pass pauses 300 ms
}

TEST_F(Housekeeping, TheHourIsCheckedWhenItBeginsButNotAtMidnight) {
  for (const auto& one : std::map<const char*, long>{{"2024-06-01 10:59:50", 1},
                                                     {"2024-06-01 23:59:50", 0},
                                                     {"2024-06-01 00:59:50", 1},
                                                     {"2024-06-01 10:58:00", 0}}) {
    script = Script{};
    counts.clear();
    begin("UTC", one.first);
    expectAsCalculated(30000);
    EXPECT_EQ(counts[kCheck], one.second) << one.first;
    EXPECT_EQ(counts[kChecked], one.second) << one.first;
  }
}

TEST_F(Housekeeping, TheDaysOnWhichCalendarsGoWrongAreLikeAnyOther) {
  for (const char* start : {"2038-01-19 03:10:00", "2100-02-28 22:50:00", "2096-02-28 22:50:00",
                            "2099-12-31 22:50:00", "2100-03-28 00:50:00", "2100-10-31 00:50:00"}) {
    script = Script{};
    script.sambaGone = {0, 600000};
    begin(kEurope, start);
    expectAsCalculated(3 * 3600000);
  }
}

TEST_F(Housekeeping, AChangedConfigurationIsSeenWithinThreeSeconds) {
  begin("UTC", "2024-06-01 10:00:00");
  for (int i = 1; i <= 30; ++i) script.configChanges[i * 9100] = 1800 + i;
  const std::vector<Act> acts = run(300000);
  std::vector<long long> refreshes;
  for (const Act& act : acts)
    if (act.what == kRefreshed) refreshes.push_back(act.ms);
  ASSERT_EQ(refreshes.size(), 31u);
  for (int i = 1; i <= 30; ++i) {
    EXPECT_GE(refreshes[static_cast<std::size_t>(i)], i * 9100);
    EXPECT_LE(refreshes[static_cast<std::size_t>(i)], i * 9100 + 3000 + 300);
  }
}

TEST_F(Housekeeping, OnlyAValueAboveZeroIsAChangeAndEachIsConsumed) {
  begin("UTC", "2024-06-01 10:00:00");
  fake.at(10, [&] { fake.video.setSlot(kSlotConfigChanged, 0); });
  fake.at(20, [&] { fake.video.setSlot(kSlotConfigChanged, -5); });
  const std::vector<Act> acts = run(30000);
  EXPECT_EQ(acts, (std::vector<Act>{{0, kRefreshed}}));
  EXPECT_FALSE(fake.video.slotWritten(kSlotConfigChanged));
}

TEST_F(Housekeeping, AChangeStartsTheSyncIntervalAnew) {
  begin("UTC", "2024-06-01 10:00:00");
  script.syncSeconds = 100;
  script.configChanges = {{90000, 200}};
  const std::vector<Act> acts = run(320000);
  std::vector<long long> syncs;
  for (const Act& act : acts)
    if (act.what == kSync) syncs.push_back(act.ms / 1000);
  ASSERT_EQ(syncs.size(), 1u);
  EXPECT_GE(syncs[0], 292);
  EXPECT_LE(syncs[0], 300);
}

TEST_F(Housekeeping, ASyncIntervalThatMakesNoSenseStartsNoStorm) {
  for (const char* hours : {"0", "-1", "1e-9", "nan", "-inf", "1e300"}) {
    FakePlatform other;
    other.ini.set("/etc/sys.conf", "System", "Sync Schedule", hours);
    THousekeeping housekeeping(nullptr);
    for (int pass = 0; pass < 20000; ++pass) housekeeping.pass();
    EXPECT_EQ(other.count(kSync), 0) << hours;
  }
  FakePlatform other;
  other.ini.set("/etc/sys.conf", "System", "Sync Schedule", "hourly");
  THousekeeping housekeeping(nullptr);
  for (int pass = 0; pass < 20000; ++pass) housekeeping.pass();  // 6000 s
  EXPECT_EQ(other.count(kSync), 3);
}

TEST_F(Housekeeping, AShareThatIsEnabledButGoneAsksForARefreshEvery48Seconds) {
  begin("UTC", "2024-06-01 10:00:00");
  script.sambaGone = {0, 600000};
  const std::vector<Act> acts = run(900000);
  std::vector<long long> asked;
  for (const Act& act : acts)
    if (act.what == kChanged) asked.push_back(act.ms);
  // Passes of 300 ms; each request brings a refresh that takes 2 s more.
  ASSERT_EQ(asked.size(), 12u);
  for (std::size_t i = 1; i < asked.size(); ++i) EXPECT_EQ(asked[i] - asked[i - 1], 50000);
}

TEST_F(Housekeeping, AShareThatIsDisabledIsNotWatched) {
  begin("UTC", "2024-06-01 10:00:00");
  fake.smbUnmounted();
  THousekeeping housekeeping(nullptr);
  for (int pass = 0; pass < 2000; ++pass) housekeeping.pass();
  EXPECT_EQ(fake.count(kChanged), 0);
  EXPECT_GT(fake.asked("getIniInt"), 10);
}

TEST_F(Housekeeping, AShareWhoseStateIsUnknownIsLeftAlone) {
  fake.ini.set("/etc/sys.conf", "Samba", "Enable", "1");
  THousekeeping housekeeping(nullptr);
  fake.fails("get_smb_mount_state");
  for (int pass = 0; pass < 2000; ++pass) housekeeping.pass();
  EXPECT_EQ(fake.count(kChanged), 0);
}

TEST_F(Housekeeping, TheConfigurationIsReadOnlyEvery48Seconds) {
  THousekeeping housekeeping(nullptr);
  const long before = fake.asked("getIniInt");
  for (int pass = 0; pass < 1600; ++pass) housekeeping.pass();  // 480 s
  EXPECT_EQ(fake.asked("getIniInt") - before, 10);
}

TEST_F(Housekeeping, TheTriggersArePolledEveryPass) {
  THousekeeping housekeeping(nullptr);
  for (int pass = 0; pass < 25; ++pass) {
    fake.triggerIn = pass & 1;
    housekeeping.pass();
    EXPECT_EQ(kStatusInput.get(fake.video.slot(kSlotStatus)), pass & 1);
  }
}

TEST_F(Housekeeping, CommandsThatFailDisturbNothing) {
  fake.fails("os::system");
  begin("UTC", "2024-06-01 10:30:00");
  expectAsCalculated(2 * 3600000);
  EXPECT_EQ(counts[kSync], 3);
  EXPECT_EQ(counts[kChecked], 3);
}

TEST_F(Housekeeping, AStepInsideTheClockCheckIsSeenByTheNextBlock) {
  begin("UTC", "2024-06-01 09:59:50");
  fake.onCommand([&](const std::string& command) {
    if (command == "rtchk -reload") fake.stepWallClock(3600);
    return 0;
  });
  THousekeeping housekeeping(nullptr);
  for (int pass = 0; pass < 60; ++pass) housekeeping.pass();
  // Four of the six blocks come in a new hour: the first one, and those that a check made later.
  EXPECT_EQ(fake.count(kCheck), 4);
}

TEST_F(Housekeeping, AllocatesNothingPerPass) {
  begin("UTC", "2024-06-01 09:00:00");
  fake.ini.set("/etc/sys.conf", "Samba", "Enable", "1");
  fake.smbMounted();
  THousekeeping housekeeping(nullptr);
  fake.keepCalls(false);
  for (int pass = 0; pass < 1000; ++pass) housekeeping.pass();
  const long before = allocations();
  for (int pass = 0; pass < 30000; ++pass) housekeeping.pass();  // 2.5 hours
  EXPECT_EQ(allocations() - before, 0);
  EXPECT_GT(before, 0);
}

}  // namespace
