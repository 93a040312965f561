// A named weekly schedule: weekdays and times of day during which something is to be active.
#pragma once

#include <vector>

#include "platform/date_time.h"

// Loads itself from the schedules file, is then only evaluated, and tells its owner when it
// switches on and off. To pick up a changed file, make a new one. A value: copies share owner and
// name.
//
// Threads: not synchronised; the scheduler's lock guards its schedules.
class TSchedule {
 public:
  // `on`: whether the schedule has just begun or just ended.
  using Callback = void (*)(void* owner, bool on);

  static const char* inf;  // the schedules file, see docs/configuration.md

  // `owner`: handed back to `callback`, never looked into. `name`: not copied, must outlive the
  // schedule and its copies.
  TSchedule(void* owner, const char* name, Callback callback);

  // Loads the schedule called `name` (in any case), the built-in "always" or one of the file.
  // Returns true on success; false when there is none of that name or it has no usable interval.
  bool set(const char* name);

  // Splits a single interval that crosses midnight in two.
  // Returns true iff there is an interval and a set of seven weekdays.
  // Logs 3 "TSchedule::validate() IPE"
  bool validate();

  // Evaluates the schedule at the local time `now`, and calls back when it has just begun or ended.
  // A change of the time zone since set() makes no difference: 08:00 is 08:00 on the clock.
  // `weekday`: 0 = Sunday; above 6 nothing is active.
  void test(TDateTime now, unsigned weekday);

  const char* name() const { return name_; }

 private:
  friend struct ScheduleAccess;  // tests
  bool loadIntervals(const char* section);
  bool inside(const TDateTime& now, unsigned weekday) const;

  void* owner_;
  bool state_ = false;  // Intended: a schedule that is removed while on makes no "off" call.
  const char* name_;
  Callback callback_;
  std::vector<bool> weekdays_;
  TDateTime sod_;                  // start of the reference day in the zone of the intervals
  std::vector<TDateTime> starts_;  // on the reference day, as stops_
  std::vector<TDateTime> stops_;   // stops_[i] belongs to starts_[i]; both ends are inside
};
