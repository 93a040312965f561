// The block at the start of a recording, which tells everything about the file. See
// docs/recordings.md.
#pragma once

#include <array>
#include <cstdint>

#include "platform/linux/avi_layout.h"

// One page: it is brought up to date by one write, which a page takes whole or not at all.
constexpr std::uint32_t kAviHeadBytes = 4096;
constexpr std::uint32_t kAviMovi = kAviHeadBytes - kListHead;  // where the list of pictures begins
// Blocks of the index that the file's table has room for: as many as fit into the page.
constexpr std::uint32_t kAviBlocks = 236;

constexpr std::uint32_t kAviBlockHead = 32;       // of a block: chunk head, kind, number, tag, base
constexpr std::uint32_t kAviBlockEntry = 8;       // place and size of a picture
constexpr std::uint32_t kAviBlockCount = 12;      // where in it the number of entries stands
constexpr std::uint32_t kAviNotKey = 0x80000000;  // flag in the size
constexpr std::uint32_t kAviNextHead = 2 * kListHead;  // what every further RIFF begins with

constexpr std::uint32_t kAviRateScale = 1000;                // a rate is pictures in 1000 s
constexpr std::uint32_t kAviUsualRate = 25 * kAviRateScale;  // until it is known

// A block of the index; its `frames` are those that can be looked up in it.
struct AviBlock {
  std::uint64_t at = 0;
  std::uint32_t bytes = 0;  // with its head
  std::uint32_t frames = 0;

  std::uint32_t room() const { return (bytes - kAviBlockHead) / kAviBlockEntry; }
};

// Returns how many pictures the block `number` has room for when the first one has room for
// `first`: doubled every 8 blocks, up to 1024 times, so that the table lasts for 20 million
// pictures and a short file has a short index.
inline std::uint32_t aviBlockRoom(std::uint32_t number, std::uint32_t first) {
  const std::uint32_t doublings = number / 8;
  return first << (doublings < 10 ? doublings : 10);
}

struct AviHead {
  AviStream stream;
  AviTotals totals;
  std::uint32_t riffBytes = kAviHeadBytes;  // of the file's first RIFF, with its head
  std::uint32_t moviBytes = kListHead;      // of the list of pictures in it, with its head
  std::uint32_t blocks = 0;
  std::array<AviBlock, kAviBlocks> block;

  // Where the entry of a block stands in the file.
  std::uint32_t entryAt(std::uint32_t number) const;

  void encode(char (&page)[kAviHeadBytes]) const;
  // Returns false iff it isn't the start of a recording made here. The numbers are as they stand
  // there; `stream.tag` becomes one of the two tags.
  bool decode(const char (&page)[kAviHeadBytes]);
};

// Writes the head of a block of the index. `bytes`, `at`: of the block; `entries`: in use.
void writeBlockHead(AviOutput& out, std::uint32_t bytes, std::uint64_t at, std::uint32_t entries);

// Writes the head of a further RIFF that holds `bytes` in all.
void writeNextHead(AviOutput& out, std::uint32_t bytes);
