// The calls by which recordings are written, noted and made to fail. The program is linked with
// --wrap for them.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

struct NotedWrite {
  std::int64_t at = 0;  // or the new length
  std::string data;
  bool resize = false;

  void apply(std::string* file) const;
};

// Bends the calls while it lives. One at a time.
class WriteFaults {
 public:
  WriteFaults();
  ~WriteFaults();

  // Files have room for so many bytes from here on; what is written over counts as free.
  void room(std::int64_t bytes) { room_ = bytes; }
  void error(int error) { error_ = error; }
  // Fails the call after so many more; -1: none.
  void failCall(int calls, int error);
  // Calls write a part of what they are asked for, or are interrupted.
  void hesitate(bool on) { hesitate_ = on; }

  const std::vector<NotedWrite>& writes() const { return writes_; }
  void forget() { writes_.clear(); }

  // What the calls do.
  long write(int fd, const char* data, std::size_t size, std::int64_t at);
  int resize(int fd, std::int64_t size);

 private:
  std::int64_t room_ = std::numeric_limits<std::int64_t>::max();
  int error_ = 28;  // ENOSPC
  int failCall_ = -1;
  int callError_ = 0;
  bool hesitate_ = false;
  unsigned calls_ = 0;
  std::vector<NotedWrite> writes_;
};
