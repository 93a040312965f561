// What the tests of the event engine share.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/status_slots.h"
#include "events/access_handler.h"
#include "events/event.h"
#include "schedule/scheduler.h"
#include "tests/fakes/fake_platform.h"

// A fresh platform for each test; the process-wide state of the engine starts as in a new process,
// and nothing may be left registered at the end.
class EventFixture : public testing::Test {
 public:
  ~EventFixture() override {
    EXPECT_EQ(0, registeredAlarms()) << "an alarm was left behind";
    for (const char* name : {"always", "office", "OFFICE", "night"}) {
      EXPECT_FALSE(registered(name)) << name << " was left registered";
    }
    scheduler()->stop(false);
  }

 protected:
  EventFixture() {
    TAccessHandler::mode = kAccessNone;
    TAccessHandler::flush = 1;
    fake.setTimeZone("UTC");
    fake.setWallClock("2024-06-03 12:00:00");  // a Monday
    fake.ini.file("/etc/schedule.conf",
                  "[1]\nErased=0\nName=office\nWeekdays=1111111\nItems=1\n"
                  "Start1=12:00:00\nStop1=12:00:09\n"
                  "[2]\nErased=0\nName=night\nWeekdays=1111111\nItems=1\n"
                  "Start1=12:00:05\nStop1=12:00:19\n");
    fake.clearCalls();
  }

  static bool registered(const char* name) { return scheduler()->getIndex(name) >= 0; }

  // Alarms that are armed now: what a table of 30 slots can't take any more.
  long registeredAlarms() {
    constexpr long kSlots = 30;
    static char owners[kSlots];
    long free = 0;
    for (char& owner : owners) {
      free += scheduler()->alarm(&owner, 1, [](void*) { return false; }) ? 1 : 0;
    }
    for (char& owner : owners) {
      scheduler()->alarm(&owner, 0, nullptr);
    }
    return kSlots - free;
  }

  // Lets the scheduler make `count` passes, a second each; it tests the schedules in the second,
  // the fourth and so on.
  void schedulerPasses(long count) {
    scheduler()->run();
    fake.stopAfterPasses(count);
    fake.runBody(*scheduler());
  }

  // The calls that tell what was done, without the bookkeeping of threads.
  std::vector<std::string> actions() {
    std::vector<std::string> result;
    for (const std::string& call : fake.takeCalls()) {
      const std::string function = call.substr(0, call.find('('));
      if (function != "run" && function != "stop" && function != "end" && function != "delete") {
        result.push_back(call);
      }
    }
    return result;
  }

  FakePlatform fake;
};

// A handler that says what it is told.
class ToldHandler : public THandler {
 public:
  ToldHandler(std::string name, std::vector<std::string>* told, bool works = true)
      : THandler(nullptr, 0), name_(std::move(name)), told_(told), works_(works) {}
  ~ToldHandler() override { told_->push_back("delete " + name_); }

  bool onTrigger() override {
    told_->push_back("trigger " + name_);
    return works_;
  }
  bool onStarted() override {
    told_->push_back("started " + name_);
    return true;
  }
  void onStopped() override { told_->push_back("stopped " + name_); }

 private:
  std::string name_;
  std::vector<std::string>* told_;
  bool works_;
};
