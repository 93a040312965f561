#include "tests/torture/kills/silent_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace {

constexpr int kLookMs = 20;
constexpr int kBacklog = 50;

const char* answerTo(const char* line) {
  static const struct {
    const char* word;
    const char* answer;
  } kAnswers[] = {{"USER", "331 and the password?\r\n"},
                  {"PASS", "230 welcome\r\n"},
                  {"PWD", "257 \"/\"\r\n"},
                  {"DATA", "354 go on\r\n"},
                  {"EPSV", "500 no\r\n"},
                  {"PASV", "227 (127,0,0,1,0,9)\r\n"}};
  for (const auto& one : kAnswers)
    if (std::strncmp(line, one.word, std::strlen(one.word)) == 0) return one.answer;
  return "250 well\r\n";
}

void say(int fd, const char* text) { send(fd, text, std::strlen(text), MSG_NOSIGNAL); }

}  // namespace

SilentServer::SilentServer() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bind(listener_, reinterpret_cast<const sockaddr*>(&address), size);
  listen(listener_, kBacklog);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

SilentServer::~SilentServer() {
  over_ = true;
  thread_.join();
  for (const auto& one : told_) close(one.first);
  close(listener_);
}

void SilentServer::take() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  told_[fd] = 0;
  if (lines_ < 1) return;
  say(fd, "220 here\r\n");
  told_[fd] = 1;
}

bool SilentServer::hear(int fd, int* told) const {
  char line[1000] = "";
  if (recv(fd, line, sizeof line - 1, MSG_DONTWAIT) <= 0) return false;
  if (*told >= lines_) return true;
  ++*told;
  say(fd, answerTo(line));
  return true;
}

void SilentServer::serve() {
  while (!over_) {
    std::vector<pollfd> all = {{listener_, POLLIN, 0}};
    for (const auto& one : told_) all.push_back({one.first, POLLIN, 0});
    if (poll(all.data(), all.size(), kLookMs) < 1) continue;
    for (std::size_t i = 1; i < all.size(); ++i) {
      if (all[i].revents == 0 || hear(all[i].fd, &told_[all[i].fd])) continue;
      close(all[i].fd);
      told_.erase(all[i].fd);
    }
    if (all[0].revents != 0) take();
  }
}
