// The FTP server and the mail server of the fake platform.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/ftp.h"
#include "platform/mail.h"

// What the settings say, what arrived, and servers that do not answer. Failures are scripted by
// FakePlatform::fails("ftpTransfer") and so on. The list of calls holds, in order:
//   ftpOpenSession(host,21,user)   ftpTransfer(cam/20240603/120000.jpg,5,0)   ftpCloseSession()
//   get_mail_body(2041,1717416000) send_mail(a@example.net)
// Any thread; the settings are to be set before anybody asks for them.
class FakeDelivery {
 public:
  FakeDelivery();

  // --- Settings, as get_ftp_server() and get_mail_info() give them.
  TFtpServer ftp{};
  TMailInfo mail{};

  // --- What arrived, as copies.
  struct Upload {
    std::string name;
    std::string data;
    int option;
  };
  struct Mail {
    std::string receiver;
    std::string subject;
    std::string body;
    bool hasBody;
    std::string user, password, method;
    // The attachment; empty without one.
    std::string type, data, name;
  };
  std::vector<Upload> uploads() const;
  std::vector<Mail> mails() const;
  std::string password() const;  // of the last login
  // How many calls of each kind worked, also while nothing is kept.
  std::atomic<long> uploadCount{0};
  std::atomic<long> mailCount{0};
  std::atomic<long> loginCount{0};
  std::atomic<long> openSessions{0};
  // For long runs: what arrives is only counted.
  void keep(bool on) { keep_ = on; }

  // --- Servers that accept and then say nothing. `function`: "ftpOpenSession", "ftpTransfer",
  // "ftpCloseSession" or "send_mail". The call fails when its thread is asked to stop, at once, or
  // by itself after 20 s.
  void hangs(const std::string& function);
  void answers(const std::string& function);
  // What a call returns that works (login, logout) and one that fails (upload, mail).
  std::atomic<int> success{0};
  std::atomic<int> failure{-1};
  // Calls that hang now.
  std::atomic<long> hanging{0};

  // --- For the platform functions.
  bool fails(const char* function);  // after a hang, or as scripted
  void upload(const char* name, const char* data, long length, int option);
  void send(const TMailInfo& info);
  void login(const char* password);
  bool logout();  // false: there is no session of this thread

  bool loggedIn() const;  // on this thread

 private:
  bool hangsNow(const char* function) const;

  mutable std::mutex lock_;
  std::atomic<bool> keep_{true};
  std::vector<Upload> uploads_;
  std::vector<Mail> mails_;
  std::string password_;
  std::set<std::string, std::less<>> hangs_;
  std::atomic<bool> anyHangs_{false};
};
