#include "platform/date_time.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/log.h"
#include "platform/relaxed.h"
#include "platform/timer.h"

namespace {

constexpr std::int64_t kDayS = 86400;
constexpr std::int64_t kUsPerSecond = 1000000;
constexpr std::uint32_t kZoneLookMs = 5000;

tm localTime(std::int64_t seconds) {
  const auto point = static_cast<time_t>(seconds);
  tm fields{};
  localtime_r(&point, &fields);
  return fields;
}

std::int64_t offsetAt(std::int64_t seconds) { return localTime(seconds).tm_gmtoff; }

// Days since 1970-01-01 of the first of `month` (1 to 12) in the Gregorian calendar. Years begin in
// March here, so that the leap day is a year's last.
std::int64_t daysTo(std::int64_t year, std::int64_t month) {
  const std::int64_t y = month <= 2 ? year - 1 : year;
  const std::int64_t m = month <= 2 ? month + 9 : month - 3;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t ofEra = y - era * 400;
  const std::int64_t ofYear = (153 * m + 2) / 5;
  return era * 146097 + ofEra * 365 + ofEra / 4 - ofEra / 100 + ofYear - 719468;
}

// Returns the point whose local time reads `wall` (seconds since 1970 as if local time were UTC).
// Of two such points the first; where clocks skip `wall`, the point that they would have called so
// had they not been put forward. mktime() leaves both to chance, and allocates.
std::int64_t fromWall(std::int64_t wall) {
  const std::int64_t before = wall - offsetAt(wall - kDayS);
  if (before + offsetAt(before) == wall) return before;
  const std::int64_t after = wall - offsetAt(wall + kDayS);
  return after + offsetAt(after) == wall ? after : before;
}

std::uint32_t saturated(std::int64_t seconds) {
  constexpr std::int64_t kLast = std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(seconds, 0, kLast));
}

// Follows a system time zone that is changed while the daemon runs, as the daylight-saving update
// does. The C library looks at the file only when told to.
void followZone() {
  static Relaxed<std::uint32_t> lastLook;
  static Relaxed<std::uint32_t> lastStamp;
  const std::uint32_t now = monotonicMs() | 1;  // 0 stands for never
  if (lastLook != 0 && now - lastLook < kZoneLookMs) return;
  const bool first = lastLook == 0;
  lastLook = now;
  struct stat zone {};
  if (getenv("TZ") != nullptr || stat("/etc/localtime", &zone) != 0) return;
  const auto stamp = static_cast<std::uint32_t>(zone.st_mtim.tv_sec) ^
                     static_cast<std::uint32_t>(zone.st_mtim.tv_nsec) ^
                     static_cast<std::uint32_t>(zone.st_ino) << 8;
  if (!first && stamp != lastStamp) tzset();
  lastStamp = stamp;
}

// Reads two decimal digits. Returns their value, or -1 when they are none or above `limit`.
short twoDigits(const char* text, int limit) {
  for (int i = 0; i < 2; ++i)
    if (text[i] < '0' || text[i] > '9') return -1;
  const int value = (text[0] - '0') * 10 + (text[1] - '0');
  return static_cast<short>(value <= limit ? value : -1);
}

TDateTime onReferenceDay(short hour, short minute, short second) {
  TDateTime time;
  time.encode(2000, 0, 1, hour, minute, second);
  return time;
}

}  // namespace

long TTimeSpan::getTotal(TTimeField field) const {
  std::int64_t total = 0;
  if (field == kFieldTotalMs) total = microseconds_ / 1000;
  if (field == kFieldTotalUs) total = microseconds_;
  return static_cast<long>(std::clamp<std::int64_t>(total, std::numeric_limits<long>::min(),
                                                    std::numeric_limits<long>::max()));
}

void TDateTime::set() {
  followZone();
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  seconds_ = saturated(now.tv_sec);
  microseconds_ = static_cast<std::uint32_t>(now.tv_nsec / 1000);
}

void TDateTime::set(long seconds, long microseconds) {
  seconds_ = static_cast<std::uint32_t>(seconds);
  microseconds_ = static_cast<std::uint32_t>(microseconds);
}

void TDateTime::set(const char* text) {
  const char* const t = text != nullptr ? text : "";
  if (std::strlen(t) == 8 && t[2] == ':' && t[5] == ':') {
    const short hour = twoDigits(t, 23);
    const short minute = twoDigits(t + 3, 59);
    const short second = twoDigits(t + 6, 59);
    if (hour >= 0 && minute >= 0 && second >= 0) {
      *this = onReferenceDay(hour, minute, second);
      return;
    }
  }
  *this = sod();
  logEx(2, "malformed time of day: %s", t);
}

void TDateTime::encode(short year, short month, short day, short hour, short minute, short second) {
  // Months count from 0 here; floor division carries those outside 0 to 11 into the year.
  const int months = month - 1;
  const int years = (months >= 0 ? months : months - 11) / 12;
  const std::int64_t days = daysTo(year + years, months - years * 12 + 1) + day - 1;
  seconds_ = saturated(fromWall(days * kDayS + hour * 3600L + minute * 60L + second));
  microseconds_ = 0;
}

void TDateTime::decode(short& year, short& month, short& day, short& hour, short& minute,
                       short& second) const {
  const tm fields = localTime(seconds_);
  year = static_cast<short>(fields.tm_year + 1900);
  month = static_cast<short>(fields.tm_mon + 1);
  day = static_cast<short>(fields.tm_mday);
  hour = static_cast<short>(fields.tm_hour);
  minute = static_cast<short>(fields.tm_min);
  second = static_cast<short>(fields.tm_sec);
}

void TDateTime::decodeTime(short& hour, short& minute, short& second) const {
  short ignored = 0;
  decode(ignored, ignored, ignored, hour, minute, second);
}

int TDateTime::operator[](TTimeField field) const {
  const tm fields = localTime(seconds_);
  switch (field) {
    case kFieldYear:
      return fields.tm_year + 1900;
    case kFieldMonth:
      return fields.tm_mon + 1;
    case kFieldWeekday:
      return fields.tm_wday;
    case kFieldHour:
      return fields.tm_hour;
    case kFieldMinute:
      return fields.tm_min;
    case kFieldSecond:
      return fields.tm_sec;
    case kFieldDay:
      return fields.tm_mday;
    default:
      return 0;
  }
}

std::string TDateTime::getTimeString() const {
  const tm fields = localTime(seconds_);
  char text[32];
  strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &fields);
  return text;
}

TDateTime TDateTime::sod() { return onReferenceDay(0, 0, 0); }
TDateTime TDateTime::eod() { return onReferenceDay(23, 59, 59); }

TTimeSpan operator-(const TDateTime& a, const TDateTime& b) {
  const std::int64_t seconds = std::int64_t{a.seconds()} - std::int64_t{b.seconds()};
  const std::int64_t us = std::int64_t{a.microseconds()} - std::int64_t{b.microseconds()};
  return TTimeSpan(seconds * kUsPerSecond + us);
}
