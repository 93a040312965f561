// AVI files of one MPEG-4 key frame.
#include <cstdint>
#include <cstring>
#include <limits>

#include "platform/linux/avi_layout.h"
#include "platform/linux/vol_header.h"
#include "platform/media.h"
#include "platform/mpg430.h"

namespace {

constexpr std::uint32_t kFormat = kAviBitmapInfo + kMpg430HeaderBytes;
constexpr std::uint32_t kStreamList =
    kListHead + kChunkHead + kAviStreamHead + kChunkHead + kFormat;
constexpr std::uint32_t kHeaderList = kListHead + kChunkHead + kAviFileHeader + kStreamList;
// Everything but the picture.
constexpr std::uint32_t kOverhead =
    kListHead + kHeaderList + kListHead + kChunkHead + kChunkHead + kAviOldEntry;

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
  AviStream stream;
  stream.size = size;
  stream.hasHeader = true;
  std::memcpy(stream.header, data, sizeof stream.header);
  AviTotals totals;  // one picture in one second
  totals.firstFrames = totals.frames = 1;
  totals.bytesPerSecond = totals.longest = picture;
  totals.flags = kAviHasIndex;

  AviOutput out(buffer);
  out.list("RIFF", static_cast<std::uint32_t>(total), "AVI ");
  out.list("LIST", kHeaderList, "hdrl");
  writeFileHeader(out, stream, totals);
  out.list("LIST", kStreamList, "strl");
  writeStreamHeader(out, stream, totals);
  out.list("LIST", kListHead + kChunkHead + static_cast<std::uint32_t>(padded), "movi");
  out.chunk(kAviPicture, picture).bytes(data, picture);
  if (padded > length) out.bytes("", 1);
  out.chunk("idx1", kAviOldEntry).tag(kAviPicture).word(kAviKeyFrame).word(4).word(picture);
  return total;
}
