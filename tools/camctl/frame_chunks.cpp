#include "tools/camctl/frame_chunks.h"

#include <algorithm>

#include "capture/chunk_trailer.h"

namespace {

constexpr std::size_t kTrailer = kTrailerBytes;

bool isMpeg4(const Chunk& chunk) {
  return chunk.type == kTypeKey || chunk.type == kTypeKeyMore || chunk.type == kTypePredicted ||
         chunk.type == kTypePredictedMore;
}

}  // namespace

FrameChunks::FrameChunks(const char* payload, std::size_t length, std::size_t largest) {
  if (length < 1 || length > largest) return;
  // A camera without trailers leaves there what was there before; it tells no such lengths.
  const bool packed = walk(payload, length, largest);
  if (packed && std::all_of(chunks_.begin(), chunks_.end(), isMpeg4)) {
    kind_ = FrameKind::kMpeg4;
    return;
  }
  chunks_.clear();
  if (length > 2 && payload[0] == '\xff' && payload[1] == '\xd8') kind_ = FrameKind::kJpeg;
}

bool FrameChunks::walk(const char* payload, std::size_t length, std::size_t largest) {
  std::size_t done = 0;
  for (std::size_t end = largest; end >= done + kTrailer; end -= kTrailer) {
    const auto* trailer = reinterpret_cast<const TChunkTrailer*>(payload + end - kTrailer);
    const std::size_t size = loadLe32(trailer->length);
    if (size < 1 || size > end - kTrailer - done) return false;
    chunks_.push_back({trailer->type, payload + done, size});
    done += size;
    if (trailer->more == kTrailerLast) return done == length;
    if (trailer->more != kTrailerMore) return false;
  }
  return false;
}
