// A stream buffer of the fake platform: frames and status slots in the test's own memory.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/date_time.h"
#include "platform/stream_buffer.h"

class FakeStream;

struct SB_HANDLE {
  FakeStream* stream;
};

// A frame as it was published.
struct FakeFrame {
  TDateTime time;
  int length = 0;
  int number = 0;
  std::string text[3];
  std::string payload;
};

// One buffer. Attached from the start. Any thread.
class FakeStream {
 public:
  explicit FakeStream(const char* name);
  FakeStream(const FakeStream&) = delete;
  FakeStream& operator=(const FakeStream&) = delete;

  // --- Switches.
  void attach() { attached_ = true; }
  void detach() { attached_ = false; }  // its getter gives null
  void noFreeFrame(bool on = true) { busy_ = on; }
  // Size of a frame, record included, and how many there are. Before the first frame.
  void setFrameSize(long bytes) { frameSize_ = bytes; }
  void setDepth(int frames) { depth_ = frames; }
  // A new segment takes this one's place: readers have to join again.
  void newSegment();

  // --- Frames.
  // Publishes a frame as another process would. Returns its number in the buffer.
  std::int32_t push(const std::string& payload, const TDateTime& time, int number = 0);
  std::int32_t push(const std::string& payload);  // taken now
  // What was published last, oldest first: at most kHistory frames.
  static constexpr std::size_t kHistory = 64;
  std::vector<FakeFrame> frames() const;
  FakeFrame last() const;
  long published() const;  // all frames so far, those that are not shown included
  int held() const;        // frames that are pinned or reserved just now
  // Called after each frame, on the writer's thread. Replaces the one before.
  void onPublish(std::function<void(const FakeFrame&)> callback);

  // --- Status slots, as another process uses them: not in the list of calls.
  int slot(int number) const { return slots_[number].value; }
  void setSlot(int number, int value);
  bool slotWritten(int number) const { return slots_[number].written; }  // since it was tested
  long slotWrites(int number) const { return slots_[number].writes; }    // by the daemon

  // --- For the platform functions.
  const char* name() const { return name_; }
  SB_HANDLE* handle() { return attached_ ? handle_ : nullptr; }
  long frameSize() const { return frameSize_; }
  void daemonSetsSlot(int number, int value);
  int testSlot(int number);
  int reserve();  // -1: none
  void publish(int index);
  int acquire(long ageMs, std::int32_t* number, std::int32_t* epoch);  // -1: none
  void release(int index);
  SB_FRAME* frame(int index);

 private:
  // Relaxed words, as in shared memory: slots must not order what the daemon leaves unordered.
  struct Slot {
    std::atomic<int> value{0};
    std::atomic<bool> written{false};
    std::atomic<long> writes{0};
  };
  struct FreeMemory {
    void operator()(char* memory) const { std::free(memory); }
  };
  struct Cell {
    std::unique_ptr<char, FreeMemory> memory;
    std::int32_t number = 0;  // 0: empty or being written
    std::uint32_t stampMs = 0;
    int holders = 0;
  };

  void makeCells();

  const char* name_;
  SB_HANDLE* handle_;  // never freed
  std::atomic<bool> attached_{true};
  std::atomic<bool> busy_{false};
  std::atomic<long> frameSize_{256 * 1024};
  int depth_ = 16;
  Slot slots_[kSlotCount];
  mutable std::mutex lock_;
  std::vector<Cell> cells_;
  std::int32_t latest_ = 0;
  std::int32_t epoch_ = 1;
  long published_ = 0;
  std::deque<FakeFrame> history_;
  std::function<void(const FakeFrame&)> onPublish_;
};
