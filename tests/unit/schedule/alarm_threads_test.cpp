// Alarms under many threads at once: armers, cancellers and the passes of the scheduler.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "schedule/scheduler.h"
#include "tests/fakes/fake_platform.h"
#include "tests/slow_build.h"

struct SchedulerAccess {
  static const std::vector<TAlarm>& alarms(const TScheduler& scheduler) {
    return scheduler.alarms_;
  }
};

namespace {

// Meets as many threads as it is made for, again and again.
class Meeting {
 public:
  explicit Meeting(int threads) : threads_(threads) {}
  void meet() {
    const int round = round_;
    if (++here_ == threads_) {
      here_ = 0;
      ++round_;
    }
    // At first without giving the processor away, so that all go on at the same instant.
    for (int spins = 0; round_ == round; ++spins)
      if (spins > kSpins) std::this_thread::yield();
  }

 private:
  static constexpr int kSpins = 300;
  const int threads_;
  std::atomic<int> here_{0};
  std::atomic<int> round_{0};
};

class AlarmThreads : public testing::Test {
 protected:
  AlarmThreads() { fake_.keepCalls(false); }

  // Runs the scheduler's passes on a thread of its own until end().
  void begin(TScheduler& scheduler) {
    passes_ = std::thread([this, &scheduler] {
      while (!ended_) {
        scheduler.pass(false);
        std::this_thread::yield();
      }
    });
  }
  void end() {
    ended_ = true;
    passes_.join();
  }

  FakePlatform fake_;
  std::atomic<bool> ended_{false};
  std::thread passes_;
};

struct Counter {
  std::atomic<int> calls{0};
  static bool count(void* self) {
    ++static_cast<Counter*>(self)->calls;
    return true;
  }
};

TEST_F(AlarmThreads, TwoThreadsThatArmAtTheSameInstantBothSucceed) {
  constexpr int kRounds = 3000 / kSlow;
  TScheduler scheduler(2);
  Meeting meeting(2);
  const auto arm = [&] {
    Counter owner;
    for (int round = 0; round < kRounds; ++round) {
      meeting.meet();
      ASSERT_TRUE(scheduler.alarm(&owner, 1000, Counter::count));
      meeting.meet();
      ASSERT_TRUE(scheduler.alarm(&owner, 0, nullptr));
    }
  };
  std::thread other(arm);
  arm();
  other.join();
}

TEST_F(AlarmThreads, ThreadsThatArmForOneOwnerGiveItOneAlarmWhileSlotsChangeHands) {
  constexpr int kRounds = 400 / kSlow;
  constexpr int kSlots = 30;
  TScheduler scheduler(kSlots);
  Counter owner;
  Meeting meeting(2);
  const auto& slots = SchedulerAccess::alarms(scheduler);
  std::atomic<bool> ended{false};
  std::thread others([&] {
    std::vector<Counter> few(kSlots / 2);
    while (!ended)
      for (const bool on : {true, false})
        for (Counter& other : few) scheduler.alarm(&other, on ? 1000 : 0, Counter::count);
  });
  const auto arm = [&](bool first) {
    for (int round = 0; round < kRounds; ++round) {
      meeting.meet();
      EXPECT_TRUE(scheduler.alarm(&owner, 1000, Counter::count));
      meeting.meet();
      if (!first) continue;
      EXPECT_EQ(std::count_if(slots.begin(), slots.end(),
                              [&](const TAlarm& slot) { return slot.serves(&owner); }),
                1);
      while (scheduler.alarm(&owner, 0, nullptr)) {
      }
    }
  };
  std::thread other(arm, false);
  arm(true);
  other.join();
  ended = true;
  others.join();
}

// An owner that is filled with what it is not to be once it is gone.
struct Checked {
  explicit Checked(int ownKind) : kind(ownKind) {}
  ~Checked() { kind = -1; }
  int kind;

  template <int kKind>
  static bool call(void* self) {
    EXPECT_EQ(static_cast<Checked*>(self)->kind, kKind);
    return kKind != 0;
  }
};

TEST_F(AlarmThreads, CallbackAndOwnerAlwaysBelongTogetherAndNothingCallsACancelledOwner) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 1500 / kSlow;
  const TAlarm::Callback callbacks[] = {Checked::call<0>, Checked::call<1>, Checked::call<2>};
  TScheduler scheduler(3);  // fewer than threads: slots change hands all the time
  begin(scheduler);
  std::vector<std::thread> armers;
  for (unsigned seed = 0; seed < kThreads; ++seed)
    armers.emplace_back([&, seed] {
      std::mt19937 random(seed);
      for (int round = 0; round < kRounds; ++round) {
        const int kind = static_cast<int>(random() % 3);
        auto owner = std::make_unique<Checked>(kind);
        for (auto arms = random() % 4; arms-- > 0;) {
          scheduler.alarm(owner.get(), 1 + static_cast<long>(random() % 3), callbacks[kind]);
          for (auto wait = random() % 50; wait-- > 0;) std::this_thread::yield();
        }
        scheduler.alarm(owner.get(), 0, nullptr);
        // Freed at once: whatever still called it would be seen.
      }
    });
  for (auto& armer : armers) armer.join();
  end();
  Counter owners[3];
  for (Counter& owner : owners) EXPECT_TRUE(scheduler.alarm(&owner, 5, Counter::count));
}

// An owner whose callback lasts until the test lets it go.
struct Held {
  std::atomic<bool> inside{false};
  std::atomic<bool> released{false};
  std::atomic<bool> finished{false};

  static bool call(void* self) {
    auto& held = *static_cast<Held*>(self);
    held.inside = true;
    while (!held.released) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    held.finished = true;
    return false;
  }
};

TEST_F(AlarmThreads, ACancellationWaitsForTheCallbackThatRuns) {
  constexpr int kRounds = 20 / kSlow;
  for (int round = 0; round < kRounds; ++round) {
    TScheduler scheduler(1);
    Held owner;
    ASSERT_TRUE(scheduler.alarm(&owner, 1, Held::call));
    ended_ = false;
    begin(scheduler);
    while (!owner.inside) std::this_thread::yield();
    std::atomic<bool> cancelling{false};
    std::thread canceller([&] {
      cancelling = true;
      scheduler.alarm(&owner, 0, nullptr);
      EXPECT_TRUE(owner.finished);
    });
    while (!cancelling) std::this_thread::yield();
    owner.released = true;
    canceller.join();
    end();
  }
}

TEST_F(AlarmThreads, OthersArmAndCancelWhileACallbackRuns) {
  TScheduler scheduler(3);
  Held held;
  Counter other;
  ASSERT_TRUE(scheduler.alarm(&held, 1, Held::call));
  begin(scheduler);
  while (!held.inside) std::this_thread::yield();
  EXPECT_TRUE(scheduler.alarm(&other, 5, Counter::count));
  EXPECT_TRUE(scheduler.alarm(&other, 0, nullptr));
  // Armed anew: does not wait either, and does not run out, however many passes come before end().
  EXPECT_TRUE(scheduler.alarm(&held, INT32_MAX, Held::call));
  held.released = true;
  while (!held.finished) std::this_thread::yield();
  end();
  EXPECT_TRUE(scheduler.alarm(&held, 0, nullptr)) << "the alarm armed meanwhile was lost";
}

TEST_F(AlarmThreads, ACallbackArmsOthersWhileItsOwnerIsBeingCancelled) {
  struct Chain {
    TScheduler scheduler{2};
    Counter next;
    std::atomic<int> calls{0};
    static bool call(void* self) {
      auto& chain = *static_cast<Chain*>(self);
      ++chain.calls;
      chain.scheduler.alarm(&chain.next, 1000, Counter::count);
      chain.scheduler.alarm(&chain.next, 0, nullptr);
      return true;
    }
  } chain;
  begin(chain.scheduler);
  for (int round = 0; round < 500; ++round) {
    chain.calls = 0;
    ASSERT_TRUE(chain.scheduler.alarm(&chain, 1, Chain::call));
    while (chain.calls == 0) std::this_thread::yield();
    ASSERT_TRUE(chain.scheduler.alarm(&chain, 0, nullptr));
    const int calls = chain.calls;
    for (int i = 0; i < 20; ++i) std::this_thread::yield();
    ASSERT_EQ(chain.calls, calls) << "called after its cancellation";
  }
  end();
}

struct Listener {
  std::atomic<bool> gone{false};
  static void call(void* self, bool) { EXPECT_FALSE(static_cast<Listener*>(self)->gone); }
};

TEST_F(AlarmThreads, SchedulesComeAndGoWhileTheyAreEvaluated) {
  TScheduler scheduler(1);
  std::atomic<bool> ended{false};
  std::thread passes([&] {
    while (!ended) {
      scheduler.pass(true);
      std::this_thread::yield();
    }
  });
  fake_.ini.file(TSchedule::inf,
                 "[Main]\nMax=1\n[1]\nErased=0\nName=day\nWeekdays=1111111\n"
                 "Items=1\nStart1=00:00:00\nStop1=23:59:59\n");
  const auto work = [&](const char* name) {
    for (int round = 0; round < 300; ++round) {
      Listener listener;
      ASSERT_TRUE(scheduler.add(&listener, name, Listener::call));
      std::this_thread::yield();
      scheduler.del(name);
      listener.gone = true;
    }
  };
  std::thread other(work, "always");
  work("day");
  other.join();
  ended = true;
  passes.join();
  EXPECT_EQ(scheduler.getIndex("day"), -1);
}

}  // namespace
