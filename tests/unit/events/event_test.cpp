// The base of all events: its schedules, its body, its handlers.
#include "events/buzzer_handler.h"
#include "events/out_handler.h"
#include "tests/unit/events/event_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Events : public EventFixture {
 protected:
  std::vector<std::string> told;
};

// An event whose condition is scripted and that says what it is told.
class ToldEvent : public TEvent {
 public:
  ToldEvent(const char* schedule, const char* schedule2, std::vector<std::string>* told,
            long period = 200)
      : TEvent(schedule, schedule2, period), told_(told) {}

  bool onDetect() override {
    ++polls;
    return detects;
  }
  void onLogEvent(const THandler&) override { told_->push_back("log"); }
  void onStarted() override {
    told_->push_back("started");
    TEvent::onStarted();
  }
  void onStopped() override {
    told_->push_back("stopped");
    TEvent::onStopped();
  }
  void attach(const char* name, bool works = true) {
    handlers.push_back(std::make_unique<ToldHandler>(name, told_, works));
  }

  bool detects = false;
  long polls = 0;

 private:
  std::vector<std::string>* told_;
};

TEST_F(Events, EventWithoutHandlersIsNeverRegisteredAndNeverRuns) {
  for (const char* name : {"always", "office"}) {
    ToldEvent event(name, "never", &told);
    event.refresh();
    EXPECT_FALSE(registered(name));
    EXPECT_FALSE(event.running());
  }
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Events, AlwaysInAnyMixOfCasesAndInEitherNameRegistersAlwaysAlone) {
  const char* const names[][2] = {{"always", "office"},
                                  {"AlWaYs", "Never"},
                                  {"office", "ALWAYS"},
                                  {"", "Always"},
                                  {"ALWAYS", "always"}};
  for (const auto& pair : names) {
    told.clear();
    ToldEvent event(pair[0], pair[1], &told);
    event.attach("a");
    event.refresh();
    EXPECT_TRUE(registered("always"));
    EXPECT_FALSE(registered("office"));
    EXPECT_FALSE(registered("AlWaYs"));
    EXPECT_FALSE(registered("ALWAYS"));
    EXPECT_FALSE(registered("Always"));
    EXPECT_THAT(told, ElementsAre("started"));
    EXPECT_TRUE(event.running());
  }
}

TEST_F(Events, FirstEventBoundToAlwaysIsStartedOnceMoreByTheFirstSchedulerPass) {
  std::vector<std::string> toldOther;
  ToldEvent first("always", "", &told);
  ToldEvent second("always", "", &toldOther);
  first.attach("a");
  second.attach("b");
  first.refresh();
  second.refresh();
  EXPECT_THAT(told, ElementsAre("started"));
  EXPECT_THAT(toldOther, ElementsAre("started"));
  schedulerPasses(2);
  EXPECT_THAT(told, ElementsAre("started", "started"));
  EXPECT_THAT(toldOther, ElementsAre("started"));
  schedulerPasses(6);
  EXPECT_THAT(told, ElementsAre("started", "started"));
}

TEST_F(Events, BothSchedulesAreRegistered) {
  ToldEvent event("office", "night", &told);
  event.attach("a");
  event.refresh();
  EXPECT_TRUE(registered("office"));
  EXPECT_TRUE(registered("night"));
  EXPECT_FALSE(event.running());
}

TEST_F(Events, NamesOfNoScheduleAreNotRegistered) {
  ToldEvent event("Never", "unknown", &told);
  event.attach("a");
  event.refresh();
  EXPECT_FALSE(registered("Never"));
  EXPECT_FALSE(registered("unknown"));
}

TEST_F(Events, OverlappingSchedulesKeepTheEventRunningUntilBothHaveEnded) {
  ToldEvent event("office", "night", &told);  // seconds 0 to 9 and 5 to 19
  event.attach("a");
  event.refresh();
  schedulerPasses(4);
  EXPECT_THAT(told, ElementsAre("started"));
  schedulerPasses(10);
  EXPECT_THAT(told, ElementsAre("started"));
  EXPECT_TRUE(event.running());
  schedulerPasses(10);
  EXPECT_THAT(told, ElementsAre("started", "stopped"));
  EXPECT_FALSE(event.running());
}

TEST_F(Events, StopWithoutAStartIsLoggedAndTheNextStartDoesNotStart) {
  ToldEvent event("office", "", &told);
  TEvent::onCallback(&event, false);
  EXPECT_TRUE(fake.called("log 2 TEvent::onCallback() IPE, ref = -1"));
  TEvent::onCallback(&event, false);
  EXPECT_TRUE(fake.called("log 2 TEvent::onCallback() IPE, ref = -2"));
  TEvent::onCallback(&event, true);  // still below zero: said again
  EXPECT_EQ(2, fake.count("log 2 TEvent::onCallback() IPE, ref = -1"));
  TEvent::onCallback(&event, true);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_FALSE(event.running());
  EXPECT_EQ(3, fake.count("log "));
  TEvent::onCallback(&event, true);
  EXPECT_THAT(told, ElementsAre("started"));
}

TEST_F(Events, DeletedEventLeavesNothingRegisteredWhateverTheCaseOfItsNames) {
  {
    ToldEvent event("OFFICE", "Night", &told);
    event.attach("a");
    event.refresh();
    EXPECT_TRUE(registered("OFFICE"));
    EXPECT_TRUE(registered("Night"));
  }
  EXPECT_FALSE(registered("OFFICE"));
  EXPECT_FALSE(registered("Night"));
  {
    ToldEvent event("Always", "", &told);
    event.attach("a");
    event.refresh();
    EXPECT_TRUE(registered("always"));
  }
  EXPECT_FALSE(registered("always"));
}

TEST_F(Events, DeletedEventKeepsTheRegistrationOfAnotherEventWithTheSameName) {
  ToldEvent owner("office", "office", &told);
  owner.attach("a");
  owner.refresh();
  {
    std::vector<std::string> other;
    ToldEvent second("office", "night", &other);
    second.attach("b");
    second.refresh();
  }
  EXPECT_TRUE(registered("office"));
  EXPECT_FALSE(registered("night"));
  schedulerPasses(2);
  EXPECT_THAT(told, ElementsAre("started"));
}

TEST_F(Events, DeletedEventThatSaysAlwaysTooKeepsTheRegistrationOfTheFirst) {
  ToldEvent owner("always", "", &told);
  owner.attach("a");
  owner.refresh();
  {
    std::vector<std::string> other;
    ToldEvent second("always", "", &other);
    second.attach("b");
    second.refresh();
  }
  EXPECT_TRUE(registered("always"));
}

TEST_F(Events, WithdrawnEventIsNotCalledBackAnyMore) {
  ToldEvent event("office", "night", &told);
  event.attach("a");
  event.refresh();
  event.withdraw();
  schedulerPasses(8);
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Events, BodyPollsOncePerPeriodWhileItRuns) {
  ToldEvent event("always", "", &told, 200);
  event.attach("a");
  event.refresh();
  fake.clearCalls();
  fake.stopAfterPasses(5);
  fake.runBody(event);
  EXPECT_EQ(5, event.polls);
  EXPECT_THAT(fake.pausesUs(), ElementsAre(200000, 200000, 200000, 200000, 200000));
  EXPECT_EQ(std::vector<std::string>{"started"}, told);  // never fired
}

TEST_F(Events, BodyWithAPeriodOf2000PollsEveryTwoSeconds) {
  ToldEvent event("always", "", &told, 2000);
  event.attach("a");
  event.refresh();
  fake.clearCalls();
  fake.stopAfter(10);
  fake.runBody(event);
  EXPECT_EQ(5, event.polls);
  EXPECT_THAT(fake.pausesUs(), ElementsAre(2000000, 2000000, 2000000, 2000000, 2000000));
}

TEST_F(Events, HandlersAreFiredInTheirOrderAndThoseThatWorkedAreLogged) {
  ToldEvent event("office", "", &told);
  event.attach("a");
  event.attach("b", false);
  event.attach("c");
  event.onHandle();
  EXPECT_THAT(told, ElementsAre("trigger a", "log", "trigger b", "trigger c", "log"));
}

TEST_F(Events, DetectionFiresTheHandlersBeforeThePause) {
  ToldEvent event("always", "", &told);
  event.attach("a");
  event.detects = true;
  event.refresh();
  fake.stopAfterPasses(2);
  fake.runBody(event);
  EXPECT_THAT(told, ElementsAre("started", "trigger a", "log", "trigger a", "log"));
}

TEST_F(Events, DeletedEventDeletesItsHandlersInTheirOrder) {
  {
    ToldEvent event("office", "", &told);
    event.attach("a");
    event.attach("b");
    event.attach("c");
  }
  EXPECT_THAT(told, ElementsAre("delete a", "delete b", "delete c"));
}

TEST_F(Events, NamesAreCutTo63CharactersAndNullIsEmpty) {
  const std::string exact(63, 'x');
  const std::string tooLong(64, 'x');
  TEvent event(exact.c_str(), tooLong.c_str(), 1);
  EXPECT_EQ(exact, event.schedule());
  EXPECT_EQ(exact, event.schedule2());
  TEvent none(nullptr, nullptr, 1);
  EXPECT_STREQ("", none.schedule());
  EXPECT_STREQ("", none.schedule2());
}

TEST_F(Events, BaseNeverDetectsAndLogsNothing) {
  TEvent event("office", "", 200);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(1));
  EXPECT_FALSE(event.onDetect());
  event.onLogEvent(*event.handlers[0]);
  EXPECT_THAT(fake.callsWith("log_event("), IsEmpty());
}

TEST_F(Events, EventLeftBehindFiresNothingAndItsOutputsAreOff) {
  ToldEvent event("office", "", &told);
  event.handlers.push_back(std::make_unique<TOutHandler>(0, 100));
  event.attach("b");
  event.handlers[0]->onTrigger();
  actions();
  event.leaveBehind();
  EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,52,0,0)"));
  EXPECT_EQ(0, registeredAlarms());
  event.onHandle();
  EXPECT_THAT(actions(), IsEmpty());
  EXPECT_THAT(told, IsEmpty());
}

}  // namespace
