// Points in time and timers on the virtual clock, with the host's own rules for time zones.
#include <cstdio>
#include <ctime>
#include <limits>

#include "platform/date_time.h"
#include "platform/log.h"
#include "platform/timer.h"
#include "tests/fakes/fake_platform.h"

namespace {

constexpr std::int64_t kSecondUs = 1000000;

std::tm local(const TDateTime& time) {
  const auto seconds = static_cast<std::time_t>(time.seconds());
  std::tm fields{};
  localtime_r(&seconds, &fields);
  return fields;
}

long saturated(std::int64_t value) {
  if (value > std::numeric_limits<long>::max()) return std::numeric_limits<long>::max();
  if (value < std::numeric_limits<long>::min()) return std::numeric_limits<long>::min();
  return static_cast<long>(value);
}

TDateTime onReferenceDay(int hour, int minute, int second) {
  TDateTime time;
  time.encode(2000, 0, 1, static_cast<short>(hour), static_cast<short>(minute),
              static_cast<short>(second));
  return time;
}

}  // namespace

long TTimeSpan::getTotal(TTimeField field) const {
  return saturated(field == kFieldTotalMs ? microseconds_ / 1000 : microseconds_);
}

TTimeSpan operator-(const TDateTime& a, const TDateTime& b) {
  return TTimeSpan((std::int64_t{a.seconds()} - std::int64_t{b.seconds()}) * kSecondUs +
                   std::int64_t{a.microseconds()} - std::int64_t{b.microseconds()});
}

void TDateTime::set() {
  const std::int64_t now = FakePlatform::the().clock.wallUs();
  seconds_ = static_cast<std::uint32_t>(now / kSecondUs);
  microseconds_ = static_cast<std::uint32_t>(now % kSecondUs);
}

void TDateTime::set(long seconds, long microseconds) {
  seconds_ = static_cast<std::uint32_t>(seconds);
  microseconds_ = static_cast<std::uint32_t>(microseconds);
}

void TDateTime::set(const char* text) {
  int hour = 0, minute = 0, second = 0, length = 0;
  const int found = std::sscanf(text, "%2d:%2d:%2d%n", &hour, &minute, &second, &length);
  if (found != 3 || length != 8 || text[length] != '\0' || hour < 0 || hour > 23 || minute < 0 ||
      minute > 59 || second < 0 || second > 59) {
    logEx(2, "malformed time of day: %s", text);
    *this = sod();
    return;
  }
  *this = onReferenceDay(hour, minute, second);
}

void TDateTime::encode(short year, short month, short day, short hour, short minute, short second) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  fields.tm_isdst = -1;
  seconds_ = static_cast<std::uint32_t>(std::mktime(&fields));
  microseconds_ = 0;
}

void TDateTime::decode(short& year, short& month, short& day, short& hour, short& minute,
                       short& second) const {
  const std::tm fields = local(*this);
  year = static_cast<short>(fields.tm_year + 1900);
  month = static_cast<short>(fields.tm_mon + 1);
  day = static_cast<short>(fields.tm_mday);
  decodeTime(hour, minute, second);
}

void TDateTime::decodeTime(short& hour, short& minute, short& second) const {
  const std::tm fields = local(*this);
  hour = static_cast<short>(fields.tm_hour);
  minute = static_cast<short>(fields.tm_min);
  second = static_cast<short>(fields.tm_sec);
}

int TDateTime::operator[](TTimeField field) const {
  const std::tm fields = local(*this);
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
  char text[32];
  const std::tm fields = local(*this);
  std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &fields);
  return text;
}

TDateTime TDateTime::sod() { return onReferenceDay(0, 0, 0); }
TDateTime TDateTime::eod() { return onReferenceDay(23, 59, 59); }

std::uint32_t monotonicMs() {
  return static_cast<std::uint32_t>(FakePlatform::the().clock.monotonicUs() / 1000);
}

TTimer::TTimer(long seconds) { reset(seconds); }

void TTimer::reset(long seconds) {
  interval_ = static_cast<std::int32_t>(
      std::min<long>(std::max<long>(seconds, 0), std::numeric_limits<std::int32_t>::max()));
  startMs_ = monotonicMs();
  elapsed_ = 0;
}

bool TTimer::timeout() {
  if (interval_ < 1) return false;
  const std::uint32_t whole = (monotonicMs() - startMs_) / 1000;
  startMs_ += whole * 1000;
  elapsed_ = static_cast<std::int32_t>(std::min<std::int64_t>(
      std::int64_t{elapsed_} + whole, std::numeric_limits<std::int32_t>::max()));
  if (elapsed_ < interval_) return false;
  startMs_ = monotonicMs();
  elapsed_ = 0;
  return true;
}

void TCounter::reset(long limit, bool full) {
  limit_ = limit;
  sum_ = full ? limit : 0;
}

bool TCounter::count(long step) {
  sum_ += step;
  if (sum_ < limit_) return false;
  sum_ = 0;
  return true;
}
