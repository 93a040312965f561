// The picture size in an MPEG-4 stream header.
#pragma once

struct PictureSize {
  int width;  // pixels
  int height;
};

// Reads the size of the pictures from the video object layer header (ISO/IEC 14496-2) that stands
// somewhere in the first kMpg430HeaderBytes bytes of `data`. `length`: of the data, any.
// Returns false, leaving `*size` alone, when none stands there, when it is one of no rectangular
// picture, contradicts itself or does not reach as far as the size, and when a side is 0 or longer
// than 2048 pixels, the largest that a decoder of this kind is made for. Any thread.
bool readPictureSize(const char* data, long length, PictureSize* size);
