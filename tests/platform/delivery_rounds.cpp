// The recorders that deliver, on the platform as it is, against servers that fail again and again.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/stream_buffer_owner.h"
#include "platform/linux/transfer.h"
#include "platform/os.h"
#include "platform/stream_buffer.h"
#include "record/ftp_recorder.h"
#include "record/jpg_writer.h"
#include "record/mail_recorder.h"
#include "tests/platform/fault_rounds.h"
#include "tests/platform/server.h"
#include "tests/platform/support.h"

namespace {

namespace fs = std::filesystem;

constexpr char kPassword[] = "s3cret-w0rd";

// They look for pictures where the test puts them, and tell when they have tried one.
class Uploads : public TFtpRecorder {
 public:
  Uploads() : TFtpRecorder(nullptr) {}

 protected:
  SB_HANDLE* getHandle() override { return sbVideo2(); }
};

class Mails : public TMailRecorder {
 public:
  Mails() : TMailRecorder(nullptr, "guard@example.org", "Look") {}
  std::atomic<int> tried{0};

 protected:
  SB_HANDLE* getHandle() override { return sbVideo2(); }
  bool onCapture(const char* data, long length) override {
    const bool result = TMailRecorder::onCapture(data, length);
    ++tried;
    return result;
  }
};

// What is there of something that could be left behind.
struct Used {
  int files = 0;
  int threads = 0;
  std::size_t allocated = 0;
  std::size_t resident = 0;
};

int entries(const char* folder) {
  const fs::directory_iterator all(folder);
  return static_cast<int>(std::distance(begin(all), end(all)));
}

Used usedNow() {
  const std::string pages = readFile("/proc/self/statm");
  const std::size_t second = pages.find(' ') + 1;
  return {entries("/proc/self/fd"), entries("/proc/self/task"), mallinfo2().uordblks,
          static_cast<std::size_t>(std::atol(pages.c_str() + second)) * 4096};
}

enum Who { kKnown, kWrongPassword, kStranger, kNobody, kNowhere };
enum Outcome { kArrives, kFails, kIsStopped };
struct Fault {
  Who who;
  const char* ftp;
  const char* mail;
  Outcome outcome;
};
constexpr Fault kFaults[] = {
    {kKnown, "", "", kArrives},
    {kKnown, "drop 1000", "drop", kFails},
    {kKnown, "full 1000", "full", kFails},
    {kKnown, "forbid /pictures", "forbidden", kFails},
    {kKnown, "reply STOR 553 No.", "full-late", kFails},
    {kKnown, "stall 1000", "stall", kIsStopped},
    {kKnown, "hang-up AUTH", "deaf", kFails},
    {kKnown, "reply USER 421 Busy.", "busy", kFails},
    {kKnown, "mute PASS", "silent", kIsStopped},
    {kWrongPassword, "", "", kFails},
    {kStranger, "", "", kFails},
    {kNobody, "", "", kFails},
    {kNowhere, "", "", kFails},
    {kKnown, "silent", "silent", kFails},
};
constexpr int kKinds = static_cast<int>(std::size(kFaults));

class DeliveryRounds : public testing::Test {
 protected:
  DeliveryRounds() {
    for (const char* folder : {"/etc", "/dev/shm", "/run/camera", "/var/log/camera", "/server/cam"})
      fs::create_directories(root_.path(folder));
    sbOwnSegments();
    writeFile(root_.path("/ftp.users"), std::string("cam:") + kPassword + ":cam\n");
    writeFile(root_.path("/mail.users"), std::string("cam:") + kPassword + "\n");
    fs::permissions(root_.path("/ftp.users"), fs::perms::owner_read | fs::perms::owner_write);
    const std::string folder = root_.path("/certificates");
    EXPECT_EQ(std::system((VS_SOURCE_DIR "/board/servers/certificates " + folder).c_str()), 0);
    const std::string pem = folder + "/server.pem";
    const std::string key = folder + "/server.key";
    ftp_ = std::make_unique<Server>(
        "ftp_server", std::vector<std::string>{"--root", root_.path("/server"), "--users",
                                               root_.path("/ftp.users"), "--tls", pem, key,
                                               "--tls-required", "--faults", root_.path("/ftp")});
    mail_ = std::make_unique<Server>(
        "mail_server", std::vector<std::string>{"--mailbox", root_.path("/mails"), "--users",
                                                root_.path("/mail.users"), "--starttls", pem, key,
                                                "--fault-file", root_.path("/mail")});
    camera_ = std::thread([this] { film(); });
  }
  ~DeliveryRounds() override {
    end();
    filming_ = false;
    camera_.join();
    Transfer::limits() = Transfer::Limits();
  }

  // Delivers pictures, as the capture thread does.
  void film() {
    while (filming_) {
      TDateTime now;
      now.set();
      jpgWriter()->write(picture_.data(), static_cast<long>(picture_.size()), now, 'J');
      os::usleep(10000);
    }
  }

  void replace(const std::string& name, const std::string& text) {
    writeFile(root_.path("/new"), text);
    fs::permissions(root_.path("/new"), fs::perms::owner_read | fs::perms::owner_write);
    fs::rename(root_.path("/new"), root_.path(name));
  }

  // Makes the recorders anew, as when the settings have changed.
  void make(Who who) {
    end();
    const auto common = [&](const Server& server) {
      return std::string("Server = ") + (who == kNowhere ? "nowhere.invalid" : "127.0.0.1") +
             "\nPort = " + std::to_string(who == kNobody ? closed_.port() : server.port()) +
             "\nSecurity = 1\nCaFile = " + root_.path("/certificates/") +
             (who == kStranger ? "stranger" : "ca") +
             ".pem\nUser = cam\nPassword = " + (who == kWrongPassword ? "wr0ng" : kPassword) + "\n";
    };
    replace("/etc/camera.conf", "[Ftp]\nFolder = pictures\nFixedName = 1\nFileName = now\n" +
                                    common(*ftp_) + "[Mail]\nSender = camera@example.org\n" +
                                    "Login = 1\n" + common(*mail_));
    uploads_ = std::make_unique<Uploads>();
    mails_ = std::make_unique<Mails>();
    who_ = who;
  }

  // Ends the bodies first, as their owner does.
  void end() {
    if (uploads_ == nullptr) return;
    TStopDeadline deadline;
    EXPECT_TRUE(deadline.end(*uploads_));
    EXPECT_TRUE(deadline.end(*mails_));
    uploads_.reset();
    mails_.reset();
  }

  // One recording of each recorder.
  void round(const Fault& fault) {
    replace("/ftp", std::string(fault.ftp) + "\n");
    replace("/mail", std::string(fault.mail) + "\n");
    if (uploads_ == nullptr || who_ != fault.who) make(fault.who);
    // Short where nothing else ends it, long where a busy machine has to get through.
    const bool isSilent = fault.outcome == kFails && std::string(fault.ftp) == "silent";
    const long limitMs = isSilent ? 200 : 10000;
    Transfer::limits() = {limitMs, limitMs, 1000};
    const int tried = mails_->tried;
    uploads_->start(0);
    mails_->start(0);
    if (fault.outcome == kIsStopped) {
      os::usleep(80000);
    } else {
      EXPECT_TRUE(eventually([&] { return !uploads_->running() && mails_->tried > tried; }));
    }
    uploads_->stop(false);
    EXPECT_TRUE(mails_->stop(true));
    EXPECT_TRUE(uploads_->stop(true));
    said_.clear();
    for (const std::string& line : log_.lines()) said_ += line + "\n";
    EXPECT_EQ(said_.find(kPassword), said_.npos) << "the password";
  }

  int events(const std::string& number) const {
    const std::string path = root_.path("/var/log/camera/events.log");
    if (!fs::exists(path)) return 0;
    const std::string all = readFile(path);
    int count = 0;
    for (std::size_t at = all.find(number); at != all.npos; at = all.find(number, at + 1)) ++count;
    return count;
  }

  TempRoot root_;
  LogReader log_{root_};
  ClosedPort closed_;
  std::unique_ptr<Server> ftp_;
  std::unique_ptr<Server> mail_;
  std::string picture_ = "\xFF\xD8" + std::string(30000, 'x');
  std::atomic<bool> filming_{true};
  std::thread camera_;
  std::unique_ptr<Uploads> uploads_;
  std::unique_ptr<Mails> mails_;
  Who who_ = kKnown;
  std::string said_;  // in the last round
};

TEST_F(DeliveryRounds, FaultsTellTheirEventAndLeaveNothingBehind) {
  const int rounds = faultRounds(28);
  Used before;
  int arrived = 0;
  for (int i = -kKinds; i < rounds; ++i) {  // all of them once until things have settled
    if (i == 0) before = usedNow();
    const Fault& fault = kFaults[(i + kKinds) % kKinds];
    const int uploads = events(" 512 ");
    const int mails = events(" 507 ");
    round(fault);
    if (fault.outcome == kFails) {
      EXPECT_EQ(events(" 512 "), uploads + 1) << fault.ftp << fault.who << said_;
      EXPECT_EQ(events(" 507 "), mails + 1) << fault.mail << fault.who << said_;
    } else if (fault.outcome == kArrives) {
      EXPECT_EQ(events(" 512 "), uploads) << said_;
      EXPECT_EQ(events(" 507 "), mails) << said_;
      EXPECT_TRUE(readFile(root_.path("/server/cam/pictures/now.jpg")) == picture_);
      EXPECT_EQ(entries(root_.path("/mails").c_str()), 2 * ++arrived);
    }
    if (testing::Test::HasFailure()) break;
  }
  make(kKnown);
  // A name server may still hold a thread of libcurl that nobody waits for.
  EXPECT_TRUE(eventually([&] { return usedNow().threads <= before.threads; }));
  const Used after = usedNow();
  EXPECT_EQ(after.files, before.files);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LE(after.allocated, before.allocated + 100000);
  EXPECT_LE(after.resident, before.resident + (4 << 20));
#endif
  if (rounds >= 1000)
    std::printf(
        "%d rounds: %d -> %d files, %d -> %d threads, %zu -> %zu bytes allocated, %zu -> %zu "
        "resident\n",
        rounds, before.files, after.files, before.threads, after.threads, before.allocated,
        after.allocated, before.resident, after.resident);
}

}  // namespace
