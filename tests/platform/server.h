// A server on the loopback, in a process of its own, for tests of what talks to one.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Runs a program of board/servers while the object lives.
class Server {
 public:
  // Starts `name` of board/servers and waits for its line "ready PORT", 20 s at the most.
  Server(const std::string& name, const std::vector<std::string>& arguments);
  // Ends it by its process id.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Where it listens; 0 when it did not start.
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // Ends it before the object does. Returns its exit status, or -1 when a signal ended it.
  int stop();

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  int port_ = 0;
};

// A port of the loopback at which nobody listens while the object lives.
class ClosedPort {
 public:
  ClosedPort();
  ~ClosedPort();
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;

  int port() const { return port_; }

 private:
  int fd_;
  int port_ = 0;
};
