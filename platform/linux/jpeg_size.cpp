#include "platform/linux/jpeg_size.h"

namespace {

// The second byte of a marker; the first is 0xff.
constexpr unsigned kStart = 0xd8;
constexpr unsigned kData = 0xda;
constexpr unsigned kEnd = 0xd9;

// Frame headers are C0 to CF, but for three that stand between them.
bool isFrame(unsigned marker) {
  return marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
}

}  // namespace

bool readJpegSize(const char* data, long length, PictureSize* size) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  const auto half = [bytes](long at) { return bytes[at] << 8 | bytes[at + 1]; };
  constexpr long kFrameBytes = 9;  // as far as the size reaches: marker, length, precision, sides
  if (length < 2 || bytes[0] != 0xff || bytes[1] != kStart) return false;
  for (long at = 2; at <= length - kFrameBytes;) {
    if (bytes[at] != 0xff) return false;
    const unsigned marker = bytes[at + 1];
    if (marker == 0xff) {  // a filling byte
      ++at;
      continue;
    }
    if (marker == kData || marker == kEnd) return false;
    if (isFrame(marker)) {
      const int height = half(at + 5);
      const int width = half(at + 7);
      if (width == 0 || height == 0) return false;
      *size = {width, height};
      return true;
    }
    const int segment = half(at + 2);
    if (segment < 2) return false;
    at += 2 + segment;
  }
  return false;
}
