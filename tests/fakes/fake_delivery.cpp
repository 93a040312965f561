#include "tests/fakes/fake_delivery.h"

#include <cstdio>
#include <cstring>

#include "tests/fakes/fake_platform.h"
#include "tests/fakes/fake_seam.h"

namespace {

constexpr std::int64_t kStepUs = 100000;
constexpr std::int64_t kStalledUs = 20 * std::int64_t{1000000};

// Where the calling thread has a session.
thread_local const FakeDelivery* t_session = nullptr;

FakePlatform& fake() { return FakePlatform::the(); }

std::string text(const char* pointer) { return pointer != nullptr ? pointer : ""; }

}  // namespace

FakeDelivery::FakeDelivery() {
  std::strcpy(ftp.server, "ftp.example.net");
  std::strcpy(ftp.user, "camera");
  std::strcpy(ftp.password, "secret");
  ftp.port = 21;
  std::strcpy(mail.server, "mail.example.net");
  std::strcpy(mail.sender, "camera@example.net");
  std::strcpy(mail.receiver, "admin@example.net");
  mail.port = 25;
  mail.attach = 1;
}

std::vector<FakeDelivery::Upload> FakeDelivery::uploads() const {
  std::lock_guard<std::mutex> guard(lock_);
  return uploads_;
}

std::vector<FakeDelivery::Mail> FakeDelivery::mails() const {
  std::lock_guard<std::mutex> guard(lock_);
  return mails_;
}

std::string FakeDelivery::password() const {
  std::lock_guard<std::mutex> guard(lock_);
  return password_;
}

void FakeDelivery::hangs(const std::string& function) {
  std::lock_guard<std::mutex> guard(lock_);
  hangs_.insert(function);
  anyHangs_ = true;
}

void FakeDelivery::answers(const std::string& function) {
  std::lock_guard<std::mutex> guard(lock_);
  hangs_.erase(function);
  anyHangs_ = !hangs_.empty();
}

bool FakeDelivery::hangsNow(const char* function) const {
  if (!anyHangs_.load(std::memory_order_relaxed)) return false;
  std::lock_guard<std::mutex> guard(lock_);
  return hangs_.find(function) != hangs_.end();
}

bool FakeDelivery::fails(const char* function) {
  if (fake().failing(function)) return true;
  if (!hangsNow(function)) return fake_seam::here() == fake_seam::Body::kAskedToStop;
  hanging.fetch_add(1, std::memory_order_relaxed);
  const std::int64_t end = fake().clock.monotonicUs() + kStalledUs;
  while (fake_seam::here() != fake_seam::Body::kAskedToStop && fake().clock.monotonicUs() < end)
    fake().pause(kStepUs, false);
  hanging.fetch_sub(1, std::memory_order_relaxed);
  return true;
}

void FakeDelivery::upload(const char* name, const char* data, long length, int option) {
  uploadCount.fetch_add(1, std::memory_order_relaxed);
  if (!keep_) return;
  std::lock_guard<std::mutex> guard(lock_);
  uploads_.push_back({name, std::string(data, static_cast<std::size_t>(length)), option});
}

void FakeDelivery::send(const TMailInfo& info) {
  mailCount.fetch_add(1, std::memory_order_relaxed);
  if (!keep_) return;
  Mail one{info.receiver,
           text(info.subject),
           text(info.body),
           info.body != nullptr,
           info.user,
           info.password,
           info.method,
           "",
           "",
           ""};
  const TMailInfo::TAttachment& attachment = info.attachment;
  if (attachment.data != nullptr && attachment.length > 0) {
    one.type = text(attachment.type);
    one.data = std::string(attachment.data, static_cast<std::size_t>(attachment.length));
    one.name = text(attachment.name);
  }
  std::lock_guard<std::mutex> guard(lock_);
  mails_.push_back(one);
}

void FakeDelivery::login(const char* password) {
  loginCount.fetch_add(1, std::memory_order_relaxed);
  openSessions.fetch_add(1, std::memory_order_relaxed);
  t_session = this;
  if (!keep_) return;
  std::lock_guard<std::mutex> guard(lock_);
  password_ = password;
}

bool FakeDelivery::logout() {
  if (!loggedIn()) return false;
  openSessions.fetch_sub(1, std::memory_order_relaxed);
  t_session = nullptr;
  return true;
}

bool FakeDelivery::loggedIn() const { return t_session == this; }

// --- FTP

int get_ftp_server(TFtpServer* record) {
  FakeScope scope;
  if (fake().failing("get_ftp_server")) return -1;
  *record = fake().delivery.ftp;
  return 0;
}

int ftpOpenSession(const char* server, int port, const char* user, const char* password) {
  FakeScope scope;
  fake().record("ftpOpenSession(" + std::string(server) + "," + std::to_string(port) + "," + user +
                ")");
  fake().delivery.logout();
  if (fake().delivery.fails("ftpOpenSession")) return -1;
  fake().delivery.login(password);
  return fake().delivery.success;
}

int ftpTransfer(const char* name, const char* data, long length, int option) {
  FakeScope scope;
  fake().record("ftpTransfer(" + std::string(name) + "," + std::to_string(length) + "," +
                std::to_string(option) + ")");
  if (!fake().delivery.loggedIn() || fake().delivery.fails("ftpTransfer"))
    return fake().delivery.failure;
  fake().delivery.upload(name, data, length, option);
  return 0;
}

int ftpCloseSession() {
  FakeScope scope;
  fake().record("ftpCloseSession()");
  const bool wasOpen = fake().delivery.logout();
  return wasOpen && !fake().delivery.fails("ftpCloseSession") ? fake().delivery.success.load() : -1;
}

// --- Mail

int get_mail_info(TMailInfo* info) {
  FakeScope scope;
  if (fake().failing("get_mail_info")) return -1;
  *info = fake().delivery.mail;
  info->attachment = {};
  info->body = nullptr;
  info->subject = nullptr;
  return 0;
}

// "at SECONDS"; fails when that does not fit.
int get_mail_body(char* text, long size, long time) {
  FakeScope scope;
  fake().record("get_mail_body(" + std::to_string(size) + "," + std::to_string(time) + ")");
  if (fake().failing("get_mail_body")) return -1;
  const std::string line = "at " + std::to_string(time);
  if (static_cast<long>(line.size()) >= size) return -1;
  std::memcpy(text, line.c_str(), line.size() + 1);
  return 0;
}

int send_mail(const TMailInfo* info) {
  FakeScope scope;
  fake().record("send_mail(" + std::string(info->receiver) + ")");
  if (fake().delivery.fails("send_mail")) return fake().delivery.failure;
  fake().delivery.send(*info);
  return 0;
}
