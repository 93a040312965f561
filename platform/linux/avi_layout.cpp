#include "platform/linux/avi_layout.h"

#include <algorithm>
#include <limits>

namespace {
constexpr std::uint64_t kUsPerSecond = 1000000;
constexpr std::uint64_t kMostWord = 0xffffffff;
constexpr std::uint32_t kUsualQuality = 0xffffffff;
}  // namespace

void AviTotals::tellBytes(std::int64_t payload) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::int32_t>::max();
  const std::uint64_t mean =
      static_cast<std::uint64_t>(payload) / std::max<std::uint32_t>(frames, 1);
  const std::uint64_t all = mean * rate / std::max<std::uint32_t>(scale, 1);
  bytesPerSecond = static_cast<std::uint32_t>(std::min(all, kMost));
}

void writeFileHeader(AviOutput& out, const AviStream& stream, const AviTotals& totals) {
  const std::uint64_t us = kUsPerSecond * totals.scale / std::max<std::uint32_t>(totals.rate, 1);
  const std::uint64_t usPerFrame = std::clamp<std::uint64_t>(us, 1, kMostWord);
  out.chunk("avih", kAviFileHeader).word(static_cast<std::uint32_t>(usPerFrame));
  out.word(totals.bytesPerSecond).word(0).word(totals.flags);         // alignment ahead of them
  out.word(totals.firstFrames).word(0).word(1).word(totals.longest);  // frames ahead, streams
  out.word(static_cast<std::uint32_t>(stream.size.width));
  out.word(static_cast<std::uint32_t>(stream.size.height)).zeros(4);
}

void writeStreamHeader(AviOutput& out, const AviStream& stream, const AviTotals& totals) {
  const auto width = static_cast<std::uint32_t>(stream.size.width);
  const auto height = static_cast<std::uint32_t>(stream.size.height);
  out.chunk("strh", kAviStreamHead).tag("vids").tag(stream.tag).zeros(3);
  out.word(totals.scale).word(totals.rate).word(0).word(totals.frames);  // start
  out.word(totals.longest).word(kUsualQuality).word(0);
  out.halves(0, 0).halves(stream.size.width, stream.size.height);

  const std::uint32_t format = stream.formatBytes();
  out.chunk("strf", format).word(format).word(width).word(height);
  out.halves(1, 24).tag(stream.tag).word(width * height * 3).zeros(4);  // planes, bits of a pixel
  if (stream.hasHeader) out.bytes(stream.header, sizeof stream.header);
}
