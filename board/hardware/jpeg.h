// Coder of JPEG pictures.
#pragma once

#include <vector>

#include "board/hardware/libav.h"
#include "board/hardware/picture.h"

// Bound to one thread. Keeps its coder for as long as size and quality stay the same.
class JpegCoder {
 public:
  JpegCoder();
  JpegCoder(const JpegCoder&) = delete;
  JpegCoder& operator=(const JpegCoder&) = delete;
  ~JpegCoder();

  // Codes `picture` (AV_PIX_FMT_YUV420P, limited range, even size) at `quality` per cent: 1 to 100,
  // others are clamped; 50 takes the standard's own quantiser tables. The same picture and quality
  // always give the same bytes. Returns true and replaces `*data` on success; otherwise `*data` is
  // empty.
  bool encode(const AVFrame& picture, int quality, std::vector<char>* data);

 private:
  bool open(int width, int height, int quality);

  Codec codec_;
  Packet packet_;
  Picture full_;  // the picture in the full range that JPEG wants
  int quality_ = 0;
};
