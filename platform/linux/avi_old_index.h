// The index "idx1" behind the first RIFF of a recording, for players that know no other.
#pragma once

#include <cstdint>

#include "platform/linux/avi_head.h"

// Makes it from the blocks of the index that stand in the file, at `at`. Memory: two fixed pieces.
class AviOldIndex {
 public:
  AviOldIndex(int fd, const AviHead& head) : fd_(fd), head_(head) {}

  // Returns true iff the blocks tell of every picture in the first RIFF, of which there are some.
  bool possible() const;
  // Of the whole chunk.
  std::int64_t bytes() const { return kChunkHead + std::int64_t{pictures()} * kAviOldEntry; }

  // Writes it. On failure returns false with `errno`.
  bool write(std::int64_t at) { return make(at, false); }
  // Returns true iff it stands there already.
  bool stands(std::int64_t at) { return make(at, true); }

 private:
  std::uint32_t pictures() const { return head_.totals.firstFrames; }
  bool make(std::int64_t at, bool compare);
  bool makeBlock(const AviBlock& block, std::uint32_t* left, std::int64_t* at, bool compare);
  bool reach(std::int64_t end);
  bool put(std::size_t bytes, std::int64_t at, bool compare);

  static constexpr std::uint32_t kEntries = 512;  // at a time

  int fd_;
  const AviHead& head_;
  char entries_[kEntries * kAviBlockEntry];
  char made_[kEntries * kAviOldEntry];
  char there_[kEntries * kAviOldEntry];
};
