#include "platform/linux/avi_survey.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/linux/file_io.h"

namespace {

constexpr std::uint32_t kLongestPicture = (std::uint32_t{1} << 28) + kMpg430HeaderBytes;
constexpr std::uint32_t kLongestBlock = std::uint32_t{1} << 24;
constexpr std::int64_t kLongestRiff = 0xffff0000;  // a size is a word, and so is a place in a block
// What the writer can leave behind is shorter by far. Not to look on keeps a file that is something
// else by now from being cut.
constexpr std::int64_t kLongestDamage = std::int64_t{1} << 29;
constexpr char kSkipped[] = "JUNK";

std::int64_t chunkEnd(std::int64_t at, std::uint32_t length) {
  return at + kChunkHead + length + length % 2;
}

}  // namespace

AviSurvey::Step AviSurvey::give(const char* reason) {
  reason_ = reason;
  return Step::kFailed;
}

void AviSurvey::begin(Pass pass) {
  pass_ = pass;
  sound_ = true;
  reason_ = "can't be read";
  head_ = AviHead();
  head_.stream = told_.stream;
  head_.totals.scale = told_.totals.scale;
  head_.totals.rate = told_.totals.rate;
  if (head_.totals.scale != kAviRateScale || head_.totals.rate == 0) {
    head_.totals.scale = kAviRateScale;
    head_.totals.rate = kAviUsualRate;
  }
  if (told_.totals.longest <= kLongestPicture) head_.totals.longest = told_.totals.longest;
  payload_ = tail_ = riff_ = oldIndexAt_ = oldIndexBytes_ = 0;
  inBlock_ = indexEnds_ = false;
  count_ = 0;
  at_ = kAviHeadBytes;
}

bool AviSurvey::run(Pass pass) {
  begin(pass);
  Step next = Step::kOn;
  while (next == Step::kOn && at_ < size_) next = step();
  if (next == Step::kFailed || !endBlock() || !endRiff()) return false;
  head_.totals.tellBytes(payload_);
  return judgeOldIndex();
}

// Decides about the other index where it can't be moved: one that doesn't fit what is there becomes
// a chunk that is skipped.
bool AviSurvey::judgeOldIndex() {
  if (riff_ == 0 || oldIndexAt_ == 0) return true;
  const AviOldIndex index(fd_, head_);
  if (index.possible() && index.bytes() == oldIndexBytes_) {
    head_.totals.flags = kAviHasIndex;
    return true;
  }
  char head[kChunkHead];
  AviOutput(head).chunk(kSkipped, static_cast<std::uint32_t>(oldIndexBytes_) - kChunkHead);
  head_.moviBytes = head_.riffBytes - kAviMovi;
  return fix(std::exchange(oldIndexAt_, 0), head, sizeof head);
}

void AviSurvey::addOldIndex(std::int64_t bytes) {
  at_ += bytes;
  head_.riffBytes = static_cast<std::uint32_t>(at_);
  head_.totals.flags = kAviHasIndex;
}

// Reads the beginning of the chunk at `at`. Returns false when there is no whole head.
bool AviSurvey::look(std::int64_t at) {
  const long got = readAt(fd_, seen_, sizeof seen_, at);
  seenBytes_ = got > 0 ? static_cast<std::size_t>(got) : 0;
  return seenBytes_ >= kChunkHead;
}

AviSurvey::Step AviSurvey::step() {
  if (!look(at_)) return skipDamage();
  const std::uint32_t length = loadLe32(seen_ + 4);
  if (at_ - riff_ > kLongestRiff) return give("a part of it is larger than the format allows");
  if (isTag(kAviPicture) && isPicture(at_, length)) return takePicture(length);
  if (isTag(kAviIndex) && isBlock(at_, length)) return takeBlock(length);
  if (isNextRiff()) return takeNextRiff();
  if (isTag("idx1") && riff_ == 0 && oldIndexAt_ == 0) return takeOldIndex(length);
  if (!isTag(kSkipped) || chunkEnd(at_, length) > size_) return skipDamage();
  at_ = chunkEnd(at_, length);
  return Step::kOn;
}

bool AviSurvey::isNextRiff() const {
  return seenBytes_ >= kAviNextHead && isTag("RIFF") &&
         std::memcmp(seen_ + 8, "AVIXLIST", 8) == 0 && std::memcmp(seen_ + 20, "movi", 4) == 0;
}

bool AviSurvey::isPicture(std::int64_t at, std::uint32_t length) const {
  return length > 0 && length <= kLongestPicture && at + kChunkHead + length <= size_;
}

bool AviSurvey::isBlock(std::int64_t at, std::uint32_t length) const {
  return length >= kAviBlockHead - kChunkHead && length <= kLongestBlock &&
         (length - (kAviBlockHead - kChunkHead)) % kAviBlockEntry == 0 &&
         chunkEnd(at, length) <= size_;
}

AviSurvey::Step AviSurvey::takePicture(std::uint32_t length) {
  if (head_.totals.frames == std::numeric_limits<std::uint32_t>::max())
    return give("more pictures than the format allows");
  if (!addEntry(length)) return Step::kFailed;
  const std::int64_t filling = at_ + kChunkHead + length;
  if (length % 2 != 0 && filling < size_ && !fix(filling, "", 1)) return Step::kFailed;
  ++head_.totals.frames;
  if (riff_ == 0) ++head_.totals.firstFrames;
  head_.totals.longest = std::max(head_.totals.longest, length);
  payload_ += length;
  at_ = chunkEnd(at_, length);  // of a file cut ahead of the filling, that is one further
  return Step::kOn;
}

AviSurvey::Step AviSurvey::takeBlock(std::uint32_t length) {
  if (!endBlock()) return Step::kFailed;
  if (head_.blocks < kAviBlocks) {
    AviBlock& block = head_.block[head_.blocks++];
    block.at = static_cast<std::uint64_t>(at_);
    block.bytes = length + kChunkHead;
    inBlock_ = true;
  }
  at_ = chunkEnd(at_, length);
  return Step::kOn;
}

AviSurvey::Step AviSurvey::takeNextRiff() {
  if (!endBlock() || !endRiff()) return Step::kFailed;
  riff_ = at_;
  at_ += kAviNextHead;
  return Step::kOn;
}

// At the very end it is made anew, wherever the pictures end.
AviSurvey::Step AviSurvey::takeOldIndex(std::uint32_t length) {
  const std::int64_t end = chunkEnd(at_, length);
  oldIndexAt_ = at_;
  oldIndexBytes_ = end - at_;
  if (!look(end) || !isNextRiff()) return Step::kEnd;
  at_ = end;
  return Step::kOn;
}

// Goes on at the next whole chunk. What is between becomes a block of the index, if it was one, and
// otherwise a chunk that is skipped; where nothing whole follows it is the tail.
AviSurvey::Step AviSurvey::skipDamage() {
  const std::int64_t next = findChunk(at_ + kChunkHead);
  if (next < 0) return Step::kFailed;
  if (next >= size_) {
    tail_ = size_ - at_;
    return Step::kEnd;
  }
  const auto bytes = static_cast<std::uint32_t>(next - at_);
  const auto* const told =
      std::find_if(told_.block.begin(), told_.block.end(), [this, bytes](const AviBlock& block) {
        return block.at == static_cast<std::uint64_t>(at_) && block.bytes == bytes;
      });
  if (told != told_.block.end() && isBlock(at_, bytes - kChunkHead))
    return takeBlock(bytes - kChunkHead);
  char head[kChunkHead];
  AviOutput(head).chunk(kSkipped, bytes - kChunkHead);
  if (!fix(at_, head, sizeof head)) return Step::kFailed;
  at_ = next;
  return Step::kOn;
}

// Returns the place of the next chunk, the file's size when there is none, -1 when it can't be
// told.
std::int64_t AviSurvey::findChunk(std::int64_t from) {
  constexpr long kOverlap = 3;
  for (std::int64_t at = from; at < size_; at += static_cast<long>(sizeof window_) - 4) {
    if (at - from > kLongestDamage) {
      give("damaged too far to be repaired");
      return -1;
    }
    const long got = readAt(fd_, window_, sizeof window_, at);
    if (got < 0) return -1;
    for (long i = 0; i + kOverlap < got; i += 2) {
      const char* const tag = window_ + i;
      if (std::memcmp(tag, kAviPicture, 4) != 0 && std::memcmp(tag, kAviIndex, 4) != 0 &&
          std::memcmp(tag, "RIFF", 4) != 0)
        continue;
      if (isChunk(at + i)) return at + i;
    }
  }
  return size_;
}

// Returns true iff a chunk stands there that leads on to another one, or to the end of the file.
bool AviSurvey::isChunk(std::int64_t at) {
  if (!look(at)) return false;
  const std::uint32_t length = loadLe32(seen_ + 4);
  if (isNextRiff()) return true;
  if (isTag(kAviPicture)) return isPicture(at, length) && leadsOn(chunkEnd(at, length));
  return isTag(kAviIndex) && isBlock(at, length) && leadsOn(chunkEnd(at, length));
}

bool AviSurvey::leadsOn(std::int64_t at) {
  if (at >= size_) return true;
  return look(at) && (isTag(kAviPicture) || isTag(kAviIndex) || isTag(kSkipped) || isTag("idx1") ||
                      isNextRiff());
}

// Only where the block doesn't tell: what the encoder has said is not always seen in the picture.
bool AviSurvey::isKey(std::uint32_t length) const {
  if (std::memcmp(head_.stream.tag, kAviJpeg, 4) == 0) return true;
  constexpr char kStart[] = {'\0', '\0', '\1', '\xb6'};
  const char* const end = seen_ + std::min<std::size_t>(seenBytes_, kChunkHead + length);
  const char* const start = std::search(seen_ + kChunkHead, end, kStart, kStart + sizeof kStart);
  if (end - start <= static_cast<long>(sizeof kStart)) return head_.totals.frames == 0;
  return (start[sizeof kStart] & 0xc0) == 0;
}

// Gathers the entry of the picture at hand. An index with a hole would tell of wrong times: where
// one picture finds no room, all that follow stay without.
bool AviSurvey::addEntry(std::uint32_t length) {
  if (!inBlock_ || head_.block[head_.blocks - 1].frames == head_.block[head_.blocks - 1].room())
    indexEnds_ = true;
  if (indexEnds_) return true;
  AviBlock& block = head_.block[head_.blocks - 1];
  if (count_ == 0) {
    const std::uint32_t left = std::min(block.room() - block.frames, kEntries);
    const std::size_t bytes = std::size_t{left} * kAviBlockEntry;
    const auto at = static_cast<std::int64_t>(block.at) + kAviBlockHead +
                    std::int64_t{block.frames} * kAviBlockEntry;
    if (readAt(fd_, there_, bytes, at) != static_cast<long>(bytes)) return false;
  }
  const std::size_t place = std::size_t{count_} * kAviBlockEntry;
  const auto offset =
      static_cast<std::uint32_t>(at_ + kChunkHead - static_cast<std::int64_t>(block.at));
  const std::uint32_t told = loadLe32(there_ + place + 4);
  const bool known = loadLe32(there_ + place) == offset && (told & ~kAviNotKey) == length;
  AviOutput(entries_ + place)
      .word(offset)
      .word(known ? told : length | (isKey(length) ? 0 : kAviNotKey));
  ++count_;
  ++block.frames;
  return count_ < kEntries || putEntries();
}

bool AviSurvey::putEntries() {
  if (count_ == 0) return true;
  const AviBlock& block = head_.block[head_.blocks - 1];
  const std::size_t bytes = std::size_t{count_} * kAviBlockEntry;
  const auto at = static_cast<std::int64_t>(block.at) + kAviBlockHead +
                  std::int64_t{block.frames - count_} * kAviBlockEntry;
  count_ = 0;
  return fix(at, entries_, bytes);
}

bool AviSurvey::endBlock() {
  if (!inBlock_) return true;
  inBlock_ = false;
  const AviBlock& block = head_.block[head_.blocks - 1];
  char head[kAviBlockHead];
  AviOutput out(head);
  writeBlockHead(out, block.bytes, block.at, block.frames);
  return putEntries() && fix(static_cast<std::int64_t>(block.at), head, sizeof head);
}

bool AviSurvey::endRiff() {
  if (at_ - riff_ > kLongestRiff) {
    give("a part of it is larger than the format allows");
    return false;
  }
  const auto bytes = static_cast<std::uint32_t>(at_ - riff_);
  if (riff_ == 0) {
    const std::int64_t end = oldIndexAt_ > 0 ? oldIndexAt_ : at_;
    head_.riffBytes = bytes;
    head_.moviBytes = static_cast<std::uint32_t>(end) - kAviMovi;
    return true;
  }
  char head[kAviNextHead];
  AviOutput out(head);
  writeNextHead(out, bytes);
  return fix(riff_, head, sizeof head);
}

// Makes sure that `data` stands there, or, while only looking, notes that it doesn't.
bool AviSurvey::fix(std::int64_t at, const char* data, std::size_t bytes) {
  const long got = readAt(fd_, window_, bytes, at);
  if (got < 0) return false;
  if (got == static_cast<long>(bytes) && std::memcmp(window_, data, bytes) == 0) return true;
  sound_ = false;
  return pass_ == kLook || writeAt(fd_, data, bytes, at);
}
