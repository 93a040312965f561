#include "platform/linux/vol_header.h"

#include <algorithm>

#include "platform/mpg430.h"

namespace {

constexpr int kLongestSide = 2048;
constexpr int kStartCodeBytes = 4;

// What stands behind 00 00 01.
constexpr unsigned kLayerFirst = 0x20;
constexpr unsigned kLayerLast = 0x2f;
constexpr unsigned kPicture = 0xb6;

// Fields of the header.
constexpr unsigned kExtendedAspect = 15;  // the ratio itself follows
constexpr unsigned kRectangular = 0;

// Takes bits from the front, the most significant of each byte first. What lies beyond the end
// reads as zeros and makes the whole not good.
class Bits {
 public:
  Bits(const unsigned char* data, long bytes) : data_(data), end_(bytes * 8) {}

  unsigned take(int count) {
    unsigned value = 0;
    for (; count > 0; --count) value = value << 1 | next();
    return value;
  }
  void skip(int count) { take(count); }
  bool flag() { return take(1) != 0; }
  // A bit that is always 1, so that no start code comes about by chance.
  void marker() {
    if (!flag()) good_ = false;
  }
  bool good() const { return good_; }

 private:
  unsigned next() {
    if (place_ >= end_) {
      good_ = false;
      return 0;
    }
    const unsigned bit = data_[place_ / 8] >> (7 - place_ % 8) & 1U;
    ++place_;
    return bit;
  }

  const unsigned char* data_;
  long end_;
  long place_ = 0;
  bool good_ = true;
};

// Returns how many bits hold every number below `limit`, at least one.
int bitsBelow(unsigned limit) {
  int bits = 1;
  while ((limit - 1) >> bits != 0) ++bits;
  return bits;
}

// `bits`: from behind the start code on.
bool readLayer(Bits bits, PictureSize* size) {
  bits.skip(1 + 8);                   // random access; type of the object
  if (bits.flag()) bits.skip(4 + 3);  // version and priority of the layer
  if (bits.take(4) == kExtendedAspect) bits.skip(8 + 8);
  if (bits.flag()) {                 // control parameters
    bits.skip(2 + 1);                // chroma format, low delay
    constexpr int kBufferBits = 79;  // of rate, size and occupancy, with their markers
    if (bits.flag()) bits.skip(kBufferBits);
  }
  if (bits.take(2) != kRectangular) return false;
  bits.marker();
  const unsigned ticks = bits.take(16);  // of the clock in a second
  if (ticks == 0) return false;
  bits.marker();
  if (bits.flag()) bits.skip(bitsBelow(ticks));  // ticks between two pictures of a fixed rate
  bits.marker();
  const int width = static_cast<int>(bits.take(13));
  bits.marker();
  const int height = static_cast<int>(bits.take(13));
  bits.marker();
  if (!bits.good()) return false;
  if (std::min(width, height) < 1 || std::max(width, height) > kLongestSide) return false;
  *size = {width, height};
  return true;
}

}  // namespace

bool readPictureSize(const char* data, long length, PictureSize* size) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  const long end = std::min<long>(length, kMpg430HeaderBytes);
  for (long at = 0; at + kStartCodeBytes <= end; ++at) {
    if (bytes[at] != 0 || bytes[at + 1] != 0 || bytes[at + 2] != 1) continue;
    const unsigned code = bytes[at + 3];
    if (code == kPicture) return false;
    if (code < kLayerFirst || code > kLayerLast) continue;
    const long behind = at + kStartCodeBytes;
    return readLayer(Bits(bytes + behind, end - behind), size);
  }
  return false;
}
