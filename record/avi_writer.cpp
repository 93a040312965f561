// Gathers MPEG-4 key frames for recorders.
#include "record/avi_writer.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/log.h"
#include "platform/stream_buffer.h"

namespace {
constexpr long kTimeoutMs = 500;

// Room is left for the header block, so that the length of the whole frame can be counted too.
constexpr std::int64_t kGatheredMax =
    std::numeric_limits<std::int32_t>::max() - std::int64_t{TAviWriter::kHeaderBytes};
}  // namespace

TAviWriter::TAviWriter() : TWriter(kTimeoutMs) { reserve(getFrameSize(sbVideo2())); }

TAviWriter::~TAviWriter() = default;

// The daemon may be up before "video2" is: the assembly buffer is made once, when the size is
// known.
void TAviWriter::reserve(long usable) {
  if (frame_ != nullptr || usable < 1) return;
  // Not zeroed: pages that no key frame has needed yet cost nothing.
  frame_.reset(new char[static_cast<std::size_t>(usable + kHeaderBytes)]);
  capacity_ = usable;
}

long TAviWriter::write(const char* data, long length, const TDateTime& time, char type) {
  if (!getRef()) {
    if (type != 'p') cut();
    return 0;
  }
  switch (type) {
    case 'p':
      break;
    case 'i':
      add(data, length);
      if (gathered_ < 1) logEx(1, "TAviWriter::write() IPE");
      break;
    default:
      if (gathered_ > 0) flush();
      gathered_ = 0;
      whole_ = type == 'I';
      if (type == 'I') {
        time_ = time;
        add(data, length);
      }
  }
  return gathered_;
}

// The frame carries the time of the chunk that it began with. So what was still gathered when the
// last client left, and is flushed when the next one comes, shows its age, and no recording takes
// it for a new picture.
void TAviWriter::flush() {
  const long length = gathered_ + kHeaderBytes;
  // What was too large for its place is refused for its size, with a message.
  if (!whole_ && length <= getFrameSize(sbVideo2())) return;
  if (frame_ != nullptr) std::memcpy(frame_.get(), header_, sizeof header_);
  TWriter::write(frame_.get(), length, time_, 'I');
}

void TAviWriter::setHeader(const char* bytes, bool ofGathered) {
  if (std::memcmp(header_, bytes, sizeof header_) == 0) return;
  std::memcpy(header_, bytes, sizeof header_);
  if (!ofGathered) cut();
}

void TAviWriter::add(const char* data, long length) {
  if (length < 0) length = 0;  // a failed read of the camera adds nothing
  const std::int64_t sum = std::int64_t{gathered_} + length;
  const long usable = getFrameSize(sbVideo2());
  reserve(usable);
  if (sum > usable || sum > capacity_) {
    logEx(3, "TAviWriter::add() video2 buffer overflow p:%ld, c:%ld", static_cast<long>(gathered_),
          length);
    whole_ = false;
  } else if (length > 0) {
    std::memcpy(frame_.get() + kHeaderBytes + gathered_, data, static_cast<std::size_t>(length));
  }
  gathered_ = static_cast<std::int32_t>(std::min(sum, kGatheredMax));
}

TAviWriter* aviWriter() {
  static TAviWriter writer;
  return &writer;
}
