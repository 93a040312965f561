// Servers that refuse, hang and vanish.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <thread>

#include "platform/linux/transfer.h"
#include "platform/log.h"
#include "tests/platform/fault_rounds.h"
#include "tests/platform/mail_fixture.h"
#include "tests/platform/thread_body.h"

namespace {
bool setsFlags = true;  // for libcurl
}

extern "C" {
int fcntlForLibraries(int fd, int command, ...) __asm__("fcntl");

// Ours has another name, as files may be large.
int fcntlForLibraries(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command != F_SETFL || setsFlags) return fcntl(fd, command, argument);
  errno = ENOMEM;
  return -1;
}
}

namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint32_t kStallMs = 300;
constexpr std::uint32_t kBoundMs = 4000;  // far below the limits of a camera
constexpr std::uint32_t kStopMs = 200;
// libcurl waits for some answers by itself, and looks up once a second.
constexpr std::uint32_t kSlowStopMs = 1200;

class MailFaults : public MailTest {
 protected:
  MailFaults() {
    Transfer::limits().connectMs = 10 * kStallMs;  // longer, so that it is not this that ends one
    Transfer::limits().stallMs = kStallMs;
    attach(std::string(20000, 'x'), "image/jpeg", "1.jpg");
  }
  // More than sockets hold.
  void attachMuch() { attach(std::string(8 << 20, 'x'), "image/jpeg", "1.jpg"); }
  std::string sendWith(const std::string& word) {
    fault(word);
    std::string reason;
    const std::uint32_t took = msOf([&] { reason = send(); });
    EXPECT_LT(took, kBoundMs) << word;
    return reason;
  }
};

TEST_F(MailFaults, EachHasItsReason) {
  serve();
  const char* const kUnanswered = "the server does not answer";
  const struct {
    const char* fault;
    const char* reason;
  } kCases[] = {
      {"busy", "the server refuses: 421 4.3.2 too busy"},
      {"silent", kUnanswered},
      {"sender", "the server refuses: 550 5.7.1 sender rejected"},
      {"full", "the server refuses: 452 4.3.1 insufficient system storage"},
      {"full-late", "the server refuses: 552 5.2.2 mailbox full"},
      {"forbidden", "the server refuses: 550 5.1.1 no such user: guard@example.org"},
      {"mute", kUnanswered},
  };
  for (const auto& c : kCases) EXPECT_EQ(sendWith(c.fault), c.reason) << c.fault;
  EXPECT_THAT(sendWith("nonsense"), HasSubstr("response reading failed"));
  EXPECT_THAT(sendWith("deaf"), AnyOf(HasSubstr("reset"), HasSubstr("Server returned nothing"),
                                      HasSubstr("response reading failed")));
  EXPECT_THAT(sendWith("drop"),
              AnyOf(HasSubstr("reset"), HasSubstr("Broken pipe"), HasSubstr("Failed sending")));
  EXPECT_EQ(mails(), 0);
  EXPECT_EQ(sendWith(""), "");
  EXPECT_EQ(mails(), 1);
}

TEST_F(MailFaults, AnotherRefusedReceiverKeepsTheMailFromAll) {
  serve();
  put(info_.receiver, "a@example.org, b@example.org");
  EXPECT_EQ(sendWith("second"), "the server refuses: 550 5.1.1 no such user: b@example.org");
  EXPECT_EQ(mails(), 0);
}

TEST_F(MailFaults, TooLargeAMailIsRefusedBeforeItIsSent) {
  serve({"--limit", "10000"});
  EXPECT_EQ(send(),
            "the server refuses: 552 Error: message size exceeds fixed maximum message size");
  EXPECT_EQ(timesIn(commands(), "DATA"), 0);
}

TEST_F(MailFaults, AMailThatWasTakenIsSentWhateverComesOfTheFarewell) {
  Transfer::limits().stallMs = 20000;
  serve();
  fault("no-bye");
  std::string reason = "none";
  EXPECT_LT(msOf([&] { reason = send(); }), 3000u);
  EXPECT_EQ(reason, "");
  EXPECT_EQ(mails(), 1);
}

TEST_F(MailFaults, NobodyListens) {
  ClosedPort closed;
  info_.port = closed.port();
  EXPECT_THAT(send(), StartsWith("Failed to connect to 127.0.0.1 port"));
}

TEST_F(MailFaults, NobodyHasThatName) {
  put(info_.server, "no-such-host.invalid");
  std::string reason;
  EXPECT_LT(msOf([&] { reason = send(); }), kBoundMs);
  EXPECT_THAT(reason, AnyOf(StartsWith("Could not resolve host"), HasSubstr("Resolving timed out"),
                            HasSubstr("does not answer")));
}

TEST_F(MailFaults, AServerThatWasKilledMeanwhile) {
  serve();
  fault("stall");
  attachMuch();
  Transfer::limits().stallMs = 20000;
  std::thread killer([this] {
    EXPECT_TRUE(eventually([this] { return timesIn(commands(), "DATA") == 1; }));
    server_->signal(SIGKILL);
  });
  std::string reason;
  EXPECT_LT(msOf([&] { reason = send(); }), 5000u);
  EXPECT_NE(reason, "");
  killer.join();
}

// Sends on a thread of its own and asks it to stop when `commands` have come. Returns how long it
// took to end then.
std::uint32_t stopTime(const TMailInfo& info, const std::function<bool()>& ready) {
  std::atomic<int> result{0};
  Body body([&](Body&) { result = send_mail(&info); });
  body.run();
  EXPECT_TRUE(eventually(ready));
  os::usleep(20000);  // into the wait
  const std::uint32_t took = msOf([&] { EXPECT_TRUE(body.stop(true)); });
  EXPECT_NE(result, 0);
  return took;
}

TEST_F(MailFaults, EndWhenTheThreadIsAskedToStop) {
  Transfer::limits() = Transfer::Limits();
  serve();
  fault("silent");
  EXPECT_LT(stopTime(info_, [] { return true; }), kStopMs);
  EXPECT_TRUE(log_.waitFor("2 mail: 127.0.0.1: asked to stop"));
  free_log();  // so that the same line is none that repeats
  fault("stall");
  attachMuch();
  EXPECT_LT(stopTime(info_, [&] { return timesIn(commands(), "DATA") == 1; }), kStopMs);
  EXPECT_TRUE(log_.waitFor("2 mail: 127.0.0.1: asked to stop"));
  EXPECT_EQ(mails(), 0);
}

// It goes on when it can't, and would wait for ever in calls that do not look up.
TEST_F(MailFaults, SocketsThatLibcurlFailsToMakeNonBlockingHoldNobody) {
  const auto files = certificate();
  configure("[Mail]\nVerify=0\n");
  serve({"--tls", files[0], files[1]});
  info_.security = kMailTls;
  setsFlags = false;
  EXPECT_EQ(send(), "");
  setsFlags = true;
  EXPECT_EQ(mails(), 1);
}

// Half a mail must not end like a whole one.
TEST_F(MailFaults, AMailThatIsStoppedInTheMiddleNeverArrives) {
  Transfer::limits() = Transfer::Limits();
  serve();
  attachMuch();
  EXPECT_LT(stopTime(info_, [&] { return timesIn(commands(), "DATA") == 1; }), kStopMs);
  fault("");
  attach("data", "image/jpeg", "1.jpg");
  EXPECT_EQ(send(), "");
  EXPECT_EQ(mails(), 1);
  EXPECT_THAT(judged(1), HasSubstr(R"("length": 4,)"));
}

TEST_F(MailFaults, EndSoonWhenOnlyAnAnswerIsMissing) {
  Transfer::limits() = Transfer::Limits();
  serve();
  fault("mute");
  EXPECT_LT(stopTime(info_, [&] { return timesIn(commands(), "DATA") == 1; }), kSlowStopMs);
  fault("rude");
  EXPECT_LT(stopTime(info_, [&] { return timesIn(commands(), "RCPT") == 2; }), kSlowStopMs);
}

int openFiles() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

int threads() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    ++count;
  return count;
}

TEST_F(MailFaults, NothingIsLeftBehindByManyOfThem) {
  serve();
  Transfer::limits().stallMs = 100;
  attach(std::string(2000, 'x'), "image/jpeg", "1.jpg");
  const char* const kQuick[] = {"busy",   "nonsense",  "deaf",      "sender", "full",
                                "second", "full-late", "forbidden", "drop",   ""};
  const auto round = [&](int number) {
    fault(number % 500 == 499 ? "mute"  // a second each
          : number % 50 == 49 ? "silent"
                              : kQuick[static_cast<std::size_t>(number) % 10]);
    send_mail(&info_);
  };
  put(info_.receiver, "a@example.org,b@example.org");
  for (int i = 0; i < 100; ++i) round(i);
  const int files = openFiles();
  const int before = threads();
  const std::size_t memory = mallinfo2().uordblks;
  const int rounds = faultRounds(200);
  for (int i = 0; i < rounds; ++i) round(i);
  EXPECT_EQ(openFiles(), files);
  EXPECT_EQ(threads(), before);
  EXPECT_LE(mallinfo2().uordblks, memory + 10000);
  EXPECT_GE(mails(), rounds / 20);
}

}  // namespace
