// What a frame of "video" holds: capture/chunk_trailer.h tells how it is packed.
#pragma once

#include <cstddef>
#include <vector>

enum class FrameKind {
  kUnknown,
  kJpeg,   // one picture
  kMpeg4,  // chunks of a stream
};

// A piece of the payload, valid as long as the frame.
struct Chunk {
  char type;  // kTypeKey, ...
  const char* data;
  std::size_t length;
};

// Bound to one thread.
class FrameChunks {
 public:
  // `length`: of the payload. `largest`: of any payload, at whose end the trailers stand. All that
  // is there is another process's word: nothing beyond `largest` bytes is touched.
  FrameChunks(const char* payload, std::size_t length, std::size_t largest);

  FrameKind kind() const { return kind_; }
  // The chunks of an MPEG-4 stream, in their order; otherwise none.
  const std::vector<Chunk>& chunks() const { return chunks_; }

 private:
  // Returns false iff the trailers don't tell just what the payload is made of.
  bool walk(const char* payload, std::size_t length, std::size_t largest);

  std::vector<Chunk> chunks_;
  FrameKind kind_ = FrameKind::kUnknown;
};
