#include "schedule/schedule.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "platform/ini_file.h"
#include "platform/log.h"

namespace {

constexpr std::size_t kWeekdays = 7;
constexpr int kNameSize = 64;
constexpr int kTextSize = 12;           // weekdays and times, terminator included
constexpr std::size_t kTimeLength = 8;  // HH:MM:SS
constexpr int kNumberSize = 12;         // any int in decimal
constexpr int kDefaultMax = 10;

TDateTime timeOfDay(const char* text) {
  TDateTime time;
  time.set(text);
  return time;
}

std::uint32_t secondsOf(short hour, short minute, short second) {
  return static_cast<std::uint32_t>((hour * 60 + minute) * 60 + second);
}

// Writes the number of the section that holds the schedule called `name` into `section`. Where
// sections share the name, the one with the highest number counts. Returns false if there is none.
bool findSection(const char* name, char (&section)[kNumberSize]) {
  // A section that does not exist reads as erased, so only those that do are looked at.
  int number = getIniInt(TSchedule::inf, "Main", "Max", kDefaultMax);
  while ((number = getIniSection(TSchedule::inf, number)) > 0) {
    std::snprintf(section, sizeof section, "%d", number);
    --number;
    // Intended: a section that does not say Erased=0 does not exist.
    if (getIniInt(TSchedule::inf, section, "Erased", 1) != 0) continue;
    char found[kNameSize];
    getIniStr(TSchedule::inf, section, "Name", found, sizeof found, "");
    if (strcasecmp(found, name) == 0) return true;
  }
  return false;
}

}  // namespace

const char* TSchedule::inf = "/etc/schedule.conf";

TSchedule::TSchedule(void* owner, const char* name, Callback callback)
    : owner_(owner), name_(name), callback_(callback) {}

bool TSchedule::set(const char* name) {
  sod_ = TDateTime::sod();
  if (strcasecmp(name, "always") == 0) {
    starts_.push_back(timeOfDay("00:00:00"));
    stops_.push_back(timeOfDay("23:59:59"));
    weekdays_.resize(kWeekdays, true);
    return validate();
  }
  char section[kNumberSize];
  if (!findSection(name, section)) return false;

  char text[kTextSize];
  getIniStr(inf, section, "Weekdays", text, sizeof text, "");
  weekdays_.resize(kWeekdays, false);
  for (std::size_t day = 0; day < kWeekdays && text[day] != '\0'; ++day)
    weekdays_[day] = text[day] != '0';
  return loadIntervals(section) && validate();
}

// Reads the intervals of the file's `section`. Returns false iff it says that there are none.
bool TSchedule::loadIntervals(const char* section) {
  const int items = getIniInt(inf, section, "Items", 0);
  if (items < 1) return false;
  // A start that is not there makes no interval, so only those that are there are looked at.
  int item = 0;
  while (item < items && (item = getIniKey(inf, section, "Start", item + 1)) > 0 && item <= items) {
    char key[sizeof "Start" + kNumberSize];
    char start[kTextSize];
    char stop[kTextSize];
    std::snprintf(key, sizeof key, "Start%d", item);
    getIniStr(inf, section, key, start, sizeof start, "");
    std::snprintf(key, sizeof key, "Stop%d", item);
    getIniStr(inf, section, key, stop, sizeof stop, "");
    if (std::strlen(start) != kTimeLength || std::strlen(stop) != kTimeLength) continue;
    starts_.push_back(timeOfDay(start));
    stops_.push_back(timeOfDay(stop));
  }
  return true;
}

bool TSchedule::validate() {
  if (starts_.size() != stops_.size()) logEx(3, "TSchedule::validate() IPE");
  if (starts_.empty() || stops_.empty()) return false;
  if (weekdays_.size() != kWeekdays) return false;

  // Intended: with two or more intervals, one that ends before it starts never matches.
  if (starts_.size() == 1 && stops_.size() == 1 && stops_[0] < starts_[0]) {
    const TDateTime stop = stops_[0];
    stops_[0] = TDateTime::eod();
    if (stop != TDateTime::sod()) {
      starts_.push_back(TDateTime::sod());
      stops_.push_back(stop);
    }
  }
  return true;
}

bool TSchedule::inside(const TDateTime& now, unsigned weekday) const {
  if (weekday >= weekdays_.size() || !weekdays_[weekday]) return false;
  short hour = 0;
  short minute = 0;
  short second = 0;
  now.decodeTime(hour, minute, second);
  // On the reference day of the intervals, on which they were placed in the zone of their loading.
  // A zone that was changed since has the same day at another point in time.
  const TDateTime time(sod_.seconds() + secondsOf(hour, minute, second), 0);
  for (std::size_t i = 0; i < starts_.size() && i < stops_.size(); ++i)
    if (starts_[i] <= time && time <= stops_[i]) return true;
  return false;
}

void TSchedule::test(TDateTime now, unsigned weekday) {
  const bool on = inside(now, weekday);
  if (on == state_) return;
  state_ = on;
  callback_(owner_, on);
}
