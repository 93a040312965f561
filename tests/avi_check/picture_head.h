// The beginnings of pictures.
#pragma once

#include <cstddef>

enum class PictureCoding { kUnknown, kMpeg4, kJpeg };

struct PictureHead {
  PictureCoding coding = PictureCoding::kUnknown;
  bool key = false;
  bool hasHeader = false;  // MPEG-4: a stream header stands ahead of the picture
  int width = 0;           // 0: it does not tell, or not within the bytes that were looked at
  int height = 0;
};

// Looks at the first `length` bytes of a picture. `wanted`: what it should be; another one is
// kUnknown, as is an MPEG-4 picture that is neither key nor predicted from the one before.
PictureHead readPictureHead(const unsigned char* data, std::size_t length, PictureCoding wanted);

// Reads the size from an MPEG-4 stream header. Returns false when it holds no valid one.
bool readStreamHeader(const unsigned char* data, std::size_t length, int* width, int* height);
