// The kinds of events: what they watch, when they fire, what they log.
#include <climits>

#include "capture/camera.h"
#include "core/status_slots.h"
#include "events/buzzer_handler.h"
#include "events/cgi_event.h"
#include "events/input_event.h"
#include "events/interval_event.h"
#include "events/motion_event.h"
#include "events/out_handler.h"
#include "events/schedule_event.h"
#include "record/ftp_recorder.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "record/usb_recorder.h"
#include "tests/unit/events/event_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr long kHourMs = 3600 * 1000;
constexpr int kPending = INT_MIN;  // the status word with the pending input trigger alone

// A camera whose motion windows a test moves.
class MovingCamera : public TCamera {
 public:
  MovingCamera() : TCamera("") {}
  int getMotionStatus(int window) override { return status[window]; }
  int status[2] = {0, 0};
};

class EventKinds : public EventFixture {
 protected:
  EventKinds() { fake.clearCalls(); }

  // One handler of each kind that can be logged, and those that can't.
  void attachAll(TEvent& event) {
    event.handlers.push_back(std::make_unique<TOutHandler>(0, 1));
    event.handlers.push_back(std::make_unique<TOutHandler>(1, 1));
    event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
    event.handlers.push_back(std::make_unique<TAccessHandler>());
    event.handlers.push_back(std::make_unique<THandler>(&usb, 0));
    event.handlers.push_back(std::make_unique<THandler>(&ftp, 0));
    event.handlers.push_back(std::make_unique<THandler>(new TMailRecorder(nullptr, "", ""), 0));
    event.handlers.push_back(std::make_unique<THandler>(&smb, 0));
    event.handlers.push_back(std::make_unique<THandler>(nullptr, 0));
  }

  std::vector<std::string> logged() {
    std::vector<std::string> result = fake.callsWith("log_event(");
    fake.clearCalls();
    return result;
  }

  TUsbRecorder usb{nullptr, "/usb", "", nullptr};
  TFtpRecorder ftp{nullptr};
  TSmbRecorder smb{""};
  std::vector<std::string> told;
};

// --- Motion

TEST_F(EventKinds, MotionEventsWatchOneWindowEach) {
  MovingCamera camera;
  TMotion1Event first("office", "", 200, &camera);
  TMotion2Event second("office", "", 200, &camera);
  EXPECT_FALSE(first.onDetect());
  EXPECT_FALSE(second.onDetect());
  camera.status[0] = 1;
  EXPECT_TRUE(first.onDetect());
  EXPECT_FALSE(second.onDetect());
  camera.status[0] = 0;
  camera.status[1] = -1;
  EXPECT_FALSE(first.onDetect());
  EXPECT_TRUE(second.onDetect());
}

TEST_F(EventKinds, MotionEventsWithoutACameraNeverFire) {
  TMotion1Event first("office", "", 200, nullptr);
  TMotion2Event second("office", "", 200, nullptr);
  EXPECT_FALSE(first.onDetect());
  EXPECT_FALSE(second.onDetect());
}

TEST_F(EventKinds, MotionEventPausesTwoSecondsAfterFiringAndLogsNothing) {
  MovingCamera camera;
  camera.status[0] = camera.status[1] = 1;
  TMotion1Event first("office", "", 200, &camera);
  TMotion2Event second("office", "", 200, &camera);
  for (TEvent* event : {static_cast<TEvent*>(&first), static_cast<TEvent*>(&second)}) {
    attachAll(*event);
    fake.clearCalls();
    event->onHandle();
    EXPECT_THAT(fake.pausesUs(), ElementsAre(2000000));
    EXPECT_EQ(2, fake.count("SendMessage("));
    EXPECT_EQ(1, fake.count("system(ptcmd"));
    EXPECT_THAT(logged(), IsEmpty());
  }
}

TEST_F(EventKinds, OneMovementFiresOncePerPauseAndPeriod) {
  MovingCamera camera;
  camera.status[0] = 1;
  TMotion1Event event("always", "", 200, &camera);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  event.refresh();
  fake.stopAfter(11);  // 2.2 s a cycle
  fake.runBody(event);
  EXPECT_EQ(5, fake.count("system(ptcmd"));
}

// --- Digital input

TEST_F(EventKinds, InputEventFiresWhileTheStatusWordIsNegative) {
  TInputEvent event("office", "", 100);
  for (const int word : {INT_MIN, -1, -1000}) {
    fake.video.setSlot(kSlotStatus, word);
    EXPECT_TRUE(event.onDetect());
    EXPECT_THAT(logged(), ElementsAre("log_event(501)"));
  }
  for (const int word : {0, 1, INT_MAX}) {
    fake.video.setSlot(kSlotStatus, word);
    EXPECT_FALSE(event.onDetect());
    EXPECT_THAT(logged(), IsEmpty());
  }
}

TEST_F(EventKinds, InputEventWithoutAStreamBufferDoesNotFire) {
  TInputEvent event("office", "", 100);
  fake.video.setSlot(kSlotStatus, kPending);
  fake.video.detach();
  EXPECT_FALSE(event.onDetect());
}

TEST_F(EventKinds, InputEventLogsWhatItsHandlersDid) {
  TInputEvent event("office", "", 100);
  attachAll(event);
  event.onHandle();
  EXPECT_THAT(logged(), ElementsAre("log_event(523)", "log_event(523)", "log_event(519)",
                                    "log_event(513)", "log_event(508)", "log_event(503)"));
}

TEST_F(EventKinds, InputEventPausesTwoSecondsAfterFiring) {
  TInputEvent event("always", "", 100);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  fake.video.setSlot(kSlotStatus, kPending);
  event.refresh();
  fake.clearCalls();
  fake.stopAfterPasses(4);
  fake.runBody(event);
  EXPECT_THAT(fake.pausesUs(), ElementsAre(2000000, 100000, 2000000, 100000));
  EXPECT_THAT(fake.callsWith("log_event("),
              ElementsAre("log_event(501)", "log_event(519)", "log_event(501)", "log_event(519)"));
}

TEST_F(EventKinds, ActionsThatPrivacySuppressedAreLoggedAsSuppressedOnly) {
  TInputEvent event("office", "", 100);
  attachAll(event);
  fake.privacy = 1;
  event.onHandle();
  EXPECT_THAT(logged(), ElementsAre("log_event(526)", "log_event(526)", "log_event(522)",
                                    "log_event(516)", "log_event(511)", "log_event(506)"));
}

// --- Interval

TEST_F(EventKinds, IntervalEventFiresAtOnceAndThenEveryInterval) {
  TIntervalEvent event("office", "", 5000);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  event.onStarted();
  EXPECT_THAT(fake.calls(),
              ElementsAre("log_event(502)", "system(ptcmd BTONE=1 &)", "log_event(521)"));
  fake.clearCalls();
  schedulerPasses(5);
  EXPECT_EQ(0, fake.count("system("));
  schedulerPasses(1);
  EXPECT_EQ(1, fake.count("system("));
  schedulerPasses(10);
  EXPECT_EQ(3, fake.count("system("));
  EXPECT_EQ(0, fake.count("log_event(502)"));
  EXPECT_FALSE(event.running());
}

TEST_F(EventKinds, IntervalOfOneSecondIsArmedWithOne) {
  TIntervalEvent event("office", "", 1000);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  event.onStarted();
  fake.clearCalls();
  schedulerPasses(6);
  EXPECT_EQ(5, fake.count("system("));
}

TEST_F(EventKinds, IntervalBelowOneSecondFiresOnceOnly) {
  for (const long period : {0L, 999L, -999L, -5000L, static_cast<long>(INT_MIN)}) {
    TIntervalEvent event("office", "", period);
    event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
    event.onStarted();
    EXPECT_EQ(0, registeredAlarms());
    schedulerPasses(4);
    EXPECT_EQ(1, fake.count("system("));
    fake.clearCalls();
  }
}

TEST_F(EventKinds, IntervalEventStopsWithItsSchedule) {
  TIntervalEvent event("office", "", 1000);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  event.onStarted();
  event.onStopped();
  fake.clearCalls();
  schedulerPasses(6);
  EXPECT_EQ(0, fake.count("system("));
}

TEST_F(EventKinds, DeletedIntervalEventLeavesNoAlarm) {
  {
    TIntervalEvent event("office", "", kHourMs);
    event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
    event.onStarted();
    EXPECT_EQ(1, registeredAlarms());
  }
  EXPECT_EQ(0, registeredAlarms());
}

TEST_F(EventKinds, IntervalEventLogsWhatItsHandlersDid) {
  TIntervalEvent event("office", "", kHourMs);
  attachAll(event);
  event.onStarted();
  EXPECT_THAT(logged(),
              ElementsAre("log_event(502)", "log_event(524)", "log_event(524)", "log_event(521)",
                          "log_event(514)", "log_event(509)", "log_event(504)"));
}

TEST_F(EventKinds, FirstIntervalEventBoundToAlwaysFiresAtTheRefreshAndAtTheFirstPass) {
  TIntervalEvent event("always", "", kHourMs);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  event.refresh();
  EXPECT_EQ(1, fake.count("log_event(502)"));
  EXPECT_EQ(1, fake.count("system("));
  schedulerPasses(2);
  EXPECT_EQ(2, fake.count("log_event(502)"));
  EXPECT_EQ(2, fake.count("system("));
  EXPECT_EQ(1, registeredAlarms());
}

// --- Steps of the wall clock

TEST_F(EventKinds, StepsOfTheWallClockChangeNoPauseNoIntervalAndNoPulse) {
  MovingCamera camera;
  camera.status[0] = 1;
  for (const long step : {1L, -1L, 3600L, -3600L, 86400L, -86400L}) {
    SCOPED_TRACE(step);
    TMotion1Event motion("always", "", 200, &camera);
    motion.handlers.push_back(std::make_unique<TOutHandler>(1, 3));
    TIntervalEvent interval("office", "", 2000);
    interval.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
    motion.run();
    fake.onPause([this, step](long) { fake.stepWallClock(step); });
    const auto before = fake.clock.monotonicUs();
    fake.stopAfterPasses(4);
    fake.runBody(motion);
    EXPECT_EQ(4400000, fake.clock.monotonicUs() - before);
    interval.onStarted();
    fake.clearCalls();
    const auto pulse = fake.clock.monotonicUs();
    schedulerPasses(7);
    EXPECT_EQ(7000000, fake.clock.monotonicUs() - pulse);
    // The pulse ends on the fourth pass, the interval comes on the third, fifth and seventh.
    EXPECT_THAT(actions(),
                ElementsAre("system(ptcmd BTONE=1 &)", "log_event(521)",
                            "SendMessage(socmond,59,0,0)", "system(ptcmd BTONE=1 &)",
                            "log_event(521)", "system(ptcmd BTONE=1 &)", "log_event(521)"));
    fake.onPause(nullptr);
  }
}

// --- Schedule

TEST_F(EventKinds, ScheduleEventTellsItsHandlersFromTheLastToTheFirst) {
  TScheduleEvent event("office", "", 200);
  for (const char* name : {"a", "b", "c"}) {
    event.handlers.push_back(std::make_unique<ToldHandler>(name, &told));
  }
  event.onStarted();
  EXPECT_THAT(told, ElementsAre("started c", "started b", "started a"));
  told.clear();
  event.onStopped();
  EXPECT_THAT(told, ElementsAre("stopped c", "stopped b", "stopped a"));
  EXPECT_FALSE(event.running());
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(EventKinds, ScheduleEventFollowsItsSchedule) {
  TScheduleEvent event("office", "", 200);  // seconds 0 to 9
  event.handlers.push_back(std::make_unique<ToldHandler>("a", &told));
  event.refresh();
  schedulerPasses(6);
  EXPECT_THAT(told, ElementsAre("started a"));
  schedulerPasses(8);
  EXPECT_THAT(told, ElementsAre("started a", "stopped a"));
}

TEST_F(EventKinds, ScheduleEventBoundToAlwaysIsStartedAndNotStopped) {
  TScheduleEvent event("night", "", 200);
  TScheduleEvent always("always", "", 200);
  always.handlers.push_back(std::make_unique<ToldHandler>("a", &told));
  always.refresh();
  EXPECT_THAT(told, ElementsAre("started a"));
  schedulerPasses(20);
  EXPECT_EQ(0, std::count(told.begin(), told.end(), "stopped a"));
}

// --- Web triggers

TEST_F(EventKinds, WebEventFiresOnItsSlotsOwnNumber) {
  TCgiEvent first("office", "", 2000, kSlotWebTrigger1);
  TCgiEvent second("office", "", 2000, kSlotWebTrigger2);
  EXPECT_FALSE(first.onDetect());
  EXPECT_FALSE(second.onDetect());
  fake.video.setSlot(25, 25);
  EXPECT_FALSE(second.onDetect());
  EXPECT_TRUE(first.onDetect());
  EXPECT_FALSE(first.onDetect());  // consumed
  fake.video.setSlot(26, 26);
  EXPECT_FALSE(first.onDetect());
  EXPECT_TRUE(second.onDetect());
  EXPECT_FALSE(second.onDetect());
}

TEST_F(EventKinds, WebEventConsumesAnotherNumberWithoutFiring) {
  TCgiEvent event("office", "", 2000, 25);
  for (const int value : {26, 0, 1, -1}) {
    fake.video.setSlot(25, value);
    EXPECT_FALSE(event.onDetect());
    EXPECT_FALSE(fake.video.slotWritten(25));
  }
}

TEST_F(EventKinds, WebEventLogsWhatItsHandlersDidButNoUsbRecording) {
  TCgiEvent event("office", "", 2000, 25);
  attachAll(event);
  event.onHandle();
  EXPECT_TRUE(fake.started(usb));
  EXPECT_THAT(logged(), ElementsAre("log_event(525)", "log_event(525)", "log_event(520)",
                                    "log_event(510)", "log_event(505)"));
}

TEST_F(EventKinds, RecordingToTheShareIsStartedByAllKindsAndLoggedByNone) {
  TInputEvent input("office", "", 100);
  TIntervalEvent interval("office", "", kHourMs);
  TCgiEvent web("office", "", 2000, 25);
  for (TEvent* event : {static_cast<TEvent*>(&input), static_cast<TEvent*>(&interval),
                        static_cast<TEvent*>(&web)}) {
    event->handlers.push_back(std::make_unique<THandler>(&smb, 5));
    fake.privacy = 0;
    event->onHandle();
    EXPECT_TRUE(fake.started(smb));
    smb.stop(false);
    fake.privacy = 1;
    event->onHandle();
    EXPECT_FALSE(fake.started(smb));
  }
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(EventKinds, WebEventPausesTwoSecondsAfterFiring) {
  TCgiEvent event("always", "", 2000, 26);
  event.handlers.push_back(std::make_unique<TBuzzerHandler>(0));
  event.refresh();
  fake.video.setSlot(26, 26);
  fake.clearCalls();
  fake.stopAfterPasses(3);
  fake.runBody(event);
  EXPECT_THAT(fake.pausesUs(), ElementsAre(2000000, 2000000, 2000000));
  EXPECT_THAT(fake.callsWith("log_event("), ElementsAre("log_event(520)"));
}

}  // namespace
