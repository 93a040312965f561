// Runs housekeeping on the virtual clock, in every zone of a file, and holds all that it does, to
// the millisecond, against a calculation of its own:
//
//   time_housekeeping ZONES SECONDS SEED
//
// first the hours around midnights and changes of clocks that matter; then the months of a year,
// and of another year in the next zone, as long as there is time. Its last lines say what came of
// it.
#include <algorithm>
#include <random>

#include "tests/fakes/fake_platform.h"
#include "tests/torture/time/calendar.h"
#include "tests/torture/time/trial.h"
#include "tests/unit/core/housekeeping_oracle.h"

namespace {

constexpr std::int64_t kDayS = 86400;
constexpr long long kHourMs = 3600000;
constexpr long long kDayMs = 24 * kHourMs;

long long g_seconds = 0;  // that were lived through

// Lives through a stretch of time, which begins at `start` by the wall clock.
void live(const TZone& zone, std::int64_t start, long long ms, Script script, TTrial* trial) {
  zone.use();
  FakePlatform fake;
  fake.clock.setWall(start);
  script.wallAtStart = start;
  // The daemon's clock ends where its 32 bits do.
  const auto hourAt = [&zone](long long seconds) {
    return zone.local(std::min(seconds, (1LL << 32) - 1)).second / 3600;
  };
  const std::vector<Act> expected = Oracle(script, hourAt).run(ms);
  const std::vector<Act> got = runHousekeeping(&fake, script, ms);
  const std::size_t both = std::min(got.size(), expected.size());
  const auto differs =
      std::mismatch(got.begin(), got.begin() + static_cast<long>(both), expected.begin());
  const auto at = static_cast<std::size_t>(differs.first - got.begin());
  const auto told = [](const std::vector<Act>& acts, std::size_t i) {
    return i < acts.size() ? acts[i].what + " at " + std::to_string(acts[i].ms) + " ms" : "nothing";
  };
  trial->compared += static_cast<long long>(expected.size());
  trial->expect(got == expected, [&] {
    return zone.name() + " from " + zone.local(start).text() + ", act " + std::to_string(at) +
           ": " + told(got, at) + ", not " + told(expected, at);
  });
  g_seconds += ms / 1000;
}

struct Day {
  int year, month, day;
};
constexpr Day kMidnights[] = {{2026, 5, 1},  {2027, 1, 1},  {2028, 2, 29}, {2028, 3, 1},
                              {2038, 1, 19}, {2100, 2, 28}, {2100, 3, 1},  {2106, 2, 6}};

std::vector<std::int64_t> instants(const TZone& zone) {
  std::vector<std::int64_t> result = {std::int64_t{1} << 31};
  for (const Day& d : kMidnights) {
    const std::int64_t day = dayNumber(d.year, d.month, d.day) * kDayS;
    result.push_back(day - zone.offset(day));
  }
  for (const TZone::Change& change : zone.changes())
    for (const int year : {2011, 2026, 2038, 2100}) {
      const std::int64_t first = dayNumber(year, 1, 1) * kDayS;
      if (change.at >= first && change.at < first + 366 * kDayS) result.push_back(change.at);
    }
  return result;
}

// Steps of the clock, a share that goes, and other intervals, at any time of the stretch.
Script anyScript(long long ms, std::mt19937* random) {
  const auto below = [random](long long limit) {
    return static_cast<long long>((*random)() % static_cast<unsigned long long>(limit));
  };
  static constexpr long kSteps[] = {1, 2, 30, 61, 900, 3599, 3600, 7200, 86400, 40 * 86400};
  Script script;
  script.syncSeconds = 60 + static_cast<long>(below(7200));
  for (int i = 0; i < 6; ++i) {
    const long step = kSteps[below(std::size(kSteps))];
    const long long when = below(ms / 2);
    // And back again.
    script.wallSteps[when] = step;
    script.wallSteps[when + 1 + below(ms / 2)] = -step;
  }
  for (int i = 0; i < 3; ++i)
    script.configChanges[below(ms)] = static_cast<long>(below(4000)) - 100;
  const long long gone = below(ms);
  script.sambaGone = {gone, gone + 1 + below(kHourMs / 2)};
  return script;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  TTrial trial(argv[2]);
  std::mt19937 random(static_cast<unsigned>(std::atoi(argv[3])));
  const std::vector<TZone> zones = readZones(argv[1]);

  std::size_t hours = 0;
  for (const TZone& zone : zones)
    for (const std::int64_t instant : instants(zone)) {
      // So that the hour's counter and the hour's beginning meet in another way each time.
      const auto before = static_cast<std::int64_t>(random() % 7000);
      live(zone, instant - before, 3 * kHourMs, {}, &trial);
      live(zone, instant - before, 3 * kHourMs, anyScript(3 * kHourMs, &random), &trial);
      hours += 2;
    }
  std::printf("%zu midnights and changes of clocks in %zu zones in %.1f s\n", hours, zones.size(),
              trial.secondsPassed());

  g_seconds = 0;
  for (std::size_t n = 0; trial.timeIsLeft(); ++n) {
    const TZone& zone = zones[n % zones.size()];
    std::int64_t month = dayNumber(2026, 1, 1) * kDayS;
    month -= zone.offset(month);
    for (int i = 1; i <= 12 && trial.timeIsLeft(); ++i) {
      const long long ms = daysOfMonth(2026, i) * kDayMs;
      live(zone, month, ms, n < zones.size() ? Script{} : anyScript(ms, &random), &trial);
      month += ms / 1000;
    }
  }
  std::printf("%.2f years, %lld acts in %.1f s, %lld wrong\n",
              static_cast<double>(g_seconds) / static_cast<double>(365 * kDayS), trial.compared,
              trial.secondsPassed(), trial.wrong);
  return trial.status();
}
