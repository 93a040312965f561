#include "platform/linux/avi_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/frame_type.h"
#include "platform/linux/clock.h"
#include "platform/linux/file_io.h"
#include "platform/linux/jpeg_size.h"

namespace {

bool fail(int error) {
  errno = error;
  return false;
}

bool isNothing(const char* header) {
  return std::all_of(header, header + kMpg430HeaderBytes, [](char c) { return c == '\0'; });
}

}  // namespace

void AviFile::open(Fd file, std::int32_t rate) {
  file_ = std::move(file);
  end_ = 0;
  restart();
  head_.totals.rate = rate > 0 ? static_cast<std::uint32_t>(rate) : kAviUsualRate;
}

// Back to the file without anything.
void AviFile::restart() {
  const std::uint32_t rate = head_.totals.rate;
  started_ = inPicture_ = padded_ = indexed_ = false;
  goesOn_ = '\0';
  head_ = AviHead();
  head_.totals.scale = kAviRateScale;
  head_.totals.rate = rate;
  used_ = frames_ = riffFrames_ = 0;
  payload_ = riff_ = 0;
  updateUs_ = 0;
  pending_ = 0;
  if (end_ > 0) resizeFile(file_.get(), 0);
  end_ = 0;
}

bool AviFile::write(char type, const char* header, const char* data, long length) {
  const bool more = goesOnWithPicture(type);
  if (!file_.valid()) return fail(EBADF);
  if (!more && type != kTypeKey && type != kTypePredicted && type != kTypeJpeg) return fail(EINVAL);
  if (length < 1) return fail(EINVAL);
  if (length > static_cast<long>(kLongestPicture)) return fail(EFBIG);
  if (!more) return begin(type, header, data, static_cast<std::uint32_t>(length));
  if (type != goesOn_) return fail(EINVAL);
  return goOn(data, static_cast<std::uint32_t>(length));
}

bool AviFile::begin(char type, const char* header, const char* data, std::uint32_t length) {
  const bool jpeg = type == kTypeJpeg;
  if (started_ && jpeg != (head_.stream.tag == kAviJpeg)) return fail(EINVAL);
  goesOn_ = '\0';
  if (!finish()) return false;
  const std::int64_t now = monotonicUs();
  measure(now);
  const bool due = now - updateUs_ >= limits_.updateUs || pending_ == kPending;
  if (pending_ > 0 && due && !publish()) return false;
  if (!started_)
    start(type, header, data, length);
  else if (!makeRoom(length))
    return false;

  // A picture's size stands in its head once the picture is whole. One that comes in one piece is
  // that when it is written.
  const std::uint32_t ahead = frames_ == 0 && head_.stream.hasHeader ? kMpg430HeaderBytes : 0;
  const std::uint32_t headBytes = kChunkHead + ahead;
  const std::uint32_t copied = headBytes + (length < kDirect ? length + 1 : 0);
  if (kBuffer - used_ < copied && !flush()) return false;
  if (frames_ == 0) firstUs_ = now;
  inPicture_ = true;
  padIncluded_ = false;
  sizeTold_ = jpeg;
  key_ = type != kTypePredicted;
  picture_ = size();
  pictureBytes_ = ahead + length;
  AviOutput out(buffer_ + used_);
  out.chunk(kAviPicture, jpeg ? length : 0).bytes(head_.stream.header, ahead);
  used_ += headBytes;
  if (!append(data, length)) {
    drop();
    return false;
  }
  if (jpeg) finish();  // nothing of it is left to write
  goesOn_ = type == kTypeKey ? kTypeKeyMore : jpeg ? '\0' : kTypePredictedMore;
  // The picture is in any case; should this fail, the next one will tell.
  if (jpeg && (due || frames_ == 1)) publish();
  return true;
}

bool AviFile::goOn(const char* data, std::uint32_t length) {
  if (length > kLongestPicture - std::min(pictureBytes_, kLongestPicture)) {
    drop();
    return fail(EFBIG);
  }
  if (!append(data, length)) {
    drop();
    return false;
  }
  pictureBytes_ += length;
  return true;
}

// Makes the picture whole. May be called again when it fails.
bool AviFile::finish() {
  if (!inPicture_) return true;
  const std::uint32_t odd = pictureBytes_ % 2;
  if (odd != 0 && !padIncluded_) {
    padIncluded_ = true;
    if (used_ == 0 && padded_)
      ++end_;
    else
      buffer_[used_++] = '\0';
  }
  char word[4];
  storeLe32(word, pictureBytes_);
  if (picture_ >= end_)
    std::memcpy(buffer_ + (picture_ - end_) + 4, word, sizeof word);
  else if (!sizeTold_ && (!flush() || !writeAt(file_.get(), word, sizeof word, picture_ + 4)))
    return false;

  AviOutput entry(entries_ + static_cast<std::size_t>(pending_) * kAviBlockEntry);
  entry.word(static_cast<std::uint32_t>(picture_ - base_) + kChunkHead);
  entry.word(pictureBytes_ | (key_ ? 0 : kAviNotKey));
  ++pending_;
  ++frames_;
  ++riffFrames_;
  if (riff_ == 0) ++head_.totals.firstFrames;
  head_.totals.longest = std::max(head_.totals.longest, pictureBytes_);
  payload_ += pictureBytes_;
  inPicture_ = false;
  return true;
}

// Takes the picture back.
void AviFile::drop() {
  const ErrnoKeeper keeper;
  goesOn_ = '\0';
  if (!inPicture_) return;
  inPicture_ = false;
  padded_ = false;
  if (frames_ == 0) {
    restart();
  } else if (picture_ >= end_) {
    used_ = static_cast<std::uint32_t>(picture_ - end_);
  } else {
    end_ = picture_;
    used_ = 0;
    resizeFile(file_.get(), end_);
  }
}

// Puts the head and the first block of the index into the buffer.
void AviFile::start(char type, const char* header, const char* data, std::uint32_t length) {
  AviStream& stream = head_.stream;
  stream = AviStream();
  if (type == kTypeJpeg) {
    stream.tag = kAviJpeg;
    readJpegSize(data, static_cast<long>(length), &stream.size);
  } else {
    stream.hasHeader = !isNothing(header);
    std::memcpy(stream.header, header, sizeof stream.header);
    if (!readPictureSize(header, kMpg430HeaderBytes, &stream.size))
      readPictureSize(data, static_cast<long>(length), &stream.size);
  }
  started_ = true;
  char page[kAviHeadBytes];
  head_.encode(page);
  std::memcpy(buffer_, page, sizeof page);
  used_ = kAviHeadBytes;
  nextBlock();  // fits the buffer
}

// Makes sure that the file can take a picture of `length` and has room for its entry in the index.
bool AviFile::makeRoom(std::uint32_t length) {
  const bool full = blockUsed_ + static_cast<std::uint32_t>(pending_) >= blockRoom_;
  std::int64_t bytes = size() - riff_ + kChunkHead + length + 1;
  if (full) bytes += blockBytes();
  if (riff_ == 0) bytes += kChunkHead + std::int64_t{kAviOldEntry} * (head_.totals.firstFrames + 1);
  const std::uint32_t limit = riff_ == 0 ? limits_.firstRiff : limits_.laterRiff;
  if (bytes > limit && riffFrames_ > 0)
    return nextRiff() && nextBlock();  // pictures there belong into a block of their own
  if (!full) return true;
  return (pending_ == 0 || publish()) && nextBlock();
}

bool AviFile::nextRiff() {
  if (!publish()) return false;
  const std::int64_t end = end_;
  if (riff_ == 0 && !writeOldIndex()) return false;
  AviOutput out(buffer_);  // empty after the update
  writeNextHead(out, kAviNextHead);
  used_ = kAviNextHead;
  if (!flush()) {
    used_ = 0;
    if (riff_ == 0) takeBackOldIndex(end);
    return false;
  }
  riff_ = end_ - kAviNextHead;
  riffFrames_ = 0;
  blockRoom_ = blockUsed_;  // until there is a block for them
  return true;
}

// Reserves the next block of the index. Without room in the table for it the pictures go on without
// an index: they play, but nobody can jump to them.
bool AviFile::nextBlock() {
  indexed_ = false;
  base_ = riff_;
  blockUsed_ = blockRoom_ = 0;
  if (head_.blocks == kAviBlocks) {
    blockRoom_ = std::numeric_limits<std::uint32_t>::max();
    return true;
  }
  const std::uint32_t bytes = blockBytes();
  const std::int64_t at = size();
  if (!reserve(bytes)) return false;
  indexed_ = true;
  base_ = at;
  AviBlock& block = head_.block[head_.blocks++];
  block.at = static_cast<std::uint64_t>(at);
  block.bytes = bytes;
  blockRoom_ = block.room();
  return true;
}

// Of the next block.
std::uint32_t AviFile::blockBytes() const {
  return kAviBlockHead + aviBlockRoom(head_.blocks, limits_.firstBlock) * kAviBlockEntry;
}

// Writes zeros, so that filling in the entries later needs no more room.
bool AviFile::reserve(std::uint32_t bytes) {
  if (kBuffer - used_ < bytes && !flush()) return false;
  AviOutput out(buffer_ + used_);
  writeBlockHead(out, bytes, static_cast<std::uint64_t>(size()), 0);
  if (kBuffer - used_ >= bytes) {
    std::memset(buffer_ + used_ + kAviBlockHead, 0, bytes - kAviBlockHead);
    used_ += bytes;
    return true;
  }
  std::memset(buffer_ + kAviBlockHead, 0, kBuffer - kAviBlockHead);
  for (std::uint32_t done = 0; done < bytes;) {
    const std::uint32_t part = std::min(bytes - done, kBuffer);
    if (!writeAt(file_.get(), buffer_, part, end_ + done)) {
      const ErrnoKeeper keeper;
      resizeFile(file_.get(), end_);
      return false;
    }
    done += part;
    std::memset(buffer_, 0, kAviBlockHead);
  }
  end_ += bytes;
  return true;
}
