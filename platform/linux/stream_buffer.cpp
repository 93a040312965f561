// The stream buffer as the daemon sees it.
#include "platform/stream_buffer.h"

#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/linux/stream_buffer_streams.h"

namespace {

SB_HANDLE* handleOf(sb::Stream stream) {
  SB_HANDLE* handle = sb::current[stream].load(std::memory_order_acquire);
  if (handle != nullptr) return handle;
  const sb::Attached found = sb::attach(stream);
  if (found == sb::Attached::kRefused || found == sb::Attached::kMissing) {
    sb::restoreSegment(stream);
  }
  return sb::current[stream].load(std::memory_order_acquire);
}

}  // namespace

SB_HANDLE* sbVideo() { return handleOf(sb::kVideo); }
SB_HANDLE* sbVideo2() { return handleOf(sb::kVideo2); }
SB_HANDLE* sbAudio() { return handleOf(sb::kAudio); }

long sbGetFrameSize(SB_HANDLE* buffer) {
  return buffer == nullptr ? 0 : static_cast<long>(buffer->segment.geometry.frameSize);
}

// Looking for another segment is left for later where somebody waits for the frame.
TAutoFrame::TAutoFrame(SB_HANDLE* buffer, long age, std::int32_t* number, std::int32_t* epoch,
                       long wait)
    : buffer_(buffer), writing_(number == nullptr || epoch == nullptr) {
  if (buffer == nullptr) return;
  generation_ = buffer->generation;
  index_ = writing_ ? buffer->reserve(wait) : buffer->acquire(age, number, epoch, wait);
  if (index_ < 0) {
    buffer->notice();
    return;
  }
  unsigned char* frame = buffer->segment.frame(static_cast<std::uint32_t>(index_));
  frame_ = reinterpret_cast<SB_FRAME*>(frame);
}

// In a fork's child the frame belongs to the parent.
TAutoFrame::~TAutoFrame() {
  if (index_ < 0 || generation_ != buffer_->generation) return;
  if (writing_) {
    buffer_->publish(index_);
  } else {
    buffer_->release(index_);
  }
  buffer_->notice();
}
