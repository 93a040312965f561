// Gathers MPEG-4 key frames for recorders.
#include "record/avi_writer.h"

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
// known. Returns true iff there is one.
bool TAviWriter::reserve(long usable) {
  if (frame_ == nullptr && usable > 0) {
    frame_ = std::make_unique<char[]>(static_cast<std::size_t>(usable + kHeaderBytes));
    capacity_ = usable;
  }
  return frame_ != nullptr;
}

long TAviWriter::write(const char* data, long length, const TDateTime& time, char type) {
  if (!getRef()) return 0;
  switch (type) {
    case 'p':
      break;
    case 'i':
      add(data, length);
      if (gathered_ < 1) logEx(1, "TAviWriter::write() IPE");
      break;
    default:
      if (gathered_ > 0) flush(time);
      gathered_ = 0;
      if (type == 'I') add(data, length);
  }
  return gathered_;
}

void TAviWriter::flush(const TDateTime& time) {
  if (frame_ != nullptr) std::memcpy(frame_.get(), header_, sizeof header_);
  TWriter::write(frame_.get(), gathered_ + kHeaderBytes, time, 'I');
}

void TAviWriter::add(const char* data, long length) {
  if (length < 0) length = 0;  // a failed read of the camera adds nothing
  const std::int64_t sum = std::int64_t{gathered_} + length;
  const long usable = getFrameSize(sbVideo2());
  if (sum <= usable && reserve(usable) && sum <= capacity_)
    std::memcpy(frame_.get() + kHeaderBytes + gathered_, data, static_cast<std::size_t>(length));
  else if (length > 0)
    logEx(3, "TAviWriter::add() video2 buffer overflow p:%ld, c:%ld", static_cast<long>(gathered_),
          length);
  gathered_ = static_cast<std::int32_t>(sum < kGatheredMax ? sum : kGatheredMax);
}

TAviWriter* aviWriter() {
  static TAviWriter writer;
  return &writer;
}
