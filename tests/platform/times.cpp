// Points in time, spans, timers and counters.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <random>
#include <thread>

#include "platform/date_time.h"
#include "platform/timer.h"
#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Zones without a database: fixed, half-hour, daylight saving of both hemispheres, and those whose
// clocks change at midnight, the evening before, by half an hour, by two, and back in summer.
struct ZoneRule {
  const char* name;
  const char* rule;
  unsigned shift = 3600;  // by which clocks are put forward, in seconds
};
const ZoneRule kZones[] = {
    {"Utc", "UTC0"},
    {"North", "CET-1CEST,M3.5.0,M10.5.0/3"},
    {"NorthWest", "EST5EDT,M3.2.0,M11.1.0"},
    {"South", "AEST-10AEDT,M10.1.0,M4.1.0/3"},
    {"HalfHour", "<-0330>3:30"},
    {"QuarterHour", "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45"},
    {"AtMidnight", "<-04>4<-03>,M9.1.6/24,M4.1.6/24"},
    {"TheEveningBefore", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0"},
    {"ByHalfAnHour", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 1800},
    {"ByTwoHours", "<+00>0<+02>-2,M3.5.0/1,M10.5.0/3", 7200},
    {"WinterTimeIsTheException", "IST-1GMT0,M10.5.0,M3.5.0/1"},
};
void PrintTo(const ZoneRule& zone, std::ostream* out) { *out << zone.name; }

class Times : public ::testing::TestWithParam<ZoneRule> {
 protected:
  void SetUp() override {
    setenv("TZ", GetParam().rule, 1);
    tzset();
  }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
};
class Zone {
 public:
  explicit Zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~Zone() {
    unsetenv("TZ");
    tzset();
  }
};

TDateTime encoded(int year, int month, int day, int hour, int minute, int second) {
  TDateTime time;
  time.encode(static_cast<short>(year), static_cast<short>(month), static_cast<short>(day),
              static_cast<short>(hour), static_cast<short>(minute), static_cast<short>(second));
  return time;
}

std::string decoded(const TDateTime& time) {
  short year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  time.decode(year, month, day, hour, minute, second);
  char text[80];
  std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d", year, month, day, hour, minute,
                second);
  return text;
}

TEST_P(Times, FieldsAgreeWithTheCLibrary) {
  std::minstd_rand random(1);
  for (int i = 0; i < 2000; ++i) {
    const std::uint32_t seconds = static_cast<std::uint32_t>(random()) * 2U + (i & 1);
    const TDateTime time(seconds, 5);
    const auto point = static_cast<time_t>(seconds);
    tm fields{};
    localtime_r(&point, &fields);
    char text[40];
    strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &fields);
    ASSERT_EQ(decoded(time), text);
    ASSERT_EQ(time.getTimeString(), text);
    ASSERT_EQ(time[kFieldYear], fields.tm_year + 1900);
    ASSERT_EQ(time[kFieldMonth], fields.tm_mon + 1);
    ASSERT_EQ(time[kFieldDay], fields.tm_mday);
    ASSERT_EQ(time[kFieldWeekday], fields.tm_wday);
    ASSERT_EQ(time[kFieldHour], fields.tm_hour);
    ASSERT_EQ(time[kFieldMinute], fields.tm_min);
    ASSERT_EQ(time[kFieldSecond], fields.tm_sec);
    short hour = -1, minute = -1, second = -1;
    time.decodeTime(hour, minute, second);
    ASSERT_THAT((std::vector<int>{hour, minute, second}),
                ElementsAre(fields.tm_hour, fields.tm_min, fields.tm_sec));
  }
}

TEST_P(Times, EncodeNormalisesAsTheCLibraryDoes) {
  std::minstd_rand random(2);
  const auto below = [&random](int limit) { return static_cast<int>(random() >> 8) % limit; };
  for (int i = 0; i < 5000; ++i) {
    tm fields{};
    const int year = 1971 + below(130);
    const int month = below(40) - 10;
    const int day = below(80) - 20;
    // Noon: what clocks skip or show twice is settled by tests of its own.
    const int hour = 12 + (below(3) - 1) * 24;
    const int minute = below(60);
    const int second = below(60);
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    fields.tm_isdst = -1;
    const time_t expected = mktime(&fields);
    if (expected < 0) continue;
    const TDateTime time = encoded(year, month, day, hour, minute, second);
    ASSERT_EQ(time.seconds(), static_cast<std::uint32_t>(expected))
        << year << "-" << month << "-" << day << " " << hour << ":" << minute;
    ASSERT_EQ(time.microseconds(), 0U);
  }
}

TEST_P(Times, EveryHourOfTwoYearsComesBack) {
  for (std::uint32_t seconds = 1700000000; seconds < 1763072000; seconds += 1800) {
    const TDateTime time(seconds, 0);
    short year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    time.decode(year, month, day, hour, minute, second);
    TDateTime again;
    again.encode(year, month, day, hour, minute, second);
    // A time that clocks show twice gives the first of the two points.
    if (again == time) continue;
    ASSERT_EQ(decoded(again), decoded(time)) << seconds;
    ASSERT_EQ(again.seconds() + GetParam().shift, time.seconds()) << seconds;
  }
}

TEST_P(Times, ReferenceDayIsOneFixedDay) {
  EXPECT_EQ(decoded(TDateTime::sod()), "1999/12/01 00:00:00");
  EXPECT_EQ(decoded(TDateTime::eod()), "1999/12/01 23:59:59");
  EXPECT_EQ(encoded(2000, 0, 1, 0, 0, 0), TDateTime::sod());
  EXPECT_EQ(TDateTime::eod().seconds() - TDateTime::sod().seconds(), 86399U);
  for (int second = 0; second < 86400; second += 7) {
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", second / 3600, second / 60 % 60,
                  second % 60);
    TDateTime time;
    time.set(text);
    ASSERT_EQ(time, encoded(2000, 0, 1, second / 3600, second / 60 % 60, second % 60));
    ASSERT_EQ(time.seconds() - TDateTime::sod().seconds(), static_cast<unsigned>(second));
  }
}

INSTANTIATE_TEST_SUITE_P(Zones, Times, ::testing::ValuesIn(kZones),
                         [](const auto& zone) { return std::string(zone.param.name); });

TEST(DateTime, SkippedTimesGoForwardAndDoubledOnesMeanTheFirst) {
  const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(decoded(encoded(2024, 3, 31, 2, 30, 0)), "2024/03/31 03:30:00");
  const TDateTime doubled = encoded(2024, 10, 27, 2, 30, 0);
  EXPECT_EQ(doubled.seconds(), 1729989000U);  // 00:30 UTC, still summer
  EXPECT_EQ(decoded(doubled), "2024/10/27 02:30:00");
}

TEST(DateTime, ReachesBeyond2038) {
  const Zone zone("UTC0");
  EXPECT_EQ(decoded(TDateTime(2147483648U, 0)), "2038/01/19 03:14:08");
  EXPECT_EQ(decoded(TDateTime(4294967295U, 0)), "2106/02/07 06:28:15");
  EXPECT_EQ(encoded(2106, 2, 7, 6, 28, 15).seconds(), 4294967295U);
  EXPECT_EQ(encoded(2106, 2, 7, 6, 28, 16).seconds(), 4294967295U) << "saturates";
  EXPECT_EQ(encoded(1969, 12, 31, 23, 59, 59).seconds(), 0U);
  EXPECT_EQ(encoded(-32768, 1, 1, 0, 0, 0).seconds(), 0U);
  EXPECT_EQ(encoded(32767, 32767, 32767, 0, 0, 0).seconds(), 4294967295U);
  EXPECT_EQ(encoded(2000, 2, 30, 0, 0, 0), encoded(2000, 3, 1, 0, 0, 0));
  EXPECT_EQ(encoded(2100, 2, 29, 0, 0, 0), encoded(2100, 3, 1, 0, 0, 0)) << "no leap year";
}

TEST(DateTime, SetTakesTheClockOrTheTwoWords) {
  TDateTime now;
  now.set();
  EXPECT_LE(now.seconds() - static_cast<std::uint32_t>(time(nullptr)) + 5U, 10U);
  EXPECT_LT(now.microseconds(), 1000000U);
  TDateTime words;
  words.set(123, 456);
  EXPECT_EQ(words, TDateTime(123, 456));
  words.set(static_cast<long>(-1), 0);
  EXPECT_EQ(words.seconds(), 4294967295U);
}

TEST(DateTime, MalformedTextGivesTheStartOfTheDayAndAMessage) {
  const TempRoot root;
  LogReader log(root);
  for (const char* text :
       {"", "8:00:00", "08:00", "24:00:00", "00:60:00", "00:00:60", "08-00-00", "08:00:0a",
        "+8:00:00", " 8:00:00", "08:00:00 ", "08:00:000", "aa:bb:cc", "-1:00:00", "99:99:99"}) {
    TDateTime time(1, 2);
    time.set(text);
    EXPECT_EQ(time, TDateTime::sod()) << text;
    EXPECT_THAT(log.lines(), ElementsAre(std::string("2 malformed time of day: ") + text));
  }
  TDateTime time;
  time.set("23:59:59");
  EXPECT_EQ(time, TDateTime::eod());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(DateTime, OrdersBySecondsThenMicroseconds) {
  EXPECT_LT(TDateTime(1, 999999), TDateTime(2, 0));
  EXPECT_LT(TDateTime(2147483647U, 0), TDateTime(2147483648U, 0)) << "unsigned";
  EXPECT_LT(TDateTime(2, 1), TDateTime(2, 2));
  EXPECT_GE(TDateTime(2, 2), TDateTime(2, 2));
  EXPECT_NE(TDateTime(2, 2), TDateTime(2, 3));
}

TEST(DateTime, SpansHaveASignAndSaturate) {
  EXPECT_EQ((TDateTime(10, 500000) - TDateTime(8, 0)).getTotal(kFieldTotalMs), 2500);
  EXPECT_EQ((TDateTime(8, 0) - TDateTime(10, 500000)).getTotal(kFieldTotalMs), -2500);
  EXPECT_EQ((TDateTime(8, 0) - TDateTime(8, 999)).getTotal(kFieldTotalMs), 0) << "towards zero";
  EXPECT_EQ((TDateTime(8, 0) - TDateTime(8, 999)).getTotal(kFieldTotalUs), -999);
  const TTimeSpan longest = TDateTime(4294967295U, 999999) - TDateTime(0, 0);
  const TTimeSpan shortest = TDateTime(0, 0) - TDateTime(4294967295U, 999999);
  const std::int64_t us = std::int64_t{4294967295U} * 1000000 + 999999;
  if (sizeof(long) == 8) {
    EXPECT_EQ(std::int64_t{longest.getTotal(kFieldTotalUs)}, us);
    EXPECT_EQ(std::int64_t{shortest.getTotal(kFieldTotalMs)}, -us / 1000);
  } else {
    EXPECT_EQ(longest.getTotal(kFieldTotalUs), std::numeric_limits<long>::max());
    EXPECT_EQ(longest.getTotal(kFieldTotalMs), std::numeric_limits<long>::max());
    EXPECT_EQ(shortest.getTotal(kFieldTotalUs), std::numeric_limits<long>::min());
    EXPECT_EQ(shortest.getTotal(kFieldTotalMs), std::numeric_limits<long>::min());
  }
}

// The daylight-saving update replaces the system's time zone while the daemon runs.
TEST(DateTime, FollowsAChangedSystemZone) {
  const TempRoot root;
  Child child([&root]() -> int {
    // A version 1 zone file: no transitions, and one kind of time, whole hours east of UTC.
    const auto zoneFile = [](int hours) {
      std::string file = "TZif" + std::string(16, '\0');
      for (const char count : {'\0', '\0', '\0', '\0', '\1', '\4'})
        file += std::string(3, '\0') + count;
      const int offset = hours * 3600;
      file += std::string(2, '\0') + static_cast<char>(offset >> 8) + static_cast<char>(offset);
      return file + std::string(2, '\0') + std::string("XXX\0", 4);
    };
    unsetenv("TZ");
    writeFile(root.path("/zone"), zoneFile(1));
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(root.path("/zone").c_str(), "/etc/localtime", nullptr, MS_BIND, nullptr) != 0)
      return 77;
    const auto becomes = [](const char* local) {
      return eventually([local] {
        TDateTime now;
        now.set();
        return decoded(TDateTime(0, 0)) == local;
      });
    };
    if (!becomes("1970/01/01 01:00:00")) return 2;
    writeFile(root.path("/zone"), zoneFile(2));
    // The C library compares whole seconds.
    std::filesystem::last_write_time(
        root.path("/zone"),
        std::filesystem::last_write_time(root.path("/zone")) + std::chrono::seconds(10));
    return becomes("1970/01/01 02:00:00") ? 0 : 3;
  });
  const int status = child.wait();
  if (status == 77) GTEST_SKIP() << "needs the right to mount";
  EXPECT_EQ(status, 0);
}

TEST(Pacing, MonotonicClockCountsMilliseconds) {
  const std::uint32_t start = monotonicMs();
  os::usleep(20000);
  EXPECT_GE(monotonicMs() - start, 20U);
  EXPECT_LT(monotonicMs() - start, 5000U);
}

TEST(Pacing, TimerReportsOncePerIntervalAndReArmsFromItsReport) {
  TTimer timer(1);
  EXPECT_FALSE(timer.timeout());
  const std::uint32_t start = monotonicMs();
  ASSERT_TRUE(eventually([&] { return timer.timeout(); }));
  EXPECT_GE(monotonicMs() - start, 990U);
  EXPECT_FALSE(timer.timeout());
  os::usleep(2500000);  // two and a half intervals late
  EXPECT_TRUE(timer.timeout());
  const std::uint32_t report = monotonicMs();
  EXPECT_FALSE(timer.timeout()) << "one report, however late";
  ASSERT_TRUE(eventually([&] { return timer.timeout(); }));
  EXPECT_GE(monotonicMs() - report, 990U) << "counted from the report, not from the start";
}

TEST(Pacing, TimerBelowOneNeverReports) {
  for (const long seconds : {0L, -1L, std::numeric_limits<long>::min()}) {
    TTimer timer(seconds);
    EXPECT_FALSE(timer.timeout());
    os::usleep(5000);
    EXPECT_FALSE(timer.timeout());
  }
}

TEST(Pacing, TimerOfTheLongestIntervalSaturates) {
  TTimer timer(std::numeric_limits<long>::max());
  EXPECT_FALSE(timer.timeout());
  os::usleep(1100000);
  EXPECT_FALSE(timer.timeout());
}

TEST(Pacing, TimerResetStartsOver) {
  TTimer timer(1);
  os::usleep(600000);
  timer.reset(1);
  os::usleep(600000);
  EXPECT_FALSE(timer.timeout());
  timer.reset(0);
  os::usleep(500000);
  EXPECT_FALSE(timer.timeout());
}

TEST(Pacing, CounterStartsOverAtZeroWithoutARemainder) {
  TCounter counter;
  counter.reset(10, false);
  EXPECT_FALSE(counter.count(4));
  EXPECT_FALSE(counter.count(4));
  EXPECT_TRUE(counter.count(4)) << "12 is past 10";
  EXPECT_FALSE(counter.count(9)) << "the 2 are not carried";
  EXPECT_TRUE(counter.count(1));
}

TEST(Pacing, FullCounterReportsAtTheFirstStep) {
  TCounter counter;
  counter.reset(3600, true);
  EXPECT_TRUE(counter.count(3));
  EXPECT_FALSE(counter.count(3));
  counter.reset(3600, true);
  EXPECT_TRUE(counter.count(0));
}

TEST(Pacing, CounterSaturates) {
  TCounter counter;
  counter.reset(std::numeric_limits<long>::max(), false);
  EXPECT_FALSE(counter.count(std::numeric_limits<long>::max() - 1));
  EXPECT_TRUE(counter.count(std::numeric_limits<long>::max()));
  counter.reset(1, false);
  EXPECT_FALSE(counter.count(std::numeric_limits<long>::min()));
  EXPECT_FALSE(counter.count(-1));
}

}  // namespace
