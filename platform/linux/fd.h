// A file descriptor that closes itself.
#pragma once

#include <cerrno>
#include <utility>

#include "platform/os.h"

// Owns a descriptor, or none (negative). Closing keeps `errno`. Bound to one thread.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(-1); }

  void reset(int fd) {
    const int error = errno;
    if (fd_ >= 0) os::close(fd_);
    fd_ = fd;
    errno = error;
  }
  int release() { return std::exchange(fd_, -1); }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};
