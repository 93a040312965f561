#include "tests/platform/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/timer.h"

namespace {

constexpr int kStartMs = 20000;

// Returns the first line that comes from `fd`, what there is of it when the time is over.
std::string firstLine(int fd) {
  std::string line;
  const std::uint32_t start = monotonicMs();
  for (char c = 0; monotonicMs() - start < kStartMs;) {
    pollfd waited{fd, POLLIN, 0};
    if (poll(&waited, 1, 100) <= 0) continue;
    if (read(fd, &c, 1) != 1 || c == '\n') break;
    line += c;
  }
  return line;
}

}  // namespace

Server::Server(const std::string& name, const std::vector<std::string>& arguments) {
  const std::string path = std::string(VS_SOURCE_DIR "/board/servers/") + name;
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves no server behind
    if (getppid() != parent) _exit(1);
    dup2(ends[1], STDOUT_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(ends[1]);
  fd_ = ends[0];
  const std::string line = firstLine(fd_);
  if (std::sscanf(line.c_str(), "ready %d", &port_) != 1) ADD_FAILURE() << name << ": " << line;
}

Server::~Server() { stop(); }

void Server::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

int Server::stop() {
  if (pid_ <= 0) return -1;
  signal(SIGTERM);
  signal(SIGCONT);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  close(fd_);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ClosedPort::ClosedPort() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd_, any, size) == 0 && getsockname(fd_, any, &size) == 0)
    port_ = ntohs(address.sin_port);
}

ClosedPort::~ClosedPort() { close(fd_); }
