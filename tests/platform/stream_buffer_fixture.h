// What the tests of the stream buffer share: a file tree of their own, child processes, and places
// where a process stops or dies.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/stream_buffer_owner.h"
#include "platform/linux/stream_buffer_points.h"
#include "platform/stream_buffer.h"

// A process of its own that ends with the status that `body` returns; killed when the object goes.
class Child {
 public:
  explicit Child(const std::function<int()>& body);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t pid() const { return pid_; }
  void kill(int signal) const;
  // Stops the process and returns when it has stopped.
  void stop() const;
  // Returns when the process has stopped itself; a signal to go on would be lost before that.
  // False: it has ended instead.
  bool awaitStop() const;
  // Returns the exit status, or minus the signal that ended it.
  int wait();

 private:
  pid_t pid_;
};

// Polls until `condition` holds. Returns false after 20 s.
bool eventually(const std::function<bool()>& condition);

// Memory that a test and its children share, zero at first.
struct SharedWords {
  static constexpr int kCount = 16;
  SharedWords();
  ~SharedWords();
  SharedWords(const SharedWords&) = delete;
  SharedWords& operator=(const SharedWords&) = delete;
  std::atomic<std::uint32_t>& operator[](int i) const { return words_[i]; }

 private:
  std::atomic<std::uint32_t>* words_;
};

// Sends the process `signal` when it has come to `point` for the `count`th time.
void signalAt(sb::Point point, int signal, int count = 1);
// Calls `action` whenever the process comes to `point`; null: no more.
void callAt(sb::Point point, std::function<void()> action);

// The point's name for the name of a test.
std::string pointName(sb::Point point);

// Lines that were logged, "level text".
std::vector<std::string> loggedLines();

// A number from the environment, for longer runs than the suite's.
int fromEnvironment(const char* name, int fallback);

// A reader's place.
struct Place {
  std::int32_t number = 0;
  std::int32_t epoch = 0;
};

constexpr sb::FrameSizes kSmall{4, 8192};

class StreamBuffer : public testing::Test {
 protected:
  StreamBuffer();
  ~StreamBuffer() override;

  // Creates the buffers, small ones unless told otherwise.
  static bool own(sb::FrameSizes video = kSmall);
  std::string path(const char* name = "video") const;

  // Writes one frame whose payload is `length` bytes derived from `seed`, with a checksum.
  // Returns false iff there was no frame to be had.
  static bool writeFrame(SB_HANDLE* buffer, std::uint32_t seed, long wait = 0,
                         std::uint32_t length = 1000);
  // Returns the seed of a frame; fails the test and returns 0 when its bytes are not of one piece.
  static std::uint32_t seedOf(const SB_FRAME* frame);
  // Takes the next frame. Returns its seed; 0: none.
  static std::uint32_t readFrame(SB_HANDLE* buffer, Place* place, long wait = 0, long age = 100000);

 private:
  std::string root_;
};
