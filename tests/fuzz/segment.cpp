// A stream buffer whose words are another process's: attached, written, read and looked into while
// they change.
#include <unistd.h>

#include <memory>

#include "platform/bytes.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_inspect.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/stream_buffer.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/segment_file.h"

namespace {

struct Reader {
  std::int32_t number = 0;
  std::int32_t epoch = 0;
};

// Touches what a reader may touch.
void read(SB_HANDLE* buffer, Input& input, Reader* place) {
  if (input.byte() >= 0xf0) *place = {input.take<std::int32_t>(), input.take<std::int32_t>()};
  const long age = static_cast<long>(input.take<std::int16_t>());
  TAutoFrame frame(buffer, age, &place->number, &place->epoch, 0);
  if (!frame) return;
  const auto length = static_cast<std::int32_t>(loadLe32(frame->length));
  const long largest = sbGetFrameSize(buffer) - static_cast<long>(kFrameHeadBytes);
  unsigned sum = 0;
  for (long i = 0; i < std::min<long>(length, largest); ++i)
    sum += static_cast<unsigned char>(frame->payload[i]);
  require(sum <= 255U * 1024, "bytes are bytes");
}

void write(SB_HANDLE* buffer, Input& input) {
  TAutoFrame frame(buffer, 0, nullptr, nullptr, 0);
  if (!frame) return;
  std::memset(frame->payload, 0x55,
              static_cast<std::size_t>(sbGetFrameSize(buffer)) - kFrameHeadBytes);
  storeLe32(frame->length, input.byte() < 0xf0 ? 100 : input.take<std::uint32_t>());
}

void use(SB_HANDLE* buffer, Input& input) {
  Reader readers[2];
  // Frames that are held while something else goes on.
  std::unique_ptr<TAutoFrame> held;
  while (input.left() > 0) {
    const unsigned what = input.byte();
    switch (what % 10) {
      case 0:
      case 1:
        read(buffer, input, &readers[what / 16 % 2]);
        break;
      case 2:
        write(buffer, input);
        break;
      case 3:
        sbSetUserdata(buffer, static_cast<int>(what / 4), input.take<std::int32_t>());
        break;
      case 4:
        sbTestUserdata(buffer, static_cast<int>(what / 4));
        break;
      case 5:
        sbGetUserdata(buffer, static_cast<int>(what / 4));
        break;
      case 6:
        buffer->reap();
        break;
      case 7:
        require(sb::inspect(buffer).frames.size() == buffer->frames, "a look tells of each frame");
        break;
      case 8:
        held = std::make_unique<TAutoFrame>(buffer, 1000, &readers[0].number, &readers[0].epoch, 0);
        break;
      default:
        held.reset();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  segment_file::prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  segment_file::make(&input);
  sb::Segment segment;
  const char* reason = nullptr;
  const auto result = sb::openSegment(sb::streamPath(sb::kVideo), &segment, &reason);
  if (result == sb::OpenResult::kOpened) {
    auto buffer = std::make_unique<SB_HANDLE>(sb::kVideo, segment);
    segment_file::begin(&input);
    use(buffer.get(), input);
    segment_file::end();
    sb::Mapping::giveBack(segment.mapping);
    close(segment.fd);
  } else {
    require(reason != nullptr, "a refusal tells why");
  }
  return 0;
}
