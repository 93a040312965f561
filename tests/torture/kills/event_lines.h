// The event log: every line of it is whole.
#pragma once

#include <string>

// Reads what has come since the last look. Bound to one thread.
class EventLines {
 public:
  // Returns what is wrong with the new lines; nothing: empty.
  std::string look();
  long lines() const { return lines_; }

 private:
  std::string judge(const std::string& text);

  std::size_t at_ = 0;
  long lines_ = 0;
};
