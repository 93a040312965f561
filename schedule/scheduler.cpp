#include "schedule/scheduler.h"

#include <strings.h>

#include <cstring>
#include <mutex>

#include "platform/log.h"
#include "platform/os.h"

namespace {
constexpr long kAlarmSlots = 30;
constexpr unsigned kPassS = 1;
}  // namespace

TScheduler::TScheduler(long slots)
    : PThread("pthread"), alarms_(static_cast<std::size_t>(slots < 0 ? 0 : slots)) {}

TScheduler::~TScheduler() {
  // Also when it was asked to end already: its body may not have returned yet.
  stop(true);
}

bool TScheduler::add(void* owner, const char* name, TSchedule::Callback callback) {
  if (name == nullptr || *name == '\0' || strcasecmp(name, "never") == 0) return false;
  std::lock_guard<TMutex> guard(lock_);
  if (getIndex(name) >= 0) return false;
  TSchedule schedule(owner, name, callback);
  if (!schedule.set(name)) return false;
  schedules_.push_back(schedule);
  return true;
}

void TScheduler::del(const char* name) {
  std::lock_guard<TMutex> guard(lock_);
  const int index = getIndex(name);
  if (index >= 0) schedules_.erase(schedules_.begin() + index);
}

int TScheduler::getIndex(const char* name) const {
  for (std::size_t i = 0; i < schedules_.size(); ++i)
    if (std::strcmp(schedules_[i].name(), name) == 0) return static_cast<int>(i);
  return -1;
}

bool TScheduler::anyAlarm() const {
  for (auto slot = alarms_.rbegin(); slot != alarms_.rend(); ++slot)
    if (slot->active()) return true;
  return false;
}

void TScheduler::refresh() {
  std::lock_guard<TMutex> guard(lock_);
  if (!schedules_.empty() || anyAlarm())
    run();
  else
    stop(false);
}

TAlarm* TScheduler::slotOf(const void* owner) {
  for (auto slot = alarms_.rbegin(); slot != alarms_.rend(); ++slot)
    if (slot->serves(owner)) return &*slot;
  return nullptr;
}

bool TScheduler::claimSlot(void* owner, long seconds, TAlarm::Callback callback) {
  for (auto slot = alarms_.rbegin(); slot != alarms_.rend(); ++slot)
    if (slot->activate(owner, seconds, callback)) return true;
  logEx(3, "TScheduler::alarm() IPE");
  return false;
}

bool TScheduler::alarm(void* owner, long seconds, TAlarm::Callback callback) {
  const bool cancel = seconds < 1 || callback == nullptr;
  TAlarm* slot = nullptr;
  bool had = false;
  {
    std::lock_guard<TMutex> guard(armLock_);
    slot = slotOf(owner);
    // The alarm may run out, and another owner take its slot, before it is changed here.
    had = slot != nullptr && slot->activate(owner, seconds, callback);
    if (!had && !cancel) return claimSlot(owner, seconds, callback);
  }
  // Without the lock: the callback that is waited for may arm alarms itself.
  if (cancel && slot != nullptr) slot->waitForCallback();
  return had;
}

bool TScheduler::rearmed(const void* owner) {
  const TAlarm* const slot = slotOf(owner);
  return slot != nullptr && slot->rearmed(owner);
}

void TScheduler::pass(bool withSchedules) {
  TDateTime now;
  now.set();
  for (auto slot = alarms_.rbegin(); slot != alarms_.rend(); ++slot) slot->test();

  if (!withSchedules || !lock_.trylock()) return;
  std::lock_guard<TMutex> guard(lock_, std::adopt_lock);
  const auto weekday = static_cast<unsigned>(now[kFieldWeekday]);
  // By position: callbacks leave the table alone, as they hold the lock.
  for (std::size_t i = schedules_.size(); i-- > 0;) schedules_[i].test(now, weekday);
}

void TScheduler::execute() {
  for (bool withSchedules = false; running(); withSchedules = !withSchedules) {
    pass(withSchedules);
    os::sleep(kPassS);
  }
}

TScheduler* scheduler() {
  static TScheduler theScheduler(kAlarmSlots);
  return &theScheduler;
}
