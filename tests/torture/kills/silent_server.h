// A server for FTP or mail that falls silent.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <thread>

// Takes connections on the loopback, answers some lines as if all were well, and then says nothing
// more but keeps the connection.
class SilentServer {
 public:
  SilentServer();
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  ~SilentServer();

  int port() const { return port_; }
  // How many lines it answers on a connection from now on, its greeting included. Any thread.
  void answer(int lines) { lines_ = lines; }

 private:
  void serve();
  void take();
  // Returns false when the other side has gone.
  bool hear(int fd, int* told) const;

  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> lines_{0};
  std::atomic<bool> over_{false};
  std::map<int, int> told_;  // lines, by connection
  std::thread thread_;
};
