// Uploads that succeed, and names and servers that are refused before anything is sent.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "platform/ftp.h"
#include "platform/log.h"
#include "tests/platform/ftp_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class FtpUploads : public FtpTest {};

TEST_F(FtpUploads, FilesOfEverySizeArriveWholeInOneSession) {
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(count("< PASS"), 1) << "opening a session logs in";
  for (const int option : {kFtpPassive, kFtpActive})
    for (const std::size_t size : {0, 1, 999, 65535, 65536, 65537, 131072, 1000000, 6000001}) {
      const std::string data = someBytes(size, static_cast<unsigned>(option) + 1);
      ASSERT_EQ(upload("20260101/x.jpg", data, option), 0) << size;
      EXPECT_TRUE(content("20260101/x.jpg") == data) << size;
    }
  EXPECT_EQ(ftpCloseSession(), 0);
  EXPECT_EQ(count("connect"), 1);
  EXPECT_EQ(count("< USER"), 1);
  EXPECT_EQ(count("< QUIT"), 1);
  EXPECT_EQ(count("> 226"), 18);
  EXPECT_EQ(count("< EPSV"), 9);
  EXPECT_EQ(count("< EPRT"), 9);
  EXPECT_EQ(count("< MKD"), 1);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(FtpUploads, FoldersAreMadeAsNeeded) {
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(upload("a/b/c/1.jpg", "one"), 0);
  EXPECT_EQ(upload("a/b/d/2.jpg", "two"), 0);
  EXPECT_EQ(upload("3.jpg", "three"), 0);
  EXPECT_EQ(content("a/b/c/1.jpg"), "one");
  EXPECT_EQ(content("a/b/d/2.jpg"), "two");
  EXPECT_EQ(content("3.jpg"), "three");
  EXPECT_EQ(count("< MKD"), 4);
}

TEST_F(FtpUploads, AFileThatExistsIsReplaced) {
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(upload("now.jpg", someBytes(100000)), 0);
  EXPECT_EQ(upload("now.jpg", "short"), 0);
  EXPECT_EQ(content("now.jpg"), "short");
}

TEST_F(FtpUploads, EveryByteOfANameIsAByteOfAName) {
  start();
  ASSERT_EQ(open(), 0);
  for (const char* name :
       {"#1.jpg", "100%.jpg", "%41.jpg", "what?.jpg", "a;type=a", "a b.jpg", " c.jpg", "d.jpg ",
        "Gr\xC3\xBC\xC3\x9F"
        "e/T\xC3\xBCr.jpg",
        "\xE9\x96\x80.jpg", "&=+,$!'()*@:[]{}|^`\"<>.jpg", "back\\slash.jpg", "~", "~cam/x.jpg",
        "...", ".hidden", "-rf", "a#b/c?d/e%2Ff.jpg"}) {
    EXPECT_EQ(upload(name, name), 0) << name;
    EXPECT_EQ(content(name), name);
  }
  EXPECT_EQ(count("< DELE"), 0);
}

TEST_F(FtpUploads, NamesAreRelativeToTheLoginDirectory) {
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(upload("/top.jpg", "1"), 0);
  EXPECT_EQ(upload("//a//b/./c.jpg", "2"), 0);
  EXPECT_EQ(upload("./d.jpg", "3"), 0);
  EXPECT_EQ(content("top.jpg"), "1");
  EXPECT_EQ(content("a/b/c.jpg"), "2");
  EXPECT_EQ(content("d.jpg"), "3");
}

TEST_F(FtpUploads, NamesThatClimbOrHideCommandsAreRefusedBeforeAnythingIsSent) {
  start();
  ASSERT_EQ(open(), 0);
  const std::size_t before = seen().size();
  const std::pair<const char*, const char*> kNames[] = {
      {"..", ".."},        {"../x.jpg", "../x.jpg"},     {"a/../x.jpg", "a/../x.jpg"},
      {"a/..", "a/.."},    {"a\r\nDELE b", "a??DELE b"}, {"a\nb", "a?b"},
      {"\x1b[2J", "?[2J"}, {"del\x7f", "del?"},          {"", ""},
      {"/", "/"},          {"folder/", "folder/"},       {".", "."},
      {"a/.", "a/."}};
  for (const auto& [name, shown] : kNames) {
    EXPECT_LT(upload(name, "x"), 0) << shown;
    EXPECT_TRUE(logged(std::string("no name of a file: ") + shown));
  }
  EXPECT_EQ(seen().size(), before);
  EXPECT_EQ(upload("good.jpg", "x"), 0) << "the session goes on";
}

TEST_F(FtpUploads, ALengthBelowZeroIsRefused) {
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_LT(ftpTransfer("x", "x", -1, kFtpPassive), 0);
  EXPECT_TRUE(logged("a file of less than 0 bytes"));
  EXPECT_EQ(count("< STOR"), 0);
}

TEST_F(FtpUploads, AnEmptyNameOfAUserIsAnonymous) {
  start({"--anonymous"});
  EXPECT_EQ(ftpOpenSession("127.0.0.1", server_->port(), "", ""), 0);
  EXPECT_EQ(count("< USER anonymous"), 1);
  EXPECT_EQ(upload("cam/x", "anybody"), 0);
  EXPECT_EQ(content("x"), "anybody");
}

TEST_F(FtpUploads, AnEmptyPasswordIsFine) {
  start();
  EXPECT_EQ(ftpOpenSession("127.0.0.1", server_->port(), "open", ""), 0);
  EXPECT_EQ(upload("x", "data"), 0);
  EXPECT_EQ(content("x"), "data");
}

TEST_F(FtpUploads, AServerMayHaveAnAddressOfIpv6) {
  start({"--host", "::1"});
  for (const char* address : {"::1", "[::1]"})
    for (const int option : {kFtpPassive, kFtpActive}) {
      ASSERT_EQ(open(address), 0) << address;
      EXPECT_EQ(upload("x", address, option), 0);
      EXPECT_EQ(content("x"), address);
      EXPECT_EQ(ftpCloseSession(), 0);
    }
}

TEST_F(FtpUploads, WhatIsNoServerIsRefused) {
  const std::pair<const char*, const char*> kServers[] = {{"", ""},
                                                          {"ftp://host", "ftp://host"},
                                                          {"host/path", "host/path"},
                                                          {"user@host", "user@host"},
                                                          {"host:2121", "host:2121"},
                                                          {"two words", "two words"},
                                                          {"host\nQUIT", "host?QUIT"},
                                                          {"host\x7f", "host?"},
                                                          {"a?b", "a?b"},
                                                          {"a#b", "a#b"},
                                                          {"[::1", "[::1"},
                                                          {"[host]", "[host]"}};
  for (const auto& [server, shown] : kServers) {
    EXPECT_LT(ftpOpenSession(server, 21, kUser, kPassword), 0) << shown;
    EXPECT_TRUE(logged("no name, address or port of a server", shown));
  }
  for (const int port : {-1, 0, 65536}) {
    EXPECT_LT(ftpOpenSession("127.0.0.1", port, kUser, kPassword), 0) << port;
    EXPECT_TRUE(logged("no name, address or port of a server")) << port;
  }
}

TEST_F(FtpUploads, UsersAndPasswordsThatHideCommandsAreRefusedBeforeAnythingIsSent) {
  start();
  const std::pair<std::string, std::string> kLogins[] = {
      {"cam\r\nDELE x", kPassword}, {kUser, std::string(kPassword) + "\r\nDELE x"}, {"\x01", "x"}};
  for (const auto& [user, password] : kLogins) {
    EXPECT_LT(ftpOpenSession("127.0.0.1", server_->port(), user.c_str(), password.c_str()), 0);
    EXPECT_TRUE(logged("a control character in the user's name or password"));
  }
  EXPECT_TRUE(seen().empty());
  EXPECT_TRUE(passwordIsKept());
}

TEST_F(FtpUploads, WithoutASessionNothingIsSentOrClosed) {
  EXPECT_LT(ftpCloseSession(), 0);
  EXPECT_LT(upload("a\nb.jpg", "x"), 0);
  EXPECT_TRUE(log_.waitFor("2 ftp: no session for a?b.jpg"));
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(ftpCloseSession(), 0);
  EXPECT_LT(ftpCloseSession(), 0);
  EXPECT_LT(upload("x", "x"), 0);
}

TEST_F(FtpUploads, EachThreadHasASessionOfItsOwn) {
  start();
  ASSERT_EQ(open(), 0);
  std::thread([this] {
    EXPECT_LT(upload("other", "x"), 0);
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(upload("other", "x"), 0);
  }).join();
  EXPECT_TRUE(eventually([this] { return count("disconnect") == 1; }))
      << "the session goes with its thread";
  EXPECT_EQ(upload("mine", "y"), 0);
  EXPECT_EQ(count("< USER"), 2);
}

TEST_F(FtpUploads, OpeningAgainEndsTheSessionBefore) {
  start();
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(open(), 0);
  EXPECT_TRUE(eventually([this] { return count("disconnect") == 1; }));
  EXPECT_EQ(upload("x", "second"), 0);
  EXPECT_EQ(content("x"), "second");
}

// --- TLS

class FtpTls : public FtpTest {};

TEST_F(FtpTls, LoginAndDataAreEncrypted) {
  start(tls("server", "--tls-required"));
  settings("Security=1\nCaFile=" + certificate("ca") + "\n");
  ASSERT_EQ(open(), 0);
  for (const std::size_t size : {0, 1, 1, 65537, 3000000, 3000000, 1, 100, 10000, 65536}) {
    const std::string data = someBytes(size);
    ASSERT_EQ(upload("x/y.jpg", data), 0) << size;
    EXPECT_TRUE(content("x/y.jpg") == data) << size;
  }
  EXPECT_EQ(ftpCloseSession(), 0);
  EXPECT_EQ(count("< PROT P"), 1);
  EXPECT_EQ(count("< USER"), 1);
  EXPECT_EQ(count("< QUIT"), 1);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(FtpTls, DataIsNeverSentInTheClearByAnActiveConnection) {
  start(tls("server"));
  settings("Security=1\nCaFile=" + certificate("ca") + "\n");
  ASSERT_EQ(open(), 0);
  for (const char* data : {"first", "second"}) {
    EXPECT_EQ(upload("x", data, kFtpActive), 0);
    EXPECT_EQ(content("x"), data);
  }
  EXPECT_EQ(count("< EPRT") + count("< PORT"), 0);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{
                              "2 ftp: 127.0.0.1: with TLS the data connections are passive"});
}

TEST_F(FtpTls, AServerWithoutItGetsNoLogin) {
  start();
  for (const char* wanted : {"Security=1\n", "Security=2\n", "Security=-1\n"}) {
    settings(wanted);
    EXPECT_LT(open(), 0) << wanted;
  }
  EXPECT_EQ(count("< USER"), 0);
  EXPECT_EQ(count("< PASS"), 0);
}

TEST_F(FtpTls, AValueThatIsNoneIsToldAndCountsAsTls) {
  start();
  settings("Security=7\n");
  EXPECT_LT(open(), 0);
  EXPECT_TRUE(log_.waitFor("2 /etc/camera.conf: [Ftp] Security is not from 0 to 1: 7"));
  EXPECT_EQ(count("< AUTH"), 2);  // TLS and, of old, SSL
}

class FtpBadCertificate : public FtpTls, public testing::WithParamInterface<const char*> {};

TEST_P(FtpBadCertificate, GetsNoLoginUnlessTheSettingsSaySo) {
  start(tls(GetParam()));
  const std::string file = "Security=1\nCaFile=" + certificate("ca") + "\n";
  settings(file);
  EXPECT_LT(open(), 0);
  EXPECT_EQ(count("< USER"), 0);
  const std::vector<std::string> lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], testing::AnyOf(HasSubstr("certificate"), HasSubstr("no alternative")));
  settings(file + "Verify=0\n");
  EXPECT_EQ(open(), 0);
  EXPECT_EQ(upload("x", "trusted"), 0);
  EXPECT_EQ(content("x"), "trusted");
}

INSTANTIATE_TEST_SUITE_P(Of, FtpBadCertificate, testing::Values("expired", "other", "stranger"),
                         [](const auto& name) { return std::string(name.param); });

TEST_F(FtpTls, WithoutAFileOfAuthoritiesThoseOfTheSystemCount) {
  start(tls("server"));
  settings("Security=1\n");
  EXPECT_LT(open(), 0);
  EXPECT_EQ(count("< USER"), 0);
  settings("Security=1\nCaFile=/nowhere/ca.pem\n");
  EXPECT_LT(open(), 0);
  EXPECT_EQ(count("< USER"), 0);
}

TEST_F(FtpTls, ATooLongNameOfTheFileOfAuthoritiesOpensNothing) {
  start();
  settings("Security=0\nCaFile=a\tb\n");
  EXPECT_LT(open(), 0);
  EXPECT_TRUE(logged("the settings can't be used"));
  EXPECT_TRUE(seen().empty());
}

TEST_F(FtpTls, APipeInThePlaceOfTheAuthoritiesHoldsNobody) {
  start();
  const std::string pipe = root_.path("/etc/pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& file : {pipe, std::string("/dev/zero"), root_.path("/etc")}) {
    settings("Security=1\nCaFile=" + file + "\n");
    EXPECT_LT(open(), 0);
    const std::vector<std::string> lines = log_.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "2 /etc/camera.conf: [Ftp] CaFile is no file: " + file);
    EXPECT_EQ(lines[1], "2 ftp: 127.0.0.1: the settings can't be used");
    free_log();
  }
  EXPECT_TRUE(seen().empty());
}

}  // namespace
