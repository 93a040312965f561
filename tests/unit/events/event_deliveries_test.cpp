// What the event manager builds for mail, FTP and the share: who shares a recorder, who owns it,
// and how it ends.
#include <algorithm>
#include <memory>

#include "capture/camera.h"
#include "record/avi_writer.h"
#include "record/ftp_recorder.h"
#include "record/jpg_writer.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "tests/unit/events/manager_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class Deliveries : public ManagerFixture {
 protected:
  Deliveries() {
    fake.video2.setDepth(2);
    fake.clearCalls();
  }

  // An interval event that does `action` alone.
  void delivery(const char* number, const char* action, const char* schedule = "office") {
    section(number, "3", schedule);
    set(number, "Buzzer", "0");
    set(number, action, "1");
  }
  const THandler& last(std::size_t event) const {
    return *manager->events()[event]->handlers.back();
  }
  // Fires the event, lets its last recorder record pictures, and waits for the end.
  void fire(std::size_t event) {
    manager->events()[event]->onHandle();
    run(*last(event).recorder());
  }
  void run(TRecorder& body) {
    for (int i = 1; i < 100; ++i) {
      fake.at(i / 10.0, [this] { fake.video2.push("\xff\xd8picture"); });
    }
    while (body.running() && fake.runBody(body)) {
    }
  }
  std::vector<std::string> receivers() const {
    std::vector<std::string> result;
    for (const auto& mail : fake.delivery.mails()) {
      result.push_back(mail.receiver + ": " + mail.subject);
    }
    return result;
  }

  // Recorders take its pictures from "video2".
  class StillCamera : public TCamera {
   public:
    StillCamera() : TCamera("") {}
    int getMode() override { return 0; }
  };
  StillCamera camera;
};

// --- Mail

TEST_F(Deliveries, EventsThatMailHaveARecorderEachWithReceiverAndSubjectOfTheirOwn) {
  delivery("1", "Mail");
  set("1", "Receiver", "guard@example.net");
  set("1", "Subject", "gate");
  delivery("2", "Mail");
  set("2", "Subject", "d\xC3\xB6\xC3\xB6r");
  build(&camera);
  ASSERT_NE(nullptr, last(0).mail());
  ASSERT_NE(nullptr, last(1).mail());
  EXPECT_NE(last(0).mail(), last(1).mail());
  EXPECT_EQ(0, last(0).duration());
  fire(0);
  fire(1);
  EXPECT_THAT(receivers(),
              ElementsAre("admin@example.net: d\xC3\xB6\xC3\xB6r", "guard@example.net: gate"));
}

TEST_F(Deliveries, MailWithAPictureIsOneMailPerFiring) {
  delivery("1", "Mail");
  build(&camera);
  fire(0);
  fire(0);
  ASSERT_THAT(fake.delivery.mails(), SizeIs(2));
  EXPECT_EQ("\xff\xd8picture", fake.delivery.mails()[0].data);
  EXPECT_EQ("image/jpeg", fake.delivery.mails()[1].type);
}

TEST_F(Deliveries, MailWithoutAPictureIsOneMailPerFiring) {
  fake.delivery.mail.attach = 0;
  delivery("1", "Mail");
  build(&camera);
  fire(0);
  fire(0);
  ASSERT_THAT(fake.delivery.mails(), SizeIs(2));
  EXPECT_EQ("", fake.delivery.mails()[0].data);
}

TEST_F(Deliveries, SubjectThatIsCutEndsWithAWholeCharacter) {
  delivery("1", "Mail");
  const std::string subject = std::string(62, 's') + "\xC3\xB6";
  set("1", "Subject", subject.c_str());
  build(&camera);
  fire(0);
  EXPECT_THAT(receivers(), ElementsAre("admin@example.net: " + std::string(62, 's')));
}

TEST_F(Deliveries, ReceiverThatIsTooLongGetsNoMailAndTheEventDoesTheRest) {
  section("1", "3");
  set("1", "Mail", "1");
  set("1", "Receiver", std::string(64, 'x').c_str());
  build();
  EXPECT_THAT(manager->events()[0]->handlers, SizeIs(1));
  EXPECT_EQ(1, fake.count("log 2 /etc/events.conf: [1] Receiver is longer"));
}

// --- FTP

TEST_F(Deliveries, SectionsShareOneFtpRecorderWithDurationsOfTheirOwn) {
  delivery("1", "Ftp");
  set("1", "FtpDuration", "7");
  delivery("2", "Ftp");
  build();
  ASSERT_NE(nullptr, dynamic_cast<TFtpRecorder*>(last(0).recorder()));
  EXPECT_EQ(last(0).recorder(), last(1).recorder());
  EXPECT_EQ(0, last(0).duration());
  EXPECT_EQ(7, last(1).duration());
}

TEST_F(Deliveries, SecondEventProlongsTheUploadsOfTheFirst) {
  delivery("1", "Ftp");
  delivery("2", "Ftp");
  set("1", "FtpDuration", "3");
  set("2", "FtpDuration", "2");
  build(&camera);
  fake.at(1.05, [this] { manager->events()[1]->onHandle(); });
  fire(0);
  EXPECT_EQ(1, fake.delivery.loginCount);
  EXPECT_THAT(fake.delivery.uploads(), SizeIs(5));  // seconds 0 to 4
}

TEST_F(Deliveries, FtpRecorderThatGoesDeregistersFromBothWriters) {
  delivery("1", "Ftp");
  build(&camera);
  fire(0);
  EXPECT_TRUE(aviWriter()->getRef());
  EXPECT_TRUE(jpgWriter()->getRef());
  manager->refresh();
  EXPECT_FALSE(aviWriter()->getRef());
  EXPECT_FALSE(jpgWriter()->getRef());
}

TEST_F(Deliveries, SettingsOfTheServersAreReadAnewByEachRefresh) {
  delivery("1", "Ftp");
  delivery("2", "Mail");
  build(&camera);
  fake.delivery.ftp.port = 2121;
  fake.delivery.mail.receiver[0] = 'A';
  manager->refresh();
  fire(0);
  fire(1);
  EXPECT_THAT(receivers(), ElementsAre("Admin@example.net: "));
  EXPECT_TRUE(fake.called("ftpOpenSession(ftp.example.net,2121,camera)"));
}

TEST_F(Deliveries, SettingsThatCannotBeReadCostNoHandler) {
  delivery("1", "Ftp");
  delivery("2", "Mail");
  fake.fails("get_ftp_server");
  fake.fails("get_mail_info");
  build();
  EXPECT_THAT(fake.callsWith("log "),
              ElementsAre("log 2 get_mail_info() fail", "log 2 get_ftp_server() fail"));
  EXPECT_NE(nullptr, last(0).recorder());
  EXPECT_NE(nullptr, last(1).recorder());
}

// --- The share

TEST_F(Deliveries, SectionsShareOneRecorderOfTheShareWithDurationsOfTheirOwn) {
  allowShare();
  delivery("1", "Smb");
  delivery("2", "Smb");
  set("2", "SmbDuration", "9");
  set("2", "SmbContinue", "0");
  delivery("3", "Smb");
  set("3", "SmbContinue", "1");
  build();
  ASSERT_NE(nullptr, dynamic_cast<TSmbRecorder*>(last(0).recorder()));
  EXPECT_EQ(last(0).recorder(), last(1).recorder());
  EXPECT_EQ(last(0).recorder(), last(2).recorder());
  EXPECT_EQ(120000, last(0).duration()) << "twice the milliseconds of the interval of 60 s";
  EXPECT_EQ(9, last(1).duration());
  EXPECT_EQ(3, last(2).duration());
}

TEST_F(Deliveries, ShareIsMountedOncePerSectionThatRecordsToIt) {
  delivery("1", "Smb");
  delivery("2", "Smb");
  fake.ini.set("/etc/sys.conf", "Samba", "Enable", "2");
  fake.onCommand([](const std::string&) { return 1; });  // never gets mounted
  build();
  EXPECT_EQ(2, fake.count("system(/etc/init.d/smb.sh start)"));
  EXPECT_EQ(0, fake.count("log "));  // a share that can't be mounted is no message
  EXPECT_THAT(manager->events()[0]->handlers, IsEmpty());
  EXPECT_THAT(manager->events()[1]->handlers, IsEmpty());
}

TEST_F(Deliveries, ShareThatIsBackAtTheNextRefreshIsRecordedTo) {
  delivery("1", "Smb");
  fake.ini.set("/etc/sys.conf", "Samba", "Enable", "1");
  bool there = false;
  fake.onCommand([&there](const std::string&) { return there ? 0 : 256; });
  build();
  EXPECT_THAT(manager->events()[0]->handlers, IsEmpty());
  there = true;
  manager->refresh();
  ASSERT_THAT(manager->events()[0]->handlers, SizeIs(1));
  EXPECT_NE(nullptr, last(0).recorder());
}

TEST_F(Deliveries, ShareIsNotMountedWhenSambaIsDisabled) {
  delivery("1", "Smb");
  for (const char* enable : {"0", ""}) {
    fake.ini.set("/etc/sys.conf", "Samba", *enable != '\0' ? "Enable" : "Other", enable);
    build();
    EXPECT_EQ(0, fake.count("system(/etc/init.d/smb.sh start)"));
    EXPECT_EQ(0, fake.count("log "));
    EXPECT_THAT(manager->events()[0]->handlers, IsEmpty());
    manager.reset();
  }
}

TEST_F(Deliveries, ShareIsUnmountedByEveryClean) {
  fake.smbMounted();
  build();
  EXPECT_EQ(1, fake.count("system(/etc/init.d/smb.sh stop)"));
  manager->refresh();
  manager.reset();
  EXPECT_EQ(3, fake.count("system(/etc/init.d/smb.sh stop)"));
  EXPECT_EQ(0, fake.count("log "));
}

TEST_F(Deliveries, ShareThatCantBeUnmountedIsLogged) {
  fake.smbMounted();
  fake.onCommand([](const std::string&) { return 256; });
  build();
  EXPECT_EQ(1, fake.count("log 2 umount(smb) fail"));
}

TEST_F(Deliveries, RecorderOfTheShareIsGoneBeforeTheShareIsUnmounted) {
  allowShare();
  delivery("1", "Smb");
  build();
  fake.clearCalls();
  manager->clean();
  const auto calls = fake.calls();
  const auto unmount = std::find(calls.begin(), calls.end(), "system(/etc/init.d/smb.sh stop)");
  EXPECT_NE(calls.end(), unmount);
  EXPECT_EQ(2, std::count(calls.begin(), unmount, "delete(pthread)"));
}

// --- Ends

TEST_F(Deliveries, CleanEndsAllRecordersBeforeItDeletesThem) {
  allowShare();
  section("1", "3");
  for (const char* action : {"Mail", "Usb", "Ftp", "Smb"}) {
    set("1", action, "1");
  }
  build(&camera);
  manager->events()[0]->onHandle();
  for (const auto& handler : manager->events()[0]->handlers) {
    EXPECT_EQ(handler->recorder() != nullptr,
              handler->recorder() != nullptr && fake.started(*handler->recorder()));
  }
  scheduler()->stop(false);
  fake.clearCalls();
  manager->clean();
  std::vector<std::string> threads;
  for (const std::string& call : fake.calls()) {
    if (call.find("(pthread") != call.npos) {
      threads.push_back(call.substr(0, call.find('(')));
    }
  }
  // All are asked: the mail recorder, then those that are shared. Then the event and its mail
  // recorder end, and after them the shared ones.
  EXPECT_THAT(threads, ElementsAre("stop", "stop", "stop", "stop", "end", "end", "delete", "delete",
                                   "end", "delete", "end", "delete", "end", "delete"));
}

TEST_F(Deliveries, MailRecorderThatDoesNotEndIsLeftBehindWithItsEvent) {
  section("1", "3");
  set("1", "Mail", "1");
  set("1", "Usb", "1");
  set("1", "Out1", "1");
  set("1", "Out1Duration", "1000");
  delivery("2", "Mail");
  build();
  // Nobody else can reach it later: the test gives back what the daemon may not.
  const std::unique_ptr<TEvent> event(manager->events()[1].get());
  event->handlers[0]->onTrigger();  // the output
  event->handlers[2]->recorder()->start(0);
  scheduler()->stop(false);
  fake.threadStuck("pthread");
  fake.clearCalls();
  TEventManager::leftBehind = false;
  const auto before = fake.clock.monotonicUs();
  manager->clean();
  EXPECT_EQ(5000000, fake.clock.monotonicUs() - before);
  EXPECT_EQ(1, fake.logged("thread pthread does not end, left behind"));
  EXPECT_TRUE(TEventManager::leftBehind);
  // The other event, its mail recorder, and the USB recorder, which nobody works with any more.
  EXPECT_EQ(3, fake.count("delete(pthread)"));
  EXPECT_TRUE(fake.called("SendMessage(socmond,52,0,0)"));
  EXPECT_THAT(manager->events(), IsEmpty());
  fake.clearCalls();
  event->onHandle();  // it fires nothing any more
  EXPECT_EQ(0, fake.count("SendMessage("));
  manager->refresh();
  EXPECT_THAT(manager->events(), SizeIs(2));
  manager.reset();
}

TEST_F(Deliveries, MailRecorderOfAnEventThatDoesNotEndIsEndedAndStaysWithIt) {
  section("1", "2", "always");
  set("1", "Mail", "1");
  build();
  const std::unique_ptr<TEvent> event(manager->events()[0].get());
  scheduler()->stop(false);
  fake.threadStuck("pthread");
  fake.clearCalls();
  TEventManager::leftBehind = false;
  manager->clean();
  EXPECT_EQ(2, fake.count("end(pthread)"));
  EXPECT_EQ(0, fake.count("delete(pthread)"));
  EXPECT_EQ(1, fake.logged("thread pthread does not end, left behind"));
  EXPECT_TRUE(TEventManager::leftBehind);
  manager.reset();
}

TEST_F(Deliveries, BodiesThatDoNotEndCostFiveSecondsTogether) {
  std::vector<std::unique_ptr<TEvent>> events;
  for (const char* number : {"1", "2", "3"}) {
    delivery(number, "Mail");
  }
  delivery("4", "Ftp");
  build();
  const std::unique_ptr<TRecorder> ftp(anyRecorder());
  ftp->start(0);
  for (std::size_t i = 1; i < 4; ++i) {
    events.emplace_back(manager->events()[i].get());
    last(i).recorder()->start(0);
  }
  scheduler()->stop(false);
  fake.threadStuck("pthread");
  const auto before = fake.clock.monotonicUs();
  manager->clean();
  EXPECT_EQ(5000000, fake.clock.monotonicUs() - before);
  EXPECT_EQ(4, fake.logged("thread pthread does not end, left behind"));
  manager.reset();
}

}  // namespace
