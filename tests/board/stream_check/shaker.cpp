#include "tests/board/stream_check/shaker.h"

#include <iterator>

#include "core/status_slots.h"
#include "platform/stream_buffer.h"

namespace {

constexpr int kModes = 4;
constexpr int kLastMode = kModes - 1;
constexpr int kEmptyResolution = 9;
constexpr int kLastResolution = 10;
constexpr int kQuantisers = 31;
constexpr int kMostAtOnce = 5;
constexpr int kRates[] = {0, 0, 0, 0, 1, 2, 4};  // slow ones cost the test its time

}  // namespace

void Shaker::step() {
  for (int more = upTo(kMostAtOnce - 1); more >= 0 && left_ > 0; --more, --left_) change();
}

void Shaker::change() {
  SB_HANDLE* video = sbVideo();
  switch (upTo(modes_ ? 5 : 4)) {
    case 0:
    case 1: {
      const int index = upTo(kLastResolution);
      sbSetUserdata(video, kSlotResolution, index == kEmptyResolution ? kLastResolution : index);
      break;
    }
    case 2:
      sbSetUserdata(video, kSlotFramerate, kRates[upTo(static_cast<int>(std::size(kRates)) - 1)]);
      break;
    case 3:
      // Half of them fine, so that pictures are of many chunks.
      sbSetUserdata(video, kSlotCompression, 1 + upTo(upTo(1) == 0 ? 1 : kQuantisers - 1));
      break;
    case 4:
      sbSetUserdata(video, kSlotIpratio, upTo(20));
      break;
    default:
      sbSetUserdata(video, kSlotMode, upTo(kLastMode));
  }
}
