// Servers that are not there, say nothing, refuse or break off; and being asked to stop meanwhile.
#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>

#include "platform/ftp.h"
#include "tests/platform/fault_rounds.h"
#include "tests/platform/ftp_fixture.h"
#include "tests/platform/thread_body.h"

namespace {

namespace fs = std::filesystem;

constexpr int kBig = 4000000;  // more than sockets take by themselves

class FtpFaults : public FtpTest {
 protected:
  // Gives servers so little time that tests need not wait.
  static void hurry() { Transfer::limits() = {300, 300, 300}; }

  // Asks a body to stop while it is inside `call`, once the server has seen `line`. Returns how
  // many milliseconds it took to end, and in `*result` what the call returned.
  std::uint32_t stopInside(const std::string& line, const std::function<int()>& call, int* result) {
    Body body([&](Body&) { *result = call(); });
    body.run();
    EXPECT_TRUE(eventually([&] { return count(line) > 0; })) << line;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return msOf([&] { EXPECT_TRUE(body.PThread::stop(true)); });
  }
};

constexpr std::uint32_t kSoonMs = 200 * kSlow;  // after being asked to stop
constexpr std::uint32_t kLookMs = 1000;         // between two looks of libcurl in a wait of its own
constexpr std::uint32_t kInTimeMs =
    900 * kSlow;  // with limits of 300 ms, on a machine that is busy

// --- What the server does to a login.

TEST_F(FtpFaults, NobodyListens) {
  const ClosedPort closed;
  EXPECT_LT(ftpOpenSession("127.0.0.1", closed.port(), kUser, kPassword), 0);
  const std::vector<std::string> lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], testing::StartsWith("2 ftp: 127.0.0.1: Failed to connect to 127.0.0.1"));
}

TEST_F(FtpFaults, ANameThatNobodyKnows) {
  Transfer::limits() = {1000, 1000, 300};
  std::uint32_t ms =
      msOf([] { EXPECT_LT(ftpOpenSession("no-such-server.invalid", 21, kUser, kPassword), 0); });
  EXPECT_LT(ms, 1600u);
  const std::vector<std::string> lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], testing::StartsWith("2 ftp: no-such-server.invalid: "));
}

TEST_F(FtpFaults, AServerThatAcceptsAndSaysNothing) {
  hurry();
  start();
  faults("silent");
  const std::uint32_t ms = msOf([this] { EXPECT_LT(open(), 0); });
  EXPECT_GE(ms, 290u);
  EXPECT_LT(ms, kInTimeMs);
  EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(FtpFaults, AServerThatFallsSilentDuringTheLogin) {
  hurry();
  start();
  faults("mute PASS");
  EXPECT_LT(msOf([this] { EXPECT_LT(open(), 0); }), kInTimeMs);
}

TEST_F(FtpFaults, AWrongPasswordFailsWhenTheSessionIsOpened) {
  start();
  EXPECT_LT(ftpOpenSession("127.0.0.1", server_->port(), kUser, "wr0ng"), 0);
  EXPECT_TRUE(logged("Access denied: 530"));
  EXPECT_LT(upload("x", "x"), 0);
  EXPECT_EQ(count("< PASS"), 1) << "a wrong password is not tried again";
}

TEST_F(FtpFaults, AServerThatRepeatsThePasswordGetsItIntoNoLog) {
  start();
  faults(std::string("reply PASS 530 no ") + kPassword);
  EXPECT_LT(open(), 0);
  faults(std::string("reply STOR 550 ") + kPassword);
  ASSERT_EQ(open(), 0);
  EXPECT_LT(upload("x", "x"), 0);
  EXPECT_TRUE(passwordIsKept());
}

TEST_F(FtpFaults, AReasonThatHoldsTheSecretIsReplaced) {
  const ClosedPort closed;
  const std::string url = "ftp://127.0.0.1:" + std::to_string(closed.port()) + "/";
  Transfer transfer;
  curl_easy_setopt(transfer.easy(), CURLOPT_URL, url.c_str());
  EXPECT_EQ(transfer.run(), CURLE_COULDNT_CONNECT);
  EXPECT_THAT(transfer.reason(""), testing::HasSubstr("127.0.0.1"));
  EXPECT_EQ(transfer.reason("127.0.0.1"), "Couldn't connect to server");
}

// --- What it does to an upload.

TEST_F(FtpFaults, AForbiddenFolder) {
  start();
  ASSERT_EQ(open(), 0);
  faults("forbid /private");
  EXPECT_LT(upload("private/x.jpg", "x"), 0);
  EXPECT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(upload("public/x.jpg", "x"), 0) << "the session goes on";
  EXPECT_EQ(count("< USER"), 1);
}

TEST_F(FtpFaults, AFileThatMustNotBeStored) {
  start();
  ASSERT_EQ(open(), 0);
  faults("reply STOR 553 Not here.");
  EXPECT_LT(upload("x.jpg", "x"), 0);
  EXPECT_TRUE(logged("Failed FTP upload: 553"));
}

TEST_F(FtpFaults, AFullDiskThere) {
  start();
  ASSERT_EQ(open(), 0);
  faults("full 1000000");
  EXPECT_LT(upload("x.jpg", someBytes(kBig)), 0);
  // The broken data connection may be seen ahead of the reply.
  EXPECT_TRUE(eventually([this] { return count("> 552") == 1 || count("disconnect") == 1; }));
  EXPECT_EQ(log_.lines().size(), 1u);
  EXPECT_TRUE(passwordIsKept());
}

TEST_F(FtpFaults, AFullDiskThatShowsOnlyWhenAllIsSent) {
  start();
  ASSERT_EQ(open(), 0);
  faults("full 100");
  EXPECT_LT(upload("x.jpg", someBytes(1000)), 0);
  EXPECT_EQ(count("> 552"), 1);
  EXPECT_EQ(count("> 226"), 0);
  EXPECT_TRUE(logged("Exceeded storage allocation"));
}

TEST_F(FtpFaults, AServerThatDropsTheConnectionInTheMiddle) {
  start();
  ASSERT_EQ(open(), 0);
  faults("drop 1000000");
  EXPECT_LT(upload("x.jpg", someBytes(kBig)), 0);
  EXPECT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(count("< USER"), 1) << "half an upload is not tried again";
  EXPECT_LT(ftpCloseSession(), 0);
  EXPECT_TRUE(logged("the connection is lost"));
}

TEST_F(FtpFaults, AServerThatIsKilledInTheMiddle) {
  start();
  faults("stall 1000000");
  Body body([this](Body&) {
    EXPECT_EQ(open(), 0);
    EXPECT_LT(upload("x.jpg", someBytes(kBig)), 0);
  });
  body.run();
  EXPECT_TRUE(eventually([this] { return count("< STOR") == 1; }));
  server_->signal(SIGKILL);
  EXPECT_TRUE(eventually([&] { return body.ended == 1; }));
}

class FtpStalls : public FtpFaults, public testing::WithParamInterface<int> {};

TEST_P(FtpStalls, AServerThatTakesNoMoreInTheMiddle) {
  hurry();
  start();
  ASSERT_EQ(open(), 0);
  faults("stall 1000000");
  const std::string data = someBytes(kBig);
  const std::uint32_t ms = msOf([&] { EXPECT_LT(upload("x.jpg", data, GetParam()), 0); });
  EXPECT_GE(ms, 290u);
  EXPECT_LT(ms, kInTimeMs + kLookMs);
  EXPECT_TRUE(logged("the server does not answer"));
}

TEST_P(FtpStalls, AServerThatDoesNotConfirmTheFile) {
  hurry();
  start();
  ASSERT_EQ(open(), 0);
  faults("mute 226");
  const std::uint32_t ms = msOf([&] { EXPECT_LT(upload("x.jpg", "all of it", GetParam()), 0); });
  EXPECT_GE(ms, 290u);
  EXPECT_LT(ms, kInTimeMs + (GetParam() == kFtpActive ? 1000u : 0u));
  EXPECT_TRUE(logged("the server does not answer"));
  EXPECT_EQ(content("x.jpg"), "all of it");
}

TEST_P(FtpStalls, AServerThatDoesNotAnswerTheUpload) {
  hurry();
  start();
  ASSERT_EQ(open(), 0);
  faults("mute STOR");
  EXPECT_LT(msOf([&] { EXPECT_LT(upload("x.jpg", "x", GetParam()), 0); }), kInTimeMs);
  EXPECT_TRUE(logged("the server does not answer"));
}

INSTANTIATE_TEST_SUITE_P(With, FtpStalls, testing::Values(kFtpPassive, kFtpActive),
                         [](const auto& option) {
                           return option.param == kFtpPassive ? "Passive" : "Active";
                         });

// --- Sessions that end while nothing is uploaded.

class FtpIdle : public FtpFaults, public testing::WithParamInterface<const char*> {};

TEST_P(FtpIdle, ASessionThatTheServerEndsIsOpenedAgainUnseen) {
  start();
  ASSERT_EQ(open(), 0);
  for (int round = 1; round <= 3; ++round) {
    faults(GetParam());
    EXPECT_EQ(upload("a/x.jpg", "before"), 0);
    EXPECT_TRUE(eventually([&] { return count("disconnect") == round; }));
    faults("");
    EXPECT_EQ(upload("a/y.jpg", "after"), 0);
    EXPECT_EQ(content("a/y.jpg"), "after");
    EXPECT_EQ(count("< USER"), 1 + round) << readFile(root_.path("/server.log"));
  }
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(ftpCloseSession(), 0);
}

TEST_P(FtpIdle, OneThatCanNotBeOpenedAgainFailsOnce) {
  start();
  ASSERT_EQ(open(), 0);
  faults(GetParam());
  EXPECT_EQ(upload("x.jpg", "before"), 0);
  EXPECT_TRUE(eventually([&] { return count("disconnect") == 1; }));
  faults("reply PASS 530 Not today.");
  EXPECT_LT(upload("y.jpg", "after"), 0);
  EXPECT_TRUE(logged("Access denied: 530"));
  EXPECT_EQ(count("< USER"), 2);
}

TEST_P(FtpIdle, OneThatIsOverIsNotOpenedToLogOut) {
  start();
  ASSERT_EQ(open(), 0);
  faults(GetParam());
  EXPECT_EQ(upload("x.jpg", "before"), 0);
  EXPECT_TRUE(eventually([&] { return count("disconnect") == 1; }));
  EXPECT_LT(ftpCloseSession(), 0);
  EXPECT_EQ(count("connect"), 1);
  EXPECT_EQ(log_.lines().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(With, FtpIdle, testing::Values("bye STOR", "hang-up STOR"),
                         [](const auto& fault) {
                           return fault.param[0] == 'b' ? "AWord" : "NoWord";
                         });

TEST_F(FtpFaults, ASessionThatEndsBetweenTwoCommandsIsOpenedAgain) {
  start();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(upload("x.jpg", "before"), 0);
  faults("reply EPSV 421 Idle for too long.");
  EXPECT_LT(upload("y.jpg", "never"), 0);
  EXPECT_EQ(count("< USER"), 2) << "once, not for ever";
}

// --- Logging out.

TEST_F(FtpFaults, ClosingAServerThatDoesNotAnswerTakesNotLong) {
  Transfer::limits().farewellMs = 300;
  start();
  ASSERT_EQ(open(), 0);
  faults("mute QUIT");
  const std::uint32_t ms = msOf([] { EXPECT_LT(ftpCloseSession(), 0); });
  EXPECT_GE(ms, 290u);
  EXPECT_LT(ms, kInTimeMs);
  EXPECT_EQ(count("< QUIT"), 1);
  EXPECT_TRUE(logged("the server does not answer"));
}

TEST_F(FtpFaults, UsualLimitsAreThoseOfTheContract) {
  const Transfer::Limits limits;
  EXPECT_EQ(limits.connectMs, 10000);
  EXPECT_EQ(limits.stallMs, 20000);
  EXPECT_EQ(limits.farewellMs, 2000);
}

// --- Being asked to stop.

TEST_F(FtpFaults, ALoginThatHangsEndsWhenAskedTo) {
  start();
  faults("mute PASS");
  int result = 0;
  EXPECT_LT(stopInside(
                "< PASS", [this] { return open(); }, &result),
            kSoonMs);
  EXPECT_LT(result, 0);
  EXPECT_TRUE(logged("asked to stop"));
}

TEST_F(FtpFaults, AnUploadThatHangsEndsWhenAskedTo) {
  start();
  const std::string data = someBytes(kBig);
  for (const int option : {kFtpPassive, kFtpActive}) {
    const std::pair<const char*, const char*> kFaults[] = {
        {"stall 1000000", "> 125"}, {"mute STOR", "< STOR"}, {"mute EPSV\nmute EPRT", "< EP"}};
    for (const auto& [fault, line] : kFaults) {
      fs::resize_file(root_.path("/server.log"), 0);
      faults(fault);
      int result = 0;
      const auto call = [&] { return open() == 0 ? upload("x.jpg", data, option) : 0; };
      EXPECT_LT(stopInside(line, call, &result), kLookMs + kSoonMs) << fault;
      EXPECT_LT(result, 0) << fault;
      EXPECT_TRUE(logged("asked to stop"));
    }
  }
}

TEST_F(FtpFaults, WaitingForTheConfirmationEndsWhenAskedTo) {
  start();
  faults("mute 226");
  int result = 0;
  const auto call = [this] { return open() == 0 ? upload("x.jpg", "x") : 0; };
  EXPECT_LT(stopInside("> 125", call, &result), kSoonMs);
  EXPECT_LT(result, 0);
  EXPECT_TRUE(logged("asked to stop"));
}

// libcurl waits for these without looking up.
TEST_F(FtpFaults, AHandshakeOfTlsThatHangsEndsWhenAskedTo) {
  start(tls("server"));
  settings("Security=1\nCaFile=" + certificate("ca") + "\n");
  const std::pair<const char*, const char*> kFaults[] = {{"no-tls control", "> 234"},
                                                         {"no-tls data", "> 125"}};
  for (const auto& [fault, line] : kFaults) {
    faults(fault);
    int result = 0;
    const auto call = [this] { return open() == 0 ? upload("x.jpg", "x") : -2; };
    EXPECT_LT(stopInside(line, call, &result), kSoonMs) << fault;
    EXPECT_LT(result, 0) << fault;
    EXPECT_TRUE(logged("asked to stop")) << fault;
  }
}

TEST_F(FtpFaults, AHandshakeOfTlsThatHangsEndsByItself) {
  start(tls("server"));
  settings("Security=1\nCaFile=" + certificate("ca") + "\n");
  hurry();
  faults("no-tls control");
  EXPECT_LT(msOf([this] { EXPECT_LT(open(), 0); }), kInTimeMs);
  faults("");
  Transfer::limits().connectMs = 1000;
  ASSERT_EQ(open(), 0);
  faults("no-tls data");
  EXPECT_LT(msOf([this] { EXPECT_LT(upload("x.jpg", "x"), 0); }), 1000 + kInTimeMs);
}

TEST_F(FtpFaults, LoggingOutEndsWhenAskedTo) {
  start();
  faults("mute QUIT");
  int result = 0;
  const auto call = [this] { return open() == 0 ? ftpCloseSession() : 0; };
  EXPECT_LT(stopInside("< QUIT", call, &result), kSoonMs);
  EXPECT_LT(result, 0);
}

// --- For ever.

int openDescriptors() {
  const fs::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

TEST_F(FtpFaults, ManyFaultsLeakNothing) {
  Transfer::limits() = {50, 50, 50};
  start();
  const ClosedPort closed;
  const std::string data = someBytes(300000);
  const char* const kFaults[] = {"",         "drop 1000",   "full 1000",    "forbid /a",
                                 "bye STOR", "bye PASS",    "hang-up STOR", "reply PASS 530 No.",
                                 "bye EPSV", "drop 299999", "hang-up EPSV", "reply STOR 550 No."};
  int before = 0;
  const int rounds = faultRounds(200);
  for (int round = 0; round < rounds; ++round) {
    if (round == 20) before = openDescriptors();
    if (round % 100 == 99) {
      EXPECT_LT(ftpOpenSession("127.0.0.1", closed.port(), kUser, kPassword), 0);
      faults("silent");
    } else {
      faults(kFaults[static_cast<std::size_t>(round) % std::size(kFaults)]);
    }
    if (open() != 0) continue;
    upload("a/x.jpg", data, round % 2);
    upload("a/y.jpg", "second", round % 2);
    ftpCloseSession();
  }
  EXPECT_EQ(openDescriptors(), before);
  Transfer::limits() = usual_;
  faults("");
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(upload("a/z.jpg", data), 0);
  EXPECT_TRUE(content("a/z.jpg") == data);
}

}  // namespace
