#include "schedule/alarm.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <vector>

namespace {

// An owner that counts its calls and answers as told.
struct Owner {
  int calls = 0;
  bool repeat = true;
  std::function<void()> during = [] {};

  static bool call(void* self) {
    auto& owner = *static_cast<Owner*>(self);
    ++owner.calls;
    owner.during();
    return owner.repeat;
  }
  static bool otherCall(void* self) {
    static_cast<Owner*>(self)->calls += 100;
    return true;
  }
};

// Runs `passes` passes. Returns those, from 1, on which the owner was called.
std::vector<int> callsIn(TAlarm& alarm, const Owner& owner, int passes) {
  std::vector<int> result;
  for (int pass = 1; pass <= passes; ++pass) {
    const int before = owner.calls;
    alarm.test();
    if (owner.calls != before) result.push_back(pass);
  }
  return result;
}

TEST(Alarm, ANewSlotIsFree) {
  TAlarm alarm;
  EXPECT_FALSE(alarm.active());
  EXPECT_FALSE(alarm.test());
  EXPECT_FALSE(alarm.serves(nullptr));
}

TEST(Alarm, FiresOnPassNPlusOneThenEveryN) {
  Owner owner;
  TAlarm alarm;
  EXPECT_TRUE(alarm.activate(&owner, 5, Owner::call));
  EXPECT_EQ(callsIn(alarm, owner, 22), (std::vector<int>{6, 11, 16, 21}));
}

TEST(Alarm, APeriodOfOneFiresOnEveryPassFromTheSecond) {
  Owner owner;
  TAlarm alarm;
  alarm.activate(&owner, 1, Owner::call);
  EXPECT_EQ(callsIn(alarm, owner, 4), (std::vector<int>{2, 3, 4}));
}

TEST(Alarm, ACallbackThatReturnsFalseIsCalledOnceAndFreesTheSlot) {
  Owner owner;
  Owner other;
  owner.repeat = false;
  TAlarm alarm;
  alarm.activate(&owner, 3, Owner::call);
  EXPECT_FALSE(alarm.activate(&other, 1, Owner::call));
  EXPECT_EQ(callsIn(alarm, owner, 20), (std::vector<int>{4}));
  EXPECT_FALSE(alarm.active());
  EXPECT_TRUE(alarm.activate(&other, 1, Owner::call));
  EXPECT_EQ(callsIn(alarm, other, 2), (std::vector<int>{2}));
  EXPECT_EQ(owner.calls, 1);
}

TEST(Alarm, TellsWhetherTheSlotWasActive) {
  Owner owner;
  owner.repeat = false;
  TAlarm alarm;
  alarm.activate(&owner, 1, Owner::call);
  EXPECT_TRUE(alarm.test());
  EXPECT_TRUE(alarm.test());  // the last call
  EXPECT_FALSE(alarm.test());
}

TEST(Alarm, ALongerWaitExtendsTheOneInProgress) {
  Owner owner;
  TAlarm alarm;
  alarm.activate(&owner, 8, Owner::call);
  callsIn(alarm, owner, 5);
  EXPECT_EQ(alarm.counter(), 3);
  EXPECT_TRUE(alarm.activate(&owner, 10, Owner::call));
  EXPECT_EQ(alarm.counter(), 10);
  EXPECT_EQ(callsIn(alarm, owner, 31), (std::vector<int>{11, 21, 31}));
}

TEST(Alarm, AShorterWaitLeavesTheOneInProgressAndReplacesTheCallback) {
  Owner owner;
  TAlarm alarm;
  alarm.activate(&owner, 10, Owner::call);
  callsIn(alarm, owner, 2);
  EXPECT_EQ(alarm.counter(), 8);
  EXPECT_TRUE(alarm.activate(&owner, 2, Owner::otherCall));
  EXPECT_EQ(alarm.counter(), 8);
  EXPECT_EQ(callsIn(alarm, owner, 19), (std::vector<int>{9, 19}));  // and the period stays
  EXPECT_EQ(owner.calls, 200);
}

TEST(Alarm, AnEqualWaitChangesNothingInTheCounter) {
  Owner owner;
  TAlarm alarm;
  alarm.activate(&owner, 4, Owner::call);
  EXPECT_TRUE(alarm.activate(&owner, 4, Owner::call));
  EXPECT_EQ(callsIn(alarm, owner, 5), (std::vector<int>{5}));
}

TEST(Alarm, ZeroSecondsOrNoCallbackCancels) {
  Owner owner;
  TAlarm alarm;
  for (const long seconds : {0L, -1L, LONG_MIN}) {
    alarm.activate(&owner, 1, Owner::call);
    EXPECT_TRUE(alarm.activate(&owner, seconds, Owner::call));
    EXPECT_FALSE(alarm.active());
    EXPECT_FALSE(alarm.test());
  }
  alarm.activate(&owner, 1, Owner::call);
  EXPECT_TRUE(alarm.activate(&owner, 5, nullptr));
  EXPECT_FALSE(alarm.active());
  EXPECT_EQ(callsIn(alarm, owner, 20), std::vector<int>{});
}

TEST(Alarm, AnActiveSlotIsNotGivenToAnotherOwner) {
  Owner owner;
  Owner other;
  TAlarm alarm;
  alarm.activate(&owner, 2, Owner::call);
  EXPECT_FALSE(alarm.activate(&other, 0, nullptr));
  EXPECT_FALSE(alarm.activate(&other, 9, Owner::call));
  EXPECT_EQ(callsIn(alarm, owner, 3), (std::vector<int>{3}));
  EXPECT_TRUE(alarm.serves(&owner));
  EXPECT_FALSE(alarm.serves(&other));
}

TEST(Alarm, ARearmInsideTheOwnCallbackIsKept) {
  Owner owner;
  owner.repeat = false;
  TAlarm alarm;
  owner.during = [&] {
    if (owner.calls > 1) return;
    EXPECT_TRUE(alarm.activate(&owner, 3, Owner::call));
  };
  alarm.activate(&owner, 2, Owner::call);
  EXPECT_EQ(callsIn(alarm, owner, 30), (std::vector<int>{3, 7}));
  EXPECT_FALSE(alarm.active());
}

TEST(Alarm, ARearmWithAnotherPeriodInsideARepeatingCallbackSetsThePeriod) {
  Owner owner;
  TAlarm alarm;
  owner.during = [&] {
    if (owner.calls == 1) alarm.activate(&owner, 7, Owner::call);
  };
  alarm.activate(&owner, 2, Owner::call);
  EXPECT_EQ(callsIn(alarm, owner, 20), (std::vector<int>{3, 10, 17}));
}

TEST(Alarm, ACancellationInsideTheOwnCallbackEndsEvenARepeatingAlarm) {
  Owner owner;
  TAlarm alarm;
  owner.during = [&] {
    EXPECT_TRUE(alarm.activate(&owner, 0, nullptr));
    alarm.waitForCallback();  // returns: it is this very thread
    EXPECT_TRUE(alarm.serves(&owner));
    Owner other;
    EXPECT_FALSE(alarm.activate(&other, 1, Owner::call)) << "the slot is still in use";
  };
  alarm.activate(&owner, 2, Owner::call);
  EXPECT_EQ(callsIn(alarm, owner, 20), (std::vector<int>{3}));
  EXPECT_FALSE(alarm.serves(&owner));
}

TEST(Alarm, TheLongestPeriodNeitherOverflowsNorFires) {
  Owner owner;
  TAlarm alarm;
  EXPECT_TRUE(alarm.activate(&owner, LONG_MAX, Owner::call));
  EXPECT_EQ(callsIn(alarm, owner, 1000), std::vector<int>{});
  EXPECT_EQ(alarm.counter(), LONG_MAX - 1000);
  EXPECT_TRUE(alarm.activate(&owner, LONG_MAX, Owner::call));
  EXPECT_EQ(alarm.counter(), LONG_MAX);
}

}  // namespace
