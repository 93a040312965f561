// What housekeeping has to do and when, calculated independently, and what it does on the fake
// platform.
#pragma once

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "core/housekeeping.h"
#include "core/status_slots.h"
#include "tests/fakes/fake_platform.h"

// What happened, and how many milliseconds after the start.
struct Act {
  long long ms;
  std::string what;
  bool operator==(const Act& other) const { return ms == other.ms && what == other.what; }
};

inline std::ostream& operator<<(std::ostream& out, const Act& act) {
  return out << act.ms << " ms: " << act.what;
}

inline constexpr const char* kSync = "system(/etc/init.d/ntpc &)";
inline constexpr const char* kDst = "system(/sbin/updatedst &)";
inline constexpr const char* kCheck = "system(rtchk -reload)";
inline constexpr const char* kChecked = "sbSetUserdata(video,14,1)";
inline constexpr const char* kChanged = "sbSetUserdata(video,23,1)";
inline constexpr const char* kRefreshed = "set_trigger_in_state(0)";

// What comes from outside, by milliseconds after the start.
struct Script {
  long syncSeconds = 1800;
  long long wallAtStart = 0;                          // seconds since 1970
  std::map<long long, long> wallSteps;                // seconds
  std::map<long long, long> configChanges;            // the sync interval from then on
  std::pair<long long, long long> sambaGone{-1, -1};  // enabled, and not mounted from .. to
};

// The day's work by plain arithmetic: passes of 300 ms, a block each 3 s, refreshes of 2 s.
class Oracle {
 public:
  // `hourAt(seconds)`: which hour clocks show at a point, in seconds since 1970.
  using HourAt = std::function<int(long long)>;
  Oracle(const Script& script, HourAt hourAt) : script_(script), hourAt_(std::move(hourAt)) {}

  std::vector<Act> run(long long untilMs) {
    refresh();  // the events are built once at the start
    lastHour_ = hour();
    long sync = script_.syncSeconds;
    long long syncSince = 0, dstSince = 0;
    for (long long pass = 1; now_ < untilMs; ++pass, now_ += 300) {
      if (pass % 10 != 0) continue;
      const long long block = pass / 10;
      const int hourNow = hour();
      if (sync > 0 && now_ - syncSince >= sync * 1000LL) {
        note(kSync);
        syncSince = now_;
      }
      if (now_ - dstSince >= 86400000) {
        note(kDst);
        dstSince = now_;
      }
      for (const auto& change : script_.configChanges)
        if (change.first > seen_ && change.first <= now_) {
          changed_ = true;
          sync = change.second;
        }
      seen_ = now_;
      if (changed_) {
        changed_ = false;
        refresh();
        syncSince = now_;
      }
      if (block % 1200 == 0 || lastHour_ < hourNow) {
        note(kCheck);
        note(kChecked);
        lastHour_ = hourNow;
      }
      const bool gone = now_ >= script_.sambaGone.first && now_ < script_.sambaGone.second;
      if (block % 16 == 0 && gone) {
        note(kChanged);
        changed_ = true;
      }
    }
    return std::move(acts_);
  }

 private:
  void note(const char* what) { acts_.push_back({now_, what}); }

  void refresh() {
    note(kRefreshed);
    now_ += 2000;
  }

  int hour() const {
    long long seconds = script_.wallAtStart + now_ / 1000;
    for (const auto& step : script_.wallSteps)
      if (step.first <= now_) seconds += step.second;
    return hourAt_(seconds);
  }

  const Script script_;
  const HourAt hourAt_;
  std::vector<Act> acts_;
  long long now_ = 0;
  long long seen_ = -1;
  bool changed_ = false;
  int lastHour_ = 0;
};

// Every command and every slot that is written, and the end of a refresh. The share is mounted and
// unmounted by the events.
inline bool isAct(const std::string& call) {
  const auto begins = [&call](const std::string& text) { return call.rfind(text, 0) == 0; };
  return call == kRefreshed || begins("sbSetUserdata(") ||
         (begins("system(") && !begins("system(/etc/init.d/smb.sh"));
}

inline void setSync(FakePlatform* fake, long seconds) {
  // A little more, because the fraction in hours is cut.
  fake->ini.set("/etc/sys.conf", "System", "Sync Schedule",
                std::to_string((static_cast<double>(seconds) + 0.01) / 3600));
}

// Runs housekeeping under the script, from now on. Returns what it did.
inline std::vector<Act> runHousekeeping(FakePlatform* fake, const Script& script,
                                        long long untilMs) {
  const auto seconds = [](long long ms) { return static_cast<double>(ms) / 1000; };
  fake->ini.set("/etc/sys.conf", "Samba", "Enable", script.sambaGone.first >= 0 ? "1" : "0");
  fake->smbMounted();
  setSync(fake, script.syncSeconds);
  for (const auto& step : script.wallSteps)
    fake->at(seconds(step.first), [fake, &step] { fake->stepWallClock(step.second); });
  for (const auto& change : script.configChanges)
    fake->at(seconds(change.first), [fake, &change] {
      setSync(fake, change.second);
      fake->video.setSlot(kSlotConfigChanged, 1);
    });
  if (script.sambaGone.first >= 0) {
    fake->at(seconds(script.sambaGone.first), [fake] { fake->smbUnmounted(); });
    fake->at(seconds(script.sambaGone.second), [fake] { fake->smbMounted(); });
  }
  // The share is mounted and unmounted by others here.
  fake->onCommand([](const std::string&) { return 0; });

  const auto start = fake->clock.monotonicUs();
  std::vector<Act> acts;
  fake->keepCalls(false);
  fake->onCall([&](const std::string& call) {
    if (isAct(call)) acts.push_back({(fake->clock.monotonicUs() - start) / 1000, call});
  });
  THousekeeping housekeeping(nullptr);
  while ((fake->clock.monotonicUs() - start) / 1000 < untilMs) housekeeping.pass();
  fake->onCall(nullptr);
  return acts;
}
