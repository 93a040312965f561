// Texts that want to be more than they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/mail_address.h"
#include "platform/linux/mail_text.h"
#include "tests/platform/mail_fixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;

const char* const kEvil[] = {
    "x\r\nRCPT TO:<evil@example.org>",
    "x\nBcc: evil@example.org",
    "x\rBcc: evil@example.org",
    "x\r\n\r\nevil",
    "x>\r\nDATA",
    "x\v\f\x1c\x1d\x1e\x85 evil",
    "x\xc2\x85\xe2\x80\xa8\xe2\x80\xa9 evil",
};

TEST_F(MailTest, SubjectsAndNamesStayInTheirLines) {
  serve();
  int number = 0;
  for (const char* evil : kEvil) {
    info_.subject = evil;
    attach("data", evil, evil);
    EXPECT_EQ(send(), "");
    ++number;
    const std::string text = mail(number);
    EXPECT_EQ(timesIn(text.substr(0, text.find("\r\n\r\n")), "\r\nBcc"), 0);
  }
  const std::string judgement = judged(1, number);
  EXPECT_EQ(timesIn(judgement, R"("headers": ["Content-Type", "Date", "From", "To", "Message-ID", )"
                               R"("MIME-Version", "Subject"], )"),
            number);
  EXPECT_EQ(timesIn(judgement, R"("type": "application/octet-stream")"), number);
  EXPECT_THAT(judgement, HasSubstr(R"("subject": "x  RCPT TO:<evil@example.org>")"));
  EXPECT_THAT(judgement, HasSubstr(R"("subject": "x Bcc: evil@example.org")"));
  EXPECT_THAT(judgement, HasSubstr(R"("subject": "x    evil")"));
  EXPECT_THAT(judgement, HasSubstr(R"("name": "x____evil")"));
  EXPECT_EQ(timesIn(commands(), "RCPT"), number);
  EXPECT_EQ(timesIn(commands(), "evil"), 0);
}

TEST_F(MailTest, WhatIsNoAddressIsRefusedBeforeAnythingIsSent) {
  serve();
  for (const char* evil : kEvil) {
    put(info_.sender, evil);
    EXPECT_THAT(send(), HasSubstr("sender is no address: x"));
    put(info_.sender, "camera@example.org");
    put(info_.receiver, evil);
    EXPECT_THAT(send(), HasSubstr("receiver is no address: x"));
    put(info_.receiver, std::string("good@example.org,bad@example.org") + (evil + 1));
    EXPECT_THAT(send(), HasSubstr("receiver is no address: bad@example.org"));
    put(info_.receiver, "guard@example.org");
    put(info_.server, std::string("127.0.0.1") + (evil + 1));
    log_.lines();
    EXPECT_NE(send_mail(&info_), 0);
    const auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr(": no name or address of a server"));
    put(info_.server, "127.0.0.1");
    info_.login = 1;
    put(info_.user, "camera");
    put(info_.method, std::string(evil).substr(0, 31));
    EXPECT_THAT(send(), HasSubstr("no method of a login: x"));
    put(info_.method, "");
    info_.login = 0;
  }
  EXPECT_EQ(commands(), "");
}

TEST_F(MailTest, ALoginIsNoCommand) {
  writeFile(root_.path("/users"), "camera:secret\n");
  serve({"--users", root_.path("/users")});
  info_.login = 1;
  for (const char* evil : kEvil) {
    put(info_.user, evil);
    put(info_.password, evil);
    EXPECT_EQ(send(), "Login denied");
  }
  EXPECT_EQ(timesIn(commands(), "evil"), 0);
  put(info_.user, "");
  EXPECT_EQ(send(), "a login without a user");
}

TEST_F(MailTest, OddServersAreRefused) {
  for (const char* server : {"", " ", "a b", "a/b", "user@host", "host?x", "host#x", "a%41",
                             "[::1]", "http://host", "\xc3\xbc.example"}) {
    put(info_.server, server);
    EXPECT_EQ(send(), "no name or address of a server");
  }
  put(info_.server, "127.0.0.1");
  for (const int port : {0, -1, 65536, 2147483647}) {
    info_.port = port;
    EXPECT_EQ(send(), "no port: " + std::to_string(port));
  }
  put(info_.server, "::1");  // an address of IPv6 is one, though nobody is there
  info_.port = 1;
  EXPECT_THAT(send(), Not(HasSubstr("no name")));
}

TEST(MailAddress, TellsAddressesFromOtherTexts) {
  for (const char* good :
       {"a@b", "camera@example.org", "first.last+tag@sub.example.org", "x_y-z@a-b.example",
        "!#$%&'*+-/=?^_`{|}~@example.org", "1@2.3", "root@my_host"})
    EXPECT_TRUE(isMailAddress(good)) << good;
  for (const char* bad : {"",
                          "@",
                          "a",
                          "a@",
                          "@b",
                          "a@b@c",
                          ".a@b",
                          "a.@b",
                          "a..b@c",
                          "a@.b",
                          "a@b.",
                          "a@b..c",
                          "a b@c",
                          "a@b c",
                          "a\t@b",
                          "<a@b>",
                          "Name <a@b>",
                          "\"a b\"@c",
                          "a@[127.0.0.1]",
                          "a@-b",
                          "a@b-",
                          "a(c)@b",
                          "a;b@c",
                          "t\xc3\xbcr@b",
                          "a@t\xc3\xbcr",
                          "a@b\n",
                          "a\r\n@b",
                          "a@b>"})
    EXPECT_FALSE(isMailAddress(bad)) << bad;
  EXPECT_TRUE(isMailAddress(std::string(64, 'a') + "@b"));
  EXPECT_FALSE(isMailAddress(std::string(65, 'a') + "@b"));
  EXPECT_TRUE(isMailAddress("a@" + std::string(255, 'b')));
  EXPECT_FALSE(isMailAddress("a@" + std::string(256, 'b')));
}

TEST_F(MailTest, ReceiversAreAList) {
  std::vector<std::string> all;
  std::string problem;
  EXPECT_TRUE(parseMailAddresses("a@b , c@d,\te@f", &all, &problem));
  EXPECT_THAT(all, testing::ElementsAre("a@b", "c@d", "e@f"));
  for (const char* none : {"", " ", ",", " , ,\t"}) {
    EXPECT_FALSE(parseMailAddresses(none, &all, &problem));
    EXPECT_EQ(problem, "no receiver");
    put(info_.receiver, none);
    EXPECT_EQ(send(), "no receiver");
  }
  EXPECT_FALSE(parseMailAddresses("a@b, c", &all, &problem));
  EXPECT_EQ(problem, "receiver is no address: c");
  EXPECT_FALSE(parseMailAddresses("a@b;c@d", &all, &problem));
}

TEST(MailText, EveryLineOfQuotedPrintableIsShort) {
  for (const std::size_t length : {74u, 75u, 76u, 77u, 150u, 151u, 152u}) {
    for (const char* unit : {"x", "=", "\xc3\xbc", " "}) {
      std::string text;
      while (text.size() < length) text += unit;
      const std::string lines = mailQuotedPrintable(text);
      std::size_t start = 0;
      for (std::size_t end = 0; (end = lines.find("\r\n", start)) != lines.npos; start = end + 2) {
        EXPECT_LE(end - start, 76u);
        EXPECT_NE(lines[end - 1], ' ');
      }
      EXPECT_EQ(start, lines.size());
    }
  }
}

TEST(MailText, AWordOfASubjectNeverSplitsACharacter) {
  for (std::size_t shift = 0; shift < 4; ++shift) {
    std::string text(shift, 'a');
    for (int i = 0; i < 30; ++i) text += "🚪";
    const std::string subject = mailSubject(text);
    std::size_t start = 0;
    while (start < subject.size()) {
      const std::size_t end = std::min(subject.find("\r\n ", start), subject.size());
      const std::string word = subject.substr(start, end - start);
      EXPECT_LE(word.size(), 67u);  // with "Subject: " in front
      EXPECT_EQ(word.substr(0, 10), "=?UTF-8?B?");
      EXPECT_EQ(word.substr(word.size() - 2), "?=");
      // A character of four bytes begins a word or follows whole ones.
      const std::size_t digits = word.size() - 12;
      const auto padding =
          static_cast<std::size_t>(std::count(word.begin() + 12, word.end() - 2, '='));
      EXPECT_EQ((digits / 4 * 3 - padding - (start == 0 ? shift : 0)) % 4, 0u);
      start = end + 3;
    }
  }
}

}  // namespace
