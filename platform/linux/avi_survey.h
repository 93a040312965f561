// Goes through the chunks of a recording that can't be trusted.
#pragma once

#include <cstdint>

#include "platform/linux/avi_head.h"
#include "platform/linux/avi_old_index.h"

// Finds what is there, and with it the head and the blocks of the index as they ought to be. First
// it only looks, then it mends the blocks and the heads among the pictures. Bound to one thread.
class AviSurvey {
 public:
  enum Pass { kLook, kMend };

  // `size`: of the file; `told`: the head as it stands there.
  AviSurvey(int fd, std::int64_t size, const AviHead& told) : fd_(fd), size_(size), told_(told) {}

  // Goes through the file. Returns false when it can't be repaired: see reason(), and `errno`,
  // which is left alone unless a call fails.
  bool run(Pass pass);
  const char* reason() const { return reason_; }

  // Everything between the head and end() is as it ought to be.
  bool isSound() const { return sound_; }
  AviHead& head() { return head_; }
  std::uint64_t pictures() const { return head_.totals.frames; }
  bool hasNextRiff() const { return riff_ > 0; }
  // Behind the last picture. Of a file of one RIFF, the other index is to stand there.
  std::int64_t end() const { return at_; }
  // Bytes behind the end that are no index.
  std::int64_t tail() const { return tail_; }
  // Where the other index stands or may stand; 0: nowhere.
  std::int64_t oldIndexAt() const { return oldIndexAt_; }
  // The other index, of so many bytes, stands at the end.
  void addOldIndex(std::int64_t bytes);

 private:
  enum class Step { kOn, kEnd, kFailed };

  void begin(Pass pass);
  Step step();
  Step takePicture(std::uint32_t length);
  Step takeBlock(std::uint32_t length);
  Step takeNextRiff();
  Step takeOldIndex(std::uint32_t length);
  Step skipDamage();
  bool judgeOldIndex();

  bool look(std::int64_t at);
  bool isTag(const char* four) const { return std::memcmp(seen_, four, 4) == 0; }
  bool isNextRiff() const;
  bool isPicture(std::int64_t at, std::uint32_t length) const;
  bool isBlock(std::int64_t at, std::uint32_t length) const;
  bool leadsOn(std::int64_t at);
  bool isChunk(std::int64_t at);
  std::int64_t findChunk(std::int64_t from);
  bool isKey(std::uint32_t length) const;

  bool addEntry(std::uint32_t length);
  bool putEntries();
  bool endBlock();
  bool endRiff();
  bool fix(std::int64_t at, const char* data, std::size_t bytes);
  Step give(const char* reason);

  static constexpr std::uint32_t kEntries = 512;  // looked at together
  static constexpr std::size_t kSeen = 64;        // a chunk's head and how a picture begins

  int fd_;
  std::int64_t size_;
  AviHead told_;

  Pass pass_ = kLook;
  const char* reason_ = "";
  bool sound_ = true;
  AviHead head_;
  std::int64_t payload_ = 0;
  std::int64_t at_ = 0;  // the chunk that is looked at
  std::int64_t tail_ = 0;
  std::int64_t riff_ = 0;  // the part that it belongs to
  std::int64_t oldIndexAt_ = 0;
  std::int64_t oldIndexBytes_ = 0;
  bool inBlock_ = false;
  bool indexEnds_ = false;
  std::uint32_t count_ = 0;  // entries gathered

  std::size_t seenBytes_ = 0;
  char seen_[kSeen];
  char entries_[kEntries * kAviBlockEntry];
  char there_[kEntries * kAviBlockEntry];
  char window_[65536];
};
