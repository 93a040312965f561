// The settings of mail, and the text that a mail begins with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tests/platform/mail_fixture.h"

namespace {

using testing::ElementsAre;

class MailConfig : public MailTest {
 protected:
  MailConfig() { info_ = {}; }
};

TEST_F(MailConfig, ReadsEachKey) {
  configure(
      "[Mail]\nServer=mail.example.org\nPort=587\nSecurity=1\nSender=camera@example.org\n"
      "Receiver=a@example.org,b@example.org\nLogin=1\nUser=camera\nPassword=secret\n"
      "Method=PLAIN\nAttach=0\n");
  info_.subject = "before";
  ASSERT_EQ(get_mail_info(&info_), 0);
  EXPECT_STREQ(info_.server, "mail.example.org");
  EXPECT_EQ(info_.port, 587);
  EXPECT_EQ(info_.security, kMailStartTls);
  EXPECT_STREQ(info_.sender, "camera@example.org");
  EXPECT_STREQ(info_.receiver, "a@example.org,b@example.org");
  EXPECT_EQ(info_.login, 1);
  EXPECT_STREQ(info_.user, "camera");
  EXPECT_STREQ(info_.password, "secret");
  EXPECT_STREQ(info_.method, "PLAIN");
  EXPECT_EQ(info_.attach, 0);
  EXPECT_EQ(info_.subject, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(MailConfig, OnlyTheServerIsNeeded) {
  configure("[Mail]\nServer=mail.example.org\n");
  ASSERT_EQ(get_mail_info(&info_), 0);
  EXPECT_EQ(info_.port, 25);
  EXPECT_EQ(info_.security, kMailPlain);
  EXPECT_STREQ(info_.sender, "");
  EXPECT_STREQ(info_.receiver, "");
  EXPECT_EQ(info_.login, 0);
  EXPECT_EQ(info_.attach, 1);
  EXPECT_EQ(info_.attachment.data, nullptr);
  EXPECT_EQ(info_.body, nullptr);
}

TEST_F(MailConfig, WithoutAServerNothingChanges) {
  std::memset(static_cast<void*>(&info_), 0x55, sizeof info_);
  const TMailInfo before = info_;
  for (const char* text : {"", "[Mail]\n", "[Mail]\nServer=\nPort=26\n", "[Ftp]\nServer=a\n"}) {
    configure(text);
    EXPECT_NE(get_mail_info(&info_), 0) << text;
  }
  configure("[Mail]\nServer=" + std::string(129, 's') + "\n");
  EXPECT_NE(get_mail_info(&info_), 0);
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [Mail] Server is longer than 128 bytes"));
  EXPECT_EQ(std::memcmp(&info_, &before, sizeof info_), 0);
}

TEST_F(MailConfig, NumbersThatAreNoneAreTold) {
  configure(
      "[Mail]\nServer=a\nPort=65536\nSecurity=3\nLogin=yes\nAttach=2\nSender=a@b\nReceiver=c@d\n");
  ASSERT_EQ(get_mail_info(&info_), 0);
  EXPECT_EQ(info_.port, 25);
  EXPECT_EQ(info_.security, kMailStartTls);  // whatever was meant: not plain text
  EXPECT_EQ(info_.login, 0);
  EXPECT_EQ(info_.attach, 1);
  EXPECT_THAT(log_.lines(),
              ElementsAre("2 /etc/camera.conf: [Mail] Port is not from 1 to 65535: 65536",
                          "2 /etc/camera.conf: [Mail] Security is not from 0 to 2: 3",
                          "2 /etc/camera.conf: [Mail] Login is not a number: yes",
                          "2 /etc/camera.conf: [Mail] Attach is not from 0 to 1: 2"));
  for (const char* port : {"0", "-25", "99999999999", "0x10000"}) {
    configure(std::string("[Mail]\nServer=a\nPort=") + port + "\n");
    ASSERT_EQ(get_mail_info(&info_), 0);
    EXPECT_EQ(info_.port, 25) << port;
  }
}

// Half an address would be somebody else's.
TEST_F(MailConfig, TextsThatDoNotFitCountAsNone) {
  const std::string whole = std::string(116, 'a') + "@example.org";  // 128 bytes
  configure("[Mail]\nServer=a\nReceiver=" + whole + "\nSender=a" + whole +
            "\nMethod=" + std::string(32, 'm') + "\n");
  ASSERT_EQ(get_mail_info(&info_), 0);
  EXPECT_EQ(info_.receiver, whole);
  EXPECT_STREQ(info_.sender, "");
  EXPECT_STREQ(info_.method, "");
  EXPECT_THAT(log_.lines(),
              ElementsAre("2 /etc/camera.conf: [Mail] Sender is longer than 128 bytes",
                          "2 /etc/camera.conf: [Mail] Method is longer than 31 bytes"));
}

TEST_F(MailConfig, APasswordThatOthersCanReadIsToldOnce) {
  configure("[Mail]\nServer=a\nPassword=secret\n");
  const std::string file = root_.path("/etc/camera.conf");
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  EXPECT_EQ(get_mail_info(&info_), 0);
  EXPECT_EQ(get_mail_info(&info_), 0);
  EXPECT_THAT(log_.lines(), ElementsAre("2 /etc/camera.conf holds a password and others can read "
                                        "it: mode 0640"));
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  EXPECT_EQ(get_mail_info(&info_), 0);
  EXPECT_THAT(log_.lines(), ElementsAre());
  ASSERT_EQ(chmod(file.c_str(), 0604), 0);
  EXPECT_EQ(get_mail_info(&info_), 0);
  EXPECT_THAT(log_.lines(), ElementsAre("2 /etc/camera.conf holds a password and others can read "
                                        "it: mode 0604"));
}

TEST_F(MailConfig, WithoutAPasswordAnybodyMayReadTheFile) {
  configure("[Mail]\nServer=a\nUser=b\n");
  ASSERT_EQ(chmod(root_.path("/etc/camera.conf").c_str(), 0644), 0);
  EXPECT_EQ(get_mail_info(&info_), 0);
  EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(MailConfig, TheBodyTellsTheCameraAndTheTime) {
  setenv("TZ", "CET-1", 1);
  tzset();
  constexpr long kTime = 1767323045;  // 2026-01-02 03:04:05 UTC
  char text[100] = "before";
  ASSERT_EQ(get_mail_body(text, sizeof text, kTime), 0);
  EXPECT_STREQ(text, "Time: 2026/01/02 04:04:05\n");
  configure("[Camera]\nName=Haustür\n");
  ASSERT_EQ(get_mail_body(text, sizeof text, kTime), 0);
  EXPECT_STREQ(text, "Camera: Haustür\nTime: 2026/01/02 04:04:05\n");
}

TEST_F(MailConfig, ABodyThatDoesNotFitFails) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::string whole = "Time: 1970/01/01 00:00:00\n";
  char text[100] = "before";
  for (const long size : {-5L, 0L, 1L, static_cast<long>(whole.size())}) {
    EXPECT_NE(get_mail_body(text, size, 0), 0) << size;
    EXPECT_STREQ(text, "before");
  }
  EXPECT_EQ(get_mail_body(text, static_cast<long>(whole.size()) + 1, 0), 0);
  EXPECT_EQ(text, whole);
}

TEST_F(MailConfig, ANameThatIsNoTextDoesNotOutgrowTheBody) {
  setenv("TZ", "UTC", 1);
  tzset();
  configure("[Camera]\nName=" + std::string(180, '\xbc') + "\n");
  std::string whole = "Camera: ";
  for (int i = 0; i < 180; ++i) whole += "\xef\xbf\xbd";
  whole += "\nTime: 1970/01/01 00:00:00\n";
  char text[1000];
  ASSERT_EQ(get_mail_body(text, sizeof text, 0), 0);
  EXPECT_EQ(text, whole);
}

}  // namespace
