// Whether the machine gave its processors to somebody else.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

// Sums up, as the kernel counts it, how long threads stood in the queue for a processor although
// they could have run, and what was taken from this machine as a whole. A thread that waits for a
// disk, a network, a lock or another process is not in that queue.
class Evidence {
 public:
  // The thread of this process called so, and all threads of the others.
  void watchThread(pid_t process, const char* name);
  void watchProcess(pid_t process) { processes_.push_back(process); }

  // Looks at the clocks; to be called often.
  void sample(std::uint32_t nowMs);
  // How many ms were waited from that time to the last sample; at most of the last 30 s.
  long waitedMs(std::uint32_t fromMs) const;

 private:
  struct Sample {
    std::uint32_t atMs;
    std::uint64_t waitedUs;  // since the beginning
  };

  std::uint64_t waitedOf(pid_t process, pid_t thread);

  std::vector<std::pair<pid_t, pid_t>> threads_;
  std::vector<pid_t> processes_;
  std::map<pid_t, std::uint64_t> last_;  // of each thread, us
  std::uint64_t waitedUs_ = 0;
  std::uint64_t stolen_ = 0;
  bool first_ = true;
  std::deque<Sample> samples_;
};
