#include "tests/board/stream_check/frame_parser.h"

#include <cstring>

namespace {

constexpr std::size_t kTrailer = 6;
constexpr std::size_t kHeader = 20;
constexpr std::size_t kWidthBit = 108;  // where each header has it, whatever it carries besides

std::uint32_t little(const unsigned char* at) {
  return at[0] | std::uint32_t{at[1]} << 8 | std::uint32_t{at[2]} << 16 |
         std::uint32_t{at[3]} << 24;
}

class Bits {
 public:
  Bits(const unsigned char* data, std::size_t size, std::size_t at)
      : data_(data), end_(8 * size), at_(at) {}

  unsigned take(int count) {
    unsigned value = 0;
    for (; count > 0; --count, ++at_)
      value = value << 1 | (at_ < end_ ? data_[at_ / 8] >> (7 - at_ % 8) & 1u : 0);
    return value;
  }
  bool over() const { return at_ > end_; }

 private:
  const unsigned char* data_;
  std::size_t end_;
  std::size_t at_;
};

bool startsPicture(const unsigned char* data, std::size_t size) {
  return size >= 5 && std::memcmp(data, "\0\0\1\xb6", 4) == 0;
}

// Says what is wrong with a chunk by itself, null: nothing.
const char* complaint(const Chunk& chunk) {
  const bool start = startsPicture(chunk.data, chunk.size);
  switch (chunk.type) {
    case 'I':
      return start && chunk.data[4] >> 6 == 0 ? nullptr : "'I' without the start of a key frame";
    case 'P':
      return start && chunk.data[4] >> 6 != 0 ? nullptr
                                              : "'P' without the start of a predicted frame";
    case 'i':
    case 'p':
      return start ? "a continuation with a picture's start" : nullptr;
    case 'J':
      return nullptr;  // the decoder will tell
    default:
      return "an unknown type";
  }
}

}  // namespace

std::uint32_t RawFrame::word(std::size_t at) const { return little(bytes.data() + at); }

std::string RawFrame::text(int which) const {
  const auto* begin = reinterpret_cast<const char*>(bytes.data()) + 16 + 48 * which;
  return std::string(begin, strnlen(begin, 48));
}

std::vector<Chunk> parseChunks(const RawFrame& frame, std::string* error) {
  std::vector<Chunk> chunks;
  const auto length = static_cast<std::size_t>(frame.length());
  std::size_t begin = 0;
  std::size_t trailers = frame.room();
  for (bool more = true; more;) {
    if (trailers < begin + kTrailer) {
      *error = "chunks and trailers overlap";
      return {};
    }
    trailers -= kTrailer;
    const unsigned char* trailer = frame.payload() + trailers;
    const Chunk chunk{static_cast<char>(trailer[0]), frame.payload() + begin, little(trailer + 2)};
    if (chunk.size < 1 || chunk.size > length - begin) {
      *error = "a chunk of " + std::to_string(chunk.size) + " bytes, " +
               std::to_string(length - begin) + " are left";
      return {};
    }
    if (const char* what = complaint(chunk)) {
      *error = what;
      return {};
    }
    if (trailer[1] != 'o' && trailer[1] != 'x') {
      *error = "an unknown continuation mark";
      return {};
    }
    more = trailer[1] == 'o';
    begin += chunk.size;
    chunks.push_back(chunk);
  }
  if (begin != length || begin > trailers) {
    *error =
        "chunks of " + std::to_string(begin) + " bytes in a frame of " + std::to_string(length);
    return {};
  }
  return chunks;
}

bool parseHeader(const std::string& bytes, StreamHeader* header) {
  if (bytes.size() != kHeader) return false;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  Bits size(data, bytes.size(), kWidthBit);
  header->width = static_cast<int>(size.take(13));
  size.take(1);
  header->height = static_cast<int>(size.take(13));
  header->ticks = 0;
  const bool layer = std::memcmp(data, "\0\0\1", 3) == 0 && std::memcmp(data + 4, "\0\0\1", 3) == 0;
  if (layer) {
    constexpr std::size_t kTicksBit = kWidthBit - 3 - 16;
    header->ticks = static_cast<int>(Bits(data, bytes.size(), kTicksBit).take(16));
  }
  return true;
}

std::string fromHex(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    const std::string digits = text.substr(i, 2);
    if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return "";
    bytes.push_back(static_cast<char>(std::stoi(digits, nullptr, 16)));
  }
  return bytes;
}

bool parsePictureStart(const unsigned char* data, std::size_t size, int ticks,
                       PictureStart* start) {
  if (!startsPicture(data, size) || ticks < 1) return false;
  int digits = 1;
  while ((ticks - 1) >> digits != 0) ++digits;
  Bits bits(data, size, 32);
  start->key = bits.take(2) == 0;
  start->seconds = 0;
  while (bits.take(1) != 0) ++start->seconds;
  bits.take(1);
  start->ticks = static_cast<int>(bits.take(digits));
  bits.take(1);
  start->coded = bits.take(1) != 0;
  return !bits.over();
}
