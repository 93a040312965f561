// A calendar of its own, for what the daemon makes of dates to be held against: local time as
// zone_offsets.py has it, and days counted year by year.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What clocks show.
struct TLocal {
  int year = 0;
  int month = 0;  // 1 to 12
  int day = 0;
  int weekday = 0;  // 0 = Sunday
  int second = 0;   // of the day
  bool operator==(const TLocal& other) const;
  std::string text() const;
};

// One time zone. Points are seconds since 1970 UTC, below 2^32. Bound to one thread.
class TZone {
 public:
  struct Change {
    std::int64_t at;
    int offset;  // from then on, in seconds ahead of UTC
  };

  explicit TZone(std::string name) : name_(std::move(name)) {}
  void add(Change change) { changes_.push_back(change); }

  const std::string& name() const { return name_; }
  // The first one stands at 0.
  const std::vector<Change>& changes() const { return changes_; }

  int offset(std::int64_t seconds) const;
  TLocal local(std::int64_t seconds) const;
  // Returns the first point at which clocks show what they show at `seconds`.
  std::int64_t firstLike(std::int64_t seconds) const;

  // Makes it the zone of the process.
  void use() const;

 private:
  std::size_t position(std::int64_t seconds) const;

  std::string name_;
  std::vector<Change> changes_;
  mutable std::size_t last_ = 0;  // where the last question was answered
};

// Reads what zone_offsets.py has written. Ends the program with a message if there is nothing.
std::vector<TZone> readZones(const char* path);

// Days since 1970-01-01.
std::int64_t dayNumber(int year, int month, int day);
bool isLeapYear(int year);
int daysOfMonth(int year, int month);
