// The indexes of an AVI file.
#include <algorithm>

#include "tests/avi_check/avi_reader.h"

namespace {
constexpr std::uint32_t kKeyFrame = 0x10;
constexpr std::uint32_t kNotKey = 0x80000000;
}  // namespace

// Judges an entry that should tell of the picture `number`. Returns false when nothing behind it
// needs to be looked at.
bool AviReader::tellsPicture(std::uint64_t at, std::uint32_t size, bool key, std::uint64_t number,
                             std::uint64_t entryAt) {
  if (number < report_.pictures.size()) {
    const AviPicture& picture = report_.pictures[number];
    if (picture.at == at && picture.size == size && picture.key == key) return true;
    problem(entryAt, "the entry of picture " + std::to_string(number) + " tells of " +
                         std::to_string(at) + ", " + std::to_string(size) + (key ? ", key" : "") +
                         " instead of " + std::to_string(picture.at) + ", " +
                         std::to_string(picture.size) + (picture.key ? ", key" : ""));
    return false;
  }
  if (at + 8 + size > bytes_.size() && truncated_) {
    report_.cut = true;
  } else {
    problem(entryAt, "an entry of a picture that is not there");
  }
  return false;
}

void AviReader::judgeBlock(const SuperEntry& entry, std::uint64_t* next) {
  const auto found = blocks_.find(entry.at);
  if (found == blocks_.end()) {
    if (truncated_ && entry.at + entry.size > bytes_.size()) return;
    return problem(entry.at, "no index block where the index tells of one");
  }
  IndexBlock& block = found->second;
  if (block.referred) problem(entry.at, "an index block that is told of twice");
  block.referred = true;
  if (entry.size != block.size + 8) problem(entry.at, "an index block of another size");
  if (entry.duration != block.inUse)
    onlyCut(entry.at, "an index block of another duration: " + std::to_string(entry.duration) +
                          " instead of " + std::to_string(block.inUse));
  for (std::uint32_t i = 0; i < block.inUse; ++i) {
    const std::uint64_t at = entry.at + 32 + std::uint64_t{8} * i;
    const std::uint64_t data = block.base + word(at);
    const std::uint32_t size = word(at + 4);
    if (data < 8) return problem(at, "an entry of no picture");
    if (!tellsPicture(data - 8, size & ~kNotKey, (size & kNotKey) == 0, *next, at)) return;
    ++*next;
  }
}

void AviReader::judgeIndex() {
  std::uint64_t next = 0;
  for (const SuperEntry& entry : superIndex_) judgeBlock(entry, &next);
  report_.indexed = next;
  if (next != report_.pictures.size() && (hasIndex_ || report_.parts.size() > 1))
    onlyCut(0, "pictures in the index: " + std::to_string(next) + " of " +
                   std::to_string(report_.pictures.size()));
  for (const auto& [at, block] : blocks_)
    if (!block.referred) onlyCut(at, "an index block that the index does not tell of");
}

// "idx1" has the pictures of the first part alone.
void AviReader::judgeOldIndex() {
  if (oldIndex_.at == 0) {
    if (report_.complete) onlyCut(0, "no idx1");
    return;
  }
  if (oldIndex_.size % 16 != 0) problem(oldIndex_.at, "idx1 of another size");
  const std::uint64_t first = report_.parts[0].pictures;
  const std::uint64_t end = std::min<std::uint64_t>(oldIndex_.end(), bytes_.size());
  std::uint64_t number = 0;
  for (std::uint64_t at = oldIndex_.data(); at + 16 <= end; at += 16) {
    if (number >= first) return problem(at, "idx1 with more pictures than the first part has");
    const std::uint32_t flags = word(at + 4);
    if (tagAt(at) != "00dc" || (flags & ~kKeyFrame) != 0) problem(at, "an entry of something else");
    if (!tellsPicture(report_.parts[0].moviAt + word(at + 8), word(at + 12), flags == kKeyFrame,
                      number, at))
      break;
    ++number;
  }
  report_.oldIndexed = number;
  if (number != first)
    onlyCut(oldIndex_.at,
            "pictures in idx1: " + std::to_string(number) + " of " + std::to_string(first));
}

AviReport AviReader::read() {
  report_.fileSize = bytes_.size();
  if (!bytes_.isOpen()) {
    report_.problems.push_back("can't be read");
    return report_;
  }
  walkFile();
  judgeHeaders();
  if (report_.complete) judgePictures();
  judgeIndex();
  judgeOldIndex();
  if (tornPictures_ > 1) problem(0, "more than one picture without an end");
  return report_;
}

AviReport checkAvi(const std::string& file, bool cut) { return AviReader(file, cut).read(); }
