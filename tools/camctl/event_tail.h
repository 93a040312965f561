// The lines that are added to the camera's event log.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

// Follows the event log, also across its rotation. Bound to one thread.
class EventTail {
 public:
  // Begins at byte `from` of the log, or at its present end when that is negative.
  explicit EventTail(long from);

  // Returns the whole lines that came in since the last call, without their line ends.
  std::vector<std::string> newLines();

 private:
  void readOn(const std::string& file, std::vector<std::string>* lines);

  std::string path_;
  ino_t inode_ = 0;
  off_t offset_ = 0;
};
