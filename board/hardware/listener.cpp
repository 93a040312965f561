#include "board/hardware/listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/unix_address.h"

namespace {

constexpr int kWaitingCallers = 16;

bool somebodyListens(const UnixAddress& address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool answered = connect(fd, address.get(), address.size()) == 0;
  close(fd);
  return answered;
}

}  // namespace

Listener::~Listener() {
  if (fd_ >= 0) {
    unlink(path_.c_str());
    close(fd_);
  }
  if (wakeFd_ >= 0) close(wakeFd_);
}

bool Listener::open(const std::string& path, std::string* error) {
  UnixAddress address;
  bool listening = address.set(path.c_str());
  if (listening && somebodyListens(address)) {
    address.clear();
    *error = path + ": the hardware of this board runs already";
    return false;
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listening) unlink(path.c_str());
  listening =
      listening && bind(fd, address.get(), address.size()) == 0 && listen(fd, kWaitingCallers) == 0;
  if (!listening) *error = path + ": " + std::strerror(errno);
  address.clear();
  if (!listening) {
    close(fd);
    return false;
  }
  fd_ = fd;
  path_ = path;
  wakeFd_ = eventfd(0, EFD_CLOEXEC);
  return true;
}

int Listener::accept() {
  for (;;) {
    pollfd either[] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    if (poll(either, 2, -1) < 0) continue;
    if (either[1].revents != 0) return -1;
    const int caller = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (caller >= 0) return caller;
    // No descriptors left, for instance: others will be closed.
    constexpr int kPauseMs = 10;
    poll(&either[1], 1, kPauseMs);
  }
}

void Listener::stop() {
  if (wakeFd_ >= 0) eventfd_write(wakeFd_, 1);
}
