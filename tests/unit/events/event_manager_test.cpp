// The event manager: building from the events file, rebuilding, ending.
#include "events/event_manager.h"

#include "core/status_slots.h"
#include "events/buzzer_handler.h"
#include "events/cgi_event.h"
#include "events/input_event.h"
#include "events/interval_event.h"
#include "events/motion_event.h"
#include "events/out_handler.h"
#include "events/schedule_event.h"
#include "platform/application.h"
#include "record/ftp_recorder.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "record/usb_recorder.h"
#include "tests/unit/events/manager_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Manager : public ManagerFixture {};

TEST_F(Manager, MissingEventsFileGivesNoEvent) {
  build();
  EXPECT_THAT(manager->events(), IsEmpty());
  EXPECT_EQ(0, fake.count("log "));
  EXPECT_TRUE(fake.called("set_trigger_in_state(0)"));
  EXPECT_FALSE(scheduler()->running());
}

TEST_F(Manager, MaxOfZeroOrLessReadsNoSection) {
  for (const char* max : {"0", "-1", "-2000000000"}) {
    section("1", "2");
    set("Main", "Max", max);
    build();
    EXPECT_THAT(manager->events(), IsEmpty());
    EXPECT_TRUE(fake.called("set_trigger_in_state(0)"));
    manager.reset();
  }
}

TEST_F(Manager, SchedulerIsStartedForAnAlarmAlsoWhenNoSectionIsRead) {
  char owner = 0;
  set("Main", "Max", "0");
  scheduler()->alarm(&owner, 100, [](void*) { return false; });
  build();
  EXPECT_TRUE(fake.started(*scheduler()));
  scheduler()->alarm(&owner, 0, nullptr);
}

TEST_F(Manager, MaxOfTwoThousandMillionCostsWhatThereIs) {
  section("1", "2");
  section("1999999999", "3");
  set("Main", "Max", "2000000000");
  build();
  EXPECT_EQ(2U, manager->events().size());
  EXPECT_LT(fake.asked("getIniInt"), 100);
}

TEST_F(Manager, SectionsAboveMaxAreNotRead) {
  section("10", "2");
  section("11", "2");
  build();
  EXPECT_EQ(1U, manager->events().size());
  manager.reset();
  set("Main", "Max", "11");
  build();
  EXPECT_EQ(2U, manager->events().size());
}

TEST_F(Manager, HighestSectionComesFirst) {
  section("2", "3");
  section("7", "2");
  section("10", "4");
  build();
  ASSERT_EQ(3U, manager->events().size());
  EXPECT_NE(nullptr, dynamic_cast<TScheduleEvent*>(manager->events()[0].get()));
  EXPECT_NE(nullptr, dynamic_cast<TInputEvent*>(manager->events()[1].get()));
  EXPECT_NE(nullptr, dynamic_cast<TIntervalEvent*>(manager->events()[2].get()));
}

TEST_F(Manager, SourceDecidesTheKindItsPeriodAndItsSlot) {
  const char* const sources[] = {"6", "5", "4", "3", "2", "1", "0"};
  const char* const numbers[] = {"7", "6", "5", "4", "3", "2", "1"};
  for (int i = 0; i < 7; ++i) {
    section(numbers[i], sources[6 - i]);
  }
  build();
  const auto& events = manager->events();
  ASSERT_EQ(7U, events.size());
  EXPECT_NE(nullptr, dynamic_cast<TMotion1Event*>(events[0].get()));
  EXPECT_EQ(nullptr, dynamic_cast<TMotion2Event*>(events[0].get()));
  EXPECT_NE(nullptr, dynamic_cast<TMotion2Event*>(events[1].get()));
  EXPECT_NE(nullptr, dynamic_cast<TInputEvent*>(events[2].get()));
  EXPECT_NE(nullptr, dynamic_cast<TIntervalEvent*>(events[3].get()));
  EXPECT_NE(nullptr, dynamic_cast<TScheduleEvent*>(events[4].get()));
  ASSERT_NE(nullptr, dynamic_cast<TCgiEvent*>(events[5].get()));
  ASSERT_NE(nullptr, dynamic_cast<TCgiEvent*>(events[6].get()));
  EXPECT_EQ(26, dynamic_cast<TCgiEvent*>(events[5].get())->slot());
  EXPECT_EQ(25, dynamic_cast<TCgiEvent*>(events[6].get())->slot());
  std::vector<long> periods;
  for (const auto& event : events) {
    periods.push_back(event->period());
  }
  EXPECT_THAT(periods, ElementsAre(200, 200, 100, 60000, 200, 2000, 2000));
}

TEST_F(Manager, SectionsThatHoldNoLiveEventAreSkippedSilently) {
  section("1", "7");
  section("2", "-1");
  section("3", "2");
  set("3", "Erased", "1");
  section("4", "2", "Never");
  set("4", "Schedule2", "never");
  section("5", "2", "NEVER");
  set("6", "Schedule", "office");  // no "Erased"
  set("6", "Source", "2");
  set("7", "Erased", "0");  // no schedule
  set("7", "Source", "2");
  set("8", "Erased", "0");  // no source
  set("8", "Schedule", "office");
  build();
  EXPECT_THAT(manager->events(), IsEmpty());
  EXPECT_EQ(0, fake.count("log "));
}

TEST_F(Manager, OneScheduleOfTwoIsEnough) {
  section("1", "2", "Never");
  set("1", "Schedule2", "office");
  section("2", "2", "");
  build();
  EXPECT_EQ(2U, manager->events().size());
}

TEST_F(Manager, HandlersAreAttachedInTheirOrder) {
  section("1", "3");
  for (const char* key : {"Smb", "Ftp", "Usb", "Mail", "Access", "Out2", "Out1"}) {
    set("1", key, "1");
  }
  allowShare();
  set("1", "Out1Duration", "5");
  set("1", "BuzzerTone", "4");
  build();
  ASSERT_EQ(1U, manager->events().size());
  const auto& handlers = manager->events()[0]->handlers;
  ASSERT_EQ(8U, handlers.size());
  auto* first = dynamic_cast<TOutHandler*>(handlers[0].get());
  auto* second = dynamic_cast<TOutHandler*>(handlers[1].get());
  auto* buzzer = dynamic_cast<TBuzzerHandler*>(handlers[2].get());
  ASSERT_TRUE(first != nullptr && second != nullptr && buzzer != nullptr);
  EXPECT_EQ(0, first->output());
  EXPECT_EQ(5, first->duration());
  EXPECT_EQ(1, second->output());
  EXPECT_EQ(3, second->duration());
  EXPECT_EQ(4, buzzer->tone());
  EXPECT_NE(nullptr, dynamic_cast<TAccessHandler*>(handlers[3].get()));
  EXPECT_NE(nullptr, dynamic_cast<TMailRecorder*>(handlers[4]->recorder()));
  EXPECT_NE(nullptr, dynamic_cast<TUsbRecorder*>(handlers[5]->recorder()));
  EXPECT_NE(nullptr, dynamic_cast<TFtpRecorder*>(handlers[6]->recorder()));
  EXPECT_NE(nullptr, dynamic_cast<TSmbRecorder*>(handlers[7]->recorder()));
  std::vector<long> durations;
  for (std::size_t i = 4; i < handlers.size(); ++i) {
    durations.push_back(handlers[i]->duration());
  }
  EXPECT_THAT(durations, ElementsAre(0, 0, 0, 3));
}

TEST_F(Manager, SwitchesCountOnlyWhenTheyAreExactlyOne) {
  section("1", "3");
  for (const char* key : {"Out1", "Out2", "Buzzer", "Access", "Mail", "Usb", "Ftp", "Smb"}) {
    set("1", key, "2");
  }
  build();
  ASSERT_EQ(1U, manager->events().size());
  EXPECT_THAT(manager->events()[0]->handlers, IsEmpty());
  EXPECT_EQ(0, fake.count("log "));
}

TEST_F(Manager, EventWithoutActionsIsListedButNotRegistered) {
  section("1", "2", "always");
  set("1", "Buzzer", "0");
  build();
  ASSERT_EQ(1U, manager->events().size());
  EXPECT_FALSE(registered("always"));
  EXPECT_FALSE(manager->events()[0]->running());
  EXPECT_TRUE(fake.called("set_trigger_in_state(1)"));
}

TEST_F(Manager, InputIconTellsWhetherAnyEventWatchesTheInput) {
  section("1", "2");
  section("2", "3");
  build();
  EXPECT_THAT(fake.callsWith("set_trigger_in_state"), ElementsAre("set_trigger_in_state(1)"));
  manager.reset();
  EXPECT_THAT(fake.callsWith("set_trigger_in_state"),
              ElementsAre("set_trigger_in_state(1)", "set_trigger_in_state(0)"));
}

TEST_F(Manager, SectionsShareOneUsbRecorderWithTheFolderOfTheHighest) {
  section("1", "3");
  section("2", "3");
  section("3", "3");
  set("1", "Usb", "1");
  set("1", "UsbFolder", "low");
  set("2", "Usb", "1");
  set("2", "UsbFolder", "high");
  set("3", "UsbFolder", "unused");
  build();
  const auto& events = manager->events();
  ASSERT_EQ(3U, events.size());
  EXPECT_EQ(1U, events[0]->handlers.size());
  EXPECT_EQ(events[1]->handlers.back()->recorder(), events[2]->handlers.back()->recorder());
  anyRecorder()->start(0);
  fake.at(0.1, [this] { fake.video2.push("\xff\xd8picture"); });
  fake.stopAfter(3);
  fake.runBody(*anyRecorder());
  EXPECT_TRUE(fake.files.exists("/usb/high/20240603/120002.jpg"))
      << testing::PrintToString(fake.files.paths());
}

TEST_F(Manager, RefreshStopsTheSchedulerBeforeItCleansAndStartsItAfterwards) {
  section("1", "3");
  build();
  scheduler()->stop(false);
  fake.clearCalls();
  manager->refresh();
  const auto calls = fake.calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ("stop(pthread,0)", calls[0]);
  EXPECT_TRUE(fake.started(*scheduler()));
  EXPECT_THAT(fake.pausesUs(), ElementsAre(2000000));
}

TEST_F(Manager, RefreshDoesNotPublishAccessModesInBetween) {
  section("1", "3");
  set("1", "Access", "1");
  build();
  EXPECT_EQ(1, fake.video.slotWrites(kSlotStatus));
  EXPECT_EQ(kAccessOff << 5, fake.video.slot(kSlotStatus));
  manager->refresh();
  EXPECT_EQ(1, fake.video.slotWrites(kSlotStatus));  // none, off, none, off: still off
  EXPECT_EQ(1, TAccessHandler::flush);
  manager.reset();
  EXPECT_EQ(0, fake.video.slot(kSlotStatus));
  EXPECT_EQ(kAccessNone, TAccessHandler::mode);
}

TEST_F(Manager, AccessEventBoundToAlwaysIsPublishedAsOnAfterTheRefresh) {
  section("1", "4", "always");
  set("1", "Access", "1");
  fake.at(1.9, [this] { EXPECT_EQ(0, fake.video.slot(kSlotStatus)); });
  build();
  EXPECT_EQ(kAccessOn << 5, fake.video.slot(kSlotStatus));
}

TEST_F(Manager, AccessEventBoundToAlwaysIsStoppedByTheCleanAlone) {
  section("1", "4", "always");
  set("1", "Access", "1");
  build();
  schedulerPasses(10);
  fake.clearCalls();
  manager->clean();
  EXPECT_THAT(fake.callsWith("sbSetUserdata(video,24,"),
              ElementsAre("sbSetUserdata(video,24,32)", "sbSetUserdata(video,24,0)"));
}

TEST_F(Manager, CleanTellsTheHandlersOfAScheduleEventItsEndBeforeItDeletesThem) {
  section("1", "4", "always");
  build();
  std::vector<std::string> told;
  manager->events()[0]->handlers.push_back(std::make_unique<ToldHandler>("a", &told));
  schedulerPasses(10);
  EXPECT_THAT(told, ElementsAre("started a"));  // by the scheduler's first evaluation
  manager->clean();
  EXPECT_THAT(told, ElementsAre("started a", "stopped a", "delete a"));
}

TEST_F(Manager, RefreshThrowsAwayWhatTheLastOneBuilt) {
  section("1", "3", "OFFICE");
  section("2", "2", "Always");
  build();
  EXPECT_TRUE(registered("OFFICE"));
  EXPECT_TRUE(registered("always"));
  fake.ini.file(kEvents, "[3]\nErased=0\nSource=5\nSchedule=night\nOut1=1\n");
  manager->refresh();
  ASSERT_EQ(1U, manager->events().size());
  EXPECT_FALSE(registered("OFFICE"));
  EXPECT_FALSE(registered("always"));
  EXPECT_TRUE(registered("night"));
}

TEST_F(Manager, RefreshStopsARunningRecording) {
  section("1", "3");
  set("1", "Usb", "1");
  build();
  anyRecorder()->start(1000);
  EXPECT_TRUE(fake.started(*anyRecorder()));
  fake.clearCalls();
  manager->clean();
  EXPECT_THAT(manager->events(), IsEmpty());
  EXPECT_EQ(2, fake.count("end(pthread)"));
  EXPECT_EQ(2, fake.count("delete(pthread)"));
}

TEST_F(Manager, OutputThatIsOnIsSwitchedOffByARefresh) {
  section("1", "3", "always");
  set("1", "Out1", "1");
  set("1", "Out1Duration", "1000");
  build();
  EXPECT_TRUE(fake.called("SendMessage(socmond,52,1,0)"));
  EXPECT_FALSE(fake.called("SendMessage(socmond,52,0,0)"));
  fake.ini.remove(kEvents);
  manager->refresh();
  EXPECT_EQ(1, fake.count("SendMessage(socmond,52,0,0)"));
  EXPECT_EQ(0, registeredAlarms());
  EXPECT_FALSE(fake.started(*scheduler()));
}

TEST_F(Manager, TwoEventsBoundToTheSameNameLeaveNothingBehind) {
  section("1", "3", "always");
  section("2", "4", "ALWAYS");
  section("3", "2", "office");
  section("4", "3", "office");
  build();
  schedulerPasses(4);
  manager->clean();
  EXPECT_FALSE(registered("always"));
  EXPECT_FALSE(registered("office"));
  EXPECT_EQ(0, registeredAlarms());
}

TEST_F(Manager, EventsAreStoppedFromTheLastToTheFirstBeforeAnyIsDeleted) {
  section("1", "2", "office");
  section("2", "2", "night");
  build();
  scheduler()->stop(false);
  fake.clearCalls();
  manager->clean();
  EXPECT_THAT(fake.calls(), ElementsAre("stop(pthread,0)", "stop(pthread,0)", "end(pthread)",
                                        "delete(pthread)", "end(pthread)", "delete(pthread)"));
}

// --- Ends

TEST_F(Manager, StopOfTheProcessCutsTheRefreshShort) {
  section("1", "3");
  const auto before = fake.clock.monotonicUs();
  TApplication::stopped = true;
  build();
  EXPECT_EQ(before, fake.clock.monotonicUs());
  EXPECT_EQ(1, TAccessHandler::flush);
  manager.reset();
}

TEST_F(Manager, RefreshWithTenActiveEventsTakesItsPauseOnly) {
  for (const char* number : {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}) {
    section(number, number[0] % 2 != 0 ? "5" : "2", "always");
  }
  build();
  for (const auto& event : manager->events()) {
    EXPECT_TRUE(fake.started(*event));
  }
  const auto before = fake.clock.monotonicUs();
  manager->refresh();
  EXPECT_EQ(2000000, fake.clock.monotonicUs() - before);
}

TEST_F(Manager, BodiesThatDoNotEndAreLeftBehindWithTheRecordersTheyUse) {
  section("1", "2", "always");
  set("1", "Usb", "1");
  section("2", "3", "office");  // has no body
  set("2", "Usb", "1");
  build();
  // Nobody else can reach them later: the test gives back what the daemon may not.
  const std::unique_ptr<TRecorder> recorder(anyRecorder());
  const std::unique_ptr<TEvent> event(manager->events()[1].get());
  scheduler()->stop(false);
  fake.threadStuck("pthread");
  fake.clearCalls();
  TEventManager::leftBehind = false;
  const auto before = fake.clock.monotonicUs();
  manager->clean();
  EXPECT_EQ(5000000, fake.clock.monotonicUs() - before);
  EXPECT_EQ(1, fake.logged("thread pthread does not end, left behind"));
  EXPECT_TRUE(TEventManager::leftBehind);
  EXPECT_EQ(1, fake.count("delete(pthread)"));  // the event without a body
  EXPECT_THAT(manager->events(), IsEmpty());
  EXPECT_FALSE(registered("always"));
  fake.ini.set(kEvents, "1", "Schedule", "office");  // whose body is not started
  manager->refresh();
  EXPECT_EQ(2U, manager->events().size());
  EXPECT_NE(recorder.get(), anyRecorder());
  manager.reset();
}

TEST_F(Manager, RecorderThatDoesNotEndIsLeftBehind) {
  section("1", "3", "office");
  set("1", "Usb", "1");
  build();
  std::unique_ptr<TRecorder> recorder(anyRecorder());
  recorder->start(0);
  fake.threadStuck("pthread");
  fake.clearCalls();
  TEventManager::leftBehind = false;
  manager->clean();
  EXPECT_EQ(1, fake.logged("thread pthread does not end, left behind"));
  EXPECT_TRUE(TEventManager::leftBehind);
  EXPECT_EQ(1, fake.count("delete(pthread)"));  // the event
  manager.reset();
}

}  // namespace
