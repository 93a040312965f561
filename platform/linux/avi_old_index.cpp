#include "platform/linux/avi_old_index.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/file_io.h"

bool AviOldIndex::possible() const {
  // The blocks come in the order of the file, so those of the first RIFF come first.
  std::uint64_t indexed = 0;
  for (std::uint32_t i = 0; i < head_.blocks; ++i)
    if (head_.block[i].at < head_.riffBytes) indexed += head_.block[i].frames;
  return pictures() > 0 && indexed == pictures();
}

bool AviOldIndex::make(std::int64_t at, bool compare) {
  AviOutput(made_).chunk("idx1", pictures() * kAviOldEntry);
  bool good = put(kChunkHead, at, compare);
  // All of it is there at once, though as zeros: players that find a part take its entries, which
  // begin as pictures do, for pictures.
  good = good && (compare || reach(at + bytes()));
  at += kChunkHead;
  std::uint32_t left = pictures();
  for (std::uint32_t i = 0; good && i < head_.blocks && left > 0; ++i)
    good = makeBlock(head_.block[i], &left, &at, compare);
  return good;
}

// Makes the file that long unless it is already.
bool AviOldIndex::reach(std::int64_t end) {
  struct stat status {};
  if (fstat(fd_, &status) != 0) return false;
  return status.st_size >= end || resizeFile(fd_, end);
}

bool AviOldIndex::makeBlock(const AviBlock& block, std::uint32_t* left, std::int64_t* at,
                            bool compare) {
  const auto base = static_cast<std::int64_t>(block.at);
  // From the picture's data, counted from the block, to its head, counted from the word "movi".
  const auto shift = static_cast<std::uint32_t>(base) - kChunkHead - (kAviMovi + kChunkHead);
  for (std::uint32_t done = 0; *left > 0 && done < block.frames;) {
    const std::uint32_t count = std::min({block.frames - done, kEntries, *left});
    const long bytes = static_cast<long>(count) * static_cast<long>(kAviBlockEntry);
    const std::int64_t from = base + kAviBlockHead + std::int64_t{done} * kAviBlockEntry;
    const long got = readAt(fd_, entries_, static_cast<std::size_t>(bytes), from);
    if (got >= 0 && got < bytes) errno = EIO;  // somebody has cut the file
    if (got != bytes) return false;
    AviOutput out(made_);
    for (std::uint32_t i = 0; i < count; ++i) {
      const char* const entry = entries_ + std::size_t{i} * kAviBlockEntry;
      const std::uint32_t size = loadLe32(entry + 4);
      out.tag(kAviPicture).word((size & kAviNotKey) != 0 ? 0 : kAviKeyFrame);
      out.word(loadLe32(entry) + shift).word(size & ~kAviNotKey);
    }
    if (!put(std::size_t{count} * kAviOldEntry, *at, compare)) return false;
    *at += std::int64_t{count} * kAviOldEntry;
    done += count;
    *left -= count;
  }
  return true;
}

bool AviOldIndex::put(std::size_t bytes, std::int64_t at, bool compare) {
  if (!compare) return writeAt(fd_, made_, bytes, at);
  return readAt(fd_, there_, bytes, at) == static_cast<long>(bytes) &&
         std::memcmp(there_, made_, bytes) == 0;
}
