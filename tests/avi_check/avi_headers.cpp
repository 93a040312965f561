// The headers of an AVI file, and its pictures' beginnings.
#include <algorithm>

#include "platform/bytes.h"
#include "tests/avi_check/avi_reader.h"

namespace {

constexpr std::uint32_t kHasIndex = 0x10;
constexpr std::uint32_t kKnownFlags = 0x00030930;  // of "avih"
constexpr std::uint32_t kBitmapInfo = 40;
constexpr std::uint32_t kLongestHeader = 4096;
constexpr std::uint32_t kMostSuperEntries = 1 << 16;
constexpr std::size_t kLookBytes = 1024;
constexpr std::uint64_t kLargestPart = 1ULL << 31;  // some readers take sizes for signed numbers

}  // namespace

std::uint32_t AviReader::word(std::uint64_t at) {
  std::array<char, 4> bytes{};
  return bytes_.read(at, bytes.data(), bytes.size()) ? loadLe32(bytes.data()) : 0;
}

std::uint32_t AviReader::half(std::uint64_t at) {
  std::array<char, 2> bytes{};
  return bytes_.read(at, bytes.data(), bytes.size()) ? loadLe16(bytes.data()) : 0;
}

std::string AviReader::tagAt(std::uint64_t at) {
  std::array<char, 4> bytes{};
  return bytes_.read(at, bytes.data(), bytes.size()) ? std::string(bytes.begin(), bytes.end()) : "";
}

void AviReader::readMainHeader(const Chunk& chunk) {
  if (chunk.size != 56) return problem(chunk.at, "a main header of another size");
  const std::uint64_t at = chunk.data();
  main_ = {word(at),      word(at + 12), word(at + 16), word(at + 24),
           word(at + 28), word(at + 32), word(at + 36)};
  if (word(at + 8) != 0) problem(at + 8, "a padding granularity");
  if (word(at + 20) != 0) problem(at + 20, "initial frames");
  for (std::uint64_t reserved = at + 40; reserved < at + 56; reserved += 4)
    if (word(reserved) != 0) problem(reserved, "a reserved word that is not zero");
  hasMain_ = true;
}

void AviReader::readStreamHead(const Chunk& chunk) {
  if (chunk.size != 56) return problem(chunk.at, "a stream header of another size");
  const std::uint64_t at = chunk.data();
  if (tagAt(at) != "vids") problem(at, "no stream of pictures");
  stream_.handler = tagAt(at + 4);
  if (word(at + 8) != 0) problem(at + 8, "flags of a stream");
  if (word(at + 16) != 0) problem(at + 16, "initial frames of a stream");
  stream_.scale = word(at + 20);
  stream_.rate = word(at + 24);
  stream_.start = word(at + 28);
  stream_.length = word(at + 32);
  stream_.largest = word(at + 36);
  stream_.sampleSize = word(at + 44);
  stream_.left = static_cast<int>(half(at + 48));
  stream_.top = static_cast<int>(half(at + 50));
  stream_.right = static_cast<int>(half(at + 52));
  stream_.bottom = static_cast<int>(half(at + 54));
  hasStream_ = true;
}

void AviReader::readFormat(const Chunk& chunk) {
  if (chunk.size < kBitmapInfo || chunk.size > kBitmapInfo + kLongestHeader)
    return problem(chunk.at, "a format of another size");
  const std::uint64_t at = chunk.data();
  if (word(at) + word(at) % 2 != chunk.size && word(at) != kBitmapInfo)
    problem(at, "a format that tells another size than its chunk");
  format_.width = static_cast<std::int32_t>(word(at + 4));
  format_.height = static_cast<std::int32_t>(word(at + 8));
  format_.planes = half(at + 12);
  format_.bits = half(at + 14);
  format_.compression = tagAt(at + 16);
  for (std::uint64_t zero = at + 24; zero < at + 40; zero += 4)
    if (word(zero) != 0) problem(zero, "a word of the format that is not zero");
  format_.streamHeader.resize(chunk.size - kBitmapInfo);
  bytes_.read(at + kBitmapInfo, format_.streamHeader.data(), format_.streamHeader.size());
  hasFormat_ = true;
}

void AviReader::readSuperIndex(const Chunk& chunk) {
  hasIndex_ = true;
  const std::uint64_t at = chunk.data();
  if (chunk.size < 24 || (chunk.size - 24) % 16 != 0)
    return problem(chunk.at, "an index of another size");
  if (half(at) != 4 || half(at + 2) != 0) problem(at, "no index of indexes");
  const std::uint32_t inUse = word(at + 4);
  if (tagAt(at + 8) != "00dc") problem(at + 8, "an index of other chunks");
  for (std::uint64_t reserved = at + 12; reserved < at + 24; reserved += 4)
    if (word(reserved) != 0) problem(reserved, "a reserved word that is not zero");
  if (inUse > (chunk.size - 24) / 16 || inUse > kMostSuperEntries)
    return problem(at + 4, "an index with more entries than it has room for");
  for (std::uint64_t entry = at + 24, end = entry + inUse * std::uint64_t{16}; entry < end;
       entry += 16) {
    superIndex_.push_back(
        {word(entry) | std::uint64_t{word(entry + 4)} << 32, word(entry + 8), word(entry + 12)});
  }
}

void AviReader::readIndexBlock(const Chunk& chunk) {
  const std::uint64_t at = chunk.data();
  if (!isWhole(chunk)) return;
  if (chunk.size < 24 || (chunk.size - 24) % 8 != 0)
    return problem(chunk.at, "an index block of another size");
  if (half(at) != 2 || half(at + 2) != 0x0100) problem(at, "no index of chunks");
  if (tagAt(at + 8) != "00dc") problem(at + 8, "an index block of other chunks");
  if (word(at + 20) != 0) problem(at + 20, "a reserved word that is not zero");
  IndexBlock block;
  block.size = chunk.size;
  block.inUse = word(at + 4);
  block.base = word(at + 12) | std::uint64_t{word(at + 16)} << 32;
  if (block.inUse > (chunk.size - 24) / 8) {
    problem(at + 4, "an index block with more entries than it has room for");
    block.inUse = 0;
  }
  blocks_[chunk.at] = block;
}

void AviReader::judgeHeaders() {
  report_.complete = hasMain_ && hasStream_ && hasFormat_;
  if (!report_.complete) {
    if (truncated_ || bytes_.size() < 12) {
      report_.cut = true;
    } else {
      problem(0, "headers are missing");
    }
    return;
  }
  report_.tag = format_.compression;
  report_.rate = stream_.rate;
  report_.scale = stream_.scale;
  report_.counted = stream_.length;
  report_.width = format_.width;
  report_.height = format_.height;
  if (format_.compression != "FMP4" && format_.compression != "MJPG") problem(0, "an unknown tag");
  if (stream_.handler != format_.compression) problem(0, "two different tags");
  if (stream_.start != 0) problem(0, "a stream that does not begin at 0");
  if (stream_.sampleSize != 0) problem(0, "pictures of one size");
  if (main_.streams != 1) problem(0, "another number of streams than one");
  if (format_.planes != 1 || format_.bits != 24) problem(0, "another depth than 24");
  if ((main_.flags & ~kKnownFlags) != 0) problem(0, "unknown flags");
  if ((main_.flags & kHasIndex) == 0) onlyCut(0, "no flag that there is an index");
  if (stream_.rate == 0 || stream_.scale == 0) {
    problem(0, "no rate");
  } else {
    const double wanted = 1e6 * stream_.scale / stream_.rate;
    if (main_.microseconds == 0 || main_.microseconds < wanted - 1 ||
        main_.microseconds > wanted + 1)
      problem(0, "a time of one picture that is not the rate's");
  }
  judgeSizes();
  judgeCounts();
}

void AviReader::judgeSizes() {
  const auto agrees = [this](std::int64_t width, std::int64_t height) {
    return width == format_.width && height == format_.height;
  };
  if (format_.width <= 0 || format_.height <= 0) problem(0, "no size");
  if (!agrees(main_.width, main_.height)) problem(0, "another size in the main header");
  if (!agrees(stream_.right - stream_.left, stream_.bottom - stream_.top))
    problem(0, "another size in the stream's header");
  const std::vector<unsigned char>& header = format_.streamHeader;
  if (format_.compression == "MJPG") {
    if (!header.empty()) problem(0, "JPEG with a stream header");
    return;
  }
  int width = 0;
  int height = 0;
  if (!readStreamHeader(header.data(), header.size(), &width, &height)) {
    problem(0, "no stream header in the format");
  } else if (!agrees(width, height)) {
    problem(0, "another size in the stream header");
  }
}

// Counts of a cut file are behind, never ahead, unless what they count was cut off.
void AviReader::judgeCounts() {
  const std::uint64_t all = report_.pictures.size();
  const std::uint64_t first = report_.parts.empty() ? 0 : report_.parts[0].pictures;
  const auto judge = [this](std::uint64_t told, std::uint64_t there, const char* what) {
    if (told == there) return;
    onlyCut(0, std::string(what) + ": " + std::to_string(told) + " of " + std::to_string(there));
    if (told > there && !truncated_ && mayBeCut_)
      problem(0, std::string(what) + " counts what is not there");
  };
  judge(stream_.length, all, "the stream's header");
  judge(main_.frames, report_.parts.size() > 1 ? first : all, "the main header");
  if (hasTotal_) judge(total_, all, "the OpenDML header");
  if (report_.parts.size() > 1 && !hasTotal_) problem(0, "several parts without an OpenDML header");

  std::uint32_t largest = 0;
  for (const AviPicture& picture : report_.pictures) largest = std::max(largest, picture.size);
  if (stream_.largest < largest) onlyCut(0, "a picture larger than the stream's header tells");
  if (main_.largest < largest) onlyCut(0, "a picture larger than the main header tells");
  for (const AviPart& part : report_.parts)
    if (part.end - part.at >= kLargestPart) problem(part.at, "a part of 2 GiB or more");
}

void AviReader::judgePictures() {
  for (std::size_t i = 0; i < report_.pictures.size(); ++i) judgePicture(i);
  if (!report_.pictures.empty() && !report_.pictures.front().key)
    problem(report_.pictures.front().at, "the first picture is no key picture");
}

void AviReader::judgePicture(std::size_t number) {
  AviPicture& picture = report_.pictures[number];
  std::array<unsigned char, kLookBytes> data{};
  const std::size_t length = std::min<std::size_t>(picture.size, data.size());
  if (!bytes_.read(picture.at + 8, data.data(), length)) return problem(picture.at, "unreadable");
  const bool isMpeg4 = report_.tag == "FMP4";
  const PictureHead head =
      readPictureHead(data.data(), length, isMpeg4 ? PictureCoding::kMpeg4 : PictureCoding::kJpeg);
  if (head.coding == PictureCoding::kUnknown) problem(picture.at, "no picture of its coding");
  picture.key = head.key;
  if (head.width != 0 && (head.width != report_.width || head.height != report_.height))
    problem(picture.at, "a picture of another size");
  if (!isMpeg4 || number != 0) return;
  const std::vector<unsigned char>& header = format_.streamHeader;
  if (!head.hasHeader) {
    problem(picture.at, "no stream header ahead of the first picture");
  } else if (header.size() > length || !std::equal(header.begin(), header.end(), data.begin())) {
    problem(picture.at, "the first picture's stream header is not the format's");
  }
}
