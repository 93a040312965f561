// AVI files of one MPEG-4 key frame.
#include <cstdint>
#include <cstring>
#include <limits>

#include "platform/bytes.h"
#include "platform/linux/vol_header.h"
#include "platform/media.h"
#include "platform/mpg430.h"

namespace {

// The tag of plain MPEG-4. Those of its well-known encoders make decoders work around the mistakes
// of these, which spoils a stream that has none.
constexpr char kTag[] = "FMP4";
constexpr char kChunk[] = "00dc";  // a compressed picture of the first stream

constexpr std::uint32_t kChunkHead = 8;    // name and size
constexpr std::uint32_t kListHead = 12;    // the same and the kind of the list
constexpr std::uint32_t kFileHeader = 56;  // "avih"
constexpr std::uint32_t kStreamHead = 56;  // "strh"
constexpr std::uint32_t kBitmapInfo = 40;  // "strf" without what follows it
constexpr std::uint32_t kIndexEntry = 16;
constexpr std::uint32_t kFormat = kBitmapInfo + kMpg430HeaderBytes;
constexpr std::uint32_t kStreamList = kListHead + kChunkHead + kStreamHead + kChunkHead + kFormat;
constexpr std::uint32_t kHeaderList = kListHead + kChunkHead + kFileHeader + kStreamList;
// Everything but the picture.
constexpr std::uint32_t kOverhead =
    kListHead + kHeaderList + kListHead + kChunkHead + kChunkHead + kIndexEntry;

constexpr std::uint32_t kMicrosecondsPerFrame = 1000000;
constexpr std::uint32_t kHasIndex = 0x10;
constexpr std::uint32_t kKeyFrame = 0x10;
constexpr std::uint32_t kUsualQuality = 0xffffffff;

// Appends to a buffer that is long enough.
class Output {
 public:
  explicit Output(char* buffer) : end_(buffer) {}

  Output& tag(const char* four) { return bytes(four, 4); }
  Output& word(std::uint32_t value) {
    storeLe32(end_, value);
    end_ += 4;
    return *this;
  }
  // Two integers of 16 bit.
  Output& halves(int first, int second) {
    return word(static_cast<std::uint32_t>(first) | static_cast<std::uint32_t>(second) << 16);
  }
  Output& zeros(int words) {
    for (; words > 0; --words) word(0);
    return *this;
  }
  Output& bytes(const char* data, std::size_t length) {
    std::memcpy(end_, data, length);
    end_ += length;
    return *this;
  }
  Output& chunk(const char* name, std::uint32_t size) { return tag(name).word(size); }
  // `size`: of the whole list.
  Output& list(const char* name, std::uint32_t size, const char* kind) {
    return chunk(name, size - kChunkHead).tag(kind);
  }

 private:
  char* end_;
};

void writeHeaders(Output& out, const char* streamHeader, std::uint32_t length, PictureSize size) {
  const auto width = static_cast<std::uint32_t>(size.width);
  const auto height = static_cast<std::uint32_t>(size.height);
  out.list("LIST", kHeaderList, "hdrl");
  out.chunk("avih", kFileHeader).word(kMicrosecondsPerFrame);
  out.word(length).word(0).word(kHasIndex);  // bytes per second, alignment
  out.word(1).word(0).word(1).word(length);  // frames, those ahead of others, streams, longest
  out.word(width).word(height).zeros(4);

  out.list("LIST", kStreamList, "strl");
  out.chunk("strh", kStreamHead).tag("vids").tag(kTag).zeros(3);
  out.word(1).word(1).word(0).word(1);  // seconds per frame (over), start, frames
  out.word(length).word(kUsualQuality).word(0);
  out.halves(0, 0).halves(size.width, size.height);

  out.chunk("strf", kFormat).word(kFormat).word(width).word(height);
  out.halves(1, 24).tag(kTag).word(width * height * 3).zeros(4);  // planes, bits of a pixel
  out.bytes(streamHeader, kMpg430HeaderBytes);
}

}  // namespace

// The stream header stands in the format and again ahead of the picture: some players look for it
// in the one place, some in the other.
long i2avi(const char* data, long length, char* buffer, long capacity) {
  PictureSize size{};
  if (length <= kMpg430HeaderBytes || !readPictureSize(data, length, &size)) return -1;
  // Sizes are words of 32 bit, which some players take for signed ones.
  constexpr long kLongest = std::numeric_limits<std::int32_t>::max() - long{kOverhead} - 1;
  if (length > kLongest) return -1;
  const long padded = length + length % 2;
  const long total = padded + long{kOverhead};
  if (total > capacity) return -1;

  const auto picture = static_cast<std::uint32_t>(length);
  Output out(buffer);
  out.list("RIFF", static_cast<std::uint32_t>(total), "AVI ");
  writeHeaders(out, data, picture, size);
  out.list("LIST", kListHead + kChunkHead + static_cast<std::uint32_t>(padded), "movi");
  out.chunk(kChunk, picture).bytes(data, picture);
  if (padded > length) out.bytes("", 1);
  out.chunk("idx1", kIndexEntry).tag(kChunk).word(kKeyFrame).word(4).word(picture);
  return total;
}
