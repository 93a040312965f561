// Walks over the chunks in the payload of a frame: chunk_trailer.h tells how they are packed.
#pragma once

#include "capture/chunk_trailer.h"

// One chunk of a frame, valid as long as the frame.
struct TChunk {
  char type = 0;  // kTypeKey, ...
  const char* data = nullptr;
  long length = 0;  // in bytes, 1 or more
};

// Gives the chunks of one frame in their order. What stands in a frame is another process's word,
// and may change while it is read: nothing outside the payload is touched whatever the trailers
// say, and each is read once. Takes nothing from the heap. Bound to one thread.
class TChunkReader {
 public:
  // `payload`: of the frame, which must outlive the reader. `length`: of the chunks in it.
  // `largest`: of any payload of that buffer; the trailers stand at its end.
  TChunkReader(const char* payload, long length, long largest)
      : payload_(payload), length_(length > 0 && length <= largest ? length : 0), end_(largest) {}

  // Gets the next chunk. Returns false after the last one, and at the first trailer that can't be
  // true: an unknown type or mark, a length that is below 1 or leads beyond `length` or into the
  // trailers, or a last mark ahead of the end.
  bool next(TChunk* chunk);

  // Returns true iff the chunks so far make up the payload, to the byte.
  bool complete() const { return length_ > 0 && done_ == length_; }

  // Returns true iff the trailers of a payload tell just what it is made of.
  static bool sound(const char* payload, long length, long largest) {
    TChunkReader reader(payload, length, largest);
    TChunk chunk;
    while (reader.next(&chunk)) {
    }
    return reader.complete();
  }

 private:
  const char* payload_;
  long length_;
  long end_;       // where the trailers that were read begin
  long done_ = 0;  // bytes in the chunks so far
};

inline bool TChunkReader::next(TChunk* chunk) {
  if (done_ >= length_ || end_ - kTrailerBytes <= done_) return false;
  const auto* trailer = reinterpret_cast<const TChunkTrailer*>(payload_ + end_ - kTrailerBytes);
  const char type = trailer->type;
  const char more = trailer->more;
  const std::uint32_t bytes = loadLe32(trailer->length);
  end_ -= kTrailerBytes;
  const bool known = type == kTypeKey || type == kTypePredicted || type == kTypeKeyMore ||
                     type == kTypePredictedMore || type == kTypeJpeg;
  if (!known || (more != kTrailerMore && more != kTrailerLast)) return false;
  const long room = (end_ < length_ ? end_ : length_) - done_;
  if (bytes < 1 || room < 1 || bytes > static_cast<unsigned long>(room)) return false;
  const long length = static_cast<long>(bytes);
  if (more == kTrailerLast && done_ + length != length_) return false;
  *chunk = {type, payload_ + done_, length};
  done_ += length;
  return true;
}
