// What is in one frame of a stream, read from its bytes as docs/stream-buffer.md and
// capture/chunk_trailer.h document them; deliberately without the daemon's own code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A frame, copied out of the shared memory.
struct RawFrame {
  std::vector<unsigned char> bytes;  // the whole frame, record and unused room included

  std::uint32_t word(std::size_t at) const;
  std::int32_t length() const { return static_cast<std::int32_t>(word(8)); }
  std::uint32_t number() const { return word(12); }
  std::uint64_t timeUs() const { return std::uint64_t{word(0)} * 1000000 + word(4); }
  std::string text(int which) const;  // 0 to 2
  const unsigned char* payload() const { return bytes.data() + 160; }
  std::size_t room() const { return bytes.size() - 160; }
};

// A piece of the stream. Points into its RawFrame.
struct Chunk {
  char type;
  const unsigned char* data;
  std::size_t size;
};

// Walks the trailers of a frame of "video". Returns the chunks in the order of the stream; none,
// and
// `*error` says why, when the frame is not as it should be.
std::vector<Chunk> parseChunks(const RawFrame& frame, std::string* error);

// The 20 bytes before a stream's pictures.
struct StreamHeader {
  int width = 0;
  int height = 0;
  int ticks = 0;  // of its clock in a second, 0: a header that carries the picture's size alone
};

// Reads the header's bits. Returns false when there are no 20 bytes.
bool parseHeader(const std::string& bytes, StreamHeader* header);

// Hexadecimal digits as bytes; empty when they are none.
std::string fromHex(const std::string& text);

// The beginning of an MPEG-4 picture.
struct PictureStart {
  bool key;
  bool coded;   // false: nothing has changed since the last picture
  int seconds;  // passed since the last picture's second
  int ticks;
};

// Reads it. `ticks`: of the stream's clock in a second. Returns false when there is none.
bool parsePictureStart(const unsigned char* data, std::size_t size, int ticks, PictureStart* start);
