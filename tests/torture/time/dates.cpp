// Holds the platform's dates against the calendar, in every zone of a file:
//
//   time_dates ZONES SECONDS
//
// every change of clocks from 1970 to 2106, the ends of months, and the days on which calendars go
// wrong, more closely as long as there is time. Its last line says what came of it.
#include "platform/date_time.h"
#include "tests/fakes/fake_platform.h"
#include "tests/torture/time/calendar.h"
#include "tests/torture/time/trial.h"

namespace {

constexpr std::int64_t kDayS = 86400;
constexpr std::int64_t kEnd = std::int64_t{1} << 32;
constexpr std::int64_t kNearS = 2 * 3600 + 60;  // more than any clock is put forward or back

struct Day {
  int year, month, day;
};
constexpr Day kDays[] = {{2038, 1, 19}, {2100, 2, 28}, {2100, 3, 1},   {2000, 2, 29}, {2024, 2, 29},
                         {2096, 2, 29}, {2104, 2, 29}, {2099, 12, 31}, {2026, 4, 30}, {2106, 2, 6}};

// Round after round looks closer, as long as there is time. Only the first leaves out midnights.
constexpr int kSteps[] = {997, 61, 7, 1};

class Dates {
 public:
  // `step`: how many seconds may lie between two looks. The coarsest are made in any case.
  Dates(const TZone& zone, int step, TTrial* trial) : zone_(zone), step_(step), trial_(*trial) {}

  // Looks at one point both ways.
  void point(std::int64_t seconds) {
    if (seconds < 0 || seconds >= kEnd) return;
    const TDateTime time(static_cast<std::uint32_t>(seconds), 0);
    const TLocal expected = zone_.local(seconds);
    short year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    time.decode(year, month, day, hour, minute, second);
    const TLocal got{year, month, day, time[kFieldWeekday], (hour * 60 + minute) * 60 + second};
    trial_.expect(got == expected, [&] {
      return zone_.name() + " " + std::to_string(seconds) + ": " + got.text() + " on " +
             std::to_string(got.weekday) + ", not " + expected.text() + " on " +
             std::to_string(expected.weekday);
    });
    TDateTime back;
    back.encode(year, month, day, hour, minute, second);
    const std::int64_t first = zone_.firstLike(seconds);
    trial_.expect(std::int64_t{back.seconds()} == first, [&] {
      return zone_.name() + " " + expected.text() + ": " + std::to_string(back.seconds()) +
             ", not " + std::to_string(first);
    });
  }

  // A time that clocks skip is what they would have called so without the change.
  void skipped(const TZone::Change& change, int before) {
    for (std::int64_t wall = change.at + before; wall < change.at + change.offset; wall += 59) {
      const TLocal local = utc_.local(wall);
      TDateTime time;
      time.encode(static_cast<short>(local.year), static_cast<short>(local.month),
                  static_cast<short>(local.day), static_cast<short>(local.second / 3600),
                  static_cast<short>(local.second / 60 % 60),
                  static_cast<short>(local.second % 60));
      trial_.expect(std::int64_t{time.seconds()} == wall - before, [&] {
        return zone_.name() + " " + local.text() +
               ", which is skipped: " + std::to_string(time.seconds()) + ", not " +
               std::to_string(wall - before);
      });
    }
  }

  // Every change of clocks.
  void changes() {
    const auto& all = zone_.changes();
    for (std::size_t i = 1; i < all.size() && goOn(); ++i) {
      around(all[i].at, kNearS);
      if (all[i].offset > all[i - 1].offset) skipped(all[i], all[i - 1].offset);
    }
  }

  // The days on which calendars go wrong, and the end of the clock.
  void days() {
    for (const Day& d : kDays) {
      const std::int64_t day = dayNumber(d.year, d.month, d.day) * kDayS;
      const std::int64_t midnight = day - zone_.offset(day);
      around(midnight, kDayS);
      around(midnight + kDayS, kDayS);
    }
    around(std::int64_t{1} << 31, kDayS);
    around(kEnd, 3 * kDayS);
  }

  // The first and last seconds of every month, or of every day.
  void midnights() {
    for (std::int64_t day = 0; day < kEnd / kDayS && goOn(); ++day) {
      const std::int64_t midnight = day * kDayS - zone_.offset(day * kDayS);
      if (step_ == kSteps[0] && zone_.local(midnight).day != 1) continue;
      for (const std::int64_t s : {-1, 0, 1}) point(midnight + s);
    }
  }

  // The day to which times of day are reduced is one without a change.
  void referenceDay() {
    const std::int64_t sod = dayNumber(1999, 12, 1) * kDayS - zone_.offset(943920000);
    trial_.expect(
        std::int64_t{TDateTime::sod().seconds()} == sod &&
            TDateTime::eod().seconds() - TDateTime::sod().seconds() == kDayS - 1,
        [&] { return zone_.name() + ": reference day " + TDateTime::sod().getTimeString(); });
    for (int second = 0; second < kDayS; second += 599) {
      char text[16];
      std::snprintf(text, sizeof text, "%02d:%02d:%02d", second / 3600, second / 60 % 60,
                    second % 60);
      TDateTime time;
      time.set(text);
      trial_.expect(std::int64_t{time.seconds()} == sod + second,
                    [&] { return zone_.name() + ": time of day " + text; });
    }
  }

 private:
  bool goOn() const { return step_ == kSteps[0] || trial_.timeIsLeft(); }

  // Each second of the minute before and after, and the rest of `reach` before and after by steps.
  void around(std::int64_t center, std::int64_t reach) {
    for (std::int64_t s = -reach; s <= reach && goOn(); s += s >= -60 - step_ && s < 60 ? 1 : step_)
      point(center + s);
  }

  static TZone makeUtc() {
    TZone utc("UTC");
    utc.add({0, 0});
    return utc;
  }

  const TZone& zone_;
  const int step_;
  TTrial& trial_;
  const TZone utc_ = makeUtc();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  FakePlatform fake;
  TTrial trial(argv[2]);
  const std::vector<TZone> zones = readZones(argv[1]);
  int done = 0;
  for (const int step : kSteps) {
    for (const TZone& zone : zones) {
      zone.use();
      Dates dates(zone, step, &trial);
      if (step == kSteps[0]) dates.referenceDay();
      dates.changes();
      dates.days();
      dates.midnights();
    }
    if (step != kSteps[0] && !trial.timeIsLeft()) break;
    done = step;
  }
  std::printf("%lld comparisons in %zu zones in %.1f s, at least every %d s, %lld wrong\n",
              trial.compared, zones.size(), trial.secondsPassed(), done, trial.wrong);
  return trial.status();
}
