// How long the machine kept processes waiting.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

// A thread that wants to run every few milliseconds, and notes when it was not let.
class Hiccups {
 public:
  Hiccups();
  Hiccups(const Hiccups&) = delete;
  Hiccups& operator=(const Hiccups&) = delete;
  ~Hiccups();

  // Milliseconds since `begun` by which the thread was late. Any thread.
  double since(double begun) const;

 private:
  struct Late {
    double at, ms;
  };
  void keepTime();

  mutable std::mutex mutex_;
  std::vector<Late> late_;
  std::atomic<bool> over_{false};
  std::thread thread_;
};

// Milliseconds that each thread of a process has waited for a processor, by its id.
using Waits = std::map<int, double>;
Waits waitedForProcessor(pid_t process);
// Of the thread that had to wait longest since `before`.
double longestWait(pid_t process, const Waits& before);
