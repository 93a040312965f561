// What the drivers asked of the hardware, one line for each request.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board/drivers/requests.h"

// Returns the line for one request: its name, the argument as it came, the result (or the name of
// the error), and the argument as it went back where it changed: "SET_MIRROR 5 -> 0, 1". `request`:
// null for a number that no driver knows.
std::string describeRequest(const Request* request, unsigned number,
                            const std::vector<char>& before, int result,
                            const std::vector<char>& after);

// Returns "EIO" for 5 and so on.
std::string errorName(int error);

// The file of the trace, if there is one. Any thread.
class Trace {
 public:
  // Begins a new file at `path`. Returns false with `errno`, going on as before.
  bool open(const std::string& path);
  void close();
  bool isOpen() const;
  // Adds a line; it is in the file when this returns.
  void add(const std::string& line);

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  mutable std::mutex mutex_;
  std::unique_ptr<std::FILE, Closer> file_;
};
