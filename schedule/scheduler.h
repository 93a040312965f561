// The clock of the daemon: one thread that watches weekly schedules and countdown alarms.
#pragma once

#include <vector>

#include "platform/thread.h"
#include "schedule/alarm.h"
#include "schedule/mutex.h"
#include "schedule/schedule.h"

// One pass a second counts the alarms; every second pass evaluates the schedules. Alarms therefore
// have a grain of one second and schedules one of two seconds, whatever the wall clock does.
//
// Threads: add(), del(), refresh() and alarm() on any thread. Schedule callbacks run on the
// scheduler thread with the lock held: they must not call add(), del() or refresh(). Alarm
// callbacks run there without the lock.
class TScheduler : public PThread {
 public:
  // `slots`: how many alarms there can be at once. Does not start the thread.
  explicit TScheduler(long slots);
  ~TScheduler() override;

  // Registers the schedule called `name`. `name` is not copied and must live until del().
  // Returns true iff it was added; false when the name is empty, "never" (in any case), registered
  // already, or names no usable schedule.
  // Intended: a name that is registered stays with its first owner; a later one gets no calls.
  bool add(void* owner, const char* name, TSchedule::Callback callback);

  // Removes the schedule registered under exactly `name`. When it returns, no callback of it runs
  // or will come.
  void del(const char* name);

  // Returns the position of the schedule registered under exactly `name`, -1 if there is none.
  // Takes no lock: for a callback, or while nobody registers.
  int getIndex(const char* name) const;

  // Starts the thread if a schedule is registered or an alarm active; otherwise asks it to end.
  void refresh();

  // Arms, lengthens or cancels the alarm of `owner`, see TAlarm::activate(). Does not start the
  // thread. After a cancellation no callback of `owner` runs or will come: on another thread it
  // waits for one that runs; from inside the callback itself it returns at once.
  // Returns true iff the owner had an alarm or has got one.
  // Logs 3 "TScheduler::alarm() IPE" when every slot is taken.
  bool alarm(void* owner, long seconds, TAlarm::Callback callback);

  // For an alarm callback: returns true iff the alarm of its `owner` was armed anew since the
  // callback was decided upon, so that what it is about to end has begun again.
  bool rearmed(const void* owner);

  // One pass of the body: alarms, and schedules if `withSchedules`. Scheduler thread.
  // Intended: while another thread holds the lock the schedules miss this pass.
  void pass(bool withSchedules);

 protected:
  // Intended: the first pass after a start leaves out the schedules, the second does not, and so
  // on in turn.
  void execute() override;

 private:
  friend struct SchedulerAccess;  // tests
  bool anyAlarm() const;
  TAlarm* slotOf(const void* owner);
  bool claimSlot(void* owner, long seconds, TAlarm::Callback callback);

  TMutex lock_;                 // guards schedules_
  std::vector<TAlarm> alarms_;  // never resized
  std::vector<TSchedule> schedules_;
  TMutex armLock_;  // one armer at a time chooses a slot, so that an owner never gets two
};

// The scheduler of the process, with 30 alarm slots.
TScheduler* scheduler();
