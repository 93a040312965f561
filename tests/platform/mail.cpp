// What arrives: mails as a server keeps them and a strict parser reads them.
#include "platform/mail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "tests/platform/mail_fixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;

TEST_F(MailTest, ATextMailIsPlainText) {
  serve();
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(send(), "");
  ASSERT_EQ(mails(), 1);
  const std::string mail = judged(1);
  EXPECT_THAT(mail, HasSubstr(R"("subject": "Motion")"));
  EXPECT_THAT(mail, HasSubstr(R"("from": ["camera@example.org"], "to": ["guard@example.org"])"));
  EXPECT_THAT(mail, HasSubstr(R"("type": "text/plain")"));
  EXPECT_THAT(mail, HasSubstr(R"("text": "Somebody is at the door.\r\n")"));
  EXPECT_THAT(mail, HasSubstr(R"("text_type": "text/plain; charset=\"utf-8\"")"));
  EXPECT_THAT(mail, HasSubstr(R"("attachments": [])"));
  EXPECT_THAT(mail, HasSubstr(R"("version": "1.0")"));
  EXPECT_THAT(mail, HasSubstr(R"(@example.org>", "version")"));  // its id
  const double date = std::atof(mail.c_str() + mail.find("\"date\": ") + 8);
  EXPECT_GE(date, static_cast<double>(before));
  EXPECT_LE(date, static_cast<double>(std::time(nullptr)));
  EXPECT_THAT(envelope(1),
              HasSubstr(R"("from": "camera@example.org", "to": ["guard@example.org"])"));
}

TEST_F(MailTest, IntroducesItselfAndSaysGoodbye) {
  serve();
  EXPECT_EQ(send(), "");
  EXPECT_THAT(commands(), testing::MatchesRegex("EHLO [-.A-Za-z0-9]+\\.[-A-Za-z0-9]+\n"
                                                "MAIL FROM:<camera@example.org> SIZE=[0-9]+\n"
                                                "RCPT TO:<guard@example.org>\n"
                                                "DATA\n"
                                                "QUIT\n"));
}

TEST_F(MailTest, APictureIsAttachedAsItIs) {
  serve();
  std::string picture = "\xff\xd8";
  for (int i = 0; i < 100000; ++i) picture += static_cast<char>(i * 7 % 256);
  attach(picture, "image/jpeg", "pictures/20260102/030405.jpg");
  EXPECT_EQ(send(), "");
  const std::string clip = "RIFF\r\n.\r\n\r\nMAIL FROM:<x@example.org>\r\n.\r\n";
  attach(clip, "video/avi", "030405.avi");
  EXPECT_EQ(send(), "");
  ASSERT_EQ(mails(), 2);
  const std::string judgement = judged(1, 2);
  EXPECT_EQ(timesIn(judgement, R"("type": "multipart/mixed", "text": "Somebody is at)"), 2);
  const auto part = [this](const char* name, const char* type, const std::string& data) {
    return std::string(R"("attachments": [{"name": ")") + name + R"(", "type": ")" + type +
           R"(", "encoding": "base64", "disposition": "attachment", "length": )" +
           std::to_string(data.size()) + R"(, "sha256": ")" + digest(data) + "\"}]";
  };
  EXPECT_THAT(judgement, HasSubstr(part("030405.jpg", "image/jpeg", picture)));
  EXPECT_THAT(judgement, HasSubstr(part("030405.avi", "video/avi", clip)));
  EXPECT_EQ(timesIn(judgement, "\"name\""), 2);
  EXPECT_EQ(timesIn(commands(), " SIZE="), 2);  // the server can refuse it before it comes
}

TEST_F(MailTest, NoDataIsNoAttachment) {
  serve();
  info_.attachment = {1000, "image/jpeg", nullptr, "1.jpg"};
  EXPECT_EQ(send(), "");
  for (const long length : {0L, -1L, -2147483647L}) {
    attach("data", "image/jpeg", "1.jpg");
    info_.attachment.length = length;
    EXPECT_EQ(send(), "");
  }
  EXPECT_EQ(timesIn(judged(1, 4), R"("attachments": [])"), 4);
}

TEST_F(MailTest, NullPointersAreEmptyTexts) {
  serve();
  info_.body = nullptr;
  info_.subject = nullptr;
  EXPECT_EQ(send(), "");
  attach("data", nullptr, nullptr);
  EXPECT_EQ(send(), "");
  info_.subject = "";
  info_.body = "";
  attach("data", "", "folder/");
  EXPECT_EQ(send(), "");
  const std::string judgement = judged(1, 3);
  EXPECT_EQ(timesIn(judgement, R"("subject": null)"), 3);
  EXPECT_EQ(timesIn(judgement, R"("text": "\r\n")"), 3);
  EXPECT_EQ(timesIn(judgement, R"({"name": "attachment", "type": "application/octet-stream")"), 2);
}

TEST_F(MailTest, SubjectsAndNamesMayBeInAnyLanguage) {
  serve();
  const struct {
    const char* text;
    const char* seen;
  } kCases[] = {
      {"Bewegung an der Tür", nullptr},
      {"扉の前に誰かがいます、確認してください。玄関のカメラからのお知らせです。", nullptr},
      {"🚪🚶‍♀️ 🚪🚶‍♀️ 🚪🚶‍♀️ 🚪🚶‍♀️ 🚪🚶‍♀️ "
       "🚪🚶‍♀️",
       nullptr},
      {"=?UTF-8?B?bm8=?= is no word", nullptr},
      {" blanks at both ends ", nullptr},
      {"two  blanks inside", nullptr},
      {"Quite a long subject in plain ASCII that does not fit into one line of a mail, by far",
       nullptr},
      {"a; b=c, <d> (e) [f] @g: %25 h'i j*k", nullptr},
      {"cut off: \xe2\x82", "cut off: "},
      {"Latin 1: T\xfcr, \xc0\x80, \xed\xa0\x80", "Latin 1: T�r, ��, ���"},
  };
  for (const auto& c : kCases) {
    info_.subject = c.text;
    info_.body = c.text;
    attach("data", "image/jpeg", c.text);
    EXPECT_EQ(send(), "") << c.text;
  }
  const std::string judgement = judged(1, mails());
  for (const auto& c : kCases) {
    const std::string seen = c.seen != nullptr ? c.seen : c.text;
    EXPECT_THAT(judgement, HasSubstr("\"subject\": \"" + seen + "\""));
    EXPECT_THAT(judgement, HasSubstr("\"text\": \"" + seen + "\\r\\n\""));
    const std::size_t first = seen.find_first_not_of(' ');  // of a name, readers drop the blanks
    const std::string name = seen.substr(first, seen.find_last_not_of(' ') - first + 1);
    EXPECT_THAT(judgement, HasSubstr("\"name\": \"" + name + "\""));
  }
}

TEST_F(MailTest, LongNamesAreWhole) {
  serve();
  std::string name;
  for (int i = 0; i < 60; ++i) name += "é" + std::to_string(i);
  name += ".jpg";
  attach("data", "image/jpeg", name.c_str());
  EXPECT_EQ(send(), "");
  const std::string plain = std::string(200, 'n') + ".avi";
  attach("data", "video/avi", ("folder/" + plain).c_str());
  info_.attachment.name = plain.c_str();
  EXPECT_EQ(send(), "");
  const std::string judgement = judged(1, 2);
  EXPECT_THAT(judgement, HasSubstr("\"name\": \"" + name + "\""));
  EXPECT_THAT(judgement, HasSubstr("\"name\": \"" + plain + "\""));
}

TEST_F(MailTest, BodiesArriveAsTheyAre) {
  serve();
  const std::string kLong(3000, 'x');
  const std::string kCases[][2] = {
      {".", R"(.\r\n)"},
      {"a\n.\n..\n.b\n", R"(a\r\n.\r\n..\r\n.b\r\n)"},
      {"a\r\nb\rc\nd\n\re", R"(a\r\nb\r\nc\r\nd\r\n\r\ne\r\n)"},
      {"= =3D =\nFrom here\n", R"(= =3D =\r\nFrom here\r\n)"},
      {"blank \ntab\t\n \n", R"(blank \r\ntab\t\r\n \r\n)"},
      {kLong, kLong + R"(\r\n)"},
      {"Wer läutet? 誰 🚪", R"(Wer läutet? 誰 🚪\r\n)"},
      {"bell \a escape \x1b[31m", R"(bell \u0007 escape \u001b[31m\r\n)"},
  };
  for (const auto& [text, seen] : kCases) {
    info_.body = text.c_str();
    info_.attachment = {};
    EXPECT_EQ(send(), "");
    attach("data", "image/jpeg", "1.jpg");
    EXPECT_EQ(send(), "");
  }
  const std::string judgement = judged(1, mails());
  for (const auto& [text, seen] : kCases)
    EXPECT_EQ(timesIn(judgement, "\"text\": \"" + seen + "\""), 2) << seen;
}

TEST_F(MailTest, GoesToAllReceivers) {
  serve();
  put(info_.receiver, " a@example.org,b@example.net ,, c.d+e@sub.example.com,f@localhost,");
  EXPECT_EQ(send(), "");
  const std::string kAll =
      R"("to": ["a@example.org", "b@example.net", "c.d+e@sub.example.com", "f@localhost"])";
  EXPECT_THAT(judged(1), HasSubstr(kAll));
  EXPECT_THAT(envelope(1), HasSubstr(kAll));
}

TEST_F(MailTest, IsDatedInLocalTime) {
  setenv("TZ", "IST-5:30", 1);
  tzset();
  serve();
  EXPECT_EQ(send(), "");
  EXPECT_THAT(judged(1), HasSubstr(R"("zone": "+0530")"));
}

TEST_F(MailTest, EachHasAnIdOfItsOwn) {
  serve();
  EXPECT_EQ(send(), "");
  EXPECT_EQ(send(), "");
  const auto id = [this](int number) {
    const std::string text = mail(number);
    const std::size_t start = text.find("Message-ID: ");
    return text.substr(start, text.find('\r', start) - start);
  };
  EXPECT_NE(id(1), id(2));
}

TEST_F(MailTest, EncryptedFromTheFirstByte) {
  const auto files = certificate();
  configure("[Mail]\nCaFile=" + files[0] + "\n");
  serve({"--tls", files[0], files[1]});
  info_.security = kMailTls;
  EXPECT_EQ(send(), "");
  ASSERT_EQ(mails(), 1);
  EXPECT_THAT(envelope(1), HasSubstr(R"("tls": true)"));
  configure("[Mail]\n");
  EXPECT_THAT(send(), HasSubstr("SSL certificate problem"));
  configure("[Mail]\nVerify=0\n");
  EXPECT_EQ(send(), "");
  configure("[Mail]\nCaFile=/no/such/file\n");
  EXPECT_THAT(send(), HasSubstr("error setting certificate"));
  configure("[Mail]\nCaFile=" + files[0] + "\n");
  put(info_.server, "localhost");  // is not what the certificate says
  EXPECT_THAT(send(), HasSubstr("no alternative certificate subject name matches"));
  EXPECT_EQ(mails(), 2);
}

TEST_F(MailTest, EncryptedBeforeAnythingIsSaid) {
  const auto files = certificate();
  configure("[Mail]\nCaFile=" + files[0] + "\n");
  serve({"--starttls", files[0], files[1]});
  info_.security = kMailStartTls;
  EXPECT_EQ(send(), "");
  ASSERT_EQ(mails(), 1);
  EXPECT_THAT(envelope(1), HasSubstr(R"("tls": true)"));
  configure("[Mail]\n");
  EXPECT_THAT(send(), HasSubstr("SSL certificate problem"));
  configure("[Mail]\nVerify=0\n");
  EXPECT_EQ(send(), "");
  info_.security = kMailPlain;
  EXPECT_EQ(send(), "");
  EXPECT_THAT(envelope(3), HasSubstr(R"("tls": false)"));
}

TEST_F(MailTest, NothingGoesOutUnencryptedThatShouldNot) {
  serve();
  info_.security = kMailStartTls;
  EXPECT_EQ(send(), "STARTTLS not supported.");
  info_.security = 77;
  EXPECT_EQ(send(), "STARTTLS not supported.");
  info_.security = kMailTls;
  EXPECT_NE(send(), "");
  EXPECT_EQ(mails(), 0);
  EXPECT_THAT(commands(), Not(HasSubstr("MAIL")));
}

TEST_F(MailTest, LogsInWhenAskedTo) {
  writeFile(root_.path("/users"), "camera:open sesame\nümlaut:\"pä ss\\\n");
  serve({"--users", root_.path("/users")});
  EXPECT_EQ(send(), "the server refuses: 530 5.7.0 Authentication required");
  info_.login = 1;
  put(info_.user, "camera");
  put(info_.password, "open sesame");
  const char* const kMethods[] = {"", "PLAIN", "LOGIN"};
  for (const char* method : kMethods) {
    put(info_.method, method);
    EXPECT_EQ(send(), "") << method;
  }
  put(info_.user, "ümlaut");
  put(info_.password, "\"pä ss\\");
  EXPECT_EQ(send(), "");
  ASSERT_EQ(mails(), 4);
  EXPECT_THAT(envelope(1), HasSubstr(R"("user": "camera")"));
  EXPECT_THAT(commands(), HasSubstr("AUTH LOGIN"));
  put(info_.method, "XOAUTH2");
  EXPECT_EQ(send(), "Login denied");  // the server can't do that
  EXPECT_EQ(mails(), 4);
}

TEST_F(MailTest, AWrongPasswordIsRefusedAndNeverShown) {
  writeFile(root_.path("/users"), "camera:open sesame\n");
  serve({"--users", root_.path("/users")});
  info_.login = 1;
  put(info_.user, "camera");
  for (const char* password : {"guess", "", "open sesame "}) {
    put(info_.password, password);
    EXPECT_EQ(send(), "Login denied");
  }
  fault("echo");
  put(info_.password, "open sesame");
  EXPECT_THAT(send(), Not(HasSubstr("sesame")));
  EXPECT_EQ(mails(), 0);
}

TEST_F(MailTest, WithoutALoginItsTextsMeanNothing) {
  serve();
  put(info_.user, "camera");
  put(info_.password, "secret");
  put(info_.method, "\r\n");
  EXPECT_EQ(send(), "");
  EXPECT_THAT(commands(), Not(HasSubstr("AUTH")));
}

}  // namespace
