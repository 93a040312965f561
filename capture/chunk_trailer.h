// Trailers of the chunks in the payload of a frame: the chunks lie one after the other from its
// start, their trailers one before the other from its very end (the largest payload, not the length
// used). The first chunk's trailer is the last one.
//
//   | chunk 1 | chunk 2 | chunk 3 | ... unused ... | trailer 3 | trailer 2 | trailer 1 |
#pragma once

#include <cstdint>

#include "platform/bytes.h"
#include "platform/frame_type.h"

constexpr long kTrailerBytes = 6;

// Continuation marks.
constexpr char kTrailerMore = 'o';  // another chunk follows in this frame
constexpr char kTrailerLast = 'x';

struct TChunkTrailer {
  char type;
  char more;
  unsigned char length[4];  // of the chunk in bytes, little-endian
};
static_assert(sizeof(TChunkTrailer) == kTrailerBytes, "other processes read this record");

// Writes the trailer that stands at `at`.
inline void storeTrailer(char* at, char type, char more, std::uint32_t length) {
  auto* trailer = reinterpret_cast<TChunkTrailer*>(at);  // made of bytes: no alignment
  trailer->type = type;
  trailer->more = more;
  storeLe32(trailer->length, length);
}

// Says in the trailer at `at` that no further chunk follows in this frame.
inline void markLastTrailer(char* at) { reinterpret_cast<TChunkTrailer*>(at)->more = kTrailerLast; }
