// Wall-clock points in time and the spans between them.
#pragma once

#include <cstdint>
#include <string>

// Fields for operator[] and getTotal(). The numbers are fixed: other components know them.
enum TTimeField {
  kFieldYear = 0,
  kFieldMonth = 1,    // 1 to 12
  kFieldWeekday = 2,  // 0 = Sunday
  kFieldHour = 3,
  kFieldMinute = 4,
  kFieldSecond = 5,
  kFieldDay = 6,  // of the month, 1 to 31
  kFieldTotalMs = 7,
  kFieldTotalUs = 8,
};

// The signed span between two points in time.
class TTimeSpan {
 public:
  explicit TTimeSpan(std::int64_t microseconds) : microseconds_(microseconds) {}

  // `field`: kFieldTotalMs or kFieldTotalUs. Returns the span in that unit, truncated towards zero;
  // saturates at the limits of long, which on 32 bit are 24 days or 35 minutes.
  long getTotal(TTimeField field) const;

 private:
  std::int64_t microseconds_;
};

// A point in time as two 32-bit words: seconds since 1970 UTC, unsigned and so good until 2106, and
// microseconds 0 to 999999. Fields are those of the local time zone. A value type, not
// synchronised.
class TDateTime {
 public:
  constexpr TDateTime() = default;
  constexpr TDateTime(std::uint32_t seconds, std::uint32_t microseconds)
      : seconds_(seconds), microseconds_(microseconds) {}

  // Takes the current time.
  void set();
  // Takes the two words as they are.
  void set(long seconds, long microseconds);
  // Takes a time of day "HH:MM:SS" on the reference day, that of encode(2000, 0, 1, ...).
  // On failure (another form, or a value out of range) becomes `sod` and
  // logs 2 "malformed time of day: %s".
  void set(const char* text);

  // Takes the local time given; `month` 1 to 12. What lies outside the calendar is normalised as by
  // mktime(): month 0 of 2000 is December 1999.
  void encode(short year, short month, short day, short hour, short minute, short second);
  void decode(short& year, short& month, short& day, short& hour, short& minute,
              short& second) const;
  void decodeTime(short& hour, short& minute, short& second) const;

  // Returns one field, kFieldYear to kFieldDay, of the local time.
  int operator[](TTimeField field) const;

  // Returns "YYYY/MM/DD HH:MM:SS" in local time.
  std::string getTimeString() const;

  constexpr std::uint32_t seconds() const { return seconds_; }
  constexpr std::uint32_t microseconds() const { return microseconds_; }

  // The first and the last second of the reference day.
  static TDateTime sod();
  static TDateTime eod();

 private:
  std::uint32_t seconds_ = 0;
  std::uint32_t microseconds_ = 0;
};

static_assert(sizeof(TDateTime) == 8, "two 32-bit words: other processes read them in frames");

TTimeSpan operator-(const TDateTime& a, const TDateTime& b);

constexpr bool operator==(const TDateTime& a, const TDateTime& b) {
  return a.seconds() == b.seconds() && a.microseconds() == b.microseconds();
}
constexpr bool operator<(const TDateTime& a, const TDateTime& b) {
  return a.seconds() != b.seconds() ? a.seconds() < b.seconds()
                                    : a.microseconds() < b.microseconds();
}
constexpr bool operator!=(const TDateTime& a, const TDateTime& b) { return !(a == b); }
constexpr bool operator>(const TDateTime& a, const TDateTime& b) { return b < a; }
constexpr bool operator<=(const TDateTime& a, const TDateTime& b) { return !(b < a); }
constexpr bool operator>=(const TDateTime& a, const TDateTime& b) { return !(a < b); }
