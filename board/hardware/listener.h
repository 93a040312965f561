// A socket file that the hardware listens at.
#pragma once

#include <string>

// Owns the listening socket and its file. Bound to one thread, but stop().
class Listener {
 public:
  Listener() = default;
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Listens at `path`; what a killed predecessor left there is replaced. Returns false and sets
  // `*error` when that can't be done, or somebody listens there already.
  bool open(const std::string& path, std::string* error);
  // Waits for the next caller. Returns its socket; -1 after stop().
  int accept();
  // Ends accept(), now and from now on. Any thread.
  void stop();

 private:
  std::string path_;
  int fd_ = -1;
  int wakeFd_ = -1;  // readable once stopped
};
