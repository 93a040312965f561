// Actions: recording, relay outputs, buzzer, access.
#include <atomic>
#include <chrono>
#include <climits>
#include <thread>

#include "core/status_slots.h"
#include "events/buzzer_handler.h"
#include "events/out_handler.h"
#include "record/ftp_recorder.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "record/usb_recorder.h"
#include "tests/unit/events/event_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Handlers : public EventFixture {};

// --- Recording

TEST_F(Handlers, RecordingHandlerStartsItsRecorder) {
  TUsbRecorder recorder(nullptr, "/usb", "", nullptr);
  THandler handler(&recorder, 0);
  EXPECT_TRUE(handler.onTrigger());
  EXPECT_TRUE(fake.started(recorder));
  EXPECT_EQ(0, fake.count("log_event("));
}

TEST_F(Handlers, PrivacySuppressesTheUsbRecordingAndLogs516) {
  TUsbRecorder recorder(nullptr, "/usb", "", nullptr);
  THandler handler(&recorder, 0);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_FALSE(fake.started(recorder));
  EXPECT_THAT(fake.callsWith("log_event("), ElementsAre("log_event(516)"));
}

TEST_F(Handlers, PrivacySuppressesTheUploadAndLogs511) {
  TFtpRecorder recorder(nullptr);
  THandler handler(&recorder, 0);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_FALSE(fake.started(recorder));
  EXPECT_THAT(fake.callsWith("log_event("), ElementsAre("log_event(511)"));
}

TEST_F(Handlers, PrivacySuppressesTheMailAndLogs506) {
  THandler handler(new TMailRecorder(nullptr, "", ""), 0);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_FALSE(fake.started(*handler.mail()));
  EXPECT_THAT(fake.callsWith("log_event("), ElementsAre("log_event(506)"));
}

TEST_F(Handlers, PrivacySuppressesTheRecordingToTheShareAndLogsNothing) {
  TSmbRecorder recorder("");
  THandler handler(&recorder, 0);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_FALSE(fake.started(recorder));
  EXPECT_EQ(0, fake.count("log_event("));
}

TEST_F(Handlers, HandlerDeletesItsRecorderOnlyWhenThatMails) {
  TUsbRecorder usb(nullptr, "/usb", "", nullptr);
  TFtpRecorder ftp(nullptr);
  TSmbRecorder smb("");
  fake.clearCalls();
  for (TRecorder* recorder : {static_cast<TRecorder*>(&usb), static_cast<TRecorder*>(&ftp),
                              static_cast<TRecorder*>(&smb)}) {
    THandler handler(recorder, 0);
    EXPECT_EQ(nullptr, handler.mail());
  }
  EXPECT_EQ(0, fake.count("delete("));
  {
    auto* const mail = new TMailRecorder(nullptr, "", "");
    THandler handler(mail, 0);
    EXPECT_EQ(mail, handler.mail());
    EXPECT_EQ(mail, handler.recorder());
  }
  EXPECT_EQ(1, fake.count("delete("));
}

TEST_F(Handlers, HandlerWithoutRecorderDoesNothingAndSucceeds) {
  THandler handler(nullptr, 5);
  EXPECT_TRUE(handler.onTrigger());
  EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(Handlers, HandlerWithoutRecorderLogsNothingUnderPrivacy) {
  THandler handler(nullptr, 5);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(Handlers, PrivacyThatCantBeAskedCountsAsOff) {
  THandler handler(nullptr, 0);
  fake.privacy = 1;
  fake.fails("get_pt_privacy_state");
  EXPECT_TRUE(handler.onStarted());
  EXPECT_TRUE(handler.onTrigger());
}

TEST_F(Handlers, StartOfTheActiveTimeTellsWhetherPrivacyIsOff) {
  THandler handler(nullptr, 0);
  EXPECT_TRUE(handler.onStarted());
  fake.privacy = 1;
  EXPECT_FALSE(handler.onStarted());
}

// --- Relay outputs

TEST_F(Handlers, FirstOutputIsPulsedByMessage52) {
  TOutHandler handler(0, 3);
  EXPECT_TRUE(handler.onTrigger());
  EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,52,1,0)"));
  schedulerPasses(3);
  EXPECT_THAT(actions(), IsEmpty());
  schedulerPasses(1);  // one pass more than the duration
  EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,52,0,0)"));
  schedulerPasses(9);
  EXPECT_THAT(actions(), IsEmpty());
}

TEST_F(Handlers, SecondOutputIsPulsedByMessage59) {
  TOutHandler handler(1, 1);
  EXPECT_TRUE(handler.onTrigger());
  schedulerPasses(2);
  EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,59,1,0)", "SendMessage(socmond,59,0,0)"));
}

TEST_F(Handlers, OutputWithDurationZeroOrLessPulsesForTheMinimum) {
  for (const long duration : {0L, -1L, -2000000000L}) {
    TOutHandler handler(0, duration);
    EXPECT_TRUE(handler.onTrigger());
    schedulerPasses(1);
    EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,52,1,0)"));
    schedulerPasses(1);
    EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,52,0,0)"));
  }
}

TEST_F(Handlers, NewTriggerProlongsThePulse) {
  TOutHandler handler(0, 3);
  handler.onTrigger();
  schedulerPasses(2);
  handler.onTrigger();
  actions();
  schedulerPasses(3);
  EXPECT_THAT(actions(), IsEmpty());
  schedulerPasses(1);
  EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,52,0,0)"));
}

// The end of a pulse comes while a trigger has switched the output on and not yet armed its alarm.
TEST_F(Handlers, TriggerAtTheInstantOfAPulsesEndIsNotCut) {
  TOutHandler handler(0, 1);
  handler.onTrigger();
  schedulerPasses(1);
  std::thread end;
  std::atomic<bool> cut{false};
  fake.onCall([&](const std::string& call) {
    if (call == "SendMessage(socmond,52,0,0)") cut = true;
    if (call != "SendMessage(socmond,52,1,0)" || end.joinable()) return;
    end = std::thread([] { scheduler()->pass(false); });
    // The end either cuts the pulse at once or has to wait, which shows by nothing.
    for (int ms = 0; ms < 200 && !cut; ++ms)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  handler.onTrigger();
  end.join();
  fake.onCall(nullptr);
  EXPECT_FALSE(cut);
  EXPECT_EQ(1, registeredAlarms()) << "the end of the new pulse";
  schedulerPasses(2);
  EXPECT_EQ("SendMessage(socmond,52,0,0)", actions().back());
}

TEST_F(Handlers, PrivacySuppressesTheOutputAndLogs526) {
  TOutHandler handler(0, 3);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_THAT(actions(), ElementsAre("log_event(526)"));
  EXPECT_EQ(0, registeredAlarms());
}

TEST_F(Handlers, OutputThatCantBeReachedIsStillTriggered) {
  TOutHandler handler(0, 3);
  fake.fails("SendMessage");
  EXPECT_TRUE(handler.onTrigger());
  EXPECT_EQ(1, registeredAlarms());
}

TEST_F(Handlers, DeletedOutputHandlerEndsItsPulse) {
  {
    TOutHandler handler(1, 100);
    handler.onTrigger();
    actions();
  }
  EXPECT_THAT(actions(), ElementsAre("SendMessage(socmond,59,0,0)"));
  EXPECT_EQ(0, registeredAlarms());
}

TEST_F(Handlers, DeletedOutputHandlerWithoutPulseSendsNothing) {
  {
    TOutHandler untouched(0, 1);
    TOutHandler over(0, 1);
    over.onTrigger();
    schedulerPasses(2);
    actions();
  }
  EXPECT_THAT(actions(), IsEmpty());
}

TEST_F(Handlers, OutputWithoutAFreeAlarmIsSwitchedOffWithItsHandler) {
  char owners[30];
  for (char& owner : owners) {
    ASSERT_TRUE(scheduler()->alarm(&owner, 100, [](void*) { return false; }));
  }
  {
    TOutHandler handler(0, 1);
    EXPECT_TRUE(handler.onTrigger());
    EXPECT_EQ(1, fake.logged("TScheduler::alarm() IPE"));
    schedulerPasses(5);
    EXPECT_FALSE(fake.called("SendMessage(socmond,52,0,0)"));
  }
  EXPECT_TRUE(fake.called("SendMessage(socmond,52,0,0)"));
  for (char& owner : owners) {
    scheduler()->alarm(&owner, 0, nullptr);
  }
}

// --- Buzzer

TEST_F(Handlers, BuzzerRunsTheToneOneAboveItsIndex) {
  TBuzzerHandler handler(0);
  EXPECT_TRUE(handler.onTrigger());
  TBuzzerHandler other(6);
  EXPECT_TRUE(other.onTrigger());
  EXPECT_THAT(fake.calls(), ElementsAre("system(ptcmd BTONE=1 &)", "system(ptcmd BTONE=7 &)"));
}

TEST_F(Handlers, BuzzerTonesAtTheLimitsDoNotOverflow) {
  TBuzzerHandler(INT_MAX).onTrigger();
  TBuzzerHandler(INT_MIN).onTrigger();
  EXPECT_THAT(fake.calls(),
              ElementsAre("system(ptcmd BTONE=2147483647 &)", "system(ptcmd BTONE=-2147483647 &)"));
}

TEST_F(Handlers, PrivacySuppressesTheBuzzerAndLogs522) {
  TBuzzerHandler handler(0);
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_THAT(fake.calls(), ElementsAre("log_event(522)"));
}

TEST_F(Handlers, BuzzerCommandThatFailsCountsAsDone) {
  TBuzzerHandler handler(0);
  fake.fails("os::system");
  EXPECT_TRUE(handler.onTrigger());
}

// --- Access

TEST_F(Handlers, AccessHandlerIsOnWhileItsEventIsActive) {
  TAccessHandler handler;
  EXPECT_TRUE(handler.onStarted());
  EXPECT_EQ(kAccessOn << 5, fake.video.slot(kSlotStatus));
  handler.onStopped();
  EXPECT_EQ(kAccessOff << 5, fake.video.slot(kSlotStatus));
}

TEST_F(Handlers, DeletedAccessHandlerLeavesTheModeOff) {
  {
    TAccessHandler handler;
    handler.onStarted();
  }
  EXPECT_EQ(kAccessOff, TAccessHandler::mode);
  EXPECT_EQ(kAccessOff << 5, fake.video.slot(kSlotStatus));
}

TEST_F(Handlers, AccessModeIsOnlyKeptWhileTheFlushFlagIsZero) {
  TAccessHandler handler;
  TAccessHandler::flush = 0;
  EXPECT_TRUE(handler.onStarted());
  EXPECT_EQ(kAccessOn, TAccessHandler::mode);
  EXPECT_EQ(0, fake.video.slotWrites(kSlotStatus));
  TAccessHandler::update();
  EXPECT_EQ(kAccessOn << 5, fake.video.slot(kSlotStatus));
}

TEST_F(Handlers, AccessModeThatIsPublishedAlreadyIsNotWrittenAgain) {
  fake.video.setSlot(kSlotStatus, kAccessOn << 5 | 1);
  TAccessHandler::setMode(kAccessOn);
  EXPECT_EQ(0, fake.video.slotWrites(kSlotStatus));
}

TEST_F(Handlers, AccessModeReplacesItsThreeBitsAlone) {
  fake.video.setSlot(kSlotStatus, -1);
  TAccessHandler::setMode(kAccessOff);
  EXPECT_EQ(static_cast<int>(0xFFFFFF3F), fake.video.slot(kSlotStatus));
  fake.video.setSlot(kSlotStatus, static_cast<int>(0xC03FFF1F));
  TAccessHandler::setMode(static_cast<char>(0xFF));
  EXPECT_EQ(static_cast<int>(0xC03FFFFF), fake.video.slot(kSlotStatus));
}

TEST_F(Handlers, AccessHandlerIsOnUnderPrivacyToo) {
  TAccessHandler handler;
  fake.privacy = 1;
  EXPECT_TRUE(handler.onStarted());
  EXPECT_EQ(kAccessOn, TAccessHandler::mode);
}

TEST_F(Handlers, FiringAnAccessHandlerChangesNothingAndLogsNothing) {
  TAccessHandler handler;
  EXPECT_TRUE(handler.onTrigger());
  fake.privacy = 1;
  EXPECT_FALSE(handler.onTrigger());
  EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(Handlers, AccessModeWithoutAStreamBufferIsOnlyKept) {
  fake.video.detach();
  TAccessHandler::setMode(kAccessOn);
  EXPECT_EQ(kAccessOn, TAccessHandler::mode);
}

}  // namespace
