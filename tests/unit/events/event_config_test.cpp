// Reading one section of the events file.
#include "events/event_config.h"

#include <climits>

#include "tests/unit/events/event_fixture.h"

namespace {

constexpr const char* kFile = "/etc/events.conf";

class EventConfig : public EventFixture {
 protected:
  EventConfig() {
    set("Erased", "0");
    set("Schedule", "office");
    set("Source", "3");
  }
  void set(const char* key, const char* value) { fake.ini.set(kFile, "12", key, value); }
  bool read() { return readEventConfig(kFile, 12, &config); }

  TEventConfig config;
};

TEST_F(EventConfig, KeysThatAreMissingHaveTheirDefaults) {
  for (const char* key : {"Out1", "Out2", "Buzzer", "Access", "Mail", "Usb", "Ftp", "Smb"}) {
    set(key, "1");
  }
  ASSERT_TRUE(read());
  EXPECT_EQ(12, config.number);
  EXPECT_STREQ("office", config.schedule);
  EXPECT_STREQ("Never", config.schedule2);
  EXPECT_EQ(TEventConfig::kInterval, config.source);
  EXPECT_EQ(60000, config.period);
  EXPECT_TRUE(config.out1 && config.out2 && config.buzzer && config.access);
  EXPECT_TRUE(config.mail && config.usb && config.ftp && config.smb);
  EXPECT_EQ(3, config.out1Duration);
  EXPECT_EQ(3, config.out2Duration);
  EXPECT_EQ(0, config.buzzerTone);
  EXPECT_STREQ("", config.receiver);
  EXPECT_STREQ("", config.subject);
  EXPECT_STREQ("", config.usbFolder);
  EXPECT_EQ(0, config.ftpDuration);
  EXPECT_EQ(3, config.smbDuration);
}

TEST_F(EventConfig, KeysOfTheActionsAreRead) {
  for (const char* key : {"Out1", "Out2", "Buzzer", "Mail", "Usb", "Ftp", "Smb"}) {
    set(key, "1");
  }
  set("Out1Duration", "11");
  set("Out2Duration", "12");
  set("BuzzerTone", "13");
  set("Receiver", "a@example.net");
  set("Subject", "news");
  set("UsbFolder", "cam");
  set("FtpDuration", "14");
  set("SmbDuration", "15");
  ASSERT_TRUE(read());
  EXPECT_EQ(11, config.out1Duration);
  EXPECT_EQ(12, config.out2Duration);
  EXPECT_EQ(13, config.buzzerTone);
  EXPECT_STREQ("a@example.net", config.receiver);
  EXPECT_STREQ("news", config.subject);
  EXPECT_STREQ("cam", config.usbFolder);
  EXPECT_EQ(14, config.ftpDuration);
  EXPECT_EQ(15, config.smbDuration);
}

TEST_F(EventConfig, KeysOfAnActionThatIsOffAreNotRead) {
  for (const char* key : {"Out1Duration", "Out2Duration", "BuzzerTone", "FtpDuration",
                          "SmbDuration", "SmbContinue"}) {
    set(key, "no number");
  }
  ASSERT_TRUE(read());
  EXPECT_EQ(0, fake.count("log "));
}

TEST_F(EventConfig, IntervalIsReadForIntervalEventsOnly) {
  set("Interval", "7");
  ASSERT_TRUE(read());
  EXPECT_EQ(7000, config.period);
  set("Source", "2");
  set("Interval", "no number");
  ASSERT_TRUE(read());
  EXPECT_EQ(100, config.period);
  EXPECT_EQ(0, fake.count("log "));
}

TEST_F(EventConfig, IntervalsAtTheLimitsSaturate) {
  const std::pair<const char*, long> cases[] = {{"2147483", 2147483000},
                                                {"2147484", INT_MAX},
                                                {"2147483647", INT_MAX},
                                                {"99999999999", INT_MAX},
                                                {"-2147484", INT_MIN},
                                                {"-99999999999", INT_MIN},
                                                {"0", 0},
                                                {"-5", -5000}};
  for (const auto& [interval, period] : cases) {
    set("Interval", interval);
    ASSERT_TRUE(read());
    EXPECT_EQ(period, config.period) << interval;
  }
}

TEST_F(EventConfig, ContinuousShareRecordingTakesTwiceThePeriodAsItIs) {
  set("Smb", "1");
  set("SmbDuration", "9");
  const std::pair<const char*, long> cases[] = {
      {"60", 120000}, {"2000000", INT_MAX}, {"-2000000", INT_MIN}};
  for (const auto& [interval, duration] : cases) {
    set("Interval", interval);
    set("SmbContinue", "2");  // any value but 0
    ASSERT_TRUE(read());
    EXPECT_EQ(duration, config.smbDuration) << interval;
  }
  set("Source", "6");
  ASSERT_TRUE(read());
  EXPECT_EQ(4000, config.smbDuration);
  set("SmbContinue", "0");
  ASSERT_TRUE(read());
  EXPECT_EQ(9, config.smbDuration);
}

TEST_F(EventConfig, TextsAreCutTo63Characters) {
  const std::string exact(63, 'x');
  set("Schedule", exact.c_str());
  set("Schedule2", (exact + "y").c_str());
  set("Usb", "1");
  set("UsbFolder", (exact + "yz").c_str());
  ASSERT_TRUE(read());
  EXPECT_EQ(exact, config.schedule);
  EXPECT_EQ(exact, config.schedule2);
  EXPECT_EQ(exact, config.usbFolder);
}

// Cut, it could be somebody else's address.
TEST_F(EventConfig, ReceiverThatIsTooLongGetsNoMail) {
  const std::string exact = std::string(51, 'x') + "@example.net";
  set("Mail", "1");
  set("Receiver", exact.c_str());
  ASSERT_TRUE(read());
  EXPECT_TRUE(config.mail);
  EXPECT_EQ(exact, config.receiver);
  EXPECT_EQ(0, fake.count("log "));
  for (const std::string& longer : {exact + "x", std::string(150, 'x')}) {
    fake.clearCalls();
    set("Receiver", longer.c_str());
    ASSERT_TRUE(read());
    EXPECT_FALSE(config.mail);
    EXPECT_EQ(1,
              fake.logged("/etc/events.conf: [12] Receiver is longer than 63 characters, no mail"));
  }
}

TEST_F(EventConfig, NothingOfTheSectionReadBeforeIsLeft) {
  set("Usb", "1");
  set("UsbFolder", "cam");
  ASSERT_TRUE(read());
  set("Usb", "0");
  ASSERT_TRUE(read());
  EXPECT_FALSE(config.usb);
  EXPECT_STREQ("", config.usbFolder);
}

TEST_F(EventConfig, DisplayNameAndOtherKeysAreNotConsulted) {
  set("Name", "");
  set("Enable", "0");
  EXPECT_TRUE(read());
}

}  // namespace
