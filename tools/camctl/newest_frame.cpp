#include "tools/camctl/newest_frame.h"

#include "platform/media.h"
#include "platform/mpg430.h"
#include "tools/camctl/frame_reader.h"

namespace {

constexpr long kAgeMs = 3000;  // even the slowest camera has one of that age
constexpr int kLevels = 2;

PictureSize sizeIn(const std::string& header) {
  char bytes[kMpg430HeaderBytes];
  PictureSize size{};
  readPictureSize(bytes, hex2bin(header.c_str(), bytes, sizeof bytes), &size);
  return size;
}

}  // namespace

// A reader begins with the oldest frame that is young enough, so the newest is the last it finds.
bool findNewestFrame(NewestFrame* newest) {
  FrameReader reader;
  const int most = 64;  // as many as a buffer has; a camera may deliver faster than this looks
  bool found = false;
  for (int i = 0; i < most; ++i) {
    const FrameReader::Frame frame(&reader, 0, kAgeMs);
    if (!frame) break;
    found = true;
    newest->number = frame.number();
    newest->kind = frame.content().kind();
    newest->length = frame.length();
    newest->size = newest->kind == FrameKind::kMpeg4 ? sizeIn(frame.text(0)) : PictureSize{};
    for (int window = 0; window < kLevels; ++window) {
      newest->motion[window] = frame.text(1 + window);
    }
  }
  return found;
}

const char* kindName(FrameKind kind) {
  switch (kind) {
    case FrameKind::kMpeg4:
      return "MPEG-4";
    case FrameKind::kJpeg:
      return "JPEG";
    case FrameKind::kUnknown:
      break;
  }
  return "unknown";
}
