// AVI recordings: what of them goes into the file when.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "platform/linux/avi_file.h"
#include "platform/linux/avi_old_index.h"
#include "platform/linux/clock.h"
#include "platform/linux/file_io.h"

bool AviFile::append(const char* data, std::uint32_t length) {
  if (length >= kDirect) return appendDirectly(data, length);
  // A byte is left for the filling of an odd length.
  if (length >= kBuffer - used_ && !flush()) return false;
  std::memcpy(buffer_ + used_, data, length);
  used_ += length;
  return true;
}

// Writes the buffer and the data by one call; the filling as well, in case that is the end.
bool AviFile::appendDirectly(const char* data, std::uint32_t length) {
  char filling = '\0';
  iovec parts[] = {{buffer_, used_}, {const_cast<char*>(data), length}, {&filling, 1}};
  const std::int64_t written = writeAt(file_.get(), parts, 3, end_);
  const std::int64_t wanted = std::int64_t{used_} + length;
  if (written < wanted) {
    keepWhole(written);
    return false;
  }
  end_ += wanted;
  used_ = 0;
  padded_ = written > wanted;
  return true;
}

// Writes the buffer.
bool AviFile::flush() {
  if (used_ == 0) return true;
  iovec part{buffer_, used_};
  const std::int64_t written = writeAt(file_.get(), &part, 1, end_);
  if (written < used_) {
    keepWhole(written);
    return false;
  }
  end_ += used_;
  used_ = 0;
  padded_ = false;
  return true;
}

// After a write that failed: keeps the whole pictures in what was written, takes the rest back.
void AviFile::keepWhole(std::int64_t written) {
  const ErrnoKeeper keeper;
  std::int64_t keep = end_;
  for (int i = 0; i < pending_; ++i)
    if (endOf(i) <= end_ + written) keep = std::max(keep, endOf(i));
  const auto kept = static_cast<std::uint32_t>(keep - end_);
  std::memmove(buffer_, buffer_ + kept, used_ - kept);
  used_ -= kept;
  end_ = keep;
  padded_ = false;
  resizeFile(file_.get(), end_);
}

// Where the chunk of a picture that isn't in the index yet ends.
std::int64_t AviFile::endOf(int pending) const {
  const char* const entry = entries_ + static_cast<std::size_t>(pending) * kAviBlockEntry;
  const std::uint32_t bytes = loadLe32(entry + 4) & ~kAviNotKey;
  return base_ + loadLe32(entry) + bytes + bytes % 2;
}

// Gives up the pictures that the file had no room for.
void AviFile::forgetUnwritten() {
  used_ = 0;
  for (; pending_ > 0 && endOf(pending_ - 1) > end_; --pending_) {
    const char* const entry = entries_ + static_cast<std::size_t>(pending_ - 1) * kAviBlockEntry;
    payload_ -= loadLe32(entry + 4) & ~kAviNotKey;
    --frames_;
    if (riff_ == 0) --head_.totals.firstFrames;
  }
  if (!indexed_ || base_ < end_) return;
  indexed_ = false;  // the block has not come into the file either
  head_.block[--head_.blocks] = AviBlock();
}

void AviFile::measure(std::int64_t nowUs) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
  if (frames_ == 0 || nowUs <= firstUs_) return;
  const std::int64_t rate = std::int64_t{frames_} * 1000000000 / (nowUs - firstUs_);
  head_.totals.rate = static_cast<std::uint32_t>(std::clamp<std::int64_t>(rate, 1, kMost));
}

// Brings the file up to date: first the pictures, then the sizes and numbers in the head, then the
// entries of the index, then the numbers of those. Whatever the file tells is there at any moment.
bool AviFile::publish() {
  if (!flush()) return false;
  if (riff_ > 0) {
    char head[kAviNextHead];
    AviOutput out(head);
    writeNextHead(out, static_cast<std::uint32_t>(end_ - riff_));
    if (!writeAt(file_.get(), head, sizeof head, riff_)) return false;
  } else {
    head_.riffBytes = static_cast<std::uint32_t>(end_);
    head_.moviBytes = static_cast<std::uint32_t>(end_) - kAviMovi;
  }
  if (!writeHead()) return false;
  if (indexed_ && pending_ > 0) {
    AviBlock& block = head_.block[head_.blocks - 1];
    const std::size_t bytes = static_cast<std::size_t>(pending_) * kAviBlockEntry;
    const std::int64_t at = base_ + kAviBlockHead + std::int64_t{blockUsed_} * kAviBlockEntry;
    if (!writeAt(file_.get(), entries_, bytes, at)) return false;
    char number[4];
    storeLe32(number, blockUsed_ + static_cast<std::uint32_t>(pending_));
    if (!writeAt(file_.get(), number, sizeof number, base_ + kAviBlockCount)) return false;
    const std::uint32_t entry = head_.entryAt(head_.blocks - 1) + kAviBlockCount;
    if (!writeAt(file_.get(), number, sizeof number, entry)) return false;
    blockUsed_ += static_cast<std::uint32_t>(pending_);
    block.frames = blockUsed_;
  }
  pending_ = 0;
  updateUs_ = monotonicUs();
  // On its way to the disk, without waiting for it, lest a power cut takes much more than a second.
  sync_file_range(file_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
  return true;
}

bool AviFile::writeHead() {
  head_.totals.frames = frames_;
  head_.totals.tellBytes(payload_);
  char page[kAviHeadBytes];
  head_.encode(page);
  return writeAt(file_.get(), page, sizeof page, 0);
}

bool AviFile::close(std::int32_t rate) {
  if (!file_.valid()) return true;
  int error = 0;  // the first one
  const auto note = [&error](bool good) {
    if (!good && error == 0) error = errno;
    return good;
  };
  if (!note(finish())) drop();
  if (!note(flush())) forgetUnwritten();
  head_.totals.rate = rate > 0 ? static_cast<std::uint32_t>(rate) : 1;
  if (frames_ == 0) {
    restart();
  } else {
    note(publish());
    // Only old players look for the index behind the first RIFF: a full disk may go without.
    if (riff_ == 0 && !writeOldIndex() && errno != ENOSPC && errno != EDQUOT && errno != EFBIG)
      note(false);
    resizeFile(file_.get(), end_);
  }
  note(os::close(file_.release()) == 0);
  errno = error;
  return error == 0;
}

// Writes the other index of the first RIFF, and into the head that it is there.
bool AviFile::writeOldIndex() {
  AviOldIndex index(file_.get(), head_);
  if (!index.possible()) return true;
  const std::int64_t end = end_;
  if (index.write(end)) {
    end_ = end + index.bytes();
    head_.totals.flags = kAviHasIndex;
    head_.riffBytes = static_cast<std::uint32_t>(end_);
    if (writeHead()) return true;
  }
  takeBackOldIndex(end);
  return false;
}

// `end`: of the pictures ahead of it.
void AviFile::takeBackOldIndex(std::int64_t end) {
  const ErrnoKeeper keeper;
  end_ = end;
  head_.totals.flags = 0;
  head_.riffBytes = static_cast<std::uint32_t>(end);
  writeHead();
  resizeFile(file_.get(), end);
}
