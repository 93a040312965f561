// Every minute of a week, every form of a schedule, in zones with and without daylight saving,
// against a calendar of seconds that is computed in another way.
#include <gtest/gtest.h>

#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "schedule/schedule.h"
#include "tests/slow_build.h"
#include "tests/unit/schedule/schedules.h"

namespace {

constexpr int kDay = 24 * 60 * 60;
constexpr int kWeek = 7 * kDay;
constexpr int kErasedSection = 40;

struct Interval {
  std::string start;
  std::string stop;
};

// A schedule as somebody may write it.
struct Form {
  std::string weekdays;
  std::vector<Interval> intervals;
  int items;  // what the file says, not always their number
};

// --- The calendar: for each second of a week, from Sunday 00:00:00, whether a form is on.
class Calendar {
 public:
  explicit Calendar(const Form& form) : seconds_(new std::bitset<kWeek>) {
    std::vector<std::pair<int, int>> pairs;
    for (int i = 0; i < form.items && i < static_cast<int>(form.intervals.size()); ++i) {
      const Interval& interval = form.intervals[static_cast<std::size_t>(i)];
      if (interval.start.size() == 8 && interval.stop.size() == 8)
        pairs.emplace_back(secondOf(interval.start), secondOf(interval.stop));
    }
    usable_ = !pairs.empty();
    for (int day = 0; day < 7; ++day) {
      if (day >= static_cast<int>(form.weekdays.size()) ||
          form.weekdays[static_cast<std::size_t>(day)] == '0')
        continue;
      for (const auto& [start, stop] : pairs)
        for (int second = 0; second < kDay; ++second) {
          const bool plain = second >= start && second <= stop;
          // Alone, an interval may go round midnight; midnight itself is then no second of its own.
          const bool round = pairs.size() == 1 && stop < start &&
                             (second >= start || (second <= stop && stop != 0));
          if (plain || round) seconds_->set(static_cast<std::size_t>(day * kDay + second));
        }
    }
  }

  bool usable() const { return usable_; }
  bool at(const std::tm& local) const {
    return seconds_->test(static_cast<std::size_t>(local.tm_wday * kDay + local.tm_hour * 3600 +
                                                   local.tm_min * 60 + local.tm_sec));
  }

 private:
  static int secondOf(const std::string& text) {
    int hour = 0, minute = 0, second = 0;
    char rest = 0;
    for (const std::size_t i : {0, 1, 3, 4, 6, 7})
      if (text[i] < '0' || text[i] > '9') return 0;
    if (std::sscanf(text.c_str(), "%d:%d:%d%c", &hour, &minute, &second, &rest) != 3) return 0;
    if (hour > 23 || minute > 59 || second > 59) return 0;
    return hour * 3600 + minute * 60 + second;
  }

  std::unique_ptr<std::bitset<kWeek>> seconds_;
  bool usable_ = false;
};

std::vector<Form> forms() {
  const std::string all = "1111111";
  std::vector<Form> result = {
      {all, {{"00:00:00", "23:59:59"}}, 1},
      {"0000000", {{"00:00:00", "23:59:59"}}, 1},
      {"", {{"08:00:00", "18:00:00"}}, 1},
      {"0111110", {{"08:00:00", "12:00:00"}, {"13:00:30", "18:00:00"}}, 2},
      {all, {{"22:00:00", "06:00:00"}}, 1},
      {"1000001", {{"22:00:00", "06:00:00"}}, 1},
      {all, {{"22:00:00", "06:00:00"}, {"10:00:00", "11:00:00"}}, 2},
      {all, {{"08:00:00", "00:00:00"}}, 1},
      {all, {{"00:00:00", "00:00:00"}}, 1},
      {all, {{"12:00:00", "12:00:00"}}, 1},
      {all, {{"23:59:59", "00:00:01"}}, 1},
      {all, {{"02:00:00", "02:59:59"}, {"02:30:00", "03:30:00"}, {"02:00:00", "02:59:59"}}, 3},
      {all, {{"8:00:00", "09:00:00"}, {"20:00:00", "04:00:00"}}, 2},
      {all, {{"8:00:00", "09:00:00"}}, 1},
      {all, {{"bad text", "07:00:00"}}, 1},
      {all, {{"07:00:00", "24:00:00"}}, 1},
      {all, {{"07:60:00", "08:00:61"}, {"1:2:3:45", "09:00:00"}}, 2},
      {"11", {{"01:00:00", "05:00:00"}, {"03:00:00", "09:00:00"}}, 1},
      {"x y0-1111111", {{"06:00:00", "07:00:00"}}, 5},
      {all, {{"06:00:00", "07:00:00"}}, 0},
      {all, {{"06:00:00", "07:00:00"}}, -1},
  };
  std::mt19937 random(2024);
  const auto pick = [&](unsigned below) { return static_cast<int>(random() % below); };
  for (int n = 0; n < 15; ++n) {
    Form form;
    for (int day = 0; day < 7; ++day) form.weekdays += pick(3) == 0 ? '0' : '1';
    form.items = 1 + pick(4);
    for (int i = 0; i < form.items; ++i) {
      char text[2][16];
      for (auto& time : text)
        std::snprintf(time, sizeof time, "%02d:%02d:%02d", pick(24), pick(60), pick(2) * 59);
      form.intervals.push_back({text[0], text[1]});
    }
    result.push_back(form);
  }
  return result;
}

// Writes each form as a section named after its position, and a lower section of the same name that
// must not be seen.
std::string fileOf(const std::vector<Form>& forms) {
  std::string text = "[Main]\nMax=200\n";
  for (std::size_t n = 0; n < forms.size(); ++n) {
    const std::string name = "Form" + std::to_string(n);
    text += "[" + std::to_string(n + 1) + "]\nErased=0\nName=" + name +
            "\nWeekdays=1010101\nItems=1\nStart1=00:11:00\nStop1=13:37:00\n";
    text += "[" + std::to_string(n + 100) + "]\nErased=0\nName=" + name +
            "\nWeekdays=" + forms[n].weekdays + "\nItems=" + std::to_string(forms[n].items) + "\n";
    for (std::size_t i = 0; i < forms[n].intervals.size(); ++i) {
      const std::string number = std::to_string(i + 1);
      text += "Start" + number + "=" + forms[n].intervals[i].start + "\n";
      text += "Stop" + number + "=" + forms[n].intervals[i].stop + "\n";
    }
  }
  text += "[" + std::to_string(kErasedSection + 120) + "]\nErased=1\nName=Form0\nItems=0\n";
  return text;
}

struct Zone {
  const char* name;
  const char* text;
};

class Oracle : public testing::TestWithParam<Zone> {};

void note(void* state, bool on) {
  auto& active = *static_cast<bool*>(state);
  EXPECT_NE(active, on) << "told the same twice";
  active = on;
}

TEST_P(Oracle, EveryMinuteOfAWeekAgrees) {
  SKIP_WHERE_RACES_ARE_WATCHED();
  setenv("TZ", GetParam().text, 1);
  tzset();
  const std::vector<Form> all = forms();
  putSchedules(fileOf(all));

  // Weeks without a switch, around the switches of both hemispheres, around the end of 31 bits, and
  // of a February without a leap day.
  const std::time_t weeks[] = {1704585600, 1710028800, 1711756800, 1712361600,
                               1727913600, 1729987200, 2147299200, 4107110400};
  long differences = 0;
  long compared = 0;
  for (std::size_t n = 0; n < all.size(); ++n) {
    const std::string name = "FORM" + std::to_string(n);
    bool active = false;
    TSchedule schedule(&active, name.c_str(), note);
    const Calendar calendar(all[n]);
    ASSERT_EQ(schedule.set(name.c_str()), calendar.usable()) << name;
    if (!calendar.usable()) continue;
    // Two weeks for each form, another two for the next.
    for (const std::size_t w : {n % std::size(weeks), (n + 2) % std::size(weeks)})
      for (int minute = 0; minute < kWeek / 60; ++minute) {
        // The first or the last second of the minute, in turn.
        const std::time_t at = weeks[w] + minute * 60 + (minute + static_cast<int>(n)) % 2 * 59;
        std::tm local{};
        localtime_r(&at, &local);
        schedule.test(TDateTime(static_cast<std::uint32_t>(at), 0),
                      static_cast<unsigned>(local.tm_wday));
        ++compared;
        if (active == calendar.at(local) || ++differences > 5) continue;
        ADD_FAILURE() << name << " is " << active << " at " << std::asctime(&local);
      }
  }
  EXPECT_EQ(differences, 0);
  EXPECT_GT(compared, 600000);
}

INSTANTIATE_TEST_SUITE_P(
    Zones, Oracle,
    testing::Values(Zone{"Utc", "UTC0"}, Zone{"Berlin", "CET-1CEST,M3.5.0,M10.5.0/3"},
                    Zone{"NewYork", "EST5EDT,M3.2.0,M11.1.0"},
                    Zone{"Sydney", "AEST-10AEDT,M10.1.0,M4.1.0/3"},
                    Zone{"LordHowe", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"},
                    Zone{"Kathmandu", "<+0545>-5:45"}, Zone{"Kiritimati", "<+14>-14"},
                    Zone{"BakerIsland", "<-12>12"}),
    [](const testing::TestParamInfo<Zone>& zone) { return std::string(zone.param.name); });

}  // namespace
