#include "tests/torture/time/calendar.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <tuple>
#include <utility>

namespace {

constexpr int kFirstYear = 1969;  // west of Greenwich 1970 begins in it
constexpr int kLastYear = 2107;
constexpr std::int64_t kDayS = 86400;

// The number of the first day of each year.
using YearStarts = std::array<std::int64_t, kLastYear - kFirstYear + 2>;

YearStarts countYears() {
  YearStarts starts{};
  starts[0] = -365;
  for (std::size_t i = 1; i < starts.size(); ++i)
    starts[i] = starts[i - 1] + (isLeapYear(kFirstYear + static_cast<int>(i) - 1) ? 366 : 365);
  return starts;
}

const YearStarts& yearStarts() {
  static const YearStarts starts = countYears();
  return starts;
}

// Sets all but the second.
void setDay(TLocal* local, std::int64_t number) {
  local->year = kFirstYear;
  while (number >= yearStarts()[static_cast<std::size_t>(local->year + 1 - kFirstYear)])
    ++local->year;
  std::int64_t rest = number - yearStarts()[static_cast<std::size_t>(local->year - kFirstYear)];
  for (local->month = 1; rest >= daysOfMonth(local->year, local->month); ++local->month)
    rest -= daysOfMonth(local->year, local->month);
  local->day = static_cast<int>(rest) + 1;
  local->weekday = static_cast<int>((number + 4 + 7) % 7);  // 1970-01-01 was a Thursday
}

}  // namespace

bool isLeapYear(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int daysOfMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

std::int64_t dayNumber(int year, int month, int day) {
  std::int64_t number = yearStarts()[static_cast<std::size_t>(year - kFirstYear)];
  for (int before = 1; before < month; ++before) number += daysOfMonth(year, before);
  return number + day - 1;
}

bool TLocal::operator==(const TLocal& other) const {
  return std::tie(year, month, day, weekday, second) ==
         std::tie(other.year, other.month, other.day, other.weekday, other.second);
}

std::string TLocal::text() const {
  char text[64];
  std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d", year, month, day, second / 3600,
                second / 60 % 60, second % 60);
  return text;
}

// Questions come in the order of time for the most part.
std::size_t TZone::position(std::int64_t seconds) const {
  if (changes_[last_].at > seconds) last_ = 0;
  while (last_ + 1 < changes_.size() && changes_[last_ + 1].at <= seconds) ++last_;
  return last_;
}

int TZone::offset(std::int64_t seconds) const { return changes_[position(seconds)].offset; }

TLocal TZone::local(std::int64_t seconds) const {
  const std::int64_t wall = seconds + offset(seconds);
  const std::int64_t day = (wall + kDayS) / kDayS - 1;  // no earlier than the day before 1970
  static thread_local std::int64_t lastDay = -2;
  static thread_local TLocal local;
  if (day != lastDay) setDay(&local, day);
  lastDay = day;
  local.second = static_cast<int>(wall - day * kDayS);
  return local;
}

std::int64_t TZone::firstLike(std::int64_t seconds) const {
  const std::size_t here = position(seconds);
  const std::int64_t wall = seconds + changes_[here].offset;
  for (std::size_t i = here > 2 ? here - 2 : 0; i < here; ++i) {
    const std::int64_t point = wall - changes_[i].offset;
    if (point >= changes_[i].at && point < changes_[i + 1].at) return point;
  }
  return seconds;
}

void TZone::use() const {
  setenv("TZ", name_.c_str(), 1);
  tzset();
}

std::vector<TZone> readZones(const char* path) {
  std::vector<TZone> zones;
  std::ifstream file(path);
  std::string word;
  while (file >> word) {
    if (word == "zone") {
      file >> word;
      zones.emplace_back(word);
      continue;
    }
    TZone::Change change{std::stoll(word), 0};
    file >> change.offset;
    zones.back().add(change);
  }
  if (zones.empty()) {
    std::fprintf(stderr, "%s: no zones\n", path);
    std::exit(2);
  }
  return zones;
}
