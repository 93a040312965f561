// The beginnings of pictures. MPEG-4: ISO/IEC 14496-2, 6.2; JPEG: ISO/IEC 10918-1, B.2.
#include "tests/avi_check/picture_head.h"

namespace {

// Bits of a buffer; behind its end there are zeros, and `ok` is false.
class Bits {
 public:
  Bits(const unsigned char* data, std::size_t length) : data_(data), bits_(length * 8) {}

  unsigned take(int count) {
    unsigned value = 0;
    for (; count > 0; --count) {
      unsigned bit = 0;
      if (at_ < bits_) {
        bit = (data_[at_ / 8] >> (7 - at_ % 8)) & 1U;
      } else {
        ok_ = false;
      }
      value = value << 1 | bit;
      ++at_;
    }
    return value;
  }
  // A bit that must be set.
  void marker() {
    if (take(1) != 1) ok_ = false;
  }
  bool ok() const { return ok_; }

 private:
  const unsigned char* data_;
  std::size_t bits_;
  std::size_t at_ = 0;
  bool ok_ = true;
};

constexpr unsigned kFirstLayer = 0x20, kLastLayer = 0x2f, kPicture = 0xb6;

// Returns the offset of the next start code, `length` when there is none whose value is known.
std::size_t nextCode(const unsigned char* data, std::size_t length, std::size_t at) {
  for (; at + 4 <= length; ++at)
    if (data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1) return at;
  return length;
}

bool readLayer(const unsigned char* data, std::size_t length, int* width, int* height) {
  Bits bits(data, length);
  bits.take(9);                         // random access, kind of object
  if (bits.take(1) != 0) bits.take(7);  // version, priority
  if (bits.take(4) == 15) bits.take(16);
  if (bits.take(1) != 0) {  // control parameters
    bits.take(3);
    if (bits.take(1) != 0) bits.take(79);
  }
  if (bits.take(2) != 0) return false;  // only rectangles
  bits.marker();
  const unsigned resolution = bits.take(16);
  bits.marker();
  if (bits.take(1) != 0) {  // fixed rate: as many bits as the resolution takes
    int count = 1;
    while (count < 16 && (1U << count) < resolution) ++count;
    bits.take(count);
  }
  bits.marker();
  *width = static_cast<int>(bits.take(13));
  bits.marker();
  *height = static_cast<int>(bits.take(13));
  bits.marker();
  return bits.ok() && *width > 0 && *height > 0;
}

void readMpeg4(const unsigned char* data, std::size_t length, PictureHead* head) {
  const std::size_t first = nextCode(data, length, 0);
  if (first != 0) return;
  std::size_t at = first;
  while (at < length && data[at + 3] != kPicture) {
    head->hasHeader = true;
    at = nextCode(data, length, at + 4);
  }
  if (at + 5 > length) return;
  const unsigned kind = data[at + 4] >> 6;
  if (kind > 1) return;
  head->coding = PictureCoding::kMpeg4;
  head->key = kind == 0;
  if (head->hasHeader) readStreamHeader(data, at, &head->width, &head->height);
}

void readJpeg(const unsigned char* data, std::size_t length, PictureHead* head) {
  if (length < 4 || data[0] != 0xff || data[1] != 0xd8 || data[2] != 0xff) return;
  head->coding = PictureCoding::kJpeg;
  head->key = true;
  for (std::size_t at = 2; at + 9 <= length && data[at] == 0xff;) {
    const unsigned marker = data[at + 1];
    const bool isFrame =
        marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
    if (isFrame) {
      head->height = data[at + 5] << 8 | data[at + 6];
      head->width = data[at + 7] << 8 | data[at + 8];
      return;
    }
    at += 2U + (static_cast<std::size_t>(data[at + 2]) << 8 | data[at + 3]);
  }
}

}  // namespace

bool readStreamHeader(const unsigned char* data, std::size_t length, int* width, int* height) {
  for (std::size_t at = nextCode(data, length, 0); at < length;
       at = nextCode(data, length, at + 4)) {
    if (data[at + 3] < kFirstLayer || data[at + 3] > kLastLayer) continue;
    int w = 0;
    int h = 0;
    if (!readLayer(data + at + 4, length - at - 4, &w, &h)) return false;
    *width = w;
    *height = h;
    return true;
  }
  return false;
}

PictureHead readPictureHead(const unsigned char* data, std::size_t length, PictureCoding wanted) {
  PictureHead head;
  if (wanted == PictureCoding::kMpeg4) readMpeg4(data, length, &head);
  if (wanted == PictureCoding::kJpeg) readJpeg(data, length, &head);
  return head;
}
