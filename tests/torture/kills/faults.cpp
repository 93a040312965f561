#include "tests/torture/kills/faults.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <vector>

#include "tests/torture/kills/processes.h"

namespace {

constexpr char kLog[] = "/var/log/camera/lives.log";
constexpr char kTone[] = "/sbin/ptcmd";
constexpr std::size_t kMuch = std::size_t{4} << 20;  // more than a small disk holds
constexpr int kMostLines = 9;                        // that a server answers before it falls silent

}  // namespace

Faults::Faults(std::string model, pid_t shareServer, bool disk, Moments* moments)
    : model_(std::move(model)), shareServer_(shareServer), disk_(disk), moments_(moments) {}

void Faults::choose(const std::string& only) {
  std::vector<std::string> all = {"nothing", "servers silent", "servers silent", "command hangs"};
  if (disk_) all.push_back("disk full");
  if (shareServer_ > 0) all.insert(all.end(), {"share hangs", "share hangs"});
  if (!model_.empty())
    all.insert(all.end(), {"drivers hang", "drivers fail", "pictures late", "hardware dead"});
  name_ = !only.empty()
              ? only
              : all[static_cast<std::size_t>(moments_->whole(static_cast<int>(all.size()) - 1))];
  ftp_.answer(moments_->whole(kMostLines));
  mail_.answer(moments_->whole(kMostLines));
  if (name_ == "disk full") writeContent(kFiller, std::string(kMuch, 'x'));
  if (name_ != "command hangs") return;
  writeContent(kTone, "#!/bin/sh\nexec sleep 6\n");
  chmod(kTone, 0755);
}

void Faults::turn(const std::string& command) const {
  std::vector<std::string> words = {"/home/boardctl", "--board", "/"};
  std::istringstream all(command);
  for (std::string word; all >> word;) words.push_back(word);
  run(words, kLog);
}

void Faults::strike() {
  const std::string node = model_ == "B520" && moments_->chance(50) ? "sensor" : "encoder";
  if (name_ == "drivers hang") turn("hang " + node);
  if (name_ == "drivers fail") turn("fail * EIO");
  if (name_ == "pictures late") turn("reads " + node + " late 700");
  if (name_ == "share hangs") kill(shareServer_, SIGUSR1);
}

void Faults::heal() {
  if (name_ == "drivers hang") turn("go-on");
  if (name_ == "drivers fail" || name_ == "pictures late") turn("heal");
  if (name_ == "share hangs") kill(shareServer_, SIGUSR2);
  if (name_ == "disk full") unlink(kFiller);
  if (name_ == "command hangs")
    writeContent(kTone, "#!/bin/sh\nexec /sbin/boardlog ptcmd \"$@\"\n");
  name_ = "nothing";
}

std::string Faults::settings() const {
  if (name_ != "servers silent") return "";
  return "\n[Ftp]\nServer = 127.0.0.1\nSecurity = 0\nPort = " + std::to_string(ftp_.port()) +
         "\n[Mail]\nServer = 127.0.0.1\nSecurity = 0\nSender = a@example.org\nReceiver = "
         "b@example.org\nPort = " +
         std::to_string(mail_.port()) + "\n";
}

std::string Faults::actions() const {
  return name_ == "servers silent" ? "Ftp = 1\nFtpDuration = 60\nMail = 1\nSubject = x\n" : "";
}
