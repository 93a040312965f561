// What AVI files are made of: the chunks and headers that the makers of such files and their repair
// share. docs/recordings.md draws the layout of a recording.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/bytes.h"
#include "platform/linux/vol_header.h"
#include "platform/mpg430.h"

// The tag of plain MPEG-4. Those of its well-known encoders make decoders work around the mistakes
// of these, which spoils a stream that has none.
constexpr char kAviMpeg4[] = "FMP4";
constexpr char kAviJpeg[] = "MJPG";
constexpr char kAviPicture[] = "00dc";  // a compressed picture of the first stream
constexpr char kAviIndex[] = "ix00";    // an index of its pictures

constexpr std::uint32_t kChunkHead = 8;       // name and size
constexpr std::uint32_t kListHead = 12;       // the same and the kind of the list
constexpr std::uint32_t kAviFileHeader = 56;  // "avih"
constexpr std::uint32_t kAviStreamHead = 56;  // "strh"
constexpr std::uint32_t kAviBitmapInfo = 40;  // "strf" without what follows it
constexpr std::uint32_t kAviHasIndex = 0x10;  // flag of the file: there is an "idx1"
constexpr std::uint32_t kAviKeyFrame = 0x10;  // flag of a picture in "idx1"
constexpr std::uint32_t kAviOldEntry = 16;    // bytes of a picture in "idx1"

// Appends to a buffer that is long enough.
class AviOutput {
 public:
  explicit AviOutput(char* buffer) : end_(buffer) {}

  AviOutput& tag(const char* four) { return bytes(four, 4); }
  AviOutput& word(std::uint32_t value) {
    storeLe32(end_, value);
    end_ += 4;
    return *this;
  }
  AviOutput& wide(std::uint64_t value) {
    return word(static_cast<std::uint32_t>(value)).word(static_cast<std::uint32_t>(value >> 32));
  }
  // Two integers of 16 bit.
  AviOutput& halves(int first, int second) {
    return word(static_cast<std::uint32_t>(first) | static_cast<std::uint32_t>(second) << 16);
  }
  AviOutput& zeros(int words) {
    for (; words > 0; --words) word(0);
    return *this;
  }
  AviOutput& bytes(const char* data, std::size_t length) {
    std::memcpy(end_, data, length);
    end_ += length;
    return *this;
  }
  AviOutput& chunk(const char* name, std::uint32_t size) { return tag(name).word(size); }
  // `size`: of the whole list.
  AviOutput& list(const char* name, std::uint32_t size, const char* kind) {
    return chunk(name, size - kChunkHead).tag(kind);
  }
  const char* end() const { return end_; }

 private:
  char* end_;
};

struct AviStream {
  const char* tag = kAviMpeg4;
  PictureSize size{};
  bool hasHeader = false;
  char header[kMpg430HeaderBytes] = {};  // stands behind the format

  std::uint32_t formatBytes() const { return kAviBitmapInfo + (hasHeader ? sizeof header : 0); }
  std::uint32_t listBytes() const {  // of "strl" with "strh" and "strf"
    return kListHead + kChunkHead + kAviStreamHead + kChunkHead + formatBytes();
  }
};

// What the headers tell of the pictures. Times: `rate` pictures in `scale` seconds.
struct AviTotals {
  std::uint32_t scale = 1;
  std::uint32_t rate = 1;
  std::uint32_t bytesPerSecond = 0;
  std::uint32_t flags = 0;
  std::uint32_t firstFrames = 0;  // in the file's first RIFF
  std::uint32_t frames = 0;       // in all
  std::uint32_t longest = 0;      // bytes of the longest picture

  // Sets `bytesPerSecond` from the bytes of all pictures.
  void tellBytes(std::int64_t payload);
};

// Write the chunks "avih", and "strh" with "strf".
void writeFileHeader(AviOutput& out, const AviStream& stream, const AviTotals& totals);
void writeStreamHeader(AviOutput& out, const AviStream& stream, const AviTotals& totals);
