// The owner of the stream buffers, and a segment that somebody else has left in its place.
#include <unistd.h>

#include <set>

#include "platform/bytes.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/stream_buffer.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/segment_file.h"

namespace {

constexpr sb::FrameSizes kSizes{2, 1024};

void publish(SB_HANDLE* buffer) {
  TAutoFrame frame(buffer, 0, nullptr, nullptr, 0);
  if (!frame) return;
  std::memset(frame->payload, 0x55, kSizes.frameSize - kFrameHeadBytes);
  storeLe32(frame->length, 100);
}

void read(SB_HANDLE* buffer) {
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  TAutoFrame frame(buffer, 1000, &number, &epoch, 0);
  if (frame) require(loadLe32(frame->length) < UINT32_MAX, "there is a frame");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  segment_file::prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  sb::BufferSizes sizes;
  sizes.video = sizes.video2 = sizes.audio = kSizes;
  if (input.byte() >= 0xc0) sizes.video.frames = 3;
  segment_file::make(&input);
  sb::forgetStreams();
  segment_file::begin(&input);
  std::set<SB_HANDLE*> handles;
  const bool all = sb::ownSegments(sizes);
  for (int round = 0; round < 3 && all; ++round) {
    SB_HANDLE* const buffer = sbVideo();
    if (buffer == nullptr) break;
    handles.insert(buffer);
    require(sbGetFrameSize(buffer) == kSizes.frameSize, "the owner has the size that it wants");
    publish(buffer);
    read(buffer);
    for (int slot = 0; slot < kSlotCount; slot += 5) sbSetUserdata(buffer, slot, slot);
    for (int slot = 0; slot < kSlotCount; ++slot) sbTestUserdata(buffer, slot);
  }
  segment_file::end();
  for (auto& current : sb::current)
    if (current.load() != nullptr) handles.insert(current.load());
  // The list of all handles keeps their places, which nobody looks at any more.
  for (SB_HANDLE* const handle : handles) {
    sb::Mapping::giveBack(handle->segment.mapping);
    close(handle->segment.fd);
    delete handle;
  }
  segment_file::unmapLeftOvers();
  return 0;
}
