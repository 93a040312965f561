// Runs the scheduler with events on the virtual clock, in every zone of a file, and holds each of
// its passes against a table of alarms and a calendar of seconds of its own:
//
//   time_schedules ZONES SECONDS SEED
//
// first the hours around midnights and changes of clocks that matter, with and without a clock that
// is stepped meanwhile; then a year, and another year in the next zone, as long as there is time.
// Its last lines say what came of it.
#include <array>
#include <bitset>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "events/interval_event.h"
#include "events/out_handler.h"
#include "events/schedule_event.h"
#include "schedule/scheduler.h"
#include "tests/fakes/fake_platform.h"
#include "tests/torture/time/calendar.h"
#include "tests/torture/time/trial.h"

namespace {

constexpr int kDayS = 86400;
constexpr std::int64_t kYearS = std::int64_t{365} * kDayS;
constexpr long kSlots = 30;

struct Interval {
  int start, stop;  // seconds of the day, both inside
};

// A schedule: as the file has it, and as a bit for each second of the week.
class Form {
 public:
  Form(const char* name, const char* weekdays, std::vector<Interval> intervals)
      : name_(name), weekdays_(weekdays), intervals_(std::move(intervals)), on_(new Week) {
    for (int day = 0; day < 7; ++day)
      for (int second = 0; weekdays_[static_cast<std::size_t>(day)] == '1' && second < kDayS;
           ++second)
        for (const Interval& i : intervals_)
          if (i.start <= i.stop ? i.start <= second && second <= i.stop
                                : i.start <= second || second <= i.stop)
            on_->set(static_cast<std::size_t>(day * kDayS + second));
  }

  const char* name() const { return name_.c_str(); }
  bool on(const TLocal& local) const {
    return (*on_)[static_cast<std::size_t>(local.weekday * kDayS + local.second)];
  }
  std::string section(int number) const {
    std::string text = "[" + std::to_string(number) + "]\nErased=0\nName=" + name_ +
                       "\nWeekdays=" + weekdays_ + "\nItems=" + std::to_string(intervals_.size()) +
                       "\n";
    for (std::size_t i = 0; i < intervals_.size(); ++i)
      text += "Start" + std::to_string(i + 1) + "=" + clock(intervals_[i].start) + "\nStop" +
              std::to_string(i + 1) + "=" + clock(intervals_[i].stop) + "\n";
    return text;
  }

 private:
  using Week = std::bitset<7 * kDayS>;
  static std::string clock(int second) {
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", second / 3600, second / 60 % 60,
                  second % 60);
    return text;
  }

  std::string name_;
  std::string weekdays_;
  std::vector<Interval> intervals_;
  std::unique_ptr<Week> on_;
};

int at(int hour, int minute, int second = 0) { return (hour * 60 + minute) * 60 + second; }

std::vector<Interval> quarters() {
  std::vector<Interval> result;
  for (int second = 0; second < kDayS; second += 900) result.push_back({second, second + 59});
  return result;
}

// In the order in which they are registered.
std::vector<Form> makeForms() {
  std::vector<Form> forms;
  forms.emplace_back("office", "0111110", std::vector<Interval>{{at(8, 0), at(18, 0)}});
  forms.emplace_back("night", "1111111", std::vector<Interval>{{at(22, 0), at(6, 0)}});
  forms.emplace_back("small hours", "1111111",
                     std::vector<Interval>{{at(0, 0), at(0, 29, 59)}, {at(2, 0), at(2, 59, 59)}});
  forms.emplace_back("brink", "1010101", std::vector<Interval>{{at(23, 59, 57), at(0, 0, 4)}});
  forms.emplace_back("weekend", "1000001", std::vector<Interval>{{at(0, 0), at(23, 59, 59)}});
  forms.emplace_back("quarters", "1111111", quarters());
  return forms;
}
enum { kOffice, kNight, kSmallHours, kBrink, kWeekend, kQuarters };

// The events: which forms begin and end them, and what they do.
struct Kind {
  std::vector<int> forms;
  long interval;  // seconds; 0: told of the schedule alone
  long pulse;     // of the relay output in seconds; 0: none
};
const std::vector<Kind> kKinds = {{{kOffice, kNight}, 7, 0},
                                  {{kSmallHours}, 10, 3},
                                  {{kBrink}, 1, 0},
                                  {{kWeekend, kQuarters}, 0, 0}};
constexpr std::size_t kEvents = 4;

// What happened so far, to each event.
struct Tally {
  std::array<long, kEvents> fired{}, started{}, stopped{};
  long outputOn = 0, outputOff = 0;
  bool operator==(const Tally& other) const {
    return fired == other.fired && started == other.started && stopped == other.stopped &&
           outputOn == other.outputOn && outputOff == other.outputOff;
  }
  std::string text() const {
    std::string result;
    for (std::size_t i = 0; i < kEvents; ++i)
      result += std::to_string(fired[i]) + "/" + std::to_string(started[i]) + "/" +
                std::to_string(stopped[i]) + " ";
    return result + std::to_string(outputOn) + "/" + std::to_string(outputOff);
  }
};

// --- What has to happen: the alarms of the events and of their outputs in a table, from whose end
// they are given out and tested.
class Model {
 public:
  Model(const std::vector<Form>& forms, const TZone& zone)
      : forms_(forms), zone_(zone), on_(forms.size(), false) {}

  void pass(std::int64_t wall, bool withSchedules) {
    for (std::size_t i = kSlots; i-- > 0;) testSlot(i);
    if (!withSchedules) return;
    const TLocal local = zone_.local(wall);
    for (std::size_t f = forms_.size(); f-- > 0;) {
      const bool on = forms_[f].on(local);
      if (on == on_[f]) continue;
      on_[f] = on;
      if (on) ++edges_[f];
      const std::size_t event = eventOf(static_cast<int>(f));
      active_[event] += on ? 1 : -1;
      if (on && active_[event] == 1) start(event);
      if (!on && active_[event] == 0) stop(event);
    }
  }

  const Tally& tally() const { return tally_; }
  long edges(int form) const { return edges_[static_cast<std::size_t>(form)]; }

 private:
  struct Slot {
    int owner = -1;  // the event, or its output beyond kEvents
    long counter = 0, period = 0;
  };

  static std::size_t eventOf(int form) {
    for (std::size_t event = 0; event < kEvents; ++event)
      for (const int f : kKinds[event].forms)
        if (f == form) return event;
    std::abort();
  }

  void arm(int owner, long seconds) {
    Slot* free = nullptr;
    for (std::size_t i = kSlots; i-- > 0;) {
      Slot& slot = slots_[i];
      if (slot.owner == owner) {
        if (slot.counter < seconds) slot.counter = slot.period = seconds;
        return;
      }
      if (slot.owner < 0 && free == nullptr) free = &slot;
    }
    *free = {owner, seconds, seconds};
  }

  void testSlot(std::size_t i) {
    if (slots_[i].owner < 0) return;
    if (slots_[i].counter > 0) {
      --slots_[i].counter;
      return;
    }
    const auto owner = static_cast<std::size_t>(slots_[i].owner);
    if (owner < kEvents) {
      fire(owner);
      slots_[i].counter = slots_[i].period - 1;
    } else {
      ++tally_.outputOff;
      slots_[i] = {};
    }
  }

  void fire(std::size_t event) {
    ++tally_.fired[event];
    if (kKinds[event].pulse == 0) return;
    ++tally_.outputOn;
    arm(static_cast<int>(event + kEvents), kKinds[event].pulse);
  }

  void start(std::size_t event) {
    ++tally_.started[event];
    if (kKinds[event].interval == 0) return;
    fire(event);
    arm(static_cast<int>(event), kKinds[event].interval);
  }

  void stop(std::size_t event) {
    ++tally_.stopped[event];
    for (Slot& slot : slots_)
      if (slot.owner == static_cast<int>(event)) slot = {};
  }

  const std::vector<Form>& forms_;
  const TZone& zone_;
  std::vector<bool> on_;
  std::array<Slot, kSlots> slots_;
  std::array<int, kEvents> active_{};
  std::array<long, 8> edges_{};
  Tally tally_;
};

// --- What does happen.
class Counter : public THandler {
 public:
  Counter(Tally* tally, std::size_t event) : THandler(nullptr, 0), tally_(*tally), event_(event) {}
  bool onTrigger() override {
    ++tally_.fired[event_];
    return true;
  }
  bool onStarted() override {
    ++tally_.started[event_];
    return true;
  }
  void onStopped() override { ++tally_.stopped[event_]; }

 private:
  Tally& tally_;
  const std::size_t event_;
};

// An interval event tells nobody of its start and end.
class CountedInterval : public TIntervalEvent {
 public:
  CountedInterval(Tally* tally, std::size_t event, const char* schedule, const char* schedule2)
      : TIntervalEvent(schedule, schedule2, kKinds[event].interval * 1000),
        tally_(*tally),
        event_(event) {}
  void onStarted() override {
    ++tally_.started[event_];
    TIntervalEvent::onStarted();
  }
  void onStopped() override {
    ++tally_.stopped[event_];
    TIntervalEvent::onStopped();
  }

 private:
  Tally& tally_;
  const std::size_t event_;
};

struct Job {
  const TZone* zone;
  std::int64_t start;  // by the wall clock
  long passes;
  bool steps;  // of the wall clock
};

class Run {
 public:
  Run(const Job& job, const std::vector<Form>& forms, std::mt19937* random, TTrial* trial)
      : job_(job), model_(forms, *job.zone), random_(*random), trial_(*trial) {
    job.zone->use();
    std::string file;
    for (std::size_t f = 0; f < forms.size(); ++f)
      file += forms[f].section(static_cast<int>(f) + 1);
    fake_.ini.file(TSchedule::inf, file);
    fake_.keepCalls(false);
    fake_.clock.setWall(job.start);
    fake_.clock.advanceUs(static_cast<std::int64_t>(random_() % 1000000));
    fake_.onCall([this](const std::string& call) {
      if (call == "SendMessage(socmond,52,1,0)") ++tally_.outputOn;
      if (call == "SendMessage(socmond,52,0,0)") ++tally_.outputOff;
    });
    for (std::size_t e = 0; e < kEvents; ++e) events_.push_back(makeEvent(e, forms));
    for (const auto& event : events_) event->refresh();
  }
  ~Run() {
    // Counted no more.
    fake_.onCall(nullptr);
    for (const auto& event : events_) {
      event->withdraw();
      event->onStopped();
    }
  }

  // Returns true iff it came to its end.
  bool run() {
    wall_ = job_.start;
    fake_.onPause([this](long) { check(); });
    scheduler()->run();
    fake_.runBody(*scheduler());
    return passes_ == job_.passes;
  }

  const Model& model() const { return model_; }
  long passes() const { return passes_; }
  long steps() const { return steps_; }

 private:
  std::unique_ptr<TEvent> makeEvent(std::size_t e, const std::vector<Form>& forms) {
    const Kind& kind = kKinds[e];
    const auto name = [&](std::size_t i) {
      return i < kind.forms.size() ? forms[static_cast<std::size_t>(kind.forms[i])].name() : "";
    };
    std::unique_ptr<TEvent> event;
    if (kind.interval > 0)
      event = std::make_unique<CountedInterval>(&tally_, e, name(0), name(1));
    else
      event = std::make_unique<TScheduleEvent>(name(0), name(1), 200);
    event->handlers.push_back(std::make_unique<Counter>(&tally_, e));
    if (kind.pulse > 0) event->handlers.push_back(std::make_unique<TOutHandler>(0, kind.pulse));
    return event;
  }

  // After each pass, a second later.
  void check() {
    ++passes_;
    model_.pass(wall_, passes_ % 2 == 0);
    trial_.expect(tally_ == model_.tally(), [&] {
      return job_.zone->name() + " pass " + std::to_string(passes_) + ", " +
             job_.zone->local(wall_).text() + " (" + std::to_string(wall_) + "): " + tally_.text() +
             ", not " + model_.tally().text();
    });
    tally_ = model_.tally();
    ++wall_;
    if (job_.steps && random_() % 499 == 0) step();
    const bool look = passes_ % 4096 == 0;
    if (passes_ == job_.passes || (look && job_.passes == kYearS && !trial_.timeIsLeft()))
      fake_.stopNow();
  }

  // What time servers, people and flat batteries do to a clock. It comes back to where it belongs,
  // so that the hours that matter are seen nevertheless.
  void step() {
    static constexpr long kSteps[] = {1, 1, 2, 3, 30, 61, 900, 3599, 3600, 7200, 86400, 40 * 86400};
    const std::int64_t home = job_.start + passes_;
    std::int64_t to = home;
    if (wall_ == home) {
      const long length = kSteps[random_() % std::size(kSteps)];
      to += random_() % 2 == 0 ? length : -length;
    }
    if (to < 0 || to > std::int64_t{0xFFFFFFFF}) return;
    fake_.stepWallClock(static_cast<long>(to - wall_));
    wall_ = to;
    ++steps_;
  }

  const Job job_;
  FakePlatform fake_;
  Tally tally_;
  Model model_;
  std::mt19937& random_;
  TTrial& trial_;
  std::vector<std::unique_ptr<TEvent>> events_;
  std::int64_t wall_ = 0;  // of the pass that comes next
  long passes_ = 0;
  long steps_ = 0;
};

struct Day {
  int year, month, day;
};
// Midnights at which something may go wrong: months, years, leap days and none, the end of 31 bits.
constexpr Day kMidnights[] = {{2026, 5, 1},  {2027, 1, 1},  {2028, 2, 29}, {2028, 3, 1},
                              {2038, 1, 19}, {2100, 2, 28}, {2100, 3, 1},  {2106, 2, 6}};

// The hours that matter in one zone.
std::vector<Job> hoursOf(const TZone& zone, bool steps) {
  constexpr long kReachS = 1000;
  std::vector<Job> jobs;
  const auto add = [&](std::int64_t center, long reach) {
    jobs.push_back({&zone, center - reach, 2 * reach, steps});
  };
  for (const Day& d : kMidnights) {
    const std::int64_t day = dayNumber(d.year, d.month, d.day) * kDayS;
    add(day - zone.offset(day), kReachS);
  }
  add(std::int64_t{1} << 31, kReachS);
  for (std::size_t i = 1; i < zone.changes().size(); ++i) {
    const std::int64_t when = zone.changes()[i].at;
    for (const int year : {2011, 2026, 2038, 2100}) {
      const std::int64_t first = dayNumber(year, 1, 1) * kDayS;
      // As far as a clock that is put back shows the same hours again.
      const long moved = std::abs(zone.changes()[i].offset - zone.changes()[i - 1].offset);
      if (when >= first && when < first + 366 * kDayS) add(when, std::min(moved, 7200L) + kReachS);
    }
  }
  return jobs;
}

long long g_passes = 0;
long g_steps = 0;

bool runJob(const Job& job, const std::vector<Form>& forms, std::mt19937* random, TTrial* trial) {
  Run run(job, forms, random, trial);
  const bool whole = run.run();
  g_passes += run.passes();
  g_steps += run.steps();
  if (!whole || job.passes != kYearS) return whole;
  // What a wall calendar says of that year: it begins and ends at midnight.
  long workdays = 0, days = 0;
  for (std::int64_t day = dayNumber(2026, 1, 1); day < dayNumber(2027, 1, 1); ++day, ++days)
    workdays += (day + 4) % 7 >= 1 && (day + 4) % 7 <= 5 ? 1 : 0;
  trial->expect(run.model().edges(kOffice) == workdays, [&] {
    return job.zone->name() + ": " + std::to_string(run.model().edges(kOffice)) +
           " mornings at the office, not " + std::to_string(workdays);
  });
  trial->expect(run.model().edges(kWeekend) == 52 && days == 365, [&] {
    return job.zone->name() + ": " + std::to_string(run.model().edges(kWeekend)) + " weekends";
  });
  return whole;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  TTrial trial(argv[2]);
  std::mt19937 random(static_cast<unsigned>(std::atoi(argv[3])));
  const std::vector<TZone> zones = readZones(argv[1]);
  const std::vector<Form> forms = makeForms();

  std::size_t hours = 0;
  for (const bool steps : {false, true})
    for (const TZone& zone : zones)
      for (const Job& job : hoursOf(zone, steps)) {
        runJob(job, forms, &random, &trial);
        ++hours;
      }
  std::printf("%zu midnights and changes of clocks in %zu zones in %.1f s\n", hours, zones.size(),
              trial.secondsPassed());

  const std::int64_t newYear = dayNumber(2026, 1, 1) * kDayS;
  double years = 0;
  for (std::size_t n = 0; trial.timeIsLeft(); ++n) {
    const TZone& zone = zones[n % zones.size()];
    const long long before = g_passes;
    runJob({&zone, newYear - zone.offset(newYear), kYearS, n >= zones.size()}, forms, &random,
           &trial);
    years += static_cast<double>(g_passes - before) / static_cast<double>(kYearS);
  }
  std::printf("%.2f years, %lld passes with %ld steps of the clock in %.1f s, %lld wrong\n", years,
              g_passes, g_steps, trial.secondsPassed(), trial.wrong);
  return trial.status();
}
